// An input of `recvault record`: whatever libavformat opens, as frames in the form that the library takes.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

struct AVBSFContext;
struct AVCodecContext;
struct AVCodecParserContext;
struct AVFormatContext;
struct AVPacket;
struct AVStream;

namespace recvault_tool {

struct InputOptions {
    std::map<std::string, std::string> demuxer;  // options for libavformat
    bool sound = true;
};

struct InputFrame {
    bool audio = false;
    bool key = false;
    int64_t usec = 0;  // since the first key frame of this opening, in the order of decoding
    std::span<const uint8_t> data;
};

// Used by one thread at a time.
class Input {
 public:
    // Opens the input. Throws a Failure when it cannot be opened, or holds what cannot be recorded.
    Input(std::string name, const InputOptions &options);
    ~Input();
    Input(const Input &) = delete;
    Input &operator=(const Input &) = delete;

    // Hands out the frames of the next packet, from the first key frame on. False at the end of the input, or when a stop
    // was asked for. The data are valid during the call.
    bool read(const std::function<void(const InputFrame &)> &sink);

    // Opens the input anew, which then begins at its next key frame. Throws a Failure.
    void reopen();

    const std::string &name() const { return m_name; }
    bool is_live() const { return m_live; }  // it does not wait, and can be reached again
    bool is_jpeg() const;
    const char *codec() const { return is_jpeg() ? "Motion JPEG" : "H.264"; }
    uint8_t audio_codec() const;  // as in FrameHead, 0 for no sound
    uint16_t width() const { return m_width; }
    uint16_t height() const { return m_height; }

 private:
    struct Deleter {
        void operator()(AVFormatContext *input) const;
        void operator()(AVBSFContext *filter) const;
        void operator()(AVCodecContext *codec) const;
        void operator()(AVCodecParserContext *parser) const;
        void operator()(AVPacket *packet) const;
    };
    using Sink = std::function<void(const InputFrame &)>;

    static int is_interrupted(void *source);
    void open();
    void choose_streams();
    void open_filter();
    void take_pictures(const Sink &sink);
    void take_picture(const Sink &sink);
    void take_sound(const Sink &sink);
    int64_t picture_time(const AVPacket &packet);
    bool begins_interval(const AVPacket &packet, int64_t usec);
    std::span<const uint8_t> with_parameters(const AVPacket &packet, bool key);
    void look_at_size(const AVPacket &packet);

    std::string m_name;
    InputOptions m_options;
    bool m_network = false;
    bool m_live = false;
    int64_t m_deadline = 0;  // of what is under way, for live inputs

    std::unique_ptr<AVFormatContext, Deleter> m_input;
    std::unique_ptr<AVBSFContext, Deleter> m_filter;  // H.264 only, as are the next two
    std::unique_ptr<AVCodecContext, Deleter> m_codec;
    std::unique_ptr<AVCodecParserContext, Deleter> m_parser;
    std::unique_ptr<AVPacket, Deleter> m_packet;
    AVStream *m_video = nullptr;
    AVStream *m_audio = nullptr;  // null for no sound

    uint16_t m_width = 0, m_height = 0;
    std::optional<int64_t> m_origin;  // time of the first key frame, in microseconds of the input
    int64_t m_next_usec = 0;          // where a picture without a time goes
    int64_t m_key_second = -1;        // Motion JPEG: second of the newest key frame
    std::vector<uint8_t> m_joined;    // a key frame with the parameter sets in front

    // Sound that does not fill a frame yet, and the time of its first sample.
    std::vector<uint8_t> m_sound;
    int64_t m_sound_usec = 0;
};

}  // namespace recvault_tool
