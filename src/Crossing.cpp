#include "Crossing.h"

#include <recvault/recvault.h>

#include <new>

#include "GlobalObj.h"
#include "Log.h"
#include "Mutex.h"
#include "RecDevManager.h"
#include "StorageManager.h"

namespace kelm_recvault {

namespace {

CStorageMngr &leave_recording() {
    CMutex::AssertNoneHeld(LockRank::device_table, LockRank::live_frames);
    return CGlobalObject::Instance().StorageMngr();
}

CRecDevMngr &leave_storage() {
    CMutex::AssertNoneHeld(LockRank::index_files, LockRank::current_disk);
    return CGlobalObject::Instance().RecDevMngr();
}

}  // namespace

namespace ask_storage {

// A recorder has no use for an exception: it has a file in hand.
int32_t GetRecFileName(uint32_t dev_idx, int32_t channel, uint32_t cur_sec, RecFileName *name) try {
    return leave_recording().GetRecFileName(dev_idx, channel, cur_sec, name);
} catch (const std::bad_alloc &) {
    LOG_TRACE();
    return KELM_AVIFILE_NO_MEMORY;
}

int32_t AddRecNodeInfo(int32_t disk_idx, const RecFileNode &node, bool is_new) try {
    return leave_recording().AddRecNodeInfo(disk_idx, node, is_new);
} catch (const std::bad_alloc &) {
    LOG_TRACE();
    return KELM_AVIFILE_NO_MEMORY;
}

void ReleasePartition(int32_t disk_idx, int32_t holds) { leave_recording().ReleasePartition(disk_idx, holds); }

}  // namespace ask_storage

namespace ask_recording {

int32_t GetDevName(uint32_t dev_idx, char *name, uint32_t size) { return leave_storage().GetDevName(dev_idx, name, size); }

int64_t GetCurRecFileSize(int32_t disk_idx) { return leave_storage().GetCurRecFileSize(disk_idx); }

void SwitchAllRecFile() { leave_storage().SwitchAllRecFile(); }

bool IsWriting(const char *path) { return leave_storage().IsWriting(path); }

int32_t GetRecChanCnt() { return leave_storage().GetRecChanCnt(); }

int32_t SwitchRecFileByName(uint32_t channel, const char *path) {
    return leave_storage().SwitchRecFileByName(channel, path);
}

int32_t GetRecInfo(uint32_t channel, const char *path, uint32_t *type, int64_t *begin_sec, int64_t *end_sec) {
    return leave_storage().GetRecInfo(channel, path, type, begin_sec, end_sec);
}

}  // namespace ask_recording

}  // namespace kelm_recvault
