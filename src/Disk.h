// One record partition: a folder tree on one volume with a budget of bytes.
//
// Owned by value by CStorageMngr, which has 24. A free one is a shell; Initialize makes it a working partition before any
// other thread can see it, and Destroy ends it when no other thread is inside (CStorageMngr sees to both). In between it is
// entered by the recorders (AddRecNodeInfo, GetMaxRecFileSize), the monitor and the application's threads.
//
// Locks. m_mtxRecIdx guards the map of days, m_mtxSpace the numbers; they are never held together, nor across a file
// operation or a call into recording. m_mtxIndex, which comes before both, lets one change of the index files run at a time,
// with the pruning of folders behind a deletion: a close and a deletion of one file, or two deletions, would otherwise undo
// each other's record and its share in the account, and a folder go while a file is entered in its index. Held for a few
// small reads and writes; never while a record file itself is deleted, which can take long.
//
// The account. m_nRecUsedSpace holds closed files only. A file enters it once, when it is closed, with the size that its
// index record keeps, and leaves it with that size. Open files are asked of the recorders.
#pragma once

#include <cstdint>
#include <map>
#include <string>

#include "Mutex.h"
#include "RecFileNode.h"
#include "RecNode.h"

namespace kelm_recvault {

constexpr int32_t kMaxPartitions = 24;
constexpr uint64_t kMiB = 1048576;
constexpr uint64_t kGiB = 1024 * kMiB;

// What the application says of a partition.
struct DiskConfig {
    uint64_t rec_space;      // bytes that recording may use
    uint64_t disk_space;     // bytes of the partition
    uint32_t max_save_hour;  // 0: no ageing; kNeverRecycle: no ageing and no recycling
    int32_t priority;
};
constexpr uint32_t kNeverRecycle = 0xFFFFFFFF;

class CDisk {
 public:
    CDisk() = default;
    CDisk(const CDisk &) = delete;
    CDisk &operator=(const CDisk &) = delete;

    // `folder` is the record root, ending in "avi_av/". BAD_ARGUMENT for an index above 23, no space or no folder; FAILED
    // when another process records on the partition.
    int32_t Initialize(int32_t idx, const DiskConfig &config, const char *folder);
    int32_t Destroy();
    // New numbers for a partition in use. The reserve and the size of the partition stay as they are.
    void SetConfig(const DiskConfig &config);
    int32_t GetPriority();
    const char *GetRecFolder() const { return m_acRecFolder; }

    bool IsDiskExist() const;
    int32_t GetDiskSpace(uint64_t *total, uint64_t *free_bytes) const;
    // May this partition take no more recordings? The free space of the volume is looked at where that is asked for.
    bool IsDiskFull(bool check_real_free);
    bool CanRecycle();
    // Closed files, and those that are being written.
    uint64_t GetRecUsedSpace();
    uint32_t GetMaxRecFileSize();

    // FAILED when there is no such day and none is to be made.
    int32_t GetRecIdxObj(CRecIndex *out, const std::string &day, bool create);
    // Enters a file into the index, and a closed one into the account. What the index makes of it does not matter here:
    // recording goes on, and the next scan finds the file.
    int32_t AddRecNodeInfo(const RecFileNode &node, bool is_new);

    // The first and the last day that has recordings. FAILED when there is none.
    int32_t GetOldestDay(std::string *day);
    int32_t GetNewestDay(std::string *day);

    // Inserts into `files` what overlaps a range of seconds.
    void QueryRecFile(const RecQuery &query, int64_t begin_sec, int64_t end_sec, RecFileSet *files);
    // Does a day hold record files of a device? A folder that holds none is removed.
    bool HasRecData(const std::string &day, uint32_t dev_idx);

    // Deletes a file by path: the file, its side file, its record and its share in the account.
    int32_t DelRecFile(const char *path);
    // The same for one that recycling chose.
    int32_t DelOldestRecFile(const RecFileNode &node);
    // Deletes what began longer ago than the maximum age.
    void DelFileExceedMaxSaveTime();
    // Takes out of the index and out of the account what was removed behind the system's back.
    void CheckRecFileExist();

    // Bytes that must stay free of a budget.
    static uint64_t CalcReserveSpace(uint64_t rec_space);

 private:
    struct Space {
        DiskConfig config{};
        uint64_t used = 0;
        uint64_t reserve = 2 * kGiB;
    };

    Space GetSpace();
    void ScanRecFolder();
    void QueryDayBefore(const RecQuery &query, int64_t begin_sec, int64_t end_sec, RecFileSet *files);
    // The first day of the map behind one; false at the end.
    bool NextDay(std::string *day);
    int32_t LockRoot();
    std::string RootPath() const;
    int32_t GetDayOfPath(const std::string &path, std::string *day) const;
    void AddRecUsedSpace(uint64_t bytes);
    // Leaves the counter alone when it holds less.
    void DecRecUsedSpace(uint64_t bytes);
    int32_t DelRecFilePair(const char *path, const std::string &day);
    void ForgetFile(const char *path, const std::string &day, int32_t size_without_record);
    int32_t EnterClosedFile(CRecIndex *index, const RecFileNode &node);
    int32_t DelEmptyDay(const std::string &day);

    // Constant between Initialize and Destroy.
    int32_t m_nDiskIdx = -1;
    char m_acRecFolder[128] = {};
    int m_root_lock = -1;

    CMutex m_mtxIndex{LockRank::index_files};
    CMutex m_mtxRecIdx{LockRank::day_map};
    std::map<std::string, CRecIndex> m_mapRecIdx RCVT_GUARDED_BY(m_mtxRecIdx);  // by day folder, oldest first
    CMutex m_mtxSpace{LockRank::space};
    Space m_space RCVT_GUARDED_BY(m_mtxSpace);
};

}  // namespace kelm_recvault
