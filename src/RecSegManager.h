// What was recorded on a channel in a time range, to the second and by record type: the list that an application gets.
//
// The index says which files touch the range, the table of each file which stretches of it were recorded. Holds nothing: a
// list belongs to the caller from the moment it is returned. Entered by any thread.
#pragma once

#include <recvault/recvault.h>

#include <cstdint>

namespace kelm_recvault {

class CRecSegMngr {
 public:
    // The stretches in the order of the files' begin, and within a file in that of its table; nothing is merged. The types
    // are masks. A file that cannot tell its segments is left out. NO_MEMORY, nothing stored.
    static int32_t GetRecSegList(uint32_t dev_idx, uint32_t channel, int64_t begin_sec, int64_t end_sec, uint32_t type_mask,
                                 RecSegNode **head, int32_t *count);
    static void ReleaseRecSegList(RecSegNode *head);
};

}  // namespace kelm_recvault
