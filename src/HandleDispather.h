// A fixed table of small integer handles.
//
// Says which slots are taken, nothing of the objects behind them. Changes are made under a lock; IsHandleBusy is one atomic
// read, because every delivered frame asks it.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>

#include "Mutex.h"

namespace kelm_recvault {

class CIdDispather {
 public:
    static constexpr int32_t kMaxSlots = 1024;

    CIdDispather();

    // `count` is capped at kMaxSlots. All slots become free.
    int32_t Init(int32_t count);
    int32_t Destroy();
    // Takes the lowest free slot, as reserved or as busy. KELM_AVIFILE_NO_SLOT, nothing stored, when there is none.
    int32_t CreateHandle(int32_t *handle, bool reserved = false);
    int32_t DestroyHandle(int32_t handle);
    int32_t SetHandleBusy(int32_t handle);
    // Back from busy to reserved: nobody finds the slot any more, and nobody gets it yet. False when it was not busy, so
    // that of two threads that end one handle one alone goes on.
    bool TakeOutOfUse(int32_t handle);
    bool IsHandleBusy(int32_t handle) const;

 private:
    enum State : uint8_t { busy = 0, free = 1, reserved = 2 };

    int32_t SetState(int32_t handle, State state);
    bool IsInTable(int32_t handle) const { return handle >= 0 && handle < m_count; }
    void FreeAll();

    CMutex m_lock{LockRank::handle_table};  // guards every change of m_state
    std::array<std::atomic<uint8_t>, kMaxSlots> m_state;
    int32_t m_count = kMaxSlots;  // constant between Init and Destroy
};

}  // namespace kelm_recvault
