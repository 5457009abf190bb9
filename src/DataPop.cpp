#include "DataPop.h"

#include <algorithm>

namespace kelm_recvault {

namespace {
constexpr int32_t kTick = 5;  // milliseconds
constexpr int64_t kBand = 2;  // seconds around the clock in which frames go out, both ends included
}  // namespace

CDataPop::~CDataPop() {
    if (m_state != State::none) DataPopRelease();
}

template <class Visit>
void CDataPop::for_each_channel(Visit visit) {
    for (CAviReader &reader : m_readers) {
        if (reader.IsAssigned()) visit(reader);
    }
}

CAviReader *CDataPop::FindChannel(int32_t channel) {
    const auto found = std::find_if(m_readers.begin(), m_readers.end(),
                                    [channel](const CAviReader &reader) { return reader.Channel() == channel; });
    return found != m_readers.end() ? &*found : nullptr;
}

int32_t CDataPop::CheckState(const LogPlace &place, bool changes_set) const {
    int32_t result = KELM_AVIFILE_OK;
    if (m_state == State::none) result = KELM_AVIFILE_NOT_CREATED;
    if (m_state == State::running && changes_set) result = KELM_AVIFILE_ALREADY_RUNNING;
    if (result != KELM_AVIFILE_OK) log_trace(place);
    return result;
}

CAviReader *CDataPop::MainReader() {
    return m_main_slot == kNoSlot ? nullptr : &m_readers[static_cast<size_t>(m_main_slot)];
}

PopRange CDataPop::Range() {
    const CAutoMutex lock(&m_chan_mutex);
    return m_range;
}

// ---- The set of channels and types ----

int32_t CDataPop::DataPopCreate(const PopRange &range, int32_t channel, const PopListener &listener, bool sync) {
    if (m_state != State::none) {
        LOG_TRACE();
        return KELM_AVIFILE_EXISTS;
    }
    if (m_chan_mutex.Create() != KELM_AVIFILE_OK) {
        LOG_TRACE();
        return KELM_AVIFILE_FAILED;
    }
    {
        const CAutoMutex lock(&m_chan_mutex);
        m_range = range;
        m_range.rec_type = 0;
        m_range.begin_time = bounded_time(range.begin_time);
        m_range.end_time = bounded_time(range.end_time);
    }
    m_listener = listener;
    m_bSync = sync;
    m_state = State::created;
    if (channel == kNoChannel) return KELM_AVIFILE_OK;
    const int32_t added = DataPopChanAdd(channel);
    if (added == KELM_AVIFILE_OK) m_main_slot = 0;
    return added;
}

int32_t CDataPop::DataPopChanAdd(int32_t channel) {
    const int32_t checked = CheckState(RCVT_HERE, true);
    if (checked != KELM_AVIFILE_OK) return checked;
    if (FindChannel(channel) != nullptr) {
        LOG_TRACE();
        return KELM_AVIFILE_ALREADY_RUNNING;
    }
    CAviReader *const slot = FindChannel(CAviReader::kFree);
    if (slot == nullptr) {
        LOG_TRACE();
        return KELM_AVIFILE_FAILED;
    }
    return slot->Assign(channel);
}

int32_t CDataPop::DataPopChanDel(int32_t channel) {
    const int32_t checked = CheckState(RCVT_HERE, true);
    if (checked != KELM_AVIFILE_OK) return checked;
    CAviReader *const slot = FindChannel(channel);
    if (slot != nullptr && slot == MainReader()) m_main_slot = kNoSlot;
    // A reader that was not started says so, and leaves all the same.
    if (slot != nullptr && slot->StopRead() == KELM_AVIFILE_OK) return KELM_AVIFILE_OK;
    LOG_TRACE();
    return KELM_AVIFILE_FAILED;
}

int32_t CDataPop::DataPopRecTypeAdd(uint32_t mask) {
    const int32_t checked = CheckState(RCVT_HERE, false);
    if (checked != KELM_AVIFILE_OK) return checked;
    const CAutoMutex lock(&m_chan_mutex);
    m_range.rec_type |= mask;
    return KELM_AVIFILE_OK;
}

int32_t CDataPop::DataPopRecTypeDel(uint32_t mask) {
    const int32_t checked = CheckState(RCVT_HERE, false);
    if (checked != KELM_AVIFILE_OK) return checked;
    const CAutoMutex lock(&m_chan_mutex);
    m_range.rec_type &= ~mask;
    return KELM_AVIFILE_OK;
}

// ---- Start and stop ----

int32_t CDataPop::DataPopStart() {
    const int32_t checked = CheckState(RCVT_HERE, true);
    if (checked != KELM_AVIFILE_OK) return checked;
    if (Range().rec_type == 0) {
        LOG_TRACE();
        return KELM_AVIFILE_FAILED;
    }
    if (m_state == State::created) {
        const int32_t started = StartReaders();
        if (started != KELM_AVIFILE_OK) return started;
    }
    if (m_seek_time > 0) SeekReaders(m_seek_time);
    m_seek_time = 0;
    const int32_t started = m_bSync ? m_thread.Start(this, 0, kTick, "rcvt-pop") : KELM_AVIFILE_OK;
    if (started != KELM_AVIFILE_OK) {
        LOG_TRACE();
        return started;
    }
    m_state = State::running;
    for_each_channel([](CAviReader &reader) { reader.SetPaused(false); });
    return KELM_AVIFILE_OK;
}

// A channel without anything to play leaves. One that an earlier start has started, which then had no pop thread, goes on.
int32_t CDataPop::StartReaders() {
    const PopRange range = Range();
    bool any = false;
    for_each_channel([&](CAviReader &reader) {
        if (!reader.IsStarted()) {
            reader.SetReadParam(range);
            if (reader.StartRead(m_listener, m_bSync) != KELM_AVIFILE_OK) {
                if (&reader == MainReader()) m_main_slot = kNoSlot;
                return;
            }
        }
        any = true;
    });
    if (!any) {
        LOG_WARN("no record data in all given channels\n");
        return KELM_AVIFILE_FAILED;
    }
    DataPopInitClock();
    return KELM_AVIFILE_OK;
}

// The begin of the first element of the main channel, or else the earliest of all.
void CDataPop::DataPopInitClock() {
    int64_t earliest = 0;
    int64_t begin = 0;
    for_each_channel([&](CAviReader &reader) {
        if (reader.GetSegBeginTime(&begin) == KELM_AVIFILE_OK && (earliest == 0 || begin < earliest)) earliest = begin;
    });
    if (MainReader() != nullptr && MainReader()->GetSegBeginTime(&begin) == KELM_AVIFILE_OK) earliest = begin;
    const CAutoMutex lock(&m_chan_mutex);
    if (m_cur_time == 0) m_cur_time = earliest;
}

int32_t CDataPop::DataPopStop() {
    if (m_state != State::running) {
        LOG_TRACE();
        return KELM_AVIFILE_NOT_RUNNING;
    }
    if (m_bSync && m_thread.Stop() != KELM_AVIFILE_OK) LOG_TRACE();
    for_each_channel([](CAviReader &reader) { reader.SetPaused(true); });
    m_state = State::stopped;
    return KELM_AVIFILE_OK;
}

int32_t CDataPop::DataPopRelease() {
    if (m_state == State::none) {
        LOG_TRACE();
        return KELM_AVIFILE_NOT_CREATED;
    }
    if (m_state == State::running) DataPopStop();
    for_each_channel([](CAviReader &reader) { reader.StopRead(); });
    {
        const CAutoMutex lock(&m_chan_mutex);
        m_range = {};
        m_cur_time = 0;
    }
    m_chan_mutex.Close();
    m_state = State::none;
    m_main_slot = kNoSlot;
    m_seek_time = 0;
    m_listener = {};
    m_bSync = true;
    return KELM_AVIFILE_OK;
}

// ---- Steering ----

int32_t CDataPop::DataPopTimeSeek(int64_t time) {
    const int32_t checked = CheckState(RCVT_HERE, false);
    if (checked != KELM_AVIFILE_OK) return checked;
    time = bounded_time(time);
    if (m_state == State::running) {
        SeekReaders(time);
    } else {
        m_seek_time = time;
        const CAutoMutex lock(&m_chan_mutex);
        m_cur_time = time;
    }
    return KELM_AVIFILE_OK;
}

void CDataPop::SeekReaders(int64_t time) {
    const CAutoMutex lock(&m_chan_mutex);
    m_cur_time = time;
    for_each_channel([time](CAviReader &reader) { reader.ReadSeek(time); });
}

int32_t CDataPop::DataPopSetDirect(bool reverse) {
    const int32_t checked = CheckState(RCVT_HERE, false);
    if (checked != KELM_AVIFILE_OK) return checked;
    for_each_channel([reverse](CAviReader &reader) { reader.ReadReverse(reverse); });
    return KELM_AVIFILE_OK;
}

int32_t CDataPop::DataPopSetKeyFrame(bool key_only, int32_t key_skip) {
    const int32_t checked = CheckState(RCVT_HERE, false);
    if (checked != KELM_AVIFILE_OK) return checked;
    const int32_t mode = key_only ? kelm_avi_reader::kKeyFrames : kelm_avi_reader::kAllFrames;
    const uint32_t rec_type = Range().rec_type;
    for_each_channel([=](CAviReader &reader) { reader.SetReadMode(mode, key_skip, rec_type); });
    return KELM_AVIFILE_OK;
}

int32_t CDataPop::DataPopGetDataSize(uint64_t *size) {
    const int32_t checked = CheckState(RCVT_HERE, false);
    if (checked != KELM_AVIFILE_OK) return checked;
    *size = 0;
    const PopRange range = Range();
    for_each_channel([&range, size](CAviReader &reader) {
        reader.SetReadParam(range);
        *size += reader.GetPopDataSize();
    });
    return KELM_AVIFILE_OK;
}

// ---- The pop thread ----

// The clock moves to the head of the main channel, or, while that plays no part, to the earliest head; but only when every
// reader that plays has shown one, so that after a seek no fast channel runs away.
int32_t CDataPop::ThreadFunc(uint32_t) {
    const CAutoMutex lock(&m_chan_mutex);
    const int64_t now = m_cur_time;
    int32_t active = 0;
    int32_t frames = 0;
    int64_t earliest = 0;
    int64_t main_time = 0;
    bool main_plays = false;
    for_each_channel([&](CAviReader &reader) {
        if (!reader.IsStarted()) return;
        FrameHead head{};
        const int32_t shown = reader.GetCurFrameHead(&head);
        if (shown == KELM_AVIFILE_NOT_FOUND) return;  // finished or waiting
        ++active;
        if (&reader == MainReader()) main_plays = true;
        if (shown != KELM_AVIFILE_OK) return;
        ++frames;
        const int64_t time = head.seconds;
        if (&reader == MainReader()) main_time = time;
        if (earliest == 0 || time < earliest) earliest = time;
        reader.SetFrameState(time > now + kBand   ? FrameState::hold
                             : time < now - kBand ? FrameState::drop
                                                  : FrameState::release);
    });
    const int64_t reference = main_plays ? main_time : earliest;
    if (reference > 0 && (active == 1 || active == frames)) m_cur_time = reference;
    return 0;
}

}  // namespace kelm_recvault
