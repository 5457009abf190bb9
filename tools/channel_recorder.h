// One input of `recvault record`, recorded on a thread of its own into a channel of its own.
#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "file_watch.h"
#include "input.h"
#include "store.h"

namespace recvault_tool {

struct RecordOptions {
    int32_t type = 1;
    bool wall_clock = false;       // each frame has the time of its arrival
    std::optional<int64_t> begin;  // time of the first frame, in microseconds on the wall clock
    double reconnect = 2;          // seconds between attempts; 0 for none
};

int64_t wall_clock_usec();

// What a channel shows of itself.
struct Status {
    const char *state = "waiting";
    const char *codec = "";
    uint16_t width = 0, height = 0;
    uint64_t pictures = 0, bytes = 0, dropped = 0;
    int64_t begin_usec = 0, end_usec = 0;  // recorded time
    std::string file;                      // below avi_av
    std::string failure;
    bool done = false;
};

class ChannelRecorder {
 public:
    // Opens the input. Throws a Failure when it cannot be recorded.
    ChannelRecorder(const RecordOptions &options, uint32_t number, const std::string &input,
                    const InputOptions &input_options)
        : m_options(options), m_number(number), m_input(input, input_options) {}
    ~ChannelRecorder();
    ChannelRecorder(const ChannelRecorder &) = delete;
    ChannelRecorder &operator=(const ChannelRecorder &) = delete;

    void start(const fs::path &store, const std::string &device_name, int32_t device, int64_t now);

    // Ends a read that waits for input, so that its thread sees the stop.
    void interrupt();

    // Behind the end of the input. Returns when its files are finished.
    void finish();

    Status status();
    uint32_t number() const { return m_number; }
    const std::string &input() const { return m_input.name(); }

 private:
    void run();
    bool record_input();
    bool reconnect();
    void take(const InputFrame &frame);
    int64_t begin_of_opening() const;
    int64_t time_for(const InputFrame &frame);
    void wait_for_disk(size_t next_bytes);
    void publish(const char *state);

    const RecordOptions m_options;
    const uint32_t m_number;
    int32_t m_device = 0;
    fs::path m_days;
    std::thread m_thread;

    // Of the thread, and before and behind it of the one that made the channel.
    Input m_input;
    std::unique_ptr<FileWatch> m_watch;
    int64_t m_start_usec = 0;
    std::optional<int64_t> m_base_usec;  // time of the first frame of this opening
    std::chrono::steady_clock::time_point m_opened;
    uint32_t m_frame_no = 0;
    int64_t m_begin_usec = 0, m_last_usec = 0, m_last_audio_usec = 0;
    uint64_t m_pictures = 0, m_bytes = 0, m_too_large = 0;

    std::mutex m_lock;  // guards what follows
    Status m_status;
};

}  // namespace recvault_tool
