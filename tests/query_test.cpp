// What an application asks of the store: stretches of recording, files, and their deletion by channel and day.
#include "support.h"

using namespace recvault_tests;

namespace {

constexpr uint32_t kAll = KELM_AVIFILE_ALL_CHANNELS;

class Query : public RecordingTest {
 protected:
    void RecordFile(uint32_t channel, uint32_t sec, uint32_t seconds = 10, int32_t type = 1) {
        ASSERT_EQ(KELM_AviFile_RecStart(channel, type, device), 0);
        for (uint32_t i = 0; i < seconds; ++i) Deliver(make_frame(kKey, i, sec + i, 0, 1000), channel);
        ASSERT_EQ(KELM_AviFile_RecStop(channel, device), 0);
    }
    struct Stretch {
        int64_t begin, end;
        uint32_t type;
        bool operator==(const Stretch &) const = default;
        friend void PrintTo(const Stretch &s, std::ostream *out) { *out << s.begin << '-' << s.end << '/' << s.type; }
    };
    std::vector<Stretch> Stretches(uint32_t channel, int64_t begin, int64_t end, int32_t type = 8) const {
        RecSegNode *head = nullptr;
        int32_t count = -1;
        EXPECT_EQ(KELM_AviFile_GetRecSegList(channel, begin, end, type, &head, &count, device), 0);
        std::vector<Stretch> found;
        for (const RecSegNode *node = head; node != nullptr; node = node->next) {
            found.push_back({node->begin_sec - kTenOClock, node->end_sec - kTenOClock, node->type});
        }
        EXPECT_EQ(found.size(), static_cast<size_t>(count));
        EXPECT_EQ(KELM_AviFile_ReleaseRecSegList(head), head == nullptr ? KELM_AVIFILE_BAD_ARGUMENT : 0);
        return found;
    }
    std::vector<std::string> Walk(uint32_t channel, int64_t day) const {
        uint32_t handle = 0;
        EXPECT_EQ(KELM_AviFile_QueryRecFilesStart(&handle, channel, day, device), 0);
        std::vector<std::string> found;
        RecFileInfo info{};
        while (KELM_AviFile_GetNextRecFile(handle, &info) == 0) {
            EXPECT_EQ(static_cast<uintmax_t>(info.file_size) + 8 + 16 * StoredFile(info.file_path).frames.size(),
                      fs::file_size(info.file_path));
            found.push_back(info.file_path);
        }
        EXPECT_EQ(KELM_AviFile_GetNextRecFile(handle, &info), KELM_AVIFILE_NOT_FOUND);
        EXPECT_EQ(KELM_AviFile_QueryRecFilesStop(handle), 0);
        return found;
    }
};

}  // namespace

TEST_F(Query, StretchesAreCutToTheRangeAndKeepTheirTypes) {
    const int64_t t = kTenOClock;
    ASSERT_EQ(KELM_AviFile_RecStart(0, 1, device), 0);
    for (uint32_t i = 0; i < 60; ++i) {
        if (i == 20) KELM_AviFile_RecStart(0, 3, device);
        if (i == 40) KELM_AviFile_RecStart(0, 1, device);
        DeliverKey(kTenOClock + i);
    }
    // The file is still open: its table comes from the recorder.
    EXPECT_EQ(Stretches(0, t, t + 1000), (std::vector<Stretch>{{0, 19, 1}, {20, 39, 3}, {40, 59, 1}}));
    KELM_AviFile_RecStop(0, device);
    RecordFile(0, kTenOClock + 100, 10, 2);
    RecordFile(1, kTenOClock, 50);
    EXPECT_EQ(Stretches(0, t, t + 1000), (std::vector<Stretch>{{0, 19, 1}, {20, 39, 3}, {40, 59, 1}, {100, 109, 2}}));
    EXPECT_EQ(Stretches(0, t + 25, t + 30), (std::vector<Stretch>{{25, 30, 3}}));
    EXPECT_EQ(Stretches(0, t + 39, t + 40), (std::vector<Stretch>{{39, 39, 3}, {40, 40, 1}}));
    EXPECT_EQ(Stretches(0, t, t + 1000, 3), (std::vector<Stretch>{{20, 39, 3}}));
    EXPECT_TRUE(Stretches(0, t + 20, t + 39, 1).empty());
    EXPECT_TRUE(Stretches(0, t + 60, t + 99).empty());
    EXPECT_TRUE(Stretches(0, t, t + 1000, 7).empty());
    EXPECT_TRUE(Stretches(2, t, t + 1000).empty());
    // A file that cannot tell its stretches is left out, and fails nothing.
    std::fstream(Folder() + "100000.avi", std::ios::in | std::ios::out | std::ios::binary) << std::string(4096, 'x');
    EXPECT_EQ(Stretches(0, t, t + 1000), (std::vector<Stretch>{{100, 109, 2}}));
}

TEST_F(Query, WalksFilesDayByDay) {
    for (const uint32_t day : {0U, 3U, 9U}) {
        RecordFile(0, kTenOClock + day * 86400);
        RecordFile(130, kTenOClock + day * 86400 - 50);
    }
    ASSERT_EQ(KELM_AviFile_RecStart(1, 1, device), 0);  // open, so it is not given
    DeliverKey(kTenOClock);
    Deliver(make_frame(kKey, 0, kTenOClock, 0, 1000), 1);
    EXPECT_EQ(Walk(kAll, -1).size(), 6U);
    EXPECT_EQ(Walk(0, -1).size(), 3U);
    EXPECT_THAT(Walk(kAll, kTenOClock + 3 * 86400 + 7),
                testing::ElementsAre(Folder(130, "20261127") + "095910.avi", Folder(0, "20261127") + "100000.avi"));
    EXPECT_THAT(Walk(0, kTenOClock + 4 * 86400), testing::ElementsAre());
    EXPECT_THAT(Walk(0, INT64_MAX), testing::ElementsAre());

    uint32_t handles[9] = {};
    for (uint32_t i = 0; i < 8; ++i) ASSERT_EQ(KELM_AviFile_QueryRecFilesStart(&handles[i], kAll, -1, device), 0);
    EXPECT_EQ(KELM_AviFile_QueryRecFilesStart(&handles[8], kAll, -1, device), KELM_AVIFILE_NO_SLOT);
    EXPECT_EQ(KELM_AviFile_DelAviFiles(0, -1, device), KELM_AVIFILE_NO_SLOT);
    EXPECT_EQ(KELM_AviFile_QueryRecFilesStop(handles[3]), 0);
    EXPECT_EQ(KELM_AviFile_QueryRecFilesStop(handles[3]), 0);
    EXPECT_EQ(KELM_AviFile_QueryRecFilesStart(&handles[8], kAll, -1, device), 0);
    EXPECT_EQ(handles[8], handles[3]);
    RecFileInfo info{};
    EXPECT_EQ(KELM_AviFile_GetNextRecFile(9, &info), KELM_AVIFILE_NOT_RUNNING);
    EXPECT_EQ(KELM_AviFile_QueryRecFilesStop(9), KELM_AVIFILE_BAD_HANDLE);
    // What is left open ends with the library; a store without days has no walk.
    TempDir empty;
    KELM_AviFile_UnInit(0);
    ASSERT_EQ(KELM_AviFile_Init(0), 0);
    ASSERT_EQ(AddPartition(empty.path()), 0);
    ASSERT_EQ(KELM_AviFile_CreateDevHandle(&device, "cam"), 0);
    EXPECT_EQ(KELM_AviFile_QueryRecFilesStart(&handles[0], kAll, -1, device), KELM_AVIFILE_NOT_FOUND);
}

TEST_F(Query, DeletesByChannelAndDay) {
    for (const uint32_t day : {0U, 1U}) {
        for (const uint32_t channel : {0U, 1U}) {
            RecordFile(channel, kTenOClock + day * 86400);
            RecordFile(channel, kTenOClock + day * 86400 + 100);
        }
    }
    ASSERT_EQ(KELM_AviFile_RecStart(0, 1, device), 0);
    DeliverKey(kTenOClock + 200);
    const std::string open = Folder() + "100320.avi";
    EXPECT_EQ(KELM_AviFile_DelAviFiles(0, kTenOClock, device), 0);
    EXPECT_EQ(Files().size(), 7U);
    EXPECT_TRUE(fs::exists(open)) << "it is being recorded";
    EXPECT_EQ(KELM_AviFile_DelAviFiles(kAll, kTenOClock + 86400, device), 0);
    EXPECT_EQ(Files().size(), 3U);
    KELM_AviFile_RecStop(0, device);
    EXPECT_EQ(KELM_AviFile_DelAviFiles(kAll, -1, device), 0);
    EXPECT_TRUE(Files().empty());
    EXPECT_EQ(UsedSpace(), 0U);
    EXPECT_EQ(KELM_AviFile_DelAviFiles(kAll, kTenOClock, device), 0) << "nothing is there";
}
