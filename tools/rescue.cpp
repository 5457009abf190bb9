// recvault rescue: a complete AVI file out of a record file that has lost its side file, its head or its index. Nothing but
// the frame records is believed. They are copied one by one, with the positions that they have in the copy; tables, counts
// and index are made from them. The source is only ever read.
#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>

#include "command.h"
#include "store.h"

namespace recvault_tool {

namespace {

constexpr uint64_t kMaxMoviEnd = 0x7C000000;  // leaves room for the index below 2 GiB

void put(std::string *bytes, size_t offset, uint32_t value) { std::memcpy(bytes->data() + offset, &value, sizeof(value)); }
void put_half(std::string *bytes, size_t offset, uint32_t value) { std::memcpy(bytes->data() + offset, &value, 2); }

std::string words(std::initializer_list<uint32_t> values) {
    std::string bytes;
    for (const uint32_t value : values) bytes.append(reinterpret_cast<const char *>(&value), sizeof(value));
    return bytes;
}

// A file that is there under its name only when it is complete.
class Result {
 public:
    explicit Result(fs::path path) : m_path(std::move(path)), m_part(m_path.string() + ".part") {
        m_file = std::fopen(m_part.c_str(), "wbx");
        if (m_file == nullptr)
            throw Failure(m_part.string() + " cannot be made: give --out a folder that is yours, without such a file");
    }
    ~Result() {
        std::error_code ignored;
        if (m_file == nullptr) return;
        std::fclose(m_file);
        fs::remove(m_part, ignored);
    }
    Result(const Result &) = delete;
    Result &operator=(const Result &) = delete;
    void append(const std::string &bytes) {
        if (std::fwrite(bytes.data(), 1, bytes.size(), m_file) != bytes.size()) fail();
    }
    void finish(const std::string &head) {
        if (std::fseek(m_file, 0, SEEK_SET) != 0) fail();
        append(head);
        if (std::fflush(m_file) != 0) fail();
        std::fclose(m_file);
        m_file = nullptr;
        fs::rename(m_part, m_path);
    }

 private:
    void fail() const {
        throw Failure(m_part.string() + " cannot be written: make room on the disk of --out and try again");
    }

    fs::path m_path, m_part;
    std::FILE *m_file;
};

// The contents of the new file, frame by frame.
class Copy {
 public:
    Copy(Source *source, Result *result) : m_source(source), m_result(result) {
        m_result->append(std::string(kHeadSize, '\0'));
    }

    void add(const Frame &frame) {
        std::string record = m_source->read(frame.position, kRecordHead + frame.chunk_size);
        if (record.size() != kRecordHead + frame.chunk_size) return;  // the file was cut meanwhile
        if (m_end + record.size() > kMaxMoviEnd)
            throw Failure("holds more frames than an AVI file: cut it in two, as with split -b 1G, and rescue both");
        put(&record, 48, m_previous);
        put(&record, 52, static_cast<uint32_t>(m_end));
        m_result->append(record);
        // A filler frame's length is that of its silence.
        const uint32_t length = frame.filler() ? frame.chunk_size : frame.length;
        const bool key = frame.chunk == kVideo && frame.key();
        m_index += words({frame.chunk, key ? 16U : 0U, static_cast<uint32_t>(m_end - kIndexBase), length});
        count(frame, key);
        m_previous = frame.chunk_size + 128;
        m_end += record.size();
    }

    void finish() {
        m_result->append(words({code("idx1"), static_cast<uint32_t>(m_index.size())}) + m_index);
        m_result->finish(make_head());
    }

    uint32_t video() const { return m_video; }
    uint32_t audio() const { return m_audio; }
    const std::vector<Segment> &segments() const { return m_segments.segments; }

 private:
    void count(const Frame &frame, bool key) {
        if (key && m_key_frames.size() < kMaxKeyFrames) {
            m_key_frames.push_back({static_cast<uint32_t>(m_end), 0, frame.types, frame.second, frame.microsecond});
            m_counted_key = true;
        } else if (key) {
            m_counted_key = false;
        }
        if (m_counted_key) m_key_frames.back().length += frame.filler() ? 0 : frame.length + 36;
        if (frame.chunk == kAudio) {
            if (m_audio++ == 0) m_first_audio = frame;
            return;
        }
        if (m_video++ == 0) m_first_video = frame;
        m_segments.add(frame.types == 0 ? 1 : frame.types, frame.second);
        add_duration(frame);
    }

    // The recorded time, without gaps.
    void add_duration(const Frame &frame) {
        constexpr int64_t kUsual = 40000;
        constexpr int64_t kLongest = 2000000;
        const int64_t time = int64_t{frame.second} * 1000000 + frame.microsecond;
        const int64_t step = time - m_last_time;
        m_recorded += m_video == 1 || step < 0 || step > kLongest ? kUsual : step;
        m_last_time = time;
    }

    std::string make_head() const {
        std::string head(kHeadSize, '\0');
        for (const HeadWord &fixed : kHeadWords) put(&head, fixed.offset, fixed.value);
        put(&head, 4, static_cast<uint32_t>(m_end + m_index.size()));  // 8 more for the index chunk, 8 less for this one
        put(&head, 77816, static_cast<uint32_t>(m_end - kMoviBase));
        put_main(&head);
        put_video(&head);
        put_audio(&head);
        put_tables(&head);
        return head;
    }

    void put_main(std::string *head) const {
        put(head, 36, 0x200000);
        put(head, 44, 0x10010);  // has an index, was captured
        put(head, 48, m_video);
        put(head, 56, m_audio > 0 ? 2 : 1);
        put(head, 60, picture_bytes());
        put(head, 64, m_first_video.width);
        put(head, 68, m_first_video.height);
    }

    void put_video(std::string *head) const {
        const uint32_t codec = m_first_video.codec == 2 ? code("mjpg") : code("h264");
        const int64_t average = m_video > 0 ? m_recorded / m_video : 0;
        const uint32_t usec = average >= 15000 && average <= 2000000 ? static_cast<uint32_t>(average) : 40000;
        put(head, 32, usec);
        put(head, 112, codec);
        put(head, 132, static_cast<uint32_t>(10000000000 / usec * 1001000 / 10000));
        put(head, 140, m_video);
        put(head, 144, picture_bytes());
        put(head, 148, 0xFFFFFFFF);
        put_half(head, 160, m_first_video.width);
        put_half(head, 162, m_first_video.height);
        put(head, 172, 40);
        put(head, 176, m_first_video.width);
        put(head, 180, m_first_video.height);
        put_half(head, 184, 1);
        put_half(head, 186, 24);
        put(head, 188, codec);
        put(head, 192, (m_first_video.width * 24U + 31) / 32 * 4 * m_first_video.height);
    }

    void put_audio(std::string *head) const {
        const bool g711 = m_first_audio.audio_codec == 1 || m_first_audio.audio_codec == 2;
        const uint32_t tag = !g711 ? 0x11 : m_first_audio.audio_codec == 1 ? 6 : 7;
        put(head, 74260, g711 ? code("g711") : 17);
        put(head, 74276, g711 ? 1 : 320);
        put(head, 74280, 8000);
        put(head, 74288, m_audio);
        put(head, 74292, g711 ? 0x8000 : 0);
        put(head, 74296, g711 ? 0 : 0xFFFFFFFF);
        put(head, 74300, g711 ? 8000 : 164);
        put_half(head, 74320, tag);
        put_half(head, 74322, 1);
        put(head, 74324, 8000);
        put(head, 74328, g711 ? 8000 : 4000);
        put_half(head, 74332, g711 ? 1 : 164);
        put_half(head, 74334, g711 ? 8 : 4);
        put_half(head, 74336, 16);
    }

    void put_tables(std::string *head) const {
        size_t at = kStrn + 8;
        for (const Segment &s : m_segments.segments) {
            put(head, at, s.types);
            put(head, at + 4, static_cast<uint32_t>(s.begin));
            put(head, at + 12, static_cast<uint32_t>(s.end));
            at += 20;
        }
        put(head, kSegmentCount, static_cast<uint32_t>(m_segments.segments.size()));
        at = kKeyFrames;
        for (const KeyFrame &key : m_key_frames) {
            head->replace(at, 20, words({key.position, key.length, key.types, key.second, key.microsecond}));
            at += 20;
        }
        put(head, kKeyFrameCount, static_cast<uint32_t>(m_key_frames.size()));
    }

    uint32_t picture_bytes() const { return uint32_t{m_first_video.width} * m_first_video.height * 3; }

    Source *m_source;
    Result *m_result;
    uint64_t m_end = kHeadSize;
    uint32_t m_previous = 0;
    uint32_t m_video = 0, m_audio = 0;
    Frame m_first_video{}, m_first_audio{};
    SegmentBuilder m_segments;
    std::vector<KeyFrame> m_key_frames;
    bool m_counted_key = false;
    std::string m_index;
    int64_t m_recorded = 0, m_last_time = 0;  // microseconds
};

// A name that neither the folder nor the results so far have: channels often have files of the same second.
fs::path free_name(const fs::path &folder, const fs::path &source) {
    std::error_code error;
    fs::path path = folder / source.filename();
    for (int i = 1; fs::exists(path, error); ++i)
        path = folder / fmt::format("{}_{}{}", source.stem().string(), i, source.extension().string());
    return path;
}

void rescue(const fs::path &path, const fs::path &folder, const Progress &progress) {
    Source source(path);
    if (!source.is_open()) throw Failure("cannot be read: give a record file that this user may read");
    const fs::path target = free_name(folder, path);
    Result result(target);
    Copy copy(&source, &result);
    uint64_t damaged = 0;
    const auto each = [&](const Frame &frame) {
        if ((copy.video() + copy.audio()) % 1000 == 0)
            progress.show(fmt::format("{} {} %", path.filename().string(), frame.position * 100 / source.size()));
        copy.add(frame);
    };
    const auto damage = [&damaged](uint64_t from, uint64_t to) { damaged += from < kHeadSize ? 0 : to - from; };
    // Without its head the frames stand anywhere.
    const bool headless = !frame_at(&source, kHeadSize, source.size());
    walk_frames(&source, headless ? 0 : kHeadSize, source.size(), each, damage);
    if (copy.video() + copy.audio() == 0)
        throw Failure("holds no whole frame: nothing of it can be played, look for another copy");
    copy.finish();
    progress.show("");
    fmt::print("{}: {} video and {} audio frames", path.string(), copy.video(), copy.audio());
    if (!copy.segments().empty())
        fmt::print(", {} to {}", iso_time(copy.segments().front().begin), iso_time(copy.segments().back().end));
    fmt::print(", to {}{}\n", target.string(),
               damaged > 0 ? fmt::format("; {} damaged bytes between frames were left out", damaged) : "");
}

// A record file without a record would be deleted or entered by the next recorder.
void prepare_folder(const fs::path &folder) {
    std::error_code error;
    fs::create_directories(folder, error);
    const fs::path real = fs::canonical(folder, error);
    if (error) throw Failure(folder.string() + " cannot be made: give --out a folder that this user may write");
    for (const fs::path &part : real) {
        if (part == "avi_av") throw Failure(folder.string() + " lies within a store: give --out a folder elsewhere");
    }
}

}  // namespace

void add_rescue(CLI::App &app) {
    CLI::App *command = app.add_subcommand(
        "rescue", "Make complete AVI files out of damaged record files, from their frames alone. The files are only read");
    const auto files = std::make_shared<std::vector<std::string>>();
    const auto folder = std::make_shared<std::string>();
    command->add_option("FILE", *files, "Damaged record files")->required();
    command->add_option("--out", *folder, "Folder for the results; nothing in it is written over")->required();
    command->callback([files, folder] {
        prepare_folder(*folder);
        const Progress progress;
        bool failed = false;
        for (const std::string &file : *files) {
            try {
                rescue(file, *folder, progress);
            } catch (const Failure &failure) {
                progress.show("");
                fmt::print(stderr, "recvault: {}: {}\n", file, failure.what());
                failed = true;
            }
        }
        if (failed) throw CLI::RuntimeError(1);
    });
}

}  // namespace recvault_tool
