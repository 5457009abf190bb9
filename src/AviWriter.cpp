#include "AviWriter.h"

#include <cstring>
#include <new>
#include <utility>

#include "GlobalObj.h"
#include "Log.h"
#include "Text.h"

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
    if (result == KELM_AVIFILE_OK) result = StartParts();
    if (result != KELM_AVIFILE_OK) {
        LOG_TRACE();
        m_state = State::idle;
        return result;
    }
    {
        const CAutoMutex lock(&m_lock);
        m_rec_type = rec_type_mask;
        m_day = CGlobalObject::Instance().now_utc() / kSecondsPerDay;
    }
    m_state.store(State::started, std::memory_order_release);
    return KELM_AVIFILE_OK;
}

// All or nothing.
int32_t CAviWriter::StartParts() {
    auto writer = std::unique_ptr<kelm_avi_writer>(new (std::nothrow) kelm_avi_writer);
    if (!writer) {
        LOG_TRACE();
        return KELM_AVIFILE_NO_MEMORY;
    }
    const int32_t buffered = m_packet_mngr.Initialize(true);
    if (buffered != KELM_AVIFILE_OK) {
        LOG_TRACE();
        return buffered;
    }
    const int32_t assisted = StartAssistThrd();
    if (assisted != KELM_AVIFILE_OK) {
        LOG_TRACE();
        m_packet_mngr.Uninitialize();
        return assisted;
    }
    const CAutoMutex lock(&m_lock);
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
    m_state.store(State::idle, std::memory_order_release);
    return KELM_AVIFILE_OK;
}

void CAviWriter::StopParts() {
    StopAssistThrd();
    m_packet_mngr.Uninitialize();
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
    {
        const CAutoMutex lock(&m_sync_lock);
        for (AviFileState &file : m_sync_list) file.close_finish();
        m_sync_list.clear();
        m_sync_list.shrink_to_fit();
    }
    m_sync_lock.Close();
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
    if (is_audio_frame(head.type)) return SetAudioFrames(head, static_cast<const uint8_t *>(data), data_len, sec, usec);
    if (is_video_frame(head.type)) {
        write_avi_file(timed(head, sec, usec), data, data_len);
    } else {
        LogUnexpected(head, data_len);
    }
    return KELM_AVIFILE_OK;
}

void CAviWriter::LogUnexpected(const FrameHead &head, uint32_t data_len) {
    LOG_WARN("unexpected frame, type = %d, len = %d\n", static_cast<int32_t>(head.type), static_cast<int32_t>(data_len));
}

// The data of the first frame, then the head and the data of each further one.
int32_t CAviWriter::SetAudioFrames(const FrameHead &head, const uint8_t *data, uint32_t data_len, uint32_t sec,
                                   uint32_t usec) {
    const uint32_t count = audio_frames_in_delivery(data_len, head.length);
    const uint32_t length = head.length;
    FrameHead frame = head;
    for (uint32_t i = 0; i < count; ++i) {
        const uint64_t frame_usec = static_cast<uint64_t>(usec) + static_cast<uint64_t>(i) * kAudioStep;
        const uint32_t carry = frame_usec >= 1000000 ? 1 : 0;
        if (is_audio_frame(frame.type)) {
            write_avi_file(timed(frame, sec + carry, static_cast<uint32_t>(frame_usec - carry * 1000000ULL)), data, length);
        } else {
            LogUnexpected(frame, length);
        }
        if (i + 1 == count) break;
        std::memcpy(&frame, data + length, sizeof(frame));
        data += length + sizeof(frame);
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
    const uint32_t cur_sec = head.seconds;
    const uint32_t opened_before = m_opened;
    RecFileName name{};
    int32_t named = KELM_AVIFILE_OK;
    {
        const CAutoUnlock unlock(&m_lock);
        named = ask_storage::GetRecFileName(m_dev_idx, m_channel, cur_sec, &name);
    }
    if (file_open()) return KELM_AVIFILE_OK;  // by another thread that delivers on this channel
    // Gone: the recording was stopped. Opened meanwhile, and closed again: the name is not free any more.
    if (named != KELM_AVIFILE_OK || !m_writer || m_opened != opened_before) return KELM_AVIFILE_FAILED;
    if (m_writer->open_file(name.path, head.width, head.height, &m_packet_mngr) != KELM_AVIFILE_OK) {
        LOG_TRACE();
        return KELM_AVIFILE_FAILED;
    }
    begin_file(name, cur_sec);
    const RecFileNode node = m_file;
    const uint32_t opened = m_opened;
    int32_t reported = KELM_AVIFILE_OK;
    {
        const CAutoUnlock unlock(&m_lock);
        reported = ask_storage::AddRecNodeInfo(name.disk_idx, node, true);
    }
    if (!file_open()) return KELM_AVIFILE_FAILED;
    // The partition was taken out of use between the name and the report: the file ends with the next key frame.
    if (reported != KELM_AVIFILE_OK && opened == m_opened) m_need_switch = true;
    return KELM_AVIFILE_OK;
}

void CAviWriter::begin_file(const RecFileName &name, uint32_t cur_sec) {
    ++m_opened;
    m_writer->set_rec_type(m_rec_type);
    m_disk_idx = name.disk_idx;
    m_max_file_size = name.max_file_size;
    m_file = RecFileNode{};
    copy_text(m_file.rec_file_path, name.path);
    m_file.type = m_rec_type;
    m_file.begin_sec = m_file.end_sec = cur_sec;
    m_file.channel = static_cast<uint32_t>(m_channel);
    m_file.file_size = kHeadSize;
}

// First stage of the close of the open file, if there is one; what is to be reported comes back.
std::optional<CAviWriter::ClosedFile> CAviWriter::close_current() {
    if (!file_open()) return std::nullopt;
    close_avi_fast(&m_file.file_size, &m_file.end_sec);
    const ClosedFile closed{m_file, m_disk_idx};
    m_file = RecFileNode{};
    return closed;
}

int32_t CAviWriter::close_avi_fast(int32_t *file_size, int64_t *end_sec) {
    m_writer->close_fast(file_size, end_sec);
    AviFileState file = m_writer->copy_for_close();
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
    if (closed) ask_storage::AddRecNodeInfo(closed->disk_idx, closed->node, false);
}

int32_t CAviWriter::ThreadFunc(uint32_t) {
    std::optional<AviFileState> file;
    {
        const CAutoMutex lock(&m_sync_lock);
        if (!m_sync_list.empty()) {
            file = std::move(m_sync_list.front());
            m_sync_list.erase(m_sync_list.begin());
        }
    }
    if (file) {
        file->close_finish();
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

// ---- Questions ----

bool CAviWriter::IsRecording() {
    if (!IsStarted()) return false;
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
