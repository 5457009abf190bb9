// The index, one partition, and the set of partitions.
#include <sys/wait.h>
#include <unistd.h>

#include <map>

#include "Disk.h"
#include "RecNode.h"
#include "support.h"

using namespace kelm_recvault;
using namespace recvault_tests;

namespace {

RecFileNode make_node(const std::string &path, int64_t begin, int32_t size) {
    RecFileNode node{};
    std::strncpy(node.rec_file_path, path.c_str(), sizeof(node.rec_file_path) - 1);
    node.begin_sec = node.end_sec = begin;
    node.file_size = size;
    node.type = 2;
    node.channel = 4;
    return node;
}

class Index : public testing::Test {
 protected:
    void SetUp() override { fs::create_directories(folder); }
    void Touch(const std::string &name) const { std::ofstream(folder + name) << "x"; }
    std::vector<StoredRecord> Records() const { return read_index(folder + "rec_index.bin"); }

    TempDir dir;
    std::string folder = dir / "avi_av/20261124/cam/channel05/";
    CRecIndex index;
    bool deleted = false;
    RecordedSize recorded;
};

}  // namespace

TEST_F(Index, RecordGoesFromOpenToClosedToDeleted) {
    for (const char *name : {"100000.avi", "110000.avi"}) {
        Touch(name);
        ASSERT_EQ(index.insert_file_node(make_node(folder + name, 36000, 77824), true), 0);
    }
    ASSERT_EQ(Records().size(), 2U);
    EXPECT_EQ(Records()[1].is_recording, 1U);
    RecFileNode node = make_node(folder + "100000.avi", 36000, 5000000);
    node.end_sec = 39600;
    node.type = 6;
    EXPECT_EQ(index.update_file_node(node, &deleted), 0);
    EXPECT_FALSE(deleted);
    const StoredRecord record = Records()[0];
    EXPECT_EQ(record.name, "100000.avi");
    EXPECT_EQ(record.is_recording, 0U);
    EXPECT_EQ(record.file_size, 5000000);
    EXPECT_EQ(record.end_sec, 39600);
    EXPECT_EQ(record.type, 6U);
    EXPECT_EQ(record.channel, 4U);
    EXPECT_EQ(Records()[1].is_recording, 1U);
    EXPECT_EQ(index.delete_file_node(node.rec_file_path, &recorded), 0);
    EXPECT_EQ(index.delete_file_node(node.rec_file_path, &recorded), 0);
    EXPECT_EQ(Records()[0].type, 0U);
    EXPECT_EQ(recorded.bytes, 0);
    EXPECT_EQ(index.update_file_node(node, &deleted), 0);
    EXPECT_TRUE(deleted);
    EXPECT_EQ(Records()[0].type, 0U);
    EXPECT_EQ(index.update_file_node(make_node(folder + "none.avi", 1, 1), &deleted), KELM_AVIFILE_FAILED);
    EXPECT_EQ(index.delete_file_node((folder + "none.avi").c_str(), &recorded), KELM_AVIFILE_FAILED);
}

TEST_F(Index, OfTwoRecordsOfANameUpdatesTheLaterAndDeletesTheEarlierThatIsLeft) {
    Touch("100000.avi");
    const RecFileNode node = make_node(folder + "100000.avi", 36000, 77824);
    index.insert_file_node(node, true);
    index.insert_file_node(node, true);
    index.update_file_node(node, &deleted);
    EXPECT_EQ(Records()[0].is_recording, 1U);
    EXPECT_EQ(Records()[1].is_recording, 0U);
    index.delete_file_node(node.rec_file_path, &recorded);
    EXPECT_EQ(Records()[0].type, 0U);
    EXPECT_EQ(Records()[1].type, 2U);
    index.delete_file_node(node.rec_file_path, &recorded);
    EXPECT_EQ(Records()[1].type, 0U);
}

TEST_F(Index, GoesWithItsLastFileAndLeavesNoTornRecord) {
    Touch("100000.avi");
    index.insert_file_node(make_node(folder + "100000.avi", 36000, 77824), true);
    doubles::inject({.call = doubles::Call::write, .path_end = "rec_index.bin", .times = 2, .written_before = 100});
    EXPECT_EQ(index.insert_file_node(make_node(folder + "110000.avi", 36000, 77824), true), KELM_AVIFILE_FAILED);
    doubles::clear_faults();
    EXPECT_EQ(Records().size(), 1U);
    fs::remove(folder + "100000.avi");
    index.delete_file_node((folder + "100000.avi").c_str(), &recorded);
    EXPECT_FALSE(fs::exists(dir / "avi_av"));
}

TEST(Partition, KeepsAReserveByItsSize) {
    const std::pair<uint64_t, uint64_t> sizes[] = {
        {64 * kMiB - 1, 64 * kMiB}, {64 * kMiB, 64 * kMiB / 15 + 5 * kMiB},  {kGiB, kGiB / 15 + 5 * kMiB},
        {kGiB + 26, 1 + 70 * kMiB}, {50 * kGiB, 49 * kGiB / 26 + 70 * kMiB}, {50 * kGiB + 100, 1 + 2 * kGiB}};
    for (const auto &[space, reserve] : sizes) EXPECT_EQ(CDisk::CalcReserveSpace(space), reserve) << space;
}

// The counter is the sum of the sizes in the records, whatever happens to the files.
TEST(Partition, AccountsForClosedFilesOnce) {
    const TempDir dir;
    CDisk disk;
    ASSERT_EQ(disk.Initialize(0, {kGiB, kGiB, 0, 1}, (dir / "avi_av/").c_str()), 0);
    const std::string folder = dir / "avi_av/20261124/cam/channel01/";
    fs::create_directories(folder);
    const auto record = [&](const std::string &name, int32_t size) {
        std::ofstream(folder + name) << "frames";
        disk.AddRecNodeInfo(make_node(folder + name, 36000, 77824), true);
        disk.AddRecNodeInfo(make_node(folder + name, 36000, size), false);
    };
    record("100000.avi", 1000000);
    record("110000.avi", 2000000);
    EXPECT_EQ(disk.GetRecUsedSpace(), 3000000U);
    EXPECT_EQ(disk.DelRecFile((folder + "100000.avi").c_str()), 0);
    EXPECT_EQ(disk.GetRecUsedSpace(), 2000000U);
    disk.DelRecFile((folder + "100000.avi").c_str());
    EXPECT_EQ(disk.GetRecUsedSpace(), 2000000U);
    // One that is deleted while it is open never counts.
    std::ofstream(folder + "120000.avi") << "frames";
    disk.AddRecNodeInfo(make_node(folder + "120000.avi", 36000, 77824), true);
    EXPECT_EQ(disk.DelRecFile((folder + "120000.avi").c_str()), 0);
    disk.AddRecNodeInfo(make_node(folder + "120000.avi", 36000, 500), false);
    EXPECT_EQ(disk.GetRecUsedSpace(), 2000000U);
    // The folder's last file takes the index along.
    EXPECT_EQ(disk.DelRecFile((folder + "110000.avi").c_str()), 0);
    EXPECT_EQ(disk.GetRecUsedSpace(), 0U);
    EXPECT_FALSE(fs::exists(dir / "avi_av"));
    CRecIndex day;
    EXPECT_EQ(disk.GetRecIdxObj(&day, "20261124", false), KELM_AVIFILE_FAILED);
    // Paths that are not of this partition change nothing.
    EXPECT_EQ(disk.AddRecNodeInfo(make_node("/elsewhere/avi_av/20261124/cam/channel01/1.avi", 1, 5), false),
              KELM_AVIFILE_FAILED);
    EXPECT_EQ(disk.AddRecNodeInfo(make_node(dir / "avi_av/2026", 1, 5), false), KELM_AVIFILE_FAILED);
    EXPECT_EQ(disk.AddRecNodeInfo(make_node("a", 1, 5), false), KELM_AVIFILE_FAILED);
    EXPECT_EQ(disk.GetRecUsedSpace(), 0U);
}

TEST_F(RecordingTest, PartitionIsChosenByPriorityAndRoom) {
    const TempDir full;
    const TempDir best;
    EXPECT_EQ(AddPartition(full.path(), 10 << 20, 4), 0);  // too small to record on
    EXPECT_EQ(AddPartition(best.path(), 100ULL << 30, 3), 0);
    ASSERT_EQ(KELM_AviFile_RecStart(0, 1, device), 0);
    DeliverKey(kTenOClock);
    EXPECT_EQ(find_files(best.path(), ".avi").size(), 1U);
    // Its removal closes the file there, and the next key frame goes to what is left.
    EXPECT_EQ(KELM_AviFile_DelRecPartition(best.path().c_str()), 0);
    EXPECT_EQ(read_index(best / "avi_av/20261124/cam/channel01/rec_index.bin")[0].is_recording, 0U);
    EXPECT_FALSE(fs::exists(best / "avi_av/20261124/cam/channel01/100000.avi_idx"));  // and waits until it is finished
    DeliverKey(kTenOClock + 1);
    EXPECT_EQ(Files().size(), 1U);
    EXPECT_EQ(find_files(full.path(), ".avi").size(), 0U);
    EXPECT_EQ(KELM_AviFile_DelRecPartition(best.path().c_str()), KELM_AVIFILE_FAILED);
    KELM_AviFile_DelRecPartition(store.path().c_str());
    EXPECT_EQ(DeliverKey(kTenOClock + 2), 0);  // dropped: there is nowhere to go
    EXPECT_EQ(Files().size(), 1U);
    EXPECT_EQ(AddPartition(store.path()), 0);
    DeliverKey(kTenOClock + 3);
    EXPECT_EQ(Files().size(), 2U);
}

TEST_F(RecordingTest, PartitionsAreTwentyFourAndChangeInPlace) {
    std::vector<std::unique_ptr<TempDir>> dirs;
    for (int i = 1; i < 24; ++i) {
        dirs.push_back(std::make_unique<TempDir>());
        ASSERT_EQ(AddPartition(dirs.back()->path()), 0);
    }
    const TempDir one_more;
    EXPECT_EQ(AddPartition(one_more.path()), KELM_AVIFILE_NO_SLOT);
    EXPECT_EQ(AddPartition(store.path(), 200ULL << 30), 0);
    RecPartitionInfo info{};
    std::strcpy(info.path, store.path().c_str());
    info.rec_space = 500ULL << 30;
    info.disk_space = 400ULL << 30;
    EXPECT_EQ(KELM_AviFile_AddRecPartition(&info), 0);
    EXPECT_EQ(info.rec_space, 400ULL << 30);
    std::memset(info.path, 'x', sizeof(info.path));
    info.path[0] = '/';
    EXPECT_EQ(KELM_AviFile_AddRecPartition(&info), KELM_AVIFILE_BAD_ARGUMENT);
}

TEST_F(RecordingTest, FilesOfOneSecondAreNumbered) {
    ASSERT_EQ(KELM_AviFile_RecStart(0, 1, device), 0);
    for (int i = 0; i < 12; ++i) {
        Frame frame = make_frame(kKey, number++, kTenOClock, 0, 100);
        frame.head.width = static_cast<uint16_t>(100 + i);
        Deliver(frame);
    }
    KELM_AviFile_RecStop(0, device);
    EXPECT_EQ(Files().size(), 12U);
    EXPECT_TRUE(fs::exists(Folder() + "100000.avi"));
    EXPECT_TRUE(fs::exists(Folder() + "100000_1.avi"));
    EXPECT_TRUE(fs::exists(Folder() + "100000_11.avi"));
}

TEST_F(RecordingTest, FilesAreDeletedByName) {
    ASSERT_EQ(KELM_AviFile_RecStart(0, 1, device), 0);
    DeliverKey(kTenOClock);
    KELM_AviFile_RecStop(0, device);
    const std::string path = Folder() + "100000.avi";
    EXPECT_EQ(UsedSpace(), static_cast<uint64_t>(read_index(Folder() + "rec_index.bin")[0].file_size));
    std::ofstream(store / "stray.avi") << "x";
    std::ofstream(store / "stray.AVI") << "x";
    EXPECT_EQ(KELM_AviFile_DelAviFileByName(".av"), KELM_AVIFILE_BAD_ARGUMENT);
    EXPECT_EQ(KELM_AviFile_DelAviFileByName(".avi"), KELM_AVIFILE_NO_FILE);
    EXPECT_EQ(KELM_AviFile_DelAviFileByName((store / "stray.AVI").c_str()), KELM_AVIFILE_NO_FILE);
    EXPECT_EQ(KELM_AviFile_DelAviFileByName((store / "none.avi").c_str()), KELM_AVIFILE_NO_FILE);
    EXPECT_EQ(KELM_AviFile_DelAviFileByName((store / "stray.avi").c_str()), KELM_AVIFILE_FAILED);
    doubles::inject({.call = doubles::Call::remove, .path_end = ".avi", .times = 1});
    EXPECT_EQ(KELM_AviFile_DelAviFileByName(path.c_str()), KELM_AVIFILE_FAILED);
    EXPECT_TRUE(fs::exists(path));
    EXPECT_EQ(read_index(Folder() + "rec_index.bin")[0].type, 1U);
    EXPECT_EQ(KELM_AviFile_DelAviFileByName(path.c_str()), 0);
    EXPECT_FALSE(fs::exists(store / "avi_av"));
    EXPECT_EQ(UsedSpace(), 0U);
}

// ---- Two processes ----

namespace {

// What the other process says by its exit status.
constexpr int kAdded = 10;
constexpr int kRefused = 11;

int add_in_another_process(const std::string &root) {
    setenv("RECVAULT_OTHER_STORE", root.c_str(), 1);
    const pid_t other = fork();
    if (other == 0) {
        execl("/proc/self/exe", "recvault_tests", "--gtest_also_run_disabled_tests",
              "--gtest_filter=OtherProcess.DISABLED_AddsThePartition", static_cast<char *>(nullptr));
        _exit(1);
    }
    int status = 0;
    waitpid(other, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

}  // namespace

TEST_F(RecordingTest, PartitionBelongsToOneProcess) {
    ASSERT_EQ(KELM_AviFile_RecStart(0, 1, device), 0);
    DeliverKey(kTenOClock);
    Frame wide = make_frame(kKey, number++, kTenOClock + 1, 0, 100000);
    wide.head.width = 1280;
    Deliver(wide);
    const std::string open_file = Folder() + "100001.avi";
    ASSERT_TRUE(wait_until([&] {  // until nothing is left to be written before the next frame
        return !fs::exists(Folder() + "100000.avi_idx") && fs::file_size(open_file) > 77824 + 90000 &&
               fs::file_size(open_file + "_idx") == 40;
    }));
    // What a scan would mend or remove.
    std::ofstream(Folder() + "095959.avi") << "no record file";
    fs::create_directories(store / "avi_av/20261124/cam/channel00");
    const auto tree = [&] {
        std::map<std::string, std::pair<fs::file_time_type, std::string>> entries;
        for (const auto &entry : fs::recursive_directory_iterator(store.path())) {
            entries[entry.path()] = {entry.last_write_time(), entry.is_directory() ? "" : read_file(entry.path())};
        }
        return entries;
    };
    const auto before = tree();
    const TempDir elsewhere;
    fs::create_symlink(store.path(), elsewhere / "l");
    EXPECT_EQ(add_in_another_process(store.path()), kRefused);
    EXPECT_EQ(add_in_another_process(elsewhere / "l"), kRefused);
    EXPECT_TRUE(tree() == before);
    DeliverInter(kTenOClock + 2);
    KELM_AviFile_RecStop(0, device);
    const StoredFile file(open_file);
    file.ExpectComplete();
    EXPECT_EQ(file.frames.size(), 2U);
    // It is the other's as soon as this one gives it back, and this one's when the other is gone.
    EXPECT_EQ(KELM_AviFile_DelRecPartition(store.path().c_str()), 0);
    EXPECT_EQ(add_in_another_process(store.path()), kAdded);
    EXPECT_EQ(AddPartition(store.path()), 0);
    EXPECT_FALSE(fs::exists(Folder() + "095959.avi"));
}

TEST(OtherProcess, DISABLED_AddsThePartition) {
    setenv("TZ", "UTC", 1);
    const std::string root = getenv("RECVAULT_OTHER_STORE");
    RecPartitionInfo info{};
    std::strncpy(info.path, root.c_str(), sizeof(info.path) - 1);
    info.priority = 1;
    info.rec_space = info.disk_space = 10ULL << 30;
    ASSERT_EQ(KELM_AviFile_Init(0), 0);
    const int32_t result = KELM_AviFile_AddRecPartition(&info);
    if (result == KELM_AVIFILE_OK) _exit(KELM_AviFile_UnInit(0) == 0 ? kAdded : 1);
    ASSERT_EQ(result, KELM_AVIFILE_FAILED);
    // It can do nothing there by other ways either.
    int32_t device = 0;
    uint64_t used = 0;
    ASSERT_EQ(KELM_AviFile_CreateDevHandle(&device, "cam"), 0);
    ASSERT_EQ(KELM_AviFile_RecStart(0, 1, device), 0);
    const Frame frame = make_frame(kKey, 0, kTenOClock, 0, 1000);
    KELM_AviFile_DataInput(0, &frame.head, 36, frame.data.data(), 1000, kTenOClock, 0, device);
    EXPECT_EQ(KELM_AviFile_DelAviFileByName((root + "/avi_av/20261124/cam/channel01/100000.avi").c_str()),
              KELM_AVIFILE_FAILED);
    KELM_AviFile_DelAviFiles(KELM_AVIFILE_ALL_CHANNELS, kTenOClock, device);
    EXPECT_EQ(KELM_AviFile_GetRecUsedSpace(root.c_str(), &used), KELM_AVIFILE_FAILED);
    if (KELM_AviFile_UnInit(0) == 0 && !HasFailure()) _exit(kRefused);
}
