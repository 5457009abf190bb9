// What the subcommands that call the library share: where its log goes, and the stop by a signal.
#pragma once

#include <atomic>
#include <cstdio>
#include <string>

namespace recvault_tool {

constexpr uint32_t kAudioFrame = 8;  // FrameHead.type

// Becomes true with SIGINT or SIGTERM once catch_signals was called. SIGUSR1 then only ends a read that waits for input, and
// a pipe without a reader is an error like others.
extern std::atomic<bool> stop_asked;
void catch_signals();

// While it lives, what the libraries print goes to a file, or nowhere, so that it does not mix with what is said to the
// user.
class LogFile {
 public:
    explicit LogFile(const std::string &path);  // empty: nowhere
    ~LogFile();
    LogFile(const LogFile &) = delete;
    LogFile &operator=(const LogFile &) = delete;

    // Standard output and error as the user gave them.
    std::FILE *out() const { return m_out; }
    std::FILE *err() const { return m_err; }

 private:
    std::FILE *m_out;
    std::FILE *m_err;
};

}  // namespace recvault_tool
