// The recorder of one channel: takes each delivered frame, decides whether it belongs in the current record file or begins a
// new one, and reports each file to storage when it opens and when it closes.
//
// States: idle (nothing but this object), armed (started, no file: frames are dropped up to a key frame), writing. Every
// file begins with a key frame, and only a key frame ends one: at a new picture size or codec, at midnight, at its size or
// hour, or when time goes backwards, when its tables are full, when a write failed. The first stage of a close runs on the
// thread that ends the file, the second on the assist thread.
//
// Embedded in CStorageChMngr, 1024 a device; owned by it from the start of the library to its end. Threads: the
// application's (frames, start and stop), the registry's sweep, the storage side, and the assist thread, which touches
// m_sync_list and its own copy of a closed file alone.
//
// Locks: m_lock, then m_sync_lock or the lock of m_packet_mngr. m_lock is held for the whole handling of a frame and
// released around every call into storage. After such a call the writer may be gone (the recording was stopped) or another
// file may be open; both are looked at again. One who closes a file waits until its opening has been reported (m_reporting),
// so that the two reports of a file never overtake each other. m_lock is created by the first start and lives on: a late
// frame may still wait for it.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "Crossing.h"
#include "LiveFrameList.h"
#include "Mutex.h"
#include "RecFileNode.h"
#include "Thread.h"
#include "avi/avi_writer.h"

namespace kelm_recvault {

class CAviWriter {
 public:
    CAviWriter() = default;
    ~CAviWriter();
    CAviWriter(const CAviWriter &) = delete;
    CAviWriter &operator=(const CAviWriter &) = delete;

    // A device that takes the slot of an earlier one finds the number set; a late frame may be reading it.
    void SetChannel(int32_t channel) {
        if (m_channel != channel) m_channel = channel;
    }

    // FAILED when it is started, or is being started or stopped; NO_MEMORY.
    int32_t StartRec(uint32_t rec_type_mask, uint32_t dev_idx);
    // Returns with all files finished. FAILED when it is not started.
    int32_t StopRec();
    // The same for one who takes the recorder out of use: also waits for a stop that runs on another thread.
    void StopForGood();
    // For what comes from now on; the file's segment changes with the next key frame. NOT_RUNNING when it is not started.
    int32_t SetRecordType(uint32_t mask);
    // One delivery: a video frame, or audio frames. NOT_RUNNING when it is not started; a dropped frame is no failure.
    int32_t SetRecFrame(const FrameHead &head, const void *data, uint32_t data_len, uint32_t sec, uint32_t usec);
    // Closes the current file. The next key frame opens another.
    int32_t SwitchRecFile();
    // The same if the current file is that file, else FAILED.
    int32_t SwitchRecFileByName(const char *path);
    bool IsWriting(const char *path);
    // Questions about a file: from the writer's memory if it is the one being written, else from the file itself.
    int32_t GetRecInfo(const char *path, uint32_t *type, int64_t *begin_sec, int64_t *end_sec);
    // `count` is the room, and then the number delivered.
    int32_t GetRecSegInfo(const char *path, RecSegEntry *entries, int32_t *count);
    int32_t GetRecDataSize(const char *path, int64_t begin, int64_t end, uint32_t mask, int32_t *size);
    bool IsRecording();
    // Has the last frame been written more than half an hour ago?
    bool IsNeedToClose(int64_t now);
    // Running size of the open file if it lies on that partition, else 0.
    int32_t GetCurRecFileSize(int32_t disk_idx);

    // The body of the assist thread.
    int32_t ThreadFunc(uint32_t user_value);

 private:
    enum class State : uint8_t { idle, starting, started, stopping };

    // A file that was closed and is still to be reported.
    struct ClosedFile {
        RecFileNode node;
        int32_t disk_idx;
    };
    // A file that was closed and waits for its second stage.
    struct FileToFinish {
        AviFileState file;
        int32_t disk_idx;
        void Finish();
    };

    bool IsStarted() const { return m_state == State::started; }
    // A recorder that is being stopped has its file until that has been closed.
    bool MayHaveFile() const {
        const State state = m_state;
        return state == State::started || state == State::stopping;
    }
    int32_t StartParts(uint32_t rec_type_mask);
    void StopParts();
    int32_t StartAssistThrd();
    void StopAssistThrd();

    int32_t write_avi_file(const FrameHead &head, const void *data, uint32_t data_len) RCVT_EXCLUDES(m_lock);
    bool file_open() const RCVT_REQUIRES(m_lock) { return m_writer && m_writer->is_open(); }
    void check_picture(const FrameHead &head) RCVT_REQUIRES(m_lock);
    void check_limits(uint32_t cur_sec) RCVT_REQUIRES(m_lock);
    void switch_if_needed(const FrameHead &head) RCVT_REQUIRES(m_lock);
    int32_t open_next_file(const FrameHead &head) RCVT_REQUIRES(m_lock);
    bool open_named_file(const RecFileName &name, const FrameHead &head) RCVT_REQUIRES(m_lock);
    void report_open() RCVT_REQUIRES(m_lock);
    bool is_open_file(const char *path) RCVT_REQUIRES(m_lock) { return file_open() && m_writer->open_is_cur_file(path); }
    std::optional<ClosedFile> close_current() RCVT_REQUIRES(m_lock);
    int32_t close_avi_fast(int32_t *file_size, int64_t *end_sec) RCVT_REQUIRES(m_lock);
    static void Report(const std::optional<ClosedFile> &closed);

    std::atomic<State> m_state{State::idle};
    int32_t m_channel = -1;              // set when the device is registered
    std::atomic<uint32_t> m_dev_idx{0};  // set by StartRec
    CMutex m_lock{LockRank::channel};
    uint32_t m_rec_type RCVT_GUARDED_BY(m_lock) = 1;
    std::unique_ptr<kelm_avi_writer> m_writer RCVT_GUARDED_BY(m_lock);  // from StartRec to StopRec
    uint32_t m_width RCVT_GUARDED_BY(m_lock) = 0;                       // of the last key frame, as the three below
    uint32_t m_height RCVT_GUARDED_BY(m_lock) = 0;
    int32_t m_codec_id RCVT_GUARDED_BY(m_lock) = 1;
    int64_t m_day RCVT_GUARDED_BY(m_lock) = 0;
    RecFileNode m_file RCVT_GUARDED_BY(m_lock){};      // of the open file; file_size is an estimate. Zero without one
    uint32_t m_opened RCVT_GUARDED_BY(m_lock) = 0;     // files opened so far
    bool m_reporting RCVT_GUARDED_BY(m_lock) = false;  // the opening of the file is being reported
    bool m_need_switch RCVT_GUARDED_BY(m_lock) = false;
    int32_t m_disk_idx RCVT_GUARDED_BY(m_lock) = -1;
    int32_t m_max_file_size RCVT_GUARDED_BY(m_lock) = 0x40000000;

    CPacketManager m_packet_mngr;  // filled under m_lock, emptied by the writer's thread
    CThread<CAviWriter> m_thread;  // the assist thread
    CMutex m_sync_lock{LockRank::sync_list};
    std::vector<FileToFinish> m_sync_list RCVT_GUARDED_BY(m_sync_lock);  // oldest first
};

}  // namespace kelm_recvault
