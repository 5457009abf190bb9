// What the benchmarks of reading share: a store to read from, and the yardsticks: libavformat's AVI demuxer and plain reads.
#pragma once

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/log.h>
}

#include <functional>

#include "support.h"

namespace bench {

constexpr uint32_t kFrameBytes = 20'000;
constexpr size_t kBlock = 64U << 10U;

inline bool is_key(uint32_t number) { return number % kFps == 0; }

// Delivers `seconds` on each channel, as fast as no ring fills. A block that is in the file may still stand in the ring, so
// that a ring can hold twice what a look at the file lets under way: a burst and what was left before it.
inline void deliver_seconds(Recorder *recorder, uint32_t seconds) {
    constexpr uint32_t kBurst = 10;
    constexpr uint64_t kLeft = 300U << 10U;
    static_assert(2 * (kLeft + kBurst * (kFrameBytes + kRecordHeadBytes)) < kRingBytes);
    for (uint32_t number = 0; number < seconds * kFps; ++number) {
        for (uint32_t channel = 0; channel < recorder->channels(); ++channel) {
            recorder->deliver(channel, is_key(number));
            if (number % kBurst == kBurst - 1) recorder->wait_until_below(channel, kLeft, std::chrono::microseconds(200));
        }
    }
}

inline void record(const std::string &root, uint32_t channels, uint32_t seconds, uint32_t frame_bytes = kFrameBytes) {
    const Frames frames(channels, frame_bytes);
    Recorder recorder(root, frames);
    recorder.start();
    deliver_seconds(&recorder, seconds);
    recorder.stop();
    if (recorder.lost() > 0) {
        throw std::runtime_error("frames were lost while the store was made");
    }
}

// The one file of a store that has one, or any of them.
inline std::string only_file(const std::string &root) {
    for (const auto &entry : fs::recursive_directory_iterator(root)) {
        if (entry.path().extension() == ".avi") return entry.path();
    }
    throw std::runtime_error("there is no file in " + root);
}

struct Read {
    double cpu = 0, wall = 0;
    uint64_t frames = 0, bytes = 0;
};

inline Read measured(const std::function<void(Read *)> &work) {
    Read read;
    const Usage before = usage_now();
    work(&read);
    const Usage used = usage_now() - before;
    read.cpu = used.cpu;
    read.wall = used.wall;
    return read;
}

inline double median_of(const std::vector<Read> &reads, double Read::*field) {
    Samples samples;
    for (const Read &read : reads) {
        samples.add(read.*field);
    }
    return samples.at(0.5);
}

// By default libavformat parses the frames of what it demuxes. Quiet: a line about random data would be no cost of demuxing.
inline AVFormatContext *open_demuxer(const std::string &path, bool parse) {
    av_log_set_level(AV_LOG_QUIET);
    AVFormatContext *demuxer = avformat_alloc_context();
    if (demuxer == nullptr) throw std::bad_alloc();
    if (!parse) demuxer->flags |= AVFMT_FLAG_NOPARSE;
    if (avformat_open_input(&demuxer, path.c_str(), nullptr, nullptr) < 0) throw std::runtime_error("no " + path);
    return demuxer;
}

inline Read demux(const std::string &path, bool parse = true) {
    return measured([&](Read *read) {
        AVFormatContext *demuxer = open_demuxer(path, parse);
        AVPacket *packet = av_packet_alloc();
        while (av_read_frame(demuxer, packet) >= 0) {
            ++read->frames;
            read->bytes += static_cast<uint64_t>(packet->size);
            av_packet_unref(packet);
        }
        av_packet_free(&packet);
        avformat_close_input(&demuxer);
    });
}

// Plain reads; with a pause of a millisecond for each key frame, as a playback makes it.
inline Read read_plainly(const std::string &path, uint32_t pauses) {
    return measured([&](Read *read) {
        const File file(path, O_RDONLY);
        std::vector<uint8_t> block(kBlock);
        const uint64_t distance = pauses == 0 ? UINT64_MAX : file.size() / pauses;
        uint64_t next = distance;
        for (ssize_t count = 0; (count = ::read(file.fd(), block.data(), block.size())) > 0;) {
            read->bytes += static_cast<uint64_t>(count);
            for (; read->bytes >= next; next += distance) std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
}

}  // namespace bench
