// One playback: up to sixteen channels of one device, one time range, one callback.
//
// Synchronised, a pop thread keeps a clock, and a frame of any channel goes out only when its time lies within 2 seconds of
// it; the clock follows the frames that the readers show. Free running, there is neither, and each reader delivers as fast
// as it can. There is no speed and no pacing by real time: the time that the application spends in its callback is the only
// brake.
//
// Owned by CDataPopMngr, whose lock lets one application thread in at a time; it guards everything that has no other guard.
// Channels come and go only while the pop thread does not run. m_chan_mutex guards what the pop thread shares with the
// application's: it is held for a tick, which does no file work, and for the whole of a seek, so that no tick holds new
// frames against an old clock. The callback runs on the readers' threads.
#pragma once

#include <recvault/recvault.h>

#include <array>
#include <cstdint>

#include "AviReader.h"
#include "Log.h"
#include "Mutex.h"
#include "Thread.h"

namespace kelm_recvault {

class CDataPop {
 public:
    static constexpr int32_t kMaxPopChannels = 16;
    static constexpr int32_t kNoChannel = -1;

    CDataPop() = default;
    ~CDataPop();
    CDataPop(const CDataPop &) = delete;
    CDataPop &operator=(const CDataPop &) = delete;

    // EXISTS for one that was created already. The record types of `range` are added later; `channel` may be kNoChannel.
    int32_t DataPopCreate(const PopRange &range, int32_t channel, const PopListener &listener, bool sync);
    // All others give NOT_CREATED before that.
    // Returns when no callback runs any more.
    int32_t DataPopRelease();

    // ALREADY_RUNNING while it runs, or for a channel that is in it; FAILED when all slots are taken, or the channel to take
    // out was not in it or not started.
    int32_t DataPopChanAdd(int32_t channel);
    int32_t DataPopChanDel(int32_t channel);
    int32_t DataPopRecTypeAdd(uint32_t mask);
    int32_t DataPopRecTypeDel(uint32_t mask);
    // The readers start with the first start, and go on with a later one. FAILED without a record type, or when no channel
    // has anything to play.
    int32_t DataPopStart();
    // Holds every frame back until the next start. NOT_RUNNING when it does not run.
    int32_t DataPopStop();
    // While it does not run, the next start carries it out.
    int32_t DataPopTimeSeek(int64_t time);
    int32_t DataPopSetDirect(bool reverse);
    int32_t DataPopSetKeyFrame(bool key_only, int32_t key_skip);
    int32_t DataPopGetDataSize(uint64_t *size);

    // The body of the pop thread: one tick.
    int32_t ThreadFunc(uint32_t user_value);

 private:
    enum class State : uint8_t { created, running, stopped, none };

    static constexpr int32_t kNoSlot = -1;

    int32_t CheckState(const LogPlace &place, bool changes_set) const;
    int32_t StartReaders();
    void DataPopInitClock();
    void SeekReaders(int64_t time);
    PopRange Range();
    CAviReader *MainReader();
    CAviReader *FindChannel(int32_t channel);
    template <class Visit>
    void for_each_channel(Visit visit);

    std::array<CAviReader, kMaxPopChannels> m_readers;  // the slots; one is in use while its reader is assigned
    CThread<CDataPop> m_thread;
    State m_state = State::none;
    int32_t m_main_slot = kNoSlot;  // of the channel given at creation, while that is in it
    int64_t m_seek_time = 0;        // a seek that the next start carries out; 0 for none
    PopListener m_listener;
    bool m_bSync = true;

    CMutex m_chan_mutex{LockRank::pop_channels};
    PopRange m_range RCVT_GUARDED_BY(m_chan_mutex);
    int64_t m_cur_time RCVT_GUARDED_BY(m_chan_mutex) = 0;  // the clock; 0 until it is known
};

}  // namespace kelm_recvault
