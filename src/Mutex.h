// The one lock type of the library: a recursive lock that can exist or not exist, and its scope guards.
//
// A CMutex is embedded beside what it guards, and the object that holds it lives long before and after the lock does. While
// it is not created it is two words. Wait and Release are called from any thread; Create and Close by the owner, when
// nobody else is there.
//
// Debug builds (NDEBUG not defined) know who holds a lock and assert the order of the locks: a thread takes locks in
// ascending rank. The ranks are those of docs/architecture.md.
#pragma once

#include <atomic>
#include <cstdint>

#include "Annotations.h"
#include "platform/sync.h"

namespace kelm_recvault {

enum class LockRank : int32_t {
    disk_full_callback,  // held while the application's callback runs, which may call anything
    pop_registry,
    save_slot,
    pop_channels,
    save_as,
    reader_file,
    reader_frame,
    device_table,
    channel,
    sync_list,
    live_frames,
    partition_set,
    index_files,
    space,
    day_map,
    current_disk,
    handle_table
};

class RCVT_CAPABILITY("mutex") CMutex {
 public:
    explicit constexpr CMutex(LockRank rank) : m_rank(rank) {}
    ~CMutex() { Close(); }
    CMutex(const CMutex &) = delete;
    CMutex &operator=(const CMutex &) = delete;

    bool IsCreated() const { return m_handle != nullptr; }
    // KELM_AVIFILE_EXISTS when it is created already, KELM_AVIFILE_FAILED when the system has no lock.
    int32_t Create();
    // KELM_AVIFILE_NOT_CREATED when there is nothing to close.
    int32_t Close();
    // KELM_AVIFILE_NOT_CREATED, with a warning, before Create: the caller goes on unlocked.
    int32_t Wait() RCVT_ACQUIRE();
    int32_t Release() RCVT_RELEASE();

    // No lock with a rank from `first` to `last` may be held by the calling thread here. Nothing in release builds.
    static void AssertNoneHeld(LockRank first, LockRank last);

 private:
    platform::SystemMutex *m_handle = nullptr;
    const LockRank m_rank;
};

// Holds a lock for a scope.
class RCVT_SCOPED_CAPABILITY CAutoMutex {
 public:
    explicit CAutoMutex(CMutex *mutex) RCVT_ACQUIRE(mutex);
    ~CAutoMutex() RCVT_RELEASE();
    CAutoMutex(const CAutoMutex &) = delete;
    CAutoMutex &operator=(const CAutoMutex &) = delete;

 private:
    CMutex *const m_mutex;
};

// Gives a held lock back for a scope: around a call that leaves the class.
class RCVT_SCOPED_CAPABILITY CAutoUnlock {
 public:
    explicit CAutoUnlock(CMutex *mutex) RCVT_RELEASE(mutex) : m_mutex(mutex) { m_mutex->Release(); }
    ~CAutoUnlock() RCVT_RELEASE() { m_mutex->Wait(); }
    CAutoUnlock(const CAutoUnlock &) = delete;
    CAutoUnlock &operator=(const CAutoUnlock &) = delete;

 private:
    CMutex *const m_mutex;
};

}  // namespace kelm_recvault
