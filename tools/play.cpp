// recvault play: the pictures of channels as elementary streams, for a player to read.
#include <fmt/format.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <memory>

#include "command.h"
#include "range.h"

namespace recvault_tool {

namespace {

struct Options {
    RangeOptions range;
    std::vector<int> channels;
    std::string out;
};

struct Closer {
    void operator()(std::FILE *file) const {
        if (file != stdout) std::fclose(file);
    }
};

// A player was closed, which ends the playback and is no failure.
class ReaderLeft : public std::exception {};

class Stream {
 public:
    // Opening a pipe waits for its reader.
    explicit Stream(const std::string &name)
        : m_name(name.empty() ? "standard output" : name), m_file(name.empty() ? stdout : std::fopen(name.c_str(), "wbe")) {
        if (!m_file) throw Failure(fmt::format("{} cannot be written: {}", m_name, std::strerror(errno)));
    }

    void add(const StoredFrame &frame) {
        if (frame.head.chunk != kVideo) return;
        if (m_codec.value_or(frame.head.codec) != frame.head.codec)
            throw Failure(fmt::format("{}: the channel changes its codec at {}: play up to there, and from there", m_name,
                                      iso_time(frame.head.second)));
        m_codec = frame.head.codec;
        const std::string_view data = frame.data();
        if (std::fwrite(data.data(), 1, data.size(), m_file.get()) != data.size()) fail();
    }

    void finish() {
        if (std::fflush(m_file.get()) != 0) fail();
    }

 private:
    [[noreturn]] void fail() const {
        if (errno == EPIPE) throw ReaderLeft();
        throw Failure(fmt::format("{} cannot be written: {}", m_name, std::strerror(errno)));
    }

    std::string m_name;
    std::unique_ptr<std::FILE, Closer> m_file;
    std::optional<int8_t> m_codec;
};

// A channel, the frame that it goes on with, and where that goes.
struct Lane {
    ChannelReader reader;
    Stream stream;
    StoredFrame frame;
    bool goes_on = true;
    void advance() { goes_on = reader.next(&frame); }
    std::pair<uint32_t, uint32_t> time() const { return {frame.head.second, frame.head.microsecond}; }
};

std::string name_for(std::string pattern, int channel) {
    const size_t place = pattern.find("{}");
    return place == std::string::npos ? pattern : pattern.replace(place, 2, std::to_string(channel));
}

// Of all channels the earliest frame goes out first, so that a player that waits holds the others back.
void play(std::vector<Lane> *lanes) {
    for (Lane &lane : *lanes) lane.advance();
    for (;;) {
        Lane *earliest = nullptr;
        for (Lane &lane : *lanes) {
            if (lane.goes_on && (earliest == nullptr || lane.time() < earliest->time())) earliest = &lane;
        }
        if (earliest == nullptr) break;
        earliest->stream.add(earliest->frame);
        earliest->advance();
    }
    for (Lane &lane : *lanes) lane.stream.finish();
}

void run(const Options &options) {
    std::map<int, ChannelReader> readers = read_range(options.range);
    for (const int channel : options.channels) {
        if (!readers.contains(channel))
            throw Failure(fmt::format("channel {} has no recordings from {} to {}: ask recvault timeline for what is there",
                                      channel, options.range.from, options.range.to));
    }
    if (!options.channels.empty())
        std::erase_if(readers, [&](auto &reader) { return std::ranges::count(options.channels, reader.first) == 0; });
    if (readers.size() > 1 && options.out.find("{}") == std::string::npos)
        throw Failure("several channels go to several files or pipes: give --out with {} for the channel, as in cam{}.h264");
    if (options.out.empty() && isatty(STDOUT_FILENO) == 1)
        throw Failure("pictures do not go to a terminal: pipe them to a player, as in | ffplay -, or give --out");
    std::signal(SIGPIPE, SIG_IGN);
    std::vector<Lane> lanes;
    lanes.reserve(readers.size());
    for (auto &[channel, reader] : readers) lanes.push_back({std::move(reader), Stream(name_for(options.out, channel)), {}});
    try {
        play(&lanes);
    } catch (const ReaderLeft &) {
    }
}

}  // namespace

void add_play(CLI::App &app) {
    const auto options = std::make_shared<Options>();
    CLI::App *command = app.add_subcommand("play", "Write the pictures of channels for a player to read");
    command->footer(
        "One channel goes to standard output:\n"
        "  recvault play --store DIR --channel 0 --from T --to T | ffplay -\n"
        "It is the elementary stream as it was recorded: H.264 in Annex B, or JPEG pictures one behind the other. Several\n"
        "channels go in step, in the order of time, each into a file or pipe of its own.\n"
        "Times are local wall-clock times. The store is only read, and a recorder may be at work on it.");
    options->range.add_to(command);
    command->add_option("--channel", options->channels, "Channel, from 0; several times for several; else all")
        ->allow_extra_args(false)
        ->check(CLI::Range(0, 1023));
    command->add_option("--out", options->out, "File or pipe to write; {} in it stands for the channel");
    command->callback([options] { run(*options); });
}

}  // namespace recvault_tool
