// The subcommands of `recvault` that look at a store, run as a user runs them.
#include "support.h"

#if defined(RECVAULT_TOOL_LOOK)

#include <sys/wait.h>

#include <map>
#include <random>
#include <set>

namespace recvault_tests {
namespace {

struct Outcome {
    int code;
    std::string out;
};

Outcome tool(const std::string &arguments) {
    Outcome run{-1, {}};
    FILE *pipe = popen((RECVAULT_TOOL_LOOK " " + arguments + " 2>&1").c_str(), "r");
    if (pipe == nullptr) return run;
    char block[4096];
    for (size_t count; (count = fread(block, 1, sizeof(block), pipe)) > 0;) run.out.append(block, count);
    run.code = WEXITSTATUS(pclose(pipe));
    return run;
}

void write_file(const std::string &path, const std::string &bytes) {
    std::ofstream(path, std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
}

void put(std::string *bytes, size_t offset, uint32_t value) { std::memcpy(bytes->data() + offset, &value, sizeof(value)); }

class Tool : public RecordingTest {
 protected:
    // 40 seconds with sound, frames of odd and even sizes, and a gap.
    void Record() {
        ASSERT_EQ(KELM_AviFile_RecStart(0, 2, device), 0);
        for (uint32_t second = 0; second < 50; ++second) {
            if (second >= 20 && second < 30) continue;
            DeliverKey(kTenOClock + second, 0, 3000 + second);
            DeliverInter(kTenOClock + second, 500000, 1001);
            Deliver(make_frame(kAudio, 0, kTenOClock + second, 600000, 320));
        }
    }
    void Stop() { ASSERT_EQ(KELM_AviFile_RecStop(0, device), 0); }
};

TEST_F(Tool, LooksAtAStoreThatIsRecordedAndAtAFinishedOne) {
    Record();
    ASSERT_TRUE(wait_until([&] { return tool("ls " + store.path()).out.find("2026-11-24T10:00:49") != std::string::npos; }));
    const Outcome live = tool("check " + store.path());
    EXPECT_EQ(live.code, 0) << live.out;
    EXPECT_THAT(live.out, testing::HasSubstr("1 files, 0 findings; 1 not finished"));
    EXPECT_TRUE(fs::exists(Folder() + "100000.avi_idx"));
    Stop();

    const Outcome finished = tool("check " + store.path());
    EXPECT_EQ(finished.code, 0) << finished.out;
    EXPECT_THAT(finished.out, testing::HasSubstr("1 files, 0 findings\n"));
    EXPECT_THAT(tool("ls --day 2026-11-24 --channel 0 --type 2 " + store.path()).out,
                testing::ContainsRegex("10:00:00 .*10:00:49 .*cam +0  2 .*100000.avi\n1 files"));
    for (const char *other : {"--day 2026-11-25 ", "--channel 1 ", "--type 1 ", "--device other "})
        EXPECT_THAT(tool(std::string("ls ") + other + store.path()).out, testing::HasSubstr("0 files")) << other;
    EXPECT_THAT(tool("days " + store.path()).out, testing::ContainsRegex("2026-11-24  cam +0 +1 .*0:00:40  2"));
    EXPECT_THAT(tool("timeline " + store.path()).out, testing::ContainsRegex("cam +0 .*0:00:40 recorded, 1 gap\n"));
    EXPECT_EQ(tool("timeline " + store.path() + " --html " + (store / "page.html")).code, 0);
    EXPECT_THAT(read_file(store / "page.html"), testing::HasSubstr("type 2: 10:00:30 to 10:00:49"));
    EXPECT_EQ(tool("timeline " + store.path() + " --html " + Files()[0]).code, 1);  // that would be its end
    EXPECT_EQ(tool("check " + store.path() + "/avi_av").code, 2);
}

TEST_F(Tool, CheckNamesEachDefect) {
    Record();
    Stop();
    const std::string sound = read_file(Files()[0]);
    const std::string index = read_file(Folder() + "rec_index.bin");
    const StoredFile file(Files()[0]);
    const size_t tenth = file.frames[10].position;
    struct Defect {
        std::set<std::string> found;
        std::function<void(std::string *avi, std::string *index)> make;
    };
    const std::vector<Defect> defects = {
        {{}, [](auto *, auto *) {}},
        {{"riff-head"}, [](auto *avi, auto *) { put(avi, 0, 0); }},
        {{"head-structure"}, [](auto *avi, auto *) { put(avi, 216, 7); }},
        {{"head-cut"}, [](auto *avi, auto *) { avi->resize(5000); }},
        {{"riff-size"}, [](auto *avi, auto *) { put(avi, 4, 4711); }},
        {{"movi-size"}, [](auto *avi, auto *) { put(avi, 77816, 0x7FFFFFFF); }},
        {{"not-closed"}, [](auto *avi, auto *) { put(avi, 77816, 0); }},
        {{"garbage", "index-entry"}, [&](auto *avi, auto *) { put(avi, file.frames[12].position, 1); }},
        {{"frame-position"}, [&](auto *avi, auto *) { put(avi, tenth + 52, 1); }},
        {{"frame-previous"}, [&](auto *avi, auto *) { put(avi, tenth + 48, 1); }},
        {{"frame-record-type"}, [&](auto *avi, auto *) { put(avi, tenth + 44, 0x100); }},
        {{"index-missing"}, [&](auto *avi, auto *) { put(avi, file.movi_end, 0); }},
        {{"index-cut", "riff-size"}, [](auto *avi, auto *) { avi->resize(avi->size() - 16); }},
        {{"index-entry"}, [&](auto *avi, auto *) { put(avi, file.movi_end + 8 + 5 * 16 + 8, 61); }},
        {{"video-count"}, [](auto *avi, auto *) { put(avi, 48, 81); }},
        {{"audio-count"}, [](auto *avi, auto *) { put(avi, 74288, 0); }},
        {{"stream-count"}, [](auto *avi, auto *) { put(avi, 56, 1); }},
        {{"video-codec"}, [](auto *avi, auto *) { put(avi, 112, 0); }},
        {{"audio-format"}, [](auto *avi, auto *) { put(avi, 74280, 44100); }},
        {{"segment-count"}, [](auto *avi, auto *) { put(avi, 220 + 2008, 101); }},
        {{"segment-time", "record-time"}, [](auto *avi, auto *) { put(avi, 232, kTenOClock - 9); }},
        {{"key-frame-count"}, [](auto *avi, auto *) { put(avi, 220 + 74012, 0xFFFFFFFF); }},
        {{"key-frame"}, [](auto *avi, auto *) { put(avi, 220 + 2012 + 3 * 20, 77825); }},
        {{"index-torn"}, [](auto *, auto *records) { records->append(100, '\0'); }},
        {{"record-without-file", "file-without-record"}, [](auto *, auto *records) { (*records)[8] = '2'; }},
        {{"record-name", "file-without-record"}, [](auto *, auto *records) { (*records)[8] = '/'; }},
        {{"file-without-record"}, [](auto *, auto *records) { put(records, 4, 0); }},
        {{"record-twice"}, [](auto *, auto *records) { records->append(*records); }},
        {{"record-open"}, [](auto *, auto *records) { put(records, 292, 1); }},
        {{"record-size"}, [](auto *, auto *records) { put(records, 264, 4711); }},
        {{"record-time"}, [](auto *, auto *records) { put(records, 272, 0); }},
        {{"record-type"}, [](auto *, auto *records) { put(records, 4, 1); }},
        {{"record-channel"}, [](auto *, auto *records) { put(records, 0, 99); }},
    };
    const TempDir bad;
    std::map<std::string, std::set<std::string>> expected, found;
    for (uint32_t i = 0; i < defects.size(); ++i) {
        char channel[16];
        std::snprintf(channel, sizeof(channel), "channel%02u", i + 1);
        const std::string folder = bad / "avi_av/20261124/cam/" + channel + "/";
        fs::create_directories(folder);
        std::string avi = sound;
        std::string records = index;
        put(&records, 0, i);
        defects[i].make(&avi, &records);
        write_file(folder + "100000.avi", avi);
        write_file(folder + "rec_index.bin", records);
        if (!defects[i].found.empty()) expected[channel] = defects[i].found;
    }
    write_file(bad / "avi_av/20261124/cam/channel02/090000.avi_idx", "");
    expected["channel02"].insert("side-without-file");
    const Outcome run = tool("check " + bad.path());
    EXPECT_EQ(run.code, 1);
    std::istringstream lines(run.out);
    for (std::string line; std::getline(lines, line);) {
        const size_t channel = line.find("/channel");
        const size_t name = line.find(" [");
        if (channel == std::string::npos || name == std::string::npos) continue;
        found[line.substr(channel + 1, 9)].insert(line.substr(name + 2, line.find(']') - name - 2));
    }
    EXPECT_EQ(found, expected) << run.out;
}

TEST_F(Tool, RescueKeepsEachWholeFrameBeforeACut) {
    Record();
    Stop();
    const StoredFile file(Files()[0]);
    const TempDir cuts;
    std::mt19937 random(std::random_device{}());
    std::map<std::string, std::pair<size_t, std::string>> expected;  // by name: frames, and the bytes of the source
    std::string names;
    for (int i = 0; i < 12; ++i) {
        const size_t cut = file.frames[1].position + random() % (file.movi_end - file.frames[1].position);
        std::string bytes = file.bytes.substr(0, cut);
        if (i % 3 == 1) bytes.replace(0, 77824, 77824, '\0');
        if (i % 3 == 2) bytes.erase(0, 77824);
        const std::string name = "cut" + std::to_string(cut) + "_" + std::to_string(i) + ".avi";
        const auto whole = std::count_if(file.frames.begin(), file.frames.end(),
                                         [&](const auto &frame) { return frame.position + 64 + frame.chunk_size <= cut; });
        write_file(cuts / name, bytes);
        expected[name] = {static_cast<size_t>(whole), bytes};
        names += " " + (cuts / name);
    }
    const Outcome run = tool("rescue --out " + (cuts / "out") + names);
    ASSERT_EQ(run.code, 0) << run.out;
    for (const auto &[name, kept] : expected) {
        const StoredFile rescued(cuts / "out/" + name);
        rescued.ExpectComplete();
        ASSERT_EQ(rescued.frames.size(), kept.first) << name;
        for (size_t i = 0; i < kept.first; ++i) EXPECT_EQ(rescued.frames[i].data, file.frames[i].data) << name << " " << i;
        EXPECT_EQ(tool("check " + (cuts / "out/" + name)).code, 0) << name;
        EXPECT_EQ(read_file(cuts / name), kept.second) << name;
    }
    EXPECT_EQ(tool("rescue --out " + (store / "avi_av") + names).code, 1);
}

}  // namespace
}  // namespace recvault_tests

#endif
