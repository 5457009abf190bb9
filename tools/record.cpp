// recvault record: each input becomes a channel of a device.
#include <fmt/format.h>
#include <recvault/recvault.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <chrono>
#include <memory>
#include <thread>

extern "C" {
#include <libavformat/avformat.h>
}

#include "channel_recorder.h"
#include "command.h"
#include "library.h"

namespace recvault_tool {

namespace {

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

struct Options {
    std::string store, device, log;
    std::vector<std::string> inputs, input_options;
    InputOptions input;
    RecordOptions record;
    uint32_t first_channel = 0;
    std::string begin;
    double space_gb = 0;
    uint32_t keep_hours = 0;
    bool no_recycling = false;
};

std::atomic<bool> store_is_full{false};

int32_t on_full(void * /*user*/) {
    store_is_full = true;
    return 0;
}

// The library with one partition and one device.
class Library {
 public:
    explicit Library(const Options &options) {
        if (KELM_AviFile_Init(0) != KELM_AVIFILE_OK) throw Failure("the library cannot be started: --log FILE tells why");
        try {
            add_partition(options);
            if (options.device.size() > 63 ||
                KELM_AviFile_CreateDevHandle(&m_device, options.device.c_str()) != KELM_AVIFILE_OK)
                throw Failure(fmt::format("'{}' cannot be a device: give a name of 1 to 63 characters without slashes",
                                          options.device));
        } catch (...) {
            KELM_AviFile_UnInit(0);
            throw;
        }
        KELM_AviFile_SetDiskGroupFullCallback(on_full, nullptr);
    }
    ~Library() { KELM_AviFile_UnInit(0); }
    Library(const Library &) = delete;
    Library &operator=(const Library &) = delete;

    int32_t device() const { return m_device; }
    const fs::path &root() const { return m_root; }

 private:
    void add_partition(const Options &options) {
        std::error_code error;
        fs::create_directories(options.store, error);
        m_root = fs::canonical(options.store, error);
        const fs::space_info space = error ? fs::space_info{} : fs::space(m_root, error);
        if (error) throw Failure(fmt::format("{} cannot be made a store: {}", options.store, error.message()));
        RecPartitionInfo partition{};
        if (m_root.string().size() >= sizeof partition.path)
            throw Failure(
                fmt::format("the path {} has more than 31 characters: mount the store at a shorter one", m_root.string()));
        m_root.string().copy(partition.path, sizeof partition.path - 1);
        partition.priority = 1;
        partition.disk_space = space.capacity;
        partition.rec_space = options.space_gb > 0 ? static_cast<uint64_t>(options.space_gb * 1e9) : space.capacity;
        partition.max_save_hour = options.no_recycling ? UINT32_MAX : options.keep_hours;
        if (KELM_AviFile_AddRecPartition(&partition) != KELM_AVIFILE_OK)
            throw Failure(fmt::format("{} cannot be used: end the recorder that has it, or see with --log FILE what it is",
                                      m_root.string()));
    }

    fs::path m_root;
    int32_t m_device = 0;
};

using Channels = std::vector<std::unique_ptr<ChannelRecorder>>;

// A line a channel: rewritten in place on a terminal while the recording runs, and written to standard output behind its
// end.
class Display {
 public:
    explicit Display(const LogFile &log) : m_log(log) {}

    void show(const Channels &channels) {
        if (isatty(fileno(m_log.err())) != 1 || Clock::now() < m_next) return;
        m_next = Clock::now() + milliseconds(500);
        go_back();
        for (const auto &channel : channels)
            fmt::print(m_log.err(), "{}\033[K\n", line_of(*channel, false).substr(0, columns()));
        std::fflush(m_log.err());
        m_lines = channels.size();
    }

    void show_end(const Channels &channels) {
        go_back();
        fmt::print(m_log.err(), "{}", m_lines > 0 ? "\033[J" : "");
        std::fflush(m_log.err());
        m_shown.clear();  // the last line is that of the whole recording
        for (const auto &channel : channels) fmt::print(m_log.out(), "{}\n", line_of(*channel, true));
    }

 private:
    void go_back() const {
        if (m_lines > 0) fmt::print(m_log.err(), "\033[{}A", m_lines);
    }

    // The rates are those of recorded time since the line before.
    std::string line_of(ChannelRecorder &channel, bool with_folder) {
        const Status now = channel.status();
        Status &before = m_shown[channel.number()];
        const bool first = before.end_usec == 0;
        const int64_t begin = first ? now.begin_usec : before.end_usec;
        const double seconds = static_cast<double>(now.end_usec - begin) / 1e6;
        if (seconds > 0) {
            // The first picture stands at the begin, so that its successors alone fill the time.
            auto &[fps, kbits] = m_rates[channel.number()];
            fps = static_cast<double>(now.pictures - before.pictures - (first ? 1 : 0)) / seconds;
            kbits = static_cast<double>(now.bytes - before.bytes) / seconds / 125;
            before = now;
        }
        const auto &[fps, kbits] = m_rates[channel.number()];
        return fmt::format("channel {} {:9} {}x{} {:.1f} fps {:.0f} kbit/s {} dropped {} {} pictures {} {}",
                           channel.number(), store_is_full ? "full" : now.state, now.width, now.height, fps, kbits,
                           now.dropped, with_folder ? now.file : fs::path(now.file).filename().string(), now.pictures,
                           now.codec, channel.input());
    }

    size_t columns() const {
        winsize size{};
        return ioctl(fileno(m_log.err()), TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col : 80;
    }

    const LogFile &m_log;
    Clock::time_point m_next;
    size_t m_lines = 0;
    std::map<uint32_t, Status> m_shown;
    std::map<uint32_t, std::pair<double, double>> m_rates;
};

void record_until_the_end(const Channels &channels, Display *display) {
    const auto runs = [](const auto &channel) { return !channel->status().done; };
    while (std::any_of(channels.begin(), channels.end(), runs)) {
        std::this_thread::sleep_for(milliseconds(50));
        display->show(channels);
        for (const auto &channel : channels) {
            if (stop_asked && runs(channel)) channel->interrupt();
        }
    }
}

void parse(Options *options) {
    if (!options->begin.empty()) options->record.begin = parse_time(options->begin) * 1'000'000;
    for (const std::string &option : options->input_options) {
        const size_t equals = option.find('=');
        if (equals == std::string::npos)
            throw Failure(fmt::format("'{}' is no option for libavformat: give it as in framerate=30", option));
        options->input.demuxer[option.substr(0, equals)] = option.substr(equals + 1);
    }
    if (options->first_channel + options->inputs.size() > KELM_AVIFILE_MAX_CHANNELS)
        throw Failure("there are 1024 channels and no more: give fewer inputs, or a lower --channel");
}

void run(Options *options) {
    parse(options);
    catch_signals();
    const LogFile log(options->log);
    avformat_network_init();
    std::optional<Library> library;  // outlives the channels
    Channels channels;
    for (const std::string &input : options->inputs) {
        const auto number = options->first_channel + static_cast<uint32_t>(channels.size());
        channels.push_back(std::make_unique<ChannelRecorder>(options->record, number, input, options->input));
    }
    library.emplace(*options);
    const int64_t now = wall_clock_usec();
    for (const auto &channel : channels) channel->start(library->root(), options->device, library->device(), now);
    Display display(log);
    record_until_the_end(channels, &display);
    for (const auto &channel : channels) channel->finish();
    display.show_end(channels);
    for (const auto &channel : channels) {
        if (const Status status = channel->status(); !status.failure.empty())
            throw Failure(fmt::format("channel {} ({}): {}", channel->number(), channel->input(), status.failure));
    }
}

}  // namespace

void add_record(CLI::App &app) {
    const auto options = std::make_shared<Options>();
    CLI::App *command = app.add_subcommand("record", "Record inputs, each into a channel of its own");
    command->footer(
        "An INPUT is a file, a pipe (- for standard input) or an address, as in rtsp://camera/stream: whatever libavformat\n"
        "opens. Recorded are H.264 (as Annex B), Motion JPEG, and G.711 beside them. Files are recorded as fast as the\n"
        "disk takes them, unless --wall-clock holds them to their pace. An address that goes away is opened again.\n"
        "SIGINT and SIGTERM end the recording with every file finished. Times are local wall-clock times.");
    command->add_option("--store", options->store, "Folder of the store, with at most 31 characters in its full path")
        ->required();
    command->add_option("--device", options->device, "Name of the device")->required();
    command->add_option("--type", options->record.type, "Record type, 1 to 7")
        ->check(CLI::Range(1, 7))
        ->capture_default_str();
    command->add_option("--channel", options->first_channel, "Channel of the first INPUT; the others follow")
        ->check(CLI::Range(0, KELM_AVIFILE_MAX_CHANNELS - 1))
        ->capture_default_str();
    command->add_flag("--wall-clock", options->record.wall_clock,
                      "Give each frame the time of its arrival; else times run with the input");
    command->add_option("--begin", options->begin, "Time of the first frame, as in 2026-11-25T14:30:00; else now");
    command->add_flag("!--no-sound", options->input.sound, "Leave sound out");
    command
        ->add_option("--reconnect", options->record.reconnect, "Seconds between attempts to reach an address again; 0: none")
        ->check(CLI::NonNegativeNumber)
        ->capture_default_str();
    command->add_option("--space", options->space_gb, "GB that the store may take; else the whole volume")
        ->check(CLI::PositiveNumber);
    command->add_option("--keep-hours", options->keep_hours, "Age at which files are deleted; 0: none")
        ->capture_default_str();
    command->add_flag("--no-recycling", options->no_recycling, "Delete nothing when the store is full: stop recording");
    command->add_option("-O,--input-option", options->input_options, "KEY=VALUE for libavformat, as in framerate=30")
        ->allow_extra_args(false);
    command->add_option("--log", options->log, "File that the log of the libraries is appended to");
    command->add_option("INPUT", options->inputs, "What to record")->required();
    command->callback([options] { run(options.get()); });
}

}  // namespace recvault_tool
