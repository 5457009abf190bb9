#include "store.h"

#include <fmt/chrono.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <charconv>
#include <cstring>
#include <ctime>
#include <iomanip>
#include <sstream>

#include "failure.h"

namespace recvault_tool {

static_assert(std::endian::native == std::endian::little, "numbers are taken from disk as they stand");

const std::vector<HeadWord> kHeadWords = {
    {0, code("RIFF"), "RIFF head"},
    {8, code("AVI "), "RIFF head"},
    {12, code("LIST"), "header list"},
    {16, 77792, "header list"},
    {20, code("hdrl"), "header list"},
    {24, code("avih"), "main header"},
    {28, 56, "main header"},
    {88, code("LIST"), "video stream list"},
    {92, 116, "video stream list"},
    {96, code("strl"), "video stream list"},
    {100, code("strh"), "video stream header"},
    {104, 56, "video stream header"},
    {108, code("vids"), "video stream header"},
    {128, 1001000, "video stream header"},
    {164, code("strf"), "bitmap information"},
    {168, 40, "bitmap information"},
    {212, code("strn"), "segment and key-frame table"},
    {216, 74016, "segment and key-frame table"},
    {kStrn, code("mlek"), "segment and key-frame table"},
    {kStrn + 4, 1, "segment and key-frame table"},
    {74236, code("LIST"), "audio stream list"},
    {74240, 96, "audio stream list"},
    {74244, code("strl"), "audio stream list"},
    {74248, code("strh"), "audio stream header"},
    {74252, 56, "audio stream header"},
    {74256, code("auds"), "audio stream header"},
    {74312, code("strf"), "wave format"},
    {74316, 20, "wave format"},
    {74340, code("JUNK"), "padding of the head"},
    {74344, 3464, "padding of the head"},
    {77812, code("LIST"), "movi list"},
    {77820, code("movi"), "movi list"},
};

uint32_t word(const char *bytes, size_t offset) {
    uint32_t value = 0;
    std::memcpy(&value, bytes + offset, sizeof(value));
    return value;
}

int64_t long_word(const char *bytes, size_t offset) {
    int64_t value = 0;
    std::memcpy(&value, bytes + offset, sizeof(value));
    return value;
}

// ---- Files ----

Source::Source(const fs::path &path) {
    std::error_code error;
    if (!fs::is_regular_file(path, error)) return;  // a pipe of that name would hold the reader
    m_stream.open(path, std::ios::binary);
    if (!m_stream.is_open()) return;
    m_stream.seekg(0, std::ios::end);
    const std::streamoff end = m_stream.tellg();
    m_size = end > 0 ? static_cast<uint64_t>(end) : 0;
    m_position = m_size;
}

// A seek throws the stream's buffer away, so what stands near is reached by reading on.
size_t Source::read(uint64_t position, char *out, size_t size) {
    constexpr uint64_t kNear = 4096;
    m_stream.clear();
    if (position > m_position && position - m_position < kNear) {
        m_stream.ignore(static_cast<std::streamsize>(position - m_position));
    } else if (position != m_position) {
        m_stream.seekg(static_cast<std::streamoff>(position));
    }
    m_stream.read(out, static_cast<std::streamsize>(size));
    const auto count = static_cast<size_t>(std::max<std::streamsize>(m_stream.gcount(), 0));
    m_position = m_stream.good() ? position + count : UINT64_MAX;
    return count;
}

std::string Source::read(uint64_t position, size_t size) {
    std::string bytes(size, '\0');
    bytes.resize(read(position, bytes.data(), size));
    return bytes;
}

Tables read_tables(const std::string &head) {
    Tables tables;
    if (head.size() < kStrn + 74016) return tables;
    const char *bytes = head.data();
    tables.segment_count = word(bytes, kSegmentCount);
    tables.key_frame_count = word(bytes, kKeyFrameCount);
    for (uint32_t i = 0; i < std::min(tables.segment_count, kMaxSegments); ++i) {
        const size_t at = kStrn + 8 + i * 20;
        tables.segments.push_back({word(bytes, at), long_word(bytes, at + 4), long_word(bytes, at + 12)});
    }
    for (uint32_t i = 0; i < std::min(tables.key_frame_count, kMaxKeyFrames); ++i) {
        const size_t at = kKeyFrames + i * 20;
        tables.key_frames.push_back(
            {word(bytes, at), word(bytes, at + 4), word(bytes, at + 8), word(bytes, at + 12), word(bytes, at + 16)});
    }
    return tables;
}

// ---- Frame records ----

std::optional<Frame> parse_frame(uint64_t position, const char *bytes) {
    if (word(bytes, 0) != code("JUNK") || word(bytes, 4) != 48 || word(bytes, 8) != kFrameId) return std::nullopt;
    Frame frame{};
    frame.position = position;
    frame.type = word(bytes, 12);
    frame.second = word(bytes, 20);
    frame.microsecond = word(bytes, 24);
    frame.length = word(bytes, 28);
    std::memcpy(&frame.width, bytes + 32, sizeof(frame.width));
    std::memcpy(&frame.height, bytes + 34, sizeof(frame.height));
    frame.audio_codec = static_cast<uint8_t>(bytes[32]);
    frame.codec = static_cast<int8_t>(bytes[36]);
    frame.types = word(bytes, 44);
    frame.previous = word(bytes, 48);
    frame.file_position = word(bytes, 52);
    frame.chunk = word(bytes, 56);
    frame.chunk_size = word(bytes, 60);
    const bool known = frame.chunk == kVideo || frame.chunk == kAudio;
    const bool fits =
        frame.chunk_size % 2 == 0 && frame.chunk_size + kRecordHead <= kMaxRecord && frame.length <= frame.chunk_size;
    return known && fits ? std::optional(frame) : std::nullopt;
}

std::optional<Frame> frame_at(Source *file, uint64_t position, uint64_t end) {
    std::array<char, kRecordHead> bytes{};
    if (position + bytes.size() > end || file->read(position, bytes.data(), bytes.size()) != bytes.size())
        return std::nullopt;
    return parse_frame(position, bytes.data());
}

namespace {

bool index_at(Source *file, uint64_t position, uint64_t end) {
    std::array<char, 4> bytes{};
    return position + bytes.size() <= end && file->read(position, bytes.data(), bytes.size()) == bytes.size() &&
           word(bytes.data(), 0) == code("idx1");
}

// The first position from `from` on, below `to`, where a frame record begins; `to` when there is none. A record's head may
// reach beyond `to`, up to `end`.
uint64_t find_frame(Source *file, uint64_t from, uint64_t to, uint64_t end) {
    constexpr size_t kBlock = 1 << 18;
    static constexpr std::string_view kMark("JUNK\x30\0\0\0\0\0\x01\xAB", 12);
    while (from < to) {
        const std::string block = file->read(from, std::min<uint64_t>(kBlock + kRecordHead, end - from));
        for (size_t at = block.find(kMark); at != std::string::npos; at = block.find(kMark, at + 1)) {
            if (from + at >= to) return to;
            if (at + kRecordHead <= block.size() && parse_frame(from + at, block.data() + at)) return from + at;
        }
        if (block.size() < kBlock) break;
        from += kBlock;
    }
    return to;
}

}  // namespace

uint64_t walk_frames(Source *file, uint64_t begin, uint64_t end, const std::function<void(const Frame &)> &each,
                     const std::function<void(uint64_t, uint64_t)> &damage) {
    while (begin < end) {
        const std::optional<Frame> frame = frame_at(file, begin, end);
        uint64_t next = end;
        if (frame && frame->end() <= end) {
            next = frame->end();
            const bool trusted = next == end || frame_at(file, next, end) || index_at(file, next, end);
            const uint64_t inside = trusted ? next : find_frame(file, begin + kRecordHead, next, end);
            if (inside == next) {
                each(*frame);
            } else {
                damage(begin, inside);
                next = inside;
            }
        } else if (index_at(file, begin, end) && find_frame(file, begin, end, end) == end) {
            return begin;
        } else {
            next = find_frame(file, begin + 1, end, end);
            if (next == end) return begin;
            damage(begin, next);
        }
        begin = next;
    }
    return begin;
}

void SegmentBuilder::add(uint32_t types, uint32_t second) {
    constexpr int64_t kGap = 6;
    if (!segments.empty()) {
        Segment &last = segments.back();
        const int64_t step = int64_t{second} - last.end;
        const bool goes_on = step >= 0 && step < kGap && second - last.begin < kSegmentSpan;
        if ((goes_on && last.types == types) || segments.size() == kMaxSegments) {
            if (goes_on) last.end = second;
            return;
        }
    }
    segments.push_back({types, second, second});
}

// ---- Index ----

Index read_index(const fs::path &channel_folder) {
    Index index;
    Source file(channel_folder / "rec_index.bin");
    index.exists = file.is_open();
    index.size = file.size();
    std::array<char, kIndexRecordSize> bytes{};
    for (uint64_t at = 0; at + bytes.size() <= index.size && file.read(at, bytes.data(), bytes.size()) == bytes.size();
         at += bytes.size()) {
        IndexRecord record{};
        const size_t length = strnlen(bytes.data() + 8, 256);
        if (length < 256) record.name.assign(bytes.data() + 8, length);
        if (!is_record_name(record.name)) record.name.clear();
        record.channel = word(bytes.data(), 0);
        record.types = word(bytes.data(), 4);
        record.size = static_cast<int32_t>(word(bytes.data(), 264));
        record.begin = long_word(bytes.data(), 272);
        record.end = long_word(bytes.data(), 280);
        record.recording = word(bytes.data(), 292) != 0;
        index.records.push_back(record);
    }
    return index;
}

// ---- Names ----

namespace {

bool all_digits(std::string_view text) {
    return !text.empty() && std::all_of(text.begin(), text.end(), [](char c) { return c >= '0' && c <= '9'; });
}

int number(std::string_view digits) {
    int value = -1;
    std::from_chars(digits.data(), digits.data() + digits.size(), value);
    return value;
}

}  // namespace

bool is_day(const std::string &name) {
    return name.size() == 8 && all_digits(name) && name >= "19700101" && name <= "21000101";
}

std::optional<int> channel_of(const std::string &name) {
    if (!name.starts_with("channel")) return std::nullopt;
    const std::string_view digits = std::string_view(name).substr(7);
    if (!all_digits(digits) || digits.size() < 2 || digits.size() > 4) return std::nullopt;
    if (digits.size() > 2 && digits[0] == '0') return std::nullopt;
    const int channel = number(digits) - 1;
    return channel >= 0 && channel < 1024 ? std::optional(channel) : std::nullopt;
}

bool is_record_name(const std::string &name) {
    const std::string_view text(name);
    if (text.size() < 10 || !text.ends_with(".avi") || !all_digits(text.substr(0, 6))) return false;
    const std::string_view suffix = text.substr(6, text.size() - 10);
    return suffix.empty() || (suffix[0] == '_' && all_digits(suffix.substr(1)));
}

fs::path side_path(const fs::path &record_file) {
    fs::path path = record_file;
    path += "_idx";
    return path;
}

// ---- The tree ----

std::vector<fs::directory_entry> entries_of(const fs::path &folder) {
    std::vector<fs::directory_entry> entries;
    std::error_code error;
    for (fs::directory_iterator entry(folder, error), end; !error && entry != end; entry.increment(error))
        entries.push_back(*entry);
    std::sort(entries.begin(), entries.end());
    return entries;
}

void require_store(const fs::path &root) {
    std::error_code error;
    if (!fs::is_directory(root, error))
        throw Failure(fmt::format("{} is no folder: give the root of a partition, as in /srv/video", root.string()));
    if (!fs::is_directory(root / "avi_av", error))
        throw Failure(fmt::format("{} holds no recordings: give the folder that holds avi_av", root.string()));
    fs::directory_iterator probe(root / "avi_av", error);
    if (error)
        throw Failure(
            fmt::format("{}/avi_av cannot be read ({}): run this as a user who may", root.string(), error.message()));
}

std::vector<ChannelFolder> channel_folders(const fs::path &root, const Filter &filter,
                                           const std::function<void(const fs::path &, const char *)> &stray) {
    std::vector<ChannelFolder> folders;
    const auto report = [&stray](const fs::path &path, const char *what) {
        if (stray) stray(path, what);
    };
    std::error_code error;
    for (const auto &day : entries_of(root / "avi_av")) {
        const std::string day_name = day.path().filename().string();
        if (!is_day(day_name) || !day.is_directory(error)) {
            report(day.path(), "day");
            continue;
        }
        if (!filter.day.empty() && filter.day != day_name) continue;
        for (const auto &device : entries_of(day.path())) {
            const std::string device_name = device.path().filename().string();
            if (device_name.size() > 63 || !device.is_directory(error)) {
                report(device.path(), "device");
                continue;
            }
            if (!filter.device.empty() && filter.device != device_name) continue;
            for (const auto &entry : entries_of(device.path())) {
                const auto channel = channel_of(entry.path().filename().string());
                if (!channel || !entry.is_directory(error)) {
                    report(entry.path(), "channel");
                } else if (filter.channel < 0 || filter.channel == *channel) {
                    folders.push_back({entry.path(), day_name, device_name, *channel});
                }
            }
        }
    }
    std::stable_sort(folders.begin(), folders.end(), [](const ChannelFolder &a, const ChannelFolder &b) {
        return std::tie(a.day, a.device, a.channel) < std::tie(b.day, b.device, b.channel);
    });
    return folders;
}

// ---- Recordings ----

namespace {

// What the side file of an unfinished file tells. Frames that it names may not have reached the disk.
std::vector<Segment> segments_of_side_file(const fs::path &path) {
    constexpr size_t kRecord = 40;
    constexpr size_t kBlock = kRecord * 1000;
    SegmentBuilder builder;
    Source side(path);
    for (uint64_t at = 0; side.is_open(); at += kBlock) {
        const std::string bytes = side.read(at, kBlock);
        for (size_t i = 0; i + kRecord <= bytes.size(); i += kRecord) {
            if (word(bytes.data(), i) == kVideo) builder.add(word(bytes.data(), i + 24), word(bytes.data(), i + 28));
        }
        if (bytes.size() < kBlock) break;
    }
    return builder.segments;
}

std::vector<Segment> segments_of_frames(const fs::path &path) {
    SegmentBuilder builder;
    Source file(path);
    if (!file.is_open()) return {};
    walk_frames(
        &file, kHeadSize, file.size(),
        [&builder](const Frame &frame) {
            if (frame.chunk == kVideo) builder.add(frame.types, frame.second);
        },
        [](uint64_t, uint64_t) {});
    return builder.segments;
}

std::vector<Segment> segments_of_table(const fs::path &path) {
    Source file(path);
    if (!file.is_open()) return {};
    Tables tables = read_tables(file.read(0, kHeadSize));
    std::erase_if(tables.segments, [](const Segment &segment) { return !segment.valid() || segment.types == 0; });
    return tables.segments;
}

// In the order of what is quickest: the table of a finished file, the side file of another, the frames themselves.
std::vector<Segment> segments_of(const fs::path &path, bool unfinished) {
    std::vector<Segment> segments = segments_of_table(path);
    if (segments.empty() && unfinished) segments = segments_of_side_file(side_path(path));
    if (segments.empty()) segments = segments_of_frames(path);
    return segments;
}

}  // namespace

int64_t Recording::begin() const {
    return std::min_element(segments.begin(), segments.end(), [](auto &a, auto &b) { return a.begin < b.begin; })->begin;
}

int64_t Recording::end() const {
    return std::max_element(segments.begin(), segments.end(), [](auto &a, auto &b) { return a.end < b.end; })->end;
}

uint32_t Recording::types() const {
    uint32_t types = 0;
    for (const Segment &segment : segments) types |= segment.types;
    return types;
}

std::vector<Recording> recordings(const std::vector<std::string> &stores, const Filter &filter) {
    std::vector<Recording> found;
    const Progress progress;
    for (const std::string &store : stores) {
        require_store(store);
        for (const ChannelFolder &folder : channel_folders(store, filter)) {
            progress.show(folder.path.string());
            for (const auto &entry : entries_of(folder.path)) {
                std::error_code error;
                if (!is_record_name(entry.path().filename().string()) || !entry.is_regular_file(error)) continue;
                const bool unfinished = fs::exists(side_path(entry.path()), error);
                const uint64_t size = entry.file_size(error);
                if (error) continue;  // gone meanwhile
                Recording recording{entry.path(), folder.day, folder.device, folder.channel, size, unfinished, {}};
                recording.segments = segments_of(entry.path(), unfinished);
                std::erase_if(recording.segments, [&](const Segment &s) { return (s.types & filter.mask()) == 0; });
                if (!recording.segments.empty()) found.push_back(std::move(recording));
            }
        }
    }
    std::stable_sort(found.begin(), found.end(), [](const Recording &a, const Recording &b) {
        return std::tuple(a.day, a.device, a.channel, a.begin()) < std::tuple(b.day, b.device, b.channel, b.begin());
    });
    return found;
}

// ---- Text ----

namespace {

std::tm fields_of(int64_t second) {
    const std::time_t time = second;
    std::tm fields{};
    gmtime_r(&time, &fields);
    return fields;
}

}  // namespace

// std::get_time is lenient; what it took has to be written the way it was given.
int64_t parse_time(const std::string &text) {
    std::string iso = text;
    if (iso.size() > 10 && iso[10] == ' ') iso[10] = 'T';
    std::tm fields{};
    std::istringstream(iso) >> std::get_time(&fields, "%Y-%m-%dT%H:%M:%S");
    const int64_t second = timegm(&fields);
    if (iso_time(second) != iso) throw Failure(fmt::format("'{}' is no time: give it as in 2026-11-25T14:30:00", text));
    return second;
}

std::string iso_time(int64_t second) { return fmt::format("{:%Y-%m-%dT%H:%M:%S}", fields_of(second)); }
std::string clock_time(int64_t second) { return fmt::format("{:%H:%M:%S}", fields_of(second)); }
std::string day_of(int64_t second) { return fmt::format("{:%Y%m%d}", fields_of(second)); }
std::string iso_day(const std::string &day) {
    return fmt::format("{}-{}-{}", day.substr(0, 4), day.substr(4, 2), day.substr(6));
}
std::string span_text(int64_t seconds) {
    return fmt::format("{}:{:02}:{:02}", seconds / 3600, seconds / 60 % 60, seconds % 60);
}

std::string size_text(uint64_t bytes) {
    static constexpr std::array kUnits = {"B", "KiB", "MiB", "GiB", "TiB"};
    auto size = static_cast<double>(bytes);
    size_t unit = 0;
    for (; size >= 1024 && unit + 1 < kUnits.size(); ++unit) size /= 1024;
    return fmt::format("{:.{}f} {}", size, unit == 0 ? 0 : 1, kUnits[unit]);
}

std::vector<int> type_list(uint32_t mask) {
    std::vector<int> types;
    for (int type = 1; type <= 7; ++type) {
        if ((mask & 1U << (type - 1)) != 0) types.push_back(type);
    }
    return types;
}

std::string type_text(uint32_t mask) { return fmt::format("{}", fmt::join(type_list(mask), ",")); }

Progress::Progress(std::FILE *terminal) : m_terminal(isatty(fileno(terminal)) == 1 ? terminal : nullptr) {}

Progress::~Progress() { show(""); }

void Progress::show(const std::string &text) const {
    if (m_terminal == nullptr) return;
    fmt::print(m_terminal, "\r\x1b[K{}", text.substr(text.size() - std::min<size_t>(text.size(), 76)));
    std::fflush(m_terminal);
}

}  // namespace recvault_tool
