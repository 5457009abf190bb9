// The table of running exports: gives out slots, and lets one thread at a time work on each.
//
// One instance, owned by CGlobalObject, entered by any application thread. A slot's lock guards its object, is held for the
// whole of each operation, and lives from Initialize to Destroy, so that one who waits for it finds either the object or
// none.
#pragma once

#include <array>
#include <cstdint>
#include <memory>

#include "AviSaveAs.h"
#include "HandleDispather.h"
#include "Mutex.h"

namespace kelm_recvault {

class CAviSaveAsMngr {
 public:
    static constexpr uint32_t kSlots = 32;

    int32_t Initialize();
    int32_t Destroy();

    // `by_name`: the path is the file, as it stands. BAD_ARGUMENT when it is too long or the folder cannot be made; NO_SLOT,
    // NO_MEMORY.
    int32_t StartRec(uint32_t *slot, const char *path, bool by_name);
    // BAD_HANDLE for a slot out of range, NOT_RUNNING for one that is not in use, else the result of the export.
    int32_t SetRecFrame(uint32_t slot, const FrameHead &head, const void *data, uint32_t len);
    int32_t StopRec(uint32_t slot);

 private:
    struct Slot {
        CMutex lock{LockRank::save_slot};
        std::unique_ptr<CAviSaveAs> save_as RCVT_GUARDED_BY(lock);
    };

    int32_t CheckSlot(uint32_t slot) const;

    std::array<Slot, kSlots> m_slots;
    CIdDispather m_handles;
};

}  // namespace kelm_recvault
