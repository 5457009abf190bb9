#include "StorageManager.h"

#include <cstdio>
#include <cstring>
#include <string>

#include "FileManager.h"
#include "GlobalObj.h"
#include "Log.h"
#include "Text.h"

namespace kelm_recvault {

namespace {

long to_mb(uint64_t bytes) { return static_cast<long>(bytes / kMiB); }

std::string record_root(const char *path) { return std::string(path) + "/" + kRecordFolder + "/"; }

// "<root><yyyymmdd>/<device>/channel<nn>/"; a device that is not registered leaves its folder out.
std::string record_folder(const char *root, const DateTimeFields &time, const char *device, int32_t channel) {
    char day[32];
    char folder[32];
    std::snprintf(day, sizeof(day), "%04d%02d%02d/", time.year, time.month, time.day);
    std::snprintf(folder, sizeof(folder), "channel%02d/", channel + 1);
    const std::string device_folder = device[0] == '\0' ? std::string() : std::string(device) + "/";
    return std::string(root) + day + device_folder + folder;
}

// "143000.avi", then "143000_1.avi", "143000_2.avi" and so on: the first that is not taken.
std::string free_file_name(const std::string &folder, const DateTimeFields &time) {
    char name[32];
    std::snprintf(name, sizeof(name), "%02d%02d%02d", time.hour, time.minute, time.second);
    const std::string stem = folder + name;
    std::string path = stem + ".avi";
    for (int32_t number = 1; CFileManager::file_exists(path.c_str()); ++number) {
        path = stem + "_" + std::to_string(number) + ".avi";
    }
    return path;
}

}  // namespace

// ---- Pins ----

CStorageMngr::CDiskPin::CDiskPin(CStorageMngr *owner, int32_t slot, bool holder) : m_owner(owner), m_slot(slot) {
    if (slot < 0 || slot >= kMaxPartitions) return;
    const CAutoMutex lock(&m_owner->m_mtxPins);
    int32_t &pins = m_owner->m_pins[static_cast<size_t>(slot)];
    if (holder ? pins == 0 : !m_owner->m_DiskIds.IsHandleBusy(slot)) return;
    ++pins;
    m_disk = &m_owner->m_aDisk[static_cast<size_t>(slot)];
}

CStorageMngr::CDiskPin::~CDiskPin() {
    if (m_disk != nullptr) m_owner->ReleasePartition(m_slot, 1);
}

void CStorageMngr::Hold(int32_t slot, int32_t holds) {
    const CAutoMutex lock(&m_mtxPins);
    m_pins[static_cast<size_t>(slot)] += holds;
}

void CStorageMngr::ReleasePartition(int32_t disk_idx, int32_t holds) {
    const auto slot = static_cast<size_t>(disk_idx);
    const CAutoMutex lock(&m_mtxPins);
    m_pins[slot] -= holds;
    if (m_pins[slot] == 0 && !m_DiskIds.IsHandleBusy(disk_idx)) platform::event_set(m_unpinned[slot]);
}

bool CStorageMngr::IsPinned(int32_t slot) {
    const CAutoMutex lock(&m_mtxPins);
    return m_pins[static_cast<size_t>(slot)] > 0;
}

// ---- Lifecycle ----

CStorageMngr::~CStorageMngr() {
    if (m_initialised) Destroy();
}

int32_t CStorageMngr::Initialize() {
    if (m_initialised) {
        LOG_TRACE();
        return KELM_AVIFILE_FAILED;
    }
    int32_t result = m_DiskIds.Init(kMaxPartitions);
    for (CMutex *mutex : {&m_mtxCallback, &m_mtxCurDisk, &m_mtxAdd, &m_mtxPins}) {
        if (result == KELM_AVIFILE_OK) result = mutex->Create();
    }
    for (auto &event : m_unpinned) {
        event = platform::event_create();
        if (event == nullptr) result = KELM_AVIFILE_NO_MEMORY;
    }
    m_initialised = true;
    if (result != KELM_AVIFILE_OK) {
        LOG_TRACE();
        Destroy();
        return result;
    }
    SetCurDisk(kNoDisk);
    return KELM_AVIFILE_OK;
}

int32_t CStorageMngr::Destroy() {
    if (!m_initialised) {
        LOG_TRACE();
        return KELM_AVIFILE_FAILED;
    }
    for (int32_t slot = 0; slot < kMaxPartitions; ++slot) {
        if (m_DiskIds.IsHandleBusy(slot)) m_aDisk[static_cast<size_t>(slot)].Destroy();
    }
    m_DiskIds.Destroy();
    for (CMutex *mutex : {&m_mtxCallback, &m_mtxCurDisk, &m_mtxAdd, &m_mtxPins}) mutex->Close();
    DestroyEvents();
    m_initialised = false;
    return KELM_AVIFILE_OK;
}

void CStorageMngr::DestroyEvents() {
    for (auto &event : m_unpinned) {
        platform::event_destroy(event);
        event = nullptr;
    }
}

// ---- The set of partitions ----

int32_t CStorageMngr::AddRecPartition(RecPartitionInfo *info) {
    const bool terminated = std::memchr(info->path, '\0', sizeof(info->path)) != nullptr;
    if (!terminated || !CFileManager::file_path_valid(info->path)) {
        LOG_TRACE();
        return KELM_AVIFILE_BAD_ARGUMENT;
    }
    if (info->rec_space < 64 * kMiB) LOG_WARN("record can use space is too small: %ld MB", to_mb(info->rec_space));
    if (info->rec_space > info->disk_space) {
        LOG_WARN("force %ld MB record space to %ld MB\n", to_mb(info->rec_space), to_mb(info->disk_space));
        info->rec_space = info->disk_space;
    }
    const int32_t result = AddOrChange(*info);
    if (result == KELM_AVIFILE_OK) SelectCurDisk(true);
    return result;
}

int32_t CStorageMngr::AddOrChange(const RecPartitionInfo &info) {
    const DiskConfig config{info.rec_space, info.disk_space, info.max_save_hour, info.priority};
    const CAutoMutex lock(&m_mtxAdd);
    const CDiskPin known(this, GetDiskIdxByPath(info.path));
    if (known) {
        known->SetConfig(config);
        return KELM_AVIFILE_OK;
    }
    return AddNewPartition(info, config);
}

int32_t CStorageMngr::AddNewPartition(const RecPartitionInfo &info, const DiskConfig &config) {
    int32_t slot = kNoDisk;
    const int32_t reserved = m_DiskIds.CreateHandle(&slot, true);
    if (reserved != KELM_AVIFILE_OK) {
        LOG_ERR("too many partition, cannot be added now!");
        return reserved;
    }
    CDisk &disk = m_aDisk[static_cast<size_t>(slot)];
    const int32_t result = disk.Initialize(slot, config, record_root(info.path).c_str());
    if (result != KELM_AVIFILE_OK) {
        LOG_TRACE();
        disk.Destroy();
        m_DiskIds.DestroyHandle(slot);
        return result;
    }
    m_DiskIds.SetHandleBusy(slot);
    return KELM_AVIFILE_OK;
}

int32_t CStorageMngr::DelRecPartition(const char *path) {
    const int32_t slot = GetDiskIdxByPath(path);
    if (slot == kNoDisk || !m_DiskIds.TakeOutOfUse(slot)) {
        LOG_TRACE();
        return KELM_AVIFILE_FAILED;
    }
    CDisk &disk = m_aDisk[static_cast<size_t>(slot)];
    if (GetCurDisk() == slot) SelectCurDisk(false);
    while (IsPinned(slot)) {
        if (ask_recording::GetCurRecFileSize(slot) > 0) ask_recording::SwitchAllRecFile();
        platform::event_wait(m_unpinned[static_cast<size_t>(slot)], platform::kForever);
    }
    disk.Destroy();
    m_DiskIds.DestroyHandle(slot);
    return KELM_AVIFILE_OK;
}

int32_t CStorageMngr::GetDiskIdxByPath(const char *path) {
    std::string slashed(path);
    CFileManager::path_to_slash(slashed.data());
    for (int32_t slot = 0; slot < kMaxPartitions; ++slot) {
        const CDiskPin disk(this, slot);
        if (disk && std::strstr(disk->GetRecFolder(), slashed.c_str()) != nullptr) return slot;
    }
    return kNoDisk;
}

bool CStorageMngr::FileLiesOn(int32_t slot, const char *path) {
    const CDiskPin disk(this, slot);
    return disk && std::strstr(path, disk->GetRecFolder()) != nullptr;
}

int32_t CStorageMngr::GetDiskIdxByFile(const char *path) {
    const int32_t current = GetCurDisk();
    if (FileLiesOn(current, path)) return current;
    for (int32_t slot = 0; slot < kMaxPartitions; ++slot) {
        if (FileLiesOn(slot, path)) return slot;
    }
    return kNoDisk;
}

int32_t CStorageMngr::GetRecUsedSpace(const char *path, uint64_t *bytes) {
    const CDiskPin disk(this, GetDiskIdxByPath(path));
    if (!disk) {
        LOG_TRACE();
        return KELM_AVIFILE_FAILED;
    }
    *bytes = disk->GetRecUsedSpace();
    return KELM_AVIFILE_OK;
}

int32_t CStorageMngr::SetDiskGroupFullCallback(DiskGroupFullCallback callback, void *user) {
    const CAutoMutex lock(&m_mtxCallback);
    m_callback = callback;
    m_callback_user = user;
    return KELM_AVIFILE_OK;
}

// ---- The current partition ----

int32_t CStorageMngr::GetCurDisk() {
    const CAutoMutex lock(&m_mtxCurDisk);
    return m_nCurDisk;
}

void CStorageMngr::SetCurDisk(int32_t slot) {
    const CAutoMutex lock(&m_mtxCurDisk);
    m_nCurDisk = slot;
}

bool CStorageMngr::IsCurDiskExist() {
    const CDiskPin disk(this, GetCurDisk());
    return disk && disk->IsDiskExist();
}

int32_t CStorageMngr::FindBestDisk() {
    int32_t best_priority = 0;
    int32_t best = kNoDisk;
    for (int32_t slot = 0; slot < kMaxPartitions && best_priority != kBestPriority; ++slot) {
        const CDiskPin disk(this, slot);
        if (!disk || disk->IsDiskFull(true) || disk->GetPriority() <= best_priority) continue;
        best_priority = disk->GetPriority();
        best = slot;
    }
    return best;
}

void CStorageMngr::SelectCurDisk(bool switch_files) {
    const bool old_existed = IsCurDiskExist();
    const int32_t old = GetCurDisk();
    int32_t best = FindBestDisk();
    if (old >= 0 && old == best) return;
    SetCurDisk(best);
    // The one that was found may have been removed before it was set.
    while (best != kNoDisk && !m_DiskIds.IsHandleBusy(best)) SetCurDisk(best = FindBestDisk());
    if (old_existed && switch_files) ask_recording::SwitchAllRecFile();
}

// ---- Files ----

int32_t CStorageMngr::GetRecFileName(uint32_t dev_idx, int32_t channel, uint32_t cur_sec, RecFileName *name) {
    if (name == nullptr) {
        LOG_TRACE();
        return KELM_AVIFILE_BAD_ARGUMENT;
    }
    const int32_t slot = GetCurDisk();
    if (slot < 0) return KELM_AVIFILE_FAILED;
    const CDiskPin disk(this, slot);
    if (!disk) {
        LOG_TRACE();
        return KELM_AVIFILE_FAILED;
    }
    DateTimeFields time{};
    CGlobalObject::gmtime_utc(cur_sec, &time);
    char device[kMaxDeviceName + 1] = {};
    ask_recording::GetDevName(dev_idx, device, sizeof(device));
    const std::string folder = record_folder(disk->GetRecFolder(), time, device, channel);
    // The root of a volume that was pulled is not made anew: that would be a folder on another volume.
    if (!disk->IsDiskExist() || CFileManager::create_file_dir(folder.c_str()) != KELM_AVIFILE_OK) {
        LOG_ERR("create record file path failed: %s \n", folder.c_str());
        return KELM_AVIFILE_FAILED;
    }
    const std::string path = free_file_name(folder, time);
    if (path.size() > kMaxPath) {
        LOG_TRACE();
        return KELM_AVIFILE_NO_ROOM;
    }
    copy_text(name->path, path.c_str());
    name->disk_idx = slot;
    name->max_file_size = static_cast<int32_t>(disk->GetMaxRecFileSize());
    Hold(slot, 2);
    return KELM_AVIFILE_OK;
}

int32_t CStorageMngr::AddRecNodeInfo(int32_t disk_idx, const RecFileNode &node, bool is_new) {
    const CDiskPin disk(this, disk_idx, true);
    if (!disk) {
        LOG_TRACE();
        return KELM_AVIFILE_FAILED;
    }
    const int32_t result = disk->AddRecNodeInfo(node, is_new);
    // Opened on a partition that is being removed: whoever removes it has to tell the recorder again.
    if (is_new && !m_DiskIds.IsHandleBusy(disk_idx)) platform::event_set(m_unpinned[static_cast<size_t>(disk_idx)]);
    return result;
}

int32_t CStorageMngr::DelRecFile(int32_t disk_idx, const char *path) {
    const CDiskPin disk(this, disk_idx);
    if (!disk) {
        LOG_TRACE();
        return KELM_AVIFILE_FAILED;
    }
    return disk->DelRecFile(path);
}

int32_t CStorageMngr::DelRecFileByName(const char *path) {
    const int32_t slot = GetDiskIdxByFile(path);
    // A file that is open cannot be deleted: its recorder would go on writing into nothing.
    if (slot == kNoDisk || ask_recording::IsWriting(path)) {
        LOG_TRACE();
        return KELM_AVIFILE_FAILED;
    }
    const int32_t result = DelRecFile(slot, path);
    if (result != KELM_AVIFILE_OK) LOG_TRACE();
    return result;
}

}  // namespace kelm_recvault
