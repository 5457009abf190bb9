#include "Thread.h"

namespace kelm_recvault {

CThreadBase::~CThreadBase() { platform::event_destroy(m_event); }

int32_t CThreadBase::Launch(const char *name, platform::ThreadEntry entry, void *argument) {
    int32_t error = 0;
    if (m_event == nullptr) m_event = platform::event_create();
    if (m_event != nullptr) platform::event_wait(m_event, 0);  // a wake that was meant for an earlier thread
    m_running = true;
    if (m_event != nullptr) m_handle = platform::thread_start(name, entry, argument, &error);
    if (m_handle == nullptr) {
        LOG_INFO("_beginthreadex failed %d\n", error);
        m_running = false;
        return KELM_AVIFILE_FAILED;
    }
    return KELM_AVIFILE_OK;
}

int32_t CThreadBase::Stop() {
    if (!m_running.exchange(false)) return KELM_AVIFILE_NOT_RUNNING;
    Wake();
    if (m_handle != nullptr) platform::thread_join(m_handle);
    m_handle = nullptr;
    return KELM_AVIFILE_OK;
}

void CThreadBase::WaitForWork(int32_t milliseconds) {
    // The flag is cleared before the wake, so that a stop is seen here or ends the wait.
    if (!IsStopping()) platform::event_wait(m_event, milliseconds);
}

void CThreadBase::WaitForTick(int32_t period) {
    if (!IsStopping()) platform::event_wait_tick(m_event, period);
}

void CThreadBase::Wake() { platform::event_set(m_event); }

}  // namespace kelm_recvault
