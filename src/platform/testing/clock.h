// The settable clock: a second implementation of platform/clock.h, linked into tests instead of the system's.
//
// Shows the system's time until a test sets another one; from then on it stands still and moves by advance alone. The zone
// is that of the environment (TZ) at the time that is shown. Any thread may read it; one test sets it.
#pragma once

#include <cstdint>

namespace kelm_recvault::platform::testing {

void set_true_time(int64_t seconds);
void advance_true_time(int64_t seconds);
void show_system_time();

}  // namespace kelm_recvault::platform::testing
