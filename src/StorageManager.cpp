#include "StorageManager.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "FileManager.h"
#include "GlobalObj.h"
#include "Log.h"
#include "Text.h"

namespace kelm_recvault {

namespace {

long to_mb(uint64_t bytes) { return static_cast<long>(bytes / kMiB); }

constexpr int32_t kMonitorPeriod = 1000;  // milliseconds
constexpr int32_t kTicksPerMinute = 60;
constexpr int32_t kTicksPerFreeSpaceCheck = 10;

// The first second of a day folder's day, in the time base: no zone and no daylight time has a part in it. A name that is no
// date counts as one nearby.
int64_t second_of_day(const std::string &day) {
    const auto number = [&day](size_t from, size_t length, long lowest, long highest) {
        return std::clamp(std::strtol(day.substr(from, length).c_str(), nullptr, 10), lowest, highest);
    };
    const std::chrono::year_month_day date{std::chrono::year(static_cast<int>(number(0, 4, 1970, 2100))),
                                           std::chrono::month(static_cast<unsigned>(number(4, 2, 1, 12))),
                                           std::chrono::day(static_cast<unsigned>(number(6, 2, 1, 31)))};
    return std::chrono::sys_days(date).time_since_epoch().count() * kSecondsPerDay;
}

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
    result = m_MonitorThrd.Start(this, 0, kMonitorPeriod, "rcvt-monitor");
    if (result != KELM_AVIFILE_OK) {
        LOG_TRACE();
        Destroy();
    }
    return result;
}

int32_t CStorageMngr::Destroy() {
    if (!m_initialised) {
        LOG_TRACE();
        return KELM_AVIFILE_FAILED;
    }
    if (m_MonitorThrd.Stop() != KELM_AVIFILE_OK) LOG_TRACE();
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
    int32_t added = kNoDisk;
    const int32_t result = AddOrChange(*info, &added);
    const CDiskPin disk(this, added);
    if (disk) disk->DelFileExceedMaxSaveTime();
    if (result == KELM_AVIFILE_OK) SelectCurDisk(true);
    return result;
}

int32_t CStorageMngr::AddOrChange(const RecPartitionInfo &info, int32_t *added) {
    const DiskConfig config{info.rec_space, info.disk_space, info.max_save_hour, info.priority};
    const CAutoMutex lock(&m_mtxAdd);
    const CDiskPin known(this, GetDiskIdxByPath(info.path));
    if (known) {
        known->SetConfig(config);
        NoteSetChanged();
        return KELM_AVIFILE_OK;
    }
    return AddNewPartition(info, config, added);
}

int32_t CStorageMngr::AddNewPartition(const RecPartitionInfo &info, const DiskConfig &config, int32_t *added) {
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
    NoteSetChanged();
    *added = slot;
    return KELM_AVIFILE_OK;
}

int32_t CStorageMngr::DelRecPartition(const char *path) {
    const int32_t slot = GetDiskIdxByPath(path);
    if (slot == kNoDisk || !m_DiskIds.TakeOutOfUse(slot)) {
        LOG_TRACE();
        return KELM_AVIFILE_FAILED;
    }
    CDisk &disk = m_aDisk[static_cast<size_t>(slot)];
    NoteSetChanged();
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
    // A choice that was made while a partition came or went is made again: it would undo the other thread's.
    for (;;) {
        const uint32_t version = GetSetVersion();
        const int32_t best = FindBestDisk();
        if (old >= 0 && old == best) return;
        const CAutoMutex lock(&m_mtxCurDisk);
        if (version != m_set_version) continue;
        m_nCurDisk = best;
        break;
    }
    if (old_existed && switch_files) ask_recording::SwitchAllRecFile();
}

uint32_t CStorageMngr::GetSetVersion() {
    const CAutoMutex lock(&m_mtxCurDisk);
    return m_set_version;
}

void CStorageMngr::NoteSetChanged() {
    const CAutoMutex lock(&m_mtxCurDisk);
    ++m_set_version;
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
    Hold(slot, kHoldsOfAFile);
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

// ---- Queries ----

template <class Visit>
void CStorageMngr::for_each_disk(Visit visit) {
    for (int32_t slot = 0; slot < kMaxPartitions; ++slot) {
        const CDiskPin disk(this, slot);
        if (disk) visit(*disk.operator->());
    }
}

int32_t CStorageMngr::QueryRecFile(const RecQuery &query, int64_t begin_sec, int64_t end_sec, bool all_disks,
                                   RecFileSet *files) {
    begin_sec = std::max<int64_t>(bounded_time(begin_sec), 0);
    end_sec = bounded_time(end_sec);
    if (end_sec == 0) end_sec = begin_sec - begin_sec % kSecondsPerDay + kSecondsPerDay - 1;
    for_each_disk([&](CDisk &disk) {
        if (all_disks || disk.CanRecycle()) disk.QueryRecFile(query, begin_sec, end_sec, files);
    });
    return files->empty() ? KELM_AVIFILE_NOT_FOUND : KELM_AVIFILE_OK;
}

int32_t CStorageMngr::GetRecDateLimit(int64_t *first_sec, int64_t *last_sec) {
    std::string oldest;
    std::string newest;
    for_each_disk([&](CDisk &disk) {
        std::string day;
        if (disk.GetOldestDay(&day) == KELM_AVIFILE_OK && (oldest.empty() || day < oldest)) oldest = day;
        if (disk.GetNewestDay(&day) == KELM_AVIFILE_OK && day > newest) newest = day;
    });
    if (oldest.empty()) {
        LOG_TRACE();
        return KELM_AVIFILE_FAILED;
    }
    *first_sec = second_of_day(oldest);
    *last_sec = second_of_day(newest);
    return KELM_AVIFILE_OK;
}

int32_t CStorageMngr::JudgeHaveDataByDays(uint32_t dev_idx, int64_t begin_sec, uint32_t day_cnt, uint32_t *mask) {
    *mask = 0;
    for (uint32_t i = 0; i < day_cnt; ++i) {
        DateTimeFields time{};
        const uint64_t second = static_cast<uint64_t>(begin_sec) + static_cast<uint64_t>(i) * kSecondsPerDay;
        CGlobalObject::gmtime_utc(static_cast<int64_t>(second), &time);
        char day[32];
        std::snprintf(day, sizeof(day), "%04d%02d%02d", time.year, time.month, time.day);
        for_each_disk([&](CDisk &disk) {
            if (disk.HasRecData(day, dev_idx)) *mask |= 1U << i;
        });
    }
    return KELM_AVIFILE_OK;
}

// ---- The monitor ----

int32_t CStorageMngr::ThreadFunc(uint32_t) {
    if (++m_sweep_ticks >= kTicksPerMinute) {
        m_sweep_ticks = 0;
        for_each_disk([](CDisk &disk) { disk.CheckRecFileExist(); });
    }
    if (++m_ageing_ticks >= kTicksPerMinute) {
        m_ageing_ticks = 0;
        for_each_disk([](CDisk &disk) { disk.DelFileExceedMaxSaveTime(); });
    }
    RecycleRecFile();
    TellDiskGroupFull();
    return KELM_AVIFILE_OK;
}

void CStorageMngr::TellDiskGroupFull() {
    int32_t partitions = 0;
    for_each_disk([&partitions](CDisk &) { ++partitions; });
    if (partitions < 1 || IsCurDiskExist() || !IsDiskGroupFull()) return;
    const CAutoMutex lock(&m_mtxCallback);
    if (m_callback != nullptr) m_callback(m_callback_user);
}

// Nothing has room, and nothing may be recycled.
bool CStorageMngr::IsDiskGroupFull() {
    bool full = true;
    for_each_disk([&full](CDisk &disk) { full = full && disk.IsDiskFull(true) && !disk.CanRecycle(); });
    return full;
}

void CStorageMngr::RecycleRecFile() {
    const bool check_real_free = ++m_real_free_ticks >= kTicksPerFreeSpaceCheck;
    if (check_real_free) m_real_free_ticks = 0;
    const int32_t old_disk = GetCurDisk();
    {
        const CDiskPin disk(this, old_disk);
        if (disk && !disk->IsDiskFull(check_real_free)) return;
    }
    const bool old_exists = IsCurDiskExist();
    bool now_exists = false;
    for (;;) {
        SelectCurDisk(false);
        now_exists = IsCurDiskExist();
        if (now_exists || IsDiskGroupFull()) break;
        if (m_MonitorThrd.IsStopping() || FreeOldestFiles() == 0) return;
    }
    // The files that are being written lie on the partition that was left, or there is none any more.
    if (old_exists && !(now_exists && GetCurDisk() == old_disk)) ask_recording::SwitchAllRecFile();
}

// Gives the number of files that went: one for each recording channel, if there are so many.
int32_t CStorageMngr::FreeOldestFiles() {
    int64_t first = 0;
    int64_t last = 0;
    const int32_t quota = ask_recording::GetRecChanCnt();
    if (quota == 0 || GetRecDateLimit(&first, &last) != KELM_AVIFILE_OK) return 0;
    int32_t left = quota;
    for (int64_t day = first; day <= last && left > 0; day += kSecondsPerDay) RecycleDay(day, &left);
    return quota - left;
}

void CStorageMngr::RecycleDay(int64_t day, int32_t *left) {
    RecFileSet files;
    const RecQuery everything{kAllDevices, kAllChannels, kAllRecTypes, true};
    if (QueryRecFile(everything, day, day + kSecondsPerDay - 1, false, &files) != KELM_AVIFILE_OK) return;
    for (RecFileNode node : files) {
        if (*left <= 0) return;
        if (ask_recording::SwitchRecFileByName(node.channel, node.rec_file_path) == KELM_AVIFILE_OK) {
            node.file_size = CFileManager::get_file_size(node.rec_file_path);
        }
        const CDiskPin disk(this, GetDiskIdxByFile(node.rec_file_path));
        if (disk && disk->DelOldestRecFile(node) == KELM_AVIFILE_OK) --*left;
    }
}

}  // namespace kelm_recvault
