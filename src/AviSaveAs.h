// One running export: writes the frames that the application hands in to AVI files at a path of its choosing.
//
// With a folder as its target it makes files there, named by the time of their first frame, and begins another at a key
// frame after a change of size or codec, an hour, a GiB, a step back in time, or when a file's tables are full. With a file
// as its target it writes that one file.
//
// A heap object, owned by CAviSaveAsMngr, entered under the lock of its slot. m_save_lock guards the rest. Frames go to disk
// on the caller's thread.
#pragma once

#include <cstdint>

#include "Mutex.h"
#include "avi/avi_writer.h"

namespace kelm_recvault {

class CAviSaveAs {
 public:
    CAviSaveAs() = default;
    ~CAviSaveAs();
    CAviSaveAs(const CAviSaveAs &) = delete;
    CAviSaveAs &operator=(const CAviSaveAs &) = delete;

    // `auto_name`: the path is a folder, with a slash at its end. FAILED when it runs.
    int32_t StartRec(const char *path, bool auto_name);
    // NOT_RUNNING when it does not run. A frame that cannot be written is lost, and the result is 0.
    int32_t SetRecFrame(const FrameHead &head, const void *data, uint32_t len);
    int32_t StopRec();

 private:
    int32_t write_avi_file(const FrameHead &head, const void *data, uint32_t len);
    void check_switch(const FrameHead &head) RCVT_REQUIRES(m_save_lock);
    int32_t open_next_file(const FrameHead &head) RCVT_REQUIRES(m_save_lock);

    bool m_started = false;
    CMutex m_save_lock{LockRank::save_as};
    char m_save_path[260] RCVT_GUARDED_BY(m_save_lock) = {};
    bool m_auto_name RCVT_GUARDED_BY(m_save_lock) = false;
    kelm_avi_writer m_avi_writer RCVT_GUARDED_BY(m_save_lock);
    uint32_t m_width RCVT_GUARDED_BY(m_save_lock) = 0;  // of the last video frame, as the two below
    uint32_t m_height RCVT_GUARDED_BY(m_save_lock) = 0;
    int32_t m_codec_id RCVT_GUARDED_BY(m_save_lock) = 1;
    bool m_need_switch RCVT_GUARDED_BY(m_save_lock) = false;
    int64_t m_file_size RCVT_GUARDED_BY(m_save_lock) = 0;  // of the running file, about
    int64_t m_begin_sec RCVT_GUARDED_BY(m_save_lock) = 0;
    int64_t m_end_sec RCVT_GUARDED_BY(m_save_lock) = 0;
};

}  // namespace kelm_recvault
