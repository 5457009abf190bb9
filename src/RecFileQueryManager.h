// The table of file walks, eight at a time, and the deletion of the files of a channel and day, which is one of them.
//
// One instance, owned by CGlobalObject. Different walks run on different threads; each is used by one thread at a time.
#pragma once

#include <array>
#include <cstdint>

#include "HandleDispather.h"
#include "RecFileQuery.h"

namespace kelm_recvault {

class CRecFileQueryMngr {
 public:
    static constexpr int32_t kSlots = 8;

    int32_t Initialize() { return m_query_ids.Init(kSlots); }
    int32_t Destroy();

    // `index` from 0. NO_SLOT, or the walk's own result.
    int32_t QueryRecFilesStart(int32_t *index, int32_t dev_idx, int32_t channel, int64_t day);
    // NOT_RUNNING for an index that is not in use.
    int32_t GetNextRecFile(int32_t index, RecFileInfo *info);
    // BAD_HANDLE for an index out of range; one that is not in use is no failure.
    int32_t QueryRecFilesStop(int32_t index);

    // Deletes what a walk gives. A file that cannot be deleted stays, and is no failure.
    int32_t DelAviFiles(int32_t dev_idx, int32_t channel, int64_t day);

 private:
    std::array<CRecFileQuery, kSlots> m_queries;
    CIdDispather m_query_ids;
};

}  // namespace kelm_recvault
