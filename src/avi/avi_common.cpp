#include "avi/avi_common.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "FileManager.h"
#include "Log.h"
#include "avi/avi_reader.h"
#include "platform/clock.h"

namespace kelm_recvault::kelm_avi {

namespace {

constexpr uint32_t kMaxBytesPerSecond = 0x200000;
constexpr uint32_t kHasIndexWasCapture = 0x10010;  // AVIF_HASINDEX | AVIF_WASCAPTUREFILE
constexpr int32_t kMinFrameMicroseconds = 15000;
constexpr int32_t kMaxFrameMicroseconds = 2000000;
constexpr int64_t kRecordHead = sizeof(FrameRecHead);
constexpr uint32_t kLongestStepOfSegment = 5;  // seconds
constexpr int64_t kMaxFileSpan = 3661;         // seconds; an entry further from the file's begin is damage

constexpr uint32_t kSampleRate = 8000;
constexpr uint32_t kAdpcmBlock = 164;
constexpr uint16_t kFormatAdpcm = 0x11;  // WAVE_FORMAT_DVI_ADPCM
constexpr uint16_t kFormatAlaw = 6;      // WAVE_FORMAT_ALAW
constexpr uint16_t kFormatMulaw = 7;     // WAVE_FORMAT_MULAW

RiffChunk chunk(uint32_t fcc, size_t size) { return {fcc, static_cast<uint32_t>(size)}; }

WaveFormat adpcm_format() {
    return {kFormatAdpcm, 1, kSampleRate, kSampleRate / 2, static_cast<uint16_t>(kAdpcmBlock), 4, 16, 0};
}

WaveFormat g711_format(uint8_t audio_codec) {
    return {audio_codec == kAudioAlaw ? kFormatAlaw : kFormatMulaw, 1, kSampleRate, kSampleRate, 1, 8, 16, 0};
}

}  // namespace

bool write_at(platform::File *stream, int64_t offset, const void *data, size_t size) {
    if (stream->Seek(offset, platform::SeekFrom::begin) == offset && stream->Write(data, size) == size) return true;
    LOG_TRACE();
    return false;
}

bool write_int(platform::File *stream, int64_t offset, uint32_t value) {
    return write_at(stream, offset, &value, sizeof(value));
}

void fill_avi_head(AviHead *head, uint32_t width, uint32_t height) {
    *head = AviHead{};
    head->riff = {kFccRiff, 0, kFccAvi};
    head->hdrl = {kFccList, kMoviListPos - offsetof(AviHead, hdrl.type), kFccHdrl};
    head->main_chunk = chunk(kFccAvih, sizeof(head->main));
    head->main.microseconds_per_frame = 1000000 / kHeadFps;
    head->main.max_bytes_per_second = kMaxBytesPerSecond;
    head->main.flags = kHasIndexWasCapture;
    head->main.streams = 1;
    head->main.suggested_buffer_size = width * height * 3;
    head->main.width = width;
    head->main.height = height;
    head->video_list = {kFccList, sizeof(uint32_t) + sizeof(VideoStream), kFccStrl};
    head->video = make_video_stream(width, height, 0);
    head->strn_chunk = chunk(kFccStrn, sizeof(RecSegStrn));
    std::memcpy(head->strn.magic, "mlek", sizeof(head->strn.magic));
    head->strn.codec = 1;
    head->audio_list = {kFccList, sizeof(uint32_t) + sizeof(AudioStream), kFccStrl};
    head->audio = make_audio_stream(0);
    head->junk_chunk = chunk(kFccJunk, sizeof(head->junk));
    head->movi = {kFccList, 0, kFccMovi};
}

VideoStream make_video_stream(uint32_t width, uint32_t height, int8_t codec_id) {
    const uint32_t handler = codec_id == kCodecMjpeg ? kFccMjpg : kFccH264;
    VideoStream stream{};
    stream.header_chunk = chunk(kFccStrh, sizeof(stream.header));
    stream.header.type = kFccVids;
    stream.header.handler = handler;
    stream.header.scale = kRateScale;
    stream.header.rate = kHeadFps * kRateScale;
    stream.header.suggested_buffer_size = width * height * 3;
    stream.header.quality = -1;
    stream.header.right = static_cast<uint16_t>(width);
    stream.header.bottom = static_cast<uint16_t>(height);
    stream.format_chunk = chunk(kFccStrf, sizeof(stream.format));
    stream.format.size = sizeof(stream.format);
    stream.format.width = width;
    stream.format.height = height;
    stream.format.planes = 1;
    stream.format.bit_count = 24;
    stream.format.compression = handler;
    stream.format.image_size = (width * 24 + 31) / 32 * 4 * height;
    return stream;
}

AudioStream make_audio_stream(uint8_t audio_codec) {
    const bool g711 = audio_codec == kAudioAlaw || audio_codec == kAudioMulaw;
    AudioStream stream{};
    stream.header_chunk = chunk(kFccStrh, sizeof(stream.header));
    stream.header.type = kFccAuds;
    stream.header.handler = g711 ? kFccG711 : kFormatAdpcm;
    stream.header.scale = g711 ? 1 : 320;
    stream.header.rate = kSampleRate;
    stream.header.length = g711 ? 325 : 0;  // a number for players that look before the close; patched then
    stream.header.suggested_buffer_size = g711 ? 0x8000 : 0;
    stream.header.quality = g711 ? 0 : -1;
    stream.header.sample_size = g711 ? kSampleRate : kAdpcmBlock;
    stream.format_chunk = chunk(kFccStrf, sizeof(stream.format));
    stream.format = g711 ? g711_format(audio_codec) : adpcm_format();
    return stream;
}

bool write_sizes(platform::File *stream, int32_t video_count, int32_t audio_count) {
    const int64_t length = stream->Seek(0, platform::SeekFrom::end);
    const auto video = static_cast<uint32_t>(video_count);
    bool written = length >= kHeadSize;
    written = write_int(stream, offsetof(AviHead, riff.size), static_cast<uint32_t>(length - 8)) && written;
    written = write_int(stream, offsetof(AviHead, main.total_frames), video) && written;
    written = write_int(stream, offsetof(AviHead, video.header.length), video) && written;
    return write_int(stream, offsetof(AviHead, audio.header.length), static_cast<uint32_t>(audio_count)) && written;
}

void write_frame_rate(platform::File *stream, int64_t seconds, int64_t microseconds, int32_t frames) {
    uint32_t usec_per_frame = 0;
    uint32_t rate = 0;
    if (cnt_interval_fps(seconds, microseconds, frames, &usec_per_frame, &rate) != KELM_AVIFILE_OK) return;
    write_int(stream, offsetof(AviHead, main.microseconds_per_frame), usec_per_frame);
    write_int(stream, offsetof(AviHead, video.header.rate), rate);
}

int32_t cnt_interval_fps(int64_t seconds, int64_t microseconds, int32_t frames, uint32_t *usec_per_frame, uint32_t *rate) {
    if (frames < 1) {
        LOG_ERR("fnum = %d\n", frames);
        return KELM_AVIFILE_FAILED;
    }
    const auto average = static_cast<int32_t>((seconds * 1000000 + microseconds) / frames);
    if (average < kMinFrameMicroseconds || average > kMaxFrameMicroseconds) {
        LOG_WARN("avg time between two frame = %d us\n", average);
        return KELM_AVIFILE_FAILED;
    }
    constexpr int32_t kDigits = 4;
    int32_t quotient = 0;
    int32_t digits[kDigits] = {};
    cnt_point_division(1000000, average, &quotient, digits, kDigits);
    *usec_per_frame = static_cast<uint32_t>(average);
    *rate = static_cast<uint32_t>(cnt_point_multiply(static_cast<int32_t>(kRateScale), quotient, digits, kDigits));
    return KELM_AVIFILE_OK;
}

int32_t cnt_point_division(int32_t dividend, int32_t divisor, int32_t *quotient, int32_t *digits, int32_t digit_cnt) {
    if (divisor == 0) {
        LOG_ERR("divisor: %d\n", divisor);
        return KELM_AVIFILE_BAD_ARGUMENT;
    }
    *quotient = dividend / divisor;
    int32_t remainder = dividend % divisor;
    for (int32_t i = 0; i < digit_cnt; ++i) {
        remainder *= 10;
        digits[i] = remainder / divisor;
        remainder %= divisor;
    }
    return KELM_AVIFILE_OK;
}

int32_t cnt_point_multiply(int32_t factor, int32_t quotient, const int32_t *digits, int32_t digit_cnt) {
    int32_t product = factor * quotient;
    int32_t divisor = 10;
    for (int32_t i = 0; i < digit_cnt; ++i, divisor *= 10) product += digits[i] * factor / divisor;
    return product;
}

int32_t get_recinfo_of_entries(const RecSegEntry *entries, int32_t count, uint32_t *rec_type, int64_t *begin_sec,
                               int64_t *end_sec) {
    if (entries == nullptr || count < 1) {
        LOG_TRACE();
        return KELM_AVIFILE_FAILED;
    }
    *rec_type = 0;
    *begin_sec = entries[0].begin_sec;
    *end_sec = entries[0].end_sec;
    for (int32_t i = 0; i < count; ++i) {
        *rec_type |= entries[i].rec_type;
        // Of wild values the difference may not fit; as unsigned numbers it is right where the order is.
        const uint64_t span = static_cast<uint64_t>(entries[i].end_sec) - static_cast<uint64_t>(*begin_sec);
        if (entries[i].end_sec > *end_sec && span < static_cast<uint64_t>(kMaxFileSpan)) *end_sec = entries[i].end_sec;
    }
    return KELM_AVIFILE_OK;
}

int32_t copy_recseg_info(const RecSegStrn &table, RecSegEntry *entries, int32_t *count) {
    if (table.rec_seg_cnt < 1 || table.rec_seg_cnt > std::min(*count, kMaxSegments)) {
        LOG_ERR("m_recseg_strn.rec_seg_cnt = %d, rec_seg_cnt = %d\n", table.rec_seg_cnt, *count);
        *count = 0;
        return KELM_AVIFILE_FAILED;
    }
    *count = 0;
    for (int32_t i = 0; i < table.rec_seg_cnt; ++i) {
        const RecSegEntry entry = table.segments[i];
        const uint64_t span = static_cast<uint64_t>(entry.end_sec) - static_cast<uint64_t>(entry.begin_sec);
        if (entry.begin_sec > entry.end_sec || span >= static_cast<uint64_t>(kMaxFileSpan)) {
            LOG_WARN("rec_seg error, i = %d, begin_sec = %d, end_sec = %d \n", i, static_cast<int32_t>(entry.begin_sec),
                     static_cast<int32_t>(entry.end_sec));
            continue;
        }
        entries[(*count)++] = entry;
    }
    return KELM_AVIFILE_OK;
}

int64_t record_end(const FrameIdxRec &record) {
    return record_pos_of(record.index.offset) + static_cast<int64_t>(sizeof(FrameRecHead)) + record.index.length +
           record.index.length % 2;
}

namespace {

// The segment count of a record is that before its frame was entered, so it changes one video frame behind the key frame
// that began the segment.
void add_to_segments(RecSegStrn *table, uint32_t *last_count, const FrameIdxRec &record) {
    const int64_t second = record.frame.second;
    if (record.segment_count != *last_count) {
        *last_count = record.segment_count;
        if (table->rec_seg_cnt < kMaxSegments)
            table->segments[table->rec_seg_cnt++] = {record.frame.rec_type, second, second};
    }
    if (table->rec_seg_cnt < 1) return;
    RecSegEntry &segment = table->segments[table->rec_seg_cnt - 1];
    if (record.frame.second - static_cast<uint32_t>(segment.end_sec) <= kLongestStepOfSegment) segment.end_sec = second;
}

}  // namespace

namespace {

// Records stand in the order of their frames, which do not overlap. What does not is damage, and so is what follows it.
bool is_sound(const FrameIdxRec &record, int64_t from, int64_t file_end) {
    const bool known_chunk = record.index.chunk_id == kFccVideoChunk || record.index.chunk_id == kFccAudioChunk;
    const int64_t position = record_pos_of(record.index.offset);
    return known_chunk && position >= from && position == record.frame.position && record_end(record) <= file_end;
}

}  // namespace

FrameCounts rebuild_tables(platform::File *side, int64_t file_end, RecSegStrn *table,
                           const std::function<void(const Idx1Entry &)> &each) {
    FrameCounts counts;
    FrameIdxRec record{};
    uint32_t last_count = 0;
    table->rec_seg_cnt = table->key_frame_cnt = 0;
    side->Seek(0, platform::SeekFrom::begin);
    while (side->Read(&record, sizeof(record)) == sizeof(record) && is_sound(record, counts.end, file_end)) {
        each(record.index);
        if (record.index.flags == kIndexKeyFlag) {
            if (table->key_frame_cnt < kMaxKeyFrames) table->key_frames[table->key_frame_cnt++] = record.frame;
        } else if (table->key_frame_cnt > 0) {
            table->key_frames[table->key_frame_cnt - 1].length += record.frame.length;
        }
        if (record.index.chunk_id == kFccVideoChunk) {
            add_to_segments(table, &last_count, record);
            ++counts.video;
        } else {
            ++counts.audio;
        }
        counts.end = record_end(record);
    }
    return counts;
}

RecordedTime recorded_time(const RecSegStrn &table) {
    RecordedTime time{0, std::max(table.rec_seg_cnt - 1, 0) * INT64_C(40000)};
    for (int32_t i = 0; i < table.rec_seg_cnt; ++i) {
        const RecSegEntry segment = table.segments[i];
        time.seconds += segment.end_sec - segment.begin_sec + 1;
    }
    return time;
}

bool is_frame_head(const FrameRecHead &head) {
    return head.junk_fcc == kFccJunk && head.frame.uiStartId == KELM_AVIFILE_FRAME_START_ID && head.chunk_size % 2 == 0 &&
           static_cast<int64_t>(head.chunk_size) + kRecordHead <= CPacketManager::kFrameRingSize &&
           head.frame.length <= head.chunk_size;
}

int64_t whole_records_end(platform::File *stream, int64_t from, int64_t file_end) {
    FrameRecHead head{};
    for (;;) {
        stream->Seek(from, platform::SeekFrom::begin);
        if (stream->Read(&head, sizeof(head)) != sizeof(head) || !is_frame_head(head)) return from;
        const int64_t end = from + kRecordHead + head.chunk_size;
        if (end > file_end) return from;
        from = end;
    }
}

int32_t sum_data_size(const RecSegStrn &table, int64_t begin, int64_t end, uint32_t mask) {
    if (table.key_frame_cnt < 1 || table.key_frame_cnt > kMaxKeyFrames) return 0;
    int64_t total = 0;
    for (int32_t i = 0; i < table.key_frame_cnt; ++i) {
        const KeyFrameEntry &entry = table.key_frames[i];
        const int64_t second = entry.second;
        if (second > end) break;
        if (second >= begin && (entry.rec_type & mask) != 0) total += entry.length;
    }
    return static_cast<int32_t>(std::min<int64_t>(total, INT32_MAX));
}

// ---- Inspection ----

int32_t get_recinfo_by_name(const char *path, RecSegEntry *entries, uint32_t *rec_type, int64_t *begin_sec,
                            int64_t *end_sec) {
    int32_t count = kMaxSegments;
    kelm_avi_reader reader;
    if (entries == nullptr || reader.open_file(path, nullptr) != KELM_AVIFILE_OK) {
        LOG_TRACE();
        return KELM_AVIFILE_FAILED;
    }
    reader.get_recseg_info(entries, &count);
    if (count == 0) {
        LOG_ERR("file %s, the record segment count is zero !!!\n", path);
        return KELM_AVIFILE_FAILED;
    }
    return get_recinfo_of_entries(entries, count, rec_type, begin_sec, end_sec);
}

int32_t get_recseg_by_name(const char *path, RecSegEntry *entries, int32_t *count) {
    kelm_avi_reader reader;
    if (reader.open_file(path, nullptr) != KELM_AVIFILE_OK) {
        LOG_TRACE();
        return KELM_AVIFILE_FAILED;
    }
    reader.get_recseg_info(entries, count);
    return KELM_AVIFILE_OK;
}

int32_t avi_get_data_size(const char *path, int64_t begin, int64_t end, uint32_t rec_type, int32_t *total) {
    kelm_avi_reader reader;
    if (reader.open_file(path, nullptr) != KELM_AVIFILE_OK) {
        LOG_TRACE();
        return KELM_AVIFILE_FAILED;
    }
    *total = reader.get_data_size(begin, end, rec_type);
    return KELM_AVIFILE_OK;
}

// ---- Repair ----

namespace {

constexpr size_t kRepairBuffer = 65536;

void ignore_entry(const Idx1Entry &) {}

// Does another frame record begin in what follows a torn one? Then that one is damaged, not torn.
bool has_frame_head_behind(platform::File *file, int64_t from, int64_t file_end) {
    std::vector<uint8_t> rest(static_cast<size_t>(std::min<int64_t>(file_end - from, CPacketManager::kFrameRingSize)));
    file->Seek(from, platform::SeekFrom::begin);
    rest.resize(file->Read(rest.data(), rest.size()));
    FrameRecHead head{};
    for (size_t at = 1; at + sizeof(head) <= rest.size(); ++at) {
        if (rest[at] != 'J') continue;
        std::memcpy(&head, rest.data() + at, sizeof(head));
        if (is_frame_head(head)) return true;
    }
    return false;
}

// Where the movi list of a cut file ends: behind its last whole frame, when what follows is a torn frame or a begun index;
// else at the file's end, for what follows may still be read.
int64_t find_movi_end(platform::File *file, int64_t known_end, int64_t file_end) {
    const int64_t end = whole_records_end(file, known_end, file_end);
    FrameRecHead head{};
    file->Seek(end, platform::SeekFrom::begin);
    const bool short_rest = file->Read(&head, sizeof(head)) < sizeof(head);
    const bool torn =
        short_rest || head.junk_fcc == kFccIdx1 || (is_frame_head(head) && !has_frame_head_behind(file, end, file_end));
    return torn ? end : file_end - file_end % 2;
}

bool write_index(platform::File *file, platform::File *side, int64_t movi_end, RecSegStrn *table, FrameCounts *counts) {
    const RiffChunk chunk{kFccIdx1, 0};
    if (!file->Truncate(movi_end) || !write_at(file, movi_end, &chunk, sizeof(chunk))) return false;
    bool written = true;
    *counts = rebuild_tables(side, movi_end, table, [&written, file](const Idx1Entry &entry) {
        written = written && file->Write(&entry, sizeof(entry)) == sizeof(entry);
    });
    const int32_t entries = counts->video + counts->audio;
    return write_int(file, movi_end + 4, static_cast<uint32_t>(entries) * sizeof(Idx1Entry)) && written;
}

bool write_repaired(platform::File *file, platform::File *side, int64_t movi_pos, RecSegStrn *table) {
    const int64_t file_end = file->Seek(0, platform::SeekFrom::end);
    FrameCounts counts = rebuild_tables(side, file_end, table, ignore_entry);
    const int64_t movi_end = find_movi_end(file, counts.end, file_end);
    // The table first: it needs no room on a full disk, and tells what the file holds even if the rest fails.
    if (!write_at(file, kStrnPos, table, sizeof(*table))) return false;
    if (!write_index(file, side, movi_end, table, &counts)) return false;
    if (!write_int(file, movi_pos + 4, static_cast<uint32_t>(movi_end - movi_pos - 8))) return false;
    const RecordedTime time = recorded_time(*table);
    if (counts.video > 0) write_frame_rate(file, time.seconds, time.microseconds, counts.video);
    return write_int(file, offsetof(AviHead, main.streams), counts.audio > 0 ? 2 : 1) &&
           write_sizes(file, counts.video, counts.audio) && file->Flush() && file->Sync();
}

// The position of the movi list, or -1 where the head has none.
int64_t find_movi_list(platform::File *file) {
    RiffChunk hdrl{};
    RiffList movi{};
    file->Seek(offsetof(AviHead, hdrl), platform::SeekFrom::begin);
    file->Read(&hdrl, sizeof(hdrl));
    const int64_t position = file->Tell() + hdrl.size;
    file->Seek(position, platform::SeekFrom::begin);
    file->Read(&movi, sizeof(movi));
    if (movi.type == kFccMovi) return position;
    LOG_ERR("fcctype error: %x\n", movi.type);
    return -1;
}

}  // namespace

int32_t restore_avi_file(const char *path) {
    const int64_t begin = platform::monotonic_ms();
    const std::string side_path = std::string(path) + kSideSuffix;
    platform::File side;
    platform::File file;
    if (!side.Open(side_path.c_str(), platform::OpenMode::read, kRepairBuffer)) {
        LOG_ERR("open %s failed\n", side_path.c_str());
        return KELM_AVIFILE_FAILED;
    }
    if (!file.Open(path, platform::OpenMode::update, kRepairBuffer)) {
        LOG_ERR("open %s failed\n", path);
        return KELM_AVIFILE_NO_FILE;
    }
    const int64_t length = file.Seek(0, platform::SeekFrom::end);
    int64_t movi_pos = -1;
    if (length < kHeadSize || length > INT32_MAX) {
        LOG_ERR("file %s is invalid, len = %d\n", path, static_cast<int32_t>(length));
    } else {
        movi_pos = find_movi_list(&file);
    }
    if (movi_pos < 0) {
        CFileManager::delete_file(side_path.c_str());
        return KELM_AVIFILE_NO_FILE;
    }
    const auto table = std::unique_ptr<RecSegStrn>(new (std::nothrow) RecSegStrn{});
    if (!table) {
        LOG_TRACE();
        return KELM_AVIFILE_NO_MEMORY;
    }
    file.Seek(kStrnPos, platform::SeekFrom::begin);
    file.Read(table.get(), sizeof(*table));
    if (!write_repaired(&file, &side, movi_pos, table.get())) {
        LOG_TRACE();
        return KELM_AVIFILE_FAILED;
    }
    file.Close();
    CFileManager::delete_file(side_path.c_str());
    LOG_INFO("repair file ok, name = %s, use time = %d ms\n", path, static_cast<int32_t>(platform::monotonic_ms() - begin));
    return KELM_AVIFILE_OK;
}

}  // namespace kelm_recvault::kelm_avi
