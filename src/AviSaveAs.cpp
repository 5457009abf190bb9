#include "AviSaveAs.h"

#include <cstdio>
#include <string>

#include "GlobalObj.h"
#include "Log.h"
#include "Text.h"

namespace kelm_recvault {

namespace {
constexpr int64_t kMaxFileSize = 0x40000000;
constexpr int64_t kMaxFileSeconds = 3600;
constexpr int32_t kFrameCost = 52;  // what a frame is reckoned at beside its data
}  // namespace

CAviSaveAs::~CAviSaveAs() {
    if (m_started) StopRec();
}

int32_t CAviSaveAs::StartRec(const char *path, bool auto_name) {
    if (m_started) {
        LOG_INFO("saveas avi has stared\n");
        return KELM_AVIFILE_FAILED;
    }
    if (m_save_lock.Create() != KELM_AVIFILE_OK) LOG_TRACE();
    const CAutoMutex lock(&m_save_lock);
    m_auto_name = auto_name;
    copy_text(m_save_path, path);
    m_started = true;
    return KELM_AVIFILE_OK;
}

int32_t CAviSaveAs::SetRecFrame(const FrameHead &head, const void *data, uint32_t len) {
    if (!m_started) {
        LOG_INFO("saveas avi has not stared\n");
        return KELM_AVIFILE_NOT_RUNNING;
    }
    if (is_audio_frame(head.type)) {
        for_each_audio_frame(head, data, len, [&](uint32_t, const FrameHead &frame, const uint8_t *bytes) {
            write_avi_file(frame, bytes, head.length);
        });
    } else {
        write_avi_file(head, data, len);
    }
    return KELM_AVIFILE_OK;
}

void CAviSaveAs::check_switch(const FrameHead &head) {
    if (head.width != m_width || head.height != m_height) {
        m_width = head.width;
        m_height = head.height;
        m_need_switch = true;
    }
    const int32_t codec_id = head.codec_id;
    if (codec_id != m_codec_id) {
        LOG_INFO("codec id changed, need to switch file, now = %d, last = %d\n", codec_id, m_codec_id);
        m_codec_id = codec_id;
        m_need_switch = true;
    }
    const int64_t sec = head.seconds;
    if (m_file_size >= kMaxFileSize || sec - m_begin_sec >= kMaxFileSeconds || sec < m_end_sec) m_need_switch = true;
    if (m_avi_writer.is_open() && m_avi_writer.need_switch_file()) m_need_switch = true;
}

int32_t CAviSaveAs::open_next_file(const FrameHead &head) {
    std::string name(m_save_path);
    if (m_auto_name) {
        DateTimeFields time{};
        CGlobalObject::gmtime_utc(head.seconds, &time);
        char file[32];
        std::snprintf(file, sizeof(file), "%02d%02d%02d.avi", time.hour, time.minute, time.second);
        name += file;
    }
    const int32_t opened = m_avi_writer.open_file(name.c_str(), head.width, head.height, nullptr);
    if (opened != KELM_AVIFILE_OK) {
        LOG_TRACE();
        return KELM_AVIFILE_FAILED;
    }
    m_begin_sec = m_end_sec = head.seconds;
    m_file_size = kHeadSize;
    return KELM_AVIFILE_OK;
}

int32_t CAviSaveAs::write_avi_file(const FrameHead &head, const void *data, uint32_t len) {
    const CAutoMutex lock(&m_save_lock);
    const bool is_key = is_i_frame(head.type);
    if (m_auto_name && is_video_frame(head.type)) check_switch(head);
    if (m_auto_name && m_need_switch && is_key) {
        int32_t closed_size = 0;
        if (m_avi_writer.is_open()) {
            m_avi_writer.close(&closed_size, &m_end_sec);
            m_file_size = closed_size;
        }
        m_need_switch = false;
    }
    if (!m_avi_writer.is_open()) {
        if (!is_key) return KELM_AVIFILE_OK;
        const int32_t opened = open_next_file(head);
        if (opened != KELM_AVIFILE_OK) return opened;
    }
    m_avi_writer.write_data(head, data, len);
    if (!m_need_switch) m_end_sec = head.seconds;
    m_file_size += static_cast<int64_t>(len) + kFrameCost;
    return KELM_AVIFILE_OK;
}

int32_t CAviSaveAs::StopRec() {
    if (!m_started) {
        LOG_INFO("saveas avi has not stared\n");
        return KELM_AVIFILE_FAILED;
    }
    {
        const CAutoMutex lock(&m_save_lock);
        m_started = false;
        if (m_avi_writer.is_open()) m_avi_writer.close(nullptr, nullptr);
        m_save_path[0] = '\0';
        m_auto_name = m_need_switch = false;
        m_width = m_height = 0;
        m_codec_id = 1;
        m_file_size = m_begin_sec = m_end_sec = 0;
    }
    m_save_lock.Close();
    return KELM_AVIFILE_OK;
}

}  // namespace kelm_recvault
