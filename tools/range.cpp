#include "range.h"

#include <fmt/format.h>
#include <CLI/CLI.hpp>

#include <algorithm>
#include <set>
#include <utility>

#include "failure.h"

namespace recvault_tool {

void RangeOptions::add_to(CLI::App *command) {
    command->add_option("--store", stores, "Root of a partition, the folder that holds avi_av; several times for several")
        ->required()
        ->allow_extra_args(false);
    command->add_option("--device", filter.device, "Name of the device, when there are several");
    command->add_option("--from", from, "First second, as in 2026-11-25T14:30:00")->required();
    command->add_option("--to", to, "The second behind the last one")->required();
    command->add_option("--type", filter.type, "Only this record type, 1 to 7")->check(CLI::Range(1, 7));
}

ChannelReader::ChannelReader(std::vector<Recording> files, const Filter &filter, int64_t begin, int64_t end)
    : m_files(std::move(files)), m_types(filter.mask()), m_begin(begin), m_end(end) {}

uint64_t ChannelReader::estimated_bytes() const {
    double bytes = 0;
    for (const Recording &file : m_files) {
        const int64_t seconds = file.end() - file.begin() + 1;
        const int64_t within = std::min(file.end() + 1, m_end) - std::max(file.begin(), m_begin);
        bytes += static_cast<double>(file.size) * static_cast<double>(within) / static_cast<double>(seconds);
    }
    return static_cast<uint64_t>(bytes);
}

bool ChannelReader::next(StoredFrame *frame) {
    for (;;) {
        while (m_next_frame == m_frames.size()) {
            if (m_next_file == m_files.size()) return false;
            open_next_file();
        }
        frame->head = m_frames[m_next_frame++];
        m_begun = m_begun || frame->head.key();
        if (!m_begun) continue;
        const uint64_t size = kRecordHead + frame->head.length;
        frame->record = m_source.read(frame->head.position, size);
        if (frame->record.size() == size) return true;  // else it was recycled meanwhile
    }
}

void ChannelReader::open_next_file() {
    m_source = Source(m_files[m_next_file++].path);
    m_frames.clear();
    m_next_frame = 0;
    const auto take = [this](const Frame &frame) {
        const bool wanted = frame.second >= m_begin && frame.second < m_end && (frame.types & m_types) != 0;
        if (wanted && !frame.filler()) m_frames.push_back(frame);
    };
    walk_frames(&m_source, kHeadSize, m_source.size(), take, [](uint64_t, uint64_t) {});
}

namespace {

// A file is named after its begin, and may end on the next day.
std::set<std::string> days_of(const std::vector<std::string> &stores, int64_t begin, int64_t end) {
    const std::string first = day_of(begin - kSegmentSpan), last = day_of(end - 1);
    std::set<std::string> days;
    for (const fs::path store : stores) {
        require_store(store);
        for (const auto &entry : entries_of(store / "avi_av")) {
            std::string name = entry.path().filename().string();
            if (is_day(name) && name >= first && name <= last) days.insert(std::move(name));
        }
    }
    return days;
}

}  // namespace

std::map<int, ChannelReader> read_range(RangeOptions options) {
    const int64_t begin = parse_time(options.from), end = parse_time(options.to);
    if (begin >= end)
        throw Failure(fmt::format("from {} to {} is no range: --to comes after --from", options.from, options.to));
    std::map<int, std::vector<Recording>> files;
    std::set<std::string> devices;
    for (const std::string &day : days_of(options.stores, begin, end)) {
        options.filter.day = day;
        for (Recording &file : recordings(options.stores, options.filter)) {
            if (file.end() < begin || file.begin() >= end) continue;
            devices.insert(file.device);
            files[file.channel].push_back(std::move(file));
        }
    }
    if (files.empty())
        throw Failure(fmt::format("nothing is recorded from {} to {}: ask recvault timeline for what is there", options.from,
                                  options.to));
    if (devices.size() > 1)
        throw Failure(
            fmt::format("several devices have recordings: choose one with --device, of {}", fmt::join(devices, ", ")));
    std::map<int, ChannelReader> readers;
    for (auto &[channel, list] : files) readers.try_emplace(channel, std::move(list), options.filter, begin, end);
    return readers;
}

}  // namespace recvault_tool
