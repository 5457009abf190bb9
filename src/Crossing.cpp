#include "Crossing.h"

#include "GlobalObj.h"
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
    CMutex::AssertNoneHeld(LockRank::deletion, LockRank::current_disk);
    return CGlobalObject::Instance().RecDevMngr();
}

}  // namespace

namespace ask_storage {

int32_t GetRecFileName(uint32_t dev_idx, int32_t channel, uint32_t cur_sec, RecFileName *name) {
    return leave_recording().GetRecFileName(dev_idx, channel, cur_sec, name);
}

int32_t AddRecNodeInfo(int32_t disk_idx, const RecFileNode &node, bool is_new) {
    return leave_recording().AddRecNodeInfo(disk_idx, node, is_new);
}

}  // namespace ask_storage

namespace ask_recording {

int32_t GetDevName(uint32_t dev_idx, char *name, uint32_t size) { return leave_storage().GetDevName(dev_idx, name, size); }

int64_t GetCurRecFileSize(int32_t disk_idx) { return leave_storage().GetCurRecFileSize(disk_idx); }

void SwitchAllRecFile() { leave_storage().SwitchAllRecFile(); }

}  // namespace ask_recording

}  // namespace kelm_recvault
