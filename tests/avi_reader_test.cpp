// Reading a record file back, finding a time in it, and mending one that was cut.
#include "avi/avi_reader.h"

#include "avi/avi_common.h"
#include "avi/avi_writer.h"
#include "avi/h264avi.h"
#include "support.h"

using namespace kelm_recvault;
using namespace recvault_tests;

namespace {

void write_file(const std::string &path, const std::string &bytes) { std::ofstream(path, std::ios::binary) << bytes; }

struct Delivered {
    uint32_t type, number, second;
    std::string data;
    bool operator==(const Delivered &other) const = default;
};

void PrintTo(const Delivered &frame, std::ostream *out) { *out << frame.type << "/" << frame.number; }

class AviReader : public testing::Test {
 protected:
    // Four seconds, 5 frames a second with a key frame each second, sizes odd and even, five audio frames behind each. With
    // `finish` false the file is left as a crash would leave it.
    void Record(bool finish = true, uint32_t seconds = 4, uint32_t frame_size = 3000) {
        ASSERT_EQ(ring.Initialize(true), 0);
        ASSERT_EQ(writer.open_file(path.c_str(), 640, 360, &ring), 0);
        for (uint32_t i = 0; i < seconds * 5; ++i) {
            Put(make_frame(i % 5 == 0 ? kKey : kInter, i, kTenOClock + i / 5, i % 5 * 200000, frame_size + i));
            for (int n = 0; n < 5; ++n) Put(make_frame(kAudio, 0, kTenOClock + i / 5, i % 5 * 200000, 161));
            ASSERT_TRUE(wait_until([&] { return fs::file_size(path + "_idx") == (i + 1) * 240; }));
        }
        if (!finish) {  // the image that a crash leaves, once everything in the ring has been written
            writer.close_fast(nullptr, nullptr);
            fs::copy(path, path + ".keep");
            std::string bytes = read_file(path + ".keep");
            const std::string head = read_file(path);
            bytes.replace(4, 4, 4, '\0');
            bytes.replace(77816, 4, 4, '\0');
            bytes.replace(228, 74008, 74008, '\0');
            write_file(path + ".cut", bytes);
            fs::rename(path + "_idx", path + ".cut_idx");
            fs::remove(path + ".keep");
            whole = bytes;
            side = read_file(path + ".cut_idx");
            writer.reset();
        } else {
            writer.close(nullptr, nullptr);
        }
        ring.Uninitialize();
    }
    void Put(const Frame &frame) {
        ASSERT_EQ(writer.write_data(frame.head, frame.data.data(), static_cast<uint32_t>(frame.data.size())), 0);
        frames.push_back({frame.head.type, frame.head.frame_no, frame.head.seconds,
                          std::string(reinterpret_cast<const char *>(frame.data.data()), frame.data.size())});
    }
    std::vector<Delivered> ReadAll(const std::string &file, int32_t mode = 3, int32_t skip = 0, uint32_t types = 0x7F) {
        std::vector<Delivered> got;
        if (reader.open_file(file.c_str(), buffer.data()) != 0) return got;
        ReadOn(&got, mode, skip, types);
        return got;
    }
    int32_t ReadOn(std::vector<Delivered> *got, int32_t mode = 3, int32_t skip = 0, uint32_t types = 0x7F) {
        const uint8_t *frame = nullptr;
        int32_t length = 0;
        int32_t result = 0;
        while ((result = reader.read_data(mode, skip, types, &frame, &length)) == 0) {
            FrameHead head;
            std::memcpy(&head, frame, sizeof(head));
            got->push_back({head.type, head.frame_no, head.seconds,
                            std::string(reinterpret_cast<const char *>(frame) + 36, static_cast<size_t>(length - 36))});
        }
        return result;
    }
    // A closed file's last bytes, fewer than 4096, are never loaded.
    std::vector<Delivered> WithoutTail(int64_t movi_end) const {
        std::vector<Delivered> expected;
        int64_t at = 77824;
        for (const auto &frame : frames) {
            at += 64 + static_cast<int64_t>(frame.data.size() + frame.data.size() % 2);
            if (at <= movi_end - movi_end % 4096) expected.push_back(frame);
        }
        return expected;
    }

    TempDir dir;
    std::string path = dir / "100000.avi";
    CPacketManager ring;
    kelm_avi_writer writer;
    kelm_avi_reader reader;
    std::vector<uint8_t> buffer = std::vector<uint8_t>(kelm_avi_reader::kBufferSize);
    std::vector<Delivered> frames;
    std::string whole, side;  // of a cut file
};

size_t record_pos(const std::string &side, size_t number) { return at<uint32_t>(side, number * 40 + 16); }

}  // namespace

TEST_F(AviReader, ReadsFramesThatFillItsBufferAndPassesOverThemUnread) {
    Record(true, 3, 500000);
    const auto expected = WithoutTail(static_cast<int64_t>(StoredFile(path).movi_end));
    EXPECT_EQ(ReadAll(path), expected);
    size_t audio = 0;
    for (const auto &frame : expected) audio += frame.type == kAudio ? 1 : 0;
    EXPECT_EQ(ReadAll(path, kelm_avi_reader::kAudioFrames).size(), audio);
}

// A file that grows byte by byte: each frame comes once, in order, as soon as it is whole.
TEST_F(AviReader, FollowsAGrowingFile) {
    Record(false);
    const std::string growing = dir / "growing.avi";
    write_file(growing, whole.substr(0, 77825));
    std::vector<Delivered> got;
    ASSERT_EQ(reader.open_file(growing.c_str(), buffer.data()), 0);
    for (size_t size = 77825; size < whole.size();) {
        EXPECT_EQ(ReadOn(&got), KELM_AVIFILE_END_OF_DATA);
        size_t complete = 0;
        while (complete < frames.size() &&
               (complete + 1 == frames.size() ? whole.size() : record_pos(side, complete + 1)) <= size) {
            ++complete;
        }
        ASSERT_EQ(got.size(), complete) << size;
        size = std::min(size + 977, whole.size());
        write_file(growing, whole.substr(0, size));
    }
    ReadOn(&got);
    EXPECT_EQ(got, frames);
}

TEST_F(AviReader, LosesTheDamagedRecordAlone) {
    Record(false);
    struct Damage {
        const char *what;
        size_t offset;  // in the record
        uint32_t value;
    };
    const Damage damages[] = {{"junk code", 0, 0},
                              {"start mark", 8, 1},
                              {"odd size", 60, 3001},
                              {"size past the buffer", 60, 0x200000},
                              {"negative size", 60, 0xFFFFFFFE},
                              {"length above size", 28, 4000},
                              {"huge length", 28, 0xFFFFFFFF}};
    for (const Damage &damage : damages) {
        const size_t victim = 12;  // a video frame in the middle
        std::string bytes = whole;
        std::memcpy(bytes.data() + record_pos(side, victim) + damage.offset, &damage.value, 4);
        write_file(dir / "damaged.avi", bytes);
        auto expected = frames;
        expected.erase(expected.begin() + victim);
        for (int32_t mode : {3, 2}) {
            auto wanted = expected;
            if (mode == 2) std::erase_if(wanted, [](const Delivered &frame) { return frame.type == kAudio; });
            EXPECT_EQ(ReadAll(dir / "damaged.avi", mode), wanted) << damage.what << " mode " << mode;
        }
    }
    std::string bytes = whole;
    bytes.insert(record_pos(side, 12), "garbage with a JUNK in it, and more");
    write_file(dir / "damaged.avi", bytes);
    EXPECT_EQ(ReadAll(dir / "damaged.avi"), frames);
}

TEST_F(AviReader, RefusesHeadsThatAreNone) {
    Record(false);
    const std::pair<size_t, uint32_t> flips[] = {{0, 0},  {8, 0},  {12, 0},    {16, 5},   {16, 0xFFFFFFFF},
                                                 {20, 0}, {24, 0}, {77812, 0}, {77820, 0}};
    for (const auto &[offset, value] : flips) {
        std::string bytes = whole;
        std::memcpy(bytes.data() + offset, &value, 4);
        write_file(dir / "bad.avi", bytes);
        EXPECT_EQ(reader.open_file((dir / "bad.avi").c_str(), buffer.data()), KELM_AVIFILE_FAILED) << offset;
        EXPECT_FALSE(reader.is_opened());
    }
    for (size_t size : {0, 3, 100, 300, 77823, 77824}) {
        write_file(dir / "bad.avi", whole.substr(0, size));
        EXPECT_EQ(reader.open_file((dir / "bad.avi").c_str(), buffer.data()), KELM_AVIFILE_FAILED) << size;
    }
    // Counts that no table can have make it empty, and the file is read as a growing one.
    std::string bytes = whole;
    for (size_t offset : {220 + 2008, 220 + 74012}) std::memset(bytes.data() + offset, 0xEE, 4);
    write_file(dir / "bad.avi", bytes);
    EXPECT_EQ(ReadAll(dir / "bad.avi"), frames);
}

TEST_F(AviReader, SeeksThroughItsTableTheSideFileAndTheFramesAlone) {
    Record(false, 40);
    fs::copy(path + ".cut", dir / "bare.avi");
    fs::copy(path + ".cut", dir / "mended.avi");
    fs::copy(path + ".cut_idx", dir / "mended.avi_idx");
    ASSERT_EQ(avi_restore_file((dir / "mended.avi").c_str()), 0);
    for (const std::string &file : {dir / "mended.avi", path + ".cut", dir / "bare.avi"}) {
        ASSERT_EQ(reader.open_file(file.c_str(), buffer.data()), 0);
        for (uint32_t target : {0U, 1U, 17U, 20U, 39U}) {
            ASSERT_EQ(reader.seek_time(kTenOClock + target), 0) << file << " " << target;
            const uint8_t *frame = nullptr;
            int32_t length = 0;
            ASSERT_EQ(reader.read_data(kelm_avi_reader::kKeyFrames, 0, 0x7F, &frame, &length), 0) << file << " " << target;
            const auto second = static_cast<int64_t>(reinterpret_cast<const FrameHead *>(frame)->seconds) - kTenOClock;
            EXPECT_LE(std::abs(second - static_cast<int64_t>(target)), 3) << file << " " << target;
        }
        reader.set_reverse(true);
        const uint8_t *frame = nullptr;
        int32_t length = 0;
        EXPECT_EQ(reader.read_data(3, 0, 0x7F, &frame, &length), KELM_AVIFILE_FAILED);
        reader.set_reverse(false);
        EXPECT_EQ(reader.read_data(3, 0, 0x7F, &frame, &length), 0);
    }
}

// ---- Repair ----

// The file is cut at every byte of its last two records, with the side file whole: exactly the whole frames survive.
TEST_F(AviReader, RepairKeepsEachWholeFrameWhereverTheFileWasCut) {
    Record(false, 2, 200);
    const std::string cut = dir / "cut.avi";
    for (size_t size = record_pos(side, frames.size() - 2); size <= whole.size(); ++size) {
        write_file(cut, whole.substr(0, size));
        write_file(cut + "_idx", side);
        ASSERT_EQ(avi_restore_file(cut.c_str()), 0);
        const size_t survivors = frames.size() - (size == whole.size()                          ? 0
                                                  : size >= record_pos(side, frames.size() - 1) ? 1
                                                                                                : 2);
        StoredFile file(cut);
        ASSERT_EQ(file.frames.size(), survivors) << size;
        file.ExpectComplete();
        for (size_t i = 0; i < survivors; ++i) ASSERT_EQ(file.frames[i].data, frames[i].data);
        ASSERT_FALSE(fs::exists(cut + "_idx"));
    }
    std::cout << "count: cut at each of " << whole.size() + 1 - record_pos(side, frames.size() - 2)
              << " bytes, the whole frames survive\n";
    for (size_t size : {0, 1, 12, 20, 24, 100, 212, 220, 74236, 77812, 77823}) {  // inside the head: no record file
        write_file(cut, whole.substr(0, size));
        write_file(cut + "_idx", side);
        EXPECT_EQ(avi_restore_file(cut.c_str()), KELM_AVIFILE_NO_FILE) << size;
        EXPECT_FALSE(fs::exists(cut + "_idx"));
    }
    write_file(cut, whole.substr(0, 77824));
    write_file(cut + "_idx", side);
    EXPECT_EQ(avi_restore_file(cut.c_str()), 0);
    EXPECT_EQ(StoredFile(cut).frames.size(), 0U);
    EXPECT_EQ(avi_restore_file(cut.c_str()), KELM_AVIFILE_FAILED);  // there is no side file any more
}

TEST_F(AviReader, RepairKeepsFramesThatTheSideFileDoesNotKnow) {
    Record(false, 2, 200);
    const std::string cut = dir / "cut.avi";
    for (size_t size = side.size() - 40; size <= side.size(); ++size) {
        write_file(cut, whole);
        write_file(cut + "_idx", side.substr(0, size));
        ASSERT_EQ(avi_restore_file(cut.c_str()), 0);
        StoredFile file(cut);
        ASSERT_EQ(file.frames.size(), frames.size());             // all are in the file
        EXPECT_EQ(file.word(file.movi_end + 4) / 16, size / 40);  // and as many in its index
    }
    // Between the stages of the close: a begun index is no part of the frames.
    write_file(cut, whole + std::string("idx1\0\0\0\0"
                                        "00dc",
                                        12));
    write_file(cut + "_idx", side);
    ASSERT_EQ(avi_restore_file(cut.c_str()), 0);
    StoredFile(cut).ExpectComplete();
    uint32_t type = 0;
    int64_t begin = 0;
    int64_t end = 0;
    EXPECT_EQ(avi_get_recinfo_by_name(cut.c_str(), &type, &begin, &end), 0);
    EXPECT_EQ(begin, kTenOClock);
    EXPECT_EQ(end, kTenOClock + 1);
    RecSegEntry entries[100];
    int32_t count = 100;
    EXPECT_EQ(avi_get_recseg_by_name(cut.c_str(), entries, &count), 0);
    EXPECT_EQ(count, 1);
    int32_t total = 0;
    EXPECT_EQ(kelm_avi::avi_get_data_size(cut.c_str(), 0, INT64_MAX, 1, &total), 0);
    EXPECT_EQ(total, static_cast<int32_t>(10 * (200 + 36 + 5 * (161 + 36)) + 45));
}

TEST_F(AviReader, RepairSurvivesHostileSideFiles) {
    Record(false, 2, 200);
    const std::string cut = dir / "cut.avi";
    uint32_t seed = 7;
    const auto random = [&seed] { return (seed = seed * 1664525 + 1013904223) >> 8; };
    for (int round = 0; round < 300; ++round) {
        std::string bytes = side;
        for (int n = 0; n < 5; ++n) bytes[random() % bytes.size()] = static_cast<char>(random());
        write_file(cut, whole);
        write_file(cut + "_idx", bytes);
        const int32_t result = avi_restore_file(cut.c_str());
        ASSERT_TRUE(result == 0 || result == KELM_AVIFILE_NO_FILE);
        ASSERT_EQ(StoredFile(cut).frames.size(), frames.size());  // the frames do not depend on it
        ReadAll(cut);
    }
}

TEST_F(AviReader, RepairOnAFullDiskLeavesTheSideFileForTheNextOne) {
    Record(false, 2, 200);
    doubles::inject({.call = doubles::Call::write, .path_end = ".cut", .error = ENOSPC, .written_before = 100});
    EXPECT_EQ(avi_restore_file((path + ".cut").c_str()), KELM_AVIFILE_FAILED);
    doubles::clear_faults();
    EXPECT_EQ(avi_restore_file((path + ".cut").c_str()), 0);
    StoredFile(path + ".cut").ExpectComplete();
    EXPECT_EQ(StoredFile(path + ".cut").frames.size(), frames.size());
}
