#include "RecFileQuery.h"

#include "GlobalObj.h"
#include "Log.h"
#include "StorageManager.h"
#include "Text.h"

namespace kelm_recvault {

int32_t CRecFileQuery::QueryRecFilesStart(int32_t dev_idx, int32_t channel, int64_t day) {
    day = bounded_time(day);
    int64_t first_day = day - day % kSecondsPerDay;
    int64_t last_day = first_day + kSecondsPerDay - 1;
    if (day == -1 && CGlobalObject::Instance().StorageMngr().GetRecDateLimit(&first_day, &last_day) != KELM_AVIFILE_OK) {
        LOG_TRACE();
        return KELM_AVIFILE_NOT_FOUND;
    }
    m_files.clear();
    m_cursor = m_files.end();
    m_next_day = first_day;
    m_last_day = last_day;
    m_nDevIdx = dev_idx;
    m_nChannel = channel;
    return KELM_AVIFILE_OK;
}

void CRecFileQuery::ReadDay(int64_t day) {
    m_files.clear();
    const RecQuery query{static_cast<uint32_t>(m_nDevIdx), m_nChannel, kAllRecTypes, false};
    CGlobalObject::Instance().StorageMngr().QueryRecFile(query, day, day + kSecondsPerDay - 1, true, &m_files);
    m_cursor = m_files.begin();
}

int32_t CRecFileQuery::GetNextRecFile(RecFileInfo *info) {
    while (m_cursor == m_files.end()) {
        if (m_next_day > m_last_day) return KELM_AVIFILE_NOT_FOUND;
        ReadDay(m_next_day);
        m_next_day += kSecondsPerDay;
    }
    *info = {};
    copy_text(info->file_path, m_cursor->rec_file_path);
    info->begin_sec = static_cast<uint32_t>(m_cursor->begin_sec);
    info->end_sec = static_cast<uint32_t>(m_cursor->end_sec);
    info->file_size = m_cursor->file_size;
    info->type = m_cursor->type;
    ++m_cursor;
    return KELM_AVIFILE_OK;
}

void CRecFileQuery::QueryRecFilesStop() {
    m_files.clear();
    m_cursor = m_files.end();
    m_next_day = m_last_day = 0;
    m_nDevIdx = m_nChannel = -1;
}

}  // namespace kelm_recvault
