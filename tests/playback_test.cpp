// Playback: what comes out is what went in, channels keep together, seeks land, live recordings are followed, and nothing
// runs on after its end.
#include "player.h"

using namespace recvault_tests;

namespace {

constexpr uint32_t kNobody = KELM_AVIFILE_ALL_CHANNELS;

class Playback : public RecordingTest {
 protected:
    using Recorded = std::vector<FrameId>;

    // Delivers one frame and remembers it as what playback has to give.
    void Put(uint32_t channel, uint32_t type, uint32_t sec, uint32_t usec = 0, uint32_t size = 700) {
        uint32_t &next = type == kAudio ? sounds : number;  // the numbers of the pictures have no gap
        const Frame frame = make_frame(type, next, sec, usec, size + next % 50);
        ++next;
        ASSERT_EQ(Deliver(frame, channel), 0);
        recorded[channel].emplace_back(frame);
    }
    // A group of pictures a second: a key frame, others, sound.
    void PutSeconds(uint32_t channel, uint32_t begin, uint32_t count, uint32_t frames_a_second = 4) {
        for (uint32_t sec = begin; sec < begin + count; ++sec) {
            for (uint32_t i = 0; i < frames_a_second; ++i) {
                Put(channel, i == 0 ? kKey : kInter, sec, i * 1000000 / frames_a_second);
                if (i == 1) Put(channel, kAudio, sec, 400000, 320);
            }
        }
    }
    void Record(uint32_t channel, uint32_t begin, uint32_t count, int32_t type = 1, uint32_t frames_a_second = 4) {
        ASSERT_EQ(KELM_AviFile_RecStart(channel, type, device), 0);
        PutSeconds(channel, begin, count, frames_a_second);
        ASSERT_EQ(KELM_AviFile_RecStop(channel, device), 0);
    }
    // Takes those frames of a file out of a list that a condition holds for.
    static void TakeOut(Recorded *list, const StoredFile &file, const std::function<bool(const StoredFrame &)> &condition) {
        for (const auto &frame : file.frames) {
            if (!condition(frame)) continue;
            const auto number_of = at<uint32_t>(file.bytes, frame.position + 16);
            std::erase_if(*list, [&](const FrameId &id) {
                return id.type == frame.type && id.number == number_of && id.second == frame.second;
            });
        }
    }
    // What playback can give of it: the reader never loads the last bytes of a finished file, fewer than 4096, so that the
    // frames that end in them stay out.
    Recorded Playable(uint32_t channel) const {
        Recorded playable = recorded.at(channel);
        char folder[32];
        std::snprintf(folder, sizeof(folder), "channel%02u/", channel + 1);
        for (const auto &path : Files()) {
            if (path.find(folder) == std::string::npos) continue;
            const StoredFile file(path);
            TakeOut(&playable, file, [&](const StoredFrame &frame) {
                return frame.position + 64 + frame.chunk_size > file.movi_end - file.movi_end % 4096;
            });
        }
        return playable;
    }
    std::map<uint32_t, Recorded> recorded;
    uint32_t sounds = 0;
};

std::vector<FrameId> between(const std::vector<FrameId> &frames, int64_t begin, int64_t end) {
    std::vector<FrameId> found;
    std::copy_if(frames.begin(), frames.end(), std::back_inserter(found),
                 [=](const auto &frame) { return frame.second >= begin && frame.second <= end; });
    return found;
}

}  // namespace

// Files by size of picture, stretches of other types within a file, a gap within a file and between files, a midnight.
TEST_F(Playback, GivesBackEachFrameOnceAndInOrder) {
    const uint32_t begin = kMidnight - 200;
    ASSERT_EQ(KELM_AviFile_RecStart(0, 1, device), 0);
    PutSeconds(0, begin, 20);
    KELM_AviFile_RecStart(0, 2, device);  // no new file: the next key frame begins a stretch of another type
    PutSeconds(0, begin + 20, 20);
    KELM_AviFile_RecStart(0, 1, device);
    PutSeconds(0, begin + 40, 10);
    PutSeconds(0, begin + 80, 20);  // a gap
    KELM_AviFile_RecStop(0, device);
    Record(0, begin + 130, 65);       // up to shortly before midnight
    Record(0, kMidnight - 3, 30, 3);  // over it
    Record(1, begin, 50);             // of no interest
    const Recorded all = Playable(0);
    {
        Player player(device, 0, begin, kMidnight + 100);
        ASSERT_TRUE(player.PlayToEnd({0}));
        EXPECT_EQ(player.Frames(0), all);
        EXPECT_EQ(player.All()[0].key, 1);
        EXPECT_EQ(player.All()[1].key, 0);
    }
    {  // a part of it, cut at seconds within files and stretches
        Player player(device, 0, begin + 13, begin + 90);
        ASSERT_TRUE(player.PlayToEnd({0}));
        EXPECT_EQ(player.Frames(0), between(all, begin + 13, begin + 90));
    }
    {  // one type alone, and then the key frames of it, every other one
        Player player(device, 0, begin, kMidnight + 100);
        KELM_AviFile_DataPopRecTypeDel(player.handle, 8);
        KELM_AviFile_DataPopRecTypeAdd(player.handle, 2);
        ASSERT_TRUE(player.PlayToEnd({0}));
        EXPECT_EQ(player.Frames(0), between(all, begin + 20, begin + 39));
        player.Forget();
        EXPECT_EQ(KELM_AviFile_DataPopSetKeyFrame(player.handle, 1, 1), 0);
        EXPECT_EQ(KELM_AviFile_DataPopTimeSeek(player.handle, begin + 20), 0);
        ASSERT_TRUE(player.WaitForEnd({0}));
        const auto keys = player.All();
        EXPECT_THAT(keys.size(), testing::AllOf(testing::Ge(9U), testing::Le(10U)));
        for (const auto &frame : keys) EXPECT_EQ(frame.key, 1);
    }
    {  // nothing there
        Player player(device, 0, begin - 500, begin - 400);
        EXPECT_EQ(KELM_AviFile_DataPopStart(player.handle), KELM_AVIFILE_FAILED);
    }
}

namespace {

// A frame goes out at most 2 seconds before the frame that is next in each channel that sets the clock.
void expect_in_step(const std::vector<Played> &played, const std::map<int32_t, std::vector<FrameId>> &clocks) {
    std::map<int32_t, size_t> given;
    for (const auto &frame : played) {
        for (const auto &[clock, frames] : clocks) {
            if (clock == frame.channel || given[clock] == frames.size()) continue;
            ASSERT_LE(frame.time, frames[given[clock]].second + 2) << "channel " << frame.channel << " before " << clock;
        }
        ++given[frame.channel];
    }
}

}  // namespace

// Unequal frame rates, starts, ends and gaps; one channel has nothing and falls out.
TEST_F(Playback, KeepsChannelsInStep) {
    const uint32_t t = kTenOClock;
    Record(3, t, 20, 1, 5);
    Record(3, t + 3000, 15, 1, 5);  // a gap in all channels
    Record(4, t + 5, 25, 1, 2);     // starts later, ends later
    Record(4, t + 3000, 5, 1, 2);
    Record(5, t, 10, 1, 8);  // ends early
    {                        // channel 3 leads: what the others have in its gap does not hold it
        Player player(device, 3, t, t + 4000, true);
        for (const uint32_t channel : {4U, 5U, 6U}) ASSERT_EQ(KELM_AviFile_DataPopChanAdd(player.handle, channel), 0);
        ASSERT_TRUE(player.PlayToEnd({3, 4, 5}));
        EXPECT_EQ(player.Frames(3), Playable(3));
        EXPECT_EQ(between(player.Frames(4), t + 24, t + 2996), Recorded());
        EXPECT_FALSE(between(player.Frames(4), t + 3000, t + 3004).empty());
        expect_in_step(player.All(), {{3, Playable(3)}});
    }
    {  // nobody leads: the slowest does, and no channel loses a frame
        Player player(device, kNobody, t, t + 4000, true);
        for (const uint32_t channel : {3U, 4U, 5U, 6U}) ASSERT_EQ(KELM_AviFile_DataPopChanAdd(player.handle, channel), 0);
        ASSERT_TRUE(player.PlayToEnd({3, 4, 5}));
        for (const int32_t channel : {3, 4, 5}) EXPECT_EQ(player.Frames(channel), Playable(static_cast<uint32_t>(channel)));
        EXPECT_TRUE(player.Frames(6).empty());
        expect_in_step(player.All(), {{3, Playable(3)}, {4, Playable(4)}, {5, Playable(5)}});
    }
    {  // the channel that leads ends before the others, and leaves
        Player player(device, 5, t, t + 4000, true);
        for (const uint32_t channel : {3U, 4U}) ASSERT_EQ(KELM_AviFile_DataPopChanAdd(player.handle, channel), 0);
        ASSERT_TRUE(player.PlayToEnd({3, 4, 5}));
        EXPECT_EQ(player.Frames(3).back(), Playable(3).back());
        EXPECT_EQ(KELM_AviFile_DataPopStop(player.handle), 0);
        EXPECT_EQ(KELM_AviFile_DataPopChanDel(player.handle, 5), 0);
        player.Forget();
        EXPECT_EQ(KELM_AviFile_DataPopTimeSeek(player.handle, t), 0);
        ASSERT_TRUE(player.PlayToEnd({3, 4}));
        EXPECT_EQ(player.Frames(3), Playable(3));
        EXPECT_EQ(player.Frames(4), Playable(4));
    }
}

TEST_F(Playback, KeepsSixteenChannelsInStep) {
    std::vector<int32_t> channels;
    for (uint32_t channel = 0; channel < 16; ++channel) {
        Record(channel, kTenOClock + channel % 3, 8, 1, 3);
        channels.push_back(static_cast<int32_t>(channel));
    }
    Player player(device, kNobody, kTenOClock, kTenOClock + 100, true);
    for (const int32_t channel : channels) {
        ASSERT_EQ(KELM_AviFile_DataPopChanAdd(player.handle, static_cast<uint32_t>(channel)), 0);
    }
    EXPECT_EQ(KELM_AviFile_DataPopChanAdd(player.handle, 16), KELM_AVIFILE_FAILED);
    ASSERT_TRUE(player.PlayToEnd(channels));
    std::map<int32_t, Recorded> playable;
    for (const int32_t channel : channels) {
        playable[channel] = Playable(static_cast<uint32_t>(channel));
        EXPECT_EQ(player.Frames(channel), playable[channel]);
    }
    expect_in_step(player.All(), playable);
}

// From before the first frame to after the last, over changes of type and switches of file.
TEST_F(Playback, FollowsALiveRecording) {
    for (const bool sync : {false, true}) {
        const uint32_t channel = sync ? 1 : 0;
        Player player(device, channel, kTenOClock, 0, sync);
        ASSERT_EQ(KELM_AviFile_DataPopStart(player.handle), 0);
        ASSERT_TRUE(wait_until([&] { return player.Events(static_cast<int32_t>(channel), POP_EVENT_WAIT) > 0; }));
        for (uint32_t file = 0; file < 3; ++file) {
            for (uint32_t part = 0; part < 2; ++part) {
                ASSERT_EQ(KELM_AviFile_RecStart(channel, static_cast<int32_t>(1 + part), device), 0);
                PutSeconds(channel, kTenOClock + file * 30 + part * 8, 8);
                // What does not fill a block of 16 KiB may wait in memory for more.
                ASSERT_TRUE(player.WaitForFrames(recorded[channel].size() - 30)) << "live";
            }
            KELM_AviFile_RecStop(channel, device);
            ASSERT_TRUE(player.WaitForFrames(recorded[channel].size()));
        }
        EXPECT_EQ(player.Frames(static_cast<int32_t>(channel)), recorded[channel]);
        EXPECT_EQ(player.Events(static_cast<int32_t>(channel), POP_EVENT_END), 0);
    }
    {  // A seek ahead of what is recorded goes to the live end.
        ASSERT_EQ(KELM_AviFile_RecStart(3, 1, device), 0);
        PutSeconds(3, kTenOClock + 100, 40);
        Player player(device, 3, kTenOClock, 0);
        ASSERT_EQ(KELM_AviFile_DataPopStart(player.handle), 0);
        ASSERT_TRUE(player.WaitForFrames(150));
        player.Forget();
        ASSERT_EQ(KELM_AviFile_DataPopTimeSeek(player.handle, kTenOClock + 9000), 0);
        ASSERT_TRUE(player.WaitForFrames(1));
        PutSeconds(3, kTenOClock + 140, 40);
        KELM_AviFile_RecStop(3, device);
        ASSERT_TRUE(wait_until([&] { return player.Frames(3).back() == recorded[3].back(); }));
        EXPECT_EQ(between(player.Frames(3), kTenOClock + 140, kTenOClock + 179),
                  between(recorded[3], kTenOClock + 140, kTenOClock + 179));
    }
    // One that follows up to a second in the future ends there.
    Player player(device, 2, kTenOClock, kTenOClock + 20, false, 1);
    ASSERT_EQ(KELM_AviFile_DataPopStart(player.handle), 0);
    ASSERT_EQ(KELM_AviFile_RecStart(2, 1, device), 0);
    PutSeconds(2, kTenOClock, 30);
    ASSERT_TRUE(player.WaitForEnd({2}));
    EXPECT_EQ(player.Frames(2), between(recorded[2], kTenOClock, kTenOClock + 20));
}

// The type of a recording changes within a second, and again within the next one, and there the range begins.
TEST_F(Playback, PlaysTheSecondOfAChangeOnce) {
    const uint32_t t = kTenOClock;
    for (const int32_t mode : {0, 1}) {
        const auto channel = static_cast<uint32_t>(mode);
        std::unique_ptr<Player> player;
        const auto play = [&] {
            player = std::make_unique<Player>(device, channel, t + 10, t + 20, false, mode);
            EXPECT_EQ(KELM_AviFile_DataPopStart(player->handle), 0);
        };
        if (mode == 1) play();
        for (uint32_t sec = t; sec < t + 40; ++sec) {
            for (uint32_t i = 0; i < 4; ++i) {
                const bool changes = i == 2 && (sec == t + 10 || sec == t + 11);
                if ((sec == t && i == 0) || changes) KELM_AviFile_RecStart(channel, sec == t + 10 ? 2 : 1, device);
                Put(channel, i == 0 || changes ? kKey : kInter, sec, i * 250000);
            }
        }
        ASSERT_EQ(KELM_AviFile_RecStop(channel, device), 0);
        if (mode == 0) play();
        ASSERT_TRUE(player->WaitForEnd({mode}));
        EXPECT_EQ(player->Frames(mode), between(recorded[channel], t + 10, t + 20));
    }
}

TEST_F(Playback, SeeksLandNearTheirTarget) {
    const uint32_t t = kTenOClock;
    ASSERT_EQ(KELM_AviFile_RecStart(0, 1, device), 0);
    PutSeconds(0, t, 30);
    PutSeconds(0, t + 50, 10);
    KELM_AviFile_RecStop(0, device);
    Record(0, t + 200, 15);
    Record(0, t + 300, 10, 2);
    // The key frame that a seek finds is at most 2 seconds away; up to 4095 bytes before it, here another second, come too.
    struct Seek {
        uint32_t to, first_key, last_key;
    };
    for (const bool sync : {false, true}) {
        Player player(device, 0, t + 10, t + 1000, sync);
        ASSERT_TRUE(player.PlayToEnd({0}));
        for (const auto &[to, first_key, last_key] :
             {Seek{t + 207, t + 204, t + 209},   // into another file
              Seek{t + 20, t + 17, t + 22},      // back
              Seek{t + 40, t + 50, t + 52},      // into a gap within a file
              Seek{t + 150, t + 200, t + 202},   // into a gap between files
              Seek{t + 5, t + 5, t + 7},         // before the begin, on the same day: the range grows
              Seek{t - 86400, t + 5, t + 7}}) {  // a day before: the first there is
            player.Forget();
            ASSERT_EQ(KELM_AviFile_DataPopTimeSeek(player.handle, to), 0);
            ASSERT_TRUE(player.WaitForFrames(1));
            ASSERT_TRUE(player.WaitForEnd({0}));
            const auto frames = player.All();
            EXPECT_EQ(frames.back().id, Playable(0).back());
            const auto key = std::find_if(frames.begin(), frames.end(), [](const auto &frame) { return frame.key == 1; });
            EXPECT_GE(key->time, first_key) << to - t;
            EXPECT_LE(key->time, last_key) << to - t;
        }
        player.Forget();  // behind the end: nothing is left
        ASSERT_EQ(KELM_AviFile_DataPopTimeSeek(player.handle, t + 900), 0);
        ASSERT_TRUE(player.WaitForEnd({0}));
        EXPECT_EQ(player.Count(), 0U);
    }
}

TEST_F(Playback, SeeksWhilePausedAndBeforeTheStart) {
    const uint32_t t = kTenOClock;
    Record(0, t, 60);
    for (const bool sync : {false, true}) {
        Player player(device, 0, t, t + 100, sync);
        EXPECT_EQ(KELM_AviFile_DataPopTimeSeek(player.handle, t + 30), 0);
        std::atomic<bool> seeks{true};
        player.on_frame = [&](const Played &frame) {  // and from within the callback
            if (frame.time == t + 40 && seeks.exchange(false)) KELM_AviFile_DataPopTimeSeek(player.handle, t + 50);
        };
        ASSERT_TRUE(player.PlayToEnd({0}));
        auto frames = player.Frames(0);
        EXPECT_GE(frames.front().second, t + 27);
        EXPECT_TRUE(between(frames, t + 42, t + 46).empty());

        EXPECT_EQ(KELM_AviFile_DataPopStop(player.handle), 0);
        player.Forget();
        EXPECT_EQ(KELM_AviFile_DataPopTimeSeek(player.handle, t + 40), 0);  // of two the later one counts
        EXPECT_EQ(KELM_AviFile_DataPopTimeSeek(player.handle, t + 10), 0);
        ASSERT_TRUE(player.PlayToEnd({0}));
        ASSERT_TRUE(player.WaitForFrames(1));
        ASSERT_TRUE(player.WaitForEnd({0}));
        frames = player.Frames(0);
        EXPECT_THAT(frames.front().second, testing::AllOf(testing::Ge(t + 7), testing::Le(t + 12)));
        EXPECT_EQ(between(frames, t + 12, t + 60), between(Playable(0), t + 12, t + 60));
    }
}

// A pause loses nothing, and nothing comes during it but the call that was under way.
TEST_F(Playback, PausesWithoutLoss) {
    Record(0, kTenOClock, 80);
    for (const bool sync : {false, true}) {
        Player player(device, 0, kTenOClock, kTenOClock + 100, sync);
        ASSERT_EQ(KELM_AviFile_DataPopStart(player.handle), 0);
        for (size_t i = 1; i <= 5; ++i) {
            ASSERT_TRUE(player.WaitForFrames(i * 20));
            ASSERT_EQ(KELM_AviFile_DataPopStop(player.handle), 0);
            const size_t before = player.Count();
            Player other(device, 0, kTenOClock, kTenOClock + 3);  // another one runs meanwhile
            ASSERT_TRUE(other.PlayToEnd({0}));
            EXPECT_LE(player.Count(), before + 1);
            ASSERT_EQ(KELM_AviFile_DataPopStart(player.handle), 0);
        }
        ASSERT_TRUE(player.WaitForEnd({0}));
        EXPECT_EQ(player.Frames(0), Playable(0));
    }
}

TEST_F(Playback, AnswersByItsState) {
    Record(0, kTenOClock, 3);
    Record(1, kTenOClock, 3);
    Player player(device, 0, kTenOClock, kTenOClock + 10, true);
    const uint32_t h = player.handle;
    uint64_t size = 0;
    constexpr int32_t kRunning = KELM_AVIFILE_ALREADY_RUNNING;
    // Created.
    EXPECT_EQ(KELM_AviFile_DataPopChanAdd(h, 0), kRunning);
    EXPECT_EQ(KELM_AviFile_DataPopChanAdd(h, 1), 0);
    EXPECT_EQ(KELM_AviFile_DataPopChanDel(h, 2), KELM_AVIFILE_FAILED);
    EXPECT_EQ(KELM_AviFile_DataPopStop(h), 0);
    EXPECT_EQ(KELM_AviFile_DataPopSetDirect(h, 0), 0);
    EXPECT_EQ(KELM_AviFile_DataPopSetKeyFrame(h, 0, 0), 0);
    EXPECT_EQ(KELM_AviFile_DataPopRecTypeDel(h, 8), 0);
    EXPECT_EQ(KELM_AviFile_DataPopStart(h), KELM_AVIFILE_FAILED) << "no record type";
    EXPECT_EQ(KELM_AviFile_DataPopGetDataSize(h, &size), 0);
    EXPECT_EQ(size, 0U);
    EXPECT_EQ(KELM_AviFile_DataPopRecTypeAdd(h, 1), 0);
    EXPECT_EQ(KELM_AviFile_DataPopGetDataSize(h, &size), 0);
    uint64_t all = 0;
    for (const auto &[channel, frames] : recorded) {
        for (const auto &frame : frames) all += frame.bytes;
    }
    EXPECT_EQ(size, all);
    // Running.
    ASSERT_EQ(KELM_AviFile_DataPopStart(h), 0);
    EXPECT_EQ(KELM_AviFile_DataPopStart(h), kRunning);
    EXPECT_EQ(KELM_AviFile_DataPopChanAdd(h, 2), kRunning);
    EXPECT_EQ(KELM_AviFile_DataPopChanDel(h, 1), kRunning);
    EXPECT_EQ(KELM_AviFile_DataPopGetDataSize(h, &size), 0);
    EXPECT_EQ(size, all);
    ASSERT_TRUE(player.WaitForEnd({0, 1}));
    EXPECT_EQ(KELM_AviFile_DataPopSetDirect(h, 1), 0);  // no frame flows until it is taken back
    player.Forget();
    EXPECT_EQ(KELM_AviFile_DataPopTimeSeek(h, kTenOClock), 0);
    EXPECT_EQ(KELM_AviFile_DataPopSetDirect(h, 0), 0);
    ASSERT_TRUE(player.WaitForEnd({0, 1}));
    EXPECT_EQ(player.Frames(0), Playable(0));
    // Stopped.
    EXPECT_EQ(KELM_AviFile_DataPopStop(h), 0);
    EXPECT_EQ(KELM_AviFile_DataPopChanAdd(h, 2), 0);
    EXPECT_EQ(KELM_AviFile_DataPopStart(h), 0) << "the new channel stays silent";
    EXPECT_EQ(KELM_AviFile_DataPopStop(h), 0);
    EXPECT_EQ(KELM_AviFile_DataPopChanDel(h, 2), KELM_AVIFILE_FAILED) << "it had not been started";
    EXPECT_EQ(KELM_AviFile_DataPopChanDel(h, 1), 0);
    EXPECT_EQ(KELM_AviFile_DataPopStart(h), 0);
    // Released.
    EXPECT_EQ(KELM_AviFile_DataPopRelease(h), 0);
    EXPECT_EQ(KELM_AviFile_DataPopRelease(h), KELM_AVIFILE_NOT_RUNNING);
    EXPECT_EQ(KELM_AviFile_DataPopStart(h), KELM_AVIFILE_NOT_RUNNING);
}

// All 32 playbacks run, with callbacks that take their time: after the end no callback comes, and no thread is left.
TEST_F(Playback, EndsWithEveryCallbackReturned) {
    for (uint32_t channel = 0; channel < 4; ++channel) Record(channel, kTenOClock, 60);
    const auto threads = [] { return std::distance(fs::directory_iterator("/proc/self/task"), fs::directory_iterator()); };
    const auto before = threads();
    for (const bool by_uninit : {false, true}) {
        std::vector<std::unique_ptr<Player>> players;
        for (uint32_t i = 0; i < 32; ++i) {
            players.push_back(std::make_unique<Player>(device, 0, kTenOClock, kTenOClock + 100, i % 2 == 0));
            players.back()->on_frame = [](const Played &) { std::this_thread::sleep_for(std::chrono::milliseconds(20)); };
            for (uint32_t channel = 1; channel < 4; ++channel) KELM_AviFile_DataPopChanAdd(players[i]->handle, channel);
        }
        uint32_t none = 0;
        EXPECT_EQ(KELM_AviFile_DataPopCreate(
                      &none, 0, kTenOClock, 0, [](auto...) -> int32_t { return 0; }, 0, 0, device, 0),
                  KELM_AVIFILE_NO_SLOT);
        for (auto &player : players) ASSERT_EQ(KELM_AviFile_DataPopStart(player->handle), 0);
        for (auto &player : players) ASSERT_TRUE(player->WaitForFrames(2));
        if (by_uninit) {
            EXPECT_EQ(KELM_AviFile_UnInit(0), 0);
        }
        std::vector<size_t> counts;
        for (auto &player : players) {
            if (!by_uninit) {
                EXPECT_EQ(KELM_AviFile_DataPopRelease(player->handle), 0);
            }
            player->handle = 0;
            EXPECT_EQ(player->inside, 0);
            counts.push_back(player->Count());
        }
        if (!by_uninit) {
            EXPECT_EQ(threads(), before);
            Player last(device, 0, kTenOClock, kTenOClock + 1);
            EXPECT_EQ(last.handle, 1U) << "the lowest number that is free";
            EXPECT_TRUE(last.PlayToEnd({0}));
        }
        for (size_t i = 0; i < players.size(); ++i) EXPECT_EQ(players[i]->Count(), counts[i]);
    }
}

TEST_F(Playback, SeeksPastAFileThatVanished) {
    Record(0, kTenOClock, 20);
    Record(0, kTenOClock + 100, 20);
    const Recorded second = between(Playable(0), kTenOClock + 100, kTenOClock + 119);
    Player player(device, 0, kTenOClock, kTenOClock + 1000);
    ASSERT_TRUE(player.PlayToEnd({0}));
    EXPECT_EQ(KELM_AviFile_DelAviFileByName(Files()[0].c_str()), 0);
    player.Forget();
    EXPECT_EQ(KELM_AviFile_DataPopTimeSeek(player.handle, kTenOClock + 5), 0);
    ASSERT_TRUE(player.WaitForFrames(1));
    ASSERT_TRUE(player.WaitForEnd({0}));
    EXPECT_EQ(player.Frames(0), second);
}

// Damage in the middle of a file, a file that is none any more, one that is deleted: an application sees a gap.
TEST_F(Playback, GoesOnBehindDamage) {
    const uint32_t t = kTenOClock;
    for (uint32_t file = 0; file < 4; ++file) Record(0, t + file * 100, 30);
    const auto files = Files();
    ASSERT_EQ(files.size(), 4U);
    Recorded playable = Playable(0);
    {
        const StoredFile stored(files[0]);
        const size_t begin = stored.frames[40].position;
        const size_t end = stored.frames[60].position;
        TakeOut(&playable, stored,
                [=](const StoredFrame &frame) { return frame.position >= begin && frame.position < end; });
        std::fstream damaged(files[0], std::ios::in | std::ios::out | std::ios::binary);
        damaged.seekp(static_cast<std::streamoff>(begin));
        damaged << std::string(end - begin, 'x');
    }
    std::fstream(files[1], std::ios::in | std::ios::out | std::ios::binary) << std::string(4096, 'x');
    Recorded expected = between(playable, t, t + 29);
    for (const FrameId &id : between(playable, t + 200, t + 229)) expected.push_back(id);
    Player player(device, 0, t, t + 1000);
    std::atomic<bool> deleted{false};
    player.on_frame = [&](const Played &frame) {  // a file that is being played goes on; the next one is gone
        if (frame.time < t + 210 || deleted.exchange(true)) return;
        EXPECT_EQ(KELM_AviFile_DelAviFileByName(files[2].c_str()), 0);
        EXPECT_EQ(KELM_AviFile_DelAviFileByName(files[3].c_str()), 0);
    };
    ASSERT_TRUE(player.PlayToEnd({0}));
    EXPECT_EQ(player.Frames(0), expected);
}
