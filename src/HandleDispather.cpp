#include "HandleDispather.h"

#include <recvault/recvault.h>

#include <algorithm>

#include "Log.h"

namespace kelm_recvault {

CIdDispather::CIdDispather() { FreeAll(); }

void CIdDispather::FreeAll() {
    for (int32_t i = 0; i < m_count; ++i) m_state[i].store(free, std::memory_order_release);
}

int32_t CIdDispather::Init(int32_t count) {
    m_count = std::min(count, kMaxSlots);
    if (m_lock.Create() != KELM_AVIFILE_OK) {
        LOG_INFO("CreateMutex failed \n");
        return KELM_AVIFILE_FAILED;
    }
    FreeAll();
    return KELM_AVIFILE_OK;
}

int32_t CIdDispather::Destroy() {
    FreeAll();
    m_lock.Close();
    return KELM_AVIFILE_OK;
}

int32_t CIdDispather::CreateHandle(int32_t *handle, bool reserve) {
    const CAutoMutex lock(&m_lock);
    for (int32_t i = 0; i < m_count; ++i) {
        if (m_state[i].load(std::memory_order_relaxed) != free) continue;
        m_state[i].store(reserve ? reserved : busy, std::memory_order_release);
        *handle = i;
        return KELM_AVIFILE_OK;
    }
    LOG_TRACE();
    return KELM_AVIFILE_NO_SLOT;
}

int32_t CIdDispather::SetState(int32_t handle, State state) {
    if (!IsInTable(handle)) {
        LOG_TRACE();
        return KELM_AVIFILE_FAILED;
    }
    const CAutoMutex lock(&m_lock);
    m_state[handle].store(state, std::memory_order_release);
    return KELM_AVIFILE_OK;
}

int32_t CIdDispather::DestroyHandle(int32_t handle) { return SetState(handle, free); }

int32_t CIdDispather::SetHandleBusy(int32_t handle) { return SetState(handle, busy); }

bool CIdDispather::TakeOutOfUse(int32_t handle) {
    if (!IsInTable(handle)) return false;
    const CAutoMutex lock(&m_lock);
    if (m_state[handle].load(std::memory_order_relaxed) != busy) return false;
    m_state[handle].store(reserved, std::memory_order_release);
    return true;
}

bool CIdDispather::IsHandleBusy(int32_t handle) const {
    if (!IsInTable(handle)) {
        LOG_TRACE();
        return false;
    }
    return m_state[handle].load(std::memory_order_acquire) == busy;
}

}  // namespace kelm_recvault
