#include "Mutex.h"

#include <recvault/recvault.h>

#include <array>
#include <cassert>

#include "Log.h"

namespace kelm_recvault {

#if !defined(NDEBUG)

namespace {

// The locks that the calling thread holds, oldest first, one entry for each time it took one.
struct HeldLocks {
    struct Entry {
        const CMutex *mutex;
        LockRank rank;
    };
    std::array<Entry, 16> entries{};
    size_t count = 0;
};

thread_local HeldLocks t_held;

bool holds(const CMutex *mutex) {
    for (size_t i = 0; i < t_held.count; ++i) {
        if (t_held.entries[i].mutex == mutex) return true;
    }
    return false;
}

void note_taken(const CMutex *mutex, LockRank rank) {
    for (size_t i = 0; !holds(mutex) && i < t_held.count; ++i) {
        assert(t_held.entries[i].rank < rank && "locks are taken in ascending rank");
    }
    assert(t_held.count < t_held.entries.size());
    t_held.entries[t_held.count++] = {mutex, rank};
}

void note_released(const CMutex *mutex) {
    size_t i = t_held.count;
    while (i > 0 && t_held.entries[i - 1].mutex != mutex) --i;
    assert(i > 0 && "a lock is released by the thread that holds it");
    for (; i < t_held.count; ++i) t_held.entries[i - 1] = t_held.entries[i];
    --t_held.count;
}

}  // namespace

void CMutex::AssertNoneHeld(LockRank first, LockRank last) {
    for (size_t i = 0; i < t_held.count; ++i) {
        const LockRank rank = t_held.entries[i].rank;
        assert((rank < first || rank > last) && "a lock is held across a call that leaves its side");
    }
}

#else

namespace {
void note_taken(const CMutex *, LockRank) {}
void note_released(const CMutex *) {}
}  // namespace

void CMutex::AssertNoneHeld(LockRank, LockRank) {}

#endif

int32_t CMutex::Create() {
    if (m_handle != nullptr) {
        LOG_TRACE();
        return KELM_AVIFILE_EXISTS;
    }
    int32_t error = 0;
    m_handle = platform::mutex_create(&error);
    if (m_handle == nullptr) {
        LOG_INFO("CreateMutex failed %d\n", error);
        return KELM_AVIFILE_FAILED;
    }
    return KELM_AVIFILE_OK;
}

int32_t CMutex::Close() {
    if (m_handle == nullptr) return KELM_AVIFILE_NOT_CREATED;
    platform::mutex_destroy(m_handle);
    m_handle = nullptr;
    return KELM_AVIFILE_OK;
}

int32_t CMutex::Wait() RCVT_NO_ANALYSIS {  // the lock itself
    if (m_handle == nullptr) {
        LOG_WARN("mutex not create\n");
        return KELM_AVIFILE_NOT_CREATED;
    }
    if (!platform::mutex_lock(m_handle)) return KELM_AVIFILE_FAILED;
    note_taken(this, m_rank);
    return KELM_AVIFILE_OK;
}

int32_t CMutex::Release() RCVT_NO_ANALYSIS {  // the lock itself
    if (m_handle == nullptr) {
        LOG_WARN("mutex not create\n");
        return KELM_AVIFILE_NOT_CREATED;
    }
    note_released(this);
    if (!platform::mutex_unlock(m_handle)) {
        LOG_TRACE();
        return KELM_AVIFILE_FAILED;
    }
    return KELM_AVIFILE_OK;
}

CAutoMutex::CAutoMutex(CMutex *mutex) RCVT_NO_ANALYSIS : m_mutex(mutex) {  // a null mutex locks nothing
    if (m_mutex == nullptr) {
        LOG_TRACE();
        return;
    }
    m_mutex->Wait();
}

CAutoMutex::~CAutoMutex() RCVT_NO_ANALYSIS {
    if (m_mutex != nullptr) m_mutex->Release();
}

}  // namespace kelm_recvault
