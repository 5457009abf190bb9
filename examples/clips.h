// Clips of encoded video and audio, and a player that hands them out frame by frame as a camera would deliver them.
#ifndef RECVAULT_EXAMPLES_CLIPS_H
#define RECVAULT_EXAMPLES_CLIPS_H

#include <recvault/recvault.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <span>
#include <vector>

namespace demo {

using Bytes = std::vector<uint8_t>;

constexpr uint32_t kKeyFrame = 1, kOtherVideo = 9, kAudio = 8;  // FrameHead.type
constexpr uint32_t kFps = 25;                                   // pictures, and audio frames as well: both last 40 ms

struct VideoClip {
    uint16_t width = 0;
    uint16_t height = 0;
    int8_t codec_id = 0;
    std::vector<Bytes> pictures;  // whole seconds, each of which begins with a key frame
};

struct AudioClip {
    uint8_t codec = 0;
    std::vector<Bytes> frames;  // all of one length
};

// The clips of a folder as media/README.md describes it. The constructor throws if one is not as it should be.
struct Media {
    explicit Media(const std::filesystem::path &folder);

    VideoClip large, small, jpeg;
    AudioClip a_law, adpcm;
};

// Takes one delivery, as KELM_AviFile_DataInput and KELM_AviFile_SaveInput want it.
using Sink = std::function<void(const FrameHead &, std::span<const uint8_t>)>;

// The number of frames in a delivery.
uint32_t frames_in(const FrameHead &head, size_t bytes);

// Plays clips in a loop, one stream of one camera: five pictures, then the sound that belongs to them in one delivery, and
// so on.
class Player {
 public:
    // Plays one second that begins at `time`. The pictures are those of second `position` of the looped clip.
    void play_second(const VideoClip &video, const AudioClip &audio, uint32_t position, uint32_t time, const Sink &sink);

 private:
    FrameHead video_head(const VideoClip &clip, const Bytes &picture, uint32_t n, uint32_t time);
    void play_audio(const AudioClip &clip, uint32_t first, uint32_t time, const Sink &sink);

    uint32_t m_frame_no = 0;
    uint32_t m_audio_no = 0;
    Bytes m_delivery;
};

}  // namespace demo

#endif  // RECVAULT_EXAMPLES_CLIPS_H
