// The yardstick: libavformat's AVI muxer, which writes on the calling thread.
#pragma once

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/log.h>
}

#include <memory>

#include "support.h"

namespace bench {

// One AVI file for each channel, fed like a Recorder.
class Muxers {
 public:
    Muxers(const std::string &folder, const Frames &frames)
        : m_folder(folder), m_frames(frames), m_packet(av_packet_alloc()), m_delivered(frames.channels()) {
        raise_open_files();
        av_log_set_level(AV_LOG_ERROR);
    }

    void start() {
        for (uint32_t channel = 0; channel < m_frames.channels(); ++channel) {
            m_files.push_back(open_file(path_of(channel)));
        }
    }

    void deliver(uint32_t channel, bool key) {
        // The muxer only reads the data; without a buffer behind them it neither keeps nor copies them.
        m_packet->data = const_cast<uint8_t *>(m_frames.of(channel, key));
        m_packet->size = static_cast<int>(m_frames.bytes());
        m_packet->stream_index = 0;
        m_packet->flags = key ? AV_PKT_FLAG_KEY : 0;
        m_packet->pts = m_packet->dts = m_delivered[channel]++;
        m_packet->duration = 1;
        check(av_write_frame(m_files[channel].get(), m_packet.get()), "av_write_frame");
    }

    void stop() {
        for (Muxer &file : m_files) {
            check(av_write_trailer(file.get()), "av_write_trailer");
        }
        m_files.clear();
    }

    uint64_t lost() const {
        uint64_t lost = 0;
        for (uint32_t channel = 0; channel < m_frames.channels(); ++channel) {
            lost += static_cast<uint64_t>(m_delivered[channel]) - frames_in_head(path_of(channel));
        }
        return lost;
    }

 private:
    struct Closer {
        void operator()(AVFormatContext *muxer) const {
            avio_closep(&muxer->pb);
            avformat_free_context(muxer);
        }
    };
    struct PacketFree {
        void operator()(AVPacket *packet) const { av_packet_free(&packet); }
    };
    using Muxer = std::unique_ptr<AVFormatContext, Closer>;
    using Packet = std::unique_ptr<AVPacket, PacketFree>;

    static void check(int result, const char *what) {
        if (result < 0) {
            throw std::runtime_error(std::string(what) + " gave " + std::to_string(result));
        }
    }

    static Muxer open_file(const std::string &path) {
        AVFormatContext *context = nullptr;
        check(avformat_alloc_output_context2(&context, nullptr, "avi", path.c_str()), "avformat_alloc_output_context2");
        Muxer muxer(context);
        AVStream *stream = avformat_new_stream(context, nullptr);
        if (stream == nullptr) {
            throw std::bad_alloc();
        }
        stream->time_base = {1, static_cast<int>(kFps)};
        stream->avg_frame_rate = {static_cast<int>(kFps), 1};
        stream->codecpar->codec_type = AVMEDIA_TYPE_VIDEO;
        stream->codecpar->codec_id = AV_CODEC_ID_H264;
        stream->codecpar->width = kWidth;
        stream->codecpar->height = kHeight;
        check(avio_open(&context->pb, path.c_str(), AVIO_FLAG_WRITE), "avio_open");
        check(avformat_write_header(context, nullptr), "avformat_write_header");
        return muxer;
    }

    std::string path_of(uint32_t channel) const { return m_folder + "/" + std::to_string(channel) + ".avi"; }

    std::string m_folder;
    const Frames &m_frames;
    Packet m_packet;
    std::vector<Muxer> m_files;
    std::vector<int64_t> m_delivered;
};

}  // namespace bench
