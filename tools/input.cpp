#include "input.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <utility>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
#include <libavutil/dict.h>
}

#include "failure.h"
#include "library.h"

namespace recvault_tool {

namespace {

constexpr int64_t kLivePatienceUsec = 10'000'000;
constexpr int64_t kSecond = 1'000'000;
constexpr int64_t kDefaultFrameUsec = 40'000;
constexpr size_t kSoundBytes = 320;  // 40 ms of G.711, the length of an audio frame for the library
constexpr int64_t kSoundUsec = 40'000;

int64_t steady_usec() {
    const auto now = std::chrono::steady_clock::now().time_since_epoch();
    return std::chrono::duration_cast<std::chrono::microseconds>(now).count();
}

std::string reason(int error) {
    std::array<char, AV_ERROR_MAX_STRING_SIZE> text{};
    av_strerror(error, text.data(), text.size());
    return text.data();
}

int64_t to_usec(int64_t time, const AVStream &stream) { return av_rescale_q(time, stream.time_base, {1, kSecond}); }

// Whether a picture in Annex B brings a sequence parameter set along.
bool has_parameters(std::span<const uint8_t> data) {
    constexpr std::array<uint8_t, 3> kStart{0, 0, 1};
    constexpr uint8_t kTypeMask = 0x1f, kParameterSet = 7;
    for (auto at = data.begin();; at += 3) {
        at = std::search(at, data.end(), kStart.begin(), kStart.end());
        if (data.end() - at < 4) return false;
        if ((at[3] & kTypeMask) == kParameterSet) return true;
    }
}

}  // namespace

void Input::Deleter::operator()(AVFormatContext *input) const { avformat_close_input(&input); }
void Input::Deleter::operator()(AVBSFContext *filter) const { av_bsf_free(&filter); }
void Input::Deleter::operator()(AVCodecContext *codec) const { avcodec_free_context(&codec); }
void Input::Deleter::operator()(AVCodecParserContext *parser) const { av_parser_close(parser); }
void Input::Deleter::operator()(AVPacket *packet) const { av_packet_free(&packet); }

Input::Input(std::string name, const InputOptions &options)
    : m_name(std::move(name)), m_options(options), m_packet(av_packet_alloc()) {
    m_network = m_name.find("://") != std::string::npos && !m_name.starts_with("file:");
    if (m_name.starts_with("rtsp://")) {
        m_options.demuxer.try_emplace("rtsp_transport", "tcp");  // over UDP a busy machine loses pictures
    }
    open();
}

Input::~Input() = default;

int Input::is_interrupted(void *source) {
    const auto &self = *static_cast<const Input *>(source);
    return stop_asked || (self.m_network && steady_usec() > self.m_deadline) ? 1 : 0;
}

void Input::open() {
    AVFormatContext *input = avformat_alloc_context();
    input->interrupt_callback = {is_interrupted, this};
    AVDictionary *settings = nullptr;
    for (const auto &[key, value] : m_options.demuxer) {
        av_dict_set(&settings, key.c_str(), value.c_str(), 0);
    }
    m_deadline = steady_usec() + kLivePatienceUsec;
    const std::string url = m_name == "-" ? "pipe:0" : m_name;
    int result = avformat_open_input(&input, url.c_str(), nullptr, &settings);
    av_dict_free(&settings);
    m_input.reset(result == 0 ? input : nullptr);  // a failed opening has freed it
    if (result >= 0) result = avformat_find_stream_info(m_input.get(), nullptr);
    if (result < 0) {
        throw Failure(fmt::format("{} cannot be opened: {}", m_name, stop_asked ? "stopped" : reason(result)));
    }
    // A file that lies on a server waits as one on the disk does.
    m_live = m_network && (m_input->pb == nullptr || (m_input->pb->seekable & AVIO_SEEKABLE_NORMAL) == 0);
    choose_streams();
    m_filter.reset();
    if (!is_jpeg()) open_filter();
    m_origin.reset();
    m_next_usec = 0;
    m_sound.clear();
    m_key_second = -1;
}

void Input::reopen() {
    m_input.reset();
    open();
}

void Input::choose_streams() {
    const int video = av_find_best_stream(m_input.get(), AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    if (video < 0) {
        throw Failure(
            fmt::format("{} has no pictures, which every file of a channel begins with: give an input with H.264 or "
                        "Motion JPEG",
                        m_name));
    }
    m_video = m_input->streams[video];
    const AVCodecParameters &pictures = *m_video->codecpar;
    if (pictures.codec_id != AV_CODEC_ID_H264 && pictures.codec_id != AV_CODEC_ID_MJPEG) {
        throw Failure(fmt::format("{} has pictures in {}, which is not recorded: convert them to H.264 or Motion JPEG",
                                  m_name, avcodec_get_name(pictures.codec_id)));
    }
    if (pictures.width <= 0 || pictures.width > UINT16_MAX || pictures.height <= 0 || pictures.height > UINT16_MAX) {
        throw Failure(fmt::format("{} does not tell the size of its pictures: let it send parameter sets", m_name));
    }
    m_width = static_cast<uint16_t>(pictures.width);
    m_height = static_cast<uint16_t>(pictures.height);

    const int audio = av_find_best_stream(m_input.get(), AVMEDIA_TYPE_AUDIO, -1, video, nullptr, 0);
    m_audio = m_options.sound && audio >= 0 ? m_input->streams[audio] : nullptr;
    if (m_audio != nullptr) {
        const AVCodecParameters &sound = *m_audio->codecpar;
        if (audio_codec() == 0 || sound.sample_rate != 8000 || sound.ch_layout.nb_channels != 1) {
            throw Failure(
                fmt::format("{} has sound in {} ({} Hz, {} channels), and only G.711 of 8000 Hz and one channel is "
                            "recorded: leave it out with --no-sound",
                            m_name, avcodec_get_name(sound.codec_id), sound.sample_rate, sound.ch_layout.nb_channels));
        }
    }
    for (unsigned n = 0; n < m_input->nb_streams; ++n) {
        AVStream *stream = m_input->streams[n];
        stream->discard = stream == m_video || stream == m_audio ? AVDISCARD_DEFAULT : AVDISCARD_ALL;
    }
}

void Input::open_filter() {
    AVBSFContext *filter = nullptr;
    const AVBitStreamFilter *kind = av_bsf_get_by_name("h264_mp4toannexb");
    if (kind == nullptr || av_bsf_alloc(kind, &filter) < 0) {
        throw Failure("this libavcodec has no filter h264_mp4toannexb: install one that has");
    }
    m_filter.reset(filter);
    filter->time_base_in = m_video->time_base;
    if (avcodec_parameters_copy(filter->par_in, m_video->codecpar) < 0 || av_bsf_init(filter) < 0) {
        throw Failure(fmt::format("{} has H.264 that cannot be brought into Annex B: convert it with ffmpeg", m_name));
    }
    m_codec.reset(avcodec_alloc_context3(nullptr));
    m_parser.reset(av_parser_init(AV_CODEC_ID_H264));
    m_parser->flags |= PARSER_FLAG_COMPLETE_FRAMES;
}

bool Input::is_jpeg() const { return m_video->codecpar->codec_id == AV_CODEC_ID_MJPEG; }

uint8_t Input::audio_codec() const {
    const AVCodecID codec = m_audio != nullptr ? m_audio->codecpar->codec_id : AV_CODEC_ID_NONE;
    return codec == AV_CODEC_ID_PCM_ALAW ? 1 : codec == AV_CODEC_ID_PCM_MULAW ? 2 : 0;
}

bool Input::read(const Sink &sink) {
    m_deadline = steady_usec() + kLivePatienceUsec;
    if (stop_asked || av_read_frame(m_input.get(), m_packet.get()) < 0) return false;
    if (m_packet->stream_index == m_video->index) {
        take_pictures(sink);
    } else if (m_audio != nullptr && m_packet->stream_index == m_audio->index) {
        take_sound(sink);
    }
    av_packet_unref(m_packet.get());
    return true;
}

void Input::take_pictures(const Sink &sink) {
    if (!m_filter) {
        take_picture(sink);
    } else if (av_bsf_send_packet(m_filter.get(), m_packet.get()) == 0) {
        while (av_bsf_receive_packet(m_filter.get(), m_packet.get()) == 0) {
            take_picture(sink);
            av_packet_unref(m_packet.get());
        }
    }
}

void Input::take_picture(const Sink &sink) {
    const int64_t usec = picture_time(*m_packet);
    const bool key = begins_interval(*m_packet, usec);
    if (!m_origin) {
        if (!key) return;
        m_origin = usec;
    }
    if (key && !is_jpeg()) look_at_size(*m_packet);
    sink({.audio = false, .key = key, .usec = usec - *m_origin, .data = with_parameters(*m_packet, key)});
}

// The order of decoding is the order of recording, so that the time of decoding counts. One that steps back, as where a file
// was put together, and one that is missing, as in a bare stream, goes behind the picture before.
int64_t Input::picture_time(const AVPacket &packet) {
    const int64_t stamp = packet.dts != AV_NOPTS_VALUE ? packet.dts : packet.pts;
    int64_t usec = stamp != AV_NOPTS_VALUE ? to_usec(stamp, *m_video) : m_next_usec;
    if (m_origin && usec < m_next_usec - kSecond) *m_origin += usec - m_next_usec;
    const AVRational rate = m_video->avg_frame_rate.num > 0 ? m_video->avg_frame_rate : m_video->r_frame_rate;
    const int64_t length = packet.duration > 0 ? to_usec(packet.duration, *m_video)
                           : rate.num > 0      ? av_rescale(kSecond, rate.den, rate.num)
                                               : kDefaultFrameUsec;
    m_next_usec = usec + length;
    return usec;
}

// Each JPEG picture could be a key frame. A file ends after 3600 key frames, so the first of each second is one.
bool Input::begins_interval(const AVPacket &packet, int64_t usec) {
    if (!is_jpeg()) return (packet.flags & AV_PKT_FLAG_KEY) != 0;
    const int64_t second = (usec - m_origin.value_or(usec)) / kSecond;
    return std::exchange(m_key_second, second) != second;
}

// Some senders tell the parameter sets beside the stream alone. A recording needs them where a file may begin.
std::span<const uint8_t> Input::with_parameters(const AVPacket &packet, bool key) {
    const std::span data(packet.data, static_cast<size_t>(packet.size));
    if (!key || !m_filter || m_filter->par_out->extradata_size == 0 || has_parameters(data)) return data;
    const AVCodecParameters &parameters = *m_filter->par_out;
    m_joined.assign(parameters.extradata, parameters.extradata + parameters.extradata_size);
    m_joined.insert(m_joined.end(), data.begin(), data.end());
    return m_joined;
}

void Input::look_at_size(const AVPacket &packet) {
    uint8_t *data = nullptr;
    int size = 0;
    av_parser_parse2(m_parser.get(), m_codec.get(), &data, &size, packet.data, packet.size, packet.pts, packet.dts, 0);
    if (m_parser->width > 0 && m_parser->width <= UINT16_MAX && m_parser->height > 0 && m_parser->height <= UINT16_MAX) {
        m_width = static_cast<uint16_t>(m_parser->width);
        m_height = static_cast<uint16_t>(m_parser->height);
    }
}

void Input::take_sound(const Sink &sink) {
    if (!m_origin) return;
    const int64_t stamp = m_packet->dts != AV_NOPTS_VALUE ? m_packet->dts : m_packet->pts;
    const int64_t held = static_cast<int64_t>(m_sound.size()) * kSoundUsec / static_cast<int64_t>(kSoundBytes);
    if (stamp != AV_NOPTS_VALUE) m_sound_usec = to_usec(stamp, *m_audio) - *m_origin - held;
    m_sound.insert(m_sound.end(), m_packet->data, m_packet->data + m_packet->size);
    size_t used = 0;
    for (; m_sound.size() - used >= kSoundBytes; used += kSoundBytes, m_sound_usec += kSoundUsec) {
        if (m_sound_usec >= 0) {
            sink({.audio = true, .key = false, .usec = m_sound_usec, .data = std::span(m_sound).subspan(used, kSoundBytes)});
        }
    }
    m_sound.erase(m_sound.begin(), m_sound.begin() + static_cast<std::ptrdiff_t>(used));
}

}  // namespace recvault_tool
