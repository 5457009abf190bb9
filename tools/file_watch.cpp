#include "file_watch.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <utility>

#include "store.h"

namespace recvault_tool {

namespace {

constexpr size_t kSideEntryBytes = 40;
constexpr size_t kOffsetAt = 16, kLengthAt = 20, kSecondAt = 28, kUsecAt = 32;  // in a side entry
constexpr uint32_t kLengthOfHead = 36;                                          // what a length there has in addition

// The recorder has room for 500 side entries and for 1 MiB. What is on disk already may still stand there, so twice what is
// under way has to fit. Less than a block of 16 KiB stays there as long as nothing follows.
constexpr size_t kMaxFramesUnderWay = 150;
constexpr uint64_t kMaxBytesUnderWay = 384 << 10;
constexpr uint64_t kBytesThatStay = 20 << 10;

uint64_t record_size(uint64_t bytes) { return kRecordHead + bytes + bytes % 2; }

}  // namespace

FileWatch::FileWatch(const fs::path &store, std::string device, uint32_t channel)
    : m_days(store / "avi_av"), m_device(std::move(device)), m_channel(channel) {}

void FileWatch::delivered(bool audio, bool key, int64_t usec, size_t bytes) {
    if (key) {
        const fs::path path = path_of_file_begun_at(usec / 1'000'000);
        if (!path.empty() && path != m_path) enter(path);
    }
    if (!has_file()) {
        ++m_dropped;
        return;
    }
    m_under_way.push_back({audio, usec, record_size(bytes)});
    m_bytes_under_way += record_size(bytes);
}

// A file is named after its first frame, and is open as long as it has a side file. A name that is taken gets a number.
fs::path FileWatch::path_of_file_begun_at(int64_t second) const {
    const fs::path folder = m_days / day_of(second) / m_device / fmt::format("channel{:02}", m_channel + 1);
    std::string begin = clock_time(second);
    std::erase(begin, ':');
    fs::path open;
    std::error_code error;
    for (int n = 0;; ++n) {
        const fs::path path = folder / (begin + (n > 0 ? fmt::format("_{}", n) : "") + ".avi");
        if (!fs::exists(path, error)) return open;
        if (fs::exists(side_path(path), error)) open = path;
    }
}

void FileWatch::enter(const fs::path &path) {
    finish();
    m_path = path;
    m_side = std::ifstream(side_path(path), std::ios::binary);
    m_recorded_end = m_size = kHeadSize;
}

void FileWatch::finish() {
    refresh();
    drop_first(m_under_way.size());
}

void FileWatch::refresh() {
    std::array<char, kSideEntryBytes> entry{};
    while (m_side.is_open()) {
        const std::streampos begin = m_side.tellg();
        if (!m_side.read(entry.data(), entry.size())) {
            m_side.clear();
            m_side.seekg(begin);  // a part of an entry is read again
            break;
        }
        const uint32_t length = word(entry.data(), kLengthAt);
        if (length >= kLengthOfHead) {  // else it is silence that the recorder put in
            m_recorded_end = word(entry.data(), kOffsetAt) + record_size(length - kLengthOfHead);
            confirm(word(entry.data(), 0) == kAudio, word(entry.data(), kSecondAt), word(entry.data(), kUsecAt));
        }
    }
    std::error_code error;
    const uint64_t size = has_file() ? fs::file_size(m_path, error) : 0;
    m_size = error ? m_size : size;
}

// Frames reach the file in the order of their delivery: those before the one that did have been dropped.
void FileWatch::confirm(bool audio, uint32_t second, uint32_t usec) {
    const int64_t time = int64_t{second} * 1'000'000 + usec;
    const auto found = std::find_if(m_under_way.begin(), m_under_way.end(),
                                    [&](const Frame &frame) { return frame.audio == audio && frame.usec == time; });
    if (found != m_under_way.end()) {
        drop_first(static_cast<size_t>(found - m_under_way.begin()));
        m_bytes_under_way -= m_under_way.front().record_bytes;
        m_under_way.pop_front();
    }
}

void FileWatch::drop_first(size_t count) {
    for (size_t n = 0; n < count; ++n) {
        m_bytes_under_way -= m_under_way.front().record_bytes;
        m_under_way.pop_front();
    }
    m_dropped += count;
}

bool FileWatch::should_wait(size_t next_bytes) const {
    const uint64_t next = record_size(next_bytes);
    const uint64_t room = std::max(kBytesThatStay, kMaxBytesUnderWay - std::min(next, kMaxBytesUnderWay));
    const uint64_t not_on_disk = m_recorded_end > m_size ? m_recorded_end - m_size : 0;
    return has_file() && (m_under_way.size() > kMaxFramesUnderWay || m_bytes_under_way + not_on_disk > room);
}

}  // namespace recvault_tool
