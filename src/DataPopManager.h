// The table of playbacks: gives out the small integer that names one, and lets one thread at a time work on each.
//
// One instance, owned by CGlobalObject, entered by any application thread. A slot's lock guards its object, is held for the
// whole of each operation, and lives from Initialize to Destroy, so that one who waits for it finds either the object or
// none. Release and the removal of a channel wait, under that lock, for threads that run the application's callback: a
// callback must not call its own playback meanwhile.
#pragma once

#include <array>
#include <cstdint>
#include <memory>

#include "DataPop.h"
#include "HandleDispather.h"
#include "Mutex.h"

namespace kelm_recvault {

class CDataPopMngr {
 public:
    static constexpr int32_t kSlots = 32;

    int32_t Initialize();
    // Ends all playbacks; no callback runs any more when it returns.
    int32_t Destroy();

    // `index` from 0. NO_SLOT, NO_MEMORY, FAILED.
    int32_t DataPopCreate(int32_t *index, const PopRange &range, int32_t channel, DataPopCallback callback,
                          uintptr_t user_data, bool sync);
    // The others: NOT_RUNNING for an index that is not in use, FAILED while there is no playback behind it yet, else the
    // playback's own result.
    int32_t DataPopRelease(int32_t index);
    int32_t DataPopChanAdd(int32_t index, int32_t channel);
    int32_t DataPopChanDel(int32_t index, int32_t channel);
    int32_t DataPopRecTypeAdd(int32_t index, uint32_t mask);
    int32_t DataPopRecTypeDel(int32_t index, uint32_t mask);
    int32_t DataPopStart(int32_t index);
    int32_t DataPopStop(int32_t index);
    int32_t DataPopTimeSeek(int32_t index, int64_t time);
    int32_t DataPopSetDirect(int32_t index, bool reverse);
    int32_t DataPopSetKeyFrame(int32_t index, bool key_only, int32_t key_skip);
    int32_t DataPopGetDataSize(int32_t index, uint64_t *size);

 private:
    struct Slot {
        CMutex lock{LockRank::pop_registry};
        std::unique_ptr<CDataPop> pop RCVT_GUARDED_BY(lock);
    };

    template <class Operation>
    int32_t Forward(int32_t index, Operation operation);

    std::array<Slot, kSlots> m_pops;
    CIdDispather m_pop_ids;
};

}  // namespace kelm_recvault
