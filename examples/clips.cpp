#include "clips.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cstddef>
#include <fstream>
#include <iterator>
#include <memory>
#include <stdexcept>
#include <string>

extern "C" {
#include <libavformat/avformat.h>
}

namespace demo {
namespace {

namespace fs = std::filesystem;

constexpr int8_t kH264 = 1, kMotionJpeg = 2;  // FrameHead.codec_id
constexpr uint8_t kImaAdpcm = 0, kALaw = 1;   // FrameHead.audio_codec
constexpr uint32_t kFrameUsec = 1'000'000 / kFps;
constexpr uint32_t kAudioPerCall = 5;
constexpr size_t kALawFrameBytes = 320, kAdpcmBlockBytes = 164;

using Input = std::unique_ptr<AVFormatContext, decltype([](AVFormatContext *input) { avformat_close_input(&input); })>;
using Packet = std::unique_ptr<AVPacket, decltype([](AVPacket *packet) { av_packet_free(&packet); })>;

Input open_input(const fs::path &path) {
    AVFormatContext *input = nullptr;
    if (avformat_open_input(&input, path.c_str(), nullptr, nullptr) < 0) {
        throw std::runtime_error("cannot open " + path.string());
    }
    Input owner(input);
    if (avformat_find_stream_info(input, nullptr) < 0 || input->nb_streams != 1) {
        throw std::runtime_error(path.string() + " is not a clip of one stream");
    }
    return owner;
}

void for_each_packet(AVFormatContext &input, const std::function<void(const AVPacket &)> &take) {
    Packet packet(av_packet_alloc());
    while (packet && av_read_frame(&input, packet.get()) >= 0) {
        take(*packet);
        av_packet_unref(packet.get());
    }
}

VideoClip load_video(const fs::path &path) {
    Input input = open_input(path);
    const AVCodecParameters &parameters = *input->streams[0]->codecpar;
    VideoClip clip{.width = static_cast<uint16_t>(parameters.width),
                   .height = static_cast<uint16_t>(parameters.height),
                   .codec_id = parameters.codec_id == AV_CODEC_ID_MJPEG ? kMotionJpeg : kH264,
                   .pictures = {}};
    for_each_packet(*input, [&](const AVPacket &packet) {
        if (clip.pictures.size() % kFps == 0 && (packet.flags & AV_PKT_FLAG_KEY) == 0) {
            throw std::runtime_error(path.string() + ": no key frame at the beginning of a second");
        }
        clip.pictures.emplace_back(packet.data, packet.data + packet.size);
    });
    if (clip.pictures.empty() || clip.pictures.size() % kFps != 0) {
        throw std::runtime_error(path.string() + ": not a whole number of seconds");
    }
    return clip;
}

AudioClip cut_audio(const fs::path &path, uint8_t codec, const Bytes &data, size_t frame_bytes) {
    AudioClip clip{.codec = codec, .frames = {}};
    for (size_t at = 0; at + frame_bytes <= data.size(); at += frame_bytes) {
        const auto begin = data.begin() + static_cast<std::ptrdiff_t>(at);
        clip.frames.emplace_back(begin, begin + static_cast<std::ptrdiff_t>(frame_bytes));
    }
    if (clip.frames.empty()) {
        throw std::runtime_error(path.string() + ": no audio");
    }
    return clip;
}

AudioClip load_a_law(const fs::path &path) {
    std::ifstream file(path, std::ios::binary);
    const Bytes data{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    return cut_audio(path, kALaw, data, kALawFrameBytes);
}

AudioClip load_adpcm(const fs::path &path) {
    Input input = open_input(path);
    const AVCodecParameters &parameters = *input->streams[0]->codecpar;
    if (parameters.codec_id != AV_CODEC_ID_ADPCM_IMA_WAV || parameters.block_align != static_cast<int>(kAdpcmBlockBytes)) {
        throw std::runtime_error(path.string() + ": not IMA ADPCM in blocks of 164 bytes");
    }
    Bytes data;
    for_each_packet(*input,
                    [&](const AVPacket &packet) { data.insert(data.end(), packet.data, packet.data + packet.size); });
    return cut_audio(path, kImaAdpcm, data, kAdpcmBlockBytes);
}

FrameHead audio_head(const AudioClip &clip, uint32_t n, uint32_t time) {
    FrameHead head{};
    head.uiStartId = KELM_AVIFILE_FRAME_START_ID;
    head.type = kAudio;
    head.seconds = time;
    head.microseconds = n * kFrameUsec;
    head.length = static_cast<uint32_t>(clip.frames.front().size());
    head.audio_codec = clip.codec;
    return head;
}

}  // namespace

Media::Media(const fs::path &folder)
    : large(load_video(folder / "640x360.h264")),
      small(load_video(folder / "480x270.h264")),
      jpeg(load_video(folder / "480x270.mjpeg")),
      a_law(load_a_law(folder / "alaw.g711")),
      adpcm(load_adpcm(folder / "ima-adpcm.wav")) {}

uint32_t frames_in(const FrameHead &head, size_t bytes) {
    constexpr size_t kHead = sizeof(FrameHead);
    return head.type == kAudio ? static_cast<uint32_t>((bytes + kHead) / (head.length + kHead)) : 1;
}

void Player::play_second(const VideoClip &video, const AudioClip &audio, uint32_t position, uint32_t time,
                         const Sink &sink) {
    for (uint32_t n = 0; n < kFps; ++n) {
        const Bytes &picture = video.pictures[(size_t{position} * kFps + n) % video.pictures.size()];
        sink(video_head(video, picture, n, time), picture);
        if ((n + 1) % kAudioPerCall == 0) {
            play_audio(audio, n + 1 - kAudioPerCall, time, sink);
        }
    }
}

// Any JPEG picture could begin a file. One a second is marked as a key frame, as with H.264, because a file ends after 3600
// key frames.
FrameHead Player::video_head(const VideoClip &clip, const Bytes &picture, uint32_t n, uint32_t time) {
    FrameHead head{};
    head.uiStartId = KELM_AVIFILE_FRAME_START_ID;
    head.type = n == 0 ? kKeyFrame : kOtherVideo;
    head.frame_no = m_frame_no++;
    head.seconds = time;
    head.microseconds = n * kFrameUsec;
    head.length = static_cast<uint32_t>(picture.size());
    head.width = clip.width;
    head.height = clip.height;
    head.codec_id = clip.codec_id;
    return head;
}

// The data of the first frame stand alone, for its head is passed beside them; each further frame brings its own head.
void Player::play_audio(const AudioClip &clip, uint32_t first, uint32_t time, const Sink &sink) {
    m_delivery.clear();
    for (uint32_t n = first; n < first + kAudioPerCall; ++n) {
        if (n != first) {
            const auto head = std::bit_cast<std::array<uint8_t, sizeof(FrameHead)>>(audio_head(clip, n, time));
            m_delivery.insert(m_delivery.end(), head.begin(), head.end());
        }
        const Bytes &frame = clip.frames[m_audio_no++ % clip.frames.size()];
        m_delivery.insert(m_delivery.end(), frame.begin(), frame.end());
    }
    sink(audio_head(clip, first, time), m_delivery);
}

}  // namespace demo
