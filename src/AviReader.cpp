#include "AviReader.h"

#include <algorithm>
#include <cstring>
#include <new>

#include "GlobalObj.h"
#include "Log.h"
#include "RecDevManager.h"
#include "StorageManager.h"

namespace kelm_recvault {

namespace {

constexpr int32_t kHeadLen = sizeof(FrameHead);
constexpr int32_t kLargeFrame = 0x10000;

// Pauses in milliseconds.
constexpr int32_t kNotStarted = 20;
constexpr int32_t kFramePending = 500;  // at most: what ends the waiting of a frame wakes the thread
constexpr int32_t kLiveEnd = 20;
constexpr int32_t kNoFurtherFile = 500;
constexpr int32_t kRangeEnd = 100;
constexpr int32_t kSynchronised = 5;
constexpr int32_t kNothingRead = 5;
constexpr int32_t kFreeRunning = 1;

CStorageMngr &storage() { return CGlobalObject::Instance().StorageMngr(); }
CRecDevMngr &recording() { return CGlobalObject::Instance().RecDevMngr(); }

int64_t day_of(int64_t time) { return time / kSecondsPerDay; }

int32_t log_sec(int64_t time) { return static_cast<int32_t>(time); }

}  // namespace

CAviReader::~CAviReader() {
    if (m_bStarted) StopRead();
}

// ---- Start and stop ----

int32_t CAviReader::Assign(int32_t channel) {
    const int32_t locked = m_read_mutex.Create();
    const int32_t result = locked == KELM_AVIFILE_OK ? m_frame_mutex.Create() : locked;
    if (result != KELM_AVIFILE_OK) {
        LOG_TRACE();
        m_read_mutex.Close();
        return result;
    }
    m_nChannel = channel;
    return KELM_AVIFILE_OK;
}

// Runs alone: the thread has ended, or has never been there.
void CAviReader::Reset() RCVT_NO_ANALYSIS {
    CloseFile();
    m_avi_reader.set_reverse(false);
    m_nChannel = kFree;
    m_listener = {};
    m_bSync = true;
    m_pReadList.reset();
    m_range = {};
    m_read_list.clear();
    m_cur_name.clear();
    m_seg_btime = m_seg_etime = m_seek_time = 0;
    m_bFileEnd = m_bFileUsedUp = m_bLive = false;
    m_read_mode = kelm_avi_reader::kAllFrames;
    m_key_skip = 0;
    DropFrame();
    m_bPaused = true;
    m_frame_head = {};
    m_read_status = ReadStatus::reading;
    m_frame_mutex.Close();
    m_read_mutex.Close();
}

void CAviReader::SetReadParam(const PopRange &range) {
    const CAutoMutex lock(&m_read_mutex);
    m_range = range;
}

int32_t CAviReader::StartRead(const PopListener &listener, bool sync) {
    if (m_bStarted) {
        LOG_INFO("channel %d: read has stared\n", m_nChannel);
        return KELM_AVIFILE_FAILED;
    }
    m_listener = listener;
    m_bSync = sync;
    m_pReadList.reset(new (std::nothrow) uint8_t[kelm_avi_reader::kBufferSize]);
    const int32_t result = m_pReadList ? StartReadThrd() : KELM_AVIFILE_NO_MEMORY;
    if (result != KELM_AVIFILE_OK) {
        LOG_TRACE();
        Reset();
        return result;
    }
    m_bStarted = true;
    m_thread.Wake();
    return KELM_AVIFILE_OK;
}

int32_t CAviReader::StartReadThrd() {
    const int32_t opened = OpenFirst();
    if (opened != KELM_AVIFILE_OK) return opened;
    const int32_t started = m_thread.Start(this, 0, 0, "rcvt-read");
    if (started != KELM_AVIFILE_OK) LOG_TRACE();
    return started;
}

// A reader that follows a recording starts without any file, too.
int32_t CAviReader::OpenFirst() {
    const CAutoMutex lock(&m_read_mutex);
    const bool one_day = day_of(m_range.begin_time) == day_of(m_range.end_time);
    if (one_day && day_of(m_range.begin_time) != day_of(CGlobalObject::Instance().now_utc())) m_range.follow_live = false;
    if (UpdateRecFileLst() != KELM_AVIFILE_OK && !m_range.follow_live) {
        LOG_TRACE();
        return KELM_AVIFILE_FAILED;
    }
    const int32_t opened = OpenFileByTime(m_range.begin_time);
    if (opened == KELM_AVIFILE_OK || m_range.follow_live) return KELM_AVIFILE_OK;
    LOG_TRACE();
    return opened;
}

int32_t CAviReader::StopRead() {
    if (!m_bStarted) {
        LOG_INFO("channel %d: read has not stared\n", m_nChannel);
        Reset();
        return KELM_AVIFILE_FAILED;
    }
    if (m_thread.Stop() != KELM_AVIFILE_OK) LOG_TRACE();
    m_bStarted = false;
    Reset();
    return KELM_AVIFILE_OK;
}

// ---- Requests ----

int32_t CAviReader::ReadSeek(int64_t time) {
    if (!m_bStarted) {
        LOG_INFO("channel %d: read has not stared\n", m_nChannel);
        return KELM_AVIFILE_NOT_RUNNING;
    }
    {
        const CAutoMutex lock(&m_read_mutex);
        m_seek_time = time;
        if (time > 0) ClearFrame();
    }
    m_thread.Wake();
    return KELM_AVIFILE_OK;
}

int32_t CAviReader::ReadReverse(bool reverse) {
    if (!m_bStarted) {
        LOG_TRACE();
        return KELM_AVIFILE_NOT_RUNNING;
    }
    const CAutoMutex lock(&m_read_mutex);
    m_avi_reader.set_reverse(reverse);
    return KELM_AVIFILE_OK;
}

void CAviReader::SetReadMode(int32_t mode, int32_t key_skip, uint32_t rec_type) {
    const CAutoMutex lock(&m_read_mutex);
    m_read_mode = mode;
    m_key_skip = key_skip;
    m_range.rec_type = rec_type;
}

void CAviReader::SetPaused(bool paused) {
    if (!m_bStarted) return;
    {
        const CAutoMutex lock(&m_frame_mutex);
        m_bPaused = paused;
    }
    m_thread.Wake();
}

uint64_t CAviReader::GetPopDataSize() {
    PopRange range;
    {
        const CAutoMutex lock(&m_read_mutex);
        if (m_range.end_time == 0) {
            LOG_INFO("end time is zero, force to the end time of the day\n");
            m_range.end_time = day_of(m_range.begin_time) * kSecondsPerDay + kSecondsPerDay - 1;
        }
        range = m_range;
    }
    RecFileSet files;
    const RecQuery query{range.dev_idx, m_nChannel, range.rec_type, true};
    if (storage().QueryRecFile(query, range.begin_time, range.end_time, true, &files) != KELM_AVIFILE_OK) {
        LOG_INFO("not find any files: rectype = %d, begin_time = %d, end_time = %d\n", static_cast<int32_t>(range.rec_type),
                 log_sec(range.begin_time), log_sec(range.end_time));
        return 0;
    }
    uint64_t total = 0;
    for (const RecFileNode &file : files) {
        int32_t size = 0;
        if (recording().GetRecDataSize(file.channel, file.rec_file_path, range.begin_time, range.end_time, range.rec_type,
                                       &size) == KELM_AVIFILE_OK) {
            total += static_cast<uint64_t>(std::max(size, 0));
        }
    }
    return total;
}

// ---- What the data pop asks ----

int32_t CAviReader::GetSegBeginTime(int64_t *time) {
    if (!m_bStarted) return KELM_AVIFILE_NOT_RUNNING;
    const CAutoMutex lock(&m_read_mutex);
    if (m_seg_btime == 0 || m_seg_etime == 0) return KELM_AVIFILE_FAILED;
    *time = m_seg_btime;
    return KELM_AVIFILE_OK;
}

int32_t CAviReader::GetCurFrameHead(FrameHead *head) {
    if (!m_bStarted) return KELM_AVIFILE_FAILED;
    const CAutoMutex lock(&m_frame_mutex);
    if (m_read_status != ReadStatus::reading) return KELM_AVIFILE_NOT_FOUND;
    if (m_frame_head.seconds == 0) return KELM_AVIFILE_FAILED;
    *head = m_frame_head;
    return KELM_AVIFILE_OK;
}

void CAviReader::SetFrameState(FrameState state) {
    if (!m_bStarted) return;
    bool set_free = false;
    {
        const CAutoMutex lock(&m_frame_mutex);
        set_free = m_pFrame != nullptr && m_bHold && state != FrameState::hold;
        if (state == FrameState::drop) {
            DropFrame();
        } else {
            m_bHold = state == FrameState::hold;
        }
    }
    if (set_free) m_thread.Wake();
}

void CAviReader::DropFrame() {
    m_pFrame = nullptr;
    m_nFrameLen = 0;
    m_bHold = true;
}

void CAviReader::ClearFrame() {
    const CAutoMutex lock(&m_frame_mutex);
    DropFrame();
    m_frame_head = {};
    m_read_status = ReadStatus::reading;
}

bool CAviReader::IsFramePending() {
    const CAutoMutex lock(&m_frame_mutex);
    return m_pFrame != nullptr;
}

// ---- The read list ----

int32_t CAviReader::UpdateRecFileLst() {
    if (!m_read_list.empty() && !m_range.follow_live) return KELM_AVIFILE_OK;  // what is finished does not change
    m_read_list.clear();
    RecFileSet files;
    const RecQuery query{m_range.dev_idx, m_nChannel, m_range.rec_type, true};
    storage().QueryRecFile(query, m_range.begin_time, m_range.end_time, true, &files);
    for (const RecFileNode &file : files) InsertSegments(file);
    if (files.empty() || (m_read_list.empty() && !m_range.follow_live)) {
        LOG_TRACE();
        return KELM_AVIFILE_NOT_FOUND;
    }
    return KELM_AVIFILE_OK;
}

// A file that cannot tell its segments is passed over.
void CAviReader::InsertSegments(const RecFileNode &file) {
    std::array<RecSegEntry, kMaxSegments> entries{};
    int32_t count = kMaxSegments;
    if (recording().GetRecSegInfo(file.channel, file.rec_file_path, entries.data(), &count) != KELM_AVIFILE_OK) return;
    const int64_t last = m_range.end_time != 0 ? m_range.end_time : kLastTime;
    auto inserted = m_read_list.end();
    for (int32_t i = 0; i < count; ++i) {
        const auto [rec_type, first_sec, last_sec] = entries[static_cast<size_t>(i)];
        RecFileNode element = file;
        element.type = rec_type;
        element.begin_sec = std::max(int64_t{first_sec}, m_range.begin_time);
        element.end_sec = std::min(int64_t{last_sec}, last);
        if (element.begin_sec > element.end_sec || (rec_type & m_range.rec_type) == 0) continue;
        // Stretches that begin in one second, as the range may cut them, are one element: path and begin tell it.
        if (inserted != m_read_list.end() && inserted->begin_sec == element.begin_sec) {
            element.type |= inserted->type;
            element.end_sec = std::max(element.end_sec, inserted->end_sec);
            m_read_list.erase(inserted);
        }
        inserted = m_read_list.insert(element);
    }
}

// The element that holds a time, or else the first one behind it. A time before the range, on its first day, widens the
// range.
std::string CAviReader::GetFileNameByTime(int64_t time, int64_t *begin, int64_t *end) {
    if (time < m_range.begin_time && day_of(time) == day_of(m_range.begin_time)) {
        m_range.begin_time = time;
        m_read_list.clear();
        UpdateRecFileLst();
    }
    for (bool refreshed = false;; refreshed = true) {
        *begin = *end = 0;
        std::string seek_name;
        std::string near_name;
        for (const RecFileNode &element : m_read_list) {
            const bool holds = element.begin_sec <= time && time <= element.end_sec;
            if (!holds && element.begin_sec <= time) continue;
            (holds ? seek_name : near_name) = element.rec_file_path;
            *begin = element.begin_sec;
            *end = element.end_sec;
            break;
        }
        LOG_INFO("seek_name = %s, near_name = %s\n", seek_name.c_str(), near_name.c_str());
        if (!seek_name.empty()) return seek_name;
        if (!near_name.empty() || !m_range.follow_live || refreshed) return near_name;
        UpdateRecFileLst();
    }
}

CAviReader::Position CAviReader::FindBehind(const std::string &path, int64_t begin) const {
    auto element = m_read_list.begin();
    for (; element != m_read_list.end() && element->begin_sec <= begin; ++element) {
        if (element->begin_sec == begin && path == element->rec_file_path) return std::next(element);
    }
    return element;
}

// The element behind a given one. With an empty path and a begin of 0 it is the first. A file that was read to its end is
// not read again for elements that its table showed later.
std::string CAviReader::GetNextFileName(const std::string &path, int64_t *begin, int64_t *end) {
    const int64_t begin_given = *begin;
    for (bool refreshed = false;; refreshed = true) {
        *begin = *end = 0;
        auto next = FindBehind(path, begin_given);
        while (m_bFileUsedUp && next != m_read_list.end() && m_cur_name == next->rec_file_path) ++next;
        if (next != m_read_list.end()) {
            *begin = next->begin_sec;
            *end = next->end_sec;
            return next->rec_file_path;
        }
        if (!m_range.follow_live || refreshed) return {};
        UpdateRecFileLst();
    }
}

bool CAviReader::IsTimeInFile(const std::string &path, int64_t time) const {
    return std::any_of(m_read_list.begin(), m_read_list.end(), [&](const RecFileNode &element) {
        return element.begin_sec <= time && time <= element.end_sec && path == element.rec_file_path;
    });
}

// ---- Opening ----

void CAviReader::SetCurFile(const std::string &path, int64_t begin, int64_t end) {
    if (path != m_cur_name) m_bLive = false;
    m_cur_name = path;
    m_seg_btime = begin;
    m_seg_etime = end;
    m_bFileEnd = m_bFileUsedUp = false;
}

void CAviReader::CloseFile() {
    if (m_avi_reader.is_opened()) m_avi_reader.close_file();
}

// Enters an element, or the first one behind it that can be entered; `path`, `begin` and `end` become its own.
int32_t CAviReader::OpenFileByName(std::string *path, int64_t *begin, int64_t *end) {
    for (; !path->empty(); *path = GetNextFileName(*path, begin, end)) {
        if (*path != m_cur_name || !m_avi_reader.is_opened()) {
            CloseFile();
            LOG_INFO("open file: %s\n", path->c_str());
            const int32_t opened = m_avi_reader.open_file(path->c_str(), m_pReadList.get());
            if (opened == KELM_AVIFILE_OK && m_avi_reader.is_opened()) break;
            LOG_WARN("nRet = %d, is_opened = %d, m_pReadList = %p\n", opened, m_avi_reader.is_opened() ? 1 : 0,
                     static_cast<void *>(m_pReadList.get()));
        } else {
            LOG_INFO("no need to open: %s, just to seek: %d\n", path->c_str(), log_sec(*begin));
            if (m_avi_reader.seek_time(*begin) == KELM_AVIFILE_OK) break;
            LOG_TRACE();
        }
    }
    if (path->empty()) {
        CloseFile();
        return KELM_AVIFILE_FAILED;
    }
    SetCurFile(*path, *begin, *end);
    return KELM_AVIFILE_OK;
}

int32_t CAviReader::OpenFileByTime(int64_t time) {
    int64_t begin = 0;
    int64_t end = 0;
    std::string path = GetFileNameByTime(time, &begin, &end);
    if (path.empty() && m_range.follow_live && !m_read_list.empty()) {
        // Ahead of a recording that is followed: to its live end.
        const RecFileNode &last = *m_read_list.rbegin();
        if (IsWriting(last.rec_file_path)) {
            path = last.rec_file_path;
            begin = last.begin_sec;
            time = end = last.end_sec;
        }
    }
    while (!path.empty()) {
        if (path != m_cur_name || !m_avi_reader.is_opened()) {
            CloseFile();
            const int32_t opened = OpenFileByName(&path, &begin, &end);
            if (opened != KELM_AVIFILE_OK) {
                LOG_TRACE();
                return opened;
            }
        }
        time = std::max(time, begin);
        if (!IsTimeInFile(path, time)) break;
        LOG_INFO("seek time: %d ================\n", log_sec(time));
        if (m_avi_reader.seek_time(time) == KELM_AVIFILE_OK) {
            ClearFrame();
            break;
        }
        LOG_TRACE();
        // A recording that has just begun, and has no key frame on the disk yet, is read from where it was opened.
        if (m_range.follow_live && IsWriting(path)) break;
        time = end + 1;
        path = GetFileNameByTime(time, &begin, &end);
    }
    if (path.empty()) {
        CloseFile();
        return KELM_AVIFILE_FAILED;
    }
    SetCurFile(path, begin, end);
    LOG_INFO("channel %d seek success, seg_btime = %d, seg_etime = %d, seg_name = %s\n", m_nChannel, log_sec(begin),
             log_sec(end), path.c_str());
    return KELM_AVIFILE_OK;
}

// ---- The thread ----

int32_t CAviReader::ThreadFunc(uint32_t) {
    if (!m_bStarted) {
        m_thread.WaitForWork(kNotStarted);
        return 0;
    }
    const Delivery delivered = DeliverPending();
    Pass pass;
    int32_t event = POP_EVENT_FRAME;  // none
    int32_t pause = 0;
    {
        const CAutoMutex lock(&m_read_mutex);
        if (FindFrame(&pass)) {
            ReadStatus status = ReadStatus::reading;
            if (pass.at_end) m_bFileEnd = true;
            if (pass.wait || (pass.at_end && pass.result == KELM_AVIFILE_NOT_FOUND)) {
                const bool waits = pass.wait || m_range.follow_live;
                status = waits ? ReadStatus::waiting : ReadStatus::finished;
                event = waits ? POP_EVENT_WAIT : POP_EVENT_END;
                pause = pass.wait ? kLiveEnd : waits ? kNoFurtherFile : kRangeEnd;
            }
            MakePending(pass, status);
        } else {
            pause = kFramePending;
        }
    }
    if (event != POP_EVENT_FRAME) {
        m_listener.callback(m_listener.pop_id, m_nChannel, 0, 0, 0, nullptr, 0, event, m_listener.user_data);
    } else if (pause == 0) {
        pause = PauseAfter(pass, delivered);
    }
    if (pause > 0) m_thread.WaitForWork(pause);
    return 0;
}

// A pass that took a step forward through what is not to be delivered goes straight on to the next one.
int32_t CAviReader::PauseAfter(const Pass &pass, const Delivery &delivered) const {
    const bool read = pass.result == KELM_AVIFILE_OK;
    if (!pass.have && (read || pass.at_end)) return 0;
    if (m_bSync) return kSynchronised;
    if (delivered.key || delivered.length > kLargeFrame) return kFreeRunning;
    return read || delivered.length > 0 ? 0 : kNothingRead;
}

CAviReader::Delivery CAviReader::DeliverPending() {
    const uint8_t *frame = nullptr;
    FrameHead head;
    Delivery delivered;
    {
        const CAutoMutex lock(&m_frame_mutex);
        if (m_pFrame == nullptr || m_bPaused || (m_bSync && m_bHold)) return delivered;
        frame = m_pFrame;
        head = m_frame_head;
        delivered = {is_i_frame(head.type), m_nFrameLen};
    }
    m_listener.callback(m_listener.pop_id, m_nChannel, delivered.key ? 1 : 0, static_cast<int32_t>(head.type & 0xFFFF),
                        head.seconds, frame, delivered.length, POP_EVENT_FRAME, m_listener.user_data);
    const CAutoMutex lock(&m_frame_mutex);
    DropFrame();
    return delivered;
}

// The file work of a pass. False when a frame is still pending, so that nothing was read.
bool CAviReader::FindFrame(Pass *pass) {
    if (m_seek_time > 0) {
        m_bFileUsedUp = false;
        OpenFileByTime(m_seek_time);
        m_seek_time = 0;
        ClearFrame();
    } else {
        if (m_bFileEnd || !m_avi_reader.is_opened()) pass->result = OpenNextElement();
        if (IsFramePending()) return false;
    }
    if (m_avi_reader.is_opened() && !m_bFileEnd) ReadFrame(pass);
    Judge(pass);
    return true;
}

int32_t CAviReader::OpenNextElement() {
    int64_t begin = m_seg_btime;
    int64_t end = m_seg_etime;
    std::string path = GetNextFileName(m_cur_name, &begin, &end);
    if (path.empty()) return KELM_AVIFILE_NOT_FOUND;
    const std::string wanted = path;
    if (OpenFileByName(&path, &begin, &end) == KELM_AVIFILE_OK) return KELM_AVIFILE_OK;
    LOG_ERR("read file failed, name = %s \n", wanted.c_str());
    if (!m_range.follow_live && !m_read_list.empty()) {  // none up to the last can be opened, nor will it
        const RecFileNode &last = *m_read_list.rbegin();
        SetCurFile(last.rec_file_path, last.begin_sec, last.end_sec);
    }
    return KELM_AVIFILE_NOT_FOUND;
}

bool CAviReader::IsWriting(const std::string &path) const {
    return recording().IsWriting(m_range.dev_idx, m_nChannel, path.c_str());
}

void CAviReader::ReadFrame(Pass *pass) {
    const auto read = [this, pass]() RCVT_REQUIRES(m_read_mutex) {
        pass->result = m_avi_reader.read_data(m_read_mode, m_key_skip, m_range.rec_type, &pass->frame, &pass->length);
    };
    read();
    if (pass->result != KELM_AVIFILE_END_OF_DATA || !m_range.follow_live) return;
    pass->wait = IsWriting(m_cur_name);
    m_bLive = m_bLive || pass->wait;
    if (!pass->wait) read();  // what the recorder wrote between the first look and its close
}

void CAviReader::Judge(Pass *pass) {
    if (pass->result == KELM_AVIFILE_OK && pass->length > kHeadLen) {
        FrameHead head;
        std::memcpy(&head, pass->frame, sizeof(head));
        if (head.seconds < m_seg_btime) return;
        pass->have = head.seconds <= m_seg_etime || EnterElementOf(head.seconds);
        pass->at_end = !pass->have;
    } else if (pass->result == KELM_AVIFILE_END_OF_DATA && !pass->wait) {
        pass->at_end = m_bFileUsedUp = true;
    } else if (pass->result == KELM_AVIFILE_NOT_FOUND) {
        pass->wait = m_range.follow_live && IsWriting(m_cur_name);
        pass->at_end = !pass->wait;
    }
}

// A frame behind the end of the element: does it belong to what is played? It may lie in a later element of the same file,
// which is then entered where the reader stands, so that no frame is left out or comes twice; elements that end before it
// have been passed. A recording that is followed has gone on since its table was read. A frame behind the range ends the
// following.
bool CAviReader::EnterElementOf(int64_t time) {
    auto next = FindBehind(m_cur_name, m_seg_btime);
    for (; next != m_read_list.end() && m_cur_name == next->rec_file_path && next->begin_sec <= time; ++next) {
        SetCurFile(m_cur_name, next->begin_sec, next->end_sec);
        if (time <= next->end_sec) return true;
    }
    m_bLive = m_bLive || next == m_read_list.end() || (m_range.follow_live && IsWriting(m_cur_name));
    if (!m_range.follow_live || !m_bLive) return false;
    if (m_range.end_time == 0 || time <= m_range.end_time) {
        m_seg_etime = time;
        return true;
    }
    UpdateRecFileLst();
    m_range.follow_live = false;
    m_bFileUsedUp = true;
    return false;
}

void CAviReader::MakePending(const Pass &pass, ReadStatus status) {
    const CAutoMutex lock(&m_frame_mutex);
    m_read_status = status;
    if (!pass.have) return;
    m_pFrame = pass.frame;
    m_nFrameLen = pass.length;
    std::memcpy(&m_frame_head, pass.frame, sizeof(m_frame_head));
    m_bHold = true;
}

}  // namespace kelm_recvault
