// A store and its files as docs/format.md describes them, for every subcommand that looks. Files are opened for reading
// alone and nothing is locked; a recorder may be at work on them, so whatever is looked at may change or vanish meanwhile.
// No size, count, offset or name from disk is used unchecked.
#pragma once

#include <array>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace recvault_tool {

namespace fs = std::filesystem;

constexpr uint32_t code(std::string_view text) {
    uint32_t value = 0;
    for (size_t i = 0; i < 4; ++i) value |= static_cast<uint32_t>(static_cast<uint8_t>(text[i])) << (8 * i);
    return value;
}

constexpr uint64_t kHeadSize = 77824;      // the first frame record stands here
constexpr uint64_t kMoviBase = 77820;      // movi sizes and the offsets of index entries count from here
constexpr uint64_t kIndexBase = 77764;     // the offset of an index entry plus this is the position of its record
constexpr uint64_t kRecordHead = 64;       // of a frame record
constexpr uint64_t kMaxFile = 1ULL << 31;  // no file reaches this
constexpr uint32_t kMaxRecord = 0x100000;  // no frame record is longer
constexpr uint32_t kFrameId = 0xAB010000;
constexpr uint32_t kVideo = code("00dc");
constexpr uint32_t kAudio = code("01wb");
constexpr uint32_t kMaxSegments = 100;
constexpr uint32_t kMaxKeyFrames = 3600;
constexpr uint32_t kAllTypes = 0x7F;
constexpr int64_t kSegmentSpan = 3661;  // seconds; a segment is shorter
constexpr int64_t kDaySeconds = 86400;

// What stands in the head of every record file, whatever it holds.
struct HeadWord {
    uint32_t offset;
    uint32_t value;
    const char *structure;
};
extern const std::vector<HeadWord> kHeadWords;

// Positions in the head.
constexpr size_t kStrn = 220;
constexpr size_t kSegmentCount = kStrn + 2008;
constexpr size_t kKeyFrames = kStrn + 2012;
constexpr size_t kKeyFrameCount = kStrn + 74012;

// Little-endian, out of bytes that are known to be there.
uint32_t word(const char *bytes, size_t offset);
int64_t long_word(const char *bytes, size_t offset);

// A file that is read at positions.
class Source {
 public:
    explicit Source(const fs::path &path);
    bool is_open() const { return m_stream.is_open(); }
    uint64_t size() const { return m_size; }  // when it was opened
    // Gives the number of bytes that were there.
    size_t read(uint64_t position, char *out, size_t size);
    std::string read(uint64_t position, size_t size);

 private:
    std::ifstream m_stream;
    uint64_t m_size = 0;
    uint64_t m_position = 0;
};

struct Segment {
    uint32_t types;
    int64_t begin, end;
    bool valid() const { return begin >= 0 && begin <= end && end <= UINT32_MAX && end - begin < kSegmentSpan; }
};

struct KeyFrame {
    uint32_t position, length, types, second, microsecond;
};

struct Tables {
    uint32_t segment_count = 0;    // as it stands there, perhaps too much
    uint32_t key_frame_count = 0;  // likewise
    std::vector<Segment> segments;
    std::vector<KeyFrame> key_frames;
};
Tables read_tables(const std::string &head);

struct Frame {
    uint64_t position;
    uint32_t type, second, microsecond, length, types, previous, file_position, chunk, chunk_size;
    uint16_t width, height;
    uint8_t audio_codec;
    int8_t codec;
    uint64_t end() const { return position + kRecordHead + chunk_size; }
    bool key() const { return type == 1 || type == 18 || type == 24; }
    bool filler() const { return length == 0; }
};
// The frame record whose head these 64 bytes are; nothing when they are none.
std::optional<Frame> parse_frame(uint64_t position, const char *bytes);
std::optional<Frame> frame_at(Source *file, uint64_t position, uint64_t end);

// Goes over the frame records from `begin` to `end`. Between them, and before the first, `damage` gets each stretch of bytes
// that belongs to none. A record whose data hold the head of another one is damage itself: its size is wrong. Ends at the
// index, and gives where that or the last stretch begins.
uint64_t walk_frames(Source *file, uint64_t begin, uint64_t end, const std::function<void(const Frame &)> &each,
                     const std::function<void(uint64_t from, uint64_t to)> &damage);

// The segments of frames that come one by one, for a file whose table does not tell.
class SegmentBuilder {
 public:
    void add(uint32_t types, uint32_t second);
    std::vector<Segment> segments;
};

struct IndexRecord {
    std::string name;  // empty when it is no name of a file in its folder
    uint32_t channel, types;
    int64_t size, begin, end;
    bool recording;
    bool deleted() const { return types == 0; }
};
struct Index {
    bool exists = false;
    uint64_t size = 0;
    std::vector<IndexRecord> records;
};
constexpr uint64_t kIndexRecordSize = 312;
Index read_index(const fs::path &channel_folder);

// Day names are yyyymmdd, as on disk. The channel of "channel01" is 0; nothing for what is no channel folder.
bool is_day(const std::string &name);
std::optional<int> channel_of(const std::string &name);
bool is_record_name(const std::string &name);  // hhmmss.avi, hhmmss_1.avi

// The entries of a folder by name; empty for one that cannot be read.
std::vector<fs::directory_entry> entries_of(const fs::path &folder);

struct ChannelFolder {
    fs::path path;
    std::string day, device;
    int channel;
};

struct Filter {
    std::string device, day;
    int channel = -1;
    int type = 0;
    uint32_t mask() const { return type == 0 ? kAllTypes : 1U << (type - 1); }
};

// Throws a Failure for a path that is no store, or that cannot be read.
void require_store(const fs::path &root);
// In the order of day, device and channel. `stray` gets what has no place in the tree.
std::vector<ChannelFolder> channel_folders(const fs::path &root, const Filter &filter,
                                           const std::function<void(const fs::path &, const char *)> &stray = {});

struct Recording {
    fs::path path;
    std::string day, device;
    int channel;
    uint64_t size;
    bool unfinished;  // open, cut, or waiting for its index
    std::vector<Segment> segments;
    int64_t begin() const;
    int64_t end() const;
    uint32_t types() const;
};
fs::path side_path(const fs::path &record_file);
// The record files of a store that have something of the filter's type; `segments` holds what is of that type.
std::vector<Recording> recordings(const std::vector<std::string> &stores, const Filter &filter);

// Wall clock, ISO 8601.
int64_t parse_time(const std::string &text);  // throws a Failure
std::string iso_time(int64_t second);
std::string clock_time(int64_t second);  // hh:mm:ss
std::string iso_day(const std::string &day);
std::string day_of(int64_t second);  // yyyymmdd
std::string span_text(int64_t seconds);
std::string size_text(uint64_t bytes);
std::string type_text(uint32_t mask);  // "1,3"
std::vector<int> type_list(uint32_t mask);

// A line on a terminal that tells how far the work is; elsewhere nothing.
class Progress {
 public:
    explicit Progress(std::FILE *terminal = stderr);
    ~Progress();
    Progress(const Progress &) = delete;
    Progress &operator=(const Progress &) = delete;
    void show(const std::string &text) const;

 private:
    std::FILE *m_terminal;  // null when it is none
};

}  // namespace recvault_tool
