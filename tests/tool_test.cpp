// The command `recvault`, run as a user runs it; what it took and gave is held against ffmpeg and Chromium.
#include "support.h"

#if defined(RECVAULT_TOOL)

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

Outcome run(const std::string &command) {
    Outcome run{-1, {}};
    FILE *pipe = popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) return run;
    char block[4096];
    for (size_t count; (count = fread(block, 1, sizeof(block), pipe)) > 0;) run.out.append(block, count);
    run.code = WEXITSTATUS(pclose(pipe));
    return run;
}

Outcome tool(const std::string &arguments) { return run(RECVAULT_TOOL " " + arguments); }

// A program beside the test, which ends with it.
class Child {
 public:
    explicit Child(const std::string &command) : m_pid(fork()) {
        if (m_pid != 0) return;
        execl("/bin/sh", "sh", "-c", ("exec " + command).c_str(), nullptr);
        _exit(127);
    }
    ~Child() {
        if (m_pid > 0) End(SIGKILL);
    }
    Child(const Child &) = delete;
    Child &operator=(const Child &) = delete;

    int End(int signal) {
        int status = 0;
        kill(m_pid, signal);
        waitpid(m_pid, &status, 0);
        m_pid = 0;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

 private:
    pid_t m_pid;
};

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

// What a page is without its colours nobody would want to look at: each lane shows as a bar, on a light page and on a dark
// one.
TEST_F(Tool, TimelineIsReadableInABrowser) {
    ASSERT_EQ(KELM_AviFile_RecStart(0, 1, device), 0);
    for (uint32_t second = 0; second < 3600; second += 5) DeliverKey(kTenOClock + second, 0, 100);
    Stop();
    for (int channel = 2; channel <= 64; ++channel)
        fs::copy(Folder(), Folder() + "../channel" + (channel < 10 ? "0" : "") + std::to_string(channel));
    const std::string page = store / "page.html", shot = store / "page.png";
    ASSERT_EQ(tool("timeline " + store.path() + " --html " + page).code, 0);
    struct Look {
        const char *option, *paper, *bar;
    };
    for (const Look &look : {Look{"1", "\xff\xff\xff", "\x2f\x6f\xde"}, Look{"0", "\x14\x17\x1b", "\x6e\xa3\xff"}}) {
        const Outcome seen = run(std::string("chromium --headless --no-sandbox --disable-gpu --hide-scrollbars "
                                             "--window-size=1300,1400 --blink-settings=preferredColorScheme=") +
                                 look.option + " --screenshot=" + shot + " file://" + page);
        ASSERT_EQ(seen.code, 0) << seen.out;
        const std::string pixels = run("ffmpeg -v error -i " + shot + " -f rawvideo -pix_fmt rgb24 -").out;
        ASSERT_EQ(pixels.size(), 1300U * 1400 * 3);
        const auto is = [&](int x, int y, const char *colour) { return pixels.compare((y * 1300 + x) * 3, 3, colour) == 0; };
        EXPECT_TRUE(is(2, 2, look.paper));
        int most = 0;  // bars, from top to bottom
        for (int x = 0; x < 1300; ++x) {
            int bars = 0;
            for (int y = 150; y < 1400; ++y) bars += is(x, y, look.bar) && !is(x, y - 1, look.bar) ? 1 : 0;
            most = std::max(most, bars);
        }
        EXPECT_EQ(most, 64);
    }
}

class ToolMedia : public testing::Test {
 protected:
    static std::string Hash(const std::string &path, const std::string &filter = "null") {
        const std::string transport = path.starts_with("rtsp:") ? "-rtsp_transport tcp " : "";
        return run("ffmpeg -v error " + transport + "-i " + path + " -map 0:v -c copy -bsf:v " + filter +
                   " -f streamhash -hash md5 -")
            .out;
    }
    static std::string Pictures(const std::string &path) {
        return run("ffprobe -v error -count_packets -select_streams v -show_entries stream=nb_read_packets -of csv=p=0 " +
                   path)
            .out;
    }
    Outcome Record(const std::string &arguments) const {
        return tool("record --device gate --store " + store + " " + arguments);
    }
    Outcome Export(const std::string &range, const std::string &out) const {
        return tool("export --store " + store + " " + range + " " + out);
    }

    const TempDir dir;
    const std::string store = dir / "store";
    const std::string media = std::string(RECVAULT_SOURCE_DIR) + "/examples/media/";
    const std::string noon = "--from 2026-11-20T12:00:00 --to 2026-11-20T12:20:00 ";
};

TEST_F(ToolMedia, GivesBackWhatItTook) {
    const std::string ten = dir / "ten.mov", other = dir / "other.avi", annex_b = "h264_mp4toannexb";
    ASSERT_EQ(run("ffmpeg -v error -f lavfi -i testsrc2=size=160x120:rate=25 -f lavfi -i sine=sample_rate=8000 -t 600 -g 50 "
                  "-sc_threshold 0 -c:v libx264 -preset ultrafast -c:a pcm_alaw " +
                  ten)
                  .code,
              0);
    ASSERT_EQ(run("ffmpeg -v error -f lavfi -i testsrc2=size=160x120:rate=25 -t 1 -c:v mpeg4 " + other).code, 0);
    const std::vector<std::string> inputs = {media + "480x270.h264", media + "640x360.h264", media + "480x270.mjpeg", ten};
    const Outcome refused = Record(ten + " " + other);
    EXPECT_EQ(refused.code, 1);
    EXPECT_THAT(refused.out, testing::HasSubstr("other.avi has pictures in mpeg4"));
    EXPECT_FALSE(fs::exists(store));

    const Outcome recorded =
        Record("--begin 2026-11-20T12:00:00 " + inputs[0] + " " + inputs[1] + " " + inputs[2] + " " + ten);
    ASSERT_EQ(recorded.code, 0) << recorded.out;
    EXPECT_THAT(recorded.out,
                testing::ContainsRegex("channel 3 ended .*25.0 fps .* 0 dropped .*/120000.avi 15000 pictures"));
    EXPECT_THAT(tool("check " + store).out, testing::HasSubstr("4 files, 0 findings\n"));
    for (size_t channel = 0; channel < inputs.size(); ++channel) {
        const std::string out = dir / (std::to_string(channel) + ".avi");
        ASSERT_EQ(Export(noon + "--channel " + std::to_string(channel), out).code, 0);
        EXPECT_EQ(Pictures(out), Pictures(inputs[channel]));
        EXPECT_EQ(Hash(out), Hash(inputs[channel], channel == 2 ? "null" : annex_b)) << inputs[channel];
    }
    const std::string part = dir / "part.avi";
    const std::string two_minutes = "--from 2026-11-20T12:02:00 --to 2026-11-20T12:04:00 --channel 3 ";
    EXPECT_EQ(Export(two_minutes, part).code, 0);
    EXPECT_EQ(Pictures(part), "3000\n");
    EXPECT_EQ(Hash(part), Hash(ten, annex_b + ",noise=drop='lt(n\\,3000)+gte(n\\,6000)'"));
    EXPECT_EQ(Export(two_minutes, part).code, 1);  // it exists
    write_file(dir / "new.avi.part", "mine");
    EXPECT_EQ(Export(two_minutes, dir / "new.avi").code, 1);
    EXPECT_EQ(read_file(dir / "new.avi.part"), "mine");

    ASSERT_EQ(tool("play --store " + store + " " + noon + " --out " + (dir / "cam{}")).code, 0);
    for (size_t channel = 0; channel < 2; ++channel)
        EXPECT_EQ(read_file(dir / ("cam" + std::to_string(channel))), read_file(inputs[channel]));
}

TEST_F(ToolMedia, ReachesAnAddressAgainAndEndsWithItsFileFinished) {
    const std::string clip = dir / "clip.mp4", port = dir / "port", out = dir / "out.avi";
    ASSERT_EQ(run("ffmpeg -v error -i " + media + "480x270.h264 -t 4 -c copy " + clip).code, 0);
    const Child server(std::string("/usr/bin/python3 " RECVAULT_SOURCE_DIR "/tests/rtsp_server.py ") + clip + " >" + port);
    ASSERT_TRUE(wait_until([&] { return read_file(port).ends_with("\n"); }));
    const std::string address = "rtsp://127.0.0.1:" + std::to_string(std::stoi(read_file(port))) + "/stream";
    Child recorder(RECVAULT_TOOL " record --device gate --store " + store + " --reconnect 0.1 " + address);
    const std::string sent = Hash(address);
    // 40 bytes a frame: the stream of 100 has come to its end, and was taken up again.
    ASSERT_TRUE(wait_until([&] {
        const auto sides = find_files(store, "_idx");
        return !sides.empty() && fs::file_size(sides[0]) > 130 * 40;
    }));
    EXPECT_EQ(recorder.End(SIGINT), 0);
    EXPECT_THAT(tool("check " + store).out, testing::HasSubstr("1 files, 0 findings\n"));
    ASSERT_EQ(Export("--from 2020-01-01T00:00:00 --to 2099-01-01T00:00:00", out).code, 0);
    EXPECT_EQ(Hash(out, "noise=drop='gte(n\\,100)'"), sent);
}

}  // namespace
}  // namespace recvault_tests

#endif
