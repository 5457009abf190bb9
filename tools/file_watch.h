// Watches from outside what becomes of the frames that a channel is given: finds the file that is being written, and reads
// in its side file, which names each frame, what reached it. A delivery tells nothing about that, for it never waits.
#pragma once

#include <cstdint>
#include <deque>
#include <filesystem>
#include <fstream>
#include <string>

namespace recvault_tool {

// Used by one thread at a time.
class FileWatch {
 public:
    FileWatch(const std::filesystem::path &store, std::string device, uint32_t channel);

    // Told of each frame behind its delivery, with its time in microseconds.
    void delivered(bool audio, bool key, int64_t usec, size_t bytes);

    // Looks at the side file.
    void refresh();

    // Behind the end of the recording: what has not reached the file by now is dropped.
    void finish();

    // Whether a file that can wait should, because the next frame might not fit.
    bool should_wait(size_t next_bytes) const;

    bool has_file() const { return !m_path.empty(); }
    const std::filesystem::path &path() const { return m_path; }
    uint64_t dropped() const { return m_dropped; }  // pictures and sounds

 private:
    struct Frame {
        bool audio;
        int64_t usec;
        uint64_t record_bytes;
    };

    std::filesystem::path path_of_file_begun_at(int64_t second) const;
    void enter(const std::filesystem::path &path);
    void confirm(bool audio, uint32_t second, uint32_t usec);
    void drop_first(size_t count);

    std::filesystem::path m_days;
    std::string m_device;
    uint32_t m_channel;

    std::filesystem::path m_path;    // the record file; empty while there is none
    std::ifstream m_side;            // stays readable when the file is finished and its name deleted
    std::deque<Frame> m_under_way;   // delivered, not yet in the side file
    uint64_t m_bytes_under_way = 0;  // their sum
    uint64_t m_recorded_end = 0;     // offset behind the newest frame of the side file
    uint64_t m_size = 0;             // of the record file on disk, which gets whole blocks
    uint64_t m_dropped = 0;
};

}  // namespace recvault_tool
