// recvault export: a range of a channel as an AVI file of its own.
#include <fmt/format.h>
#include <recvault/recvault.h>

#include <chrono>
#include <cstring>
#include <memory>

#include "command.h"
#include "library.h"
#include "range.h"

namespace recvault_tool {

namespace {

using Clock = std::chrono::steady_clock;

constexpr uint64_t kLargestAvi = 2'000'000'000;  // a file holds less than 2 GiB, with its index
constexpr uint64_t kPicturesInHead = 48;         // where the head of an AVI file counts its pictures

struct Options {
    RangeOptions range;
    std::string out, log;
};

// The file that is made. It gets its name when it is complete, and is removed when it does not get there.
class Target {
 public:
    explicit Target(const std::string &name) : m_name(name), m_part(name + ".part") {
        for (const std::string &taken : {m_name, m_part}) {
            if (fs::exists(fs::symlink_status(taken)))
                throw Failure(fmt::format("{} exists already: remove it, or choose another name", taken));
        }
        if (const fs::path folder = fs::absolute(name).parent_path(); !fs::is_directory(folder))
            throw Failure(fmt::format("there is no folder {}: make it first", folder.string()));
        if (KELM_AviFile_Init(0) != KELM_AVIFILE_OK) throw Failure("the library cannot be started: --log FILE tells why");
        if (KELM_AviFile_SaveStart_ByName(&m_handle, m_part.c_str()) != KELM_AVIFILE_OK) {
            KELM_AviFile_UnInit(0);
            throw Failure(fmt::format("{} cannot be written: give a path of at most 250 characters", name));
        }
    }
    ~Target() {
        KELM_AviFile_UnInit(0);
        std::error_code ignored;
        fs::remove(m_part, ignored);
    }
    Target(const Target &) = delete;
    Target &operator=(const Target &) = delete;

    void add(const StoredFrame &frame) {
        if (frame.head.type != kAudioFrame) check_picture(frame.head);
        FrameHead head;
        std::memcpy(&head, frame.record.data() + 8, sizeof head);
        KELM_AviFile_SaveInput(m_handle, &head, sizeof head, frame.data().data(), frame.head.length);
    }

    void finish() {
        KELM_AviFile_SaveStop(m_handle);
        const std::string written = Source(m_part).read(kPicturesInHead, 4);
        if (m_pictures == 0) throw Failure("no pictures are left of the range: begin earlier, or end later");
        if (written.size() < 4 || word(written.data(), 0) != m_pictures)
            throw Failure(fmt::format("{} cannot be written: look for room and rights in its folder", m_name));
        leave_out_padding();
        fs::rename(m_part, m_name);
    }

    uint32_t pictures() const { return m_pictures; }
    uint32_t first_second() const { return m_first.second; }
    uint32_t last_second() const { return m_last_second; }

 private:
    void check_picture(const Frame &frame) {
        if (m_pictures++ == 0) m_first = frame;
        m_last_second = frame.second;
        if (frame.width != m_first.width || frame.height != m_first.height || frame.codec != m_first.codec)
            throw Failure(
                fmt::format("the channel's pictures change size or codec at {}: export up to there, and from there",
                            iso_time(frame.second)));
    }

    // A record counts the byte that fills up a frame of odd length as a part of it, and programs that copy pictures without
    // looking into them would pass it on. An export says what any AVI file says: the length of the frame alone.
    void leave_out_padding() const {
        Source frames(m_part);
        std::fstream file(m_part, std::ios::in | std::ios::out | std::ios::binary);
        const auto mend = [&file](const Frame &frame) {
            if (frame.length % 2 == 0) return;
            file.seekp(static_cast<std::streamoff>(frame.position + kRecordHead - sizeof frame.length));
            file.write(reinterpret_cast<const char *>(&frame.length), sizeof frame.length);
        };
        walk_frames(&frames, kHeadSize, frames.size(), mend, [](uint64_t, uint64_t) {});
        if (!file.flush()) throw Failure(fmt::format("{} cannot be written: look for room in its folder", m_name));
    }

    std::string m_name, m_part;
    uint32_t m_handle = 0;
    uint32_t m_pictures = 0;
    Frame m_first{};
    uint32_t m_last_second = 0;
};

class Bar {
 public:
    Bar(const Progress &progress, uint64_t expected) : m_progress(progress), m_expected(expected) {}

    void show(uint64_t done) {
        if (Clock::now() < m_next) return;
        m_next = Clock::now() + std::chrono::milliseconds(100);
        constexpr size_t kWidth = 30;
        const double share = std::min(1.0, static_cast<double>(done) / static_cast<double>(m_expected));
        const double took = std::chrono::duration<double>(Clock::now() - m_begin).count();
        const auto left = static_cast<int64_t>(share > 0 ? took / share - took : 0);
        m_progress.show(fmt::format("[{:<{}}] {:3.0f} %  {} of {}  {} left",
                                    std::string(static_cast<size_t>(share * kWidth), '#'), kWidth, share * 100,
                                    size_text(done), size_text(m_expected), span_text(left)));
    }

 private:
    const Progress &m_progress;
    const uint64_t m_expected;
    const Clock::time_point m_begin = Clock::now();
    Clock::time_point m_next = m_begin;
};

ChannelReader only_channel(const RangeOptions &range) {
    std::map<int, ChannelReader> readers = read_range(range);
    if (readers.size() > 1) {
        std::string channels;
        for (const auto &[channel, reader] : readers) channels += fmt::format(" {}", channel);
        throw Failure(fmt::format("several channels have recordings: choose one with --channel, of{}", channels));
    }
    return std::move(readers.begin()->second);
}

void run(const Options &options) {
    ChannelReader reader = only_channel(options.range);
    const uint64_t expected = reader.estimated_bytes();
    if (expected > kLargestAvi)
        throw Failure(
            fmt::format("the range holds {} and an AVI file at most 2 GiB: export it in pieces", size_text(expected)));
    catch_signals();
    const LogFile log(options.log);
    Target target(options.out);
    {
        const Progress progress(log.err());
        Bar bar(progress, expected);
        uint64_t done = 0;
        for (StoredFrame frame; reader.next(&frame); done += frame.record.size()) {
            if (stop_asked) throw Failure("stopped, no file was made");
            target.add(frame);
            bar.show(done);
        }
        target.finish();
    }
    fmt::print(log.out(), "{}: {} pictures from {} to {}, {}\n", options.out, target.pictures(),
               iso_time(target.first_second()), iso_time(target.last_second()), size_text(fs::file_size(options.out)));
}

}  // namespace

void add_export(CLI::App &app) {
    const auto options = std::make_shared<Options>();
    CLI::App *command = app.add_subcommand("export", "Make an AVI file of its own from a range of a channel");
    command->footer("Times are local wall-clock times. The store is only read, and a recorder may be at work on it.");
    options->range.add_to(command);
    command->add_option("--channel", options->range.filter.channel, "Channel, from 0, when there are several")
        ->check(CLI::Range(0, 1023));
    command->add_option("--log", options->log, "File that the log of the library is appended to");
    command->add_option("OUT", options->out, "AVI file to make; one that exists is refused")->required();
    command->callback([options] { run(*options); });
}

}  // namespace recvault_tool
