// One record file: its bytes, its tables, its two-stage close, and what is left of it when writes fail.
#include "avi/avi_writer.h"

#include "avi/avi_common.h"
#include "support.h"

using namespace kelm_recvault;
using namespace recvault_tests;

namespace {

class AviWriter : public testing::Test {
 protected:
    void SetUp() override {
        ASSERT_EQ(ring.Initialize(true), 0);
        ASSERT_EQ(writer.open_file(path.c_str(), 640, 360, &ring), 0);
    }
    void TearDown() override {
        doubles::clear_faults();
        if (writer.is_open()) writer.close(nullptr, nullptr);
        ring.Uninitialize();
    }

    int32_t Write(const Frame &frame) {
        return writer.write_data(frame.head, frame.data.data(), static_cast<uint32_t>(frame.data.size()));
    }
    int32_t Video(uint32_t type, uint32_t sec, uint32_t usec = 0, uint32_t size = 100) {
        return Write(make_frame(type, number++, sec, usec, size));
    }
    bool WaitForDisk() {
        CPacketManager::Pieces pieces;
        return wait_until([&] { return ring.GetFrameData(&pieces, true) != 0; });
    }
    bool WaitForSideFile(size_t records) {
        return wait_until([&] { return fs::file_size(path + "_idx") == records * 40; });
    }
    struct Segment {
        uint32_t rec_type;
        int64_t begin_sec, end_sec;
    };
    std::vector<Segment> Segments() const {
        std::vector<RecSegEntry> entries(100);
        int32_t count = 100;
        writer.get_recseg_info(entries.data(), &count);
        std::vector<Segment> segments;
        for (int32_t i = 0; i < count; ++i)
            segments.push_back({entries[i].rec_type, entries[i].begin_sec, entries[i].end_sec});
        return segments;
    }

    TempDir dir;
    std::string path = dir / "100000.avi";
    CPacketManager ring;
    kelm_avi_writer writer;
    uint32_t number = 0;
};

}  // namespace

// 1000 video frames of 20000 bytes, a key frame every 25, and 1000 audio blocks of 164 bytes.
TEST_F(AviWriter, WritesTheSizesThatTheFormatGives) {
    for (uint32_t i = 0; i < 1000; ++i) {
        Video(i % 25 == 0 ? kKey : kInter, 1000 + i / 25, i % 25 * 40000, 20000);
        Frame audio = make_frame(kAudio, 0, 1000 + i / 25, i % 25 * 40000, 164);
        audio.head.audio_codec = 0;
        Write(audio);
        ASSERT_TRUE(i % 10 != 9 || WaitForDisk());
    }
    int32_t size = 0;
    int64_t end_sec = 0;
    EXPECT_EQ(writer.close_fast(&size, &end_sec), 0);
    EXPECT_EQ(size, 20369824);
    EXPECT_EQ(end_sec, 1039);
    StoredFile first_stage(path);
    EXPECT_EQ(first_stage.word(4), 20369816U);
    EXPECT_EQ(first_stage.word(77816), 20292004U);
    EXPECT_TRUE(fs::exists(path + "_idx"));

    AviFileState closed = writer.copy_for_close();
    writer.reset();
    EXPECT_EQ(closed.close_finish(), 0);
    EXPECT_FALSE(fs::exists(path + "_idx"));
    StoredFile file(path);
    file.ExpectComplete();
    EXPECT_EQ(file.bytes.size(), 20401832U);
    EXPECT_EQ(file.word(4), 20401824U);
    EXPECT_EQ(file.word(48), 1000U);
    EXPECT_EQ(file.word(56), 2U);
    EXPECT_EQ(file.word(32), 40000U);
    EXPECT_EQ(file.word(132), 25025000U);
    EXPECT_EQ(file.word(220 + 74012), 40U);                    // key frames
    EXPECT_EQ(file.word(220 + 2008), 1U);                      // segments
    EXPECT_EQ(file.word(220 + 2012), 77824U);                  // the first key frame's position
    EXPECT_EQ(file.word(220 + 2016), 25U * 20036 + 25 * 200);  // its bytes up to the next one
    EXPECT_EQ(file.word(file.movi_end + 8 + 8), 60U);
    EXPECT_EQ(file.frames[0].prev_size, 0U);
    EXPECT_EQ(file.frames[1].prev_size, 20128U);
    EXPECT_EQ(file.frames[1].file_pos, 77824U + 20064);
    EXPECT_EQ(file.frames[2].prev_size, 164U + 128);
}

TEST_F(AviWriter, TakesTheStreamHeadersFromTheFirstFrames) {
    Frame video = make_frame(kKey, 0, 100, 0, 100);
    video.head.codec_id = 2;
    video.head.width = 320;
    video.head.height = 240;
    Write(video);
    Frame audio = make_frame(kAudio, 0, 100, 0, 160);
    audio.head.audio_codec = 2;
    Write(audio);
    const std::string bytes = read_file(path);  // before any close
    EXPECT_EQ(bytes.substr(112, 4), "mjpg");
    EXPECT_EQ(at<uint32_t>(bytes, 176), 320U);
    EXPECT_EQ(at<uint32_t>(bytes, 64), 640U);
    EXPECT_EQ(bytes.substr(74260, 4), "g711");
    EXPECT_EQ(at<uint16_t>(bytes, 74320), 7U);
    EXPECT_EQ(at<uint32_t>(bytes, 74288), 325U);
    EXPECT_EQ(at<uint32_t>(bytes, 56), 2U);
}

TEST_F(AviWriter, PadsOddFramesAndLeavesRefusedOnesWithoutATrace) {
    Video(kKey, 100, 0, 101);
    EXPECT_EQ(Write(make_frame(kInter, 50, 100, 40000, 100)), KELM_AVIFILE_FAILED);  // its number jumps
    Video(kKey, 101, 0, 100);
    writer.close(nullptr, nullptr);
    StoredFile file(path);
    file.ExpectComplete();
    ASSERT_EQ(file.frames.size(), 2U);
    EXPECT_EQ(file.frames[0].chunk_size, 102U);
    EXPECT_EQ(file.word(file.movi_end + 8 + 12), 101U);
    EXPECT_EQ(file.frames[1].prev_size, 230U);
}

TEST_F(AviWriter, KeepsSegmentsByTimeAndType) {
    Video(kKey, 100);
    Video(kInter, 105);  // 5 seconds: still the segment
    EXPECT_EQ(Segments().size(), 1U);
    Video(kInter, 111);  // 6: a gap
    Video(kInter, 112);
    EXPECT_EQ(Segments()[0].end_sec, 105);
    Video(kKey, 113);
    writer.set_rec_type(4);
    Video(kInter, 114);
    Video(kKey, 115);
    Video(kInter, 114);  // backwards: a gap
    Video(kKey, 116);
    const auto segments = Segments();
    ASSERT_EQ(segments.size(), 4U);
    EXPECT_EQ(segments[1].begin_sec, 113);
    EXPECT_EQ(segments[1].end_sec, 114);
    EXPECT_EQ(segments[1].rec_type, 1U);
    EXPECT_EQ(segments[2].rec_type, 4U);
    EXPECT_EQ(segments[3].begin_sec, 116);
    EXPECT_EQ(writer.get_data_size(113, 115, 1), (36 + 100) * 2);
    EXPECT_EQ(writer.get_data_size(0, INT64_MAX, 4), (36 + 100) * 3);
    writer.close(nullptr, nullptr);
    EXPECT_EQ(StoredFile(path).frames[5].rec_type, 4U);  // in the records at once
}

TEST_F(AviWriter, AsksForAnotherFileWhenItsTablesAreFull) {
    for (uint32_t i = 0; i < 99; ++i) Video(kKey, 1000 + i * 10);
    EXPECT_FALSE(writer.need_switch_file());
    Video(kKey, 1990);
    EXPECT_TRUE(writer.need_switch_file());
    Video(kKey, 2000);
    Video(kInter, 2001);
    EXPECT_EQ(Segments().size(), 100U);
    EXPECT_EQ(Segments()[99].end_sec, 2001);
}

TEST_F(AviWriter, CountsKeyFramesToTheLimitOfItsTable) {
    for (uint32_t i = 0; i < 3600; ++i) {
        ASSERT_EQ(Video(kKey, 1000 + i / 25, i % 25 * 40000), 0);
        ASSERT_TRUE(i % 100 != 99 || WaitForSideFile(i + 1));
    }
    EXPECT_FALSE(writer.need_switch_file());
    Video(kKey, 1144);
    EXPECT_TRUE(writer.need_switch_file());
    writer.close(nullptr, nullptr);
    EXPECT_EQ(StoredFile(path).word(220 + 74012), 3600U);
}

TEST_F(AviWriter, FillsAudioThatFallsBehind) {
    Video(kKey, 100);
    Write(make_frame(kAudio, 0, 100, 0, 160));
    for (uint32_t i = 1; i <= 74; ++i) Video(kInter, 100 + i / 25, i % 25 * 40000);
    writer.close(nullptr, nullptr);
    StoredFile file(path);
    file.ExpectComplete();
    // Three recorded seconds are worth 75 audio frames, which is more than 50 ahead of one.
    EXPECT_EQ(file.count("01wb"), 26);
    const StoredFrame &filler = file.frames.back();
    EXPECT_EQ(filler.chunk, "01wb");
    EXPECT_EQ(filler.length, 0U);
    EXPECT_EQ(filler.chunk_size, 320U);
    EXPECT_EQ(filler.second, 0U);
}

TEST_F(AviWriter, SideFileFollowsTheFramesWithinItsDelay) {
    for (uint32_t i = 0; i < 30; ++i) Video(i == 0 ? kKey : kInter, 100, i * 33000, 2000);
    ASSERT_TRUE(WaitForSideFile(30));
    StoredFile file(path);
    EXPECT_EQ(file.word(77816), 0U);
    EXPECT_EQ(file.word(220 + 2008), 0U);
    const std::string side = read_file(path + "_idx");
    ASSERT_FALSE(file.frames.empty());
    for (size_t i = 0; i < file.frames.size(); ++i) {
        EXPECT_EQ(at<uint32_t>(side, i * 40 + 16), file.frames[i].position);
        EXPECT_EQ(at<uint32_t>(side, i * 40 + 20), 2036U);
        EXPECT_EQ(at<uint32_t>(side, i * 40 + 36), i == 0 ? 0U : 1U);
    }
}

// Frames so small that their side records fill a ring long before they fill a block: none may be without one.
TEST_F(AviWriter, KeepsUpWithTheSideRecordsOfSmallFrames) {
    for (uint32_t i = 0; i < 20000; ++i) {
        ASSERT_EQ(Video(i % 25 == 0 ? kKey : kInter, 1000 + i / 25, i % 25 * 40000, 64), 0);
        ASSERT_TRUE(i % 250 != 249 || wait_until([&] { return fs::file_size(path + "_idx") / 40 + 250 > i; })) << i;
    }
    writer.close(nullptr, nullptr);
    StoredFile(path).ExpectComplete();
}

TEST_F(AviWriter, ThatCannotBeginAFileLeavesNone) {
    writer.close(nullptr, nullptr);
    const std::string other = dir / "other.avi";
    const doubles::Fault faults[] = {{.call = doubles::Call::open, .path_end = "other.avi"},
                                     {.call = doubles::Call::open, .path_end = "other.avi", .skip = 1},
                                     {.call = doubles::Call::open, .path_end = "other.avi_idx"},
                                     {.call = doubles::Call::write, .path_end = "other.avi", .written_before = 4096},
                                     {.call = doubles::Call::start_thread, .path_end = ""}};
    for (const auto &fault : faults) {
        doubles::inject(fault);
        doubles::inject({.call = fault.call, .path_end = fault.path_end});
        EXPECT_NE(writer.open_file(other.c_str(), 640, 360, &ring), 0);
        EXPECT_FALSE(writer.is_open());
        EXPECT_FALSE(fs::exists(other));
        EXPECT_FALSE(fs::exists(other + "_idx"));
        doubles::clear_faults();
    }
    EXPECT_EQ(writer.open_file(other.c_str(), 640, 360, &ring), 0);
    EXPECT_EQ(writer.open_file(nullptr, 640, 360, &ring), KELM_AVIFILE_BAD_ARGUMENT);
}

// A write that fails once: nothing is lost, for the rest goes to its place at the close.
TEST_F(AviWriter, WritesAtTheCloseWhatAFailedWriteLeft) {
    Video(kKey, 100, 0, 20000);
    ASSERT_TRUE(WaitForDisk());
    doubles::inject({.call = doubles::Call::write, .path_end = ".avi", .times = 2, .error = ENOSPC, .written_before = 5000});
    for (uint32_t i = 1; i < 8; ++i) Video(kInter, 100, i * 40000, 20000);
    ASSERT_TRUE(wait_until([&] { return writer.write_failed(); }));
    writer.close(nullptr, nullptr);
    StoredFile file(path);
    file.ExpectComplete();
    ASSERT_EQ(file.frames.size(), 8U);
    EXPECT_EQ(file.frames[7].data,
              std::string(reinterpret_cast<const char *>(make_frame(kInter, 7, 0, 0, 20000).data.data()), 20000));
}

// A disk that stays full: the file ends with its last whole frame, and its tables know no more than that.
TEST_F(AviWriter, EndsWithAWholeFrameOnAFullDisk) {
    for (uint32_t i = 0; i < 4; ++i) Video(kKey, 100 + i, 0, 30000);
    ASSERT_TRUE(WaitForDisk());
    doubles::inject(
        {.call = doubles::Call::write, .path_end = ".avi", .times = 3, .error = ENOSPC, .written_before = 45000});
    for (uint32_t i = 4; i < 12; ++i) Video(kKey, 100 + i, 0, 30000);
    ASSERT_TRUE(wait_until([&] { return writer.write_failed(); }));
    int32_t size = 0;
    int64_t end_sec = 0;
    EXPECT_EQ(writer.close(&size, &end_sec), 0);
    StoredFile file(path);
    file.ExpectComplete();
    EXPECT_GE(file.frames.size(), 4U);
    EXPECT_LT(file.frames.size(), 12U);
    EXPECT_EQ(end_sec, static_cast<int64_t>(file.frames.back().second));
    EXPECT_EQ(file.word(220 + 74012), file.frames.size());
}

TEST_F(AviWriter, KeepsItsFramesWhenTheSideFileCannotBeWritten) {
    doubles::inject({.call = doubles::Call::write, .path_end = "_idx", .error = ENOSPC});
    for (uint32_t i = 0; i < 5; ++i) Video(kKey, 100 + i, 0, 20000);
    ASSERT_TRUE(wait_until([&] { return writer.write_failed(); }));
    writer.close(nullptr, nullptr);
    StoredFile file(path);
    EXPECT_EQ(file.frames.size(), 5U);
    EXPECT_EQ(file.frames_end, file.movi_end);
}

// Without a buffer a frame is written whole or not at all.
TEST_F(AviWriter, TakesBackWhatAnExportWroteInPart) {
    writer.close(nullptr, nullptr);
    ASSERT_EQ(writer.open_file(path.c_str(), 640, 360, nullptr), 0);
    EXPECT_EQ(Video(kKey, 100), 0);
    doubles::inject(
        {.call = doubles::Call::write, .path_end = ".avi", .skip = 1, .times = 2, .error = ENOSPC, .written_before = 50});
    EXPECT_EQ(Video(kInter, 101), KELM_AVIFILE_NO_ROOM);
    EXPECT_EQ(Video(kInter, 102, 0, 101), 0);
    writer.close(nullptr, nullptr);
    StoredFile file(path);
    file.ExpectComplete();
    ASSERT_EQ(file.frames.size(), 2U);
    EXPECT_EQ(file.frames[1].second, 102U);
}

TEST_F(AviWriter, KeepsTheSideFileWhenTheIndexCannotBeWritten) {
    for (uint32_t i = 0; i < 50; ++i) Video(i == 0 ? kKey : kInter, 100 + i / 25, i % 25 * 40000);
    ASSERT_EQ(writer.close_fast(nullptr, nullptr), 0);
    AviFileState closed = writer.copy_for_close();
    const auto size = fs::file_size(path);
    doubles::inject({.call = doubles::Call::write, .path_end = ".avi", .skip = 1, .error = ENOSPC, .written_before = 100});
    EXPECT_EQ(closed.close_finish(), KELM_AVIFILE_FAILED);
    EXPECT_EQ(fs::file_size(path), size);
    EXPECT_EQ(fs::file_size(path + "_idx"), 50U * 40);
    StoredFile file(path);
    EXPECT_EQ(file.word(4), size - 8);
    EXPECT_EQ(file.frames_end, file.movi_end);
}

TEST(FrameRate, KeepsFourDecimalPlacesAndItsBounds) {
    uint32_t usec = 0;
    uint32_t rate = 0;
    EXPECT_EQ(kelm_avi::cnt_interval_fps(40, 0, 1000, &usec, &rate), 0);
    EXPECT_EQ(rate, 25025000U);
    EXPECT_EQ(kelm_avi::cnt_interval_fps(33, 333000, 1000, &usec, &rate), 0);
    EXPECT_EQ(usec, 33333U);
    EXPECT_EQ(rate, 30030300U);
    EXPECT_EQ(kelm_avi::cnt_interval_fps(0, 15000, 1, &usec, &rate), 0);
    EXPECT_EQ(kelm_avi::cnt_interval_fps(2, 0, 1, &usec, &rate), 0);
    usec = 7;
    EXPECT_EQ(kelm_avi::cnt_interval_fps(0, 14999, 1, &usec, &rate), KELM_AVIFILE_FAILED);
    EXPECT_EQ(kelm_avi::cnt_interval_fps(2, 1, 1, &usec, &rate), KELM_AVIFILE_FAILED);
    EXPECT_EQ(kelm_avi::cnt_interval_fps(1, 0, 0, &usec, &rate), KELM_AVIFILE_FAILED);
    EXPECT_EQ(usec, 7U);
}

TEST(TimeRange, OfAFileLeavesOutWhatLiesTooFarFromItsBegin) {
    const RecSegEntry entries[] = {{1, 100, 200}, {4, 4000, 4100}};
    uint32_t type = 0;
    int64_t begin = 0;
    int64_t end = 0;
    EXPECT_EQ(kelm_avi::get_recinfo_of_entries(entries, 2, &type, &begin, &end), 0);
    EXPECT_EQ(type, 5U);
    EXPECT_EQ(begin, 100);
    EXPECT_EQ(end, 200);
    EXPECT_EQ(kelm_avi::get_recinfo_of_entries(nullptr, 2, &type, &begin, &end), KELM_AVIFILE_FAILED);
}
