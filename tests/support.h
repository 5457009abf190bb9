// What the tests share: a folder that goes away, frames, the log, and a reading of record files and index files by the plain
// offsets of docs/format.md, so that a mistake in the library's own structures shows.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <recvault/recvault.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "platform/testing/clock.h"
#include "platform/testing/faults.h"

namespace recvault_tests {

namespace fs = std::filesystem;
namespace doubles = kelm_recvault::platform::testing;

// 2026-11-24 10:00:00 on the wall clock.
constexpr uint32_t kTenOClock = 1795514400;
constexpr uint32_t kMidnight = kTenOClock + 14 * 3600;

class TempDir {
 public:
    TempDir() {
        std::string pattern = (fs::temp_directory_path() / "recvault-XXXXXX").string();
        m_path = mkdtemp(pattern.data());
    }
    ~TempDir() {
        std::error_code ignored;
        fs::remove_all(m_path, ignored);
    }
    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;
    const std::string &path() const { return m_path; }
    std::string operator/(const std::string &name) const { return m_path + "/" + name; }

 private:
    std::string m_path;
};

// Waits for an event with a deadline that no healthy run comes near.
inline bool wait_until(const std::function<bool()> &condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

// Runs something and gives what it wrote to the log.
inline std::string log_of(const std::function<void()> &run) {
    testing::internal::CaptureStderr();
    run();
    return testing::internal::GetCapturedStderr();
}

struct Frame {
    FrameHead head{};
    std::vector<uint8_t> data;
};

constexpr uint32_t kKey = 1;
constexpr uint32_t kInter = 9;
constexpr uint32_t kAudio = 8;

inline Frame make_frame(uint32_t type, uint32_t number, uint32_t sec, uint32_t usec, uint32_t size) {
    Frame frame;
    frame.head.uiStartId = KELM_AVIFILE_FRAME_START_ID;
    frame.head.type = type;
    frame.head.frame_no = number;
    frame.head.seconds = sec;
    frame.head.microseconds = usec;
    frame.head.length = size;
    frame.head.width = 640;
    frame.head.height = 360;
    frame.head.codec_id = 1;
    if (type == kAudio) {
        frame.head.width = 0;
        frame.head.audio_codec = 1;
    }
    frame.data.resize(size);
    for (uint32_t i = 0; i < size; ++i) frame.data[i] = static_cast<uint8_t>(number * 31 + i * 7 + type);
    return frame;
}

inline std::string read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

template <class T>
T at(const std::string &bytes, size_t offset) {
    T value{};
    if (offset + sizeof(T) > bytes.size()) throw std::out_of_range("offset " + std::to_string(offset));
    std::memcpy(&value, bytes.data() + offset, sizeof(T));
    return value;
}

// A frame record of a record file.
struct StoredFrame {
    size_t position;
    uint32_t type, second, microsecond, length, rec_type, prev_size, file_pos, chunk_size;
    std::string chunk, data;
};

// A record file, read by offsets. `frames` holds the whole records up to the movi end, or to the end of a cut file.
struct StoredFile {
    explicit StoredFile(const std::string &path) : bytes(read_file(path)) {
        const auto movi_size = at<uint32_t>(bytes, 77816);
        movi_end = movi_size == 0 ? bytes.size() : movi_size + 77820;
        for (size_t pos = 77824; pos + 64 <= movi_end;) {
            const auto chunk_size = at<uint32_t>(bytes, pos + 60);
            if (bytes.compare(pos, 4, "JUNK") != 0 || pos + 64 + chunk_size > movi_end) break;
            const auto length = at<uint32_t>(bytes, pos + 28);
            frames.push_back({pos, at<uint32_t>(bytes, pos + 12), at<uint32_t>(bytes, pos + 20),
                              at<uint32_t>(bytes, pos + 24), length, at<uint32_t>(bytes, pos + 44),
                              at<uint32_t>(bytes, pos + 48), at<uint32_t>(bytes, pos + 52), chunk_size,
                              bytes.substr(pos + 56, 4), bytes.substr(pos + 64, length)});
            pos += 64 + chunk_size;
            frames_end = pos;
        }
    }
    uint32_t word(size_t offset) const { return at<uint32_t>(bytes, offset); }
    int count(const std::string &chunk) const {
        int found = 0;
        for (const auto &frame : frames) found += frame.chunk == chunk ? 1 : 0;
        return found;
    }
    // What every file that was closed in good order keeps.
    void ExpectComplete() const {
        EXPECT_EQ(word(4), bytes.size() - 8);
        EXPECT_EQ(frames_end, movi_end);
        ASSERT_EQ(bytes.substr(movi_end, 4), "idx1");
        const size_t entries = word(movi_end + 4) / 16;
        EXPECT_EQ(movi_end + 8 + entries * 16, bytes.size());
        ASSERT_EQ(entries, frames.size());
        for (size_t i = 0; i < entries; ++i) {
            const size_t entry = movi_end + 8 + i * 16;
            EXPECT_EQ(bytes.substr(entry, 4), frames[i].chunk);
            EXPECT_EQ(word(entry + 8) - 60 + 77824, frames[i].position);
        }
        EXPECT_EQ(static_cast<int>(word(48)), count("00dc"));
        EXPECT_EQ(word(140), word(48));
        EXPECT_EQ(static_cast<int>(word(74288)), count("01wb"));
    }

    std::string bytes;
    size_t movi_end;
    size_t frames_end = 77824;
    std::vector<StoredFrame> frames;
};

// A record of an index file.
struct StoredRecord {
    std::string name;
    uint32_t channel, type, is_recording;
    int32_t file_size;
    int64_t begin_sec, end_sec;
};

inline std::vector<StoredRecord> read_index(const std::string &path) {
    const std::string bytes = read_file(path);
    EXPECT_EQ(bytes.size() % 312, 0U);
    std::vector<StoredRecord> records;
    for (size_t pos = 0; pos + 312 <= bytes.size(); pos += 312) {
        records.push_back({bytes.c_str() + pos + 8, at<uint32_t>(bytes, pos), at<uint32_t>(bytes, pos + 4),
                           at<uint32_t>(bytes, pos + 292), at<int32_t>(bytes, pos + 264), at<int64_t>(bytes, pos + 272),
                           at<int64_t>(bytes, pos + 280)});
    }
    return records;
}

// Full paths below a folder whose names end in `ending`, sorted. Folders may vanish meanwhile.
inline std::vector<std::string> find_files(const std::string &folder, const std::string &ending) {
    std::vector<std::string> found;
    std::error_code error;
    for (fs::recursive_directory_iterator entry(folder, error), end; entry != end && !error; entry.increment(error)) {
        const std::string path = entry->path().string();
        if (path.ends_with(ending) && entry->is_regular_file(error)) found.push_back(path);
    }
    std::sort(found.begin(), found.end());
    return found;
}

// The library with one partition and one device, and a camera that counts its frames.
class RecordingTest : public testing::Test {
 protected:
    void SetUp() override {
        // The sweep for silent channels goes by the clock, and closes the files of a past that is long over.
        setenv("TZ", "UTC", 1);
        doubles::set_true_time(kTenOClock);
        ASSERT_EQ(KELM_AviFile_Init(0), 0);
        ASSERT_EQ(AddPartition(store.path()), 0);
        ASSERT_EQ(KELM_AviFile_CreateDevHandle(&device, "cam"), 0);
    }
    void TearDown() override {
        doubles::clear_faults();
        KELM_AviFile_UnInit(0);
        doubles::show_system_time();
    }

    static int32_t AddPartition(const std::string &path, uint64_t space = 100ULL << 30, int32_t priority = 1,
                                uint32_t max_save_hour = 0) {
        RecPartitionInfo info{};
        std::strncpy(info.path, path.c_str(), sizeof(info.path) - 1);
        info.priority = priority;
        info.rec_space = info.disk_space = space;
        info.max_save_hour = max_save_hour;
        return KELM_AviFile_AddRecPartition(&info);
    }
    int32_t Deliver(const Frame &frame, uint32_t channel = 0) const {
        return KELM_AviFile_DataInput(channel, &frame.head, 36, frame.data.data(), static_cast<uint32_t>(frame.data.size()),
                                      frame.head.seconds, frame.head.microseconds, device);
    }
    int32_t DeliverKey(uint32_t sec, uint32_t usec = 0, uint32_t size = 1000) {
        return Deliver(make_frame(kKey, number++, sec, usec, size));
    }
    int32_t DeliverInter(uint32_t sec, uint32_t usec = 0, uint32_t size = 1000) {
        return Deliver(make_frame(kInter, number++, sec, usec, size));
    }
    std::string Folder(uint32_t channel = 0, const std::string &day = "20261124") const {
        char name[32];
        std::snprintf(name, sizeof(name), "/channel%02u/", channel + 1);
        return store.path() + "/avi_av/" + day + "/cam" + name;
    }
    std::vector<std::string> Files() const { return find_files(store.path(), ".avi"); }
    uint64_t UsedSpace() const {
        uint64_t used = 0;
        EXPECT_EQ(KELM_AviFile_GetRecUsedSpace(store.path().c_str(), &used), 0);
        return used;
    }

    TempDir store;
    int32_t device = 0;
    uint32_t number = 0;
};

}  // namespace recvault_tests
