// A partition takes many times its size through eight channels. What has to go goes in each of the three ways there are, and
// the account stays true to the byte.
#include <cstdlib>
#include <ctime>

#include "support.h"

using namespace recvault_tests;

namespace {

constexpr uint32_t kChannels = 8;
constexpr uint64_t kBudget = 256ULL << 20;
constexpr uint64_t kFull = kBudget - (kBudget / 15 + (5 << 20));  // less than the reserve is left
constexpr uint32_t kFramesInFile = 20;
constexpr uint32_t kFrameSize = 200000;
constexpr uint64_t kIndexChunk = 8 + 16 * kFramesInFile;
constexpr uint64_t size_with(uint32_t frames) { return 77824 + frames * (64ULL + kFrameSize); }
constexpr uint64_t kRound = kChannels * size_with(kFramesInFile);  // a file of each channel

uint64_t size_on_disk(const std::string &path) {
    std::error_code gone;
    const uint64_t size = fs::file_size(path, gone);
    return gone ? 0 : size;
}

// "20261124", or "100000".
std::string day_of(time_t second) {
    char text[16];
    std::strftime(text, sizeof(text), "%Y%m%d", std::gmtime(&second));
    return text;
}
std::string time_of(time_t second) {
    char text[16];
    std::strftime(text, sizeof(text), "%H%M%S", std::gmtime(&second));
    return text;
}

class Soak : public RecordingTest {
 protected:
    // Records a file of each channel every `step` seconds until the partition took what was asked for. Between two files,
    // `make_room` runs where more than `mark` bytes are used.
    void Run(const char *way, uint32_t max_save_hour, uint32_t step, uint64_t mark, const std::function<void()> &make_room) {
        const char *const times = std::getenv("RECVAULT_SOAK_TIMES");
        const uint64_t wanted = kBudget * (times != nullptr ? std::strtoull(times, nullptr, 10) : 3);
        KELM_AviFile_DelRecPartition(store.path().c_str());
        ASSERT_EQ(AddPartition(store.path(), kBudget, 1, max_save_hour), 0);
        for (uint32_t channel = 0; channel < kChannels; ++channel) ASSERT_EQ(KELM_AviFile_RecStart(channel, 1, device), 0);
        for (; rounds * kRound < wanted; ++rounds, begin += step) {
            if (UsedSpace() > mark) make_room();
            if (HasFatalFailure()) return;
            ASSERT_NO_FATAL_FAILURE(RecordRound());
        }
        for (uint32_t channel = 0; channel < kChannels; ++channel) KELM_AviFile_RecStop(channel, device);
        const size_t left = Files().size();
        std::cout << "count: soak " << way << ", " << rounds * kRound << " bytes in " << rounds * kChannels
                  << " files, of which " << rounds * kChannels - left << " went; of " << kBudget << " bytes at most "
                  << most_used << " were used, and at most " << most_on_disk << " lay on the disk\n";
        EXPECT_LT(left, rounds * kChannels);
        EXPECT_LE(std::max(most_used, most_on_disk), kBudget + kRound);
    }
    void RecordRound() {
        for (uint32_t i = 0; i < kFramesInFile; ++i) {
            frame.head.width = static_cast<uint16_t>(rounds + 1);  // another picture, another file
            frame.head.seconds = begin + i;
            doubles::set_true_time(frame.head.seconds);
            for (uint32_t channel = 0; channel < kChannels; ++channel) ASSERT_TRUE(Record(channel, i));
            uint64_t on_disk = 0;
            for (const auto &path : find_files(store.path(), "")) on_disk += size_on_disk(path);
            most_on_disk = std::max(most_on_disk, on_disk);
            most_used = std::max(most_used, UsedSpace());
        }
    }
    // The i-th frame of a file. None is lost: no name is given while the monitor is freeing space, and the ring takes five
    // frames, less a block that is written and not yet given back.
    bool Record(uint32_t channel, uint32_t i) {
        const std::string path = Folder(channel, day_of(begin)) + time_of(begin) + ".avi";
        if (i > 0) {
            return Deliver(frame, channel) == 0 &&
                   wait_until([&] { return size_on_disk(path) + kFrameSize >= size_with(i); });
        }
        return wait_until([&] { return Deliver(frame, channel) == 0 && fs::exists(path); });
    }
    struct Account {
        uint64_t used = 0;
        uint64_t recorded = 0;
        uint64_t on_disk = 0;
    };
    Account ReadAccount() const {
        Account account{.used = UsedSpace()};
        for (const auto &index : find_files(store.path(), "rec_index.bin")) {
            for (const auto &record : read_index(index))
                account.recorded += record.type == 0 ? 0 : static_cast<uint64_t>(record.file_size);
        }
        for (const auto &path : Files()) account.on_disk += size_on_disk(path);
        return account;
    }
    // The record of a file that was closed since the last scan leaves out the index that was appended later.
    void ExpectTrueAccount(bool scanned_meanwhile) {
        // From now on the monitor frees nothing; a pass that it had begun comes to its end.
        EXPECT_EQ(AddPartition(store.path(), kBudget, 1, kNever), 0);
        Account account;
        size_t files = 0;
        EXPECT_TRUE(wait_until([&] {
            const auto before = Files();
            account = ReadAccount();
            files = before.size();
            return account.used == account.recorded && before == Files();
        })) << account.used
            << " used, " << account.recorded << " recorded";
        const uint64_t chunks = account.on_disk - account.recorded;
        if (scanned_meanwhile) {
            EXPECT_EQ(chunks % kIndexChunk, 0U);
        } else {
            EXPECT_EQ(chunks, files * kIndexChunk);
        }
        AddAgain(kNever);
        EXPECT_EQ(UsedSpace(), account.on_disk);
        EXPECT_EQ(Files().size(), files);
        for (const auto &path : Files()) {
            const StoredFile file(path);
            file.ExpectComplete();
            EXPECT_EQ(file.frames.size(), kFramesInFile) << path;
        }
    }
    void AddAgain(uint32_t max_save_hour) const {
        EXPECT_EQ(KELM_AviFile_DelRecPartition(store.path().c_str()), 0);
        EXPECT_EQ(AddPartition(store.path(), kBudget, 1, max_save_hour), 0);
    }

    static constexpr uint32_t kNever = 0xFFFFFFFF;
    Frame frame = make_frame(kKey, 0, 0, 0, kFrameSize);
    uint32_t begin = kTenOClock;
    uint32_t rounds = 0;
    uint64_t most_used = 0;
    uint64_t most_on_disk = 0;
};

}  // namespace

TEST_F(Soak, ByRecycling) {
    // The monitor looks once a second: the cameras wait for it where the budget is used up.
    Run("recycling", 0, 1800, kBudget, [this] { ASSERT_TRUE(wait_until([this] { return UsedSpace() < kFull; })); });
    ExpectTrueAccount(false);
}

TEST_F(Soak, ByAgeing) {
    // Ageing comes once a minute, and when a partition is added, which is sooner.
    Run("ageing", 1, 1800, kBudget * 5 / 8, [this] { AddAgain(1); });
    EXPECT_LT(most_used, kFull);  // nothing was recycled
    ExpectTrueAccount(true);
}

TEST_F(Soak, ByDeletion) {
    uint32_t day = kTenOClock;
    Run("deletion", kNever, 6 * 3600, kBudget * 5 / 8, [&] {
        EXPECT_EQ(KELM_AviFile_DelAviFiles(KELM_AVIFILE_ALL_CHANNELS, day, device), 0);
        EXPECT_FALSE(fs::exists(store / "avi_av/" + day_of(day)));
        day += 86400;
    });
    ExpectTrueAccount(false);
}
