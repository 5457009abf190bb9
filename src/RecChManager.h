// One device with its 1024 channels, by value.
//
// Owned by CRecDevMngr: made when its number is first handed out, and kept to the end of the library, so that a stale number
// never meets freed memory. Has no lock: each recorder locks for itself. The name is written while the number is not yet in
// use and read by any thread; a reader that comes late must not find it torn in memory, so it stands in atomic words.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <cstring>

#include "AviWriter.h"

namespace kelm_recvault {

class CDevName {
 public:
    static constexpr size_t kSize = 64;  // with the terminating zero

    void Set(const char *name);
    // `out` has kSize bytes.
    void Get(char *out) const;

 private:
    std::array<std::atomic<uint64_t>, kSize / sizeof(uint64_t)> m_words{};
};

class CStorageChMngr {
 public:
    static constexpr uint32_t kMaxChannels = KELM_AVIFILE_MAX_CHANNELS;

    void SetDevInfo(uint32_t dev_idx, const char *name);
    const CDevName &GetDevName() const { return m_dev_name; }

    // Refuses frames and starts from now on; true for the first who says so. The name and the files stay known.
    bool Leave() { return !m_leaving.exchange(true); }
    bool IsLeaving() const { return m_leaving; }
    // Returns with all channels idle.
    void StopAllRec();
    // Starts a channel, or changes the record type of one that records.
    int32_t StartRec(uint32_t channel, uint32_t mask);
    int32_t StopRec(uint32_t channel);
    int32_t SetRecFrame(uint32_t channel, const FrameHead &head, const void *data, uint32_t data_len, uint32_t sec,
                        uint32_t usec);
    void SwitchAllRecFile();
    int32_t SwitchRecFileByName(uint32_t channel, const char *path) { return m_channels[channel].SwitchRecFileByName(path); }
    // Of a channel, or, for one out of range, of the channel whose folder stands in the path.
    bool IsWriting(int32_t channel, const char *path);
    int32_t GetRecInfo(uint32_t channel, const char *path, uint32_t *type, int64_t *begin_sec, int64_t *end_sec) {
        return m_channels[channel].GetRecInfo(path, type, begin_sec, end_sec);
    }
    int32_t GetRecSegInfo(uint32_t channel, const char *path, RecSegEntry *entries, int32_t *count) {
        return m_channels[channel].GetRecSegInfo(path, entries, count);
    }
    int32_t GetRecDataSize(uint32_t channel, const char *path, int64_t begin, int64_t end, uint32_t mask, int32_t *size) {
        return m_channels[channel].GetRecDataSize(path, begin, end, mask, size);
    }
    int32_t GetRecChanCnt();
    int64_t GetCurRecFileSize(int32_t disk_idx);
    // Closes the files of channels that have stopped getting frames.
    void CloseIdleRecFiles(int64_t now);

 private:
    template <class Visit>
    void for_each_recording(Visit visit);

    std::atomic<uint32_t> m_dev_idx{0};
    std::atomic<bool> m_leaving{false};
    CDevName m_dev_name;
    std::array<CAviWriter, kMaxChannels> m_channels;
};

}  // namespace kelm_recvault
