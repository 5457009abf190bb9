#include "platform/testing/clock.h"

#include <atomic>

// The conversions are the system's; only the present moment is replaced.
#define true_time_ms system_time_ms
#include "platform/posix/clock.cpp"  // NOLINT(bugprone-suspicious-include)
#undef true_time_ms

namespace kelm_recvault::platform {

namespace {
constexpr int64_t kSystemTime = INT64_MIN;
std::atomic<int64_t> g_shown_ms{kSystemTime};
}  // namespace

int64_t true_time_ms() {
    const int64_t shown = g_shown_ms;
    return shown == kSystemTime ? system_time_ms() : shown;
}

namespace testing {

void set_true_time(int64_t seconds) { g_shown_ms = seconds * 1000; }
void advance_true_time(int64_t seconds) { g_shown_ms += seconds * 1000; }
void show_system_time() { g_shown_ms = kSystemTime; }

}  // namespace testing

}  // namespace kelm_recvault::platform
