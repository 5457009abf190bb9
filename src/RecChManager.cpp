#include "RecChManager.h"

#include <algorithm>
#include <cstdlib>

#include "Log.h"

namespace kelm_recvault {

void CDevName::Set(const char *name) {
    char text[kSize] = {};
    std::memcpy(text, name, std::min(std::strlen(name), kSize - 1));
    for (size_t i = 0; i < m_words.size(); ++i) {
        uint64_t word = 0;
        std::memcpy(&word, text + i * sizeof(word), sizeof(word));
        m_words[i].store(word, std::memory_order_relaxed);
    }
}

void CDevName::Get(char *out) const {
    for (size_t i = 0; i < m_words.size(); ++i) {
        const uint64_t word = m_words[i].load(std::memory_order_relaxed);
        std::memcpy(out + i * sizeof(word), &word, sizeof(word));
    }
}

void CStorageChMngr::SetDevInfo(uint32_t dev_idx, const char *name) {
    m_dev_idx = dev_idx;
    m_leaving = false;
    m_dev_name.Set(name);
    for (uint32_t channel = 0; channel < kMaxChannels; ++channel) {
        m_channels[channel].SetChannel(static_cast<int32_t>(channel));
    }
}

template <class Visit>
void CStorageChMngr::for_each_recording(Visit visit) {
    for (CAviWriter &channel : m_channels) {
        if (channel.IsRecording()) visit(channel);
    }
}

void CStorageChMngr::StopAllRec() {
    for (CAviWriter &channel : m_channels) channel.StopForGood();
}

int32_t CStorageChMngr::StartRec(uint32_t channel, uint32_t mask) {
    if (m_leaving) return KELM_AVIFILE_NOT_RUNNING;
    CAviWriter &recorder = m_channels[channel];
    const int32_t result = recorder.IsRecording() ? recorder.SetRecordType(mask) : recorder.StartRec(mask, m_dev_idx);
    if (result != KELM_AVIFILE_OK || !m_leaving) return result;
    // The device is being released, and this channel was perhaps passed over already.
    recorder.StopRec();
    return KELM_AVIFILE_NOT_RUNNING;
}

int32_t CStorageChMngr::StopRec(uint32_t channel) { return m_channels[channel].StopRec(); }

int32_t CStorageChMngr::SetRecFrame(uint32_t channel, const FrameHead &head, const void *data, uint32_t data_len,
                                    uint32_t sec, uint32_t usec) {
    CAviWriter &recorder = m_channels[channel];
    if (m_leaving || !recorder.IsRecording()) return KELM_AVIFILE_NOT_RUNNING;
    return recorder.SetRecFrame(head, data, data_len, sec, usec);
}

void CStorageChMngr::SwitchAllRecFile() {
    for_each_recording([](CAviWriter &channel) { channel.SwitchRecFile(); });
}

bool CStorageChMngr::IsWriting(int32_t channel, const char *path) {
    if (channel < 0 || channel >= static_cast<int32_t>(kMaxChannels)) {
        const char *folder = std::strstr(path, "channel");
        if (folder == nullptr) {
            LOG_TRACE();
            return false;
        }
        if (std::strlen(folder) < std::strlen("channel00")) {
            LOG_ERR("file_path = %s\n", path);
            return false;
        }
        channel = static_cast<int32_t>(std::strtol(folder + std::strlen("channel"), nullptr, 10)) - 1;
    }
    if (channel < 0 || channel >= static_cast<int32_t>(kMaxChannels)) {
        LOG_TRACE();
        return false;
    }
    return m_channels[static_cast<size_t>(channel)].IsWriting(path);
}

int32_t CStorageChMngr::GetRecChanCnt() {
    int32_t count = 0;
    for_each_recording([&count](CAviWriter &) { ++count; });
    return count;
}

int64_t CStorageChMngr::GetCurRecFileSize(int32_t disk_idx) {
    int64_t total = 0;
    for_each_recording([&total, disk_idx](CAviWriter &channel) { total += channel.GetCurRecFileSize(disk_idx); });
    return total;
}

void CStorageChMngr::CloseIdleRecFiles(int64_t now) {
    for_each_recording([now](CAviWriter &channel) {
        if (channel.IsNeedToClose(now)) channel.SwitchRecFile();
    });
}

}  // namespace kelm_recvault
