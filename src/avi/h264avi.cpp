#include "avi/h264avi.h"

#include <memory>
#include <new>

#include "Log.h"
#include "avi/avi_common.h"

namespace kelm_recvault {

int32_t avi_get_recinfo_by_name(const char *path, uint32_t *rec_type, int64_t *begin_sec, int64_t *end_sec) {
    if (path == nullptr) return KELM_AVIFILE_BAD_ARGUMENT;
    const auto entries = std::unique_ptr<RecSegEntry[]>(new (std::nothrow) RecSegEntry[kMaxSegments]);
    if (!entries) return KELM_AVIFILE_NO_MEMORY;
    const int32_t result = kelm_avi::get_recinfo_by_name(path, entries.get(), rec_type, begin_sec, end_sec);
    if (result != KELM_AVIFILE_OK) LOG_TRACE();
    return result;
}

int32_t avi_get_recseg_by_name(const char *path, RecSegEntry *entries, int32_t *count) {
    if (path == nullptr || entries == nullptr) return KELM_AVIFILE_BAD_ARGUMENT;
    return kelm_avi::get_recseg_by_name(path, entries, count);
}

int32_t avi_restore_file(const char *path) {
    return path == nullptr ? KELM_AVIFILE_BAD_ARGUMENT : kelm_avi::restore_avi_file(path);
}

}  // namespace kelm_recvault
