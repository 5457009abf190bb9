// Plays one channel of one device over a time range, from a thread of its own.
//
// The range becomes a read list: one element for each record segment of each file, in ascending order of their begin. The
// thread walks that list with one kelm_avi_reader and hands every frame that qualifies to the application's callback. It
// seeks on request, and follows a recording that is still being written. A gap costs no time: the next element is opened at
// once.
//
// A frame is first made pending. In a free-running playback it goes out with the next pass; in a synchronised one it is held
// until the data pop releases or drops it. While a frame is pending nothing is read, so that it stays whole in the buffer.
//
// Owned by value by CDataPop, which serves it from three sides: the application's threads, one at a time, start, stop and
// steer it; the pop thread looks at the pending frame and decides on it; the reader's own thread runs ThreadFunc, and alone
// reads the file. m_read_mutex guards the file and the requests and is held for the file work of a pass, so that a request
// waits for one read or one opening at most; m_frame_mutex guards the pending frame, for a few assignments at a time.
// Neither is held during a callback or a pause.
#pragma once

#include <recvault/recvault.h>

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

#include "Mutex.h"
#include "RecFileNode.h"
#include "Thread.h"
#include "avi/avi_reader.h"

namespace kelm_recvault {

// What a data pop is asked to play, the same for all its channels.
struct PopRange {
    uint32_t dev_idx = 0;
    int64_t begin_time = 0;
    int64_t end_time = 0;  // inclusive; 0 is open
    uint32_t rec_type = 0;
    bool follow_live = true;  // the range may reach into a recording that is still growing
};

// Whom a data pop tells.
struct PopListener {
    DataPopCallback callback = nullptr;
    uintptr_t user_data = 0;
    int32_t pop_id = -1;  // index in the registry
};

enum class FrameState : uint8_t { hold, drop, release };

class CAviReader {
 public:
    static constexpr int32_t kFree = -1;  // the channel of a reader without one

    CAviReader() = default;
    ~CAviReader();
    CAviReader(const CAviReader &) = delete;
    CAviReader &operator=(const CAviReader &) = delete;

    // A reader is free, assigned to a channel, or started. It is assigned and freed while no other thread looks.
    int32_t Assign(int32_t channel);
    // Ends the thread, if there is one. FAILED when the reader was not started.
    int32_t StopRead();
    int32_t Channel() const { return m_nChannel; }
    bool IsAssigned() const { return m_nChannel != kFree; }
    bool IsStarted() const { return m_bStarted; }

    void SetReadParam(const PopRange &range);
    // FAILED when it is started already, or when nothing lies in the range and it does not follow; NO_MEMORY. A failure
    // frees the reader. Nothing is delivered before SetPaused(false).
    int32_t StartRead(const PopListener &listener, bool sync);
    // NOT_RUNNING when it is not started. No frame from before the seek is delivered any more.
    int32_t ReadSeek(int64_t time);
    int32_t ReadReverse(bool reverse);
    void SetReadMode(int32_t mode, int32_t key_skip, uint32_t rec_type);
    // Holds the pending frame back, whatever its state. Frames that are held back are not lost.
    void SetPaused(bool paused);
    // Bytes of the range, an estimate by whole key-frame intervals. An open end becomes the end of the day, for good.
    uint64_t GetPopDataSize();

    // NOT_RUNNING when it is not started, FAILED while no element is played.
    int32_t GetSegBeginTime(int64_t *time);
    // The head of the newest frame, also after it went out. NOT_FOUND while the reader has finished or waits.
    int32_t GetCurFrameHead(FrameHead *head);
    void SetFrameState(FrameState state);

    // The body of the thread: one pass.
    int32_t ThreadFunc(uint32_t user_value);

 private:
    enum class ReadStatus : uint8_t { reading, finished, waiting };

    // What a pass has delivered.
    struct Delivery {
        bool key = false;
        int32_t length = 0;
    };

    // What a pass has found in the file.
    struct Pass {
        int32_t result = KELM_AVIFILE_FAILED;
        const uint8_t *frame = nullptr;
        int32_t length = 0;
        bool have = false;    // the frame qualifies
        bool at_end = false;  // the element is used up
        bool wait = false;    // at the end of the file that is being recorded
    };

    using Position = RecFileSet::const_iterator;

    void Reset();
    int32_t StartReadThrd();
    int32_t OpenFirst();

    int32_t UpdateRecFileLst() RCVT_REQUIRES(m_read_mutex);
    void InsertSegments(const RecFileNode &file) RCVT_REQUIRES(m_read_mutex);
    std::string GetFileNameByTime(int64_t time, int64_t *begin, int64_t *end) RCVT_REQUIRES(m_read_mutex);
    std::string GetNextFileName(const std::string &path, int64_t *begin, int64_t *end) RCVT_REQUIRES(m_read_mutex);
    Position FindBehind(const std::string &path, int64_t begin) const RCVT_REQUIRES(m_read_mutex);
    bool IsTimeInFile(const std::string &path, int64_t time) const RCVT_REQUIRES(m_read_mutex);
    int32_t OpenFileByName(std::string *path, int64_t *begin, int64_t *end) RCVT_REQUIRES(m_read_mutex);
    int32_t OpenFileByTime(int64_t time) RCVT_REQUIRES(m_read_mutex);
    void SetCurFile(const std::string &path, int64_t begin, int64_t end) RCVT_REQUIRES(m_read_mutex);
    void CloseFile() RCVT_REQUIRES(m_read_mutex);

    Delivery DeliverPending();
    bool FindFrame(Pass *pass) RCVT_REQUIRES(m_read_mutex);
    int32_t OpenNextElement() RCVT_REQUIRES(m_read_mutex);
    void ReadFrame(Pass *pass) RCVT_REQUIRES(m_read_mutex);
    void Judge(Pass *pass) RCVT_REQUIRES(m_read_mutex);
    bool EnterElementOf(int64_t time) RCVT_REQUIRES(m_read_mutex);
    bool IsWriting(const std::string &path) const RCVT_REQUIRES(m_read_mutex);
    void MakePending(const Pass &pass, ReadStatus status) RCVT_REQUIRES(m_read_mutex);
    bool IsFramePending();
    int32_t PauseAfter(const Pass &pass, const Delivery &delivered) const;
    void DropFrame() RCVT_REQUIRES(m_frame_mutex);
    void ClearFrame();

    int32_t m_nChannel = kFree;
    std::atomic<bool> m_bStarted{false};
    CThread<CAviReader> m_thread;

    // Set before the thread starts, constant while it runs.
    PopListener m_listener;
    bool m_bSync = true;
    std::unique_ptr<uint8_t[]> m_pReadList;  // the read buffer

    CMutex m_read_mutex{LockRank::reader_file};  // both locks exist while the reader is assigned
    kelm_avi_reader m_avi_reader RCVT_GUARDED_BY(m_read_mutex);
    PopRange m_range RCVT_GUARDED_BY(m_read_mutex);
    RecFileSet m_read_list RCVT_GUARDED_BY(m_read_mutex);
    std::string m_cur_name RCVT_GUARDED_BY(m_read_mutex);      // the element that is played: its path,
    int64_t m_seg_btime RCVT_GUARDED_BY(m_read_mutex) = 0;     // its first second,
    int64_t m_seg_etime RCVT_GUARDED_BY(m_read_mutex) = 0;     // and its last; it grows while a recording is followed
    bool m_bFileEnd RCVT_GUARDED_BY(m_read_mutex) = false;     // that element is used up,
    bool m_bFileUsedUp RCVT_GUARDED_BY(m_read_mutex) = false;  // and with it its file: later elements of it were played
    bool m_bLive RCVT_GUARDED_BY(m_read_mutex) = false;        // the file has grown since its table was read
    int64_t m_seek_time RCVT_GUARDED_BY(m_read_mutex) = 0;     // a seek that waits for the thread; 0 for none
    int32_t m_read_mode RCVT_GUARDED_BY(m_read_mutex) = kelm_avi_reader::kAllFrames;
    int32_t m_key_skip RCVT_GUARDED_BY(m_read_mutex) = 0;

    CMutex m_frame_mutex{LockRank::reader_frame};
    const uint8_t *m_pFrame RCVT_GUARDED_BY(m_frame_mutex) = nullptr;  // the pending frame, in the read buffer
    int32_t m_nFrameLen RCVT_GUARDED_BY(m_frame_mutex) = 0;            // with its head
    bool m_bHold RCVT_GUARDED_BY(m_frame_mutex) = true;
    bool m_bPaused RCVT_GUARDED_BY(m_frame_mutex) = true;
    FrameHead m_frame_head RCVT_GUARDED_BY(m_frame_mutex){};  // of the newest frame; all zero for none
    ReadStatus m_read_status RCVT_GUARDED_BY(m_frame_mutex) = ReadStatus::reading;
};

}  // namespace kelm_recvault
