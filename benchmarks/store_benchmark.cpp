// What it costs to keep a store: reading a record file, finding a time in it, repairing one that was cut, adding a large
// partition, asking it what there is, and the monitor's minute.
//
// The yardsticks are libavformat's AVI demuxer, plain reads, a remux by ffmpeg and a table of SQLite, each measured in the
// same run. Linked to the library's objects, for the reader and the repair have no function of their own at the interface.
#include <sqlite3.h>

#include <CLI/CLI.hpp>
#include <cstring>
#include <map>

#include "Disk.h"
#include "GlobalObj.h"
#include "StorageManager.h"
#include "avi/avi_common.h"
#include "avi/avi_reader.h"
#include "reading.h"

namespace {

using namespace bench;
using kelm_recvault::kelm_avi_reader;

constexpr uint32_t kDays = 31, kDevices = 16, kChannels = 16, kHours = 24;
// Of the large store's files, which share memory with everything else when they lie in /dev/shm.
constexpr uint32_t kSmallFrame = 64;

struct Options {
    uint32_t megabytes = 500;
    uint32_t repeat = 5;
    uint32_t samples = 300;
    uint32_t days = kDays;
    std::string folder = "/dev/shm";

    uint32_t seconds() const { return megabytes * 1'000'000 / kFrameBytes / kFps; }
};

double milliseconds(Clock::time_point begin) { return Seconds(Clock::now() - begin).count() * 1e3; }

// ---- Reading ----

Read read_file(const std::string &path) {
    return measured([&](Read *read) {
        kelm_avi_reader reader;
        std::vector<uint8_t> buffer(kelm_avi_reader::kBufferSize);
        check(reader.open_file(path.c_str(), buffer.data()), "open_file");
        const uint8_t *frame = nullptr;
        int32_t length = 0;
        while (reader.read_data(kelm_avi_reader::kAllFrames, 0, 0x7F, &frame, &length) == KELM_AVIFILE_OK) {
            ++read->frames;
            read->bytes += static_cast<uint64_t>(length);
        }
    });
}

void compare_reading(const Options &options, const std::string &path) {
    std::map<std::string, std::vector<Read>> reads;
    for (uint32_t turn = 0; turn < options.repeat; ++turn) {
        reads["recvault"].push_back(run_apart([&] { return read_file(path); }));
        reads["libavformat"].push_back(run_apart([&] { return demux(path); }));
        reads["without parser"].push_back(run_apart([&] { return demux(path, false); }));
        reads["64 KiB reads"].push_back(run_apart([&] { return read_plainly(path, 0); }));
    }
    const uint64_t frames = uint64_t{options.seconds()} * kFps;
    for (const Read &read : reads.at("recvault")) {
        // The last bytes of a finished file, fewer than 4096, are not read: at most one frame of this size.
        if (read.frames + 1 < frames) throw std::runtime_error("frames were missed");
    }
    std::printf("%u MB in frames of %u bytes, median of %u runs\n", options.megabytes, kFrameBytes, options.repeat);
    std::printf("%-14s %10s %16s %18s\n", "", "CPU s/GB", "to libavformat", "to 64 KiB reads");
    for (const char *name : {"libavformat", "without parser"}) {
        for (const Read &read : reads.at(name)) {
            if (read.frames != frames) throw std::runtime_error("the demuxer missed frames");
        }
    }
    for (const char *name : {"recvault", "libavformat", "without parser", "64 KiB reads"}) {
        const double cpu = median_of(reads.at(name), &Read::cpu);
        std::printf("%-14s %10.3f %16.2f %18.2f\n", name, cpu / (1e-9 * static_cast<double>(frames) * kFrameBytes),
                    cpu / median_of(reads.at("libavformat"), &Read::cpu),
                    cpu / median_of(reads.at("64 KiB reads"), &Read::cpu));
    }
}

// ---- Seeking ----

struct Delays {
    double median = 0, p99 = 0;
};

// To a random second, and the first key frame read there.
Delays seek_in(const std::string &path, const Options &options) {
    kelm_avi_reader reader;
    std::vector<uint8_t> buffer(kelm_avi_reader::kBufferSize);
    check(reader.open_file(path.c_str(), buffer.data()), "open_file");
    std::minstd_rand random(1);
    Samples delays;
    for (uint32_t i = 0; i < options.samples; ++i) {
        const int64_t target = kFirstSecond + 3 + random() % (options.seconds() - 10);
        const uint8_t *frame = nullptr;
        int32_t length = 0;
        const auto begin = Clock::now();
        check(reader.seek_time(target), "seek_time");
        check(reader.read_data(kelm_avi_reader::kKeyFrames, 0, 0x7F, &frame, &length), "read_data");
        delays.add(milliseconds(begin));
        FrameHead head;
        std::memcpy(&head, frame, sizeof head);
        if (std::llabs(int64_t{head.seconds} - target) > 3) throw std::runtime_error("a seek missed its target");
    }
    return {delays.at(0.5), delays.at(0.99)};
}

Delays seek_by_demuxer(const std::string &path, const Options &options) {
    AVFormatContext *demuxer = open_demuxer(path, true);
    // The stream of sound is declared and empty; left on, the demuxer waits at its end after a seek.
    for (unsigned stream = 1; stream < demuxer->nb_streams; ++stream) demuxer->streams[stream]->discard = AVDISCARD_ALL;
    AVPacket *packet = av_packet_alloc();
    std::minstd_rand random(1);
    Samples delays;
    for (uint32_t i = 0; i < options.samples; ++i) {
        const int64_t target = 3 + random() % (options.seconds() - 10);
        const int64_t stamp = av_rescale_q(target, {1, 1}, demuxer->streams[0]->time_base);
        const auto begin = Clock::now();
        if (av_seek_frame(demuxer, 0, stamp, AVSEEK_FLAG_BACKWARD) < 0) throw std::runtime_error("av_seek_frame failed");
        do {
            av_packet_unref(packet);
            if (av_read_frame(demuxer, packet) < 0) throw std::runtime_error("av_read_frame failed");
        } while ((packet->flags & AV_PKT_FLAG_KEY) == 0 || packet->stream_index != 0);
        delays.add(milliseconds(begin));
        const int64_t found = av_rescale_q(packet->dts, demuxer->streams[0]->time_base, {1, 1});
        if (std::llabs(found - target) > 3) throw std::runtime_error("av_seek_frame missed its target");
        av_packet_unref(packet);
    }
    av_packet_free(&packet);
    avformat_close_input(&demuxer);
    return {delays.at(0.5), delays.at(0.99)};
}

// Where the frames of a finished file end and its index begins.
uint64_t frames_end(const std::string &path) {
    const File file(path, O_RDONLY);
    uint32_t list_size = 0;
    if (pread(file.fd(), &list_size, sizeof list_size, kelm_recvault::kMoviListPos + 4) < 0) throw_errno("pread");
    return uint64_t{kelm_recvault::kHeadSize} + list_size - 4;
}

// A copy without the tables in the head and without the index: by its frame heads alone.
void strip(const std::string &from, const std::string &to) {
    fs::copy_file(from, to);
    fs::resize_file(to, frames_end(from));
    const std::vector<char> nothing(sizeof(kelm_recvault::RecSegStrn));
    const File file(to, O_WRONLY);
    if (pwrite(file.fd(), nothing.data(), nothing.size(), kelm_recvault::kStrnPos) < 0) throw_errno("pwrite");
}

void compare_seeking(const Options &options, const std::string &closed, const std::string &growing,
                     const std::string &bare) {
    std::printf("\nseek to %u random seconds of %u, up to the first key frame\n", options.samples, options.seconds());
    std::printf("%-32s %12s %20s\n", "", "median ms", "99th percentile ms");
    const auto print = [](const char *name, const Delays &delays) {
        std::printf("%-32s %12.3f %20.3f\n", name, delays.median, delays.p99);
    };
    print("recvault, closed file", run_apart([&] { return seek_in(closed, options); }));
    print("recvault, growing file", run_apart([&] { return seek_in(growing, options); }));
    print("recvault, no table, no side file", run_apart([&] { return seek_in(bare, options); }));
    print("av_seek_frame, closed file", run_apart([&] { return seek_by_demuxer(closed, options); }));
}

// ---- Repair ----

void compare_repair(const Options &options, const std::string &cut) {
    Samples repairs;
    Samples remuxes;
    const fs::path folder = fs::path(cut).parent_path();
    const std::string copy = folder / "repair.avi";
    const std::string fixed = folder / "fixed.avi";
    for (uint32_t turn = 0; turn < options.repeat; ++turn) {
        fs::copy_file(cut, copy, fs::copy_options::overwrite_existing);
        fs::copy_file(cut + "_idx", copy + "_idx", fs::copy_options::overwrite_existing);
        auto begin = Clock::now();
        check(kelm_recvault::kelm_avi::restore_avi_file(copy.c_str()), "restore_avi_file");
        repairs.add(milliseconds(begin));
        const std::string remux = "ffmpeg -v quiet -y -i " + cut + " -c copy " + fixed + " </dev/null";
        begin = Clock::now();
        if (std::system(remux.c_str()) != 0) throw std::runtime_error("it failed: " + remux);
        remuxes.add(milliseconds(begin));
    }
    if (frames_in_head(copy) < options.seconds() * kFps - 2 * kFps) throw std::runtime_error("the repair lost frames");
    if (frames_in_head(fixed) < options.seconds() * kFps - 2 * kFps) throw std::runtime_error("the remux lost frames");
    std::printf("\nrepair of a cut file of %u MB, median of %u runs\n", options.megabytes, options.repeat);
    std::printf("%-32s %12.2f ms\n%-32s %12.2f ms, %.0f times as long\n", "recvault", repairs.at(0.5), "ffmpeg -c copy",
                remuxes.at(0.5), remuxes.at(0.5) / repairs.at(0.5));
}

// ---- A large store ----

std::string day_name(int64_t second) {
    kelm_recvault::DateTimeFields time{};
    kelm_recvault::CGlobalObject::gmtime_utc(second, &time);
    std::array<char, 16> name{};
    std::snprintf(name.data(), name.size(), "%04d%02d%02d", time.year, time.month, time.day);
    return name.data();
}

std::string device_name(uint32_t device) { return "device-" + std::string(1, static_cast<char>('a' + device)); }

constexpr int64_t kFirstDay = kFirstSecond - kFirstSecond % 86400;

// Small files in the form of a finished one, an hour each: what a scan reads of a file is its size and the tables in its
// head.
uint32_t make_store(const std::string &root, const std::string &pattern, uint32_t days) {
    const File model(pattern, O_RDONLY);
    std::vector<char> bytes(model.size());
    if (pread(model.fd(), bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) throw_errno(pattern);
    uint32_t files = 0;
    for (uint32_t number = 0; number < days * kDevices * kChannels; ++number) {
        const int64_t day = kFirstDay + number / (kDevices * kChannels) * 86400;
        std::array<char, 24> channel{};
        std::snprintf(channel.data(), channel.size(), "channel%02u", number % kChannels + 1);
        const fs::path folder =
            fs::path(root) / "avi_av" / day_name(day) / device_name(number / kChannels % kDevices) / channel.data();
        fs::create_directories(folder);
        for (uint32_t hour = 0; hour < kHours; ++hour, ++files) {
            kelm_recvault::RecSegEntry segment{1, day + hour * 3600, day + hour * 3600 + 3599};
            std::memcpy(bytes.data() + kelm_recvault::kStrnPos + offsetof(kelm_recvault::RecSegStrn, segments), &segment,
                        sizeof segment);
            std::array<char, 16> name{};
            std::snprintf(name.data(), name.size(), "%02u0000.avi", hour);
            const File file(folder / name.data(), O_WRONLY | O_CREAT | O_TRUNC);
            // Pages of zeros stay holes.
            if (ftruncate(file.fd(), static_cast<off_t>(bytes.size())) != 0) throw_errno("ftruncate");
            for (size_t at = 0; at < bytes.size(); at += 4096) {
                const size_t count = std::min<size_t>(4096, bytes.size() - at);
                if (std::all_of(bytes.data() + at, bytes.data() + at + count, [](char byte) { return byte == 0; })) continue;
                if (pwrite(file.fd(), bytes.data() + at, count, static_cast<off_t>(at)) < 0) throw_errno("pwrite");
            }
        }
    }
    return files;
}

struct Store {
    double first_s = 0, again_s = 0;  // adding it, without and with index files
    double sweep_cpu = 0;
    Delays day, all;
    std::array<Delays, 2> sql_day, sql_all;  // without and with a look at each file
    uint64_t rows_day = 0, rows_all = 0;     // of all queries together
};

// The same rows in a table, as somebody would who keeps the index in a database.
class Table {
 public:
    explicit Table(const std::string &path) {
        if (sqlite3_open(path.c_str(), &m_base) != SQLITE_OK) throw std::runtime_error("no database " + path);
        run("CREATE TABLE files(device INTEGER, channel INTEGER, begin INTEGER, end INTEGER, type INTEGER, size INTEGER, "
            "path TEXT); CREATE INDEX by_time ON files(device, channel, begin); CREATE INDEX by_device ON files(device, "
            "begin); BEGIN");
    }
    ~Table() { sqlite3_close(m_base); }
    Table(const Table &) = delete;
    Table &operator=(const Table &) = delete;

    void run(const std::string &text) {
        if (sqlite3_exec(m_base, text.c_str(), nullptr, nullptr, nullptr) != SQLITE_OK) throw std::runtime_error(text);
    }
    void insert(uint32_t device, const kelm_recvault::RecFileNode &node) {
        run("INSERT INTO files VALUES(" + std::to_string(device) + "," + std::to_string(node.channel) + "," +
            std::to_string(node.begin_sec) + "," + std::to_string(node.end_sec) + "," + std::to_string(node.type) + "," +
            std::to_string(node.file_size) + ",'" + node.rec_file_path + "')");
    }
    // The rows of a day, on one channel or, below 0, on all; read to the end. With `look` those whose file is there, which
    // is what the store promises.
    uint32_t query(uint32_t device, int32_t channel, int64_t begin, bool look) {
        const char *const text = channel < 0
                                     ? "SELECT * FROM files WHERE device=?1 AND begin BETWEEN ?3 AND ?4 ORDER BY begin"
                                     : "SELECT * FROM files WHERE device=?1 AND channel=?2 AND begin BETWEEN ?3 AND ?4 "
                                       "ORDER BY begin";
        sqlite3_stmt *statement = nullptr;
        sqlite3_prepare_v2(m_base, text, -1, &statement, nullptr);
        sqlite3_bind_int(statement, 1, static_cast<int>(device));
        if (channel >= 0) sqlite3_bind_int(statement, 2, channel);
        sqlite3_bind_int64(statement, 3, begin);
        sqlite3_bind_int64(statement, 4, begin + 86399);
        uint32_t rows = 0;
        uint64_t length = 0;
        while (sqlite3_step(statement) == SQLITE_ROW) {
            const auto *const path = reinterpret_cast<const char *>(sqlite3_column_text(statement, 6));
            length += std::strlen(path);
            if (!look || access(path, F_OK) == 0) ++rows;
        }
        sqlite3_finalize(statement);
        return length > 0 ? rows : 0;
    }

 private:
    sqlite3 *m_base = nullptr;
};

// Processor time of the monitor's sweep. Each finds a file that was removed behind the system's back.
double sweep(const std::string &root, const Options &options) {
    using namespace kelm_recvault;
    CDisk disk;
    check(disk.Initialize(0, {1ULL << 40U, 1ULL << 40U, 0, 1}, (root + "/avi_av/").c_str()), "CDisk::Initialize");
    Samples sweeps;
    for (uint32_t turn = 0; turn < options.repeat; ++turn) {
        const fs::path vanished = only_file(root);
        const uint64_t size = fs::file_size(vanished);
        const uint64_t used = disk.GetRecUsedSpace();
        fs::remove(vanished);
        const double before = cpu_seconds(RUSAGE_SELF);
        disk.CheckRecFileExist();
        sweeps.add(cpu_seconds(RUSAGE_SELF) - before);
        if (disk.GetRecUsedSpace() != used - size) throw std::runtime_error("the sweep missed a vanished file");
    }
    disk.Destroy();
    return sweeps.at(0.5);
}

Store measure_store(const std::string &root, const std::string &database, const Options &options) {
    using namespace kelm_recvault;
    Store result;
    const auto add = [&root] {
        RecPartitionInfo info{};
        if (root.size() >= sizeof info.path) throw std::runtime_error("too long a path for a partition: " + root);
        root.copy(info.path, sizeof info.path - 1);
        info.rec_space = info.disk_space = 1ULL << 40U;
        const auto begin = Clock::now();
        check(KELM_AviFile_AddRecPartition(&info), "KELM_AviFile_AddRecPartition");
        return milliseconds(begin) / 1e3;
    };
    check(KELM_AviFile_Init(0), "KELM_AviFile_Init");
    result.first_s = add();
    check(KELM_AviFile_DelRecPartition(root.c_str()), "KELM_AviFile_DelRecPartition");
    result.again_s = add();
    CStorageMngr &storage = CGlobalObject::Instance().StorageMngr();
    std::array<int32_t, kDevices> numbers{};
    const auto query = [&](uint32_t device, int32_t channel, int64_t day) {
        RecFileSet files;
        check(storage.QueryRecFile({static_cast<uint32_t>(numbers[device]), channel, kAllRecTypes, false}, day, day + 86399,
                                   true, &files),
              "QueryRecFile");
        return files;
    };
    Table table(database);
    for (uint32_t device = 0; device < kDevices; ++device) {
        check(KELM_AviFile_CreateDevHandle(&numbers[device], device_name(device).c_str()), "KELM_AviFile_CreateDevHandle");
        for (uint32_t day = 0; day < options.days; ++day) {
            for (const RecFileNode &node : query(device, kAllChannels, kFirstDay + day * 86400)) {
                if (node.begin_sec >= kFirstDay + day * 86400) table.insert(device, node);
            }
        }
    }
    table.run("COMMIT");
    const auto timed = [&](auto &&ask, uint64_t *rows) {
        std::minstd_rand random(2);
        Samples delays;
        for (uint32_t i = 0; i < options.samples; ++i) {
            const uint32_t device = static_cast<uint32_t>(random()) % kDevices;
            const auto channel = static_cast<int32_t>(random() % kChannels);
            const int64_t day = kFirstDay + 86400 * (random() % options.days);
            const auto begin = Clock::now();
            *rows += ask(device, channel, day);
            delays.add(milliseconds(begin));
        }
        return Delays{delays.at(0.5), delays.at(0.99)};
    };
    result.day =
        timed([&](auto d, auto c, auto t) { return static_cast<uint32_t>(query(d, c, t).size()); }, &result.rows_day);
    result.all = timed([&](auto d, auto, auto t) { return static_cast<uint32_t>(query(d, kAllChannels, t).size()); },
                       &result.rows_all);
    for (const bool look : {false, true}) {
        uint64_t table_day = 0, table_all = 0;
        result.sql_day[look] = timed([&](auto d, auto c, auto t) { return table.query(d, c, t, look); }, &table_day);
        result.sql_all[look] = timed([&](auto d, auto, auto t) { return table.query(d, -1, t, look); }, &table_all);
        if (result.rows_day != table_day || result.rows_all != table_all || table_day == 0 || table_all == 0) {
            throw std::runtime_error("the queries of the store and of the table differ");
        }
    }
    check(KELM_AviFile_DelRecPartition(root.c_str()), "KELM_AviFile_DelRecPartition");
    result.sweep_cpu = sweep(root, options);
    KELM_AviFile_UnInit(0);
    return result;
}

void compare_store(const Options &options, const std::string &pattern) {
    const TempFolder folder(options.folder);
    const uint32_t files = make_store(folder.path(), pattern, options.days);
    const TempFolder base(options.folder);
    const Store store = run_apart([&] { return measure_store(folder.path(), base.path() + "/files.db", options); });
    std::printf("\n%u devices x %u channels x %u days x %u files: %u\n", kDevices, kChannels, options.days, kHours, files);
    std::printf("%-40s %8.2f s, %6.2f us a file\n", "adding the partition, no index there", store.first_s,
                store.first_s * 1e6 / files);
    std::printf("%-40s %8.2f s, %6.2f us a file\n", "adding it again", store.again_s, store.again_s * 1e6 / files);
    std::printf("%-40s %8.2f s for 100 000 records\n", "the monitor's sweep, CPU", store.sweep_cpu * 1e5 / files);
    std::printf("%-52s %12s %20s\n", "", "median ms", "99th percentile ms");
    const auto print = [](const std::string &name, const Delays &delays) {
        std::printf("%-52s %12.3f %20.3f\n", name.c_str(), delays.median, delays.p99);
    };
    const std::string day = ", a channel and day: " + std::to_string(store.rows_day / options.samples) + " files";
    const std::string all = ", a day of all channels: " + std::to_string(store.rows_all / options.samples);
    print("recvault" + day, store.day);
    print("SQLite" + day, store.sql_day[0]);
    print("SQLite, looks at files" + day, store.sql_day[1]);
    print("recvault" + all, store.all);
    print("SQLite" + all, store.sql_all[0]);
    print("SQLite, looks at files" + all, store.sql_all[1]);
}

// A file that is still being recorded, copied with its side file: what a crash leaves.
void copy_growing(const std::string &root, const Options &options, const std::string &to) {
    const Frames frames(1, kFrameBytes);
    Recorder recorder(root, frames);
    recorder.start();
    deliver_seconds(&recorder, options.seconds());
    recorder.drain();
    const std::string growing = only_file(root);
    fs::copy_file(growing, to);
    fs::copy_file(growing + "_idx", to + "_idx");
    recorder.stop();
}

void compare(const Options &options) {
    require_room(options.folder, kSpareRoom + (uint64_t{options.megabytes} << 22U) + uint64_t{options.days} * (180U << 20U));
    const TempFolder store(options.folder);
    const TempFolder files(options.folder);
    const std::string growing = files.path() + "/growing.avi";
    const std::string bare = files.path() + "/bare.avi";
    run_apart([&] {
        copy_growing(store.path(), options, growing);
        return 0;
    });
    const std::string closed = only_file(store.path());
    strip(closed, bare);
    compare_reading(options, closed);
    compare_seeking(options, closed, growing, bare);
    compare_repair(options, growing);
    const TempFolder small(options.folder);
    run_apart([&] {
        record(small.path(), 1, 1, kSmallFrame);
        return 0;
    });
    compare_store(options, only_file(small.path()));
}

}  // namespace

int main(int argc, char **argv) {
    Options options;
    CLI::App app("What it costs to keep a store");
    app.add_option("--megabytes", options.megabytes, "Size of the file that is read")->check(CLI::Range(10, 900));
    app.add_option("--repeat", options.repeat, "Runs of each contestant")->check(CLI::Range(1, 100))->capture_default_str();
    app.add_option("--samples", options.samples, "Seeks and queries that are timed")->capture_default_str();
    app.add_option("--days", options.days, "Days of the large store")->check(CLI::Range(1, 31))->capture_default_str();
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
