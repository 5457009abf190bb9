#include "RecFileQueryManager.h"

#include "GlobalObj.h"
#include "Log.h"
#include "StorageManager.h"

namespace kelm_recvault {

int32_t CRecFileQueryMngr::Destroy() {
    for (int32_t index = 0; index < kSlots; ++index) {
        if (m_query_ids.IsHandleBusy(index)) QueryRecFilesStop(index);
    }
    return m_query_ids.Destroy();
}

int32_t CRecFileQueryMngr::QueryRecFilesStart(int32_t *index, int32_t dev_idx, int32_t channel, int64_t day) {
    int32_t taken = 0;
    if (m_query_ids.CreateHandle(&taken) != KELM_AVIFILE_OK) {
        LOG_TRACE();
        return KELM_AVIFILE_NO_SLOT;
    }
    const int32_t started = m_queries[static_cast<size_t>(taken)].QueryRecFilesStart(dev_idx, channel, day);
    if (started != KELM_AVIFILE_OK) {
        LOG_TRACE();
        m_query_ids.DestroyHandle(taken);
        return started;
    }
    *index = taken;
    return KELM_AVIFILE_OK;
}

int32_t CRecFileQueryMngr::GetNextRecFile(int32_t index, RecFileInfo *info) {
    if (!m_query_ids.IsHandleBusy(index)) {
        LOG_TRACE();
        return KELM_AVIFILE_NOT_RUNNING;
    }
    const int32_t result = m_queries[static_cast<size_t>(index)].GetNextRecFile(info);
    if (result != KELM_AVIFILE_OK) LOG_TRACE();
    return result;
}

int32_t CRecFileQueryMngr::QueryRecFilesStop(int32_t index) {
    if (index < 0 || index >= kSlots) {
        LOG_TRACE();
        return KELM_AVIFILE_BAD_HANDLE;
    }
    m_queries[static_cast<size_t>(index)].QueryRecFilesStop();
    m_query_ids.DestroyHandle(index);
    return KELM_AVIFILE_OK;
}

int32_t CRecFileQueryMngr::DelAviFiles(int32_t dev_idx, int32_t channel, int64_t day) {
    int32_t index = 0;
    const int32_t started = QueryRecFilesStart(&index, dev_idx, channel, day);
    if (started != KELM_AVIFILE_OK) {
        LOG_TRACE();
        return started;
    }
    struct Stop {  // also when there is no memory for a day
        CRecFileQueryMngr *manager;
        int32_t index;
        ~Stop() { manager->QueryRecFilesStop(index); }
    } const stop{this, index};
    RecFileInfo file{};
    while (GetNextRecFile(index, &file) == KELM_AVIFILE_OK) {
        if (CGlobalObject::Instance().StorageMngr().DelRecFileByName(file.file_path) != KELM_AVIFILE_OK) {
            LOG_WARN("delete %s failed\n", file.file_path);
        }
    }
    return KELM_AVIFILE_OK;
}

}  // namespace kelm_recvault
