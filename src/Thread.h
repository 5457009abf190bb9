// A worker thread that calls one member function of its owner again and again.
//
// Embedded by value in its owner T, which has `int32_t ThreadFunc(uint32_t user_value)`: 0 goes on, anything else ends the
// thread. The owner's control thread calls Start and Stop; the body waits for work with WaitForWork, and whoever brings
// work calls Wake. Stop is never called from the thread itself, nor with a lock held that the body needs.
#pragma once

#include <recvault/recvault.h>

#include <atomic>
#include <cstdint>
#include <new>

#include "Log.h"
#include "platform/sync.h"

namespace kelm_recvault {

// What does not depend on the owner's type.
class CThreadBase {
 public:
    CThreadBase(const CThreadBase &) = delete;
    CThreadBase &operator=(const CThreadBase &) = delete;

    // Clears the run flag, wakes the body and waits for its end without limit. KELM_AVIFILE_NOT_RUNNING when not started.
    int32_t Stop();
    bool IsStopping() const { return !m_running.load(std::memory_order_acquire); }

    // Returns when Wake or Stop was called, or after the time. Called by the body alone.
    void WaitForWork(int32_t milliseconds);
    // The same up to the next of the ticks that all threads share, at most `period` milliseconds away.
    void WaitForTick(int32_t period);
    void Wake();

 protected:
    CThreadBase() = default;
    ~CThreadBase();

    int32_t Launch(const char *name, platform::ThreadEntry entry, void *argument);

    std::atomic<bool> m_running{false};
    int32_t m_period = 0;

 private:
    platform::SystemThread *m_handle = nullptr;
    platform::SystemEvent *m_event = nullptr;  // made by the first start, kept until the end: a late Wake does no harm
};

template <class T>
class CThread : public CThreadBase {
 public:
    CThread() = default;
    ~CThread() {
        if (m_running) Stop();
    }

    // `period` is the pause between two calls of the body in milliseconds; 0 or below is none. `name` is for the system's
    // tools. Codes: BAD_ARGUMENT without an owner, ALREADY_RUNNING until Stop, FAILED when the system has no thread.
    int32_t Start(T *owner, uint32_t user_value, int32_t period, const char *name);

 private:
    static void Entry(void *argument);
    int32_t CallOwner();

    T *m_owner = nullptr;
    uint32_t m_user_value = 0;
};

template <class T>
int32_t CThread<T>::Start(T *owner, uint32_t user_value, int32_t period, const char *name) {
    if (owner == nullptr) {
        LOG_TRACE();
        return KELM_AVIFILE_BAD_ARGUMENT;
    }
    if (m_running) {
        LOG_TRACE();
        return KELM_AVIFILE_ALREADY_RUNNING;
    }
    m_owner = owner;
    m_user_value = user_value;
    m_period = period;
    return Launch(name, &CThread::Entry, this);
}

template <class T>
void CThread<T>::Entry(void *argument) {
    auto *thread = static_cast<CThread *>(argument);
    LOG_INFO("thread begin running, id = %d\n", platform::thread_id());
    while (thread->m_running.load(std::memory_order_acquire)) {
        if (thread->CallOwner() != 0) break;
        if (thread->m_period > 0 && !thread->IsStopping()) thread->WaitForWork(thread->m_period);
    }
    LOG_INFO("quit thread object, id = %d\n", platform::thread_id());
}

// A body that finds no memory is called again: there may be some by then.
template <class T>
int32_t CThread<T>::CallOwner() {
    try {
        return m_owner->ThreadFunc(m_user_value);
    } catch (const std::bad_alloc &) {
        LOG_TRACE();
        platform::sleep_ms(100);
        return 0;
    }
}

}  // namespace kelm_recvault
