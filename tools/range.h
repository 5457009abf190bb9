// A range of time out of a store, frame by frame, for the subcommands that hand recordings out. It is read from the
// documented format alone, so that it may run beside a recorder, on a disk that must not be written, and to the last frame.
#pragma once

#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "store.h"

namespace CLI {
class App;
}

namespace recvault_tool {

struct RangeOptions {
    std::vector<std::string> stores;
    std::string from, to;
    Filter filter;
    void add_to(CLI::App *command);
};

struct StoredFrame {
    Frame head;
    std::string record;  // as it stands in the file, without the byte that fills it up
    std::string_view data() const { return std::string_view(record).substr(kRecordHead); }
};

// The frames of one channel from `begin` to before `end`, in the order of their recording, from the first key frame on.
class ChannelReader {
 public:
    ChannelReader(std::vector<Recording> files, const Filter &filter, int64_t begin, int64_t end);

    // False at the end.
    bool next(StoredFrame *frame);

    const std::string &device() const { return m_files.front().device; }
    uint64_t estimated_bytes() const;  // what next() will give, by the shares of the files that lie in the range

 private:
    void open_next_file();

    std::vector<Recording> m_files;
    uint32_t m_types;
    int64_t m_begin, m_end;
    bool m_begun = false;
    size_t m_next_file = 0;
    Source m_source{fs::path()};
    std::vector<Frame> m_frames;  // of the file that is open, those of the range
    size_t m_next_frame = 0;
};

// A reader for each channel that has something in the range, by its number. Throws a Failure when there is none, or when
// more than one device has.
std::map<int, ChannelReader> read_range(RangeOptions options);

}  // namespace recvault_tool
