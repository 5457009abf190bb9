// The byte layout of a record file and of its side file: the one description for what writes and what reads.
//
// A record file is a RIFF AVI file whose head always fills the first 77824 bytes (0x13000) and is patched in place. Frame
// records follow from there on, each a JUNK chunk of 56 bytes with the frame's own head and then an ordinary AVI data chunk;
// a closed file ends in an idx1 index. While the file is open, and after a crash, a side file of the same name with "_idx"
// appended holds 40 bytes a frame. All numbers are little-endian, all offsets 32-bit.
//
// RIFF and AVI: Microsoft, "AVI RIFF File Reference". Wave formats: RFC 2361. G.711: ITU-T G.711.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

#include "LiveFrameList.h"

namespace kelm_recvault {

static_assert(std::endian::native == std::endian::little, "the structures below are written as they stand");

constexpr uint32_t fourcc(char a, char b, char c, char d) {
    return static_cast<uint32_t>(static_cast<uint8_t>(a)) | static_cast<uint32_t>(static_cast<uint8_t>(b)) << 8 |
           static_cast<uint32_t>(static_cast<uint8_t>(c)) << 16 | static_cast<uint32_t>(static_cast<uint8_t>(d)) << 24;
}

constexpr uint32_t kFccRiff = fourcc('R', 'I', 'F', 'F');
constexpr uint32_t kFccAvi = fourcc('A', 'V', 'I', ' ');
constexpr uint32_t kFccList = fourcc('L', 'I', 'S', 'T');
constexpr uint32_t kFccHdrl = fourcc('h', 'd', 'r', 'l');
constexpr uint32_t kFccAvih = fourcc('a', 'v', 'i', 'h');
constexpr uint32_t kFccStrl = fourcc('s', 't', 'r', 'l');
constexpr uint32_t kFccStrh = fourcc('s', 't', 'r', 'h');
constexpr uint32_t kFccStrf = fourcc('s', 't', 'r', 'f');
constexpr uint32_t kFccStrn = fourcc('s', 't', 'r', 'n');
constexpr uint32_t kFccVids = fourcc('v', 'i', 'd', 's');
constexpr uint32_t kFccAuds = fourcc('a', 'u', 'd', 's');
constexpr uint32_t kFccH264 = fourcc('h', '2', '6', '4');
constexpr uint32_t kFccMjpg = fourcc('m', 'j', 'p', 'g');
constexpr uint32_t kFccG711 = fourcc('g', '7', '1', '1');
constexpr uint32_t kFccJunk = fourcc('J', 'U', 'N', 'K');
constexpr uint32_t kFccMovi = fourcc('m', 'o', 'v', 'i');
constexpr uint32_t kFccIdx1 = fourcc('i', 'd', 'x', '1');
constexpr uint32_t kFccVideoChunk = fourcc('0', '0', 'd', 'c');
constexpr uint32_t kFccAudioChunk = fourcc('0', '1', 'w', 'b');

constexpr int32_t kMaxSegments = 100;     // entries of a file's segment table
constexpr int32_t kMaxKeyFrames = 3600;   // entries of a file's key-frame table
constexpr uint32_t kIndexKeyFlag = 0x10;  // AVIIF_KEYFRAME
constexpr uint32_t kRateScale = 1001000;  // scale of the video stream: its rate has four decimal places of the frame rate
constexpr uint32_t kHeadFps = 25;         // frame rate in the head until the measured one is known
constexpr int32_t kJunkContent = 48;      // bytes 8 to 55 of a frame record
constexpr int32_t kPrevSizeExtra = 128;   // what prev_size counts beside the chunk_size of the record before

constexpr uint8_t kAudioAlaw = 1;  // FrameHead.audio_codec
constexpr uint8_t kAudioMulaw = 2;
constexpr int8_t kCodecMjpeg = 2;  // FrameHead.codec_id

#pragma pack(push, 1)

// One stretch of continuous recording of one type.
struct RecSegEntry {
    uint32_t rec_type;
    int64_t begin_sec;
    int64_t end_sec;
};

// One key frame, in file order. `length` is the sum of frame length plus 36 over it and all frames up to the next one.
struct KeyFrameEntry {
    uint32_t position;
    uint32_t length;
    uint32_t rec_type;
    uint32_t second;
    uint32_t microsecond;
};

struct RecSegStrn {
    char magic[4];   // "mlek"
    uint32_t codec;  // 1
    RecSegEntry segments[kMaxSegments];
    int32_t rec_seg_cnt;
    KeyFrameEntry key_frames[kMaxKeyFrames];
    int32_t key_frame_cnt;
};

struct Idx1Entry {
    uint32_t chunk_id;
    uint32_t flags;
    uint32_t offset;  // of the data chunk, from the "movi" code
    uint32_t length;  // without the pad byte
};

// The side file is a plain array of these.
struct FrameIdxRec {
    Idx1Entry index;
    KeyFrameEntry frame;     // position, length plus 36 (0 for a filler frame), type and time of the frame
    uint32_t segment_count;  // rec_seg_cnt before this frame was entered
};

struct RiffChunk {
    uint32_t fcc;
    uint32_t size;
};

struct RiffList {
    uint32_t fcc;  // "RIFF" or "LIST"
    uint32_t size;
    uint32_t type;
};

struct AviMainHeader {
    uint32_t microseconds_per_frame;
    uint32_t max_bytes_per_second;
    uint32_t padding_granularity;
    uint32_t flags;
    uint32_t total_frames;
    uint32_t initial_frames;
    uint32_t streams;
    uint32_t suggested_buffer_size;
    uint32_t width;
    uint32_t height;
    uint32_t reserved[4];
};

struct AviStreamHeader {
    uint32_t type;
    uint32_t handler;
    uint32_t flags;
    uint32_t priority_language;
    uint32_t initial_frames;
    uint32_t scale;
    uint32_t rate;
    uint32_t start;
    uint32_t length;
    uint32_t suggested_buffer_size;
    int32_t quality;
    uint32_t sample_size;
    uint16_t left, top, right, bottom;
};

struct BitmapInfo {
    uint32_t size;
    uint32_t width;
    uint32_t height;
    uint16_t planes;
    uint16_t bit_count;
    uint32_t compression;
    uint32_t image_size;
    uint32_t unused[4];
};

struct WaveFormat {
    uint16_t format_tag;
    uint16_t channels;
    uint32_t samples_per_second;
    uint32_t bytes_per_second;
    uint16_t block_align;
    uint16_t bits_per_sample;
    uint16_t extra_size;
    uint16_t unused;
};

struct VideoStream {
    RiffChunk header_chunk;
    AviStreamHeader header;
    RiffChunk format_chunk;
    BitmapInfo format;
};

struct AudioStream {
    RiffChunk header_chunk;
    AviStreamHeader header;
    RiffChunk format_chunk;
    WaveFormat format;
};

constexpr int32_t kHeadJunkSize = 3464;

// The head around the segment table. The list "strl" of the video ends before the "strn" chunk.
struct AviHead {
    RiffList riff;
    RiffList hdrl;
    RiffChunk main_chunk;
    AviMainHeader main;
    RiffList video_list;
    VideoStream video;
    RiffChunk strn_chunk;
    RecSegStrn strn;
    RiffList audio_list;
    AudioStream audio;
    RiffChunk junk_chunk;
    uint8_t junk[kHeadJunkSize];
    RiffList movi;
};

#pragma pack(pop)

constexpr int32_t kHeadSize = sizeof(AviHead);  // the first frame record stands here
constexpr int32_t kMoviListPos = offsetof(AviHead, movi);
constexpr int32_t kMoviCodePos = kMoviListPos + 8;  // what the offsets of the index count from
constexpr int32_t kStrnPos = offsetof(AviHead, strn);

// Offset in an index entry of the record at a file position, and back.
constexpr uint32_t index_offset_of(int32_t record_pos) {
    return static_cast<uint32_t>(record_pos + static_cast<int32_t>(offsetof(FrameRecHead, chunk_fcc)) - kMoviCodePos);
}
constexpr int64_t record_pos_of(uint32_t index_offset) {
    return static_cast<int64_t>(index_offset) + kMoviCodePos - static_cast<int32_t>(offsetof(FrameRecHead, chunk_fcc));
}

static_assert(sizeof(RecSegEntry) == 20 && sizeof(KeyFrameEntry) == 20 && sizeof(Idx1Entry) == 16);
static_assert(sizeof(FrameIdxRec) == CPacketManager::kIndexRecordSize && offsetof(FrameIdxRec, frame) == 16 &&
              offsetof(FrameIdxRec, segment_count) == 36);
static_assert(sizeof(RecSegStrn) == 74016 && offsetof(RecSegStrn, segments) == 8 &&
              offsetof(RecSegStrn, rec_seg_cnt) == 2008 && offsetof(RecSegStrn, key_frames) == 2012 &&
              offsetof(RecSegStrn, key_frame_cnt) == 74012);
static_assert(sizeof(AviMainHeader) == 56 && sizeof(AviStreamHeader) == 56 && sizeof(BitmapInfo) == 40 &&
              sizeof(WaveFormat) == 20);
static_assert(offsetof(AviHead, main) == 32 && offsetof(AviHead, video) == 100 && offsetof(AviHead, video.format) == 172 &&
              offsetof(AviHead, strn) == 220 && offsetof(AviHead, audio) == 74248 &&
              offsetof(AviHead, audio.format) == 74320 && offsetof(AviHead, junk) == 74348 && kMoviListPos == 77812 &&
              kHeadSize == 77824);
static_assert(offsetof(FrameRecHead, frame) == 8 && offsetof(FrameRecHead, rec_type) == 44 &&
              offsetof(FrameRecHead, prev_size) == 48 && offsetof(FrameRecHead, file_pos) == 52 &&
              offsetof(FrameRecHead, chunk_fcc) == 56 && offsetof(FrameRecHead, chunk_size) == 60);
static_assert(index_offset_of(kHeadSize) == 60 && record_pos_of(60) == kHeadSize);

}  // namespace kelm_recvault
