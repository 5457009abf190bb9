#include "check_file.h"

#include <fmt/format.h>

#include <algorithm>
#include <unordered_map>

namespace recvault_tool {

namespace {

constexpr const char *kRescue = "make a clean copy with: recvault rescue FILE --out DIR";

// One word of a head that has to have one of some values.
struct Word {
    size_t offset;
    const char *what;
};

class FileCheck {
 public:
    FileCheck(const fs::path &path, bool unfinished, bool in_store, Findings *findings)
        : m_path(path.string()), m_file(path), m_unfinished(unfinished), m_in_store(in_store), m_findings(findings) {}

    FileFacts run() {
        m_facts.size = m_file.size();
        if (!m_file.is_open()) {
            add("unreadable", "cannot be read", "run this as a user who may read it");
            return m_facts;
        }
        m_head = m_file.read(0, kHeadSize);
        if (m_head.size() < kHeadSize) {
            if (m_unfinished) return m_facts;  // just begun
            add("head-cut", fmt::format("ends within its head, after {} bytes of {}", m_head.size(), kHeadSize),
                "it holds no frame; delete it");
            return m_facts;
        }
        check_head_words();
        if (m_unfinished) {
            check_frames(m_file.size());
            return m_facts;
        }
        if (m_facts.size >= kMaxFile) add("too-large", "is 2 GiB or more, where its offsets end", kRescue);
        check_sizes();
        check_frames(m_facts.movi_end == 0 ? m_facts.size : m_facts.movi_end);
        check_index();
        check_streams();
        check_segments();
        check_key_frames();
        return m_facts;
    }

 private:
    void add(const char *defect, std::string text, const char *advice = kRescue) {
        m_findings->push_back({m_path, defect, std::move(text), advice});
    }
    uint32_t head(size_t offset) const { return word(m_head.data(), offset); }
    uint16_t head_half(size_t offset) const { return static_cast<uint16_t>(head(offset) & 0xFFFF); }

    void check_head_words() {
        const char *reported = "";
        for (const HeadWord &fixed : kHeadWords) {
            if (head(fixed.offset) == fixed.value || std::string_view(reported) == fixed.structure) continue;
            reported = fixed.structure;
            const char *defect = fixed.offset <= 8 ? "riff-head" : "head-structure";
            add(defect, fmt::format("has no valid {} at offset {}", fixed.structure, fixed.offset));
        }
    }

    void check_sizes() {
        const uint64_t movi_end = head(77816) + kMoviBase;
        if (head(77816) == 0) {
            add("not-closed", "was not closed, and has no side file to be mended from");
        } else if (movi_end < kHeadSize || movi_end > m_facts.size) {
            add("movi-size", fmt::format("says that its frames end at {}, but is {} bytes long", movi_end, m_facts.size));
        } else {
            m_facts.movi_end = movi_end;
        }
        if (head(77816) != 0 && head(4) + 8ULL != m_facts.size)
            add("riff-size", fmt::format("says that it is {} bytes long, but is {}", head(4) + 8ULL, m_facts.size));
    }

    // ---- Frames ----

    void check_frames(uint64_t end) {
        m_next = kHeadSize;
        const uint64_t walked = walk_frames(
            &m_file, kHeadSize, end, [this](const Frame &frame) { check_frame(frame); },
            [this](uint64_t from, uint64_t to) {
                add("garbage", fmt::format("has {} bytes at {} that are no frame record", to - from, from));
                m_next = 0;
            });
        if (walked != end && !m_unfinished && m_facts.movi_end != 0)
            add("frames-end", fmt::format("has {} bytes at {} that are no whole frame record", end - walked, walked));
    }

    void check_frame(const Frame &frame) {
        const bool first = m_frames.empty();
        const bool follows = frame.position == m_next;
        if (first) m_export = !m_in_store && frame.file_position == 0;
        const uint64_t position = m_export ? 0 : frame.position;
        if (frame.file_position != position)
            once("frame-position", frame, fmt::format("says that it stands at {}", frame.file_position));
        const uint32_t previous = first ? 0 : m_last_size + 128;
        if (follows && frame.previous != previous)
            once("frame-previous", frame,
                 fmt::format("gives {} for the record before it, not {}", frame.previous, previous));
        const uint32_t stored = frame.length + frame.length % 2;
        if (!frame.filler() && frame.chunk_size != stored)
            once("frame-size", frame, fmt::format("stores {} bytes for {}", frame.chunk_size, frame.length));
        if ((frame.type == 8) != (frame.chunk == kAudio))
            once("frame-type", frame, fmt::format("is of type {}, which does not fit its chunk", frame.type));
        if (frame.microsecond > 999999) once("frame-time", frame, fmt::format("has {} microseconds", frame.microsecond));
        if (m_in_store && (frame.types == 0 || frame.types > kAllTypes))
            once("frame-record-type", frame, fmt::format("has the record types {:#x}", frame.types));
        if (frame.chunk == kVideo) note_video(frame);
        if (frame.chunk == kAudio && !m_audio) m_audio = frame;
        m_by_position.emplace(static_cast<uint32_t>(frame.position), m_frames.size());
        m_frames.push_back(frame);
        m_last_size = frame.chunk_size;
        m_next = frame.end();
    }

    void note_video(const Frame &frame) {
        if (!m_video) m_video = frame;
        if (m_facts.first_second < 0) m_facts.first_second = m_min = m_max = frame.second;
        m_min = std::min<int64_t>(m_min, frame.second);
        m_max = std::max<int64_t>(m_max, frame.second);
    }

    // A fault of the writer would be in every frame: the first one speaks for all.
    void once(const char *defect, const Frame &frame, const std::string &text) {
        if (std::find(m_reported.begin(), m_reported.end(), defect) != m_reported.end()) return;
        m_reported.emplace_back(defect);
        add(defect, fmt::format("has a frame record at {} that {}", frame.position, text));
    }

    // ---- Index ----

    void check_index() {
        if (m_facts.movi_end == 0) return;
        const std::string chunk = m_file.read(m_facts.movi_end, 8);
        if (chunk.size() < 8 || word(chunk.data(), 0) != code("idx1")) {
            add("index-missing", fmt::format("has no index at {}, where its frames end", m_facts.movi_end));
            return;
        }
        const uint64_t bytes = word(chunk.data(), 4);
        if (m_facts.movi_end + 8 + bytes != m_facts.size || bytes % 16 != 0) {
            add("index-cut", fmt::format("has an index of {} bytes that does not end where the file does", bytes));
            return;
        }
        const std::string entries = m_file.read(m_facts.movi_end + 8, bytes);
        for (size_t at = 0; at + 16 <= entries.size(); at += 16) check_entry(entries.data() + at);
        m_has_index = true;
    }

    // A frame that no entry names is none of a sound file's faults: after a crash the side file knew less than was written.
    void check_entry(const char *entry) {
        const uint64_t position = word(entry, 8) + kIndexBase;
        const auto found = position > UINT32_MAX ? m_by_position.end() : m_by_position.find(static_cast<uint32_t>(position));
        ++(word(entry, 0) == kVideo ? m_video_entries : m_audio_entries);
        if (m_index_reported) return;
        std::string what;
        if (found == m_by_position.end()) {
            what = "where no frame record is";
        } else {
            const Frame &frame = m_frames[found->second];
            const uint32_t flags = frame.chunk == kVideo && frame.key() ? 16 : 0;
            const uint32_t length = word(entry, 12);
            const bool fits = length + length % 2 == frame.chunk_size && (frame.filler() || length == frame.length);
            if (word(entry, 0) != frame.chunk || word(entry, 4) != flags || !fits) what = "that tells another frame";
        }
        if (what.empty()) return;
        m_index_reported = true;
        add("index-entry", fmt::format("has an index entry for {} {}", position, what));
    }

    // ---- Head ----

    void check_streams() {
        if (m_has_index) {
            expect("video-count", {48, "video frames"}, m_video_entries);
            expect("video-count", {140, "frames of the video stream"}, m_video_entries);
            expect("audio-count", {74288, "frames of the audio stream"}, m_audio_entries);
            if (m_video_entries > 0) expect("stream-count", {56, "streams"}, m_audio_entries > 0 ? 2 : 1);
        }
        if (m_video) {
            const uint32_t codec = m_video->codec == 2 ? code("mjpg") : code("h264");
            if (head(112) != codec || head(188) != codec)
                add("video-codec", fmt::format("names another codec than its frames, which are {}",
                                               m_video->codec == 2 ? "Motion JPEG" : "H.264"));
            expect("picture-size", {176, "for the picture's width"}, m_video->width);
            expect("picture-size", {180, "for the picture's height"}, m_video->height);
        }
        const uint32_t usec = head(32);
        if (usec == 0 || head(132) == 0) add("frame-rate", "has a frame rate of 0");
        check_audio_format();
    }

    void expect(const char *defect, const Word &field, uint64_t value) {
        if (head(field.offset) == value) return;
        add(defect, fmt::format("says {} {}, its contents {}", head(field.offset), field.what, value));
    }

    void check_audio_format() {
        const bool g711 = m_audio && (m_audio->audio_codec == 1 || m_audio->audio_codec == 2);
        // Silence that was put in before the first sound was delivered cannot be; the first audio record tells.
        const bool as_g711 = head(74260) == code("g711") && head(74276) == 1 && head(74300) == 8000 &&
                             head_half(74320) == (m_audio && m_audio->audio_codec == 2 ? 7 : 6);
        const bool as_adpcm = head(74260) == 17 && head(74276) == 320 && head(74300) == 164 && head_half(74320) == 0x11;
        if (head(74280) != 8000 || !(g711 ? as_g711 : as_adpcm))
            add("audio-format", fmt::format("has an audio header that is not that of {}", g711 ? "G.711" : "IMA ADPCM"));
    }

    // ---- Tables ----

    void check_segments() {
        const Tables tables = read_tables(m_head);
        if (head(77816) == 0) return;
        if (tables.segment_count == 0 || tables.segment_count > kMaxSegments) {
            add("segment-count", fmt::format("says that it has {} segments", tables.segment_count));
            return;
        }
        m_facts.segments = tables.segments;
        for (const Segment &s : tables.segments) {
            if (!s.valid() || s.types == 0 || s.types > kAllTypes) {
                add("segment",
                    fmt::format("has a segment of record types {:#x} from second {} to {}", s.types, s.begin, s.end));
                return;
            }
            if (m_video && (s.begin < m_min || s.end > m_max)) {
                add("segment-time", fmt::format("has a segment from {} to {}, its frames are from {} to {}",
                                                iso_time(s.begin), iso_time(s.end), iso_time(m_min), iso_time(m_max)));
                return;
            }
        }
    }

    void check_key_frames() {
        const Tables tables = read_tables(m_head);
        if (head(77816) == 0) return;
        if (tables.key_frame_count > kMaxKeyFrames) {
            add("key-frame-count", fmt::format("says that it has {} key frames", tables.key_frame_count));
            return;
        }
        for (const KeyFrame &key : tables.key_frames) {
            const auto found = m_by_position.find(key.position);
            const Frame *frame = found == m_by_position.end() ? nullptr : &m_frames[found->second];
            if (frame != nullptr && frame->key() && frame->second == key.second && frame->microsecond == key.microsecond &&
                frame->types == key.types && key.length >= frame->length + 36 && key.length <= bytes_from(found->second))
                continue;
            add("key-frame",
                fmt::format("has an entry for a key frame at {} that does not tell what is there", key.position));
            return;
        }
    }

    // Of a key frame and all up to the next one. The table may say less: it is made from a side file that may know less.
    uint64_t bytes_from(size_t index) const {
        uint64_t sum = m_frames[index].length + 36;
        for (size_t i = index + 1; i < m_frames.size() && !(m_frames[i].chunk == kVideo && m_frames[i].key()); ++i)
            sum += m_frames[i].filler() ? 0 : m_frames[i].length + 36;
        return sum;
    }

    std::string m_path;
    Source m_file;
    bool m_unfinished;
    bool m_in_store;
    Findings *m_findings;
    FileFacts m_facts;
    std::string m_head;
    std::vector<Frame> m_frames;
    std::unordered_map<uint32_t, size_t> m_by_position;  // of frame records, in m_frames
    std::vector<std::string> m_reported;
    std::optional<Frame> m_video, m_audio;  // the first of each
    uint64_t m_next = 0;                    // where a record that follows the last one stands
    uint32_t m_last_size = 0;
    int64_t m_min = 0, m_max = 0;  // seconds of the video frames
    uint32_t m_video_entries = 0, m_audio_entries = 0;
    bool m_export = false, m_has_index = false, m_index_reported = false;
};

}  // namespace

FileFacts check_record_file(const fs::path &path, bool unfinished, bool in_store, Findings *findings) {
    return FileCheck(path, unfinished, in_store, findings).run();
}

}  // namespace recvault_tool
