// A playback under test: remembers what its callback gets.
#pragma once

#include <atomic>
#include <map>
#include <mutex>

#include "support.h"

namespace recvault_tests {

// What tells frames apart: their head, and all bytes of head and data. Short when it is printed.
struct FrameId {
    explicit FrameId(const std::string &frame)
        : type(at<uint32_t>(frame, 4)),
          number(at<uint32_t>(frame, 8)),
          second(at<uint32_t>(frame, 12)),
          bytes(frame.size()),
          content(std::hash<std::string>()(frame)) {}
    explicit FrameId(const Frame &frame)
        : FrameId(std::string(reinterpret_cast<const char *>(&frame.head), sizeof(frame.head)) +
                  std::string(frame.data.begin(), frame.data.end())) {}
    bool operator==(const FrameId &) const = default;
    friend void PrintTo(const FrameId &id, std::ostream *out) { *out << '#' << id.number << '@' << id.second; }

    uint32_t type, number;
    int64_t second;
    size_t bytes, content;
};

struct Played {
    int32_t channel, key;
    int64_t time;
    FrameId id;
};

class Player {
 public:
    Player(int32_t device, uint32_t channel, int64_t begin, int64_t end, bool sync = false, int32_t mode = 0) {
        EXPECT_EQ(KELM_AviFile_DataPopCreate(&handle, channel, begin, end, &Player::OnFrame, mode, Register(this), device,
                                             sync ? 1 : 0),
                  0);
        EXPECT_EQ(KELM_AviFile_DataPopRecTypeAdd(handle, 8), 0);
    }
    ~Player() {
        if (handle != 0) KELM_AviFile_DataPopRelease(handle);
    }
    Player(const Player &) = delete;
    Player &operator=(const Player &) = delete;

    std::vector<Played> All() {
        const std::lock_guard lock(m_mutex);
        return m_frames;
    }
    std::vector<FrameId> Frames(int32_t channel) {
        std::vector<FrameId> found;
        for (const auto &frame : All()) {
            if (frame.channel == channel) found.push_back(frame.id);
        }
        return found;
    }
    size_t Count() {
        const std::lock_guard lock(m_mutex);
        return m_frames.size();
    }
    int Events(int32_t channel, int32_t event) {
        const std::lock_guard lock(m_mutex);
        return m_events[{channel, event}];
    }
    void Forget() {
        const std::lock_guard lock(m_mutex);
        m_frames.clear();
        m_events.clear();
    }
    // Plays to the end of the range in these channels.
    bool PlayToEnd(const std::vector<int32_t> &channels) {
        EXPECT_EQ(KELM_AviFile_DataPopStart(handle), 0);
        return WaitForEnd(channels);
    }
    bool WaitForEnd(const std::vector<int32_t> &channels) {
        return wait_until([&] {
            return std::all_of(channels.begin(), channels.end(), [this](int32_t c) { return Events(c, POP_EVENT_END) > 0; });
        });
    }
    bool WaitForFrames(size_t count) {
        return wait_until([&] { return Count() >= count; });
    }

    uint32_t handle = 0;
    std::function<void(const Played &)> on_frame;  // set before the start
    std::atomic<int> inside{0};                    // calls under way

 private:
    // The word that comes back in a callback has 32 bits.
    static uint32_t Register(Player *player) {
        static std::atomic<uint32_t> next{0};
        const uint32_t word = next++ % kPlayers;
        s_players[word] = player;
        return word;
    }
    static int32_t OnFrame(int32_t index, int32_t channel, int32_t key, int32_t type, int64_t time, const void *frame,
                           int32_t length, int32_t event, uintptr_t user) {
        Player &self = *s_players[user];
        ++self.inside;
        EXPECT_TRUE(self.handle == 0 || static_cast<uint32_t>(index) + 1 == self.handle);
        if (event == POP_EVENT_FRAME) {
            const Played played{channel, key, time,
                                FrameId(std::string(static_cast<const char *>(frame), static_cast<size_t>(length)))};
            EXPECT_EQ(played.id.type, static_cast<uint32_t>(type));
            EXPECT_EQ(played.id.second, time);
            if (self.on_frame) self.on_frame(played);
            const std::lock_guard lock(self.m_mutex);
            self.m_frames.push_back(played);
            self.m_events.erase({channel, POP_EVENT_END});  // there was more
        } else {
            const std::lock_guard lock(self.m_mutex);
            ++self.m_events[{channel, event}];
        }
        --self.inside;
        return 0;
    }

    static constexpr uint32_t kPlayers = 256;
    static inline std::array<std::atomic<Player *>, kPlayers> s_players{};

    std::mutex m_mutex;
    std::vector<Played> m_frames;
    std::map<std::pair<int32_t, int32_t>, int> m_events;
};

}  // namespace recvault_tests
