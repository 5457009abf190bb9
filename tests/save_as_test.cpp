// The export: files at a path of the application's choosing.
#include "support.h"

using namespace recvault_tests;

namespace {

class SaveAs : public testing::Test {
 protected:
    void SetUp() override { ASSERT_EQ(KELM_AviFile_Init(0), 0); }
    void TearDown() override { KELM_AviFile_UnInit(0); }

    static int32_t Input(uint32_t handle, const Frame &frame) {
        return KELM_AviFile_SaveInput(handle, &frame.head, 36, frame.data.data(), static_cast<uint32_t>(frame.data.size()));
    }
    int32_t Key(uint32_t handle, uint32_t sec) { return Input(handle, make_frame(kKey, number++, sec, 0, 500)); }
    std::vector<std::string> Names() const {
        std::vector<std::string> names;
        for (const auto &path : find_files(dir.path(), "")) names.push_back(path.substr(dir.path().size() + 1));
        return names;
    }

    TempDir dir;
    uint32_t number = 0;
};

}  // namespace

TEST_F(SaveAs, ToAFolderMakesFilesByTimeAndSwitchesThem) {
    uint32_t handle = 0;
    ASSERT_EQ(KELM_AviFile_SaveStart(&handle, (dir / "a/clips").c_str()), 0);
    Input(handle, make_frame(kInter, 0, kTenOClock, 0, 100));  // before the first key frame: dropped
    Key(handle, kTenOClock);
    Frame wide = make_frame(kInter, 1, kTenOClock + 1, 0, 500);
    wide.head.width = 1280;
    Input(handle, wide);  // asks for a new file, which begins with the next key frame
    wide.head.type = kKey;
    wide.head.seconds = kTenOClock + 2;
    Input(handle, wide);
    wide.head.seconds += 3600;
    Input(handle, wide);
    wide.head.seconds -= 1;  // backwards
    Input(handle, wide);
    wide.head.codec_id = 2;
    wide.head.seconds += 60;
    Input(handle, wide);
    EXPECT_EQ(KELM_AviFile_SaveStop(handle), 0);
    EXPECT_THAT(Names(), testing::ElementsAre("a/clips/100000.avi", "a/clips/100002.avi", "a/clips/110001.avi",
                                              "a/clips/110002.avi", "a/clips/110101.avi"));
    for (const auto &path : find_files(dir.path(), "")) StoredFile(path).ExpectComplete();
    StoredFile first(dir / "a/clips/100000.avi");
    EXPECT_EQ(first.frames.size(), 2U);
    EXPECT_EQ(first.frames[1].file_pos, 0U);
    EXPECT_EQ(at<uint32_t>(read_file(dir / "a/clips/100002.avi"), 176), 1280U);
}

TEST_F(SaveAs, ToAFileWritesThatOneOnly) {
    uint32_t handle = 0;
    ASSERT_EQ(KELM_AviFile_SaveStart(&handle, (dir / "one.avi").c_str()), 0);
    Key(handle, 100);
    for (uint32_t i = 0; i < 3700; ++i) Key(handle, 200 + i);
    Frame audio = make_frame(kAudio, 0, 300, 0, 160);
    const Frame second = make_frame(kAudio, 0, 301, 5, 160);
    const auto *head = reinterpret_cast<const uint8_t *>(&second.head);
    audio.data.insert(audio.data.end(), head, head + 36);
    audio.data.insert(audio.data.end(), second.data.begin(), second.data.end());
    Input(handle, audio);
    audio.data.resize(159);
    Input(handle, audio);  // shorter than one frame
    EXPECT_EQ(KELM_AviFile_SaveStop(handle), 0);
    EXPECT_THAT(Names(), testing::ElementsAre("one.avi"));
    StoredFile file(dir / "one.avi");
    file.ExpectComplete();
    ASSERT_EQ(file.frames.size(), 3703U);
    EXPECT_EQ(file.word(220 + 74012), 3600U);
    EXPECT_EQ(file.frames[3701].second, 300U);
    EXPECT_EQ(file.frames[3702].second, 301U);  // its own head's
    EXPECT_EQ(file.frames[3702].microsecond, 5U);
}

TEST_F(SaveAs, ByNameTakesThePathAsItStands) {
    uint32_t handle = 0;
    ASSERT_EQ(KELM_AviFile_SaveStart_ByName(&handle, (dir / "clip").c_str()), 0);
    Key(handle, 100);
    KELM_AviFile_SaveStop(handle);
    EXPECT_THAT(Names(), testing::ElementsAre("clip"));
    ASSERT_EQ(KELM_AviFile_SaveStart_ByName(&handle, (dir / "none/clip.avi").c_str()), 0);
    EXPECT_EQ(Key(handle, 100), 0);  // lost
    fs::create_directory(dir / "none");
    EXPECT_EQ(Key(handle, 101), 0);
    KELM_AviFile_SaveStop(handle);
    EXPECT_EQ(StoredFile(dir / "none/clip.avi").frames.size(), 1U);
}

TEST_F(SaveAs, MayBeUsedAndStoppedFromSeveralThreads) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([this, t] {
            for (int round = 0; round < 20; ++round) {
                uint32_t handle = 0;
                const std::string path = dir / (std::to_string(t) + ".avi");
                if (KELM_AviFile_SaveStart(&handle, path.c_str()) != 0) continue;
                Input(handle, make_frame(kKey, 0, 100, 0, 500));
                Input(handle % 32 + 1, make_frame(kInter, 1, 100, 0, 500));  // somebody else's, or nobody's
                EXPECT_EQ(KELM_AviFile_SaveStop(handle), 0);
            }
        });
    }
    for (auto &thread : threads) thread.join();
    for (int t = 0; t < 4; ++t) StoredFile(dir / (std::to_string(t) + ".avi")).ExpectComplete();
}
