// A volume of its own for the partition: it fills up, and it turns read-only. Mounted where no other process sees it, so
// that it is gone with this one.
#include <sched.h>
#include <sys/mount.h>
#include <unistd.h>

#include <atomic>

#include "support.h"

using namespace recvault_tests;

namespace {

constexpr uint32_t kChannels = 3;
constexpr uint32_t kKeepAll = 0xFFFFFFFF;  // recycling forbidden

// Root may mount; anybody else may where he is root of a user namespace, for which he has to be alone in his process.
bool may_mount() {
    const std::string uid = std::to_string(geteuid());
    const std::string gid = std::to_string(getegid());
    if (uid != "0") {
        if (unshare(CLONE_NEWUSER) != 0) return false;
        std::ofstream("/proc/self/setgroups") << "deny";
        std::ofstream("/proc/self/uid_map") << "0 " + uid + " 1";
        std::ofstream("/proc/self/gid_map") << "0 " + gid + " 1";
    }
    return unshare(CLONE_NEWNS) == 0 && mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

class Volume : public RecordingTest {
 protected:
    void SetUp() override {
        if (!may_mount())
            GTEST_SKIP() << "no volume can be mounted: this process may neither mount nor have a user namespace";
        ASSERT_EQ(mount("tmpfs", store.path().c_str(), "tmpfs", 0, "size=64m"), 0);
        RecordingTest::SetUp();
    }
    void TearDown() override {
        RecordingTest::TearDown();
        umount2(store.path().c_str(), MNT_DETACH);
    }
    // The partition with a budget that the volume does not have, so that it is the volume that fills up.
    void Start(uint32_t max_save_hour) {
        KELM_AviFile_DelRecPartition(store.path().c_str());
        ASSERT_EQ(AddPartition(store.path(), kBudget, 1, max_save_hour), 0);
        ASSERT_EQ(KELM_AviFile_SetDiskGroupFullCallback(
                      [](void *user) {
                          static_cast<Volume *>(user)->OnFull();
                          return 0;
                      },
                      this),
                  0);
        for (uint32_t channel = 0; channel < kChannels; ++channel) ASSERT_EQ(KELM_AviFile_RecStart(channel, 1, device), 0);
    }
    // On the monitor's thread, from which the application may delete.
    void OnFull() {
        ++calls;
        if (!make_room.exchange(false)) return;
        const auto files = Files();
        for (size_t i = 0; i < files.size(); ++i) {
            if (i % 3 == 0) continue;
            EXPECT_EQ(KELM_AviFile_DelAviFileByName(files[i].c_str()), 0);
        }
    }
    // A second of all channels, two frames of each; every 25 seconds another file begins.
    void DeliverSecond() {
        for (uint32_t i = 0; i < 2; ++i) {
            Frame frame = make_frame(i == 0 ? kKey : kInter, sec * 2 + i, sec, i * 500000, frame_size);
            frame.head.width = static_cast<uint16_t>(sec / 25);
            for (uint32_t channel = 0; channel < kChannels; ++channel) EXPECT_EQ(Deliver(frame, channel), 0);
        }
        ++sec;
    }
    bool DeliverUntil(const std::function<bool()> &condition) {
        return wait_until([&] {
            DeliverSecond();
            std::this_thread::sleep_for(std::chrono::milliseconds(10));  // a pace that the rings bear
            return condition();
        });
    }
    size_t FilesFound() const {
        uint32_t walk = 0;
        EXPECT_EQ(KELM_AviFile_QueryRecFilesStart(&walk, KELM_AVIFILE_ALL_CHANNELS, kTenOClock, device), 0);
        size_t found = 0;
        for (RecFileInfo info{}; KELM_AviFile_GetNextRecFile(walk, &info) == 0; ++found)
            EXPECT_TRUE(fs::exists(info.file_path));
        KELM_AviFile_QueryRecFilesStop(walk);
        return found;
    }
    bool EachChannelHasAFileSince(uint32_t second) const {
        for (uint32_t channel = 0; channel < kChannels; ++channel) {
            const std::string index = Folder(channel) + "rec_index.bin";
            if (!fs::exists(index)) return false;
            const auto records = read_index(index);
            if (records.empty() || records.back().begin_sec < second) return false;
        }
        return true;
    }
    bool IsFull() const { return fs::space(store.path()).available < 77824; }  // no further file can begin
    // All that is there is readable, and after the next scan complete and accounted for.
    void StopAndExpectAllWhole() {
        for (uint32_t channel = 0; channel < kChannels; ++channel) KELM_AviFile_RecStop(channel, device);
        std::map<std::string, size_t> frames;
        for (const auto &path : Files()) {
            const StoredFile file(path);
            EXPECT_EQ(file.frames_end, file.movi_end) << path;
            frames[path] = file.frames.size();
        }
        KELM_AviFile_DelRecPartition(store.path().c_str());
        ASSERT_EQ(AddPartition(store.path(), kBudget, 1, kKeepAll), 0);
        EXPECT_EQ(find_files(store.path(), "_idx").size(), 0U);
        EXPECT_EQ(Files().size(), frames.size());
        uint64_t on_disk = 0;
        for (const auto &path : Files()) {
            const StoredFile file(path);
            EXPECT_EQ(file.frames.size(), frames[path]) << path;
            file.ExpectComplete();
            on_disk += file.bytes.size();
        }
        EXPECT_EQ(UsedSpace(), on_disk);
    }

    static constexpr uint64_t kBudget = 256ULL << 20;
    uint32_t sec = kTenOClock;
    uint32_t frame_size = 50000;
    std::atomic<int> calls{0};
    std::atomic<bool> make_room{false};
};

}  // namespace

TEST_F(Volume, FullIsRecycledAndRecordedOn) {
    Start(0);
    const std::string first = Folder() + "100000.avi";
    ASSERT_TRUE(DeliverUntil([this] { return IsFull(); }));
    const uint32_t full_at = sec;
    ASSERT_TRUE(DeliverUntil([&] { return EachChannelHasAFileSince(full_at); }));
    EXPECT_FALSE(fs::exists(first));
    for (uint32_t i = 0; i < 30; ++i) DeliverSecond();
    EXPECT_EQ(calls, 0);
    StopAndExpectAllWhole();
}

TEST_F(Volume, FullIsToldAndRecordedOnWhenThereIsRoom) {
    Start(kKeepAll);
    ASSERT_TRUE(DeliverUntil([this] { return IsFull() || calls > 0; }));  // as the monitor sees it, before the last byte
    ASSERT_TRUE(DeliverUntil([this] { return calls >= 2; }));             // once a second, as long as it lasts
    const auto before = Files();
    const uint32_t full_at = sec;
    DeliverSecond();
    EXPECT_EQ(Files(), before);  // nothing went, nothing came
    make_room = true;
    ASSERT_TRUE(DeliverUntil([&] { return EachChannelHasAFileSince(full_at); }));
    const int told = calls;
    for (uint32_t i = 0; i < 10; ++i) DeliverSecond();
    EXPECT_EQ(calls, told);
    StopAndExpectAllWhole();
}

// The volume is mounted over itself, so that what is open stays open, as it does where a system takes to read-only.
TEST_F(Volume, ReadOnlyTakesNothingAndKeepsAllUntilItIsWritableAgain) {
    const char *const root = store.path().c_str();
    frame_size = 10000;  // so that a file's frames fit into the ring, and none is lost
    Start(0);
    while (sec < kTenOClock + 30) DeliverSecond();
    const std::string closed = Folder() + "100000.avi";
    const auto recorded = static_cast<uint64_t>(read_index(Folder() + "rec_index.bin")[0].file_size);
    ASSERT_TRUE(wait_until([&] { return find_files(store.path(), "_idx").size() == kChannels; }));
    const std::string bytes = read_file(closed);
    ASSERT_EQ(mount(root, root, nullptr, MS_BIND, nullptr), 0);
    ASSERT_EQ(mount(nullptr, root, nullptr, MS_BIND | MS_REMOUNT | MS_RDONLY, nullptr), 0);
    const auto files = Files();
    ASSERT_EQ(files.size(), 2 * kChannels);
    while (sec < kTenOClock + 100) DeliverSecond();  // the open files end, and no others begin
    ASSERT_EQ(KELM_AviFile_RecStart(kChannels, 1, device), 0);
    EXPECT_THAT(log_of([&] { EXPECT_EQ(Deliver(make_frame(kKey, 0, sec, 0, 1000), kChannels), 0); }),
                testing::HasSubstr("create record file path failed: " + Folder(kChannels)));
    EXPECT_EQ(Files(), files);
    EXPECT_EQ(KELM_AviFile_DelAviFileByName(closed.c_str()), KELM_AVIFILE_FAILED);
    EXPECT_EQ(FilesFound(), kChannels);
    // Neither does a scan change or lose anything; the index that stays is what the account goes by.
    EXPECT_EQ(KELM_AviFile_DelRecPartition(root), 0);
    EXPECT_EQ(AddPartition(root, kBudget), 0);
    EXPECT_EQ(FilesFound(), kChannels);
    EXPECT_EQ(UsedSpace(), kChannels * recorded);
    EXPECT_TRUE(read_file(closed) == bytes);
    ASSERT_EQ(umount2(root, MNT_DETACH), 0);
    const uint32_t writable_at = sec;
    DeliverSecond();
    EXPECT_TRUE(EachChannelHasAFileSince(writable_at));
    KELM_AviFile_RecStop(kChannels, device);
    StopAndExpectAllWhole();
    EXPECT_EQ(FilesFound(), 3 * kChannels);
    for (const char *name : {"100000.avi", "100025.avi"}) EXPECT_EQ(StoredFile(Folder() + name).frames.size(), 50U);
}
