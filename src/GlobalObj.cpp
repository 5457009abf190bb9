#include "GlobalObj.h"

#include <recvault/recvault.h>

#include <chrono>

#include "DataPopManager.h"
#include "Log.h"
#include "RecDevManager.h"
#include "RecFileQueryManager.h"
#include "SaveAsManager.h"
#include "StorageManager.h"
#include "platform/clock.h"

namespace kelm_recvault {

// Destroyed in reverse order.
struct CGlobalObject::Managers {
    CRecDevMngr rec_dev;
    CStorageMngr storage;
    CAviSaveAsMngr save_as;
    CRecFileQueryMngr file_queries;
    CDataPopMngr data_pops;
};

CGlobalObject &CGlobalObject::Instance() {
    static Managers managers;
    static CGlobalObject object(managers);
    return object;
}

CGlobalObject::~CGlobalObject() { Destroy(); }

CRecDevMngr &CGlobalObject::RecDevMngr() { return m_managers.rec_dev; }
CStorageMngr &CGlobalObject::StorageMngr() { return m_managers.storage; }
CDataPopMngr &CGlobalObject::DataPopMngr() { return m_managers.data_pops; }
CRecFileQueryMngr &CGlobalObject::RecFileQueryMngr() { return m_managers.file_queries; }
CAviSaveAsMngr &CGlobalObject::AviSaveAsMngr() { return m_managers.save_as; }

int32_t CGlobalObject::Initialize() {
    State off = State::off;
    if (!m_state.compare_exchange_strong(off, State::starting)) return KELM_AVIFILE_ALREADY_RUNNING;
    int32_t bias = 0;
    if (!platform::utc_bias_minutes(&bias)) LOG_INFO("GetTimeZoneInformation failed, code = %d\n", KELM_AVIFILE_FAILED);
    m_bias_minutes = bias;
    m_managers.rec_dev.Initialize();
    m_managers.storage.Initialize();
    m_managers.data_pops.Initialize();
    m_managers.save_as.Initialize();
    m_managers.file_queries.Initialize();
    m_state = State::initialised;
    return KELM_AVIFILE_OK;
}

// Playback ends before what it asks, and recording before storage: a recorder still reports its last file.
int32_t CGlobalObject::Destroy() {
    State initialised = State::initialised;
    if (!m_state.compare_exchange_strong(initialised, State::ending)) return KELM_AVIFILE_NOT_INITIALIZED;
    m_managers.data_pops.Destroy();
    m_managers.rec_dev.Destroy();
    m_managers.storage.Destroy();
    m_managers.save_as.Destroy();
    m_managers.file_queries.Destroy();
    m_state = State::off;
    return KELM_AVIFILE_OK;
}

int32_t CGlobalObject::mktime_utc(const DateTimeFields *in, int64_t *out) const {
    if (in == nullptr || out == nullptr) {
        LOG_TRACE();
        return KELM_AVIFILE_BAD_ARGUMENT;
    }
    const platform::WallClockFields fields{in->year, in->month, in->day, in->hour, in->minute, in->second};
    int64_t true_time = 0;
    if (!platform::local_to_true(fields, &true_time)) {
        LOG_TRACE();
        return KELM_AVIFILE_FAILED;
    }
    *out = true_time - static_cast<int64_t>(m_bias_minutes) * 60;
    return KELM_AVIFILE_OK;
}

int32_t CGlobalObject::gmtime_utc(int64_t time, DateTimeFields *out) {
    if (out == nullptr) {
        LOG_TRACE();
        return KELM_AVIFILE_BAD_ARGUMENT;
    }
    if (time < 0) {
        LOG_WARN("force dwTime to zero, dwTime = %d\n", static_cast<int32_t>(time));
        time = 0;
    }
    using namespace std::chrono;
    constexpr int64_t kLastSecond = sys_seconds(sys_days(year(9999) / 12 / 31)).time_since_epoch().count() + 86399;
    if (time > kLastSecond) {
        LOG_TRACE();
        return KELM_AVIFILE_FAILED;
    }
    const sys_seconds second{seconds(time)};
    const auto day = floor<days>(second);
    const year_month_day date(day);
    const hh_mm_ss clock(second - day);
    *out = {
        static_cast<uint16_t>(static_cast<int>(date.year())),     static_cast<uint16_t>(static_cast<unsigned>(date.month())),
        static_cast<uint16_t>(static_cast<unsigned>(date.day())), static_cast<uint16_t>(clock.hours().count()),
        static_cast<uint16_t>(clock.minutes().count()),           static_cast<uint16_t>(clock.seconds().count())};
    return KELM_AVIFILE_OK;
}

// True time less the bias: the count goes on through a change of daylight time.
int32_t CGlobalObject::gettimeofday_utc(TimeOfDay *out) const {
    const int64_t milliseconds = platform::true_time_ms() - static_cast<int64_t>(m_bias_minutes) * 60000;
    out->seconds = static_cast<uint32_t>(milliseconds / 1000);
    out->microseconds = static_cast<uint32_t>(milliseconds % 1000 * 1000);
    return KELM_AVIFILE_OK;
}

int64_t CGlobalObject::now_utc() const {
    TimeOfDay now{};
    gettimeofday_utc(&now);
    return now.seconds;
}

}  // namespace kelm_recvault
