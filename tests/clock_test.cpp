// Wrong and changing clocks: both nights of a daylight change, the last second of a year, jumps. Nothing that was recorded
// is overwritten or unreachable.
#include <ctime>

#include "GlobalObj.h"
#include "StorageManager.h"
#include "support.h"

using namespace kelm_recvault;
using namespace recvault_tests;

namespace {

class Clock : public testing::Test {
 protected:
    void TearDown() override {
        KELM_AviFile_UnInit(0);
        doubles::show_system_time();
        setenv("TZ", "UTC", 1);
    }
    void Start() {
        ASSERT_EQ(KELM_AviFile_Init(0), 0);
        RecPartitionInfo info{};
        std::strncpy(info.path, store.path().c_str(), sizeof(info.path) - 1);
        info.priority = 1;
        info.rec_space = info.disk_space = 100ULL << 30;
        ASSERT_EQ(KELM_AviFile_AddRecPartition(&info), 0);
        ASSERT_EQ(KELM_AviFile_CreateDevHandle(&device, "cam"), 0);
        ASSERT_EQ(KELM_AviFile_RecStart(0, 1, device), 0);
    }
    // What the clock on the wall shows, as the application would give it.
    static uint32_t WallSecond(int64_t true_second) {
        const auto time = static_cast<time_t>(true_second);
        tm wall{};
        localtime_r(&time, &wall);
        return static_cast<uint32_t>(timegm(&wall));
    }
    void Deliver(uint32_t second) {
        const Frame frame = make_frame(kKey, delivered++, second, 0, 300);
        ASSERT_EQ(KELM_AviFile_DataInput(0, &frame.head, 36, frame.data.data(), 300, second, 0, device), 0);
    }
    // After a restart every frame is in a complete file, and every file is found.
    void ExpectAllFound(int64_t begin, int64_t end) {
        KELM_AviFile_UnInit(0);
        Start();
        size_t frames = 0;
        const auto files = find_files(store.path(), ".avi");
        for (const auto &path : files) {
            const StoredFile file(path);
            file.ExpectComplete();
            frames += file.frames.size();
        }
        EXPECT_EQ(frames, delivered);
        RecFileSet found;
        CGlobalObject::Instance().StorageMngr().QueryRecFile({1, 0, kAllRecTypes, false}, begin, end, true, &found);
        std::set<std::string> paths;
        for (const auto &node : found) paths.insert(node.rec_file_path);
        EXPECT_EQ(paths, std::set<std::string>(files.begin(), files.end()));
    }

    TempDir store;
    int32_t device = 0;
    uint32_t delivered = 0;
};

}  // namespace

TEST_F(Clock, DaylightNightsLoseNothing) {
    struct Night {
        const char *zone;
        int64_t change;  // true time
    };
    for (const Night &night : {Night{"Europe/Berlin", 1774746000}, Night{"Europe/Berlin", 1792890000},
                               Night{"America/St_Johns", 1772947800}, Night{"America/St_Johns", 1793507400}}) {
        setenv("TZ", night.zone, 1);
        tzset();
        ASSERT_NE(WallSecond(night.change) - WallSecond(night.change - 1), 1U) << "no change of time in " << night.zone;
        delivered = 0;
        fs::remove_all(store / "avi_av");
        doubles::set_true_time(night.change - 5400);
        Start();
        for (int64_t now = night.change - 5400; now < night.change + 5400; now += 30) {
            doubles::set_true_time(now);
            if (now == night.change + 1800) {  // a restart, with the other bias in force
                KELM_AviFile_UnInit(0);
                Start();
            }
            Deliver(WallSecond(now));
        }
        ExpectAllFound(WallSecond(night.change) - 86400, WallSecond(night.change) + 86400);
        KELM_AviFile_UnInit(0);
    }
}

TEST_F(Clock, YearsEndAndJumpsLoseNothing) {
    setenv("TZ", "UTC", 1);
    constexpr uint32_t kNewYear = 1798761600;  // 2027-01-01
    doubles::set_true_time(kNewYear - 10);
    Start();
    for (uint32_t i = 0; i < 20; ++i) Deliver(kNewYear - 10 + i);
    for (uint32_t i = 0; i < 5; ++i) Deliver(kNewYear - 3600 + i);   // back an hour
    for (uint32_t i = 0; i < 5; ++i) Deliver(kNewYear - 8 + i);      // into seconds that are there already
    for (uint32_t i = 0; i < 5; ++i) Deliver(kNewYear + 86400 + i);  // forward a day
    for (uint32_t i = 0; i < 5; ++i) Deliver(kNewYear - 10 + i);     // and back to a name that is taken
    ExpectAllFound(kNewYear - 86400, kNewYear + 2 * 86400);
    EXPECT_TRUE(fs::exists(store / "avi_av/20261231/cam/channel01/235950.avi"));
    EXPECT_TRUE(fs::exists(store / "avi_av/20261231/cam/channel01/235950_1.avi"));
    EXPECT_TRUE(fs::exists(store / "avi_av/20270101/cam/channel01/000000.avi"));
}
