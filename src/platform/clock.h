// The clock and the time zone of the operating system.
#pragma once

#include <cstdint>

namespace kelm_recvault::platform {

struct WallClockFields {
    int32_t year;   // full year
    int32_t month;  // 1 to 12
    int32_t day;    // 1 to 31
    int32_t hour;
    int32_t minute;
    int32_t second;
};

// Milliseconds since 1970-01-01 00:00:00 UTC.
int64_t true_time_ms();

// The bias of the zone in force now, daylight time included: local time plus bias is UTC. False when it cannot be had.
bool utc_bias_minutes(int32_t *bias);

// Seconds of true time at which the local wall clock shows `fields`. False for a time that cannot be expressed.
bool local_to_true(const WallClockFields &fields, int64_t *seconds);

// Milliseconds of a clock that never jumps; only differences mean anything.
int64_t monotonic_ms();

}  // namespace kelm_recvault::platform
