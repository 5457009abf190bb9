// What playback costs: one channel as fast as it goes, beside libavformat's AVI demuxer and plain reads of the same file;
// sixteen channels in step; how soon frames come after a start and after a seek; and what recording notices of it.
//
// Each contestant runs in a process of its own, and they take turns; the tables show medians. Frames are counted against
// what was recorded, and a run that misses one fails.
#include <CLI/CLI.hpp>
#include <atomic>
#include <condition_variable>
#include <map>
#include <mutex>
#include <utility>

#include "reading.h"

namespace {

using namespace bench;

constexpr uint32_t kInStep = 16;
constexpr uint32_t kRecording = 32;
constexpr uint32_t kDays = 31;
constexpr uint32_t kHour = 3600;

struct Options {
    uint32_t megabytes = 500;
    uint32_t repeat = 5;
    uint32_t seconds = 20;
    uint32_t samples = 300;
    std::string folder = "/dev/shm";
};

// A playback and what its callback sees. One at a time: the callback's word has 32 bits.
class Playback {
 public:
    Playback(int32_t device, uint32_t channels, int64_t begin, int64_t end, bool sync) : m_last(channels) {
        s_running = this;
        check(KELM_AviFile_DataPopCreate(&m_handle, KELM_AVIFILE_ALL_CHANNELS, begin, end, &Playback::on_frame, 0, 0, device,
                                         sync ? 1 : 0),
              "KELM_AviFile_DataPopCreate");
        check(KELM_AviFile_DataPopRecTypeAdd(m_handle, 8), "KELM_AviFile_DataPopRecTypeAdd");
        for (uint32_t channel = 0; channel < channels; ++channel) {
            check(KELM_AviFile_DataPopChanAdd(m_handle, channel), "KELM_AviFile_DataPopChanAdd");
        }
    }
    ~Playback() { KELM_AviFile_DataPopRelease(m_handle); }
    Playback(const Playback &) = delete;
    Playback &operator=(const Playback &) = delete;

    void start() { check(KELM_AviFile_DataPopStart(m_handle), "KELM_AviFile_DataPopStart"); }
    void seek(int64_t time) {
        {
            const std::lock_guard lock(m_mutex);
            m_has_key = false;
            m_target = time;
        }
        check(KELM_AviFile_DataPopTimeSeek(m_handle, time), "KELM_AviFile_DataPopTimeSeek");
    }
    void wait_for_end() {
        wait([this] { return m_ended >= m_last.size(); });
    }
    // The moment of the first call, and of the first key frame near the target of a seek.
    Clock::time_point wait_for_frame() {
        wait([this] { return m_frames > 0; });
        return m_first;
    }
    Clock::time_point wait_for_key() {
        wait([this] { return m_has_key; });
        return m_key;
    }
    uint64_t frames() const { return m_frames; }
    uint64_t bytes() const { return m_bytes; }
    double skew_ms() const { return m_skew_ms; }

 private:
    template <typename Condition>
    void wait(Condition condition) {
        std::unique_lock lock(m_mutex);
        if (!m_news.wait_for(lock, std::chrono::seconds(120), condition))
            throw std::runtime_error("a playback stands still");
    }

    static int32_t on_frame(int32_t /*index*/, int32_t channel, int32_t key, int32_t /*type*/, int64_t time,
                            const void *frame, int32_t length, int32_t event, uintptr_t /*user*/) {
        s_running->take(static_cast<uint32_t>(channel), key != 0, time, static_cast<const FrameHead *>(frame), length,
                        event);
        return 0;
    }

    void take(uint32_t channel, bool key, int64_t time, const FrameHead *head, int32_t length, int32_t event) {
        const std::lock_guard lock(m_mutex);
        if (event == POP_EVENT_FRAME) {
            if (m_frames++ == 0) note(&m_first);
            m_bytes += static_cast<uint64_t>(length);
            if (key && !m_has_key && m_target != 0 && time >= m_target - 2) {
                m_has_key = true;
                note(&m_key);
            }
            m_last[channel] = static_cast<double>(time) * 1e3 + head->microseconds / 1e3;
            const auto [least, most] = std::minmax_element(m_last.begin(), m_last.end());
            if (*least > 0 && m_ended == 0) m_skew_ms = std::max(m_skew_ms, *most - *least);
        } else if (m_last[channel] >= 0) {
            m_last[channel] = -1;
            ++m_ended;
            m_news.notify_all();
        }
    }
    void note(Clock::time_point *moment) {
        *moment = Clock::now();
        m_news.notify_all();
    }

    static inline Playback *s_running = nullptr;

    uint32_t m_handle = 0;
    std::mutex m_mutex;
    std::condition_variable m_news;
    std::vector<double> m_last;  // milliseconds of each channel's newest frame; below 0 behind its end
    size_t m_ended = 0;
    uint64_t m_frames = 0, m_bytes = 0;
    double m_skew_ms = 0;
    int64_t m_target = 0;
    bool m_has_key = false;
    Clock::time_point m_first, m_key;
};

// ---- One channel, as fast as it goes ----

Read play(const std::string &root, uint32_t seconds) {
    const Library library(root);
    Playback playback(library.device(), 1, kFirstSecond, kFirstSecond + seconds, false);
    return measured([&](Read *read) {
        playback.start();
        playback.wait_for_end();
        read->frames = playback.frames();
        read->bytes = playback.bytes();
    });
}

void compare_one_channel(const Options &options) {
    const TempFolder folder(options.folder);
    const uint32_t seconds = options.megabytes * 1'000'000 / kFrameBytes / kFps;
    run_apart([&] {
        record(folder.path(), 1, seconds);
        return 0;
    });
    const std::string file = only_file(folder.path());
    std::map<std::string, std::vector<Read>> reads;
    for (uint32_t turn = 0; turn < options.repeat; ++turn) {
        reads["recvault"].push_back(run_apart([&] { return play(folder.path(), seconds); }));
        reads["libavformat"].push_back(run_apart([&] { return demux(file); }));
        reads["64 KiB reads"].push_back(run_apart([&] { return read_plainly(file, 0); }));
        reads["and pauses"].push_back(run_apart([&] { return read_plainly(file, seconds); }));
    }
    const uint64_t expected = uint64_t{seconds} * kFps;
    const auto median = [&](const char *name, double Read::*field) { return median_of(reads.at(name), field); };
    for (const Read &read : reads.at("recvault")) {
        // The last bytes of a finished file, fewer than 4096, are not read: at most one frame of this size.
        if (read.frames + 1 < expected) throw std::runtime_error("frames were missed");
    }
    std::printf("%u MB in frames of %u bytes, median of %u runs\n", options.megabytes, kFrameBytes, options.repeat);
    std::printf("%-14s %10s %8s %10s %8s\n", "", "CPU s/GB", "ratio", "wall s", "ratio");
    const double gigabytes = 1e-9 * static_cast<double>(expected) * kFrameBytes;
    for (const char *name : {"recvault", "libavformat", "64 KiB reads", "and pauses"}) {
        const double cpu = median(name, &Read::cpu);
        const double wall = median(name, &Read::wall);
        std::printf("%-14s %10.3f %8.2f %10.3f %8.2f\n", name, cpu / gigabytes, cpu / median("libavformat", &Read::cpu),
                    wall, wall / median("and pauses", &Read::wall));
    }
}

// ---- Sixteen channels in step ----

struct InStep {
    double rate = 0, share = 0, skew_ms = 0, kib = 0;
    uint64_t missed = 0;
};

InStep play_in_step(const std::string &root, uint32_t seconds) {
    const Library library(root);
    const uint64_t resident_before = resident_bytes();
    Playback playback(library.device(), kInStep, kFirstSecond, kFirstSecond + seconds, true);
    const Usage before = usage_now();
    playback.start();
    std::this_thread::sleep_for(std::chrono::seconds(1));
    const uint64_t resident = resident_bytes() - resident_before;
    playback.wait_for_end();
    const Usage used = usage_now() - before;
    return {.rate = static_cast<double>(playback.frames()) / used.wall,
            .share = used.cpu / used.wall,
            .skew_ms = playback.skew_ms(),
            .kib = static_cast<double>(resident) / 1024 / kInStep,
            .missed = uint64_t{seconds} * kFps * kInStep - playback.frames()};
}

void measure_in_step(const std::string &root, uint32_t seconds) {
    const InStep run = run_apart([&] { return play_in_step(root, seconds); });
    if (run.missed > kInStep) throw std::runtime_error(std::to_string(run.missed) + " frames were missed in step");
    std::printf("\n%u channels in step, %u s of each\n", kInStep, seconds);
    std::printf("%10s %12s %14s %12s\n", "frames/s", "of a core", "largest skew", "KiB/channel");
    std::printf("%10.0f %10.1f %% %11.0f ms %12.0f\n", run.rate, 100 * run.share, run.skew_ms, run.kib);
}

// ---- How soon ----

struct Delays {
    double start_median = 0, start_99 = 0, seek_median = 0, seek_99 = 0;
};

// A file each hour, with a key frame each 10 seconds.
void record_days(const std::string &root) {
    const Frames frames(1, 500);
    Recorder recorder(root, frames);
    recorder.start();
    FrameHead head{};
    head.uiStartId = KELM_AVIFILE_FRAME_START_ID;
    head.length = frames.bytes();
    head.width = kWidth;
    head.height = kHeight;
    head.codec_id = 1;
    const uint32_t midnight = kFirstSecond - kFirstSecond % 86400;
    for (uint32_t second = 0; second < kDays * 86400; second += 10) {
        ++head.frame_no;
        head.type = 1;
        check(KELM_AviFile_DataInput(0, &head, sizeof head, frames.of(0), head.length, midnight + second, 0,
                                     recorder.device()),
              "KELM_AviFile_DataInput");
    }
    recorder.stop();
}

Delays measure_delays(const std::string &root, uint32_t samples) {
    const Library library(root);
    std::minstd_rand random(kDays);
    const int64_t midnight = kFirstSecond - kFirstSecond % 86400;
    Samples starts;
    Samples seeks;
    const auto ms = [](Clock::time_point begin, Clock::time_point end) { return Seconds(end - begin).count() * 1e3; };
    for (uint32_t i = 0; i < samples; ++i) {
        const int64_t day = midnight + random() % kDays * 86400;
        Playback playback(library.device(), 1, day + random() % 80000, day + 86399, true);
        const auto begin = Clock::now();
        playback.start();
        starts.add(ms(begin, playback.wait_for_frame()));
        for (uint32_t seek = 0; seek < 3; ++seek) {
            const int64_t target = day + random() % 86000;
            const auto asked = Clock::now();
            playback.seek(target);
            seeks.add(ms(asked, playback.wait_for_key()));
        }
    }
    return {starts.at(0.5), starts.at(0.99), seeks.at(0.5), seeks.at(0.99)};
}

void measure_delays(const Options &options) {
    const TempFolder folder(options.folder);
    run_apart([&] {
        record_days(folder.path());
        return 0;
    });
    const Delays delays = run_apart([&] { return measure_delays(folder.path(), options.samples); });
    std::printf("\na store of %u days, %u starts, %u seeks\n", kDays, options.samples, options.samples * 3);
    std::printf("%-32s %12s %16s\n", "", "median ms", "99th percentile");
    std::printf("%-32s %12.2f %16.2f\n", "start to the first frame", delays.start_median, delays.start_99);
    std::printf("%-32s %12.2f %16.2f\n", "seek to the first key frame", delays.seek_median, delays.seek_99);
}

// ---- Recording beside a playback ----

struct Beside {
    double p50_us = 0, p999_us = 0;
    uint64_t lost = 0, played = 0;
};

// Records at the pace of cameras into a store of its own; what is played lies in another.
Beside record_at_pace(const Options &options, const std::string &root, bool beside_playback) {
    const Frames frames(kRecording, kFrameBytes);
    const TempFolder own(options.folder);
    Recorder recorder(own.path(), frames);
    std::unique_ptr<Playback> playback;
    std::atomic<bool> done{false};
    std::thread player;
    uint64_t played = 0;
    int32_t device = 0;
    if (beside_playback) {
        RecPartitionInfo info{};
        root.copy(info.path, sizeof info.path - 1);
        info.rec_space = info.disk_space = kPartitionBudget;
        check(KELM_AviFile_AddRecPartition(&info), "KELM_AviFile_AddRecPartition");
        device = recorder.device();
        player = std::thread([&] {
            while (!done) {
                Playback one(device, kInStep, kFirstSecond, kFirstSecond + 10, true);
                one.start();
                one.wait_for_end();
                played += one.frames();
            }
        });
    }
    recorder.start();
    Samples calls;
    const auto begin = Clock::now();
    for (uint32_t number = 0; number < options.seconds * kFps * kRecording; ++number) {
        std::this_thread::sleep_until(begin + kPeriod * static_cast<int64_t>(number) / kRecording);
        const uint32_t channel = number % kRecording;
        recorder.prepare(channel, is_key(number / kRecording));
        const auto before = Clock::now();
        check(recorder.hand_over(channel), "KELM_AviFile_DataInput");
        calls.add(Seconds(Clock::now() - before).count() * 1e6);
    }
    done = true;
    if (player.joinable()) player.join();
    recorder.stop();
    return {calls.at(0.5), calls.at(0.999), recorder.lost(), played};
}

void measure_beside(const Options &options, const std::string &root) {
    std::printf("\n%u channels recording at 25 frames a second, %u s\n", kRecording, options.seconds);
    std::printf("%-24s %12s %20s %8s %14s\n", "", "call, median", "99.9th percentile", "lost", "frames played");
    for (const bool with : {false, true}) {
        const Beside run = run_apart([&] { return record_at_pace(options, root, with); });
        std::printf("%-24s %9.2f us %17.1f us %8llu %14llu\n", with ? "16 play in step" : "nothing plays", run.p50_us,
                    run.p999_us, static_cast<unsigned long long>(run.lost), static_cast<unsigned long long>(run.played));
        if (run.lost > 0) throw std::runtime_error("frames were lost");
    }
}

void compare(const Options &options) {
    require_room(options.folder, kSpareRoom + (uint64_t{options.megabytes} << 20U) + (4ULL << 30U));
    compare_one_channel(options);
    {
        constexpr uint32_t kStoreSeconds = 30;
        const TempFolder folder(options.folder);
        run_apart([&] {
            record(folder.path(), kInStep, kStoreSeconds);
            return 0;
        });
        measure_in_step(folder.path(), kStoreSeconds);
        measure_beside(options, folder.path());
    }
    measure_delays(options);
}

}  // namespace

int main(int argc, char **argv) {
    Options options;
    CLI::App app("What playback costs");
    app.add_option("--megabytes", options.megabytes, "Size of the file that is read")->check(CLI::Range(10, 900));
    app.add_option("--repeat", options.repeat, "Runs of each contestant")->check(CLI::Range(1, 100))->capture_default_str();
    app.add_option("--seconds", options.seconds, "Seconds of recording beside a playback")->capture_default_str();
    app.add_option("--samples", options.samples, "Starts that are timed")->capture_default_str();
    app.add_option("--folder", options.folder, "Where the files are written")->capture_default_str();
    CLI11_PARSE(app, argc, argv);
    try {
        compare(options);
    } catch (const std::exception &failure) {
        std::fprintf(stderr, "%s\n", failure.what());
        return 1;
    }
    return 0;
}
