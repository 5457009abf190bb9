#include "RecDevManager.h"

#include <algorithm>
#include <cstring>

#include "GlobalObj.h"
#include "Log.h"

namespace kelm_recvault {

namespace {
constexpr int32_t kSweepPeriod = 600000;  // milliseconds
}

int32_t CRecDevMngr::Initialize() {
    m_ids.Init(kSlots);
    m_create_lock.Create();
    int32_t none = 0;
    m_ids.CreateHandle(&none, true);
    // Without the sweep an idle channel's file stays open until its next key frame; everything else works.
    if (m_thread.Start(this, 0, kSweepPeriod, "rcvt-sweep") != KELM_AVIFILE_OK) LOG_TRACE();
    return KELM_AVIFILE_OK;
}

int32_t CRecDevMngr::Destroy() {
    m_thread.Stop();
    for (uint32_t dev_idx = 1; dev_idx < static_cast<uint32_t>(kSlots); ++dev_idx) {
        if (IsRegistered(dev_idx)) DestroyDev(dev_idx);
    }
    m_create_lock.Close();
    m_ids.Destroy();
    return KELM_AVIFILE_OK;
}

int32_t CRecDevMngr::CreateDev(int32_t *dev_idx, const char *name) {
    const CAutoMutex lock(&m_create_lock);
    const int32_t known = GetDevIdx(name);
    if (known >= 1) {
        LOG_TRACE();
        *dev_idx = known;
        return KELM_AVIFILE_EXISTS;
    }
    int32_t number = 0;
    if (m_ids.CreateHandle(&number, true) != KELM_AVIFILE_OK) {
        LOG_TRACE();
        return KELM_AVIFILE_NO_SLOT;
    }
    m_devices.Build(static_cast<size_t>(number)).SetDevInfo(static_cast<uint32_t>(number), name);
    m_ids.SetHandleBusy(number);
    *dev_idx = number;
    return KELM_AVIFILE_OK;
}

int32_t CRecDevMngr::Find(uint32_t dev_idx, CStorageChMngr **device) {
    if (dev_idx >= static_cast<uint32_t>(kSlots)) {
        LOG_TRACE();
        return KELM_AVIFILE_BAD_ARGUMENT;
    }
    if (!IsRegistered(dev_idx)) {
        LOG_TRACE();
        return KELM_AVIFILE_NOT_RUNNING;
    }
    *device = m_devices.Get(dev_idx);
    return KELM_AVIFILE_OK;
}

// While it leaves, the device is still known by its name, and its open files are still counted.
int32_t CRecDevMngr::DestroyDev(uint32_t dev_idx) {
    CStorageChMngr *device = nullptr;
    const int32_t found = Find(dev_idx, &device);
    if (found != KELM_AVIFILE_OK) return found;
    if (!device->Leave()) {  // another thread is at it
        LOG_TRACE();
        return KELM_AVIFILE_NOT_RUNNING;
    }
    device->StopAllRec();
    m_ids.DestroyHandle(static_cast<int32_t>(dev_idx));
    return KELM_AVIFILE_OK;
}

int32_t CRecDevMngr::GetDevName(uint32_t dev_idx, char *name, uint32_t size) {
    std::memset(name, 0, size);
    if (dev_idx >= static_cast<uint32_t>(kSlots)) {
        LOG_TRACE();
        return KELM_AVIFILE_FAILED;
    }
    if (!IsRegistered(dev_idx)) return KELM_AVIFILE_NOT_RUNNING;
    char text[CDevName::kSize];
    m_devices.Get(dev_idx)->GetDevName().Get(text);
    if (size > 0) std::memcpy(name, text, std::min<size_t>(size - 1, sizeof(text) - 1));
    return KELM_AVIFILE_OK;
}

int32_t CRecDevMngr::GetDevIdx(const char *path) {
    if (path == nullptr || path[0] == '\0') {
        LOG_TRACE();
        return 0;
    }
    char name[CDevName::kSize];
    for (int32_t dev_idx = 1; dev_idx < kSlots; ++dev_idx) {
        if (GetDevName(static_cast<uint32_t>(dev_idx), name, sizeof(name)) != KELM_AVIFILE_OK) continue;
        if (name[0] != '\0' && std::strstr(path, name) != nullptr) return dev_idx;
    }
    return 0;
}

int32_t CRecDevMngr::StartRec(uint32_t dev_idx, uint32_t channel, uint32_t mask) {
    CStorageChMngr *device = nullptr;
    const int32_t found = Find(dev_idx, &device);
    return found == KELM_AVIFILE_OK ? device->StartRec(channel, mask) : found;
}

int32_t CRecDevMngr::StopRec(uint32_t dev_idx, uint32_t channel) {
    CStorageChMngr *device = nullptr;
    const int32_t found = Find(dev_idx, &device);
    return found == KELM_AVIFILE_OK ? device->StopRec(channel) : found;
}

int32_t CRecDevMngr::SetRecFrame(uint32_t dev_idx, uint32_t channel, const FrameHead &head, const void *data,
                                 uint32_t data_len, uint32_t sec, uint32_t usec) {
    CStorageChMngr *device = nullptr;
    const int32_t found = Find(dev_idx, &device);
    return found == KELM_AVIFILE_OK ? device->SetRecFrame(channel, head, data, data_len, sec, usec) : found;
}

template <class Visit>
void CRecDevMngr::for_each_device(Visit visit) {
    for (uint32_t dev_idx = 1; dev_idx < static_cast<uint32_t>(kSlots); ++dev_idx) {
        if (IsRegistered(dev_idx)) visit(*m_devices.Get(dev_idx));
    }
}

void CRecDevMngr::SwitchAllRecFile() {
    for_each_device([](CStorageChMngr &device) { device.SwitchAllRecFile(); });
}

int32_t CRecDevMngr::FindByPath(const char *path, uint32_t channel, CStorageChMngr **device) {
    const auto dev_idx = static_cast<uint32_t>(GetDevIdx(path));
    if (!IsRegistered(dev_idx)) return KELM_AVIFILE_NOT_RUNNING;
    if (channel >= CStorageChMngr::kMaxChannels) {
        LOG_TRACE();
        return KELM_AVIFILE_BAD_ARGUMENT;
    }
    *device = m_devices.Get(dev_idx);
    return KELM_AVIFILE_OK;
}

int32_t CRecDevMngr::GetRecInfo(uint32_t channel, const char *path, uint32_t *type, int64_t *begin_sec, int64_t *end_sec) {
    CStorageChMngr *device = nullptr;
    const int32_t found = FindByPath(path, channel, &device);
    return found == KELM_AVIFILE_OK ? device->GetRecInfo(channel, path, type, begin_sec, end_sec) : found;
}

int32_t CRecDevMngr::GetRecSegInfo(uint32_t channel, const char *path, RecSegEntry *entries, int32_t *count) {
    CStorageChMngr *device = nullptr;
    const int32_t found = FindByPath(path, channel, &device);
    return found == KELM_AVIFILE_OK ? device->GetRecSegInfo(channel, path, entries, count) : found;
}

int32_t CRecDevMngr::GetRecDataSize(uint32_t channel, const char *path, int64_t begin, int64_t end, uint32_t mask,
                                    int32_t *size) {
    CStorageChMngr *device = nullptr;
    const int32_t found = FindByPath(path, channel, &device);
    return found == KELM_AVIFILE_OK ? device->GetRecDataSize(channel, path, begin, end, mask, size) : found;
}

int32_t CRecDevMngr::SwitchRecFileByName(uint32_t channel, const char *path) {
    CStorageChMngr *device = nullptr;
    const int32_t found = FindByPath(path, channel, &device);
    if (found == KELM_AVIFILE_NOT_RUNNING) LOG_TRACE();
    return found == KELM_AVIFILE_OK ? device->SwitchRecFileByName(channel, path) : found;
}

bool CRecDevMngr::IsWriting(uint32_t dev_idx, int32_t channel, const char *path) {
    if (dev_idx >= static_cast<uint32_t>(kSlots)) {
        LOG_TRACE();
        return false;
    }
    return IsRegistered(dev_idx) && m_devices.Get(dev_idx)->IsWriting(channel, path);
}

int32_t CRecDevMngr::GetRecChanCnt() {
    int32_t count = 0;
    for_each_device([&count](CStorageChMngr &device) { count += device.GetRecChanCnt(); });
    return count;
}

int64_t CRecDevMngr::GetCurRecFileSize(int32_t disk_idx) {
    int64_t total = 0;
    for_each_device([&total, disk_idx](CStorageChMngr &device) { total += device.GetCurRecFileSize(disk_idx); });
    return total;
}

int32_t CRecDevMngr::ThreadFunc(uint32_t) {
    const int64_t now = CGlobalObject::Instance().now_utc();
    for_each_device([now](CStorageChMngr &device) { device.CloseIdleRecFiles(now); });
    return KELM_AVIFILE_OK;
}

}  // namespace kelm_recvault
