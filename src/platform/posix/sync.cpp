#include "platform/sync.h"

#include <pthread.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <memory>
#include <new>

namespace kelm_recvault::platform {

struct SystemMutex {
    pthread_mutex_t mutex;
};

SystemMutex *mutex_create(int32_t *error) {
    auto mutex = std::unique_ptr<SystemMutex>(new (std::nothrow) SystemMutex);
    if (!mutex) {
        *error = ENOMEM;
        return nullptr;
    }
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    *error = pthread_mutex_init(&mutex->mutex, &attributes);
    pthread_mutexattr_destroy(&attributes);
    return *error == 0 ? mutex.release() : nullptr;
}

void mutex_destroy(SystemMutex *mutex) {
    pthread_mutex_destroy(&mutex->mutex);
    delete mutex;
}

bool mutex_lock(SystemMutex *mutex) { return pthread_mutex_lock(&mutex->mutex) == 0; }

bool mutex_unlock(SystemMutex *mutex) { return pthread_mutex_unlock(&mutex->mutex) == 0; }

struct SystemEvent {
    pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
    pthread_cond_t changed{};
    bool set = false;
    bool waiting = false;
};

SystemEvent *event_create() {
    auto *event = new (std::nothrow) SystemEvent;
    if (event == nullptr) return nullptr;
    pthread_condattr_t attributes;
    pthread_condattr_init(&attributes);
    pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    pthread_cond_init(&event->changed, &attributes);
    pthread_condattr_destroy(&attributes);
    return event;
}

void event_destroy(SystemEvent *event) {
    if (event == nullptr) return;
    pthread_cond_destroy(&event->changed);
    pthread_mutex_destroy(&event->mutex);
    delete event;
}

void event_set(SystemEvent *event) {
    pthread_mutex_lock(&event->mutex);
    const bool wake = event->waiting && !event->set;
    event->set = true;
    pthread_mutex_unlock(&event->mutex);
    if (wake) pthread_cond_signal(&event->changed);
}

namespace {

constexpr int64_t kNanosecondsPerSecond = 1000000000;

int64_t monotonic_ns() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * kNanosecondsPerSecond + now.tv_nsec;
}

void wait_until(SystemEvent *event, int64_t deadline_ns) {
    const timespec deadline{deadline_ns / kNanosecondsPerSecond, deadline_ns % kNanosecondsPerSecond};
    pthread_mutex_lock(&event->mutex);
    event->waiting = true;
    while (!event->set && pthread_cond_timedwait(&event->changed, &event->mutex, &deadline) == 0) {
    }
    event->set = event->waiting = false;
    pthread_mutex_unlock(&event->mutex);
}

}  // namespace

void event_wait(SystemEvent *event, int32_t milliseconds) {
    // Three centuries are for ever.
    const int64_t nanoseconds = milliseconds == kForever ? INT64_MAX / 2 : milliseconds * INT64_C(1000000);
    wait_until(event, monotonic_ns() + nanoseconds);
}

void event_wait_tick(SystemEvent *event, int32_t period) {
    const int64_t period_ns = period * INT64_C(1000000);
    wait_until(event, (monotonic_ns() / period_ns + 1) * period_ns);
}

struct SystemThread {
    pthread_t thread;
    ThreadEntry entry;
    void *argument;
    char name[16];
};

namespace {

void *run_thread(void *data) {
    auto *thread = static_cast<SystemThread *>(data);
    pthread_setname_np(pthread_self(), thread->name);
    thread->entry(thread->argument);
    return nullptr;
}

}  // namespace

SystemThread *thread_start(const char *name, ThreadEntry entry, void *argument, int32_t *error) {
    auto thread = std::unique_ptr<SystemThread>(new (std::nothrow) SystemThread{});
    if (!thread) {
        *error = ENOMEM;
        return nullptr;
    }
    thread->entry = entry;
    thread->argument = argument;
    for (size_t i = 0; i + 1 < sizeof(thread->name) && name[i] != '\0'; ++i) thread->name[i] = name[i];
    *error = pthread_create(&thread->thread, nullptr, run_thread, thread.get());
    return *error == 0 ? thread.release() : nullptr;
}

void thread_join(SystemThread *thread) {
    pthread_join(thread->thread, nullptr);
    delete thread;
}

int32_t thread_id() { return static_cast<int32_t>(syscall(SYS_gettid)); }

void sleep_ms(int32_t milliseconds) {
    timespec rest{milliseconds / 1000, (milliseconds % 1000) * 1000000L};
    while (nanosleep(&rest, &rest) != 0 && errno == EINTR) {
    }
}

}  // namespace kelm_recvault::platform
