#include "library.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include <csignal>
#include <cstring>

#include "failure.h"

namespace recvault_tool {

std::atomic<bool> stop_asked{false};

void catch_signals() {
    static_assert(std::atomic<bool>::is_always_lock_free);
    struct sigaction action {};
    action.sa_handler = [](int) { stop_asked = true; };
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    action.sa_handler = [](int) {};
    sigaction(SIGUSR1, &action, nullptr);
    action.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &action, nullptr);
}

namespace {

std::FILE *duplicate(std::FILE *stream) {
    std::fflush(stream);
    const int file = fcntl(fileno(stream), F_DUPFD_CLOEXEC, 3);
    return file >= 0 ? fdopen(file, "w") : nullptr;
}

void put_back(std::FILE *saved, std::FILE *stream) {
    std::fflush(saved);
    std::fflush(stream);
    dup2(fileno(saved), fileno(stream));
    std::fclose(saved);
}

}  // namespace

LogFile::LogFile(const std::string &path) : m_out(duplicate(stdout)), m_err(duplicate(stderr)) {
    const char *target = path.empty() ? "/dev/null" : path.c_str();
    const int file = open(target, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
    if (file < 0 || m_out == nullptr || m_err == nullptr)
        throw Failure(
            fmt::format("cannot write the log to {}: {}; choose another file with --log", target, std::strerror(errno)));
    dup2(file, STDOUT_FILENO);
    dup2(file, STDERR_FILENO);
    close(file);
}

LogFile::~LogFile() {
    put_back(m_out, stdout);
    put_back(m_err, stderr);
}

}  // namespace recvault_tool
