#include "platform/clock.h"

#include <time.h>

namespace kelm_recvault::platform {

int64_t true_time_ms() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

bool utc_bias_minutes(int32_t *bias) {
    const time_t now = static_cast<time_t>(true_time_ms() / 1000);
    tm local{};
    tzset();
    if (localtime_r(&now, &local) == nullptr) return false;
    *bias = static_cast<int32_t>(-local.tm_gmtoff / 60);
    return true;
}

bool local_to_true(const WallClockFields &fields, int64_t *seconds) {
    tm local{};
    local.tm_year = fields.year - 1900;
    local.tm_mon = fields.month - 1;
    local.tm_mday = fields.day;
    local.tm_hour = fields.hour;
    local.tm_min = fields.minute;
    local.tm_sec = fields.second;
    local.tm_isdst = -1;
    const time_t time = mktime(&local);
    if (time == static_cast<time_t>(-1)) return false;
    *seconds = time;
    return true;
}

int64_t monotonic_ms() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

}  // namespace kelm_recvault::platform
