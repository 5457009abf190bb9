// The registry of recording devices: gives them their small numbers, keeps their names, and routes every operation that
// names a device and a channel to its recorder by plain indexing.
//
// One instance, owned by CGlobalObject; entered by the application's threads, by the storage side and by its own sweep
// thread, which closes the files of channels that have stopped getting frames. A device exists for the others exactly while
// its number is busy in m_ids: it is built before and taken apart after that. m_create_lock lets one registration run at a
// time.
#pragma once

#include <array>
#include <cstdint>
#include <new>

#include "HandleDispather.h"
#include "Mutex.h"
#include "RecChManager.h"
#include "Thread.h"

namespace kelm_recvault {

// The places of all devices, by value, which cost no memory until a device is built in one: the storage stays untouched, and
// the pointers stand together. (An array of std::optional would do, but compilers write zeros over all of it at the start.)
class CDeviceTable {
 public:
    static constexpr size_t kSlots = KELM_AVIFILE_MAX_DEVICES + 1;  // number 0 is never handed out

    // Not "= default": that could be asked to write zeros.
    CDeviceTable() {}  // NOLINT(modernize-use-equals-default)
    ~CDeviceTable() {
        for (CStorageChMngr *device : m_devices) {
            if (device != nullptr) device->~CStorageChMngr();
        }
    }
    CDeviceTable(const CDeviceTable &) = delete;
    CDeviceTable &operator=(const CDeviceTable &) = delete;

    // Builds the device if there is none.
    CStorageChMngr &Build(size_t slot) {
        if (m_devices[slot] == nullptr) m_devices[slot] = new (m_storage[slot]) CStorageChMngr;
        return *m_devices[slot];
    }
    CStorageChMngr *Get(size_t slot) const { return m_devices[slot]; }

 private:
    std::array<CStorageChMngr *, kSlots> m_devices{};
    alignas(CStorageChMngr) unsigned char m_storage[kSlots][sizeof(CStorageChMngr)];
};

class CRecDevMngr {
 public:
    static constexpr int32_t kSlots = CDeviceTable::kSlots;

    int32_t Initialize();
    int32_t Destroy();

    // EXISTS, with the number stored, when the name is or contains that of a registered device.
    int32_t CreateDev(int32_t *dev_idx, const char *name);
    // Stops all channels of the device and frees the number.
    int32_t DestroyDev(uint32_t dev_idx);
    // `name` is zeroed for `size` bytes. NOT_RUNNING when the device is not registered.
    int32_t GetDevName(uint32_t dev_idx, char *name, uint32_t size);
    // The first registered device whose name stands anywhere in `path`; 0 for none.
    int32_t GetDevIdx(const char *path);

    // BAD_ARGUMENT for a number out of range, NOT_RUNNING for one that is not registered, else the recorder's result.
    int32_t StartRec(uint32_t dev_idx, uint32_t channel, uint32_t mask);
    int32_t StopRec(uint32_t dev_idx, uint32_t channel);
    int32_t SetRecFrame(uint32_t dev_idx, uint32_t channel, const FrameHead &head, const void *data, uint32_t data_len,
                        uint32_t sec, uint32_t usec);

    void SwitchAllRecFile();
    // By path: the device is found by its name in it. NOT_RUNNING when there is none, BAD_ARGUMENT for a bad channel.
    int32_t GetRecInfo(uint32_t channel, const char *path, uint32_t *type, int64_t *begin_sec, int64_t *end_sec);
    int32_t GetRecSegInfo(uint32_t channel, const char *path, RecSegEntry *entries, int32_t *count);
    int32_t GetRecDataSize(uint32_t channel, const char *path, int64_t begin, int64_t end, uint32_t mask, int32_t *size);
    int32_t SwitchRecFileByName(uint32_t channel, const char *path);
    bool IsWriting(uint32_t dev_idx, int32_t channel, const char *path);
    bool IsWriting(const char *path) { return IsWriting(static_cast<uint32_t>(GetDevIdx(path)), -1, path); }
    int32_t GetRecChanCnt();
    int64_t GetCurRecFileSize(int32_t disk_idx);

    // The body of the sweep thread.
    int32_t ThreadFunc(uint32_t user_value);

 private:
    bool IsRegistered(uint32_t dev_idx) const { return m_ids.IsHandleBusy(static_cast<int32_t>(dev_idx)); }
    // The device in `device`, or the code of the check, with its trace line.
    int32_t Find(uint32_t dev_idx, CStorageChMngr **device);
    int32_t FindByPath(const char *path, uint32_t channel, CStorageChMngr **device);
    template <class Visit>
    void for_each_device(Visit visit);

    CDeviceTable m_devices;  // one is built once, before its number is first busy, and stays
    CIdDispather m_ids;
    CMutex m_create_lock{LockRank::device_table};
    CThread<CRecDevMngr> m_thread;  // the sweep
};

}  // namespace kelm_recvault
