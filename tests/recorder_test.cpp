// From a delivered frame to files in the tree: when files begin and end, what the index says of them, what a bad frame and a
// bad day leave behind.
#include "GlobalObj.h"
#include "RecDevManager.h"
#include "support.h"

using namespace recvault_tests;

namespace {

class Recorder : public RecordingTest {
 protected:
    void SetUp() override {
        RecordingTest::SetUp();
        ASSERT_EQ(KELM_AviFile_RecStart(0, 1, device), 0);
    }
    std::vector<StoredRecord> Records(const std::string &day = "20261124") const {
        return read_index(Folder(0, day) + "rec_index.bin");
    }
    std::vector<std::string> Names() const {
        std::vector<std::string> names;
        for (const auto &path : Files()) names.push_back(fs::path(path).filename());
        return names;
    }
    bool WaitForSideRecords(const std::string &path, size_t records) const {
        return wait_until([&] { return fs::exists(path + "_idx") && fs::file_size(path + "_idx") == records * 40; });
    }
};

}  // namespace

TEST_F(Recorder, DropsAllUpToTheFirstKeyFrameAndFinishesItsFileAtTheStop) {
    DeliverInter(kTenOClock);
    Deliver(make_frame(kAudio, 0, kTenOClock, 0, 320));
    EXPECT_EQ(Files().size(), 0U);
    for (uint32_t i = 0; i < 100; ++i) {
        i % 25 == 0 ? DeliverKey(kTenOClock + i / 25, i % 25 * 40000) : DeliverInter(kTenOClock + i / 25, i % 25 * 40000);
        Deliver(make_frame(kAudio, 0, kTenOClock + i / 25, i % 25 * 40000, 320));
    }
    const std::string path = Folder() + "100000.avi";
    ASSERT_TRUE(fs::exists(path + "_idx"));
    EXPECT_EQ(Records()[0].is_recording, 1U);
    EXPECT_EQ(Records()[0].file_size, 77824);
    EXPECT_GT(UsedSpace(), 77824U + 200 * 320);
    EXPECT_EQ(KELM_AviFile_RecStop(0, device), 0);
    EXPECT_FALSE(fs::exists(path + "_idx"));
    StoredFile file(path);
    file.ExpectComplete();
    EXPECT_EQ(file.frames.size(), 200U);
    EXPECT_EQ(file.word(132), 25025000U);
    const StoredRecord record = Records()[0];
    EXPECT_EQ(record.is_recording, 0U);
    EXPECT_EQ(record.file_size, static_cast<int32_t>(file.movi_end));
    EXPECT_EQ(record.begin_sec, kTenOClock);
    EXPECT_EQ(record.end_sec, kTenOClock + 3);
    EXPECT_EQ(UsedSpace(), static_cast<uint64_t>(record.file_size));
    EXPECT_EQ(DeliverKey(kTenOClock + 9), KELM_AVIFILE_NOT_RUNNING);
}

TEST_F(Recorder, BeginsAFileAtSizeCodecHourMidnightAndAStepBack) {
    DeliverKey(kTenOClock);
    DeliverKey(kTenOClock + 3599);
    DeliverInter(kTenOClock + 3700);  // only a key frame ends a file
    DeliverKey(kTenOClock + 3701);    // past the hour
    Frame wide = make_frame(kKey, number++, kTenOClock + 3702, 0, 100);
    wide.head.width = 1280;
    Deliver(wide);
    wide.head.seconds += 1;
    wide.head.codec_id = 2;
    Deliver(wide);
    wide.head.seconds -= 100;
    Deliver(wide);
    wide.head.seconds = kMidnight - 1;
    Deliver(wide);
    wide.head.seconds = kMidnight;
    Deliver(wide);
    KELM_AviFile_RecStop(0, device);
    EXPECT_THAT(Names(), testing::ElementsAre("100000.avi", "110003.avi", "110141.avi", "110142.avi", "110143.avi",
                                              "235959.avi", "000000.avi"));
    const auto records = Records();
    ASSERT_EQ(records.size(), 6U);
    EXPECT_EQ(records[4].begin_sec, kTenOClock + 3603);  // the step back begins with its own time
    for (const auto &record : records) EXPECT_EQ(record.is_recording, 0U);
    EXPECT_EQ(StoredFile(Folder() + "100000.avi").frames.size(), 3U);
    EXPECT_EQ(Records("20261125")[0].name, "000000.avi");
    for (const auto &path : Files()) StoredFile(path).ExpectComplete();
}

TEST_F(Recorder, BeginsAFileAtTheSizeThatThePartitionSets) {
    KELM_AviFile_DelRecPartition(store.path().c_str());
    AddPartition(store.path(), 128 << 20);  // files of 32 MiB
    for (uint32_t i = 0; i < 80; ++i) {
        DeliverKey(kTenOClock + i, 0, 500000);
        const auto path = Files().back();
        ASSERT_TRUE(WaitForSideRecords(path, i < 67 ? i + 1 : i - 66));
    }
    KELM_AviFile_RecStop(0, device);
    EXPECT_EQ(Files().size(), 2U);
    EXPECT_EQ(StoredFile(Files()[0]).frames.size(), 67U);  // 77824 + 67 * 500052 is the first sum past the limit
}

TEST_F(Recorder, ChangesTheRecordTypeOfARunningFile) {
    DeliverKey(kTenOClock);
    EXPECT_EQ(KELM_AviFile_RecStart(0, 3, device), 0);
    DeliverKey(kTenOClock + 1);
    EXPECT_EQ(KELM_AviFile_RecStart(0, 8, device), 0);
    DeliverInter(kTenOClock + 2);
    KELM_AviFile_RecStop(0, device);
    EXPECT_EQ(Files().size(), 1U);
    EXPECT_EQ(Records()[0].type, 0x7FU);
    StoredFile file(Files()[0]);
    EXPECT_EQ(file.word(220 + 2008), 2U);
    EXPECT_EQ(file.frames[1].rec_type, 4U);
    EXPECT_EQ(file.frames[2].rec_type, 0x7FU);
}

TEST_F(Recorder, SplitsAnAudioDelivery) {
    DeliverKey(kTenOClock);
    Frame audio = make_frame(kAudio, 0, kTenOClock, 970000, 160);
    const auto *head = reinterpret_cast<const uint8_t *>(&audio.head);
    std::vector<uint8_t> delivery = audio.data;
    for (int i = 0; i < 2; ++i) {
        delivery.insert(delivery.end(), head, head + 36);
        delivery.insert(delivery.end(), audio.data.begin(), audio.data.end());
    }
    audio.data = delivery;
    ASSERT_EQ(audio.data.size(), 552U);
    EXPECT_EQ(Deliver(audio), 0);
    audio.data[160 + 4] = kKey;  // an inner head that is no audio
    EXPECT_EQ(Deliver(audio), 0);
    for (uint32_t length : {0U, 553U, 0xFFFFFFDCU, 0xFFFFFFFFU}) {
        audio.head.length = length;
        EXPECT_EQ(Deliver(audio), 0);
    }
    KELM_AviFile_RecStop(0, device);
    StoredFile file(Files()[0]);
    file.ExpectComplete();
    ASSERT_EQ(file.frames.size(), 1U + 3 + 2);
    EXPECT_EQ(file.frames[1].microsecond, 970000U);
    EXPECT_EQ(file.frames[2].second, kTenOClock + 1);
    EXPECT_EQ(file.frames[2].microsecond, 10000U);
    EXPECT_EQ(file.frames[3].microsecond, 50000U);
}

TEST_F(Recorder, TakesNoHarmFromBadFrames) {
    DeliverKey(kTenOClock);
    struct Bad {
        const char *what;
        std::function<void(Frame *)> spoil;
    };
    const Bad frames[] = {{"wrong start mark", [](Frame *f) { f->head.uiStartId = 1; }},
                          {"larger than the ring", [](Frame *f) { f->data.resize(f->head.length = 0x100000); }},
                          {"a length that lies", [](Frame *f) { f->head.length = 5; }},
                          {"no data", [](Frame *f) { f->data.resize(f->head.length = 0); }},
                          {"an unknown type", [](Frame *f) { f->head.type = 2; }}};
    for (const Bad &bad : frames) {
        Frame frame = make_frame(kKey, number, kTenOClock + 1, 0, 100);
        frame.head.width = 99;  // none of them may end the file
        frame.data.reserve(0x100000);
        bad.spoil(&frame);
        EXPECT_EQ(Deliver(frame), 0) << bad.what;
    }
    DeliverInter(kTenOClock + 1);
    Frame tiny = make_frame(kKey, number++, kTenOClock + 2, 0, 100);
    tiny.head.width = tiny.head.height = 0;
    Deliver(tiny);           // 0x0 is a size like any other
    DeliverKey(UINT32_MAX);  // the end of 32 bits
    DeliverInter(UINT32_MAX, 999999);
    Frame first = make_frame(kKey, number++, 0, 0, 100);  // and its begin
    Deliver(first);
    KELM_AviFile_RecStop(0, device);
    EXPECT_THAT(Names(), testing::ElementsAre("000000.avi", "100000.avi", "100002.avi", "062815.avi"));
    EXPECT_EQ(StoredFile(Folder() + "100000.avi").frames.size(), 2U);
    const auto last = Records("21060207");
    ASSERT_EQ(last.size(), 1U);
    EXPECT_EQ(last[0].end_sec, static_cast<int64_t>(UINT32_MAX));
    for (const auto &path : Files()) StoredFile(path).ExpectComplete();
}

TEST_F(Recorder, SweepClosesTheFilesOfSilentChannels) {
    doubles::set_true_time(kTenOClock);
    DeliverKey(kTenOClock);
    auto &registry = kelm_recvault::CGlobalObject::Instance().RecDevMngr();
    doubles::set_true_time(kTenOClock + 1800);
    registry.ThreadFunc(0);
    EXPECT_EQ(Records()[0].is_recording, 1U);
    doubles::advance_true_time(1);
    registry.ThreadFunc(0);
    EXPECT_EQ(Records()[0].is_recording, 0U);
    DeliverKey(kTenOClock + 2000);
    EXPECT_EQ(Files().size(), 2U);
}

// ---- Bad days ----

TEST_F(Recorder, GoesOnByItselfWhenFilesCanBeMadeAgain) {
    const doubles::Fault faults[] = {{.call = doubles::Call::make_directory, .path_end = "channel01"},
                                     {.call = doubles::Call::open, .path_end = ".avi"},
                                     {.call = doubles::Call::open, .path_end = ".avi_idx"},
                                     {.call = doubles::Call::write, .path_end = ".avi", .error = ENOSPC},
                                     {.call = doubles::Call::start_thread, .path_end = ""}};
    ASSERT_EQ(KELM_AviFile_RecStart(1, 1, device), 0);
    uint32_t sec = kTenOClock;
    for (const auto &fault : faults) {
        doubles::inject(fault);
        EXPECT_EQ(DeliverKey(sec++), 0);
        EXPECT_EQ(DeliverInter(sec), 0);
        EXPECT_GT(doubles::failed_calls(), 0);
        EXPECT_EQ(find_files(store.path(), "").size(), 0U);
        doubles::clear_faults();
    }
    // Nothing was opened on another channel's account, and both go on with their next key frame.
    Deliver(make_frame(kKey, 0, sec, 0, 100), 1);
    DeliverKey(sec);
    KELM_AviFile_RecStop(0, device);
    KELM_AviFile_RecStop(1, device);
    EXPECT_EQ(Files().size(), 2U);
    for (const auto &path : Files()) StoredFile(path).ExpectComplete();
}

TEST_F(Recorder, RecordsWithoutAnIndex) {
    doubles::inject({.call = doubles::Call::open, .path_end = "rec_index.bin"});
    DeliverKey(kTenOClock);
    DeliverInter(kTenOClock + 1);
    KELM_AviFile_RecStop(0, device);
    doubles::clear_faults();
    EXPECT_FALSE(fs::exists(Folder() + "rec_index.bin"));
    StoredFile(Folder() + "100000.avi").ExpectComplete();
    EXPECT_EQ(UsedSpace(), 0U);  // the account is the sum of the records
    // An index that comes back takes the next file, also when it comes back between the opening and the close.
    KELM_AviFile_RecStart(0, 1, device);
    doubles::inject({.call = doubles::Call::open, .path_end = "rec_index.bin", .times = 2});
    DeliverKey(kTenOClock + 10);
    KELM_AviFile_RecStop(0, device);
    ASSERT_EQ(Records().size(), 1U);
    EXPECT_EQ(Records()[0].is_recording, 0U);
    EXPECT_EQ(UsedSpace(), static_cast<uint64_t>(Records()[0].file_size));
}

TEST_F(Recorder, BeginsANewFileAfterAFailedWrite) {
    DeliverKey(kTenOClock, 0, 20000);
    doubles::inject({.call = doubles::Call::write, .path_end = ".avi", .times = 1});
    for (uint32_t i = 1; i < 50; ++i) {
        DeliverInter(kTenOClock, i * 20000, 20000);
        if (doubles::failed_calls() > 0) break;
        std::this_thread::yield();
    }
    ASSERT_TRUE(wait_until([] { return doubles::failed_calls() > 0; }));
    const std::string side = Folder() + "100000.avi_idx";
    ASSERT_TRUE(wait_until([&] {
        DeliverKey(kTenOClock + 1, 0, 20000);
        return Files().size() == 2;
    }));
    DeliverInter(kTenOClock + 2);
    KELM_AviFile_RecStop(0, device);
    for (const auto &path : Files()) StoredFile(path).ExpectComplete();
}

TEST_F(Recorder, LeavesAFileThatLostItsName) {
    DeliverKey(kTenOClock);
    EXPECT_EQ(KELM_AviFile_DelAviFileByName((Folder() + "100000.avi").c_str()), KELM_AVIFILE_FAILED);  // it is being written
    fs::remove_all(store / "avi_av");
    ASSERT_TRUE(wait_until([&] {
        DeliverKey(kTenOClock + 1);
        return Files().size() == 1;
    }));
    KELM_AviFile_RecStop(0, device);
    EXPECT_THAT(Names(), testing::ElementsAre("100001.avi"));
    StoredFile(Files()[0]).ExpectComplete();
    EXPECT_EQ(UsedSpace(), static_cast<uint64_t>(Records()[0].file_size));
}

TEST_F(Recorder, WaitsForARootThatVanished) {
    DeliverKey(kTenOClock);
    DeliverInter(kTenOClock + 1);
    const std::string away = store.path() + "-away";
    fs::rename(store.path(), away);
    DeliverInter(kTenOClock + 2);
    Frame wide = make_frame(kKey, number++, kTenOClock + 3, 0, 100);
    wide.head.width = 1280;
    EXPECT_EQ(Deliver(wide), 0);  // ends the file, and finds no place for the next
    EXPECT_FALSE(fs::exists(store.path()));
    fs::rename(away, store.path());
    wide.head.seconds += 1;
    EXPECT_EQ(Deliver(wide), 0);
    KELM_AviFile_RecStop(0, device);
    EXPECT_THAT(Names(), testing::ElementsAre("100000.avi", "100004.avi"));
    EXPECT_EQ(StoredFile(Folder() + "100000.avi").frames.size(), 3U);
    StoredFile(Folder() + "100004.avi").ExpectComplete();
}
