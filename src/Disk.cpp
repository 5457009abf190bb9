#include "Disk.h"

#include <recvault/recvault.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "Crossing.h"
#include "FileManager.h"
#include "GlobalObj.h"
#include "Log.h"
#include "Text.h"

namespace kelm_recvault {

namespace {

constexpr size_t kDayLength = 8;
constexpr size_t kTreeSuffixLength = 7;  // "avi_av/"
constexpr size_t kMinPathLength = 5;
constexpr uint32_t kMinFileLimit = 32 * kMiB;
constexpr uint32_t kMaxFileLimit = kGiB;

constexpr const char *kFirstDay = "19700101";
constexpr const char *kLastDay = "21000101";
constexpr int64_t kLastSecond = INT64_C(4294967295) + kSecondsPerDay;  // no frame has a later one

std::string day_name(int64_t second) {
    DateTimeFields time{};
    CGlobalObject::gmtime_utc(second - second % kSecondsPerDay, &time);
    char name[32];
    std::snprintf(name, sizeof(name), "%04d%02d%02d", time.year, time.month, time.day);
    return name;
}

int32_t to_mb(uint64_t bytes) { return static_cast<int32_t>(bytes / kMiB); }

}  // namespace

int32_t CDisk::Initialize(int32_t idx, const DiskConfig &config, const char *folder) {
    if (idx < 0 || idx >= kMaxPartitions || config.rec_space == 0 || folder == nullptr) {
        LOG_INFO("index = %d, nRecTotalSpace = %d MB\n", idx, to_mb(config.rec_space));
        return KELM_AVIFILE_BAD_ARGUMENT;
    }
    m_nDiskIdx = idx;
    copy_text(m_acRecFolder, folder);
    LOG_INFO("%s: max_save_hour = %d, priority = %d \n", m_acRecFolder, static_cast<int32_t>(config.max_save_hour),
             config.priority);
    if (LockRoot() != KELM_AVIFILE_OK) return KELM_AVIFILE_FAILED;
    for (CMutex *mutex : {&m_mtxRecIdx, &m_mtxSpace, &m_mtxIndex}) {
        const int32_t created = mutex->Create();
        if (created == KELM_AVIFILE_OK) continue;
        LOG_TRACE();
        Destroy();
        return created;
    }
    {
        const CAutoMutex lock(&m_mtxSpace);
        m_space = Space{config, 0, CalcReserveSpace(config.rec_space)};
    }
    ScanRecFolder();
    LOG_INFO("%s: record can use space = %ld MB, record used space = %ld MB\n", m_acRecFolder,
             static_cast<long>(config.rec_space / kMiB), static_cast<long>(GetSpace().used / kMiB));
    return KELM_AVIFILE_OK;
}

// Two processes on one tree would delete and number each other's files. A root that is not there is nobody's.
int32_t CDisk::LockRoot() {
    if (platform::lock_folder(RootPath().c_str(), &m_root_lock) != platform::FolderLock::held_elsewhere)
        return KELM_AVIFILE_OK;
    LOG_ERR("%s is in use by another process\n", m_acRecFolder);
    return KELM_AVIFILE_FAILED;
}

int32_t CDisk::Destroy() {
    if (m_mtxRecIdx.IsCreated()) {
        const CAutoMutex lock(&m_mtxRecIdx);
        m_mapRecIdx.clear();
    }
    m_mtxRecIdx.Close();
    m_mtxSpace.Close();
    m_mtxIndex.Close();
    platform::unlock_folder(m_root_lock);
    m_root_lock = -1;
    m_nDiskIdx = -1;
    m_acRecFolder[0] = '\0';
    return KELM_AVIFILE_OK;
}

void CDisk::SetConfig(const DiskConfig &config) {
    const CAutoMutex lock(&m_mtxSpace);
    m_space.config.rec_space = config.rec_space;
    m_space.config.max_save_hour = config.max_save_hour;
    m_space.config.priority = config.priority;
}

CDisk::Space CDisk::GetSpace() {
    const CAutoMutex lock(&m_mtxSpace);
    return m_space;
}

int32_t CDisk::GetPriority() { return GetSpace().config.priority; }

bool CDisk::CanRecycle() { return GetSpace().config.max_save_hour != kNeverRecycle; }

uint64_t CDisk::CalcReserveSpace(uint64_t rec_space) {
    if (rec_space < 64 * kMiB) return 64 * kMiB;
    if (rec_space <= kGiB) return rec_space / 15 + 5 * kMiB;
    if (rec_space <= 50 * kGiB) return (rec_space - kGiB) / 26 + 70 * kMiB;
    return (rec_space - 50 * kGiB) / 100 + 2 * kGiB;
}

uint32_t CDisk::GetMaxRecFileSize() {
    const uint64_t quarter = GetSpace().config.rec_space / 4;
    return static_cast<uint32_t>(std::clamp<uint64_t>(quarter, kMinFileLimit, kMaxFileLimit));
}

std::string CDisk::RootPath() const {
    const size_t length = std::strlen(m_acRecFolder);
    return std::string(m_acRecFolder, length - std::min(length, kTreeSuffixLength));
}

// The root and not the record tree, which may not exist yet.
bool CDisk::IsDiskExist() const {
    const std::string root = RootPath();
    if (root.empty()) {
        LOG_WARN("m_acRecFolder = %s, len = %d\n", m_acRecFolder, static_cast<int32_t>(std::strlen(m_acRecFolder)));
        return false;
    }
    return CFileManager::file_exists(root.c_str());
}

int32_t CDisk::GetDiskSpace(uint64_t *total, uint64_t *free_bytes) const {
    *total = *free_bytes = 0;
    if (!platform::volume_space(RootPath().c_str(), total, free_bytes)) {
        LOG_TRACE();
        return KELM_AVIFILE_FAILED;
    }
    return KELM_AVIFILE_OK;
}

uint64_t CDisk::GetRecUsedSpace() {
    const int64_t open_files = ask_recording::GetCurRecFileSize(m_nDiskIdx);
    return GetSpace().used + static_cast<uint64_t>(open_files);
}

bool CDisk::IsDiskFull(bool check_real_free) {
    if (!IsDiskExist()) return true;
    const Space space = GetSpace();
    const uint64_t used = GetRecUsedSpace();
    if (used >= space.config.rec_space || space.config.rec_space - used < space.reserve) return true;
    if (used >= space.config.disk_space || space.config.disk_space - used <= space.reserve) return true;
    if (!check_real_free) return false;
    uint64_t total = 0;
    uint64_t free_bytes = 0;
    return GetDiskSpace(&total, &free_bytes) != KELM_AVIFILE_OK || free_bytes <= space.reserve;
}

void CDisk::AddRecUsedSpace(uint64_t bytes) {
    const CAutoMutex lock(&m_mtxSpace);
    m_space.used += bytes;
}

void CDisk::DecRecUsedSpace(uint64_t bytes) {
    const CAutoMutex lock(&m_mtxSpace);
    if (bytes <= m_space.used) m_space.used -= bytes;
}

int32_t CDisk::GetRecIdxObj(CRecIndex *out, const std::string &day, bool create) {
    const CAutoMutex lock(&m_mtxRecIdx);
    auto found = m_mapRecIdx.find(day);
    if (found == m_mapRecIdx.end()) {
        if (!create) return KELM_AVIFILE_FAILED;
        found = m_mapRecIdx.emplace(day, CRecIndex()).first;
        found->second.set_vlist_fname((m_acRecFolder + day).c_str());
    }
    *out = found->second;
    return KELM_AVIFILE_OK;
}

int32_t CDisk::GetDayOfPath(const std::string &path, std::string *day) const {
    const size_t root_length = std::strlen(m_acRecFolder);
    if (!path.starts_with(m_acRecFolder) || path.size() < root_length + kDayLength) {
        LOG_ERR("file_path = %s, m_acRecFolder = %s\n", path.c_str(), m_acRecFolder);
        return KELM_AVIFILE_FAILED;
    }
    *day = path.substr(root_length, kDayLength);
    return KELM_AVIFILE_OK;
}

int32_t CDisk::AddRecNodeInfo(const RecFileNode &node, bool is_new) {
    RecFileNode entry = node;
    const size_t length = strnlen(entry.rec_file_path, sizeof(entry.rec_file_path));
    if (length < kMinPathLength || length > kMaxPath) {
        LOG_ERR("recfile.rec_file_path = %.255s, len = %d\n", node.rec_file_path, static_cast<int32_t>(length));
        return KELM_AVIFILE_FAILED;
    }
    CFileManager::path_to_slash(entry.rec_file_path);
    std::string day;
    if (GetDayOfPath(entry.rec_file_path, &day) != KELM_AVIFILE_OK) return KELM_AVIFILE_FAILED;
    const CAutoMutex lock(&m_mtxIndex);
    CRecIndex index;
    if (GetRecIdxObj(&index, day, is_new || CFileManager::file_exists(entry.rec_file_path)) != KELM_AVIFILE_OK) {
        return KELM_AVIFILE_OK;  // deleted meanwhile, and its day with it
    }
    if (is_new) {
        index.insert_file_node(entry, true);
    } else if (EnterClosedFile(&index, entry) == KELM_AVIFILE_OK) {
        AddRecUsedSpace(static_cast<uint64_t>(std::max(entry.file_size, 0)));
    }
    return KELM_AVIFILE_OK;
}

// Into the record that its opening made or, where that could not be written, into one of its own.
int32_t CDisk::EnterClosedFile(CRecIndex *index, const RecFileNode &node) {
    bool deleted = false;
    const int32_t updated = index->update_file_node(node, &deleted);
    if (deleted) return KELM_AVIFILE_FAILED;
    if (updated == KELM_AVIFILE_OK || !CFileManager::file_exists(node.rec_file_path)) return updated;
    return index->insert_file_node(node, false);
}

int32_t CDisk::DelRecFile(const char *path) {
    std::string day;
    if (GetDayOfPath(path, &day) != KELM_AVIFILE_OK) return KELM_AVIFILE_FAILED;
    CRecIndex index;
    const bool known_day = GetRecIdxObj(&index, day, false) == KELM_AVIFILE_OK;
    if (DelRecFilePair(path, day) != KELM_AVIFILE_OK) return KELM_AVIFILE_FAILED;
    if (known_day) return KELM_AVIFILE_OK;
    LOG_TRACE();
    return KELM_AVIFILE_FAILED;
}

int32_t CDisk::DelOldestRecFile(const RecFileNode &node) {
    std::string day;
    if (GetDayOfPath(node.rec_file_path, &day) != KELM_AVIFILE_OK) return KELM_AVIFILE_FAILED;
    if (DelRecFilePair(node.rec_file_path, day) != KELM_AVIFILE_OK) return KELM_AVIFILE_FAILED;
    LOG_INFO("remove the oldest record file: name = %s, size = %d\n", node.rec_file_path, node.file_size);
    return KELM_AVIFILE_OK;
}

int32_t CDisk::DelRecFilePair(const char *path, const std::string &day) {
    const int32_t size = CFileManager::get_file_size(path);
    const bool was_there = !platform::path_is_gone(path);
    if (was_there && CFileManager::delete_file(path) != KELM_AVIFILE_OK) return KELM_AVIFILE_FAILED;
    CFileManager::delete_file((std::string(path) + kSideSuffix).c_str());
    ForgetFile(path, day, was_there ? size : 0);
    return KELM_AVIFILE_OK;
}

// Takes a file that is gone out of its index and out of the account, and the folders that hold no other.
void CDisk::ForgetFile(const char *path, const std::string &day, int32_t size_without_record) {
    const CAutoMutex lock(&m_mtxIndex);
    // Without an index another deletion was here before, and took the folder's account along.
    char index_path[256];
    const bool indexed = CRecIndex::get_nodeidxz_fname(path, index_path, sizeof(index_path)) == KELM_AVIFILE_OK &&
                         CFileManager::file_exists(index_path);
    if (!indexed) size_without_record = 0;
    RecordedSize recorded;
    CRecIndex().delete_file_node(path, &recorded);
    const int32_t size = recorded.known ? recorded.bytes : size_without_record;
    DecRecUsedSpace(static_cast<uint64_t>(std::max(size, 0)));
    CFileManager::prune_above(path);
    DelEmptyDay(day);
}

int32_t CDisk::DelEmptyDay(const std::string &day) {
    CRecIndex index;
    if (GetRecIdxObj(&index, day, false) != KELM_AVIFILE_OK) return KELM_AVIFILE_FAILED;
    // Of a volume that was pulled, every folder seems to be gone; its days stay for its return.
    if (!IsDiskExist() || CRecIndex::check_rec_dir(index.folder_of(kAllDevices))) return KELM_AVIFILE_OK;
    const bool tree_exists = CFileManager::file_exists(m_acRecFolder);
    const CAutoMutex lock(&m_mtxRecIdx);
    if (tree_exists || m_mapRecIdx.size() == 1) m_mapRecIdx.erase(day);
    return KELM_AVIFILE_OK;
}

// ---- Days ----

int32_t CDisk::GetOldestDay(std::string *day) {
    const CAutoMutex lock(&m_mtxRecIdx);
    if (m_mapRecIdx.empty()) return KELM_AVIFILE_FAILED;
    *day = m_mapRecIdx.begin()->first;
    return KELM_AVIFILE_OK;
}

int32_t CDisk::GetNewestDay(std::string *day) {
    const CAutoMutex lock(&m_mtxRecIdx);
    if (m_mapRecIdx.empty()) return KELM_AVIFILE_FAILED;
    *day = m_mapRecIdx.rbegin()->first;
    return KELM_AVIFILE_OK;
}

bool CDisk::NextDay(std::string *day) {
    const CAutoMutex lock(&m_mtxRecIdx);
    const auto next = m_mapRecIdx.upper_bound(*day);
    if (next == m_mapRecIdx.end()) return false;
    *day = next->first;
    return true;
}

bool CDisk::HasRecData(const std::string &day, uint32_t dev_idx) {
    CRecIndex index;
    if (GetRecIdxObj(&index, day, false) != KELM_AVIFILE_OK) return false;
    const std::string folder = index.folder_of(dev_idx);
    const CAutoMutex lock(&m_mtxIndex);
    return CRecIndex::check_rec_dir(folder);
}

// ---- Queries ----

void CDisk::QueryRecFile(const RecQuery &query, int64_t begin_sec, int64_t end_sec, RecFileSet *files) {
    begin_sec = std::clamp<int64_t>(begin_sec, 0, kLastSecond);
    end_sec = std::clamp<int64_t>(end_sec, 0, kLastSecond);
    if (query.dev_idx <= KELM_AVIFILE_MAX_DEVICES) QueryDayBefore(query, begin_sec, end_sec, files);
    for (int64_t t = begin_sec; t < end_sec; t = t - t % kSecondsPerDay + kSecondsPerDay) {
        CRecIndex index;
        if (GetRecIdxObj(&index, day_name(t), false) != KELM_AVIFILE_OK) continue;
        index.query_nodes(query, files, nullptr);
        std::erase_if(*files, [=](const RecFileNode &node) {
            return (end_sec > 0 && node.begin_sec > end_sec) || node.end_sec < begin_sec;
        });
    }
}

// The last file of the day before may run into the range.
void CDisk::QueryDayBefore(const RecQuery &query, int64_t begin_sec, int64_t end_sec, RecFileSet *files) {
    CRecIndex index;
    if (GetRecIdxObj(&index, day_name(begin_sec - kSecondsPerDay), false) != KELM_AVIFILE_OK) return;
    for (const int32_t channel : CRecIndex::channels_in(index.folder_of(query.dev_idx), query.channel)) {
        RecFileNode node{};
        if (index.get_newest_node_info(query.dev_idx, channel, query.include_recording, &node) != KELM_AVIFILE_OK) continue;
        if (node.begin_sec <= end_sec && node.end_sec >= begin_sec) files->insert(node);
    }
}

// ---- Scan, ageing, sweep ----

// Sums up what is kept, once: the counter starts true.
void CDisk::ScanRecFolder() {
    uint64_t total = 0;
    for_each_entry(m_acRecFolder, true, [this, &total](const FileFindEntry &entry) {
        const std::string day(entry.name);
        if (day.size() != kDayLength || day < kFirstDay || day > kLastDay) return;
        CRecIndex index;
        GetRecIdxObj(&index, day, true);
        const ScanTotals totals = index.init_day_dir();
        total += totals.bytes;
        if (totals.files == 0) DelEmptyDay(day);
    });
    const CAutoMutex lock(&m_mtxSpace);
    m_space.used = total;
}

void CDisk::DelFileExceedMaxSaveTime() {
    const uint32_t max_hours = GetSpace().config.max_save_hour;
    if (max_hours == 0 || max_hours == kNeverRecycle) return;
    const int64_t now = CGlobalObject::Instance().now_utc();
    const int64_t limit = static_cast<int64_t>(max_hours) * 3600;
    for (std::string day; NextDay(&day);) {
        CRecIndex index;
        if (GetRecIdxObj(&index, day, false) != KELM_AVIFILE_OK) continue;
        RecFileSet files;
        index.query_nodes({kAllDevices, kAllChannels, kAllRecTypes, false}, &files, nullptr);
        for (const RecFileNode &node : files) {
            if (node.begin_sec >= now - limit) return;
            LOG_INFO("file %s exceed %d s, remove it \n", node.rec_file_path, static_cast<int32_t>(limit));
            DelRecFile(node.rec_file_path);
        }
    }
}

void CDisk::CheckRecFileExist() {
    // Of a volume that was pulled, every file would seem to be gone.
    for (std::string day; IsDiskExist() && NextDay(&day);) {
        CRecIndex index;
        if (GetRecIdxObj(&index, day, false) != KELM_AVIFILE_OK) continue;
        RecFileSet files;
        RecFileSet gone;
        index.query_nodes({kAllDevices, kAllChannels, kAllRecTypes, false}, &files, &gone);
        for (const RecFileNode &node : gone) ForgetFile(node.rec_file_path, day, 0);
    }
}

}  // namespace kelm_recvault
