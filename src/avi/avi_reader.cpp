#include "avi/avi_reader.h"

#include <algorithm>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "Log.h"
#include "avi/avi_common.h"
#include "platform/clock.h"

namespace kelm_recvault {

namespace {

constexpr int32_t kLoad = 0x10000;
constexpr int32_t kWindow = 0x20000;
constexpr int32_t kLoadUnit = 4096;  // also the rounding of a seek
constexpr int32_t kSkipUnit = 512;
constexpr int64_t kTolerance = 2;        // seconds
constexpr int64_t kFarAway = 86400;      // seconds: no position is worse
constexpr size_t kSearchBuffer = 16384;  // of the head stream
constexpr int32_t kRecordHead = sizeof(FrameRecHead);
constexpr int32_t kDeliveredHead = kRecordHead - static_cast<int32_t>(sizeof(FrameHead));

int64_t round_down(int64_t value, int64_t unit) { return value - value % unit; }

int64_t whole_size(const FrameRecHead &head) { return static_cast<int64_t>(head.chunk_size) + kRecordHead; }

template <class T>
bool read_struct(platform::File *stream, T *out) {
    return stream->Read(out, sizeof(T)) == sizeof(T);
}

bool is_key_entry(const Idx1Entry &entry) { return entry.chunk_id == kFccVideoChunk && entry.flags == kIndexKeyFlag; }

}  // namespace

kelm_avi_reader::~kelm_avi_reader() { close_file(); }

// ---- Opening ----

int32_t kelm_avi_reader::open_file(const char *path, uint8_t *buffer) {
    if (path == nullptr) {
        LOG_TRACE();
        return KELM_AVIFILE_BAD_ARGUMENT;
    }
    close_file();
    if (!m_recseg_strn) m_recseg_strn = std::make_unique<RecSegStrn>();
    if (!m_head_stream.Open(path, platform::OpenMode::read, kSearchBuffer)) {
        LOG_TRACE();
        return KELM_AVIFILE_FAILED;
    }
    if (buffer != nullptr) {
        const int32_t opened = m_avi_fio.open_file(path, CFileIO::kReadUpdate, true);
        if (opened != KELM_AVIFILE_OK) {
            LOG_ERR("open file failed, %s\n", path);
            close_file();
            return opened;
        }
    }
    m_data_buf = buffer;
    m_avi_path = path;
    m_idx_path = m_avi_path + kSideSuffix;
    if (!check_head()) {
        LOG_TRACE();
        close_file();
        return KELM_AVIFILE_FAILED;
    }
    return KELM_AVIFILE_OK;
}

int32_t kelm_avi_reader::close_file() {
    m_avi_fio.close_file();
    m_head_stream.Close();
    m_avi_path.clear();
    m_idx_path.clear();
    m_file_size = m_first_pos = m_movi_end_pos = m_idx1_pos = m_idx1_cnt = 0;
    m_index_kind = IndexKind::none;
    if (m_recseg_strn) *m_recseg_strn = RecSegStrn{};
    m_data_buf = nullptr;
    m_data_buf_len = m_data_end = 0;
    m_seek_done = m_end_told = false;
    return KELM_AVIFILE_OK;
}

bool kelm_avi_reader::check_head() {
    m_file_size = m_head_stream.Seek(0, platform::SeekFrom::end);
    if (m_file_size <= kHeadSize || m_file_size > INT32_MAX) {
        LOG_INFO("file size = %d too small !\n", static_cast<int32_t>(m_file_size));
        return false;
    }
    m_head_stream.Seek(0, platform::SeekFrom::begin);
    RiffList riff{};
    if (!read_struct(&m_head_stream, &riff) || riff.fcc != kFccRiff || riff.type != kFccAvi) {
        LOG_ERR("error RIFF fcc = 0x%x, fcctype = 0x%x !\n", riff.fcc, riff.type);
        return false;
    }
    if (check_list_hdrl()) return true;
    LOG_TRACE();
    return false;
}

bool kelm_avi_reader::check_list_hdrl() {
    RiffList hdrl{};
    if (!read_struct(&m_head_stream, &hdrl) || hdrl.fcc != kFccList || hdrl.type != kFccHdrl) {
        LOG_ERR("list_hdrl: fcc = 0x%x, fcctype = 0x%x !\n", hdrl.fcc, hdrl.type);
        return false;
    }
    const int64_t hdrl_end = m_head_stream.Tell() + hdrl.size - 4;
    if (!read_tables()) return false;
    if (m_data_buf == nullptr) return true;
    RiffList movi{};
    m_head_stream.Seek(hdrl_end, platform::SeekFrom::begin);
    if (hdrl_end != kMoviListPos || !read_struct(&m_head_stream, &movi) || movi.fcc != kFccList || movi.type != kFccMovi) {
        LOG_ERR("list_movi: fcc = 0x%x (0x%x), fcctype = 0x%x (0x%x)!\n", movi.fcc, kFccList, movi.type, kFccMovi);
        return false;
    }
    return find_index(movi.size);
}

// The main header, and the segment and key-frame table where it is there. Counts that no table can have make it empty.
bool kelm_avi_reader::read_tables() {
    RiffChunk main{};
    m_head_stream.Seek(offsetof(AviHead, main_chunk), platform::SeekFrom::begin);
    if (!read_struct(&m_head_stream, &main)) {
        LOG_INFO("avi main header read fail !\n");
        return false;
    }
    if (main.fcc != kFccAvih) {
        LOG_INFO("not find avi main header !\n");
        return false;
    }
    RiffChunk strn{};
    m_head_stream.Seek(offsetof(AviHead, strn_chunk), platform::SeekFrom::begin);
    if (!read_struct(&m_head_stream, &strn)) return false;
    RecSegStrn &table = *m_recseg_strn;
    if (strn.fcc == kFccStrn && !read_struct(&m_head_stream, &table)) return false;
    if (table.rec_seg_cnt < 0 || table.rec_seg_cnt > kMaxSegments) table.rec_seg_cnt = 0;
    if (table.key_frame_cnt < 0 || table.key_frame_cnt > kMaxKeyFrames) table.key_frame_cnt = 0;
    return true;
}

bool kelm_avi_reader::find_index(int64_t movi_list_size) {
    int64_t first_key = 0;
    const int64_t idx1_pos = kHeadSize + movi_list_size - 4;
    if (check_idx1(idx1_pos, &first_key)) {
        m_movi_end_pos = idx1_pos;
    } else {
        check_side_index(&first_key);
        m_movi_end_pos = m_file_size;
    }
    LOG_INFO("m_movi_begin_pos = %d, m_movi_end_pos = %d\n", kHeadSize, static_cast<int32_t>(m_movi_end_pos));
    if (first_key > m_file_size) first_key = 0;
    m_first_pos = std::max<int64_t>(round_down(first_key, kLoadUnit), kHeadSize);
    m_avi_fio.seek_file(static_cast<int32_t>(m_first_pos), platform::SeekFrom::begin);
    return true;
}

bool kelm_avi_reader::check_idx1(int64_t position, int64_t *first_key) {
    RiffChunk chunk{};
    m_head_stream.Seek(position, platform::SeekFrom::begin);
    if (!read_struct(&m_head_stream, &chunk) || chunk.fcc != kFccIdx1 || chunk.size < 1) return false;
    m_idx1_pos = m_head_stream.Tell();
    m_idx1_cnt = (m_file_size - m_idx1_pos) / static_cast<int64_t>(sizeof(Idx1Entry));
    Idx1Entry entry{};
    while (read_struct(&m_head_stream, &entry)) {
        if (!is_key_entry(entry)) continue;
        *first_key = record_pos_of(entry.offset);
        break;
    }
    m_index_kind = IndexKind::idx1;
    return true;
}

void kelm_avi_reader::check_side_index(int64_t *first_key) {
    platform::File side;
    if (!side.Open(m_idx_path.c_str(), platform::OpenMode::read, kSearchBuffer)) return;
    FrameIdxRec record{};
    while (read_struct(&side, &record)) {
        if (!is_key_entry(record.index)) continue;
        *first_key = record_pos_of(record.index.offset);
        break;
    }
    m_index_kind = IndexKind::side_file;
}

// ---- Reading ----

bool kelm_avi_reader::Filter::Refuses(const FrameRecHead &head) {
    const uint32_t type = head.frame.type;
    if (head.frame.length == 0 || (head.rec_type & rec_type) == 0) return true;
    if (mode == kVideoFrames) return !is_video_frame(type);
    if (mode == kAudioFrames) return !is_audio_frame(type);
    if (mode != kKeyFrames) return false;
    if (!is_i_frame(type)) return true;
    if (skip <= 0) return false;
    --skip;
    return true;
}

int32_t kelm_avi_reader::read_data(int32_t mode, int32_t skip, uint32_t rec_type, const uint8_t **frame, int32_t *length) {
    if (!is_opened() || m_data_buf == nullptr) {
        LOG_TRACE();
        return KELM_AVIFILE_FAILED;
    }
    if (m_seek_done) {
        m_data_buf_len = m_data_end = 0;
        m_seek_done = false;
    }
    if (m_reverse) return KELM_AVIFILE_FAILED;
    Filter filter{mode, skip, rec_type};
    return read_data_forword(&filter, frame, length);
}

int32_t kelm_avi_reader::read_data_forword(Filter *filter, const uint8_t **frame, int32_t *length) {
    for (;;) {
        int64_t current_size = 0;
        if (look(filter, &current_size) == Look::found) {
            uint8_t *record = span_begin() - current_size;
            FrameHead head;
            std::memcpy(&head, record + offsetof(FrameRecHead, frame), sizeof(head));
            std::memcpy(record + kDeliveredHead, &head, sizeof(head));
            *frame = record + kDeliveredHead;
            *length = static_cast<int32_t>(head.length + sizeof(head));
            return KELM_AVIFILE_OK;
        }
        const int32_t loaded = load(current_size);
        if (loaded != KELM_AVIFILE_OK) return loaded;
    }
}

// Looks for the next frame that passes. When it is found it has been taken out of the span; `current_size` is its size, or
// that of the frame that the span holds in part.
kelm_avi_reader::Look kelm_avi_reader::look(Filter *filter, int64_t *current_size) {
    for (;;) {
        *current_size = 0;
        if (!fast_find_node() || m_data_buf_len < kRecordHead) return Look::need_data;
        FrameRecHead head{};
        std::memcpy(&head, span_begin(), sizeof(head));
        if (!kelm_avi::is_frame_head(head)) {
            std::printf(" =============== invalid frame head =======================\n");
            m_data_buf_len -= static_cast<int32_t>(sizeof(kFccJunk));
            continue;
        }
        *current_size = whole_size(head);
        const bool refused = filter->Refuses(head);
        if (m_data_buf_len >= *current_size) {
            m_data_buf_len -= static_cast<int32_t>(*current_size);
            if (!refused) return Look::found;
            continue;
        }
        if (refused) {
            skip_refused(&head, *current_size - m_data_buf_len);
            std::memcpy(span_begin(), &head, sizeof(head));
            *current_size = whole_size(head);
        }
        return Look::need_data;
    }
}

// Moves the span to the next "JUNK" in it. What is kept without one may hold its first bytes.
bool kelm_avi_reader::fast_find_node() {
    static constexpr char kMark[] = {'J', 'U', 'N', 'K'};
    uint8_t *const begin = span_begin();
    uint8_t *const end = begin + m_data_buf_len;
    uint8_t *const found = std::search(begin, end, std::begin(kMark), std::end(kMark));
    if (found == end) {
        if (m_data_buf_len > 0) std::printf("not find frame head, data_len = %d ==================\n", m_data_buf_len);
        m_data_buf_len = std::min<int32_t>(m_data_buf_len, sizeof(kMark) - 1);
        return false;
    }
    if (found != begin) std::printf("fast_find_node, head_pos = %d\n", static_cast<int32_t>(found - begin));
    m_data_buf_len = static_cast<int32_t>(end - found);
    return true;
}

// Most of a refused frame need not be read. It is left in the span as a shorter one that is refused again, once.
void kelm_avi_reader::skip_refused(FrameRecHead *head, int64_t missing) {
    head->rec_type = 0;
    head->frame.length = 0;
    if (missing <= kSkipUnit) return;
    const auto skipped = static_cast<int32_t>(round_down(missing, kSkipUnit));
    m_avi_fio.seek_file(skipped, platform::SeekFrom::current);
    head->chunk_size -= static_cast<uint32_t>(skipped);
}

int32_t kelm_avi_reader::load(int64_t current_size) {
    int32_t load_size = kLoad;
    const int64_t remain = m_movi_end_pos - m_avi_fio.tell_file();
    if (remain < kLoadUnit) {
        if (m_recseg_strn->key_frame_cnt != 0) {
            LOG_INFO("no more data, remain = %d, min_len = %d\n", static_cast<int32_t>(remain), kLoadUnit);
            return KELM_AVIFILE_END_OF_DATA;
        }
        load_size = kLoadUnit;  // the file may be growing
    } else if (remain < kLoad) {
        load_size = static_cast<int32_t>(round_down(remain, kLoadUnit));
    }
    const int64_t rest = current_size == 0 ? 0 : current_size - m_data_buf_len;
    // Small frames stay in the first part of the buffer, which the processor then has in its cache.
    const bool move = m_data_end >= kWindow && m_data_buf_len <= kWindow / 8;
    const bool full = kBufferSize - m_data_end < std::max<int64_t>(load_size, rest);
    if ((move || full) && !make_room(rest, &load_size)) return load(0);
    const int32_t count = m_avi_fio.read_some(m_data_buf + m_data_end, load_size);
    m_data_end += count;
    m_data_buf_len += count;
    // Whatever came is kept and looked at: a frame that is half there is delivered once the rest has arrived.
    if (count > 0) {
        m_end_told = false;
        return KELM_AVIFILE_OK;
    }
    if (!m_end_told) LOG_INFO("read_file failed, len = %d, file_pos = %d\n", count, m_avi_fio.tell_file());
    m_end_told = true;
    return KELM_AVIFILE_END_OF_DATA;
}

// Moves the span to the buffer's start, so that it ends on a multiple of 512 where there is room for that. A load that would
// not fit behind it is made smaller, down to the rest of the frame; when that does not fit, the span is given up.
bool kelm_avi_reader::make_room(int64_t rest, int32_t *load_size) {
    int32_t offset = m_data_buf_len == 0 ? 0 : kSkipUnit - m_data_buf_len % kSkipUnit;
    if (kBufferSize - offset - m_data_buf_len < std::max<int64_t>(rest, kLoadUnit)) offset = 0;
    const int64_t room = kBufferSize - offset - m_data_buf_len;
    if (room < std::max<int64_t>(rest, 1)) {
        std::printf("clear all data, offset+m_data_buf_len+read_len = %d, offset+m_data_buf_len+remain_frame_len = %d\n",
                    offset + m_data_buf_len + *load_size, static_cast<int32_t>(offset + m_data_buf_len + rest));
        m_data_buf_len = m_data_end = 0;
        return false;
    }
    std::memmove(m_data_buf + offset, span_begin(), static_cast<size_t>(m_data_buf_len));
    m_data_end = offset + m_data_buf_len;
    const int64_t fitting = room >= kLoadUnit ? round_down(room, kLoadUnit) : room;
    *load_size = static_cast<int32_t>(std::min<int64_t>(*load_size, std::max(fitting, rest)));
    return true;
}

// ---- Seeking ----

int32_t kelm_avi_reader::seek_time(int64_t sec) {
    if (!is_opened() || !m_head_stream.IsOpen()) {
        LOG_TRACE();
        return KELM_AVIFILE_FAILED;
    }
    const int64_t begin = platform::monotonic_ms();
    sec = std::clamp<int64_t>(sec, -kFarAway, INT64_C(1) << 40);  // differences of times are taken below
    int64_t position = 0;
    platform::File side;
    if (m_recseg_strn->key_frame_cnt >= 1) {
        position = search_key_table(sec);
    } else if (side.Open(m_idx_path.c_str(), platform::OpenMode::read, sizeof(FrameIdxRec) * 8)) {
        position = search_side_file(&side, sec);
    } else {
        position = search_file(sec);
    }
    position = round_down(position, kLoadUnit);
    if (position <= 0 || position > INT32_MAX) {
        LOG_ERR("seek failed, file = %s\n", m_avi_path.c_str());
        return KELM_AVIFILE_FAILED;
    }
    m_avi_fio.seek_file(static_cast<int32_t>(position), platform::SeekFrom::begin);
    m_seek_done = true;
    LOG_INFO("seek use time = %d ms \n", static_cast<int32_t>(platform::monotonic_ms() - begin));
    return KELM_AVIFILE_OK;
}

int64_t kelm_avi_reader::search_key_table(int64_t t) const {
    const RecSegStrn &table = *m_recseg_strn;
    const int64_t first_second = table.key_frames[0].second;
    if (first_second >= t - kTolerance) return table.key_frames[0].position;
    int64_t best = 0;
    int64_t best_diff = kFarAway;
    for (int32_t i = 0; i + 1 < table.key_frame_cnt; ++i) {
        const KeyFrameEntry &entry = table.key_frames[i];
        const int64_t second = entry.second;
        const int64_t diff = std::llabs(second - t);
        if (diff < best_diff) {
            best_diff = diff;
            best = entry.position;
            if (diff <= kTolerance) return best;
        } else if (second + kTolerance >= t) {
            return entry.position;
        }
    }
    return best;
}

// A binary search over the key frames of the side file.
int64_t kelm_avi_reader::search_side_file(platform::File *side, int64_t t) {
    constexpr int64_t kSize = sizeof(FrameIdxRec);
    int64_t low = 0;
    int64_t high = side->Seek(0, platform::SeekFrom::end) / kSize - 1;
    // A time up to 2 seconds behind the first key frame is found at that, as in the table: nothing at the begin is left out.
    FrameIdxRec first{};
    side->Seek(0, platform::SeekFrom::begin);
    while (read_struct(side, &first) && first.index.flags != kIndexKeyFlag) {
    }
    if (first.index.flags == kIndexKeyFlag && first.frame.second >= t - kTolerance) return first.frame.position;
    int64_t best = 0;
    int64_t best_diff = kFarAway;
    while (low < high) {
        const int64_t middle = low + (high - low) / 2;
        FrameIdxRec record{};
        int64_t at = middle;
        side->Seek(at * kSize, platform::SeekFrom::begin);
        bool found = false;
        for (; at <= high && !found && read_struct(side, &record); ++at) found = record.index.flags == kIndexKeyFlag;
        if (!found) {
            high = middle;  // all key frames that are left lie below
            continue;
        }
        --at;
        const int64_t second = record.frame.second;
        const int64_t diff = std::llabs(second - t);
        if (diff <= best_diff) {
            best_diff = diff;
            best = record.frame.position;
            if (diff <= kTolerance) return best;
        }
        if (second > t) {
            high = middle;
        } else if (at > low) {
            low = at;
        } else {
            break;
        }
    }
    return best;
}

// A bisection that needs neither table nor side file, guided by the index where there is one.
int64_t kelm_avi_reader::search_file(int64_t t) {
    const bool indexed = m_index_kind == IndexKind::idx1;
    const int64_t file_end = m_head_stream.Seek(0, platform::SeekFrom::end);
    int64_t low = m_first_pos;
    int64_t high = indexed ? m_idx1_pos : file_end;
    int64_t low_index = 0;
    int64_t high_index = m_idx1_cnt - 1;
    FrameRecHead first{};
    int64_t first_key = 0;
    m_head_stream.Seek(low, platform::SeekFrom::begin);
    if (find_frame_type(FrameKind::key, &first_key, &first) && first.frame.seconds >= t - kTolerance) return first_key;
    for (;;) {
        int64_t candidate = low + (high - low) / 2;
        int64_t index = -1;
        if (indexed) {
            index = first_key_entry_from(low_index + (high_index - low_index) / 2, &candidate);
            if (index < 0 && (low_index != 0 || high_index != m_idx1_cnt - 1)) return low;
        }
        if (candidate <= low || candidate >= high) return low;
        FrameRecHead head{};
        int64_t position = 0;
        m_head_stream.Seek(candidate, platform::SeekFrom::begin);
        if (!find_frame_type(FrameKind::key, &position, &head)) {
            if (high != file_end) return low;
            m_head_stream.Seek(low, platform::SeekFrom::begin);
            return find_last_before(t);
        }
        if (position >= high) return low;
        const int64_t second = head.frame.seconds;
        if (std::llabs(second - t) <= kTolerance) return position;
        (second > t ? high : low) = position;
        if (index >= 0) (second > t ? high_index : low_index) = index;
    }
}

int64_t kelm_avi_reader::first_key_entry_from(int64_t index, int64_t *position) {
    FrameKind kind{};
    for (; index < m_idx1_cnt && get_relpos_by_indx(index, &kind, position); ++index) {
        if (kind == FrameKind::key) return index;
    }
    return -1;
}

bool kelm_avi_reader::get_relpos_by_indx(int64_t index, FrameKind *kind, int64_t *position) {
    if (index < 0 || index >= m_idx1_cnt) {
        LOG_TRACE();
        return false;
    }
    const int64_t at = m_idx1_pos + index * static_cast<int64_t>(sizeof(Idx1Entry));
    Idx1Entry entry{};
    m_head_stream.Seek(at, platform::SeekFrom::begin);
    if (!read_struct(&m_head_stream, &entry)) return false;
    if (entry.chunk_id == kFccVideoChunk) {
        *kind = entry.flags == kIndexKeyFlag ? FrameKind::key : FrameKind::video;
    } else if (entry.chunk_id == kFccAudioChunk) {
        *kind = FrameKind::audio;
    } else {
        LOG_INFO("indx_%d, pos_%d err!\n", static_cast<int32_t>(index), static_cast<int32_t>(at));
        return false;
    }
    *position = record_pos_of(entry.offset);
    return true;
}

// Scans forward from the head stream's position for a frame of a kind.
bool kelm_avi_reader::find_frame_type(FrameKind kind, int64_t *position, FrameRecHead *head) {
    for (;;) {
        const int64_t at = m_head_stream.Tell();
        if (!read_struct(&m_head_stream, head)) return false;
        if (!kelm_avi::is_frame_head(*head)) {
            m_head_stream.Seek(at + 1, platform::SeekFrom::begin);
            if (!find_next_head()) return false;
            continue;
        }
        const uint32_t type = head->frame.type;
        const bool wanted = kind == FrameKind::key     ? is_i_frame(type)
                            : kind == FrameKind::audio ? is_audio_frame(type)
                                                       : is_video_frame(type);
        if (wanted) {
            *position = at;
            return true;
        }
        m_head_stream.Seek(head->chunk_size, platform::SeekFrom::current);
    }
}

// Sets the head stream to the next "JUNK".
bool kelm_avi_reader::find_next_head() {
    static constexpr char kMark[] = {'J', 'U', 'N', 'K'};
    char block[kLoadUnit];
    for (;;) {
        const int64_t at = m_head_stream.Tell();
        const size_t count = m_head_stream.Read(block, sizeof(block));
        const char *const found = std::search(block, block + count, std::begin(kMark), std::end(kMark));
        if (found != block + count) return m_head_stream.Seek(at + (found - block), platform::SeekFrom::begin) >= 0;
        if (count < sizeof(block)) return false;
        m_head_stream.Seek(-static_cast<int64_t>(sizeof(kMark)),
                           platform::SeekFrom::current);  // one may straddle the blocks
    }
}

// The last key frame, from the head stream's position on, that is not later than `t`; that position if there is none.
int64_t kelm_avi_reader::find_last_before(int64_t t) {
    int64_t best = m_head_stream.Tell();
    int64_t position = 0;
    FrameRecHead head{};
    while (find_frame_type(FrameKind::key, &position, &head)) {
        if (head.frame.seconds > t) break;
        best = position;
        if (head.frame.seconds == t) break;
        m_head_stream.Seek(head.chunk_size, platform::SeekFrom::current);
    }
    return best;
}

// ---- Tables ----

int32_t kelm_avi_reader::get_recseg_info(RecSegEntry *entries, int32_t *count) const {
    if (!m_recseg_strn) return KELM_AVIFILE_FAILED;
    return kelm_avi::copy_recseg_info(*m_recseg_strn, entries, count);
}

int32_t kelm_avi_reader::get_data_size(int64_t begin, int64_t end, uint32_t rec_type) const {
    if (!m_recseg_strn) return 0;
    return kelm_avi::sum_data_size(*m_recseg_strn, begin, end, rec_type);
}

}  // namespace kelm_recvault
