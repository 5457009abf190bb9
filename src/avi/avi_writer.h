// Writes one record file and its side file.
//
// With a live frame buffer the caller's thread puts frames and side records into its rings, and the writer's own thread
// moves them to disk in large aligned blocks; without one, for exports, everything goes to disk on the caller's thread.
//
// The close has two stages, so that the next file can begin at once:
//   1. close_fast, on the thread that ends the file: ends the writer thread, writes what the rings still hold, then the movi
//      size, the segment and key-frame tables, the measured frame rate and the counts. The file is complete but for its
//      index.
//   2. close_finish, on a background thread, on the AviFileState that copy_for_close took out of the writer: appends the
//      index, built from the side file, patches the sizes again, and deletes the side file.
// Invariants:
//   - A file without its side file is complete. The side file goes last, and only when everything before it is on disk.
//   - The position of a frame record is known when the frame is taken. So nothing ever stands in the file at another place:
//     what a failed write left in the ring is written there later or not at all.
//   - A file ends with a whole frame record.
//
// When a write fails the writer thread ends, and the ring fills; write_failed() tells it, and so it does when the file has
// lost its name. The owner then closes the file at the next key frame, which writes the rest if that is possible by then.
//
// Threads. All calls come under the owner's lock. While a file is open, the writer thread uses m_avi_fio, the side stream
// and the consumer's end of the rings, and the caller everything else; in direct mode the caller uses all of it. Owned by
// CAviWriter (on the heap) and by CAviSaveAs (by value).
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "FileManager.h"
#include "Thread.h"
#include "avi/avi_format.h"

namespace kelm_recvault {

// What the second stage of a close needs. Moves from the writer to the list of files to be finished.
class AviFileState {
 public:
    AviFileState() = default;
    AviFileState(AviFileState &&) noexcept = default;
    AviFileState &operator=(AviFileState &&) noexcept = default;

    // FAILED when there is no file, or the index could not be written; the side file then stays, and the file is repaired
    // when its partition is next taken into use.
    int32_t close_finish();

 protected:
    bool has_streams() const { return m_head_stream.IsOpen() && m_side_stream.IsOpen(); }
    bool update_fhead();

    platform::File m_head_stream;  // a second handle on the record file: head, index and tail
    platform::File m_side_stream;
    std::string m_avi_path;
    std::string m_idx_path;
    int32_t m_write_pos = 0;  // file position of the next frame record
    int32_t m_video_cnt = 0;
    int32_t m_audio_cnt = 0;  // filler frames included
    uint32_t m_last_video_sec = 0;
    uint32_t m_last_video_usec = 0;
    int64_t m_rec_sec = 0;  // recorded time
    int64_t m_rec_usec = 0;
    uint32_t m_rec_type = 1;
    uint32_t m_prev_size = 0;
    int32_t m_seg_started = 0;      // segments begun, also those that found the table full
    int32_t m_key_frame_seen = -1;  // key frames seen minus 1
    bool m_new_seg = false;         // the next key frame begins a segment
    bool m_g711 = false;

 private:
    bool write_idx1();
    bool copy_index(int64_t movi_end, uint32_t *index_bytes);
};

class kelm_avi_writer : public AviFileState {
 public:
    kelm_avi_writer();
    ~kelm_avi_writer();
    kelm_avi_writer(const kelm_avi_writer &) = delete;
    kelm_avi_writer &operator=(const kelm_avi_writer &) = delete;

    // Makes the file with its head, and the side file; truncates what was there. `packet_mngr` is the live frame buffer, not
    // owned, or null. BAD_ARGUMENT for a null path, FAILED when the files cannot be made; then neither is left.
    int32_t open_file(const char *path, uint32_t width, uint32_t height, CPacketManager *packet_mngr);
    bool is_open() const { return m_avi_fio.is_open(); }
    bool open_is_cur_file(const char *name) const;
    // Appends one frame. NO_ROOM or FAILED from the live buffer: nothing has changed.
    int32_t write_data(const FrameHead &head, const void *data, uint32_t len);
    // The tables or the file are full: the next key frame has to begin another file.
    bool need_switch_file() const { return m_seg_started >= kMaxSegments || m_key_frame_seen >= kMaxKeyFrames || m_full; }
    bool write_failed() const { return m_write_failed.load(std::memory_order_relaxed); }
    void set_rec_type(uint32_t mask) { m_rec_type = mask; }

    int32_t get_recseg_info(RecSegEntry *entries, int32_t *count) const;
    int32_t get_data_size(int64_t begin, int64_t end, uint32_t mask) const;
    // Type mask and time range of the file as far as it has come. FAILED while it has no segment.
    int32_t get_recinfo(uint32_t *rec_type, int64_t *begin_sec, int64_t *end_sec) const;

    // Both stages in a row. The pointers may be null.
    int32_t close(int32_t *file_size, int64_t *end_sec);
    int32_t close_fast(int32_t *file_size, int64_t *end_sec);
    AviFileState copy_for_close();
    void reset();

    // The body of the writer thread.
    int32_t ThreadFunc(uint32_t user_value);

 private:
    int32_t creat_avi_file(const char *path);
    bool write_fhead(uint32_t width, uint32_t height);
    void abandon();
    int32_t write_frame(const FrameHead &head, const void *data, uint32_t len);
    int32_t store_frame(FrameRecHead *record, const void *data, uint32_t len, int32_t *position);
    int32_t store_side_record(const FrameIdxRec &record);
    void count_audio(const FrameHead &head);
    void count_video(const FrameHead &head, int32_t free_slots);
    void write_silent_audio();
    void update_strn_recseg(bool is_audio, bool is_key, const KeyFrameEntry &entry);
    void note_key_frame(bool is_key, const KeyFrameEntry &entry);
    int64_t frame_duration(const KeyFrameEntry &entry);
    void note_segment(bool is_key, const KeyFrameEntry &entry);
    int32_t count_time_range(int64_t *end_sec) const;

    bool write_side_records();
    bool write_pieces(const CPacketManager::Pieces &pieces);
    bool flush_packets();
    void drop_torn_tail();
    int32_t store_direct(const FrameRecHead &record, const void *data, uint32_t len);
    void check_name();

    CFileIO m_avi_fio;
    RecSegStrn m_recseg_strn{};
    CThread<kelm_avi_writer> m_write_thrd;
    CPacketManager *m_packet_mngr = nullptr;
    int64_t m_side_size = 0;  // whole records in the side file; the writer thread's while it runs
    std::atomic<bool> m_write_failed{false};
    bool m_full = false;  // a frame did not fit below 2 GiB: none is taken any more
    int32_t m_ticks = 0;  // of the writer thread, up to its next look at the file's name
};

}  // namespace kelm_recvault
