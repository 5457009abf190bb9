// Records four cameras for two hours of their own time, as fast as the disk takes it, and tells what came of it.
//
// The cameras play the clips of media/ in a loop, through the functions that any application has. On the way one camera
// changes its record type, one its resolution and one its codec, a midnight passes, and files that have lasted an hour end.
// The demo knows by the rules of recvault.h where each record file has to begin, and counts for each what it delivered; at
// the end it holds both against the folder tree and the index files of the store.
//
// It may be killed on the way: the manifest tells what was delivered until then. With --live-from the cameras deliver in
// real time before that, as real ones do, so that what is lost can be told in seconds. With --resume it goes on where it was
// killed, half a minute of recorded time later.
//
// Recorded time runs some thousand times faster than real time. A camera must therefore not deliver faster than its writer
// takes: the ring of a channel, 1 MiB and 500 frames, drops what does not fit. After each second of pictures the demo looks
// at the open file and its side file, which grows by one entry a frame, and waits while too much is under way. A real camera
// needs nothing of the kind.
#include <recvault/recvault.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <future>
#include <iterator>
#include <list>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "clips.h"
#include "index_report.h"
#include "manifest.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using demo::AudioClip, demo::VideoClip, demo::Media, demo::Player;
using demo::formatted, demo::Manifest, demo::RecordFile, demo::size_on_disk;
using std::chrono::milliseconds;

constexpr uint32_t kDay = 86400, kMaxFileSeconds = 3600;
// The last midnight of 2035. It lies ahead because the library closes the file of a channel that has been silent for half an
// hour, and goes by the real clock for that.
constexpr uint32_t kMidnight = 2'082'758'400;
// Late enough that two hours have an unbroken one behind it, with the demo killed half way.
constexpr double kShareBeforeMidnight = 0.45;
constexpr const char *kDevice = "depot";  // one for all cameras, for only channels of one device are played in step
constexpr uint32_t kOutageSeconds = 30;
constexpr uint32_t kMaxLiveSeconds = 60;

constexpr uint64_t kFileHeadBytes = 77824, kRecordHeadBytes = 64, kSideEntryBytes = 40;
// The ring of side records takes 500. Those that are in the side file already may still stand in it, and a further second
// brings 50: twice the sum has to fit.
constexpr uint64_t kMaxWaitingRecords = 180;
constexpr uint64_t kMaxWaitingBytes = 96 << 10;
constexpr auto kDiskPatience = std::chrono::seconds(30);

void check(int32_t result, const char *what) {
    if (result != KELM_AVIFILE_OK) {
        throw std::runtime_error(std::string(what) + " gave " + std::to_string(result));
    }
}

// ---- Cameras ----

// What holds from a second of the demo on, in a list in ascending order whose first element is for second 0.
template <class T>
struct From {
    uint32_t second;
    T what;
};

template <class T>
const T &at_second(const std::vector<From<T>> &steps, uint32_t second) {
    const auto behind = std::ranges::upper_bound(steps, second, {}, &From<T>::second);
    return std::prev(behind)->what;
}

struct CameraPlan {
    uint32_t channel;
    const AudioClip *audio;
    std::vector<From<const VideoClip *>> pictures;
    std::vector<From<int32_t>> types;
};

uint32_t type_bit(int32_t type) { return 1U << (type - 1); }

// Whether a key frame belongs in another file than the one that is open.
bool ends_file(const RecordFile &file, const FrameHead &key) {
    return file.width != key.width || file.height != key.height || file.codec_id != key.codec_id ||
           file.begin / kDay != key.seconds / kDay || key.seconds - file.begin >= kMaxFileSeconds;
}

// How much of a file that is being written has not reached it yet.
bool much_under_way(const RecordFile &file) {
    const uint64_t records = size_on_disk(file.path.string() + "_idx") / kSideEntryBytes;
    const uint64_t bytes = size_on_disk(file.path);
    return file.video + file.audio > records + kMaxWaitingRecords || file.bytes > bytes + kMaxWaitingBytes;
}

// One channel that records, and what was delivered to it.
class Camera {
 public:
    Camera(CameraPlan plan, int32_t device, fs::path root, Manifest &manifest)
        : m_plan(std::move(plan)), m_device(device), m_root(std::move(root)), m_manifest(manifest) {}

    // Delivers second `second` of the demo, and waits until most of it is on disk. With `begin` each frame waits for its
    // moment in the real second that begins then.
    void record_second(uint32_t second, uint32_t time, std::optional<Clock::time_point> begin = {}) {
        set_type(at_second(m_plan.types, second));
        m_player.play_second(*at_second(m_plan.pictures, second), *m_plan.audio, second, time,
                             [&](const FrameHead &head, std::span<const uint8_t> data) {
                                 if (begin) {
                                     std::this_thread::sleep_until(*begin + std::chrono::microseconds(head.microseconds));
                                 }
                                 deliver(head, data);
                             });
        wait_for_disk();
    }

    // Returns when the last file has its index.
    void stop() { check(KELM_AviFile_RecStop(m_plan.channel, m_device), "KELM_AviFile_RecStop"); }

    const std::vector<RecordFile> &files() const { return m_files; }

 private:
    // The first call starts the recording, a later one changes its type.
    void set_type(int32_t type) {
        if (type != m_type) {
            check(KELM_AviFile_RecStart(m_plan.channel, type, m_device), "KELM_AviFile_RecStart");
            m_type = type;
            if (!m_files.empty()) {
                m_files.back().types |= type_bit(type);
            }
        }
    }

    void deliver(const FrameHead &head, std::span<const uint8_t> data) {
        const bool new_file = head.type == demo::kKeyFrame && (m_files.empty() || ends_file(m_files.back(), head));
        if (new_file) {
            m_files.push_back(expected_file(head));
            m_line = m_manifest.add(m_files.back());
        }
        count(head, data.size());
        check(KELM_AviFile_DataInput(m_plan.channel, &head, sizeof head, data.data(), static_cast<uint32_t>(data.size()),
                                     head.seconds, head.microseconds, m_device),
              "KELM_AviFile_DataInput");
        if (new_file && !fs::exists(m_files.back().path)) {
            throw std::runtime_error("no file was opened at " + m_files.back().path.string());
        }
    }

    RecordFile expected_file(const FrameHead &key) const {
        std::array<char, 16> channel{};
        std::snprintf(channel.data(), channel.size(), "channel%02u", m_plan.channel + 1);
        RecordFile file;
        file.path = m_root / "avi_av" / formatted(key.seconds, "%Y%m%d") / kDevice / channel.data() /
                    formatted(key.seconds, "%H%M%S.avi");
        file.begin = key.seconds;
        file.width = key.width;
        file.height = key.height;
        file.codec_id = key.codec_id;
        file.types = type_bit(m_type);
        file.bytes = kFileHeadBytes;
        return file;
    }

    void count(const FrameHead &head, size_t bytes) {
        RecordFile &file = m_files.back();
        const uint32_t frames = demo::frames_in(head, bytes);
        (head.type == demo::kAudio ? file.audio : file.video) += frames;
        const uint64_t record_bytes = frames * (kRecordHeadBytes + head.length + head.length % 2);
        file.bytes += record_bytes;
        file.largest = std::max(file.largest, record_bytes);
        file.end = head.seconds;
        m_manifest.update(m_line, file);
    }

    void wait_for_disk() const {
        const auto give_up = Clock::now() + kDiskPatience;
        while (much_under_way(m_files.back())) {
            if (Clock::now() > give_up) {
                throw std::runtime_error("the disk takes no more of " + m_files.back().path.string());
            }
            std::this_thread::sleep_for(milliseconds(1));
        }
    }

    CameraPlan m_plan;
    int32_t m_device;
    fs::path m_root;
    Manifest &m_manifest;
    size_t m_line = 0;  // of the open file
    int32_t m_type = 0;
    Player m_player;
    std::vector<RecordFile> m_files;
};

std::vector<CameraPlan> plans(const Media &media, uint32_t duration) {
    const auto share = [&](double part) { return static_cast<uint32_t>(std::lround(part * duration)); };
    return {
        {.channel = 0,
         .audio = &media.a_law,
         .pictures = {{0, &media.large}},
         .types = {{0, 1}, {share(0.2), 2}, {share(0.25), 1}}},
        {.channel = 1,
         .audio = &media.adpcm,
         .pictures = {{0, &media.large}, {share(0.3), &media.small}, {share(0.8), &media.large}},
         .types = {{0, 1}}},
        {.channel = 2,
         .audio = &media.a_law,
         .pictures = {{0, &media.small}, {share(0.4), &media.jpeg}, {share(0.5), &media.small}},
         .types = {{0, 1}}},
        {.channel = 8, .audio = &media.adpcm, .pictures = {{0, &media.small}}, .types = {{0, 3}, {share(0.7), 4}}},
    };
}

// ---- Progress ----

// Rewrites one line of a terminal, several times a second; into a file or a pipe it writes a line each ten seconds.
class Progress {
 public:
    Progress(std::FILE *out, uint32_t first, uint32_t duration)
        : m_out(out),
          m_terminal(isatty(fileno(out)) == 1),
          m_pause(m_terminal ? 200 : 10'000),
          m_first(first),
          m_duration(duration) {}

    void show_recorded(uint32_t done, const std::list<Camera> &cameras) {
        const auto now = Clock::now();
        if (now >= m_next || done == m_duration) {
            m_next = now + m_pause;
            write(done, cameras, now);
        }
    }

    void show_finishing(size_t left) {
        const auto now = Clock::now();
        if (now >= m_next) {
            m_next = now + m_pause;
            std::fprintf(m_out, "%sfinishing files, %zu left%s", begin_line(), left, end_line());
            std::fflush(m_out);
        }
    }

    // Ends the line that was rewritten, and has the next thing shown at once.
    void end_phase() {
        std::fputs(m_terminal ? "\n" : "", m_out);
        m_next = Clock::now();
    }

 private:
    void write(uint32_t done, const std::list<Camera> &cameras, Clock::time_point now) {
        size_t files = 0;
        uint64_t bytes = 0;
        for (const Camera &camera : cameras) {
            files += camera.files().size();
            for (const RecordFile &file : camera.files()) {
                bytes += file.bytes;
            }
        }
        const double took = std::max(std::chrono::duration<double>(now - m_begin).count(), 0.001);
        std::fprintf(m_out, "%s%3u %% of %.2f h recorded, %zu files, %.0f MB, %.0f times real time%s", begin_line(),
                     done * 100 / m_duration, m_duration / 3600.0, files, static_cast<double>(bytes) / 1e6,
                     (done - m_first) / took, end_line());
        std::fflush(m_out);
    }

    const char *begin_line() const { return m_terminal ? "\r" : ""; }
    const char *end_line() const { return m_terminal ? "\033[K" : "\n"; }

    std::FILE *m_out;
    bool m_terminal;
    milliseconds m_pause;
    uint32_t m_first;  // second of the demo at which this run begins
    uint32_t m_duration;
    Clock::time_point m_begin = Clock::now();
    Clock::time_point m_next = m_begin;
};

// Sends what the library says on standard error into a file. Returns a stream that goes where standard error went before.
std::FILE *redirect_log(const std::string &path) {
    std::FILE *terminal = fdopen(dup(STDERR_FILENO), "w");
    if (terminal == nullptr || std::freopen(path.c_str(), "w", stderr) == nullptr) {
        throw std::runtime_error("cannot write the log to " + path);
    }
    return terminal;
}

// ---- The run ----

struct Options {
    fs::path store, manifest, media = RECVAULT_DEMO_MEDIA;
    std::string log;
    double hours = 2;
    double pace = 0;
    double live_from = 1;
    bool resume = false;

    uint32_t seconds() const { return static_cast<uint32_t>(std::lround(hours * 3600)); }
    uint32_t start() const { return kMidnight - static_cast<uint32_t>(std::lround(kShareBeforeMidnight * seconds())); }
};

class Library {
 public:
    Library() { check(KELM_AviFile_Init(0), "KELM_AviFile_Init"); }
    ~Library() { KELM_AviFile_UnInit(0); }
    Library(const Library &) = delete;
    Library &operator=(const Library &) = delete;
};

void prepare_store(const fs::path &root, bool resume) {
    if (root.string().size() >= sizeof RecPartitionInfo::path) {
        throw std::runtime_error(root.string() + ": the path of a store has at most 31 characters");
    }
    if (!resume && fs::exists(root / "avi_av")) {
        throw std::runtime_error(root.string() + " holds recordings already");
    }
    fs::create_directories(root);
}

void add_partition(const fs::path &root, double hours) {
    RecPartitionInfo info{};
    root.string().copy(info.path, sizeof info.path - 1);
    info.priority = 1;
    info.disk_space = fs::space(root).capacity;
    info.rec_space = static_cast<uint64_t>((4 + hours) * (1 << 30));  // an hour of the four cameras takes some 350 MB
    check(KELM_AviFile_AddRecPartition(&info), "KELM_AviFile_AddRecPartition");
}

std::list<Camera> make_cameras(const Options &options, const Media &media, Manifest &manifest) {
    int32_t device = 0;
    check(KELM_AviFile_CreateDevHandle(&device, kDevice), "KELM_AviFile_CreateDevHandle");
    std::list<Camera> cameras;
    for (CameraPlan &plan : plans(media, options.seconds())) {
        cameras.emplace_back(std::move(plan), device, options.store, manifest);
    }
    return cameras;
}

size_t unfinished_files(const std::list<Camera> &cameras) {
    size_t count = 0;
    for (const Camera &camera : cameras) {
        count += static_cast<size_t>(std::ranges::count_if(
            camera.files(), [](const RecordFile &file) { return fs::exists(file.path.string() + "_idx"); }));
    }
    return count;
}

// A stop returns when the channel's files have their indexes. That takes seconds, and the cameras stop side by side.
void stop_all(std::list<Camera> &cameras, Progress &progress) {
    std::vector<std::future<void>> stops;
    for (Camera &camera : cameras) {
        stops.push_back(std::async(std::launch::async, [&camera] { camera.stop(); }));
    }
    for (std::future<void> &stop : stops) {
        while (stop.wait_for(milliseconds(100)) == std::future_status::timeout) {
            progress.show_finishing(unfinished_files(cameras));
        }
        stop.get();
    }
    progress.end_phase();
}

// One second in real time, all cameras side by side.
void record_live_second(std::list<Camera> &cameras, uint32_t second, uint32_t time, Clock::time_point begin) {
    std::vector<std::future<void>> running;
    for (Camera &camera : cameras) {
        running.push_back(
            std::async(std::launch::async, [&camera, second, time, begin] { camera.record_second(second, time, begin); }));
    }
    std::ranges::for_each(running, &std::future<void>::get);
}

// Records in real time until somebody kills the demo.
[[noreturn]] void record_live(std::list<Camera> &cameras, uint32_t second, uint32_t time) {
    std::printf("recording in real time, process %d may be killed\n", static_cast<int>(getpid()));
    std::fflush(stdout);
    const auto begin = Clock::now();
    for (uint32_t n = 0; n < kMaxLiveSeconds; ++n) {
        record_live_second(cameras, second + n, time + n, begin + std::chrono::seconds(n));
    }
    throw std::runtime_error("nobody killed the demo while it recorded in real time");
}

// Records from a second of the demo on to its end.
void record(std::list<Camera> &cameras, const Options &options, uint32_t first, Progress &progress) {
    const auto live_from = static_cast<uint32_t>(std::lround(options.live_from * options.seconds()));
    const auto begin = Clock::now();
    for (uint32_t second = first; second < options.seconds(); ++second) {
        if (second == live_from) {
            progress.end_phase();
            record_live(cameras, second, options.start() + second);
        }
        for (Camera &camera : cameras) {
            camera.record_second(second, options.start() + second);
        }
        progress.show_recorded(second + 1, cameras);
        if (options.pace > 0) {
            const auto due = std::chrono::duration<double>((second + 1 - first) / options.pace);
            std::this_thread::sleep_until(begin + std::chrono::duration_cast<Clock::duration>(due));
        }
    }
    progress.end_phase();
    stop_all(cameras, progress);
}

// The second of the demo at which it goes on, or 0 when nothing was recorded before.
uint32_t first_second(const std::vector<RecordFile> &before, const Options &options) {
    if (before.empty()) {
        return 0;
    }
    const uint32_t last = std::ranges::max(before, {}, &RecordFile::end).end;
    return last + 1 + kOutageSeconds - options.start();
}

int run(const Options &options, std::FILE *terminal) {
    prepare_store(options.store, options.resume);
    std::vector<RecordFile> files;
    if (options.resume) {
        files = demo::read_manifest(options.manifest);
    }
    const uint32_t first = first_second(files, options);
    Manifest manifest(options.manifest);
    const Media media(options.media);
    {
        const Library library;
        add_partition(options.store, options.hours);
        std::list<Camera> cameras = make_cameras(options, media, manifest);
        Progress progress(terminal, first, options.seconds());
        record(cameras, options, first, progress);
        for (const Camera &camera : cameras) {
            files.insert(files.end(), camera.files().begin(), camera.files().end());
        }
    }
    return demo::report_index(options.store / "avi_av", files) ? 0 : 1;
}

}  // namespace

int main(int argc, char **argv) {
    Options options;
    CLI::App app("Records four cameras that play clips, with changes of all kinds on the way, and shows the files.");
    app.add_option("--store", options.store, "Folder to record into, at most 31 characters")->required();
    app.add_option("--hours", options.hours, "Recorded time of each camera")
        ->check(CLI::Range(0.02, 24.0))
        ->capture_default_str();
    app.add_option("--pace", options.pace, "How many times faster than real time at most, 0: as fast as the disk takes it")
        ->check(CLI::NonNegativeNumber)
        ->capture_default_str();
    app.add_option("--media", options.media, "Folder of the clips")->check(CLI::ExistingDirectory)->capture_default_str();
    app.add_option("--manifest", options.manifest, "File that tells at any time what was delivered to each record file")
        ->required();
    app.add_option("--live-from", options.live_from, "Share of the time after which to record in real time, to be killed")
        ->check(CLI::Range(0.0, 1.0));
    app.add_flag("--resume", options.resume, "Go on where the demo was killed, by its manifest, in the same store");
    app.add_option("--log", options.log, "File that takes the library's log, else it goes to standard error");
    CLI11_PARSE(app, argc, argv);
    std::FILE *terminal = stderr;
    try {
        if (!options.log.empty()) {
            terminal = redirect_log(options.log);
        }
        options.store = fs::absolute(options.store).lexically_normal();
        return run(options, terminal);
    } catch (const std::exception &error) {
        std::fprintf(terminal, "\nrecorder_demo: %s\n", error.what());
        return 1;
    }
}
