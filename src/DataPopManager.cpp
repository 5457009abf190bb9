#include "DataPopManager.h"

#include <new>
#include <utility>

#include "Log.h"

namespace kelm_recvault {

int32_t CDataPopMngr::Initialize() {
    for (Slot &slot : m_pops) {
        if (slot.lock.Create() != KELM_AVIFILE_OK) LOG_TRACE();
    }
    return m_pop_ids.Init(kSlots);
}

int32_t CDataPopMngr::Destroy() {
    for (int32_t index = 0; index < kSlots; ++index) {
        if (m_pop_ids.IsHandleBusy(index)) DataPopRelease(index);
    }
    for (Slot &slot : m_pops) slot.lock.Close();
    return m_pop_ids.Destroy();
}

int32_t CDataPopMngr::DataPopCreate(int32_t *index, const PopRange &range, int32_t channel, DataPopCallback callback,
                                    uintptr_t user_data, bool sync) {
    int32_t taken = 0;
    if (m_pop_ids.CreateHandle(&taken) != KELM_AVIFILE_OK) {
        LOG_TRACE();
        return KELM_AVIFILE_NO_SLOT;
    }
    auto pop = std::unique_ptr<CDataPop>(new (std::nothrow) CDataPop);
    const int32_t created = pop ? pop->DataPopCreate(range, channel, {callback, user_data, taken}, sync)  //
                                : KELM_AVIFILE_NO_MEMORY;
    if (created != KELM_AVIFILE_OK) {
        LOG_TRACE();
        m_pop_ids.DestroyHandle(taken);
        return created;
    }
    Slot &slot = m_pops[static_cast<size_t>(taken)];
    const CAutoMutex lock(&slot.lock);
    slot.pop = std::move(pop);
    *index = taken;
    return KELM_AVIFILE_OK;
}

template <class Operation>
int32_t CDataPopMngr::Forward(int32_t index, Operation operation) {
    if (!m_pop_ids.IsHandleBusy(index)) {
        LOG_TRACE();
        return KELM_AVIFILE_NOT_RUNNING;
    }
    Slot &slot = m_pops[static_cast<size_t>(index)];
    const CAutoMutex lock(&slot.lock);
    const int32_t result = slot.pop ? operation(*slot.pop) : KELM_AVIFILE_FAILED;
    if (result != KELM_AVIFILE_OK) LOG_TRACE();
    return result;
}

int32_t CDataPopMngr::DataPopRelease(int32_t index) {
    if (!m_pop_ids.IsHandleBusy(index)) {
        LOG_TRACE();
        return KELM_AVIFILE_NOT_RUNNING;
    }
    Slot &slot = m_pops[static_cast<size_t>(index)];
    const CAutoMutex lock(&slot.lock);
    if (!slot.pop) {  // another thread has released it, or is about to store it
        LOG_TRACE();
        return KELM_AVIFILE_NOT_RUNNING;
    }
    if (slot.pop->DataPopRelease() != KELM_AVIFILE_OK) LOG_TRACE();
    slot.pop.reset();
    if (m_pop_ids.DestroyHandle(index) != KELM_AVIFILE_OK) LOG_TRACE();
    return KELM_AVIFILE_OK;
}

int32_t CDataPopMngr::DataPopChanAdd(int32_t index, int32_t channel) {
    return Forward(index, [=](CDataPop &pop) { return pop.DataPopChanAdd(channel); });
}

int32_t CDataPopMngr::DataPopChanDel(int32_t index, int32_t channel) {
    return Forward(index, [=](CDataPop &pop) { return pop.DataPopChanDel(channel); });
}

int32_t CDataPopMngr::DataPopRecTypeAdd(int32_t index, uint32_t mask) {
    return Forward(index, [=](CDataPop &pop) { return pop.DataPopRecTypeAdd(mask); });
}

int32_t CDataPopMngr::DataPopRecTypeDel(int32_t index, uint32_t mask) {
    return Forward(index, [=](CDataPop &pop) { return pop.DataPopRecTypeDel(mask); });
}

int32_t CDataPopMngr::DataPopStart(int32_t index) {
    return Forward(index, [](CDataPop &pop) { return pop.DataPopStart(); });
}

int32_t CDataPopMngr::DataPopStop(int32_t index) {
    return Forward(index, [](CDataPop &pop) { return pop.DataPopStop(); });
}

int32_t CDataPopMngr::DataPopTimeSeek(int32_t index, int64_t time) {
    return Forward(index, [=](CDataPop &pop) { return pop.DataPopTimeSeek(time); });
}

int32_t CDataPopMngr::DataPopSetDirect(int32_t index, bool reverse) {
    return Forward(index, [=](CDataPop &pop) { return pop.DataPopSetDirect(reverse); });
}

int32_t CDataPopMngr::DataPopSetKeyFrame(int32_t index, bool key_only, int32_t key_skip) {
    return Forward(index, [=](CDataPop &pop) { return pop.DataPopSetKeyFrame(key_only, key_skip); });
}

int32_t CDataPopMngr::DataPopGetDataSize(int32_t index, uint64_t *size) {
    return Forward(index, [=](CDataPop &pop) { return pop.DataPopGetDataSize(size); });
}

}  // namespace kelm_recvault
