// The tools that everything stands on: locks, threads, handle tables, the time base, the log, record types.
#include <cstdlib>
#include <ctime>

#include "GlobalObj.h"
#include "HandleDispather.h"
#include "Log.h"
#include "Mutex.h"
#include "Thread.h"
#include "support.h"

using namespace kelm_recvault;
using namespace recvault_tests;

#if !defined(NDEBUG)
TEST(MutexDeathTest, AssertsTheOrderOfLocks) {
    CMutex channel(LockRank::channel);
    CMutex frames(LockRank::live_frames);
    channel.Create();
    frames.Create();
    const CAutoMutex lock(&frames);
    EXPECT_DEATH(channel.Wait(), "ascending rank");
    EXPECT_DEATH(CMutex::AssertNoneHeld(LockRank::channel, LockRank::live_frames), "leaves its side");
}
#endif

namespace {

struct Worker {
    std::atomic<int> calls{0};
    int result = 0;
    int32_t ThreadFunc(uint32_t user_value) {
        calls += static_cast<int>(user_value);
        return result;
    }
};

}  // namespace

TEST(Thread, ThatEndedByItselfStillWantsItsStop) {
    Worker worker;
    worker.result = 1;
    CThread<Worker> thread;
    thread.Start(&worker, 1, 0, "test");
    EXPECT_TRUE(wait_until([&] { return worker.calls == 1; }));
    EXPECT_EQ(thread.Start(&worker, 1, 0, "test"), KELM_AVIFILE_ALREADY_RUNNING);
    EXPECT_EQ(thread.Stop(), 0);
    EXPECT_EQ(thread.Start(&worker, 1, 0, "test"), 0);
    EXPECT_TRUE(wait_until([&] { return worker.calls == 2; }));
    thread.Stop();
}

TEST(Thread, StopDoesNotWaitForALongPause) {
    Worker worker;
    CThread<Worker> thread;
    thread.Start(&worker, 1, 600000, "test");
    ASSERT_TRUE(wait_until([&] { return worker.calls == 1; }));
    thread.Stop();  // the test's time limit is below the pause
    EXPECT_EQ(worker.calls, 1);
}

TEST(Thread, TellsWhenTheSystemHasNone) {
    Worker worker;
    CThread<Worker> thread;
    doubles::inject({.call = doubles::Call::start_thread, .path_end = "", .times = 1});
    EXPECT_NE(
        log_of([&] { EXPECT_EQ(thread.Start(&worker, 1, 0, "test"), KELM_AVIFILE_FAILED); }).find("_beginthreadex failed"),
        std::string::npos);
    doubles::clear_faults();
    EXPECT_EQ(thread.Start(&worker, 1, 0, "test"), 0);
    thread.Stop();
}

TEST(HandleTable, HandsOutTheLowestFreeSlot) {
    CIdDispather table;
    ASSERT_EQ(table.Init(2), 0);
    int32_t first = -1;
    int32_t second = -1;
    EXPECT_EQ(table.CreateHandle(&first, true), 0);
    EXPECT_EQ(table.CreateHandle(&second), 0);
    EXPECT_EQ(first, 0);
    EXPECT_EQ(second, 1);
    EXPECT_EQ(table.CreateHandle(&second), KELM_AVIFILE_NO_SLOT);
    EXPECT_FALSE(table.IsHandleBusy(first));
    EXPECT_EQ(table.SetHandleBusy(first), 0);
    EXPECT_TRUE(table.IsHandleBusy(first));
    EXPECT_TRUE(table.TakeOutOfUse(first));
    EXPECT_FALSE(table.TakeOutOfUse(first));
    EXPECT_EQ(table.DestroyHandle(first), 0);
    EXPECT_EQ(table.DestroyHandle(first), 0);
    EXPECT_EQ(table.CreateHandle(&second), 0);
    EXPECT_EQ(second, 0);
    for (int32_t outside : {-1, 2}) {
        EXPECT_FALSE(table.IsHandleBusy(outside));
        EXPECT_EQ(table.DestroyHandle(outside), KELM_AVIFILE_FAILED);
        EXPECT_EQ(table.SetHandleBusy(outside), KELM_AVIFILE_FAILED);
    }
}

TEST(TimeBase, ShowsTheWallClockOfItsZone) {
    const char *const zones[] = {"UTC", "Europe/Berlin", "America/St_Johns", "Pacific/Kiritimati"};
    for (const char *zone : zones) {
        setenv("TZ", zone, 1);
        tzset();
        tm wall{};
        wall.tm_year = 126;
        wall.tm_mon = 10;
        wall.tm_mday = 24;
        wall.tm_isdst = -1;
        doubles::set_true_time(mktime(&wall));  // midnight there
        ASSERT_EQ(KELM_AviFile_Init(0), 0);
        const CGlobalObject &global = CGlobalObject::Instance();
        TimeOfDay now{};
        global.gettimeofday_utc(&now);
        EXPECT_EQ(now.seconds % 86400, 0U) << zone;
        const DateTimeFields fields{2026, 11, 20, 12, 30, 59};
        int64_t time = 0;
        DateTimeFields back{};
        EXPECT_EQ(global.mktime_utc(&fields, &time), 0);
        EXPECT_EQ(CGlobalObject::gmtime_utc(time, &back), 0);
        EXPECT_EQ(std::memcmp(&fields, &back, sizeof(back)), 0) << zone;
        KELM_AviFile_UnInit(0);
    }
    doubles::show_system_time();
    unsetenv("TZ");
    DateTimeFields fields{};
    EXPECT_EQ(CGlobalObject::gmtime_utc(-1, &fields), 0);
    EXPECT_EQ(fields.year, 1970);
    EXPECT_EQ(CGlobalObject::gmtime_utc(UINT32_MAX, &fields), 0);
    EXPECT_EQ(fields.year, 2106);
    EXPECT_EQ(CGlobalObject::gmtime_utc(INT64_MAX, &fields), KELM_AVIFILE_FAILED);
}
