#include "channel_recorder.h"

#include <fmt/format.h>
#include <pthread.h>
#include <recvault/recvault.h>

#include <algorithm>
#include <csignal>
#include <ctime>

#include "failure.h"
#include "library.h"

namespace recvault_tool {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

namespace {

constexpr uint32_t kKeyFrame = 1, kOtherVideo = 9;  // FrameHead.type
constexpr int64_t kSecond = 1'000'000;
constexpr int64_t kMostDrift = 5 * kSecond, kDriftStep = 1000;
constexpr auto kDiskPatience = std::chrono::seconds(30);

}  // namespace

// With one offset for the whole run, as the library has it.
int64_t wall_clock_usec() {
    static const int64_t offset = [] {
        const std::time_t now = std::time(nullptr);
        std::tm fields{};
        localtime_r(&now, &fields);
        return int64_t{fields.tm_gmtoff} * kSecond;
    }();
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::microseconds>(now).count() + offset;
}

ChannelRecorder::~ChannelRecorder() {
    if (!m_thread.joinable()) return;
    stop_asked = true;
    interrupt();
    m_thread.join();
}

void ChannelRecorder::start(const fs::path &store, const std::string &device_name, int32_t device, int64_t now) {
    m_start_usec = now;
    m_device = device;
    m_days = store / "avi_av";
    m_watch = std::make_unique<FileWatch>(store, device_name, m_number);
    if (KELM_AviFile_RecStart(m_number, m_options.type, m_device) != KELM_AVIFILE_OK)
        throw Failure(fmt::format("channel {} cannot record: --log FILE tells why", m_number));
    m_thread = std::thread([this] { run(); });
}

void ChannelRecorder::interrupt() { pthread_kill(m_thread.native_handle(), SIGUSR1); }

void ChannelRecorder::finish() {
    m_thread.join();
    KELM_AviFile_RecStop(m_number, m_device);
    m_watch->finish();
    publish("ended");
}

Status ChannelRecorder::status() {
    const std::lock_guard lock(m_lock);
    return m_status;
}

void ChannelRecorder::run() {
    try {
        while (record_input() && reconnect()) {
        }
    } catch (const std::exception &failure) {
        const std::lock_guard lock(m_lock);
        m_status.failure = failure.what();
    }
    const std::lock_guard lock(m_lock);
    m_status.done = true;
}

// True if the input may be opened again.
bool ChannelRecorder::record_input() {
    m_base_usec.reset();
    m_opened = Clock::now();
    while (m_input.read([this](const InputFrame &frame) { take(frame); })) {
    }
    return m_input.is_live() && m_options.reconnect > 0 && !stop_asked;
}

// The frames in between are missing: a jump in their numbers tells the library.
bool ChannelRecorder::reconnect() {
    m_watch->refresh();
    publish("away");
    ++m_frame_no;
    for (;;) {
        const auto again = Clock::now() + std::chrono::duration<double>(m_options.reconnect);
        while (Clock::now() < again && !stop_asked) {
            std::this_thread::sleep_for(milliseconds(50));
        }
        if (stop_asked) return false;
        try {
            m_input.reopen();
            return true;
        } catch (const Failure &) {  // away as before
        }
    }
}

void ChannelRecorder::take(const InputFrame &frame) {
    if (frame.data.size() > KELM_AVIFILE_MAX_FRAME_BYTES) {
        ++m_too_large;
        m_frame_no += frame.audio ? 0 : 1;
        return;
    }
    if (!m_input.is_live()) wait_for_disk(frame.data.size());
    const int64_t usec = time_for(frame);
    FrameHead head{};
    head.uiStartId = KELM_AVIFILE_FRAME_START_ID;
    head.type = frame.audio ? kAudioFrame : frame.key ? kKeyFrame : kOtherVideo;
    head.length = static_cast<uint32_t>(frame.data.size());
    if (frame.audio) {
        head.audio_codec = m_input.audio_codec();
    } else {
        head.frame_no = m_frame_no++;
        head.width = m_input.width();
        head.height = m_input.height();
        head.codec_id = m_input.is_jpeg() ? 2 : 1;
        ++m_pictures;
    }
    m_bytes += frame.data.size();
    KELM_AviFile_DataInput(m_number, &head, sizeof head, frame.data.data(), head.length,
                           static_cast<uint32_t>(usec / kSecond), static_cast<uint32_t>(usec % kSecond), m_device);
    m_watch->delivered(frame.audio, frame.key, usec, frame.data.size());
    if (!m_input.is_live() && !m_watch->has_file()) {
        throw Failure("the store takes nothing: give it more room with --space, or a disk that can be written");
    }
    if (frame.key) {
        m_watch->refresh();
        publish("recording");
    }
}

// What is read from files begins together, where it is not said otherwise; what comes over a network, when it comes.
int64_t ChannelRecorder::begin_of_opening() const {
    if (m_pictures > 0) return std::max(m_last_usec + 1, wall_clock_usec());
    if (m_options.begin) return *m_options.begin;
    return m_input.is_live() ? wall_clock_usec() : m_start_usec;
}

// By the media the time follows the input. By the wall clock it is that of the arrival, and a file that arrives as fast
// as it is read is held back to its own pace.
int64_t ChannelRecorder::time_for(const InputFrame &frame) {
    if (!m_base_usec) m_base_usec = begin_of_opening();
    int64_t usec = *m_base_usec + frame.usec;
    if (m_options.wall_clock) {
        while (!m_input.is_live() && Clock::now() < m_opened + std::chrono::microseconds(frame.usec) && !stop_asked) {
            std::this_thread::sleep_until(
                std::min(m_opened + std::chrono::microseconds(frame.usec), Clock::now() + milliseconds(100)));
        }
        usec = wall_clock_usec();
    } else if (m_input.is_live() && !m_options.begin) {
        // A camera's clock drifts, and its recording goes on for months: the base is led after, a millisecond a frame.
        const int64_t off = wall_clock_usec() - usec;
        if (std::abs(off) > kMostDrift) *m_base_usec += off > 0 ? kDriftStep : -kDriftStep;
    }
    int64_t &last = frame.audio ? m_last_audio_usec : m_last_usec;
    last = std::max(usec, last + 1);
    if (!frame.audio && m_begin_usec == 0) m_begin_usec = last;
    return last;
}

void ChannelRecorder::wait_for_disk(size_t next_bytes) {
    const auto give_up = Clock::now() + kDiskPatience;
    while (m_watch->should_wait(next_bytes)) {
        m_watch->refresh();
        if (!m_watch->should_wait(next_bytes)) return;
        if (Clock::now() > give_up) throw Failure("the disk takes no more: look for room and at its health");
        std::this_thread::sleep_for(milliseconds(1));
    }
}

void ChannelRecorder::publish(const char *state) {
    const std::lock_guard lock(m_lock);
    m_status.state = state;
    m_status.codec = m_input.codec();
    m_status.width = m_input.width();
    m_status.height = m_input.height();
    m_status.pictures = m_pictures;
    m_status.bytes = m_bytes;
    m_status.dropped = m_watch->dropped() + m_too_large;
    m_status.begin_usec = m_begin_usec;
    m_status.end_usec = m_last_usec;
    m_status.file = m_watch->has_file() ? m_watch->path().lexically_relative(m_days).string() : "no file";
}

}  // namespace recvault_tool
