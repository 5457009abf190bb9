// The exported layer: states, arguments and codes, from one thread and from many; what an idle library costs.
#include <unistd.h>

#include "GlobalObj.h"
#include "StorageManager.h"
#include "player.h"

using namespace recvault_tests;

namespace {

constexpr int32_t kBadArgument = KELM_AVIFILE_BAD_ARGUMENT;
constexpr int32_t kBadHandle = KELM_AVIFILE_BAD_HANDLE;

int32_t no_frame(int32_t, int32_t, int32_t, int32_t, int64_t, const void *, int32_t, int32_t, uintptr_t) { return 0; }

// Where calls that are refused would put their results.
thread_local uint32_t out_word;
thread_local uint64_t out_bytes;
thread_local RecFileInfo out_file;

struct Call {
    const char *what;
    int32_t expected;
    std::function<int32_t()> run;
};

// Every call that is refused for its arguments, with a registered device 1.
std::vector<Call> bad_calls() {
    static const Frame frame = make_frame(kKey, 0, kTenOClock, 0, 100);
    static FrameHead const *const head = &frame.head;
    static const uint8_t *const data = frame.data.data();
    const auto input = [](uint32_t channel, const FrameHead *h, int32_t head_len, const void *d, uint32_t len, int32_t dev) {
        return [=] { return KELM_AviFile_DataInput(channel, h, head_len, d, len, 1, 0, dev); };
    };
    const auto pop = [](uint32_t channel, int64_t begin, int64_t end, DataPopCallback callback, int32_t dev) {
        return [=] {
            uint32_t handle = 0;
            return KELM_AviFile_DataPopCreate(&handle, channel, begin, end, callback, 0, 0, dev, 0);
        };
    };
    const auto segments = [](uint32_t channel, int64_t begin, int64_t end, int32_t type, int32_t dev) {
        return [=] {
            RecSegNode *list = nullptr;
            int32_t count = 0;
            return KELM_AviFile_GetRecSegList(channel, begin, end, type, &list, &count, dev);
        };
    };
    const auto device = [](const char *name) {
        return [=] {
            int32_t number = 0;
            return KELM_AviFile_CreateDevHandle(&number, name);
        };
    };
    uint32_t *const none = nullptr;
    return {
        {"init twice", KELM_AVIFILE_ALREADY_RUNNING, [] { return KELM_AviFile_Init(0); }},
        {"partition null", kBadArgument, [] { return KELM_AviFile_AddRecPartition(nullptr); }},
        {"removal null", kBadArgument, [] { return KELM_AviFile_DelRecPartition(nullptr); }},
        {"used space null", kBadArgument, [] { return KELM_AviFile_GetRecUsedSpace("/", nullptr); }},
        {"unknown partition", KELM_AVIFILE_FAILED, [] { return KELM_AviFile_GetRecUsedSpace("/none", &out_bytes); }},
        {"device null", kBadArgument, [] { return KELM_AviFile_CreateDevHandle(nullptr, "x"); }},
        {"device without name", kBadArgument, device("")},
        {"device named dot", kBadArgument, device(".")},
        {"device named dots", kBadArgument, device("..")},
        {"device with slash", kBadArgument, device("a/b")},
        {"device with backslash", kBadArgument, device("a\\b")},
        {"device again", KELM_AVIFILE_EXISTS, device("cam")},
        {"device that contains it", KELM_AVIFILE_EXISTS, device("xcam2")},
        {"release 256", kBadHandle, [] { return KELM_AviFile_ReleaseDevHandle(256); }},
        {"release -1", kBadHandle, [] { return KELM_AviFile_ReleaseDevHandle(-1); }},
        {"release free number", 0, [] { return KELM_AviFile_ReleaseDevHandle(9); }},
        {"record channel 1024", kBadArgument, [] { return KELM_AviFile_RecStart(1024, 1, 1); }},
        {"record type 0", kBadArgument, [] { return KELM_AviFile_RecStart(0, 0, 1); }},
        {"record type 9", kBadArgument, [] { return KELM_AviFile_RecStart(0, 9, 1); }},
        {"record on device 0", kBadHandle, [] { return KELM_AviFile_RecStart(0, 1, 0); }},
        {"record on device 256", kBadHandle, [] { return KELM_AviFile_RecStart(0, 1, 256); }},
        {"record on device 7", KELM_AVIFILE_FAILED, [] { return KELM_AviFile_RecStart(0, 1, 7); }},
        {"stop channel 1024", kBadArgument, [] { return KELM_AviFile_RecStop(1024, 1); }},
        {"stop idle channel", 0, [] { return KELM_AviFile_RecStop(5, 1); }},
        {"input channel 1024", kBadArgument, input(1024, head, 36, data, 100, 1)},
        {"input head null", kBadArgument, input(0, nullptr, 36, data, 100, 1)},
        {"input head of 35", kBadArgument, input(0, head, 35, data, 100, 1)},
        {"input data null", kBadArgument, input(0, head, 36, nullptr, 100, 1)},
        {"input too large", kBadArgument, input(0, head, 36, data, 0x100001, 1)},
        {"input largest, idle", KELM_AVIFILE_NOT_RUNNING, input(0, head, 36, data, 0x100000, 1)},
        {"input device -1", kBadHandle, input(0, head, 36, data, 100, -1)},
        {"input device 7", KELM_AVIFILE_FAILED, input(0, head, 36, data, 100, 7)},
        {"playback null", kBadArgument, [=] { return KELM_AviFile_DataPopCreate(none, 0, 1, 2, no_frame, 0, 0, 1, 0); }},
        {"playback channel", kBadArgument, pop(1024, 1, 2, no_frame, 1)},
        {"playback range", kBadArgument, pop(0, 3, 2, no_frame, 1)},
        {"playback too long", kBadArgument, pop(0, 0, 86401, no_frame, 1)},
        {"playback of all time", kBadArgument, pop(0, INT64_MIN, INT64_MAX, no_frame, 1)},
        {"playback callback", kBadArgument, pop(0, 1, 2, nullptr, 1)},
        {"playback device", kBadHandle, pop(0xFFFFFFFF, 3, 0, no_frame, 256)},
        {"pop release 0", kBadHandle, [] { return KELM_AviFile_DataPopRelease(0); }},
        {"pop add channel", kBadArgument, [] { return KELM_AviFile_DataPopChanAdd(33, 1024); }},
        {"pop add 33", kBadHandle, [] { return KELM_AviFile_DataPopChanAdd(33, 0); }},
        {"pop del 33", kBadHandle, [] { return KELM_AviFile_DataPopChanDel(33, 0); }},
        {"pop type 0", kBadArgument, [] { return KELM_AviFile_DataPopRecTypeAdd(33, 0); }},
        {"pop type 9", kBadArgument, [] { return KELM_AviFile_DataPopRecTypeDel(33, 9); }},
        {"pop start 33", kBadHandle, [] { return KELM_AviFile_DataPopStart(33); }},
        {"pop stop 33", kBadHandle, [] { return KELM_AviFile_DataPopStop(33); }},
        {"pop seek 33", kBadHandle, [] { return KELM_AviFile_DataPopTimeSeek(33, 1); }},
        {"pop key skip 4", kBadArgument, [] { return KELM_AviFile_DataPopSetKeyFrame(33, 1, 4); }},
        {"pop key 33", kBadHandle, [] { return KELM_AviFile_DataPopSetKeyFrame(33, 1, 3); }},
        {"pop size null", KELM_AVIFILE_FAILED, [] { return KELM_AviFile_DataPopGetDataSize(33, nullptr); }},
        {"pop size 33", kBadHandle, [] { return KELM_AviFile_DataPopGetDataSize(33, &out_bytes); }},
        {"pop direct 33", kBadHandle, [] { return KELM_AviFile_DataPopSetDirect(33, 1); }},
        {"segments channel", kBadArgument, segments(1024, 1, 2, 1, 1)},
        {"segments type", kBadArgument, segments(0, 1, 2, 9, 1)},
        {"segments empty range", kBadArgument, segments(0, 2, 2, 1, 1)},
        {"segments too long", kBadArgument, segments(0, 0, 86401, 1, 1)},
        {"segments device", kBadHandle, segments(0, 0, 86400, 8, 0)},
        {"segments null", kBadArgument, [] { return KELM_AviFile_GetRecSegList(0, 1, 2, 1, nullptr, nullptr, 1); }},
        {"release null list", kBadArgument, [] { return KELM_AviFile_ReleaseRecSegList(nullptr); }},
        {"days null", kBadArgument, [] { return KELM_AviFile_JudgeIFHaveDataByDays(0, 31, nullptr, 1); }},
        {"days 32", kBadArgument, [] { return KELM_AviFile_JudgeIFHaveDataByDays(0, 32, &out_word, 1); }},
        {"query null", kBadArgument, [=] { return KELM_AviFile_QueryRecFilesStart(none, 0, -1, 1); }},
        {"query channel", kBadArgument, [] { return KELM_AviFile_QueryRecFilesStart(&out_word, 1024, -1, 1); }},
        {"next null", kBadArgument, [] { return KELM_AviFile_GetNextRecFile(1, nullptr); }},
        {"next 257", kBadHandle, [] { return KELM_AviFile_GetNextRecFile(257, &out_file); }},
        {"query stop 257", kBadHandle, [] { return KELM_AviFile_QueryRecFilesStop(257); }},
        {"delete channel", kBadArgument, [] { return KELM_AviFile_DelAviFiles(1024, -1, 1); }},
        {"delete device", kBadHandle, [] { return KELM_AviFile_DelAviFiles(0, -1, 0); }},
        {"delete null", kBadArgument, [] { return KELM_AviFile_DelAviFileByName(nullptr); }},
        {"save null", kBadArgument, [=] { return KELM_AviFile_SaveStart(none, "x.avi"); }},
        {"save empty", kBadArgument, [] { return KELM_AviFile_SaveStart(&out_word, ""); }},
        {"save by name empty", kBadArgument, [] { return KELM_AviFile_SaveStart_ByName(&out_word, nullptr); }},
        {"save input head", kBadArgument, [] { return KELM_AviFile_SaveInput(33, head, 37, data, 100); }},
        {"save input 33", kBadHandle, [] { return KELM_AviFile_SaveInput(33, head, 36, data, 100); }},
        {"save input free", KELM_AVIFILE_NOT_RUNNING, [] { return KELM_AviFile_SaveInput(32, head, 36, data, 100); }},
        {"save stop 0", kBadHandle, [] { return KELM_AviFile_SaveStop(0); }},
    };
}

size_t resident_bytes() {
    std::ifstream statm("/proc/self/statm");
    size_t total = 0;
    size_t resident = 0;
    statm >> total >> resident;
    return resident * static_cast<size_t>(sysconf(_SC_PAGESIZE));
}

}  // namespace

TEST(Interface, AnswersNotInitialisedUntilItIs) {
    EXPECT_EQ(KELM_AviFile_UnInit(0), KELM_AVIFILE_NOT_INITIALIZED);
    for (const Call &call : bad_calls()) {
        if (std::string(call.what) == "init twice") continue;
        EXPECT_EQ(call.run(), KELM_AVIFILE_NOT_INITIALIZED) << call.what;
    }
    EXPECT_EQ(KELM_AviFile_Init(0), 0);
    EXPECT_EQ(KELM_AviFile_UnInit(0), 0);
    EXPECT_EQ(KELM_AviFile_Init(0), 0);
    EXPECT_EQ(KELM_AviFile_UnInit(0), 0);
}

TEST(Interface, SaysNothingForAFrameThatComesTooEarly) {
    const Frame frame = make_frame(kKey, 0, 1, 0, 100);
    EXPECT_EQ(log_of([&] { KELM_AviFile_DataInput(0, &frame.head, 36, frame.data.data(), 100, 1, 0, 1); }), "");
    EXPECT_NE(log_of([] { KELM_AviFile_UnInit(0); }).find("[rcvt: .\\src\\recvault.cpp::KELM_AviFile_UnInit]: "),
              std::string::npos);
}

TEST_F(RecordingTest, RefusesEachBadCallWithItsCode) {
    for (const Call &call : bad_calls()) EXPECT_EQ(call.run(), call.expected) << call.what;
    EXPECT_NE(log_of([] { KELM_AviFile_RecStart(0, 1, 256); }).find("nDevIdx = 256 \n"), std::string::npos);
    EXPECT_EQ(find_files(store.path(), "").size(), 0U);
}

TEST_F(RecordingTest, RefusesBadCallsFromManyThreadsAndChangesNothing) {
    ASSERT_EQ(KELM_AviFile_RecStart(3, 1, device), 0);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([] {
            for (const Call &call : bad_calls()) EXPECT_EQ(call.run(), call.expected) << call.what;
        });
    }
    for (auto &thread : threads) thread.join();
    EXPECT_EQ(Deliver(make_frame(kKey, 0, kTenOClock, 0, 100), 3), 0);
    EXPECT_EQ(KELM_AviFile_RecStop(3, device), 0);
    EXPECT_EQ(Files().size(), 1U);
}

TEST_F(RecordingTest, DevicesAreTwoHundredFiftyFiveAndTheirNumbersComeBack) {
    for (int32_t i = 2; i <= 255; ++i) {
        int32_t number_given = 0;
        ASSERT_EQ(KELM_AviFile_CreateDevHandle(&number_given, ("dev" + std::to_string(1000 + i)).c_str()), 0);
        ASSERT_EQ(number_given, i);
    }
    int32_t handle = -5;
    EXPECT_EQ(KELM_AviFile_CreateDevHandle(&handle, "one more"), KELM_AVIFILE_NO_SLOT);
    EXPECT_EQ(handle, -5);
    EXPECT_EQ(KELM_AviFile_ReleaseDevHandle(77), 0);
    EXPECT_EQ(KELM_AviFile_CreateDevHandle(&handle, std::string(70, 'n').c_str()), 0);
    EXPECT_EQ(handle, 77);
    ASSERT_EQ(KELM_AviFile_RecStart(1023, 1, 77), 0);
    device = 77;
    Deliver(make_frame(kKey, 0, kTenOClock, 0, 100), 1023);
    KELM_AviFile_ReleaseDevHandle(77);  // stops it and finishes its file
    const auto files = Files();
    ASSERT_EQ(files.size(), 1U);
    EXPECT_NE(files[0].find("/" + std::string(63, 'n') + "/channel1024/100000.avi"), std::string::npos);
    StoredFile(files[0]).ExpectComplete();
}

TEST(Interface, CostsLittleWhileIdle) {
    const size_t before = resident_bytes();
    const auto begin = std::chrono::steady_clock::now();
    ASSERT_EQ(KELM_AviFile_Init(0), 0);
    const auto taken = std::chrono::steady_clock::now() - begin;
    int32_t device = 0;
    ASSERT_EQ(KELM_AviFile_CreateDevHandle(&device, "cam"), 0);
    const size_t grown = resident_bytes() - before;
    std::printf("init %.3f ms, resident growth %.2f MiB\n", std::chrono::duration<double, std::milli>(taken).count(),
                static_cast<double>(grown) / (1 << 20));
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    EXPECT_LT(grown, 8U << 20);
#endif
    KELM_AviFile_UnInit(0);
}

// Recording, starts and stops, playback, seeks, the scan, queries, days, the sweep, ageing, deletion, and changes of
// partitions and devices against each other, for as many seconds as the environment says.
TEST_F(RecordingTest, KeepsItsStoreWhileEverybodyAsks) {
    const char *const wanted = std::getenv("RECVAULT_STRESS_SECONDS");
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(wanted != nullptr ? std::atoi(wanted) : 3);
    const TempDir second;
    for (uint32_t channel = 0; channel < 16; ++channel) ASSERT_EQ(KELM_AviFile_RecStart(channel, 1, device), 0);
    std::atomic<bool> done{false};
    std::atomic<size_t> frames_played{0};
    std::atomic<uint32_t> newest{0};  // second that was recorded
    std::vector<std::thread> others;
    others.emplace_back([&] {
        while (!done) {
            uint32_t days = 0;
            EXPECT_EQ(KELM_AviFile_JudgeIFHaveDataByDays(kTenOClock, 3, &days, device), 0);
            RecSegNode *list = nullptr;
            int32_t count = 0;
            KELM_AviFile_GetRecSegList(3, kTenOClock, kTenOClock + 1000, 8, &list, &count, device);
            KELM_AviFile_ReleaseRecSegList(list);
            uint32_t walk = 0;
            KELM_AviFile_QueryRecFilesStart(&walk, KELM_AVIFILE_ALL_CHANNELS, kTenOClock, device);
            for (RecFileInfo file; KELM_AviFile_GetNextRecFile(walk, &file) == 0;) {
            }
            KELM_AviFile_QueryRecFilesStop(walk);
            KELM_AviFile_DelAviFiles(5, kTenOClock, device);
        }
    });
    others.emplace_back([&] {
        while (!done) {
            AddPartition(second.path(), 100ULL << 30, 2);
            for (const uint32_t seen = newest; newest < seen + 30 && !done;) std::this_thread::yield();
            KELM_AviFile_DelRecPartition(second.path().c_str());
            for (const uint32_t seen = newest; newest < seen + 30 && !done;) std::this_thread::yield();
        }
    });
    others.emplace_back([&] {
        for (uint32_t i = 0; !done; ++i) {
            const uint32_t channel = 8 + i * 5 % 8;
            KELM_AviFile_RecStop(channel, device);
            KELM_AviFile_RecStart(channel, static_cast<int32_t>(1 + i % 8), device);
            KELM_AviFile_RecStart(channel - 8, static_cast<int32_t>(1 + i % 8), device);
            int32_t other = 0;
            if (KELM_AviFile_CreateDevHandle(&other, "other") != 0) continue;
            KELM_AviFile_RecStart(0, 1, other);
            KELM_AviFile_ReleaseDevHandle(other);
        }
    });
    others.emplace_back([&] {
        while (!done) {
            for (const auto &path : find_files(store.path(), "1000.avi")) KELM_AviFile_DelAviFileByName(path.c_str());
            std::this_thread::yield();
        }
    });
    for (const bool sync : {false, true}) {
        others.emplace_back([&, sync] {
            for (uint32_t i = 0; !done; ++i) {
                const int64_t begin = kTenOClock + newest - std::min(newest.load(), i * 37 % 100);
                Player player(device, i % 16, begin, i % 3 == 0 ? 0 : begin + 1000, sync);
                for (uint32_t channel = 1; channel < 4; ++channel) KELM_AviFile_DataPopChanAdd(player.handle, channel * 3);
                KELM_AviFile_DataPopStart(player.handle);
                for (uint32_t step = 0; step < 5 && !done; ++step) {
                    const size_t before = player.Count();
                    KELM_AviFile_DataPopTimeSeek(player.handle, begin + (step * 7 + i) % 50);
                    uint64_t size = 0;
                    KELM_AviFile_DataPopGetDataSize(player.handle, &size);
                    KELM_AviFile_DataPopSetKeyFrame(player.handle, step % 2, step % 3);
                    const auto patience = std::chrono::steady_clock::now() + std::chrono::milliseconds(200);
                    while (player.Count() < before + 20 && std::chrono::steady_clock::now() < patience && !done) {
                        std::this_thread::sleep_for(std::chrono::milliseconds(1));
                    }
                    if (step == 2) KELM_AviFile_DataPopStop(player.handle);
                    if (step == 3) KELM_AviFile_DataPopStart(player.handle);
                }
                frames_played += player.Count();
            }
        });
    }
    for (uint32_t i = 0; std::chrono::steady_clock::now() < until; newest = i++) {
        for (uint32_t channel = 0; channel < 16; ++channel) {
            Frame frame = make_frame(i % 5 == 0 ? kKey : kInter, i, kTenOClock + i, 0, 2000);
            frame.head.width = static_cast<uint16_t>(i / 100 + 1);
            Deliver(frame, channel);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    done = true;
    for (auto &other : others) other.join();
    std::cout << "count: everything at once, " << frames_played << " frames were played\n";
    for (uint32_t channel = 0; channel < 16; ++channel) KELM_AviFile_RecStop(channel, device);
    uint64_t recorded = 0;
    for (const auto &path : find_files(store.path(), "rec_index.bin")) {
        for (const auto &record : read_index(path)) {
            EXPECT_EQ(record.is_recording, 0U) << record.name;
            recorded += record.type == 0 ? 0 : static_cast<uint64_t>(record.file_size);
        }
    }
    EXPECT_EQ(UsedSpace(), recorded);
    for (const auto &path : Files()) StoredFile(path).ExpectComplete();
}
