// The exported functions: the state of the library, the checks of the arguments, the public forms turned into the internal
// ones, and the call of a manager. Holds no state and no lock. Nothing is thrown across it.
#include <recvault/recvault.h>

#include <cstring>
#include <new>

#include "DataPopManager.h"
#include "FileManager.h"
#include "GlobalObj.h"
#include "Log.h"
#include "RecDevManager.h"
#include "RecFileNode.h"
#include "RecFileQueryManager.h"
#include "RecSegManager.h"
#include "RecType.h"
#include "SaveAsManager.h"
#include "StorageManager.h"

using namespace kelm_recvault;

namespace {

constexpr int64_t kMaxRange = kSecondsPerDay;
constexpr uint32_t kMaxHandles = 32;
constexpr uint32_t kMaxQueryHandles = 256;
constexpr uint32_t kMaxDays = 31;
constexpr uint32_t kMaxKeySkip = 3;
constexpr size_t kShortestPath = 4;

CGlobalObject &library() { return CGlobalObject::Instance(); }

bool is_channel(uint32_t channel) { return channel < KELM_AVIFILE_MAX_CHANNELS; }
bool is_channel_or_all(uint32_t channel) { return channel == KELM_AVIFILE_ALL_CHANNELS || is_channel(channel); }
bool is_rec_type(int64_t type) { return type >= 1 && type <= kMaxRecType; }
bool is_handle(uint32_t handle, uint32_t last) { return handle >= 1 && handle <= last; }
// The index in its table that a handle, or all channels or one, stands for.
int32_t to_index(uint32_t handle) { return static_cast<int32_t>(handle) - 1; }
int32_t to_channel(uint32_t channel) { return static_cast<int32_t>(channel); }  // kAllChannels, -1, for all
bool is_text(const char *text) { return text != nullptr && text[0] != '\0'; }

// `begin` is not above `end`.
bool is_too_long(int64_t begin, int64_t end) {
    return static_cast<uint64_t>(end) - static_cast<uint64_t>(begin) > static_cast<uint64_t>(kMaxRange);
}

bool is_frame_argument(const FrameHead *head, int32_t head_len, const void *data, uint32_t data_len) {
    return head != nullptr && head_len == KELM_AVIFILE_FRAME_HEAD_BYTES && data != nullptr &&
           data_len <= KELM_AVIFILE_MAX_FRAME_BYTES;
}

// A name that could not be found again below its day folder is no name.
bool is_device_name(const char *name) {
    return is_text(name) && std::strcmp(name, ".") != 0 && std::strcmp(name, "..") != 0 &&
           std::strpbrk(name, "/\\") == nullptr;
}

int32_t check_device(const LogPlace &place, int32_t dev_idx) {
    if (dev_idx < 1 || dev_idx > KELM_AVIFILE_MAX_DEVICES) {
        log_head("ERR. ", place);
        log_print("nDevIdx = %d \n", dev_idx);
        return KELM_AVIFILE_BAD_HANDLE;
    }
    char name[CDevName::kSize];
    const int32_t named = library().RecDevMngr().GetDevName(static_cast<uint32_t>(dev_idx), name, sizeof(name));
    if (named != KELM_AVIFILE_OK || name[0] == '\0') {
        log_trace(place);
        return KELM_AVIFILE_FAILED;
    }
    return KELM_AVIFILE_OK;
}

int32_t traced(const LogPlace &place, int32_t result) {
    if (result != KELM_AVIFILE_OK) log_trace(place);
    return result;
}

}  // namespace

#define REFUSE_IF(condition, code) \
    do {                           \
        if (condition) {           \
            LOG_TRACE();           \
            return code;           \
        }                          \
    } while (false)

#define REQUIRE_INIT() REFUSE_IF(!library().IsInitialised(), KELM_AVIFILE_NOT_INITIALIZED)

#define REQUIRE_DEVICE(dev_idx)                                      \
    do {                                                             \
        const int32_t checked_ = check_device(RCVT_HERE, (dev_idx)); \
        if (checked_ != KELM_AVIFILE_OK) return checked_;            \
    } while (false)

#define REQUIRE_HANDLE(handle) REFUSE_IF(!is_handle(handle, kMaxHandles), KELM_AVIFILE_BAD_HANDLE)

#define CATCH_NO_MEMORY                \
    catch (const std::bad_alloc &) {   \
        LOG_TRACE();                   \
        return KELM_AVIFILE_NO_MEMORY; \
    }

// ---- Library ----

int32_t KELM_AviFile_Init(uint32_t) try { return traced(RCVT_HERE, library().Initialize()); }
CATCH_NO_MEMORY

int32_t KELM_AviFile_UnInit(uint32_t) try { return traced(RCVT_HERE, library().Destroy()); }
CATCH_NO_MEMORY

// ---- Partitions ----

int32_t KELM_AviFile_AddRecPartition(RecPartitionInfo *info) try {
    REQUIRE_INIT();
    REFUSE_IF(info == nullptr, KELM_AVIFILE_BAD_ARGUMENT);
    return traced(RCVT_HERE, library().StorageMngr().AddRecPartition(info));
}
CATCH_NO_MEMORY

int32_t KELM_AviFile_DelRecPartition(const char *path) try {
    REQUIRE_INIT();
    REFUSE_IF(path == nullptr, KELM_AVIFILE_BAD_ARGUMENT);
    return traced(RCVT_HERE, library().StorageMngr().DelRecPartition(path));
}
CATCH_NO_MEMORY

int32_t KELM_AviFile_GetRecUsedSpace(const char *path, uint64_t *used_bytes) try {
    REQUIRE_INIT();
    REFUSE_IF(path == nullptr || used_bytes == nullptr, KELM_AVIFILE_BAD_ARGUMENT);
    return traced(RCVT_HERE, library().StorageMngr().GetRecUsedSpace(path, used_bytes));
}
CATCH_NO_MEMORY

int32_t KELM_AviFile_SetDiskGroupFullCallback(DiskGroupFullCallback callback, void *user) try {
    REQUIRE_INIT();
    return traced(RCVT_HERE, library().StorageMngr().SetDiskGroupFullCallback(callback, user));
}
CATCH_NO_MEMORY

// ---- Devices ----

int32_t KELM_AviFile_CreateDevHandle(int32_t *nDevIdx, const char *name) try {
    REQUIRE_INIT();
    REFUSE_IF(nDevIdx == nullptr || !is_device_name(name), KELM_AVIFILE_BAD_ARGUMENT);
    int32_t number = 0;
    const int32_t result = library().RecDevMngr().CreateDev(&number, name);
    REFUSE_IF(result != KELM_AVIFILE_OK || number < 1, result);
    *nDevIdx = number;
    return KELM_AVIFILE_OK;
}
CATCH_NO_MEMORY

int32_t KELM_AviFile_ReleaseDevHandle(int32_t nDevIdx) try {
    REQUIRE_INIT();
    REFUSE_IF(nDevIdx < 0 || nDevIdx > KELM_AVIFILE_MAX_DEVICES, KELM_AVIFILE_BAD_HANDLE);
    traced(RCVT_HERE, library().RecDevMngr().DestroyDev(static_cast<uint32_t>(nDevIdx)));
    return KELM_AVIFILE_OK;
}
CATCH_NO_MEMORY

// ---- Recording ----

int32_t KELM_AviFile_RecStart(uint32_t nChannel, int32_t nRecType, int32_t nDevIdx) try {
    if (!library().IsInitialised()) return KELM_AVIFILE_NOT_INITIALIZED;
    REFUSE_IF(!is_channel(nChannel) || !is_rec_type(nRecType), KELM_AVIFILE_BAD_ARGUMENT);
    REQUIRE_DEVICE(nDevIdx);
    const uint32_t mask = rectype_to_mask(nRecType);
    return traced(RCVT_HERE, library().RecDevMngr().StartRec(static_cast<uint32_t>(nDevIdx), nChannel, mask));
}
CATCH_NO_MEMORY

int32_t KELM_AviFile_RecStop(uint32_t nChannel, int32_t nDevIdx) try {
    REQUIRE_INIT();
    REFUSE_IF(!is_channel(nChannel), KELM_AVIFILE_BAD_ARGUMENT);
    REQUIRE_DEVICE(nDevIdx);
    traced(RCVT_HERE, library().RecDevMngr().StopRec(static_cast<uint32_t>(nDevIdx), nChannel));
    return KELM_AVIFILE_OK;
}
CATCH_NO_MEMORY

int32_t KELM_AviFile_DataInput(uint32_t nChannel, const FrameHead *pHead, int32_t nHeadLen, const void *pData,
                               uint32_t dwDataLen, uint32_t dwSec, uint32_t dwUsec, int32_t nDevIdx) try {
    if (!library().IsInitialised()) return KELM_AVIFILE_NOT_INITIALIZED;
    REFUSE_IF(!is_channel(nChannel), KELM_AVIFILE_BAD_ARGUMENT);
    REFUSE_IF(!is_frame_argument(pHead, nHeadLen, pData, dwDataLen), KELM_AVIFILE_BAD_ARGUMENT);
    REQUIRE_DEVICE(nDevIdx);
    return library().RecDevMngr().SetRecFrame(static_cast<uint32_t>(nDevIdx), nChannel, *pHead, pData, dwDataLen, dwSec,
                                              dwUsec);
}
CATCH_NO_MEMORY

// ---- Playback ----

int32_t KELM_AviFile_DataPopCreate(uint32_t *pHandle, uint32_t nChannel, int64_t begin, int64_t end,
                                   DataPopCallback callback, int32_t nMode, uint32_t dwUser, int32_t nDevIdx,
                                   uint32_t bSync) try {
    REQUIRE_INIT();
    REFUSE_IF(pHandle == nullptr, KELM_AVIFILE_BAD_ARGUMENT);
    REFUSE_IF(!is_channel_or_all(nChannel) || (begin > end && end != 0) || callback == nullptr, KELM_AVIFILE_BAD_ARGUMENT);
    REFUSE_IF(end != 0 && is_too_long(begin, end), KELM_AVIFILE_BAD_ARGUMENT);
    REQUIRE_DEVICE(nDevIdx);
    const PopRange range{static_cast<uint32_t>(nDevIdx), begin, end, 0, nMode == 1 || end == 0};
    int32_t index = 0;
    const int32_t result =
        library().DataPopMngr().DataPopCreate(&index, range, to_channel(nChannel), callback, dwUser, bSync != 0);
    REFUSE_IF(result != KELM_AVIFILE_OK, result);
    *pHandle = static_cast<uint32_t>(index) + 1;
    return KELM_AVIFILE_OK;
}
CATCH_NO_MEMORY

int32_t KELM_AviFile_DataPopRelease(uint32_t handle) try {
    REQUIRE_INIT();
    REQUIRE_HANDLE(handle);
    return traced(RCVT_HERE, library().DataPopMngr().DataPopRelease(to_index(handle)));
}
CATCH_NO_MEMORY

int32_t KELM_AviFile_DataPopChanAdd(uint32_t handle, uint32_t nChannel) try {
    REQUIRE_INIT();
    REFUSE_IF(!is_channel(nChannel), KELM_AVIFILE_BAD_ARGUMENT);
    REQUIRE_HANDLE(handle);
    return traced(RCVT_HERE, library().DataPopMngr().DataPopChanAdd(to_index(handle), to_channel(nChannel)));
}
CATCH_NO_MEMORY

int32_t KELM_AviFile_DataPopChanDel(uint32_t handle, uint32_t nChannel) try {
    REQUIRE_INIT();
    REFUSE_IF(!is_channel(nChannel), KELM_AVIFILE_BAD_ARGUMENT);
    REQUIRE_HANDLE(handle);
    return traced(RCVT_HERE, library().DataPopMngr().DataPopChanDel(to_index(handle), to_channel(nChannel)));
}
CATCH_NO_MEMORY

int32_t KELM_AviFile_DataPopRecTypeAdd(uint32_t handle, uint32_t nRecType) try {
    REQUIRE_INIT();
    REFUSE_IF(!is_rec_type(nRecType), KELM_AVIFILE_BAD_ARGUMENT);
    REQUIRE_HANDLE(handle);
    return traced(RCVT_HERE, library().DataPopMngr().DataPopRecTypeAdd(to_index(handle),
                                                                       rectype_to_mask(static_cast<int32_t>(nRecType))));
}
CATCH_NO_MEMORY

int32_t KELM_AviFile_DataPopRecTypeDel(uint32_t handle, uint32_t nRecType) try {
    REQUIRE_INIT();
    REFUSE_IF(!is_rec_type(nRecType), KELM_AVIFILE_BAD_ARGUMENT);
    REQUIRE_HANDLE(handle);
    return traced(RCVT_HERE, library().DataPopMngr().DataPopRecTypeDel(to_index(handle),
                                                                       rectype_to_mask(static_cast<int32_t>(nRecType))));
}
CATCH_NO_MEMORY

int32_t KELM_AviFile_DataPopStart(uint32_t handle) try {
    REQUIRE_INIT();
    REQUIRE_HANDLE(handle);
    return traced(RCVT_HERE, library().DataPopMngr().DataPopStart(to_index(handle)));
}
CATCH_NO_MEMORY

int32_t KELM_AviFile_DataPopStop(uint32_t handle) try {
    REQUIRE_INIT();
    REQUIRE_HANDLE(handle);
    traced(RCVT_HERE, library().DataPopMngr().DataPopStop(to_index(handle)));
    return KELM_AVIFILE_OK;
}
CATCH_NO_MEMORY

int32_t KELM_AviFile_DataPopTimeSeek(uint32_t handle, int64_t time) try {
    REQUIRE_INIT();
    REQUIRE_HANDLE(handle);
    return traced(RCVT_HERE, library().DataPopMngr().DataPopTimeSeek(to_index(handle), time));
}
CATCH_NO_MEMORY

int32_t KELM_AviFile_DataPopSetKeyFrame(uint32_t handle, uint32_t bKeyOnly, uint32_t nKeySkip) try {
    REQUIRE_INIT();
    REFUSE_IF(nKeySkip > kMaxKeySkip, KELM_AVIFILE_BAD_ARGUMENT);
    REQUIRE_HANDLE(handle);
    return traced(RCVT_HERE, library().DataPopMngr().DataPopSetKeyFrame(to_index(handle), bKeyOnly != 0,
                                                                        static_cast<int32_t>(nKeySkip)));
}
CATCH_NO_MEMORY

int32_t KELM_AviFile_DataPopGetDataSize(uint32_t handle, uint64_t *size) try {
    REQUIRE_INIT();
    REFUSE_IF(size == nullptr, KELM_AVIFILE_FAILED);
    REQUIRE_HANDLE(handle);
    return traced(RCVT_HERE, library().DataPopMngr().DataPopGetDataSize(to_index(handle), size));
}
CATCH_NO_MEMORY

int32_t KELM_AviFile_DataPopSetDirect(uint32_t handle, uint32_t nDirect) try {
    REQUIRE_INIT();
    REQUIRE_HANDLE(handle);
    return traced(RCVT_HERE, library().DataPopMngr().DataPopSetDirect(to_index(handle), nDirect != 0));
}
CATCH_NO_MEMORY

// ---- What was recorded ----

int32_t KELM_AviFile_GetRecSegList(uint32_t nChannel, int64_t begin, int64_t end, int32_t nRecType, RecSegNode **head,
                                   int32_t *count, int32_t nDevIdx) try {
    REQUIRE_INIT();
    REFUSE_IF(!is_channel(nChannel), KELM_AVIFILE_BAD_ARGUMENT);
    REFUSE_IF(!is_rec_type(nRecType) || begin >= end || is_too_long(begin, end), KELM_AVIFILE_BAD_ARGUMENT);
    REFUSE_IF(head == nullptr || count == nullptr, KELM_AVIFILE_BAD_ARGUMENT);
    REQUIRE_DEVICE(nDevIdx);
    const int32_t result = CRecSegMngr::GetRecSegList(static_cast<uint32_t>(nDevIdx), nChannel, begin, end,
                                                      rectype_to_mask(nRecType), head, count);
    REFUSE_IF(result != KELM_AVIFILE_OK, result);
    for (RecSegNode *node = *head; node != nullptr; node = node->next) {
        node->type = static_cast<uint32_t>(mask_to_rectype(node->type));
    }
    return KELM_AVIFILE_OK;
}
CATCH_NO_MEMORY

int32_t KELM_AviFile_ReleaseRecSegList(RecSegNode *head) try {
    REQUIRE_INIT();
    REFUSE_IF(head == nullptr, KELM_AVIFILE_BAD_ARGUMENT);
    CRecSegMngr::ReleaseRecSegList(head);
    return KELM_AVIFILE_OK;
}
CATCH_NO_MEMORY

int32_t KELM_AviFile_JudgeIFHaveDataByDays(int64_t firstDay, uint32_t nDays, uint32_t *dayMask, int32_t nDevIdx) try {
    REQUIRE_INIT();
    REFUSE_IF(nDays > kMaxDays || dayMask == nullptr, KELM_AVIFILE_BAD_ARGUMENT);
    REQUIRE_DEVICE(nDevIdx);
    uint32_t mask = 0;
    const int32_t result =
        library().StorageMngr().JudgeHaveDataByDays(static_cast<uint32_t>(nDevIdx), firstDay, nDays, &mask);
    REFUSE_IF(result != KELM_AVIFILE_OK, result);
    *dayMask = mask;
    return KELM_AVIFILE_OK;
}
CATCH_NO_MEMORY

int32_t KELM_AviFile_QueryRecFilesStart(uint32_t *pHandle, uint32_t nChannel, int64_t day, int32_t nDevIdx) try {
    REQUIRE_INIT();
    REFUSE_IF(pHandle == nullptr || !is_channel_or_all(nChannel), KELM_AVIFILE_BAD_ARGUMENT);
    REQUIRE_DEVICE(nDevIdx);
    int32_t index = 0;
    const int32_t result = library().RecFileQueryMngr().QueryRecFilesStart(&index, nDevIdx, to_channel(nChannel), day);
    REFUSE_IF(result != KELM_AVIFILE_OK, result);
    *pHandle = static_cast<uint32_t>(index) + 1;
    return KELM_AVIFILE_OK;
}
CATCH_NO_MEMORY

int32_t KELM_AviFile_GetNextRecFile(uint32_t handle, RecFileInfo *info) try {
    REQUIRE_INIT();
    REFUSE_IF(info == nullptr, KELM_AVIFILE_BAD_ARGUMENT);
    REFUSE_IF(!is_handle(handle, kMaxQueryHandles), KELM_AVIFILE_BAD_HANDLE);
    return traced(RCVT_HERE, library().RecFileQueryMngr().GetNextRecFile(to_index(handle), info));
}
CATCH_NO_MEMORY

int32_t KELM_AviFile_QueryRecFilesStop(uint32_t handle) try {
    REQUIRE_INIT();
    REFUSE_IF(!is_handle(handle, kMaxQueryHandles), KELM_AVIFILE_BAD_HANDLE);
    return traced(RCVT_HERE, library().RecFileQueryMngr().QueryRecFilesStop(to_index(handle)));
}
CATCH_NO_MEMORY

int32_t KELM_AviFile_DelAviFiles(uint32_t nChannel, int64_t day, int32_t nDevIdx) try {
    REQUIRE_INIT();
    REFUSE_IF(!is_channel_or_all(nChannel), KELM_AVIFILE_BAD_ARGUMENT);
    REQUIRE_DEVICE(nDevIdx);
    return traced(RCVT_HERE, library().RecFileQueryMngr().DelAviFiles(nDevIdx, to_channel(nChannel), day));
}
CATCH_NO_MEMORY

int32_t KELM_AviFile_DelAviFileByName(const char *path) try {
    REQUIRE_INIT();
    REFUSE_IF(path == nullptr || std::strlen(path) < kShortestPath, KELM_AVIFILE_BAD_ARGUMENT);
    REFUSE_IF(!CFileManager::is_avi_file(path), KELM_AVIFILE_NO_FILE);
    REFUSE_IF(!CFileManager::file_exists(path), KELM_AVIFILE_NO_FILE);
    return traced(RCVT_HERE, library().StorageMngr().DelRecFileByName(path));
}
CATCH_NO_MEMORY

// ---- Save-as export ----

namespace {

int32_t start_export(const LogPlace &place, uint32_t *handle, const char *path, bool by_name) {
    uint32_t slot = 0;
    const int32_t result = library().AviSaveAsMngr().StartRec(&slot, path, by_name);
    if (result == KELM_AVIFILE_OK) *handle = slot + 1;
    return traced(place, result);
}

}  // namespace

int32_t KELM_AviFile_SaveStart(uint32_t *pHandle, const char *path) try {
    REQUIRE_INIT();
    REFUSE_IF(pHandle == nullptr || !is_text(path), KELM_AVIFILE_BAD_ARGUMENT);
    return start_export(RCVT_HERE, pHandle, path, false);
}
CATCH_NO_MEMORY

int32_t KELM_AviFile_SaveStart_ByName(uint32_t *pHandle, const char *path) try {
    REQUIRE_INIT();
    REFUSE_IF(pHandle == nullptr || !is_text(path), KELM_AVIFILE_BAD_ARGUMENT);
    return start_export(RCVT_HERE, pHandle, path, true);
}
CATCH_NO_MEMORY

int32_t KELM_AviFile_SaveInput(uint32_t handle, const FrameHead *pHead, int32_t nHeadLen, const void *pData,
                               uint32_t dwDataLen) try {
    REQUIRE_INIT();
    REFUSE_IF(!is_frame_argument(pHead, nHeadLen, pData, dwDataLen), KELM_AVIFILE_BAD_ARGUMENT);
    REQUIRE_HANDLE(handle);
    return traced(RCVT_HERE, library().AviSaveAsMngr().SetRecFrame(handle - 1, *pHead, pData, dwDataLen));
}
CATCH_NO_MEMORY

int32_t KELM_AviFile_SaveStop(uint32_t handle) try {
    REQUIRE_INIT();
    REQUIRE_HANDLE(handle);
    return traced(RCVT_HERE, library().AviSaveAsMngr().StopRec(handle - 1));
}
CATCH_NO_MEMORY
