// What the benchmarks share: frames, a folder that goes away again, counters of the process, and a recorder that is fed
// through the functions that any application has and knows what it delivered.
#pragma once

#include <fcntl.h>
#include <recvault/recvault.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <limits>
#include <random>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <type_traits>
#include <vector>

namespace bench {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

constexpr uint32_t kFps = 25;
constexpr auto kPeriod = std::chrono::microseconds(1'000'000 / kFps);
constexpr uint16_t kWidth = 1920, kHeight = 1080;

inline void check(int32_t result, const char *what) {
    if (result != KELM_AVIFILE_OK) {
        throw std::runtime_error(std::string(what) + " gave " + std::to_string(result));
    }
}

[[noreturn]] inline void throw_errno(const std::string &what) {
    throw std::system_error(errno, std::generic_category(), what);
}

// ---- Folders and files ----

// A new folder below `parent`, removed with all it holds. Its name is short: a partition's path has at most 31 characters.
class TempFolder {
 public:
    explicit TempFolder(const std::string &parent) : m_path(parent + "/b-XXXXXX") {
        if (mkdtemp(m_path.data()) == nullptr) {
            throw_errno("no folder in " + parent);
        }
    }
    ~TempFolder() {
        std::error_code ignored;
        fs::remove_all(m_path, ignored);
    }
    TempFolder(const TempFolder &) = delete;
    TempFolder &operator=(const TempFolder &) = delete;

    const std::string &path() const { return m_path; }

 private:
    std::string m_path;
};

class File {
 public:
    File(const fs::path &path, int flags) : m_fd(open(path.c_str(), flags | O_CLOEXEC, 0644)) {
        if (m_fd < 0) {
            throw_errno(path.string());
        }
    }
    ~File() {
        if (m_fd >= 0) {
            close(m_fd);
        }
    }
    File(File &&other) noexcept : m_fd(other.m_fd) { other.m_fd = -1; }
    File(const File &) = delete;
    File &operator=(const File &) = delete;
    File &operator=(File &&) = delete;

    int fd() const { return m_fd; }

    uint64_t size() const {
        struct stat status {};
        if (fstat(m_fd, &status) != 0) {
            throw_errno("fstat");
        }
        return static_cast<uint64_t>(status.st_size);
    }

 private:
    int m_fd;
};

// The number of frames that a finished AVI file claims: dwTotalFrames of the main header, at offset 48 in the files of the
// library and of libavformat alike.
inline uint32_t frames_in_head(const fs::path &path) {
    constexpr off_t kTotalFrames = 48;
    const File file(path, O_RDONLY);
    std::array<uint8_t, 4> bytes{};
    if (pread(file.fd(), bytes.data(), bytes.size(), kTotalFrames) != static_cast<ssize_t>(bytes.size())) {
        throw std::runtime_error(path.string() + " has no head");
    }
    return bytes[0] | bytes[1] << 8U | bytes[2] << 16U | static_cast<uint32_t>(bytes[3]) << 24U;
}

inline void require_room(const std::string &folder, uint64_t bytes) {
    if (fs::space(folder).available < bytes) {
        throw std::runtime_error(folder + " has no room for " + std::to_string(bytes >> 20U) + " MiB");
    }
}

// ---- Frames ----

// A key frame and another one for each channel: what an H.264 decoder reads first of 1920 x 1080, and random bytes. Without
// parameter sets libavformat's parser would reject each frame, and its yardsticks be too cheap or too dear.
class Frames {
 public:
    Frames(uint32_t channels, uint32_t bytes) : m_bytes(bytes) {
        std::minstd_rand random(channels);
        std::generate_n(std::back_inserter(m_frames), channels, [&] {
            std::vector<uint8_t> frame(std::max<size_t>(bytes, kKeyStart.size()));
            // No zero, and so no start code.
            std::generate(frame.begin(), frame.end(), [&] { return static_cast<uint8_t>((random() >> 8U) % 255 + 1); });
            m_keys.push_back(frame);
            std::copy(kKeyStart.begin(), kKeyStart.end(), m_keys.back().begin());
            std::copy(kStart.begin(), kStart.end(), frame.begin());
            return frame;
        });
    }

    uint32_t channels() const { return static_cast<uint32_t>(m_frames.size()); }
    uint32_t bytes() const { return m_bytes; }
    const uint8_t *of(uint32_t channel, bool key = false) const { return (key ? m_keys : m_frames)[channel].data(); }

 private:
    // Sequence and picture parameter set, and the start of a slice.
    static constexpr std::array<uint8_t, 48> kKeyStart{
        0,    0,    0,    1,    0x67, 0x42, 0xC0, 0x28, 0xD9, 0x00, 0x78, 0x02, 0x27, 0xE5, 0xC0, 0x44,
        0x00, 0x00, 0x03, 0x00, 0x04, 0x00, 0x00, 0x03, 0x00, 0xC8, 0x3C, 0x60, 0xC9, 0x20, 0,    0,
        0,    1,    0x68, 0xCB, 0x83, 0xCB, 0x20, 0,    0,    0,    1,    0x65, 0x88, 0x84, 0x08, 0x7C};
    static constexpr std::array<uint8_t, 9> kStart{0, 0, 0, 1, 0x41, 0x9A, 0x38, 0x12, 0xFE};

    uint32_t m_bytes;
    std::vector<std::vector<uint8_t>> m_keys, m_frames;
};

// ---- Counters of this process ----

// Durations of single calls, in whatever unit.
class Samples {
 public:
    void add(double value) { m_values.push_back(value); }

    bool empty() const { return m_values.empty(); }
    // The value that `share` of them stay below: 0.5 is the median.
    double at(double share) {
        const auto position = m_values.begin() + static_cast<ptrdiff_t>(share * static_cast<double>(m_values.size() - 1));
        std::nth_element(m_values.begin(), position, m_values.end());
        return *position;
    }

 private:
    std::vector<double> m_values;
};

struct Usage {
    double wall = 0;      // seconds
    double cpu = 0;       // seconds, user and system, of all threads
    uint64_t writes = 0;  // system calls that write
};

// Reads the number behind "name:" in a file of /proc/self.
inline uint64_t proc_value(const char *file, const std::string &name) {
    std::ifstream lines(std::string("/proc/self/") + file);
    for (std::string word; lines >> word;) {
        if (uint64_t value = 0; word == name + ":" && lines >> value) {
            return value;
        }
    }
    throw std::runtime_error(std::string("/proc/self/") + file + " has no " + name);
}

inline double cpu_seconds(int who) {
    rusage usage{};
    getrusage(who, &usage);
    const auto seconds = [](const timeval &time) {
        return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
    };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

inline Usage usage_now() {
    return {.wall = Seconds(Clock::now().time_since_epoch()).count(),
            .cpu = cpu_seconds(RUSAGE_SELF),
            .writes = proc_value("io", "syscw")};
}

inline Usage operator-(const Usage &end, const Usage &begin) {
    return {end.wall - begin.wall, end.cpu - begin.cpu, end.writes - begin.writes};
}

// Resident bytes without files. The roll-up counts pages; the sums in /proc/self/status may lag by 64 pages a thread.
inline uint64_t resident_bytes() { return proc_value("smaps_rollup", "Anonymous") << 10U; }

inline void raise_open_files() {
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    limit.rlim_cur = limit.rlim_max;
    setrlimit(RLIMIT_NOFILE, &limit);
}

// Runs `work` in a process of its own, so that memory and processor time of one contestant never mix with those of another.
// Call it while there are no threads.
template <typename Work>
std::invoke_result_t<Work> run_apart(Work work) {
    using Result = std::invoke_result_t<Work>;
    static_assert(std::is_trivially_copyable_v<Result>);
    std::array<int, 2> ends{};
    if (pipe2(ends.data(), O_CLOEXEC) != 0) {
        throw_errno("pipe");
    }
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        bool sent = false;
        // What the library prints of damage and of seeks belongs to no table.
        if (std::freopen("/dev/null", "w", stdout) == nullptr) _exit(1);
        try {
            const Result result = work();
            sent = write(ends[1], &result, sizeof result) == static_cast<ssize_t>(sizeof result);
        } catch (const std::exception &failure) {
            std::fprintf(stderr, "%s\n", failure.what());
        }
        _exit(sent ? 0 : 1);
    }
    close(ends[1]);
    Result result{};
    const ssize_t got = read(ends[0], &result, sizeof result);
    close(ends[0]);
    int status = 0;
    if (child < 0 || waitpid(child, &status, 0) != child || status != 0 || got != static_cast<ssize_t>(sizeof result)) {
        throw std::runtime_error("a run did not come to its end");
    }
    return result;
}

// ---- The recorder ----

// Sizes of the record file, as docs/format.md gives them, and of the ring of a channel.
constexpr uint64_t kFileHeadBytes = 77824, kRecordHeadBytes = 64, kRingBytes = 1U << 20U;
// The writer thread leaves less than this in the ring.
constexpr uint64_t kSmallestBlock = 16384;
// A file ends at a GiB, at an hour and at 3600 key frames. No run comes near: each channel has one file.
constexpr uint64_t kPartitionBudget = 16ULL << 30U;
constexpr uint64_t kMaxFileBytes = 1000ULL << 20U;
constexpr uint64_t kMaxFileFrames = 3500 * kFps;
constexpr uint64_t kSpareRoom = 2ULL << 30U;
// Ten o'clock on the first of January 2036: ahead of the real clock, by which silent channels are closed, and far from
// midnight.
constexpr uint32_t kFirstSecond = 2'082'758'400 + 36'000;
constexpr const char *kDay = "20360101";
constexpr const char *kDevice = "camera-hall";
constexpr auto kDiskPatience = std::chrono::seconds(10);

// Each frame's room in the ring and in the file.
inline uint64_t record_bytes(uint32_t frame_bytes) { return kRecordHeadBytes + frame_bytes + frame_bytes % 2; }

inline void require_one_file(uint64_t frames, uint32_t frame_bytes) {
    if (frames == 0 || frames > kMaxFileFrames || frames * record_bytes(frame_bytes) > kMaxFileBytes) {
        throw std::runtime_error(std::to_string(frames) + " frames a channel are more than one file takes, or none");
    }
}

// The library with one partition and one device.
class Library {
 public:
    explicit Library(const std::string &root) {
        raise_open_files();
        check(KELM_AviFile_Init(0), "KELM_AviFile_Init");
        try {
            add_partition(root);
            check(KELM_AviFile_CreateDevHandle(&m_device, kDevice), "KELM_AviFile_CreateDevHandle");
        } catch (...) {
            KELM_AviFile_UnInit(0);
            throw;
        }
    }
    ~Library() { KELM_AviFile_UnInit(0); }
    Library(const Library &) = delete;
    Library &operator=(const Library &) = delete;

    int32_t device() const { return m_device; }

 private:
    static void add_partition(const std::string &root) {
        RecPartitionInfo info{};
        if (root.size() >= sizeof info.path) {
            throw std::runtime_error(root + ": the path of a partition has at most 31 characters");
        }
        root.copy(info.path, sizeof info.path - 1);
        info.priority = 4;
        info.rec_space = kPartitionBudget;
        info.disk_space = kPartitionBudget;
        check(KELM_AviFile_AddRecPartition(&info), "KELM_AviFile_AddRecPartition");
    }

    int32_t m_device = 0;
};

// A recording on each channel from start() to stop().
class Recorder {
 public:
    Recorder(const std::string &root, const Frames &frames)
        : m_frames(frames),
          m_library(root),
          m_folder(root + "/avi_av/" + kDay + "/" + kDevice),
          m_heads(frames.channels(), first_head(frames.bytes())) {}

    void start() {
        for (uint32_t channel = 0; channel < channels(); ++channel) {
            check(KELM_AviFile_RecStart(channel, 1, device()), "KELM_AviFile_RecStart");
        }
    }

    // Returns when every file is finished.
    void stop() {
        for (uint32_t channel = 0; channel < channels(); ++channel) {
            check(KELM_AviFile_RecStop(channel, device()), "KELM_AviFile_RecStop");
        }
    }

    uint32_t channels() const { return m_frames.channels(); }
    int32_t device() const { return m_library.device(); }

    // Makes the head of the channel's next frame ready; hand_over() is the call that is measured.
    void prepare(uint32_t channel, bool key) {
        FrameHead &head = m_heads[channel];
        ++head.frame_no;
        head.type = key ? 1 : 9;
        head.seconds = kFirstSecond + (head.frame_no - 1) / kFps;
        head.microseconds = (head.frame_no - 1) % kFps * static_cast<uint32_t>(kPeriod.count());
    }
    int32_t hand_over(uint32_t channel) const {
        const FrameHead &head = m_heads[channel];
        return KELM_AviFile_DataInput(channel, &head, sizeof head, m_frames.of(channel, head.type == 1), head.length,
                                      head.seconds, head.microseconds, device());
    }
    void deliver(uint32_t channel, bool key) {
        prepare(channel, key);
        check(hand_over(channel), "KELM_AviFile_DataInput");
    }

    uint32_t delivered(uint32_t channel) const { return m_heads[channel].frame_no; }

    // Bytes of a channel that have not reached its file. Wants the first frame delivered.
    uint64_t under_way(uint32_t channel) {
        if (m_files.empty()) {
            m_files.reserve(channels());
            for (uint32_t each = 0; each < channels(); ++each) {
                m_files.emplace_back(record_file(each), O_RDONLY);
            }
        }
        const uint64_t all = kFileHeadBytes + delivered(channel) * record_bytes(m_frames.bytes());
        return all - std::min(all, m_files[channel].size());
    }

    // Waits until the channel has fewer than `bytes` under way, no less than kSmallestBlock. A frame that was dropped never
    // arrives.
    void wait_until_below(uint32_t channel, uint64_t bytes, std::chrono::microseconds pause) {
        for (const auto give_up = Clock::now() + kDiskPatience; under_way(channel) >= bytes;) {
            if (Clock::now() > give_up) {
                throw std::runtime_error("channel " + std::to_string(channel) + " lost frames, or the disk stands still");
            }
            std::this_thread::sleep_for(pause);
        }
    }
    void drain() {
        for (uint32_t channel = 0; channel < channels(); ++channel) {
            wait_until_below(channel, kSmallestBlock, std::chrono::microseconds(100));
        }
    }

    // After stop(): frames that were delivered and are in no file.
    uint64_t lost() const {
        uint64_t lost = 0;
        for (uint32_t channel = 0; channel < channels(); ++channel) {
            lost += delivered(channel) - frames_in_head(record_file(channel));
        }
        return lost;
    }

 private:
    static FrameHead first_head(uint32_t frame_bytes) {
        FrameHead head{};
        head.uiStartId = KELM_AVIFILE_FRAME_START_ID;
        head.length = frame_bytes;
        head.width = kWidth;
        head.height = kHeight;
        head.codec_id = 1;
        return head;
    }

    // The one file of the channel.
    fs::path record_file(uint32_t channel) const {
        std::array<char, 24> name{};
        std::snprintf(name.data(), name.size(), "channel%02u", channel + 1);
        std::vector<fs::path> found;
        for (const auto &entry : fs::directory_iterator(m_folder / name.data())) {
            if (entry.path().extension() == ".avi") {
                found.push_back(entry.path());
            }
        }
        if (found.size() != 1) {
            throw std::runtime_error((m_folder / name.data()).string() + " holds " + std::to_string(found.size()) +
                                     " files");
        }
        return found.front();
    }

    const Frames &m_frames;
    Library m_library;
    fs::path m_folder;
    std::vector<FrameHead> m_heads;
    std::vector<File> m_files;  // for their sizes
};

}  // namespace bench
