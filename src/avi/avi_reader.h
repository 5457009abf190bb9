// Reads one record file, frame by frame, and finds a position in it by time.
//
// A forward reader that walks the movi list by its frame heads and needs no index, so that it reads a finished file, a cut
// one and one that is being written in the same way. read_data is a loop over two phases: look at what the buffer holds, and
// load more of the file. A frame is delivered in place: the caller gets a pointer into its own buffer, good until the next
// call. A frame that the filter refuses is passed over by seeking, not by reading.
//
// Nothing in the file is trusted. A record whose head is wrong, whose size is odd or does not fit the buffer, or whose
// length exceeds its size, is damage: the search for the next head goes on behind its first bytes, so that it costs no other
// record.
//
// Used by one thread at a time. With a buffer it plays a file (owned by CAviReader); without one it is opened for its tables
// alone, for the length of one question.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "FileManager.h"
#include "avi/avi_format.h"

namespace kelm_recvault {

class kelm_avi_reader {
 public:
    static constexpr int32_t kBufferSize = 0x100000;
    // Modes of read_data. Any other value, 3 in use, is no restriction.
    static constexpr int32_t kKeyFrames = 1;
    static constexpr int32_t kVideoFrames = 2;
    static constexpr int32_t kAllFrames = 3;
    static constexpr int32_t kAudioFrames = 4;

    kelm_avi_reader() = default;
    ~kelm_avi_reader();
    kelm_avi_reader(const kelm_avi_reader &) = delete;
    kelm_avi_reader &operator=(const kelm_avi_reader &) = delete;

    // `buffer` has kBufferSize bytes and stays the caller's; null opens the file for its tables alone. BAD_ARGUMENT for a
    // null path, FAILED when the file cannot be opened or its head is refused.
    int32_t open_file(const char *path, uint8_t *buffer);
    int32_t close_file();
    bool is_opened() const { return m_avi_fio.is_open(); }

    // The next frame that passes the filter: its FrameHead with the data behind it, `length` bytes in all. In mode
    // kKeyFrames `skip` key frames are passed over first. END_OF_DATA when the file holds nothing more for now, FAILED when
    // it is not open for reading or the reverse switch is on.
    int32_t read_data(int32_t mode, int32_t skip, uint32_t rec_type, const uint8_t **frame, int32_t *length);
    // Sets the position near a second: at the key frame that is found, or up to 4095 bytes before it.
    int32_t seek_time(int64_t sec);
    void set_reverse(bool reverse) { m_reverse = reverse; }

    int32_t get_recseg_info(RecSegEntry *entries, int32_t *count) const;
    int32_t get_data_size(int64_t begin, int64_t end, uint32_t rec_type) const;

 private:
    enum class IndexKind : uint8_t { none, idx1, side_file };
    enum class FrameKind : int32_t { key, audio, video };
    enum class Look : uint8_t { found, need_data };

    struct Filter {
        int32_t mode;
        int32_t skip;  // key frames that are still to be passed over
        uint32_t rec_type;
        bool Refuses(const FrameRecHead &head);
    };

    bool check_head();
    bool check_list_hdrl();
    bool read_tables();
    bool find_index(int64_t movi_list_size);
    bool check_idx1(int64_t position, int64_t *first_key);
    void check_side_index(int64_t *first_key);

    int32_t read_data_forword(Filter *filter, const uint8_t **frame, int32_t *length);
    Look look(Filter *filter, int64_t *current_size);
    bool fast_find_node();
    void skip_refused(FrameRecHead *head, int64_t missing);
    int32_t load(int64_t current_size);
    bool make_room(int64_t rest, int32_t *load_size);
    uint8_t *span_begin() const { return m_data_buf + (m_data_end - m_data_buf_len); }

    int64_t search_key_table(int64_t t) const;
    int64_t search_side_file(platform::File *side, int64_t t);
    int64_t search_file(int64_t t);
    int64_t find_last_before(int64_t t);
    bool get_relpos_by_indx(int64_t index, FrameKind *kind, int64_t *position);
    int64_t first_key_entry_from(int64_t index, int64_t *position);
    bool find_frame_type(FrameKind kind, int64_t *position, FrameRecHead *head);
    bool find_next_head();

    CFileIO m_avi_fio;             // frames; unbuffered
    platform::File m_head_stream;  // head, index and searches
    std::string m_avi_path;
    std::string m_idx_path;
    int64_t m_file_size = 0;  // at the open
    int64_t m_first_pos = 0;  // where the first read began: the lower bound of searches
    IndexKind m_index_kind = IndexKind::none;
    int64_t m_movi_end_pos = 0;  // the index, or the file's length at the open
    int64_t m_idx1_pos = 0;      // its first entry
    int64_t m_idx1_cnt = 0;
    std::unique_ptr<RecSegStrn> m_recseg_strn;  // from the first open on: it is large, and most readers never open a file
    bool m_reverse = false;
    uint8_t *m_data_buf = nullptr;
    int32_t m_data_buf_len = 0;  // unread bytes, which end at m_data_end
    int32_t m_data_end = 0;
    bool m_seek_done = false;
    bool m_end_told = false;  // the end of a growing file is told once
};

}  // namespace kelm_recvault
