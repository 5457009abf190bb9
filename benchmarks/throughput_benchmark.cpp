// Processor time for a gigabyte of frames, handed in as fast as nothing is lost; beside libavformat's AVI muxer with the
// same frames, and plain write(2) of 64 KiB blocks, which is the least that bytes on a disk can cost.
//
// A run reaches from the start of the recordings to the last finished file. Each contestant runs in a process of its own,
// and they take turns; the table shows medians. A frame that is missing from the files fails the run.
#include <CLI/CLI.hpp>
#include <ctime>
#include <map>
#include <utility>

#include "muxer.h"

namespace {

using namespace bench;

// A channel is fed while it has less than this under way: its ring then takes one more frame of any size allowed here.
constexpr uint64_t kMaxUnderWay = 700U << 10U;
// The ring of index records has 500 slots, and what one pass of the writer took from the other ring may still be in it.
constexpr uint64_t kMaxRecordsUnderWay = 200;
constexpr uint64_t kWriteBlock = 64U << 10U;

struct Options {
    uint32_t channels = 16;
    uint32_t bytes = 20'000;
    double gigabytes = 2;
    uint32_t repeat = 5;
    std::string folder = "/dev/shm";
    bool json = false;

    uint32_t frames() const { return static_cast<uint32_t>(gigabytes * 1e9 / channels / bytes); }
};

struct Result {
    double cpu = 0;      // seconds for a gigabyte
    double waiting = 0;  // seconds for a gigabyte that the feeding spent looking at file sizes, not in cpu
    double rate = 0;     // megabytes a second while feeding
};

double thread_seconds() {
    timespec time{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) / 1e9;
}

// A Recorder that lets its caller wait before a ring fills. It looks at a file only when what it saw last leaves no room.
class PatientRecorder {
 public:
    PatientRecorder(const std::string &folder, const Frames &frames)
        : m_recorder(folder, frames),
          m_record(record_bytes(frames.bytes())),
          m_limit(std::max(std::min(kMaxUnderWay, kMaxRecordsUnderWay * m_record), kSmallestBlock + m_record)),
          m_under_way(frames.channels()) {}

    void start() { m_recorder.start(); }
    void deliver(uint32_t channel, bool key) {
        if (m_under_way[channel] >= m_limit) {
            make_room(channel);
        }
        m_recorder.deliver(channel, key);
        m_under_way[channel] += m_record;
    }
    void stop() { m_recorder.stop(); }
    uint64_t lost() const { return m_recorder.lost(); }
    double waiting() const { return m_waiting; }

 private:
    void make_room(uint32_t channel) {
        const double begin = thread_seconds();
        m_recorder.wait_until_below(channel, m_limit / 2 + kSmallestBlock, std::chrono::microseconds(200));
        m_under_way[channel] = m_recorder.under_way(channel);
        m_waiting += thread_seconds() - begin;
    }

    Recorder m_recorder;
    uint64_t m_record, m_limit;
    std::vector<uint64_t> m_under_way;  // at most
    double m_waiting = 0;
};

// As many bytes, gathered beforehand.
class PlainFiles {
 public:
    PlainFiles(std::string folder, const Frames &frames)
        : m_folder(std::move(folder)), m_frames(frames), m_block(kWriteBlock), m_owed(frames.channels()) {
        std::copy_n(frames.of(0), std::min<uint64_t>(frames.bytes(), kWriteBlock), m_block.begin());
    }

    void start() {
        for (uint32_t channel = 0; channel < m_frames.channels(); ++channel) {
            m_files.emplace_back(m_folder + "/" + std::to_string(channel), O_WRONLY | O_CREAT | O_TRUNC);
        }
    }
    void deliver(uint32_t channel, bool /*key*/) {
        m_owed[channel] += m_frames.bytes();
        for (; m_owed[channel] >= kWriteBlock; m_owed[channel] -= kWriteBlock) {
            write_bytes(channel, kWriteBlock);
        }
    }
    void stop() {
        for (uint32_t channel = 0; channel < m_frames.channels(); ++channel) {
            write_bytes(channel, m_owed[channel]);
        }
    }
    uint64_t lost() const { return 0; }  // a write that falls short throws

 private:
    void write_bytes(uint32_t channel, uint64_t bytes) {
        if (write(m_files[channel].fd(), m_block.data(), bytes) != static_cast<ssize_t>(bytes)) {
            throw_errno("write");
        }
    }

    std::string m_folder;
    const Frames &m_frames;
    std::vector<uint8_t> m_block;
    std::vector<uint64_t> m_owed;
    std::vector<File> m_files;
};

template <typename Sink>
void feed(Sink &sink, const Options &options) {
    for (uint32_t number = 0; number < options.frames(); ++number) {
        for (uint32_t channel = 0; channel < options.channels; ++channel) {
            sink.deliver(channel, number % kFps == 0);
        }
    }
}

// Seconds that a contestant waited, if it does.
template <typename Sink>
double waiting_of(const Sink &sink) {
    if constexpr (requires { sink.waiting(); }) {
        return sink.waiting();
    } else {
        return 0;
    }
}

template <typename Sink>
Result run(const Options &options) {
    const TempFolder folder(options.folder);
    const Frames frames(options.channels, options.bytes);
    Sink sink(folder.path(), frames);
    const Usage before = usage_now();
    sink.start();
    feed(sink, options);
    const Usage fed = usage_now() - before;
    sink.stop();
    const Usage whole = usage_now() - before;
    if (const uint64_t lost = sink.lost(); lost > 0) {
        throw std::runtime_error(std::to_string(lost) + " frames were lost");
    }
    const double gigabytes = 1e-9 * options.frames() * options.channels * options.bytes;
    const double waiting = waiting_of(sink);
    return {.cpu = (whole.cpu - waiting) / gigabytes, .waiting = waiting / gigabytes, .rate = gigabytes * 1e3 / fed.wall};
}

double median(const std::vector<Result> &results, double Result::*field) {
    std::vector<double> values(results.size());
    std::ranges::transform(results, values.begin(), [field](const Result &result) { return result.*field; });
    std::nth_element(values.begin(), values.begin() + static_cast<ptrdiff_t>(values.size() / 2), values.end());
    return values[values.size() / 2];
}

using Results = std::map<std::string, std::vector<Result>>;
constexpr std::array<const char *, 3> kNames{"recvault", "libavformat", "write(2)"};

void print_text(const Options &options, const Results &results, double muxer_cpu) {
    std::printf("%u channels, %.2f GB in frames of %u bytes, median of %u runs\n", options.channels, options.gigabytes,
                options.bytes, options.repeat);
    std::printf("%-14s %10s %8s %14s %8s\n", "", "CPU s/GB", "ratio", "waiting s/GB", "MB/s");
    for (const char *name : kNames) {
        const std::vector<Result> &runs = results.at(name);
        const double cpu = median(runs, &Result::cpu);
        std::printf("%-14s %10.3f %8.2f %14.3f %8.0f\n", name, cpu, cpu / muxer_cpu, median(runs, &Result::waiting),
                    median(runs, &Result::rate));
    }
}

void print_json(const Options &options, const Results &results, double muxer_cpu) {
    for (const char *name : kNames) {
        const std::vector<Result> &runs = results.at(name);
        const double cpu = median(runs, &Result::cpu);
        std::printf(
            "{\"channels\": %u, \"bytes\": %u, \"gigabytes\": %.2f, \"name\": \"%s\", "
            "\"cpu_seconds_per_gb\": %.4f, \"ratio\": %.3f, \"waiting_seconds_per_gb\": %.4f, "
            "\"mb_per_second\": %.0f}\n",
            options.channels, options.bytes, options.gigabytes, name, cpu, cpu / muxer_cpu, median(runs, &Result::waiting),
            median(runs, &Result::rate));
    }
}

void print(const Options &options, const Results &results) {
    const double muxer_cpu = median(results.at("libavformat"), &Result::cpu);
    (options.json ? print_json : print_text)(options, results, muxer_cpu);
}

void compare(const Options &options) {
    require_one_file(options.frames(), options.bytes);
    require_room(options.folder, static_cast<uint64_t>(options.gigabytes * 1e9) + kSpareRoom);
    Results results;
    for (uint32_t turn = 0; turn < options.repeat; ++turn) {
        results["recvault"].push_back(run_apart([&] { return run<PatientRecorder>(options); }));
        results["libavformat"].push_back(run_apart([&] { return run<Muxers>(options); }));
        results["write(2)"].push_back(run_apart([&] { return run<PlainFiles>(options); }));
    }
    print(options, results);
}

}  // namespace

int main(int argc, char **argv) {
    Options options;
    CLI::App app("Processor time for a gigabyte of frames");
    app.add_option("--channels", options.channels, "Channels")->check(CLI::Range(1, 1024))->capture_default_str();
    app.add_option("--bytes", options.bytes, "Bytes of a frame")->check(CLI::Range(256, 200'000))->capture_default_str();
    app.add_option("--gigabytes", options.gigabytes, "Bytes in all, for each run")->capture_default_str();
    app.add_option("--repeat", options.repeat, "Runs of each contestant")->check(CLI::Range(1, 100))->capture_default_str();
    app.add_option("--folder", options.folder, "Where the files are written")->capture_default_str();
    app.add_flag("--json", options.json, "Print one JSON object a line");
    CLI11_PARSE(app, argc, argv);
    try {
        compare(options);
    } catch (const std::exception &failure) {
        std::fprintf(stderr, "%s\n", failure.what());
        return 1;
    }
    return 0;
}
