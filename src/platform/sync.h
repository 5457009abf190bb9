// Locks, events and threads of the operating system.
#pragma once

#include <cstdint>

namespace kelm_recvault::platform {

// A recursive, process-local lock. Opaque: made and ended by the functions below.
struct SystemMutex;

// Gives null and the system's error number when there is no lock to be had.
SystemMutex *mutex_create(int32_t *error);
void mutex_destroy(SystemMutex *mutex);
// Both give false when the system refuses.
bool mutex_lock(SystemMutex *mutex);
bool mutex_unlock(SystemMutex *mutex);

// An event that one thread waits for and any thread sets. A set that nobody waits for is kept for the next wait.
struct SystemEvent;

// Null when there is no memory.
SystemEvent *event_create();
void event_destroy(SystemEvent *event);
// At most one system call, and none while nobody waits.
void event_set(SystemEvent *event);
// Waits until the event is set or the time is over, and takes the set back. A time of kForever has no end.
void event_wait(SystemEvent *event, int32_t milliseconds);
constexpr int32_t kForever = -1;
// The same up to the next tick of a clock that all threads share, at most `period` milliseconds away: hundreds of threads
// that wake at one moment cost the system one timer, not hundreds.
void event_wait_tick(SystemEvent *event, int32_t period);

// A joinable thread.
struct SystemThread;
using ThreadEntry = void (*)(void *argument);

// `name` is shown by the system's tools, at most 15 characters. Gives null and the system's error number on failure.
SystemThread *thread_start(const char *name, ThreadEntry entry, void *argument, int32_t *error);
// Waits for the thread's end and frees it.
void thread_join(SystemThread *thread);
// A number that names the calling thread in the log.
int32_t thread_id();
void sleep_ms(int32_t milliseconds);

}  // namespace kelm_recvault::platform
