// The ring between delivery and disk: sizes, wrapping, the gate, the blocks.
#include "LiveFrameList.h"
#include "support.h"

using namespace kelm_recvault;
using namespace recvault_tests;

namespace {

class LiveFrames : public testing::Test {
 protected:
    void SetUp() override { ASSERT_EQ(ring.Initialize(true), 0); }
    void TearDown() override { ring.Uninitialize(); }

    int32_t Put(const Frame &frame) {
        FrameRecHead head{};
        head.frame = frame.head;
        int32_t position = -1;
        const int32_t result =
            ring.SetFrameData(&head, frame.data.data(), static_cast<int32_t>(frame.data.size()), &position);
        if (result == 0) {
            EXPECT_EQ(static_cast<int32_t>(head.file_pos), position);
            last_position = position;
        }
        return result;
    }
    int32_t PutKey(uint32_t size) { return Put(make_frame(kKey, number++, 100, 0, size)); }
    std::string Take(bool aligned) {
        CPacketManager::Pieces pieces;
        if (ring.GetFrameData(&pieces, aligned) != 0) return "";
        std::string bytes(reinterpret_cast<const char *>(pieces.first), static_cast<size_t>(pieces.first_len));
        bytes.append(reinterpret_cast<const char *>(pieces.second), static_cast<size_t>(pieces.second_len));
        ring.ReleaseFrameData(pieces.total());
        return bytes;
    }

    CPacketManager ring;
    uint32_t number = 0;
    int32_t last_position = 0;
};

}  // namespace

TEST_F(LiveFrames, TakesAFrameThatFillsTheRingAndNoLargerOne) {
    EXPECT_EQ(PutKey(CPacketManager::kFrameRingSize - 64), 0);
    EXPECT_EQ(Take(false).size(), static_cast<size_t>(CPacketManager::kFrameRingSize));
    EXPECT_NE(log_of([&] {
                  EXPECT_EQ(PutKey(CPacketManager::kFrameRingSize - 63), KELM_AVIFILE_FAILED);
              }).find("frame is too large: 1048578 > 1048576 \n"),
              std::string::npos);
}

// Frames of odd sizes go round the ring many times; what comes out is what went in, split heads included.
TEST_F(LiveFrames, GivesBackTheBytesThatWentInWhereverTheyWrap) {
    ring.SetFilePos(77824);
    int64_t expected_position = 77824;
    for (uint32_t i = 0; i < 400; ++i) {
        const uint32_t size = 20001 + i * 13;
        const Frame frame = make_frame(kKey, i, 100, 0, size);
        ASSERT_EQ(Put(frame), 0);
        EXPECT_EQ(last_position, expected_position);
        expected_position += 64 + size + size % 2;
        const std::string bytes = Take(false);
        ASSERT_EQ(bytes.size(), 64 + size + size % 2);
        EXPECT_EQ(std::memcmp(bytes.data() + 8, &frame.head, 36), 0);
        EXPECT_EQ(at<int32_t>(bytes, 52), last_position);
        ASSERT_EQ(std::memcmp(bytes.data() + 64, frame.data.data(), size), 0) << i;
    }
}

TEST_F(LiveFrames, OffersBlocksOfFourKibibytesBetweenSixteenAndTwoHundredFiftySix) {
    EXPECT_EQ(PutKey(16383 - 64 - 1), 0);  // odd, so 16383 with its pad byte... one short of a block
    EXPECT_EQ(Take(true), "");
    EXPECT_EQ(PutKey(3616), 0);
    EXPECT_EQ(Take(true).size(), 16384U);
    EXPECT_EQ(PutKey(600000), 0);
    EXPECT_EQ(Take(true).size(), 262144U);
    ring.ReleaseFrameData(1 << 30);
    EXPECT_EQ(Take(false), "");
}

TEST_F(LiveFrames, RefusesWhatIsNoFrame) {
    Frame frame = make_frame(kKey, 1, 100, 0, 1000);
    frame.head.uiStartId = 0xAB010001;
    EXPECT_EQ(Put(frame), KELM_AVIFILE_FAILED);
    frame.head.uiStartId = KELM_AVIFILE_FRAME_START_ID;
    frame.head.length = 999;
    EXPECT_EQ(Put(frame), KELM_AVIFILE_FAILED);
    frame.head.seconds = 0;  // without a time the length is not looked at
    EXPECT_EQ(Put(frame), 0);
    frame.data.clear();
    EXPECT_EQ(Put(frame), KELM_AVIFILE_FAILED);
}

TEST_F(LiveFrames, OpenTheirGateForAKeyFrameAndCloseItForAJump) {
    EXPECT_EQ(Put(make_frame(kAudio, 0, 100, 0, 160)), KELM_AVIFILE_FAILED);
    EXPECT_EQ(Put(make_frame(kKey, 3, 100, 0, 100)), 0);
    EXPECT_EQ(Put(make_frame(kInter, 4, 100, 0, 100)), 0);
    EXPECT_EQ(Put(make_frame(kInter, 4, 100, 0, 100)), 0);
    EXPECT_EQ(Put(make_frame(kInter, 3, 100, 0, 100)), 0);
    EXPECT_EQ(Put(make_frame(kInter, 5, 100, 0, 100)), KELM_AVIFILE_FAILED);
    EXPECT_EQ(Put(make_frame(kInter, 6, 100, 0, 100)), KELM_AVIFILE_FAILED);
    EXPECT_EQ(Put(make_frame(kAudio, 0, 100, 0, 160)), KELM_AVIFILE_FAILED);
    EXPECT_EQ(Put(make_frame(kKey, 100, 100, 0, 100)), 0);
    EXPECT_EQ(Put(make_frame(kAudio, 0, 100, 0, 160)), 0);
}

TEST_F(LiveFrames, DropWhatDoesNotFitAndAllUpToTheNextKeyFrame) {
    EXPECT_EQ(PutKey(900000), 0);
    EXPECT_NE(log_of([&] {
                  EXPECT_EQ(Put(make_frame(kInter, number, 100, 0, 200000)), KELM_AVIFILE_NO_ROOM);
              }).find("remain size is too small: (148512 < 200064), drop current frame\n"),
              std::string::npos);
    Take(false);
    EXPECT_EQ(Put(make_frame(kInter, number + 1, 100, 0, 100)), KELM_AVIFILE_FAILED);
    EXPECT_EQ(PutKey(100), 0);
}

TEST_F(LiveFrames, HoldFiveHundredSideRecords) {
    uint8_t record[40];
    int32_t free_slots = -1;
    for (int round = 0; round < 3; ++round) {
        for (int i = 0; i < 500; ++i) {
            std::memset(record, i, sizeof(record));
            ASSERT_EQ(ring.SetIdxInfo(record, &free_slots), 0);
            EXPECT_EQ(free_slots, 499 - i);
        }
        EXPECT_EQ(ring.SetIdxInfo(record, &free_slots), KELM_AVIFILE_NO_ROOM);
        EXPECT_EQ(free_slots, 0);
        CPacketManager::Pieces pieces;
        ASSERT_EQ(ring.GetIdxData(&pieces), 0);
        EXPECT_EQ(pieces.total(), 20000);
        EXPECT_EQ(pieces.first[40], 1);
        ring.ReleaseIdxData(20000);
        EXPECT_EQ(ring.GetIdxData(&pieces), KELM_AVIFILE_FAILED);
        for (int i = 0; i < 123; ++i) ring.SetIdxInfo(record, &free_slots);  // so that the next round wraps
        ring.ReleaseIdxData(123 * 40);
    }
}

TEST(AudioDelivery, CountsTheFramesThatItHolds) {
    EXPECT_EQ(audio_frames_in_delivery(552, 160), 3U);
    EXPECT_EQ(audio_frames_in_delivery(551, 160), 2U);
    EXPECT_EQ(audio_frames_in_delivery(159, 160), 0U);
    EXPECT_EQ(audio_frames_in_delivery(1000, 0), 0U);
    EXPECT_EQ(audio_frames_in_delivery(1000, 0xFFFFFFDC), 0U);
    EXPECT_EQ(audio_frames_in_delivery(1000, 0xFFFFFFFF), 0U);
}
