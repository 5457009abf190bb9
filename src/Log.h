// The log: one output, always on. A message is either a trace line, which marks a failure or an unexpected branch, or two
// lines: a head with its level and place, and a text. Safe from all threads, allocates nothing, and works before anything is
// initialised.
#pragma once

#include <cstddef>
#include <cstdint>

namespace kelm_recvault {

#if defined(__GNUC__)
#define RCVT_PRINTF_LIKE __attribute__((format(printf, 1, 2)))
#else
#define RCVT_PRINTF_LIKE
#endif

// Text beyond 1024 bytes is cut.
void log_print(const char *format, ...) RCVT_PRINTF_LIKE;

// Where a message comes from, as the compiler names it.
struct LogPlace {
    const char *file;      // __FILE__
    const char *function;  // __PRETTY_FUNCTION__
    int32_t line;
};

void log_trace(const LogPlace &place);
void log_head(const char *level, const LogPlace &place);

// The forms that stand in the log, the same in whatever folder the library was built: `.\src\avi\avi_writer.cpp`, and the
// qualified name of the function without its result and arguments. Both cut at `size`.
void source_form(const char *file, char *out, size_t size);
void function_form(const char *pretty_function, char *out, size_t size);

}  // namespace kelm_recvault

#if defined(_MSC_VER)
#define RCVT_FUNCTION __FUNCSIG__
#else
#define RCVT_FUNCTION __PRETTY_FUNCTION__
#endif

#define RCVT_HERE (::kelm_recvault::LogPlace{__FILE__, static_cast<const char *>(RCVT_FUNCTION), __LINE__})

#define LOG_TRACE() ::kelm_recvault::log_trace(RCVT_HERE)
#define LOG_ERR(...) (::kelm_recvault::log_head("ERR. ", RCVT_HERE), ::kelm_recvault::log_print(__VA_ARGS__))
#define LOG_WARN(...) (::kelm_recvault::log_head("WARN.", RCVT_HERE), ::kelm_recvault::log_print(__VA_ARGS__))
#define LOG_INFO(...) (::kelm_recvault::log_head("INFO.", RCVT_HERE), ::kelm_recvault::log_print(__VA_ARGS__))
