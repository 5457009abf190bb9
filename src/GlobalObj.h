// The one object of the library: it owns every manager by value, keeps the time base, and says whether the library is
// initialised. This header has forward declarations only, so that any module may include it for the time base, and the
// upper floors for the managers; GlobalObj.cpp alone knows all of them.
//
// Built on first use and destroyed at the end of the process. Initialize and Destroy are called by one application thread
// while no other call is under way; the rest is called by any thread.
#pragma once

#include <atomic>
#include <cstdint>

namespace kelm_recvault {

class CRecDevMngr;
class CStorageMngr;
class CAviSaveAsMngr;
class CDataPopMngr;
class CRecFileQueryMngr;

struct DateTimeFields {
    uint16_t year;   // full year
    uint16_t month;  // 1 to 12
    uint16_t day;    // 1 to 31
    uint16_t hour;
    uint16_t minute;
    uint16_t second;
};

struct TimeOfDay {
    uint32_t seconds;
    uint32_t microseconds;  // in steps of 1000
};

class CGlobalObject {
 public:
    static CGlobalObject &Instance();
    CGlobalObject(const CGlobalObject &) = delete;
    CGlobalObject &operator=(const CGlobalObject &) = delete;

    // KELM_AVIFILE_ALREADY_RUNNING while it is initialised. A manager that cannot start is in the log alone.
    int32_t Initialize();
    // KELM_AVIFILE_NOT_INITIALIZED when there is nothing to end. Returns when every thread has ended.
    int32_t Destroy();
    bool IsInitialised() const { return m_state.load(std::memory_order_acquire) == State::initialised; }

    CRecDevMngr &RecDevMngr();
    CStorageMngr &StorageMngr();
    CDataPopMngr &DataPopMngr();
    CAviSaveAsMngr &AviSaveAsMngr();
    CRecFileQueryMngr &RecFileQueryMngr();

    // The time base. A time is a number of seconds whose broken-down form, taken as UTC, shows the local wall clock: true
    // time less the bias that was in force at Initialize.
    int32_t mktime_utc(const DateTimeFields *in, int64_t *out) const;
    static int32_t gmtime_utc(int64_t time, DateTimeFields *out);
    int32_t gettimeofday_utc(TimeOfDay *out) const;
    // The present second.
    int64_t now_utc() const;

 private:
    struct Managers;
    enum class State { off, starting, initialised, ending };

    explicit CGlobalObject(Managers &managers) : m_managers(managers) {}
    ~CGlobalObject();

    Managers &m_managers;
    std::atomic<State> m_state{State::off};
    std::atomic<int32_t> m_bias_minutes{0};  // local time plus bias is UTC
};

}  // namespace kelm_recvault
