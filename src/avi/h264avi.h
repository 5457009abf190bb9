// The questions about a record file and its repair, as the floors above the container ask for them.
#pragma once

#include <cstdint>

#include "avi/avi_format.h"

namespace kelm_recvault {

// BAD_ARGUMENT for a null pointer, NO_MEMORY, else the result of the operation of the container.
int32_t avi_get_recinfo_by_name(const char *path, uint32_t *rec_type, int64_t *begin_sec, int64_t *end_sec);
int32_t avi_get_recseg_by_name(const char *path, RecSegEntry *entries, int32_t *count);
int32_t avi_restore_file(const char *path);

}  // namespace kelm_recvault
