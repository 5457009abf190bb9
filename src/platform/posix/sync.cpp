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

timespec monotonic_after(int32_t milliseconds) {
    timespec until{};
    clock_gettime(CLOCK_MONOTONIC, &until);
    const long nanoseconds = until.tv_nsec + (milliseconds % 1000) * 1000000L;
    until.tv_sec += milliseconds / 1000 + nanoseconds / 1000000000L;
    until.tv_nsec = nanoseconds % 1000000000L;
    return until;
}

int wait_for_change(SystemEvent *event, const timespec *until) {
    if (until == nullptr) return pthread_cond_wait(&event->changed, &event->mutex);
    return pthread_cond_timedwait(&event->changed, &event->mutex, until);
}

}  // namespace

void event_wait(SystemEvent *event, int32_t milliseconds) {
    const bool forever = milliseconds == kForever;
    const timespec until = forever ? timespec{} : monotonic_after(milliseconds);
    pthread_mutex_lock(&event->mutex);
    event->waiting = true;
    while (!event->set && wait_for_change(event, forever ? nullptr : &until) == 0) {
    }
    event->set = event->waiting = false;
    pthread_mutex_unlock(&event->mutex);
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
