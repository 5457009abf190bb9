#include "avi/avi_writer.h"

#include <algorithm>
#include <memory>
#include <new>
#include <utility>

#include "Log.h"
#include "avi/avi_common.h"

namespace kelm_recvault {

namespace {

constexpr int64_t kDefaultDuration = 40000;  // microseconds of a frame for which no better value is known
constexpr int32_t kLongestStep = 2;          // seconds to the segment's end that still give a real duration
constexpr int32_t kGap = 6;                  // seconds to the segment's end from which on the segment is over
constexpr int32_t kAudioPerSecond = 25;
constexpr int32_t kAudioLag = 50;  // frames that audio may run behind before it is filled
constexpr int32_t kFillerRun = 25;
constexpr int32_t kFillerFreeSlots = 100;
constexpr uint32_t kFillerAdpcm = 164;
constexpr uint32_t kFillerG711 = 320;
constexpr int32_t kDirectFreeSlots = 200;  // a side file has room
constexpr int32_t kIndexDelay = 20;        // milliseconds after which a side record is in the side file
constexpr int32_t kTicksBetweenNameChecks = 50;
constexpr int32_t kIndexBlock = 40;  // records copied to the index between two pauses
constexpr int32_t kIndexPause = 2;   // milliseconds
// Frames end here, so that the index of a file that never sees a key frame again still ends below 2 GiB.
constexpr int64_t kMaxMoviEnd = 0x7C000000;

}  // namespace

// ---- Second stage of the close ----

int32_t AviFileState::close_finish() {
    if (!has_streams()) return KELM_AVIFILE_FAILED;
    // The side file is what a cut file is mended from. It goes when nothing of this one is left to be lost.
    const bool finished = write_idx1() && update_fhead() && m_head_stream.Sync();
    m_side_stream.Close();
    m_head_stream.Close();
    if (finished) CFileManager::delete_file(m_idx_path.c_str());
    m_avi_path.clear();
    m_idx_path.clear();
    return finished ? KELM_AVIFILE_OK : KELM_AVIFILE_FAILED;
}

bool AviFileState::write_idx1() {
    const int64_t movi_end = m_head_stream.Seek(0, platform::SeekFrom::end);
    const RiffChunk chunk{kFccIdx1, 0};
    uint32_t index_bytes = 0;
    const bool written = m_head_stream.Write(&chunk, sizeof(chunk)) == sizeof(chunk) && copy_index(movi_end, &index_bytes) &&
                         kelm_avi::write_int(&m_head_stream, movi_end + 4, index_bytes);
    if (!written) {
        LOG_ERR("index of %s not written\n", m_avi_path.c_str());
        m_head_stream.Truncate(movi_end);
    }
    return written;
}

// Copies the first 16 bytes of each side record whose frame is in the file, and counts the frames anew.
bool AviFileState::copy_index(int64_t movi_end, uint32_t *index_bytes) {
    int64_t left = m_side_stream.Seek(0, platform::SeekFrom::end) / static_cast<int64_t>(sizeof(FrameIdxRec));
    m_side_stream.Seek(0, platform::SeekFrom::begin);
    m_video_cnt = m_audio_cnt = 0;
    FrameIdxRec records[kIndexBlock];
    Idx1Entry entries[kIndexBlock];
    for (; left > 0; platform::sleep_ms(kIndexPause)) {
        const auto count = static_cast<size_t>(std::min<int64_t>(left, kIndexBlock));
        if (m_side_stream.Read(records, count * sizeof(records[0])) != count * sizeof(records[0])) return false;
        size_t used = 0;
        for (; used < count && kelm_avi::record_end(records[used]) <= movi_end; ++used) {
            entries[used] = records[used].index;
            ++(entries[used].chunk_id == kFccVideoChunk ? m_video_cnt : m_audio_cnt);
        }
        if (m_head_stream.Write(entries, used * sizeof(entries[0])) != used * sizeof(entries[0])) return false;
        *index_bytes += static_cast<uint32_t>(used * sizeof(entries[0]));
        left = used < count ? 0 : left - static_cast<int64_t>(count);
    }
    return true;
}

bool AviFileState::update_fhead() {
    bool written = true;
    if (m_video_cnt > 0) {
        kelm_avi::write_frame_rate(&m_head_stream, m_rec_sec, m_rec_usec, m_video_cnt);
        written = kelm_avi::write_int(&m_head_stream, offsetof(AviHead, main.streams), m_audio_cnt > 0 ? 2 : 1);
    }
    return kelm_avi::write_sizes(&m_head_stream, m_video_cnt, m_audio_cnt) && written;
}

// ---- Opening ----

kelm_avi_writer::kelm_avi_writer() { reset(); }

kelm_avi_writer::~kelm_avi_writer() {
    if (is_open()) close(nullptr, nullptr);
    m_write_thrd.Stop();
}

void kelm_avi_writer::reset() {
    static_cast<AviFileState &>(*this) = AviFileState{};
    m_recseg_strn = RecSegStrn{};
    m_packet_mngr = nullptr;
    m_side_size = 0;
    m_write_failed = false;
    m_full = false;
    m_ticks = 0;
}

int32_t kelm_avi_writer::open_file(const char *path, uint32_t width, uint32_t height, CPacketManager *packet_mngr) {
    if (path == nullptr) {
        LOG_TRACE();
        return KELM_AVIFILE_BAD_ARGUMENT;
    }
    reset();
    m_packet_mngr = packet_mngr;
    if (m_packet_mngr != nullptr) m_packet_mngr->ResetBuffers();
    if (creat_avi_file(path) != KELM_AVIFILE_OK || !write_fhead(width, height)) {
        LOG_TRACE();
        abandon();
        return KELM_AVIFILE_FAILED;
    }
    if (m_packet_mngr != nullptr) m_packet_mngr->SetConsumer(&m_write_thrd);
    const int32_t started = m_write_thrd.Start(this, 0, 0, "rcvt-write");
    if (started != KELM_AVIFILE_OK) {
        LOG_TRACE();
        abandon();
    }
    return started;
}

int32_t kelm_avi_writer::creat_avi_file(const char *path) {
    m_avi_path = path;
    m_idx_path = m_avi_path + kSideSuffix;
    if (m_avi_fio.open_file(path, CFileIO::kUpdateCreate, true) != KELM_AVIFILE_OK) {
        LOG_TRACE();
        m_avi_path.clear();  // not ours to remove
        return KELM_AVIFILE_FAILED;
    }
    if (!m_head_stream.Open(path, platform::OpenMode::update)) {
        LOG_TRACE();
        return KELM_AVIFILE_NO_FILE;
    }
    if (!m_side_stream.Open(m_idx_path.c_str(), platform::OpenMode::create_update)) {
        LOG_TRACE();
        return KELM_AVIFILE_FAILED;
    }
    return KELM_AVIFILE_OK;
}

bool kelm_avi_writer::write_fhead(uint32_t width, uint32_t height) {
    const auto head = std::unique_ptr<AviHead>(new (std::nothrow) AviHead);
    if (!head) {
        LOG_TRACE();
        return false;
    }
    kelm_avi::fill_avi_head(head.get(), width, height);
    m_recseg_strn = head->strn;
    if (!kelm_avi::write_at(&m_head_stream, 0, head.get(), sizeof(AviHead))) return false;
    m_write_pos = m_avi_fio.seek_file(0, platform::SeekFrom::end);
    if (m_packet_mngr != nullptr) m_packet_mngr->SetFilePos(m_write_pos);
    return m_write_pos == kHeadSize;
}

// A file that could not be begun holds nothing. It goes, so that a full disk is not littered by each new attempt.
void kelm_avi_writer::abandon() {
    m_avi_fio.close_file();
    m_head_stream.Close();
    if (m_side_stream.IsOpen()) CFileManager::delete_file(m_idx_path.c_str());
    m_side_stream.Close();
    if (!m_avi_path.empty()) CFileManager::delete_file(m_avi_path.c_str());
    reset();
}

bool kelm_avi_writer::open_is_cur_file(const char *name) const {
    if (name == nullptr) {
        LOG_TRACE();
        return false;
    }
    return is_open() && m_avi_path == name;
}

// ---- Frames ----

int32_t kelm_avi_writer::write_data(const FrameHead &head, const void *data, uint32_t len) {
    if (!is_open()) {
        LOG_TRACE();
        return KELM_AVIFILE_FAILED;
    }
    return write_frame(head, data, len);
}

int32_t kelm_avi_writer::write_frame(const FrameHead &head, const void *data, uint32_t len) {
    const bool is_audio = is_audio_frame(head.type);
    const bool is_key = is_i_frame(head.type);
    FrameRecHead record{
        kFccJunk, kJunkContent, head, m_rec_type, m_prev_size, 0, is_audio ? kFccAudioChunk : kFccVideoChunk, len + len % 2};
    int32_t position = m_write_pos;
    const int32_t stored = store_frame(&record, data, len, &position);
    if (stored != KELM_AVIFILE_OK) return stored;
    m_prev_size = record.chunk_size + kPrevSizeExtra;
    m_write_pos = position + static_cast<int32_t>(record.chunk_size + sizeof(record));

    FrameIdxRec side{};
    side.index = {record.chunk_fcc, is_key ? kIndexKeyFlag : 0, index_offset_of(position), len};
    side.frame = {static_cast<uint32_t>(position),
                  head.length == 0 ? 0 : head.length + static_cast<uint32_t>(sizeof(FrameHead)), m_rec_type, head.seconds,
                  head.microseconds};
    side.segment_count = static_cast<uint32_t>(m_recseg_strn.rec_seg_cnt);
    const int32_t free_slots = store_side_record(side);

    update_strn_recseg(is_audio, is_key, side.frame);
    if (is_audio) {
        count_audio(head);
    } else {
        count_video(head, free_slots);
    }
    return KELM_AVIFILE_OK;
}

int32_t kelm_avi_writer::store_frame(FrameRecHead *record, const void *data, uint32_t len, int32_t *position) {
    if (!m_full && static_cast<int64_t>(m_write_pos) + record->chunk_size + sizeof(*record) > kMaxMoviEnd) {
        LOG_WARN("file is full, drop all frames up to the next one, write_pos = %d\n", m_write_pos);
        m_full = true;
    }
    if (m_full) return KELM_AVIFILE_NO_ROOM;
    if (m_packet_mngr != nullptr) return m_packet_mngr->SetFrameData(record, data, static_cast<int32_t>(len), position);
    return store_direct(*record, data, len);
}

// A frame that could be written in part is taken back, so that the next one stands where its index entry says.
int32_t kelm_avi_writer::store_direct(const FrameRecHead &record, const void *data, uint32_t len) {
    const auto size = static_cast<int32_t>(len);
    const bool written = m_avi_fio.write_file(&record, sizeof(record)) == static_cast<int32_t>(sizeof(record)) &&
                         m_avi_fio.write_file(data, size) == size && (size % 2 == 0 || m_avi_fio.write_file("", 1) == 1);
    if (written) return KELM_AVIFILE_OK;
    m_avi_fio.truncate_file(m_write_pos);
    return KELM_AVIFILE_NO_ROOM;
}

// Gives the number of side records that still find room.
int32_t kelm_avi_writer::store_side_record(const FrameIdxRec &record) {
    int32_t free_slots = kDirectFreeSlots;
    if (m_packet_mngr != nullptr) {
        m_packet_mngr->SetIdxInfo(&record, &free_slots);
    } else if (m_side_stream.Write(&record, sizeof(record)) == sizeof(record)) {
        m_side_size += static_cast<int64_t>(sizeof(record));
    } else {
        LOG_TRACE();
        m_side_stream.Seek(m_side_size, platform::SeekFrom::begin);
    }
    return free_slots;
}

void kelm_avi_writer::count_audio(const FrameHead &head) {
    if (++m_audio_cnt != 1) return;
    const AudioStream stream = kelm_avi::make_audio_stream(head.audio_codec);
    kelm_avi::write_at(&m_head_stream, offsetof(AviHead, audio), &stream, sizeof(stream));
    kelm_avi::write_int(&m_head_stream, offsetof(AviHead, main.streams), 2);
    m_g711 = head.audio_codec == kAudioAlaw || head.audio_codec == kAudioMulaw;
}

void kelm_avi_writer::count_video(const FrameHead &head, int32_t free_slots) {
    if (++m_video_cnt == 1) {
        const VideoStream stream = kelm_avi::make_video_stream(head.width, head.height, head.codec_id);
        kelm_avi::write_at(&m_head_stream, offsetof(AviHead, video), &stream, sizeof(stream));
    }
    m_last_video_sec = head.seconds;
    m_last_video_usec = head.microseconds;
    const bool audio_lags = m_audio_cnt > 0 && m_rec_sec * kAudioPerSecond > static_cast<int64_t>(m_audio_cnt) + kAudioLag;
    if (audio_lags && free_slots > kFillerFreeSlots) write_silent_audio();
}

void kelm_avi_writer::write_silent_audio() {
    static constexpr uint8_t kSilence[kFillerG711] = {};
    FrameHead head{};
    head.uiStartId = KELM_AVIFILE_FRAME_START_ID;
    head.type = 8;
    for (int32_t i = 0; i < kFillerRun; ++i) write_frame(head, kSilence, m_g711 ? kFillerG711 : kFillerAdpcm);
}

// ---- Tables ----

void kelm_avi_writer::update_strn_recseg(bool is_audio, bool is_key, const KeyFrameEntry &entry) {
    note_key_frame(is_key, entry);
    if (is_audio) return;
    m_rec_usec += frame_duration(entry);
    if (m_rec_usec >= 1000000) {
        m_rec_usec -= 1000000;
        ++m_rec_sec;
    }
    note_segment(is_key, entry);
}

void kelm_avi_writer::note_key_frame(bool is_key, const KeyFrameEntry &entry) {
    RecSegStrn &table = m_recseg_strn;
    if (is_key) {
        if (table.key_frame_cnt < kMaxKeyFrames) table.key_frames[table.key_frame_cnt++] = entry;
        ++m_key_frame_seen;
    } else if (table.key_frame_cnt > 0) {
        table.key_frames[table.key_frame_cnt - 1].length += entry.length;
    }
}

// Recorded time that a video frame stands for, in microseconds. Finds gaps.
int64_t kelm_avi_writer::frame_duration(const KeyFrameEntry &entry) {
    RecSegStrn &table = m_recseg_strn;
    if (m_video_cnt == 0) {
        m_rec_sec = m_rec_usec = 0;
        m_seg_started = table.rec_seg_cnt = 0;
        m_new_seg = true;
        return kDefaultDuration;
    }
    if (table.rec_seg_cnt < 1) return kDefaultDuration;
    const auto last_end = static_cast<uint32_t>(table.segments[table.rec_seg_cnt - 1].end_sec);
    const auto interval = static_cast<int32_t>(entry.second - last_end);
    if (interval < 0 || interval >= kGap) {
        m_new_seg = true;
        LOG_INFO("has gap, interval = %d s, cur_time = %d, last_time = %d\n", interval, static_cast<int32_t>(entry.second),
                 static_cast<int32_t>(last_end));
        return kDefaultDuration;
    }
    if (interval > kLongestStep) return kDefaultDuration;
    return static_cast<int64_t>(static_cast<int32_t>(entry.second - m_last_video_sec)) * 1000000 +
           (static_cast<int64_t>(entry.microsecond) - m_last_video_usec);
}

void kelm_avi_writer::note_segment(bool is_key, const KeyFrameEntry &entry) {
    RecSegStrn &table = m_recseg_strn;
    const bool type_changed = table.rec_seg_cnt > 0 && table.segments[table.rec_seg_cnt - 1].rec_type != entry.rec_type;
    if (is_key && (m_new_seg || type_changed)) {
        m_new_seg = false;
        if (table.rec_seg_cnt < kMaxSegments) {
            table.segments[table.rec_seg_cnt++] = {entry.rec_type, static_cast<int64_t>(entry.second),
                                                   static_cast<int64_t>(entry.second)};
        }
        ++m_seg_started;
    }
    if (table.rec_seg_cnt > 0 && !m_new_seg) table.segments[table.rec_seg_cnt - 1].end_sec = entry.second;
}

int32_t kelm_avi_writer::get_recseg_info(RecSegEntry *entries, int32_t *count) const {
    return kelm_avi::copy_recseg_info(m_recseg_strn, entries, count);
}

int32_t kelm_avi_writer::get_data_size(int64_t begin, int64_t end, uint32_t mask) const {
    return kelm_avi::sum_data_size(m_recseg_strn, begin, end, mask);
}

int32_t kelm_avi_writer::get_recinfo(uint32_t *rec_type, int64_t *begin_sec, int64_t *end_sec) const {
    return kelm_avi::get_recinfo_of_entries(m_recseg_strn.segments, m_recseg_strn.rec_seg_cnt, rec_type, begin_sec, end_sec);
}

int32_t kelm_avi_writer::count_time_range(int64_t *end_sec) const {
    uint32_t rec_type = 0;
    int64_t begin_sec = 0;
    return end_sec == nullptr ? KELM_AVIFILE_OK : get_recinfo(&rec_type, &begin_sec, end_sec);
}

// ---- The writer thread ----

int32_t kelm_avi_writer::ThreadFunc(uint32_t) {
    if (m_packet_mngr == nullptr) {
        LOG_TRACE();
        return KELM_AVIFILE_FAILED;
    }
    CPacketManager::Pieces pieces;
    const bool have_block = m_packet_mngr->GetFrameData(&pieces, true) == KELM_AVIFILE_OK;
    const bool written = !have_block || write_pieces(pieces);
    if (!write_side_records() || !written) {
        m_write_failed = true;
        return KELM_AVIFILE_FAILED;
    }
    if (have_block) return KELM_AVIFILE_OK;
    check_name();
    m_write_thrd.WaitForTick(kIndexDelay);
    return KELM_AVIFILE_OK;
}

// A file that was removed, or whose volume went, takes what is written and keeps none of it: the next key frame has to go
// elsewhere. Looked at once a second.
void kelm_avi_writer::check_name() {
    if (++m_ticks < kTicksBetweenNameChecks) return;
    m_ticks = 0;
    if (!CFileManager::file_exists(m_avi_path.c_str())) m_write_failed = true;
}

// What could not be written stays in the ring: it still belongs at the place behind what was.
bool kelm_avi_writer::write_pieces(const CPacketManager::Pieces &pieces) {
    int32_t count = m_avi_fio.write_file(pieces.first, pieces.first_len);
    if (count == pieces.first_len && pieces.second_len > 0) {
        count += m_avi_fio.write_file(pieces.second, pieces.second_len);
    }
    m_packet_mngr->ReleaseFrameData(count);
    if (count == pieces.total()) return true;
    LOG_INFO("m_avi_fio.write_file error: write_len = %d, real_len = %d\n", pieces.total(), count);
    return false;
}

// Writes the side records that wait. A record that was written in part is written again at its place.
bool kelm_avi_writer::write_side_records() {
    CPacketManager::Pieces pieces;
    if (m_packet_mngr->GetIdxData(&pieces) != KELM_AVIFILE_OK) return true;
    size_t count = m_side_stream.Write(pieces.first, static_cast<size_t>(pieces.first_len));
    if (static_cast<int32_t>(count) == pieces.first_len && pieces.second_len > 0) {
        count += m_side_stream.Write(pieces.second, static_cast<size_t>(pieces.second_len));
    }
    const auto whole = static_cast<int32_t>(count - count % sizeof(FrameIdxRec));
    m_side_size += whole;
    m_packet_mngr->ReleaseIdxData(whole);
    if (whole == pieces.total()) return true;
    m_side_stream.Seek(m_side_size, platform::SeekFrom::begin);
    return false;
}

// ---- First stage of the close ----

int32_t kelm_avi_writer::close_fast(int32_t *file_size, int64_t *end_sec) {
    m_write_thrd.Stop();
    m_avi_fio.close_file();
    if (!has_streams()) return KELM_AVIFILE_FAILED;
    if (m_packet_mngr != nullptr && !flush_packets()) drop_torn_tail();
    const int64_t size = m_head_stream.Seek(0, platform::SeekFrom::end);
    kelm_avi::write_int(&m_head_stream, offsetof(AviHead, movi.size), static_cast<uint32_t>(size - kMoviCodePos));
    kelm_avi::write_at(&m_head_stream, kStrnPos, &m_recseg_strn, sizeof(m_recseg_strn));
    update_fhead();
    if (file_size != nullptr) *file_size = static_cast<int32_t>(size);
    return count_time_range(end_sec);
}

// Writes what the rings still hold behind what is in the files. The rings are not released: they are reset afterwards.
bool kelm_avi_writer::flush_packets() {
    m_packet_mngr->SetConsumer(nullptr);
    CPacketManager::Pieces pieces;
    bool written = true;
    if (m_packet_mngr->GetFrameData(&pieces, false) == KELM_AVIFILE_OK) {
        m_head_stream.Seek(0, platform::SeekFrom::end);
        for (const auto &[data, size] : {std::pair(pieces.first, pieces.first_len), {pieces.second, pieces.second_len}}) {
            const auto want = static_cast<size_t>(size);
            written = written && m_head_stream.Write(data, want) == want;
        }
    }
    write_side_records();  // frames without a side record stay in the file, and out of its index
    return written;
}

// The disk did not take everything: the file is cut behind its last whole frame record, and tables and counts are made anew
// from the side file, so that they know no more than that.
void kelm_avi_writer::drop_torn_tail() {
    const int64_t size = m_head_stream.Seek(0, platform::SeekFrom::end);
    const auto ignore = [](const Idx1Entry &) {};
    const kelm_avi::FrameCounts counts = kelm_avi::rebuild_tables(&m_side_stream, size, &m_recseg_strn, ignore);
    const int64_t end = kelm_avi::whole_records_end(&m_head_stream, counts.end, size);
    LOG_WARN("file %s is cut, size = %d, end = %d\n", m_avi_path.c_str(), static_cast<int32_t>(size),
             static_cast<int32_t>(end));
    if (!m_head_stream.Truncate(end)) LOG_TRACE();
    m_video_cnt = counts.video;
    m_audio_cnt = counts.audio;
    const kelm_avi::RecordedTime time = kelm_avi::recorded_time(m_recseg_strn);
    m_rec_sec = time.seconds;
    m_rec_usec = time.microseconds;
}

AviFileState kelm_avi_writer::copy_for_close() { return std::move(static_cast<AviFileState &>(*this)); }

int32_t kelm_avi_writer::close(int32_t *file_size, int64_t *end_sec) {
    close_fast(file_size, nullptr);
    close_finish();
    const int32_t result = count_time_range(end_sec);
    reset();
    return result;
}

}  // namespace kelm_recvault
