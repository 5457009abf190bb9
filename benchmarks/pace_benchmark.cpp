// What recording at the pace of real cameras costs: every channel 25 frames a second, spread over the 40 ms of a frame, for
// a minute of real time; beside libavformat's AVI muxer with the same frames at the same pace, and the feeding loop alone.
//
// Each contestant runs in a process of its own, one after the other. A frame that is missing from the files fails the run.
#include <CLI/CLI.hpp>
#include <cinttypes>

#include "muxer.h"

namespace {

using namespace bench;

struct Options {
    uint32_t channels = 64;
    uint32_t bytes = 20'000;
    uint32_t seconds = 60;
    std::string folder = "/dev/shm";
    bool json = false;
};

struct Result {
    Usage feed;             // from the first frame to the last
    double close_cpu = 0;   // seconds, for finishing the files
    uint64_t resident = 0;  // bytes by which the process grew for the channels
    uint64_t lost = 0;      // frames
    double late_ms = 0;     // the latest that a frame was delivered
};

// Takes frames and does nothing, to show what the pacing costs.
class Nothing {
 public:
    Nothing(const std::string & /*folder*/, const Frames & /*frames*/) {}
    void start() {}
    void deliver(uint32_t channel, bool key) { m_last = channel + (key ? 1 : 0); }
    void stop() {}
    uint64_t lost() const { return 0; }

 private:
    volatile uint32_t m_last = 0;
};

// Looks once a millisecond which frames are due. Gives the largest delay of a frame in milliseconds.
template <typename Sink>
double feed(Sink &sink, uint32_t channels, uint32_t seconds) {
    const auto begin = Clock::now();
    const uint64_t frames = uint64_t{channels} * kFps * seconds;
    const auto due_time = [&](uint64_t number) { return begin + kPeriod * static_cast<int64_t>(number) / channels; };
    double latest = 0;
    uint64_t frame = 0;
    for (auto tick = begin; frame < frames; tick += std::chrono::milliseconds(1)) {
        std::this_thread::sleep_until(tick);
        for (auto now = Clock::now(); frame < frames && due_time(frame) <= now; ++frame, now = Clock::now()) {
            latest = std::max(latest, Seconds(now - due_time(frame)).count() * 1e3);
            const auto channel = static_cast<uint32_t>(frame % channels);
            const uint64_t number = frame / channels;
            sink.deliver(channel, number == 0 || (number + channel) % kFps == 0);
        }
    }
    std::this_thread::sleep_until(begin + std::chrono::seconds(seconds));
    return latest;
}

template <typename Sink>
Result run(const Options &options) {
    const TempFolder folder(options.folder);
    const Frames frames(options.channels, options.bytes);
    Sink sink(folder.path(), frames);
    Result result;
    const uint64_t resident_before = resident_bytes();
    sink.start();
    const Usage before = usage_now();
    result.late_ms = feed(sink, options.channels, options.seconds);
    const Usage after = usage_now();
    result.feed = after - before;
    result.resident = std::max(resident_bytes(), resident_before) - resident_before;
    sink.stop();
    result.close_cpu = usage_now().cpu - after.cpu;
    result.lost = sink.lost();
    return result;
}

// The figures of one line of the output.
struct Row {
    double percent, ratio, writes, kib;

    Row(const Options &options, const Result &result, double muxer_cpu)
        : percent(100 * cpu_share(result)),
          ratio(cpu_share(result) / muxer_cpu),
          writes(static_cast<double>(result.feed.writes) / result.feed.wall),
          kib(static_cast<double>(result.resident) / 1024 / options.channels) {}

    static double cpu_share(const Result &result) { return result.feed.cpu / result.feed.wall; }
};

void print_text(const char *name, const Row &row, const Result &result) {
    std::printf("%-14s %9.2f %% %8.2f %10.1f %12.1f %6" PRIu64 " %8.1f %12.3f\n", name, row.percent, row.ratio, row.writes,
                row.kib, result.lost, result.late_ms, result.close_cpu);
}

void print_json(const Options &options, const char *name, const Row &row, const Result &result) {
    std::printf(
        "{\"channels\": %u, \"bytes\": %u, \"seconds\": %u, \"name\": \"%s\", \"cpu_percent\": %.3f, "
        "\"ratio\": %.3f, \"writes_per_second\": %.1f, \"kib_per_channel\": %.1f, \"late_ms\": %.1f, "
        "\"close_cpu_seconds\": %.3f, \"lost\": %" PRIu64 "}\n",
        options.channels, options.bytes, options.seconds, name, row.percent, row.ratio, row.writes, row.kib, result.late_ms,
        result.close_cpu, result.lost);
}

void print_row(const Options &options, const char *name, const Result &result, double muxer_cpu) {
    const Row row(options, result, muxer_cpu);
    if (options.json) {
        print_json(options, name, row, result);
    } else {
        print_text(name, row, result);
    }
}

void print(const Options &options, const Result &nothing, const Result &recorder, const Result &muxer) {
    const double muxer_cpu = Row::cpu_share(muxer);
    if (!options.json) {
        std::printf("%u channels, %u frames a second of %u bytes, %u s\n", options.channels, kFps, options.bytes,
                    options.seconds);
        std::printf("%-14s %11s %8s %10s %12s %6s %8s %12s\n", "", "of a core", "ratio", "writes/s", "KiB/channel", "lost",
                    "late ms", "close CPU s");
    }
    print_row(options, "recvault", recorder, muxer_cpu);
    print_row(options, "libavformat", muxer, muxer_cpu);
    print_row(options, "feeding alone", nothing, muxer_cpu);
}

int compare(const Options &options) {
    const uint64_t frames = uint64_t{kFps} * options.seconds;
    require_one_file(frames, options.bytes);
    require_room(options.folder, frames * record_bytes(options.bytes) * options.channels + kSpareRoom);
    const Result nothing = run_apart([&] { return run<Nothing>(options); });
    const Result recorder = run_apart([&] { return run<Recorder>(options); });
    const Result muxer = run_apart([&] { return run<Muxers>(options); });
    print(options, nothing, recorder, muxer);
    if (recorder.lost + muxer.lost > 0) {
        std::fprintf(stderr, "frames were lost\n");
        return 1;
    }
    return 0;
}

}  // namespace

int main(int argc, char **argv) {
    Options options;
    CLI::App app("Processor time, memory and writes of recording at the pace of real cameras");
    app.add_option("--channels", options.channels, "Channels")->check(CLI::Range(1, 1024))->capture_default_str();
    app.add_option("--bytes", options.bytes, "Bytes of a frame")->check(CLI::Range(16, 500'000))->capture_default_str();
    app.add_option("--seconds", options.seconds, "Seconds of real time for each contestant")->capture_default_str();
    app.add_option("--folder", options.folder, "Where the files are written")->capture_default_str();
    app.add_flag("--json", options.json, "Print one JSON object a line");
    CLI11_PARSE(app, argc, argv);
    try {
        return compare(options);
    } catch (const std::exception &failure) {
        std::fprintf(stderr, "%s\n", failure.what());
        return 1;
    }
}
