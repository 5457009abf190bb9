// A process that records is killed at a random moment, again and again. What each side file knew whole is found again.
#include <sys/wait.h>
#include <unistd.h>

#include <random>

#include "support.h"

using namespace recvault_tests;

namespace {

constexpr uint32_t kChannels = 8;

// Frames whose bytes follow from their number, so that they can be checked without being kept.
Frame crash_frame(uint32_t number) {
    return make_frame(number % 25 == 0 ? kKey : kInter, number, kTenOClock + number / 100, number % 100 * 10000,
                      2000 + number * 37 % 3000);
}

std::string data_of(const Frame &frame) { return {reinterpret_cast<const char *>(frame.data.data()), frame.data.size()}; }

// The frames that a crash left whole in a file, by its side file.
std::vector<StoredFrame> known_frames(const std::string &path) {
    if (fs::file_size(path) < 77824) return {};  // killed inside its head
    const StoredFile file(path);
    const size_t records = read_file(path + "_idx").size() / 40;
    std::vector<StoredFrame> frames = file.frames;
    if (frames.size() > records) frames.resize(records);
    return frames;
}

void expect_mended(const std::string &path, const std::vector<StoredFrame> &known) {
    const StoredFile file(path);
    ASSERT_GE(file.frames.size(), known.size()) << path;
    EXPECT_EQ(file.frames_end, file.movi_end);
    for (size_t i = 0; i < known.size(); ++i) {
        ASSERT_EQ(file.frames[i].position, known[i].position);
        ASSERT_EQ(file.frames[i].data, known[i].data);
    }
    for (const auto &record : read_index(fs::path(path).parent_path() / "rec_index.bin")) {
        if (record.name != fs::path(path).filename()) continue;
        EXPECT_EQ(record.is_recording, 0U);
        EXPECT_EQ(record.file_size, static_cast<int32_t>(file.bytes.size()));
        return;
    }
    ADD_FAILURE() << path << " is in no index";
}

class Crash : public testing::Test {
 protected:
    // Starts a process that records into `root`, waits until every channel has a file that grows, and kills it after a
    // while.
    static void RecordAndKill(const std::string &root, int32_t milliseconds) {
        const pid_t child = fork();
        if (child == 0) {
            setenv("RECVAULT_CRASH_STORE", root.c_str(), 1);
            execl("/proc/self/exe", "recvault_tests", "--gtest_also_run_disabled_tests",
                  "--gtest_filter=CrashChild.DISABLED_RecordsForEver", static_cast<char *>(nullptr));
            _exit(1);
        }
        ASSERT_TRUE(wait_until([&] { return find_files(root, ".avi_idx").size() >= kChannels; }));
        std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }
    static int32_t Add(const std::string &root) {
        RecPartitionInfo info{};
        std::strncpy(info.path, root.c_str(), sizeof(info.path) - 1);
        info.rec_space = info.disk_space = 10ULL << 30;
        return KELM_AviFile_AddRecPartition(&info);
    }
};

}  // namespace

TEST_F(Crash, LeavesSideFilesThatMatchTheFrames) {
    const TempDir store;
    RecordAndKill(store.path(), 300);
    size_t frames = 0;
    for (const auto &path : find_files(store.path(), ".avi")) {
        const StoredFile file(path);
        const std::string side = read_file(path + "_idx");
        EXPECT_EQ(file.word(77816), 0U);
        const size_t records = std::min(side.size() / 40, file.frames.size());
        for (size_t i = 0; i < records; ++i) {
            ASSERT_EQ(at<uint32_t>(side, i * 40 + 16), file.frames[i].position);
            ASSERT_EQ(at<uint32_t>(side, i * 40 + 12), file.frames[i].length);
            ASSERT_EQ(file.frames[i].data, data_of(crash_frame(static_cast<uint32_t>(i))));
        }
        frames += records;
    }
    EXPECT_GT(frames, 100U);
}

TEST_F(Crash, LosesNothingThatReachedTheDiskInAnyRound) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    constexpr int kRounds = 8;
#else
    constexpr int kRounds = 50;
#endif
    constexpr uint32_t kSeed = 20261124;
    std::mt19937 random(kSeed);
    setenv("TZ", "UTC", 1);
    const TempDir store;
    size_t files = 0;
    size_t frames = 0;
    for (int round = 0; round < kRounds; ++round) {
        RecordAndKill(store.path(), static_cast<int32_t>(random() % 120));
        std::map<std::string, std::vector<StoredFrame>> known;
        for (const auto &side : find_files(store.path(), ".avi_idx")) {
            const std::string path = side.substr(0, side.size() - 4);
            known[path] = known_frames(path);
            frames += known[path].size();
        }
        ASSERT_EQ(KELM_AviFile_Init(0), 0);
        ASSERT_EQ(Add(store.path()), 0);
        EXPECT_EQ(find_files(store.path(), "_idx").size(), 0U);
        uint64_t on_disk = 0;
        for (const auto &path : find_files(store.path(), ".avi")) on_disk += fs::file_size(path);
        uint64_t used = 0;
        KELM_AviFile_GetRecUsedSpace(store.path().c_str(), &used);
        EXPECT_EQ(used, on_disk);
        KELM_AviFile_UnInit(0);
        for (const auto &[path, kept] : known) {
            if (kept.empty()) continue;  // cut before its first frame: there is nothing to keep
            ++files;
            expect_mended(path, kept);
        }
        if (round % 5 == 4) fs::remove_all(store / "avi_av");  // so that a round does not get longer and longer
    }
    std::printf("count: kill loop, seed %u, %d rounds: %zu cut files mended, %zu frames found again\n", kSeed, kRounds,
                files, frames);
    EXPECT_GT(files, static_cast<size_t>(kRounds));
}

TEST(CrashChild, DISABLED_RecordsForEver) {
    const char *root = getenv("RECVAULT_CRASH_STORE");
    ASSERT_NE(root, nullptr);
    setenv("TZ", "UTC", 1);
    doubles::set_true_time(kTenOClock);
    KELM_AviFile_Init(0);
    RecPartitionInfo info{};
    std::strncpy(info.path, root, sizeof(info.path) - 1);
    info.priority = 1;
    info.rec_space = info.disk_space = 10ULL << 30;
    ASSERT_EQ(KELM_AviFile_AddRecPartition(&info), 0);
    int32_t device = 0;
    KELM_AviFile_CreateDevHandle(&device, "cam");
    for (uint32_t channel = 0; channel < kChannels; ++channel) KELM_AviFile_RecStart(channel, 1, device);
    for (uint32_t number = 0;; ++number) {
        const Frame frame = crash_frame(number);
        for (uint32_t channel = 0; channel < kChannels; ++channel) {
            KELM_AviFile_DataInput(channel, &frame.head, 36, frame.data.data(), static_cast<uint32_t>(frame.data.size()),
                                   frame.head.seconds, frame.head.microseconds, device);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
}
