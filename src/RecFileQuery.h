// One walk over the finished record files of a device, day by day.
//
// Holds the file list of one day at a time, so that a whole store is walked with the memory of a day. A snapshot of that
// day: a path that is handed out may be gone when it is used. Owned by value by CRecFileQueryMngr; used by one thread at a
// time, and has no lock.
#pragma once

#include <recvault/recvault.h>

#include <cstdint>

#include "RecFileNode.h"

namespace kelm_recvault {

class CRecFileQuery {
 public:
    CRecFileQuery() = default;
    CRecFileQuery(const CRecFileQuery &) = delete;
    CRecFileQuery &operator=(const CRecFileQuery &) = delete;

    // `day` is any second of a day, or -1 for all days. NOT_FOUND when all days are asked for and there is none.
    int32_t QueryRecFilesStart(int32_t dev_idx, int32_t channel, int64_t day);
    // NOT_FOUND behind the last file, as often as it is asked.
    int32_t GetNextRecFile(RecFileInfo *info);
    void QueryRecFilesStop();

 private:
    void ReadDay(int64_t day);

    RecFileSet m_files;  // of the day that is walked
    RecFileSet::const_iterator m_cursor = m_files.end();
    int64_t m_last_day = 0;
    int64_t m_next_day = 0;  // no day is left when it is after m_last_day
    int32_t m_nDevIdx = -1;
    int32_t m_nChannel = -1;
};

}  // namespace kelm_recvault
