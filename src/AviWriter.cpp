#include "AviWriter.h"

#include <new>
#include <utility>

#include "GlobalObj.h"
#include "Log.h"
#include "Text.h"
#include "avi/avi_common.h"
#include "avi/h264avi.h"

namespace kelm_recvault {

namespace {

constexpr int64_t kMaxFileSeconds = 3600;
constexpr int64_t kIdleSeconds = 1800;
constexpr int32_t kFrameCost = 52;      // what a frame is reckoned at beside its data
constexpr uint32_t kAudioStep = 40000;  // microseconds between the audio frames of one delivery
constexpr size_t kManyWaitingFiles = 10;

FrameHead timed(const FrameHead &head, uint32_t sec, uint32_t usec) {
    FrameHead copy = head;
    copy.seconds = sec;
    copy.microseconds = usec;
    return copy;
}

}  // namespace

CAviWriter::~CAviWriter() {
    if (IsStarted()) StopRec();
}

// ---- Start and stop ----

int32_t CAviWriter::StartRec(uint32_t rec_type_mask, uint32_t dev_idx) {
    State idle = State::idle;
    if (!m_state.compare_exchange_strong(idle, State::starting)) {
        LOG_INFO("channel %d: record has stared\n", m_channel);
        return KELM_AVIFILE_FAILED;
    }
    m_dev_idx = dev_idx;
    int32_t result = m_lock.IsCreated() ? KELM_AVIFILE_OK : m_lock.Create();
    if (result == KELM_AVIFILE_OK) result = StartParts(rec_type_mask);
    if (result != KELM_AVIFILE_OK) LOG_TRACE();
    m_state = result == KELM_AVIFILE_OK ? State::started : State::idle;
    return result;
}

// All or nothing.
int32_t CAviWriter::StartParts(uint32_t rec_type_mask) {
    auto writer = std::unique_ptr<kelm_avi_writer>(new (std::nothrow) kelm_avi_writer);
    if (!writer) return KELM_AVIFILE_NO_MEMORY;
    const int32_t buffered = m_packet_mngr.Initialize(true);
    if (buffered != KELM_AVIFILE_OK) return buffered;
    const int32_t assisted = StartAssistThrd();
    if (assisted != KELM_AVIFILE_OK) {
        m_packet_mngr.Uninitialize();
        return assisted;
    }
    const CAutoMutex lock(&m_lock);
    m_rec_type = rec_type_mask;
    m_day = CGlobalObject::Instance().now_utc() / kSecondsPerDay;
    m_writer = std::move(writer);
    return KELM_AVIFILE_OK;
}

int32_t CAviWriter::StartAssistThrd() {
    int32_t result = m_sync_lock.Create();
    if (result != KELM_AVIFILE_OK) return result;
    result = m_thread.Start(this, 0, 0, "rcvt-assist");
    if (result != KELM_AVIFILE_OK) m_sync_lock.Close();
    return result;
}

int32_t CAviWriter::StopRec() {
    State started = State::started;
    if (!m_state.compare_exchange_strong(started, State::stopping)) {
        LOG_INFO("channel %d: record has not stared\n", m_channel);
        return KELM_AVIFILE_FAILED;
    }
    std::optional<ClosedFile> closed;
    {
        const CAutoMutex lock(&m_lock);
        closed = close_current();
        m_writer.reset();
    }
    Report(closed);
    StopParts();
    m_state = State::idle;
    return KELM_AVIFILE_OK;
}

void CAviWriter::StopForGood() {
    if (IsStarted()) StopRec();
    while (m_state != State::idle) platform::sleep_ms(1);
}

void CAviWriter::StopParts() {
    StopAssistThrd();
    m_packet_mngr.Uninitialize();
    m_dev_idx = 0;
    const CAutoMutex lock(&m_lock);
    m_rec_type = 1;
    m_width = m_height = 0;
    m_codec_id = 1;
    m_day = 0;
    m_need_switch = false;
    m_disk_idx = -1;
    m_max_file_size = RecFileName{}.max_file_size;
}

void CAviWriter::StopAssistThrd() {
    if (m_thread.Stop() != KELM_AVIFILE_OK) LOG_TRACE();
    std::vector<FileToFinish> left;
    {
        const CAutoMutex lock(&m_sync_lock);
        left.swap(m_sync_list);
    }
    for (FileToFinish &file : left) file.Finish();
    m_sync_lock.Close();
}

void CAviWriter::FileToFinish::Finish() {
    file.close_finish();
    ask_storage::ReleasePartition(disk_idx, 1);
}

int32_t CAviWriter::SetRecordType(uint32_t mask) {
    if (!IsStarted()) {
        LOG_TRACE();
        return KELM_AVIFILE_NOT_RUNNING;
    }
    const CAutoMutex lock(&m_lock);
    if (!m_writer) {
        LOG_TRACE();
        return KELM_AVIFILE_NOT_RUNNING;
    }
    if (file_open()) m_file.type |= mask;
    m_rec_type = mask;
    m_writer->set_rec_type(mask);
    return KELM_AVIFILE_OK;
}

// ---- Frames ----

int32_t CAviWriter::SetRecFrame(const FrameHead &head, const void *data, uint32_t data_len, uint32_t sec, uint32_t usec) {
    if (!IsStarted()) {
        LOG_INFO("channel %d: record has not stared\n", m_channel);
        return KELM_AVIFILE_NOT_RUNNING;
    }
    if (is_audio_frame(head.type)) {
        for_each_audio_frame(head, data, data_len, [&](uint32_t number, const FrameHead &frame, const uint8_t *bytes) {
            const uint64_t frame_usec = static_cast<uint64_t>(usec) + static_cast<uint64_t>(number) * kAudioStep;
            const uint32_t carry = frame_usec >= 1000000 ? 1 : 0;
            write_avi_file(timed(frame, sec + carry, static_cast<uint32_t>(frame_usec - carry * 1000000ULL)), bytes,
                           head.length);
        });
    } else if (is_video_frame(head.type)) {
        write_avi_file(timed(head, sec, usec), data, data_len);
    } else {
        log_unexpected_frame(head, data_len);
    }
    return KELM_AVIFILE_OK;
}

int32_t CAviWriter::write_avi_file(const FrameHead &head, const void *data, uint32_t data_len) {
    const CAutoMutex lock(&m_lock);
    if (!m_writer) {
        LOG_TRACE();
        return KELM_AVIFILE_NOT_RUNNING;
    }
    const bool is_key = is_i_frame(head.type);
    if (is_key) {
        // A key frame that the ring will refuse must not end a file, nor begin an empty one.
        const int32_t checked = CPacketManager::CheckFrame(head, data, static_cast<int32_t>(data_len));
        if (checked != KELM_AVIFILE_OK) return checked;
        switch_if_needed(head);
        if (!m_writer) return KELM_AVIFILE_NOT_RUNNING;
    }
    if (!file_open()) {
        if (!is_key) return KELM_AVIFILE_OK;
        const int32_t opened = open_next_file(head);
        if (opened != KELM_AVIFILE_OK) return opened;
    }
    if (m_writer->write_data(head, data, data_len) != KELM_AVIFILE_OK) return KELM_AVIFILE_OK;
    if (is_video_frame(head.type)) m_file.end_sec = head.seconds;
    m_file.file_size += static_cast<int32_t>(data_len) + kFrameCost;
    return KELM_AVIFILE_OK;
}

// ---- The rules that end a file ----

void CAviWriter::check_picture(const FrameHead &head) {
    const uint32_t width = head.width;
    const uint32_t height = head.height;
    if (width != m_width || height != m_height) {
        if (file_open()) {
            LOG_INFO("[%02d] resolution changed, need to switch file, now = (%d, %d), origin = (%d, %d)\n", m_channel,
                     static_cast<int32_t>(width), static_cast<int32_t>(height), static_cast<int32_t>(m_width),
                     static_cast<int32_t>(m_height));
            m_need_switch = true;
        }
        m_width = width;
        m_height = height;
    }
    const int32_t codec_id = head.codec_id;
    if (codec_id != m_codec_id) {
        if (file_open()) {
            LOG_INFO("[%02d] codec id changed, need to switch file, now = %d, last = %d\n", m_channel, codec_id, m_codec_id);
            m_need_switch = true;
        }
        m_codec_id = codec_id;
    }
}

void CAviWriter::check_limits(uint32_t cur_sec) {
    const int64_t second = cur_sec;
    const int64_t day = second / kSecondsPerDay;
    if (day != m_day) {
        if (file_open()) {
            LOG_INFO("[%02d] day changed, need to switch file, now = %d, last = %d\n", m_channel, static_cast<int32_t>(day),
                     static_cast<int32_t>(m_day));
            m_need_switch = true;
        }
        m_day = day;
    }
    if (!file_open()) return;
    if (m_file.file_size >= m_max_file_size || second - m_file.begin_sec >= kMaxFileSeconds || second < m_file.end_sec) {
        LOG_INFO(
            "[%02d] file_size or time exceed, need to switch file, file_size = %d (%d), cur_sec = %d, begin_sec = %d, "
            "end_sec = %d\n",
            m_channel, m_file.file_size, m_max_file_size, static_cast<int32_t>(cur_sec),
            static_cast<int32_t>(m_file.begin_sec), static_cast<int32_t>(m_file.end_sec));
        m_need_switch = true;
    }
    if (m_writer->need_switch_file()) {
        LOG_INFO("[%02d] too many i frame or segments, need to switch file\n", m_channel);
        m_need_switch = true;
    }
    if (m_writer->write_failed()) {
        LOG_INFO("[%02d] write failed, need to switch file\n", m_channel);
        m_need_switch = true;
    }
}

void CAviWriter::switch_if_needed(const FrameHead &head) {
    check_picture(head);
    check_limits(head.seconds);
    if (!m_need_switch) return;
    m_need_switch = false;
    const std::optional<ClosedFile> closed = close_current();
    const CAutoUnlock unlock(&m_lock);
    Report(closed);
}

// ---- Opening and closing ----

int32_t CAviWriter::open_next_file(const FrameHead &head) {
    const uint32_t opened_before = m_opened;
    RecFileName name{};
    {
        const CAutoUnlock unlock(&m_lock);
        if (ask_storage::GetRecFileName(m_dev_idx, m_channel, head.seconds, &name) != KELM_AVIFILE_OK) {
            return KELM_AVIFILE_FAILED;
        }
    }
    // Gone: the recording was stopped. Opened meanwhile by another thread that delivers on this channel: the name is not
    // free.
    const bool mine = m_writer && m_opened == opened_before && open_named_file(name, head);
    if (mine) {
        report_open();
    } else {
        const CAutoUnlock unlock(&m_lock);
        ask_storage::ReleasePartition(name.disk_idx, kHoldsOfAFile);
    }
    return file_open() ? KELM_AVIFILE_OK : KELM_AVIFILE_FAILED;
}

bool CAviWriter::open_named_file(const RecFileName &name, const FrameHead &head) {
    if (m_writer->open_file(name.path, head.width, head.height, &m_packet_mngr) != KELM_AVIFILE_OK) {
        LOG_TRACE();
        return false;
    }
    ++m_opened;
    m_writer->set_rec_type(m_rec_type);
    m_disk_idx = name.disk_idx;
    m_max_file_size = name.max_file_size;
    m_file = RecFileNode{};
    copy_text(m_file.rec_file_path, name.path);
    m_file.type = m_rec_type;
    m_file.begin_sec = m_file.end_sec = head.seconds;
    m_file.channel = static_cast<uint32_t>(m_channel);
    m_file.file_size = kHeadSize;
    return true;
}

void CAviWriter::report_open() {
    const RecFileNode node = m_file;
    const int32_t disk_idx = m_disk_idx;
    m_reporting = true;
    {
        const CAutoUnlock unlock(&m_lock);
        ask_storage::AddRecNodeInfo(disk_idx, node, true);
    }
    m_reporting = false;
}

// First stage of the close of the open file, if there is one; what is to be reported comes back.
std::optional<CAviWriter::ClosedFile> CAviWriter::close_current() {
    while (m_reporting) {
        const CAutoUnlock unlock(&m_lock);
        platform::sleep_ms(1);
    }
    if (!file_open()) return std::nullopt;
    close_avi_fast(&m_file.file_size, &m_file.end_sec);
    const ClosedFile closed{m_file, m_disk_idx};
    m_file = RecFileNode{};
    return closed;
}

int32_t CAviWriter::close_avi_fast(int32_t *file_size, int64_t *end_sec) {
    m_writer->close_fast(file_size, end_sec);
    FileToFinish file{m_writer->copy_for_close(), m_disk_idx};
    m_writer->reset();
    m_packet_mngr.ResetBuffers();
    const CAutoMutex lock(&m_sync_lock);
    if (m_sync_list.size() > kManyWaitingFiles) {
        LOG_WARN("too many avi files wait to sync, count = %d\n", static_cast<int32_t>(m_sync_list.size()));
    }
    m_sync_list.push_back(std::move(file));
    m_thread.Wake();
    return KELM_AVIFILE_OK;
}

void CAviWriter::Report(const std::optional<ClosedFile> &closed) {
    if (!closed) return;
    ask_storage::AddRecNodeInfo(closed->disk_idx, closed->node, false);
    ask_storage::ReleasePartition(closed->disk_idx, 1);
}

int32_t CAviWriter::ThreadFunc(uint32_t) {
    std::optional<FileToFinish> file;
    {
        const CAutoMutex lock(&m_sync_lock);
        if (!m_sync_list.empty()) {
            file = std::move(m_sync_list.front());
            m_sync_list.erase(m_sync_list.begin());
        }
    }
    if (file) {
        file->Finish();
    } else {
        m_thread.WaitForWork(platform::kForever);
    }
    return KELM_AVIFILE_OK;
}

int32_t CAviWriter::SwitchRecFile() {
    if (!IsStarted()) {
        LOG_TRACE();
        return KELM_AVIFILE_NOT_RUNNING;
    }
    std::optional<ClosedFile> closed;
    {
        const CAutoMutex lock(&m_lock);
        if (!m_writer) {
            LOG_TRACE();
            return KELM_AVIFILE_NOT_RUNNING;
        }
        if (file_open()) LOG_INFO("[%02d] switch file, maybe disk is full\n", m_channel);
        closed = close_current();
    }
    Report(closed);
    return KELM_AVIFILE_OK;
}

int32_t CAviWriter::SwitchRecFileByName(const char *path) { return IsWriting(path) ? SwitchRecFile() : KELM_AVIFILE_FAILED; }

// ---- Questions ----

bool CAviWriter::IsWriting(const char *path) {
    if (!MayHaveFile()) return false;
    const CAutoMutex lock(&m_lock);
    return is_open_file(path);
}

int32_t CAviWriter::GetRecInfo(const char *path, uint32_t *type, int64_t *begin_sec, int64_t *end_sec) {
    if (MayHaveFile()) {
        const CAutoMutex lock(&m_lock);
        if (is_open_file(path)) return m_writer->get_recinfo(type, begin_sec, end_sec);
    }
    return avi_get_recinfo_by_name(path, type, begin_sec, end_sec);
}

int32_t CAviWriter::GetRecSegInfo(const char *path, RecSegEntry *entries, int32_t *count) {
    if (MayHaveFile()) {
        const CAutoMutex lock(&m_lock);
        if (is_open_file(path)) return m_writer->get_recseg_info(entries, count);
    }
    return avi_get_recseg_by_name(path, entries, count);
}

int32_t CAviWriter::GetRecDataSize(const char *path, int64_t begin, int64_t end, uint32_t mask, int32_t *size) {
    *size = 0;
    if (MayHaveFile()) {
        const CAutoMutex lock(&m_lock);
        if (is_open_file(path)) {
            *size = m_writer->get_data_size(begin, end, mask);
            return KELM_AVIFILE_OK;
        }
    }
    return kelm_avi::avi_get_data_size(path, begin, end, mask, size);
}

bool CAviWriter::IsRecording() {
    if (!MayHaveFile()) return false;
    const CAutoMutex lock(&m_lock);
    return m_writer != nullptr;
}

bool CAviWriter::IsNeedToClose(int64_t now) {
    if (!IsStarted()) {
        LOG_TRACE();
        return false;
    }
    const CAutoMutex lock(&m_lock);
    return m_file.end_sec > 0 && now - m_file.end_sec > kIdleSeconds;
}

int32_t CAviWriter::GetCurRecFileSize(int32_t disk_idx) {
    if (!IsStarted()) {
        LOG_TRACE();
        return 0;
    }
    const CAutoMutex lock(&m_lock);
    return m_disk_idx == disk_idx && m_file.file_size > 0 ? m_file.file_size : 0;
}

}  // namespace kelm_recvault
