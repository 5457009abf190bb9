// What was recorded is found again: queries, the scan of a partition that a crash left, recycling, ageing, the sweep.
#include "Disk.h"
#include "GlobalObj.h"
#include "RecNode.h"
#include "StorageManager.h"
#include "support.h"

using namespace kelm_recvault;
using namespace recvault_tests;

namespace {

constexpr RecQuery kEverything{kAllDevices, kAllChannels, kAllRecTypes, false};

class Keep : public RecordingTest {
 protected:
    static CStorageMngr &Storage() { return CGlobalObject::Instance().StorageMngr(); }
    // A short file on a channel.
    void RecordFile(uint32_t channel, uint32_t sec, int32_t type = 1, uint32_t seconds = 2) {
        ASSERT_EQ(KELM_AviFile_RecStart(channel, type, device), 0);
        for (uint32_t i = 0; i < seconds; ++i) Deliver(make_frame(kKey, i, sec + i, 0, 1000), channel);
        KELM_AviFile_RecStop(channel, device);
    }
    static std::vector<std::string> Find(const RecQuery &query, int64_t begin, int64_t end, int32_t expected = 0) {
        RecFileSet files;
        EXPECT_EQ(Storage().QueryRecFile(query, begin, end, true, &files), expected);
        std::vector<std::string> names;
        for (const auto &node : files) names.push_back(fs::path(node.rec_file_path).filename());
        return names;
    }
    static int64_t SumOfRecords(const std::string &root) {
        int64_t sum = 0;
        for (const auto &path : find_files(root, "rec_index.bin")) {
            for (const auto &record : read_index(path)) sum += record.type == 0 ? 0 : record.file_size;
        }
        return sum;
    }
};

std::string channel_folder(const std::string &root, const std::string &name) {
    return root + "/avi_av/20261124/cam/" + name + "/";
}

}  // namespace

TEST_F(Keep, QueriesGiveWhatOverlapsOldestFirst) {
    RecordFile(0, kTenOClock);
    RecordFile(0, kTenOClock + 100, 3);
    RecordFile(7, kTenOClock + 50);
    RecordFile(120, kTenOClock + 60);
    RecordFile(0, kMidnight - 1, 1, 3);  // runs over midnight: a file each day
    EXPECT_THAT(Find(kEverything, kTenOClock, kTenOClock + 200),
                testing::ElementsAre("100000.avi", "100050.avi", "100100.avi", "100140.avi"));
    EXPECT_THAT(Find({1, 0, kAllRecTypes, false}, kTenOClock, kTenOClock + 200),
                testing::ElementsAre("100000.avi", "100140.avi"));
    EXPECT_THAT(Find({1, 0, 4, false}, kTenOClock, kTenOClock + 200), testing::ElementsAre("100140.avi"));
    EXPECT_THAT(Find(kEverything, kTenOClock + 2, kTenOClock + 49, KELM_AVIFILE_NOT_FOUND), testing::ElementsAre());
    EXPECT_THAT(Find({1, 0, kAllRecTypes, false}, kMidnight, kMidnight + 5), testing::ElementsAre("000000.avi"));
    EXPECT_EQ(Find({1, kAllChannels, kAllRecTypes, false}, kTenOClock + 70, 0).size(), 2U);  // to the end of the day
    uint32_t days = 0;
    EXPECT_EQ(KELM_AviFile_JudgeIFHaveDataByDays(kTenOClock - 86400, 31, &days, device), 0);
    EXPECT_EQ(days, 6U);
    int64_t first = 0;
    int64_t last = 0;
    EXPECT_EQ(Storage().GetRecDateLimit(&first, &last), 0);
    EXPECT_EQ(first, kMidnight - 86400);
    EXPECT_EQ(last, kMidnight);
}

TEST_F(Keep, AnOpenFileAnswersFromItsRecorder) {
    ASSERT_EQ(KELM_AviFile_RecStart(0, 1, device), 0);
    DeliverKey(kTenOClock);
    DeliverInter(kTenOClock + 5);
    EXPECT_THAT(Find({1, 0, kAllRecTypes, false}, kTenOClock, kTenOClock + 9, KELM_AVIFILE_NOT_FOUND),
                testing::ElementsAre());
    RecFileSet files;
    EXPECT_EQ(Storage().QueryRecFile({1, 0, kAllRecTypes, true}, kTenOClock, kTenOClock + 9, true, &files), 0);
    ASSERT_EQ(files.size(), 1U);
    EXPECT_EQ(files.begin()->end_sec, kTenOClock + 5);
    EXPECT_EQ(read_index(Folder() + "rec_index.bin")[0].end_sec, kTenOClock);  // the index is not touched
}

TEST_F(Keep, OneBadRecordFailsNoQuery) {
    RecordFile(0, kTenOClock);
    RecordFile(0, kTenOClock + 10);
    const std::string index = Folder() + "rec_index.bin";
    const std::string good = read_file(index);
    const auto with = [&](size_t offset, const std::string &bytes) {
        std::string changed = good;
        changed.replace(offset, bytes.size(), bytes);
        std::ofstream(index, std::ios::binary) << changed;
        return Find(kEverything, kTenOClock, kTenOClock + 100);
    };
    const std::string wild(8, '\xEE');
    for (const auto &[what, offset, bytes] :
         std::vector<std::tuple<const char *, size_t, std::string>>{{"a name without end", 8, std::string(256, 'x')},
                                                                    {"a name with a slash", 8, "../../x/y.avi"},
                                                                    {"no name", 8, std::string(256, '\0')},
                                                                    {"another channel", 0, "\x05"},
                                                                    {"a wild begin", 272, wild},
                                                                    {"a wild end", 280, std::string(7, '\xEE') + "\x6E"},
                                                                    {"a missing file", 8, "093000.avi"}}) {
        EXPECT_THAT(with(offset, bytes), testing::ElementsAre("100010.avi")) << what;
    }
    for (size_t cut : {1, 311, 312, 313, 623}) {  // every length around a border
        std::ofstream(index, std::ios::binary) << good.substr(0, cut);
        RecFileSet files;
        Storage().QueryRecFile(kEverything, kTenOClock, kTenOClock + 100, true, &files);
        EXPECT_EQ(files.size(), cut / 312);
    }
    // A close that was not entered is mended in place.
    EXPECT_THAT(with(280, std::string(8, '\0')), testing::ElementsAre("100000.avi", "100010.avi"));
    EXPECT_EQ(read_index(index)[0].end_sec, kTenOClock + 1);
}

// The image of a store in the middle of its work is what a killed process leaves.
TEST_F(Keep, AScanMendsWhatACrashLeft) {
    RecordFile(1, kTenOClock - 100);
    for (uint32_t channel : {0U, 150U}) ASSERT_EQ(KELM_AviFile_RecStart(channel, 1, device), 0);
    for (uint32_t i = 0; i < 100; ++i) {
        for (uint32_t channel : {0U, 150U})
            Deliver(make_frame(i % 25 == 0 ? kKey : kInter, i, kTenOClock + i / 25, i % 25 * 40000, 3001), channel);
    }
    ASSERT_TRUE(wait_until([&] {
        return fs::file_size(Folder() + "100000.avi_idx") == 4000 && fs::file_size(Folder(150) + "100000.avi_idx") == 4000;
    }));
    const TempDir image;
    fs::copy(store.path(), image.path(), fs::copy_options::recursive);
    size_t whole[2] = {StoredFile(channel_folder(image.path(), "channel01") + "100000.avi").frames.size(),
                       StoredFile(channel_folder(image.path(), "channel151") + "100000.avi").frames.size()};
    // And what else lies about: a record whose file is gone, a file that no record knows, rubbish.
    fs::remove(channel_folder(image.path(), "channel151") + "rec_index.bin");
    std::ofstream(channel_folder(image.path(), "channel02") + "095959.avi") << "no record file";
    std::ofstream(channel_folder(image.path(), "channel02") + "a.avi") << "too short a name to be one";
    fs::create_directories(channel_folder(image.path(), "channel00"));
    fs::create_directories(channel_folder(image.path(), "old"));
    fs::create_directories(image / "avi_av/2026112");
    const auto state = [&] {
        std::string all;
        for (const auto &path : find_files(image.path(), "")) all += path + "\n" + read_file(path);
        return all;
    };
    ASSERT_EQ(AddPartition(image.path(), 100ULL << 30, 0), 0);
    const std::string once = state();
    EXPECT_EQ(find_files(image.path(), "_idx").size(), 0U);
    int i = 0;
    for (const char *name : {"channel01", "channel151"}) {
        const StoredFile file(channel_folder(image.path(), name) + "100000.avi");
        EXPECT_EQ(file.frames.size(), whole[i]) << name;
        EXPECT_GT(whole[i++], 80U);
        file.ExpectComplete();
        const auto records = read_index(channel_folder(image.path(), name) + "rec_index.bin");
        ASSERT_EQ(records.size(), 1U);
        EXPECT_EQ(records[0].is_recording, 0U);
        EXPECT_EQ(records[0].file_size, static_cast<int32_t>(file.bytes.size()));
        EXPECT_EQ(records[0].end_sec, static_cast<int64_t>(file.frames.back().second));
    }
    EXPECT_FALSE(fs::exists(channel_folder(image.path(), "channel02") + "095959.avi"));
    EXPECT_TRUE(fs::exists(channel_folder(image.path(), "channel02") + "a.avi"));
    EXPECT_FALSE(fs::exists(channel_folder(image.path(), "channel00")));
    EXPECT_TRUE(fs::exists(channel_folder(image.path(), "old")));
    EXPECT_TRUE(fs::exists(image / "avi_av/2026112"));
    uint64_t used = 0;
    EXPECT_EQ(KELM_AviFile_GetRecUsedSpace(image.path().c_str(), &used), 0);
    EXPECT_EQ(used, static_cast<uint64_t>(SumOfRecords(image.path())));
    KELM_AviFile_DelRecPartition(image.path().c_str());
    ASSERT_EQ(AddPartition(image.path(), 100ULL << 30, 0), 0);
    EXPECT_TRUE(state() == once);  // a second scan changes nothing
}

TEST_F(Keep, AgeingTakesWhatBeganTooLongAgo) {
    RecordFile(0, kTenOClock);
    RecordFile(0, kTenOClock + 10);
    CDisk disk;
    KELM_AviFile_DelRecPartition(store.path().c_str());
    ASSERT_EQ(disk.Initialize(0, {kGiB, kGiB, 1, 1}, (store / "avi_av/").c_str()), 0);
    doubles::set_true_time(kTenOClock + 3600);
    disk.DelFileExceedMaxSaveTime();
    EXPECT_EQ(Files().size(), 2U);
    doubles::advance_true_time(1);
    disk.DelFileExceedMaxSaveTime();
    EXPECT_EQ(Files().size(), 1U);
    EXPECT_EQ(static_cast<int64_t>(disk.GetRecUsedSpace()), SumOfRecords(store.path()));
    doubles::advance_true_time(10);
    disk.DelFileExceedMaxSaveTime();
    EXPECT_FALSE(fs::exists(store / "avi_av"));
    EXPECT_EQ(disk.GetRecUsedSpace(), 0U);
    disk.Destroy();
}

TEST_F(Keep, SweepForgetsWhatVanished) {
    RecordFile(0, kTenOClock);
    RecordFile(0, kTenOClock + 10);
    RecordFile(1, kTenOClock);
    KELM_AviFile_DelRecPartition(store.path().c_str());
    CDisk disk;
    ASSERT_EQ(disk.Initialize(0, {kGiB, kGiB, 0, 1}, (store / "avi_av/").c_str()), 0);
    fs::remove(Folder(0) + "100000.avi");
    fs::remove(Folder(1) + "100000.avi");
    disk.CheckRecFileExist();
    EXPECT_EQ(static_cast<int64_t>(disk.GetRecUsedSpace()), SumOfRecords(store.path()));
    EXPECT_EQ(read_index(Folder(0) + "rec_index.bin")[0].type, 0U);
    EXPECT_FALSE(fs::exists(Folder(1)));
    disk.Destroy();
}

TEST_F(Keep, ToldWhenNothingMoreCanBeRecorded) {
    KELM_AviFile_DelRecPartition(store.path().c_str());
    RecPartitionInfo info{};
    std::strcpy(info.path, store.path().c_str());
    info.priority = 1;
    info.rec_space = info.disk_space = 10 << 20;  // less than its reserve: full from the start
    info.max_save_hour = 0xFFFFFFFF;
    ASSERT_EQ(KELM_AviFile_AddRecPartition(&info), 0);
    std::atomic<int> calls{0};
    ASSERT_EQ(KELM_AviFile_SetDiskGroupFullCallback(
                  [](void *user) -> int32_t {
                      ++*static_cast<std::atomic<int> *>(user);
                      return 0;
                  },
                  &calls),
              0);
    EXPECT_TRUE(wait_until([&] { return calls >= 2; }));
    KELM_AviFile_SetDiskGroupFullCallback(nullptr, nullptr);
    const int before = calls;
    info.max_save_hour = 0;
    EXPECT_EQ(KELM_AviFile_AddRecPartition(&info), 0);
    EXPECT_EQ(calls, before);
}
