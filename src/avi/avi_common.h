// What the writer, the reader and the repair of record files share. Free functions without state.
#pragma once

#include <cstdint>
#include <functional>

#include "avi/avi_format.h"
#include "platform/file.h"

namespace kelm_recvault::kelm_avi {

// Writes at a place of the head; told on the log when it fails.
bool write_at(platform::File *stream, int64_t offset, const void *data, size_t size);
bool write_int(platform::File *stream, int64_t offset, uint32_t value);

// The head as it stands in a new file, in the fields that do not depend on frames.
void fill_avi_head(AviHead *head, uint32_t width, uint32_t height);
VideoStream make_video_stream(uint32_t width, uint32_t height, int8_t codec_id);
// The stream of IMA ADPCM, or of G.711 for kAudioAlaw and kAudioMulaw.
AudioStream make_audio_stream(uint8_t audio_codec);

// Writes the RIFF size, from the file's length, and the numbers of frames.
bool write_sizes(platform::File *stream, int32_t video_count, int32_t audio_count);
// Writes the measured frame rate; leaves it alone when it is out of bounds.
void write_frame_rate(platform::File *stream, int64_t seconds, int64_t microseconds, int32_t frames);

// Recorded time and frames to the two frame-rate fields of the head. FAILED, nothing stored, for no frames, or when the
// average lies outside 15000 to 2000000 microseconds.
int32_t cnt_interval_fps(int64_t seconds, int64_t microseconds, int32_t frames, uint32_t *usec_per_frame, uint32_t *rate);
// Integer quotient and decimal digits. BAD_ARGUMENT for a divisor of 0.
int32_t cnt_point_division(int32_t dividend, int32_t divisor, int32_t *quotient, int32_t *digits, int32_t digit_cnt);
int32_t cnt_point_multiply(int32_t factor, int32_t quotient, const int32_t *digits, int32_t digit_cnt);

// Time range and union of the types of a file's segments. FAILED for no entries.
int32_t get_recinfo_of_entries(const RecSegEntry *entries, int32_t count, uint32_t *rec_type, int64_t *begin_sec,
                               int64_t *end_sec);
// Copies the valid segments of a table. `count` is the room, and then the number copied; 0 and FAILED when the table is
// empty or does not fit.
int32_t copy_recseg_info(const RecSegStrn &table, RecSegEntry *entries, int32_t *count);
// Where the frame record of a side record ends.
int64_t record_end(const FrameIdxRec &record);
// Is this the head of a frame record, of a size that can have been recorded?
bool is_frame_head(const FrameRecHead &head);
// The end of the last whole frame record of those that stand back to back from `from` on.
int64_t whole_records_end(platform::File *stream, int64_t from, int64_t file_end);

struct FrameCounts {
    int32_t video = 0;
    int32_t audio = 0;
    int64_t end = kHeadSize;  // of the last frame
};
// Builds a file's tables from its side file, up to the first record whose frame is not whole in the file, and hands each
// index entry out.
FrameCounts rebuild_tables(platform::File *side, int64_t file_end, RecSegStrn *table,
                           const std::function<void(const Idx1Entry &)> &each);

struct RecordedTime {
    int64_t seconds;
    int64_t microseconds;
};
// Recorded time by the segments: each counts as its whole seconds plus one, each boundary as 40 ms.
RecordedTime recorded_time(const RecSegStrn &table);

// The three questions about a file, answered from the table in its head: for one that was closed or repaired. `entries` has
// room for kMaxSegments. FAILED when it cannot be opened or its table is empty.
int32_t get_recinfo_by_name(const char *path, RecSegEntry *entries, uint32_t *rec_type, int64_t *begin_sec,
                            int64_t *end_sec);
// `count` is the room, and then the number delivered, 0 for an empty table.
int32_t get_recseg_by_name(const char *path, RecSegEntry *entries, int32_t *count);
int32_t avi_get_data_size(const char *path, int64_t begin, int64_t end, uint32_t rec_type, int32_t *total);

// Makes a complete file of one that was cut, from its side file, and deletes that. A torn frame at the end goes; whole
// frames that the side file does not know stay. NO_FILE when it is no record file, and then the side file goes too, so that
// it is not tried again; FAILED without a side file, or when the disk does not take what is written; NO_MEMORY.
int32_t restore_avi_file(const char *path);

// Bytes of a table's key-frame intervals that begin in a range and share a type with the mask.
int32_t sum_data_size(const RecSegStrn &table, int64_t begin, int64_t end, uint32_t mask);

}  // namespace kelm_recvault::kelm_avi
