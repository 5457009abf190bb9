// The set of record partitions as one store: says where the next record file goes, adds and removes partitions, and hands
// everything else to the partition that a file lies on.
//
// One instance, owned by CGlobalObject; entered by the recorders, by any application thread, and by its own monitor thread.
// No lock of it is held across a call into recording.
//
// The monitor keeps a store of finite size recording for ever. Once a second it looks at the current partition; when that is
// full or gone, it moves on to another one that has room, or frees space: the oldest day first, over all partitions that may
// be recycled, and within a day the file that began first; an open one is closed before it goes. One file for each recording
// channel is freed at a time, until a partition has room or nothing can go. Once a minute it ages files and sweeps the index
// for files that vanished. When nothing more can be recorded it tells the application. Nothing ends it but Destroy.
//
// A partition is used through holds, which keep it from being destroyed: a CDiskPin for one operation, and those of a
// recorder from the name of a file to its finish. DelRecPartition first makes the slot invisible, so that nobody comes in
// any more, tells the recorders to leave their files, and waits until the last hold is gone; those who have one still get
// in.
#pragma once

#include <recvault/recvault.h>

#include <array>
#include <cstdint>

#include "Crossing.h"
#include "Disk.h"
#include "HandleDispather.h"
#include "Mutex.h"
#include "Thread.h"
#include "platform/sync.h"

namespace kelm_recvault {

class CStorageMngr {
 public:
    CStorageMngr() = default;
    ~CStorageMngr();
    CStorageMngr(const CStorageMngr &) = delete;
    CStorageMngr &operator=(const CStorageMngr &) = delete;

    int32_t Initialize();
    int32_t Destroy();

    int32_t AddRecPartition(RecPartitionInfo *info);
    int32_t DelRecPartition(const char *path);
    int32_t GetRecUsedSpace(const char *path, uint64_t *bytes);
    int32_t SetDiskGroupFullCallback(DiskGroupFullCallback callback, void *user);

    int32_t GetRecFileName(uint32_t dev_idx, int32_t channel, uint32_t cur_sec, RecFileName *name);
    int32_t AddRecNodeInfo(int32_t disk_idx, const RecFileNode &node, bool is_new);
    void ReleasePartition(int32_t disk_idx, int32_t holds);
    // FAILED for a file that lies on no partition, or that is being recorded.
    int32_t DelRecFileByName(const char *path);

    // The files that overlap a range, over all partitions, or with `all_disks` false over those that may be recycled. An
    // end_sec of 0 is the end of the day of begin_sec. NOT_FOUND when there is none.
    int32_t QueryRecFile(const RecQuery &query, int64_t begin_sec, int64_t end_sec, bool all_disks, RecFileSet *files);
    // The first second of the oldest and of the newest day in the store. FAILED when there is no day.
    int32_t GetRecDateLimit(int64_t *first_sec, int64_t *last_sec);
    // Bit n of the mask: day n from the one of begin_sec has recordings of the device.
    int32_t JudgeHaveDataByDays(uint32_t dev_idx, int64_t begin_sec, uint32_t day_cnt, uint32_t *mask);

    // The body of the monitor thread.
    int32_t ThreadFunc(uint32_t user_value);

 private:
    // A use of the partition in a slot, for the length of one operation. Empty when the slot is not in use; for a holder,
    // when it has no holds.
    class CDiskPin {
     public:
        CDiskPin(CStorageMngr *owner, int32_t slot, bool holder = false);
        ~CDiskPin();
        CDiskPin(const CDiskPin &) = delete;
        CDiskPin &operator=(const CDiskPin &) = delete;
        explicit operator bool() const { return m_disk != nullptr; }
        CDisk *operator->() const { return m_disk; }

     private:
        CStorageMngr *const m_owner;
        const int32_t m_slot;
        CDisk *m_disk = nullptr;
    };

    static constexpr int32_t kNoDisk = -1;
    static constexpr int32_t kBestPriority = 4;

    // The first slot, from 0, whose record root contains `path`.
    int32_t GetDiskIdxByPath(const char *path);
    // The slot whose record root is contained in `path`; the current one first.
    int32_t GetDiskIdxByFile(const char *path);
    int32_t DelRecFile(int32_t disk_idx, const char *path);
    int32_t GetCurDisk();
    void SetCurDisk(int32_t slot);
    bool IsCurDiskExist();
    uint32_t GetSetVersion();
    void NoteSetChanged();
    void Hold(int32_t slot, int32_t holds);
    // Chooses the partition for new files: the highest priority above 0 that is not full, the lowest slot among equals.
    void SelectCurDisk(bool switch_files);
    int32_t FindBestDisk();
    template <class Visit>
    void for_each_disk(Visit visit);
    bool IsDiskGroupFull();
    void RecycleRecFile();
    int32_t FreeOldestFiles();
    void RecycleDay(int64_t day, int32_t *left);
    void TellDiskGroupFull();

    int32_t AddOrChange(const RecPartitionInfo &info, int32_t *added);
    int32_t AddNewPartition(const RecPartitionInfo &info, const DiskConfig &config, int32_t *added);
    bool IsPinned(int32_t slot);
    bool FileLiesOn(int32_t slot, const char *path);
    void DestroyEvents();

    bool m_initialised = false;
    std::array<CDisk, kMaxPartitions> m_aDisk;
    CIdDispather m_DiskIds;  // reserved: being built or being removed; busy: in use

    CMutex m_mtxAdd{LockRank::partition_set};  // one change of the set of partitions at a time
    CMutex m_mtxPins{LockRank::handle_table};
    std::array<int32_t, kMaxPartitions> m_pins RCVT_GUARDED_BY(m_mtxPins){};  // holds of each slot
    // Set when a slot that is being removed loses its last hold, or a file was still opened on it.
    std::array<platform::SystemEvent *, kMaxPartitions> m_unpinned{};

    CMutex m_mtxCurDisk{LockRank::current_disk};
    int32_t m_nCurDisk RCVT_GUARDED_BY(m_mtxCurDisk) = kNoDisk;
    uint32_t m_set_version RCVT_GUARDED_BY(m_mtxCurDisk) = 0;  // changes with the set of partitions and their numbers

    CMutex m_mtxCallback{LockRank::disk_full_callback};
    DiskGroupFullCallback m_callback RCVT_GUARDED_BY(m_mtxCallback) = nullptr;
    void *m_callback_user RCVT_GUARDED_BY(m_mtxCallback) = nullptr;

    CThread<CStorageMngr> m_MonitorThrd;
    // Ticks of the monitor, its own. They live as long as the library.
    int32_t m_sweep_ticks = 0;
    int32_t m_ageing_ticks = 0;
    int32_t m_real_free_ticks = 0;
};

}  // namespace kelm_recvault
