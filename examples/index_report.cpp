#include "index_report.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <string>
#include <tuple>

namespace demo {
namespace {

namespace fs = std::filesystem;

constexpr int64_t kMaxTailSeconds = 3;  // how much earlier a cut file may end; the frames are counted elsewhere

struct IndexEntry {
    fs::path path;
    std::string device;
    uint32_t channel = 0;
    uint32_t types = 0;
    int64_t begin = 0;
    int64_t end = 0;
    bool recording = false;
};

template <class T>
T number_at(const char *entry, size_t offset) {
    T value;
    std::memcpy(&value, entry + offset, sizeof value);
    return value;
}

// Appends the entries of an index file, whose layout docs/format.md gives.
void read_index(const fs::path &path, std::vector<IndexEntry> &entries) {
    std::ifstream file(path, std::ios::binary);
    std::array<char, 312> raw;
    while (file.read(raw.data(), raw.size())) {
        const char *const name = raw.data() + 8;
        const IndexEntry entry{.path = path.parent_path() / std::string(name, strnlen(name, 256)),
                               .device = path.parent_path().parent_path().filename().string(),
                               .channel = number_at<uint32_t>(raw.data(), 0),
                               .types = number_at<uint32_t>(raw.data(), 4),
                               .begin = number_at<int64_t>(raw.data(), 272),
                               .end = number_at<int64_t>(raw.data(), 280),
                               .recording = number_at<uint32_t>(raw.data(), 292) != 0};
        if (entry.types != 0) {  // 0 marks a deleted file
            entries.push_back(entry);
        }
    }
}

// All that the index files below a root know, in the order of the table: by device, channel and time.
std::vector<IndexEntry> read_store(const fs::path &root) {
    std::vector<IndexEntry> entries;
    for (const fs::directory_entry &entry : fs::recursive_directory_iterator(root)) {
        if (entry.path().filename() == "rec_index.bin") {
            read_index(entry.path(), entries);
        }
    }
    std::ranges::sort(entries, {},
                      [](const IndexEntry &entry) { return std::tie(entry.device, entry.channel, entry.begin); });
    return entries;
}

void print_row(const IndexEntry &entry, const RecordFile *delivered) {
    std::printf("%s  %-10s  %7u  %s  %11llu", formatted(entry.begin, "%Y%m%d").c_str(), entry.device.c_str(), entry.channel,
                (formatted(entry.begin, "%H:%M:%S  ") + formatted(entry.end, "%H:%M:%S")).c_str(),
                static_cast<unsigned long long>(size_on_disk(entry.path)));
    if (delivered != nullptr) {
        std::printf("  %6llu  %6llu%s\n", static_cast<unsigned long long>(delivered->video),
                    static_cast<unsigned long long>(delivered->audio), delivered->cut ? "  up to the kill" : "");
    } else {
        std::printf("       ?       ?\n");
    }
}

bool agrees(const IndexEntry &entry, const RecordFile &delivered) {
    const int64_t tail = delivered.end - entry.end;
    return !entry.recording && entry.types == delivered.types && entry.begin == delivered.begin && tail >= 0 &&
           tail <= (delivered.cut ? kMaxTailSeconds : 0);
}

}  // namespace

bool report_index(const fs::path &root, const std::vector<RecordFile> &delivered) {
    std::map<fs::path, const RecordFile *> expected;
    for (const RecordFile &file : delivered) {
        expected[file.path] = &file;
    }
    bool all_agree = true;
    std::printf("day       device      channel  begin     end             bytes   video   audio\n");
    for (const IndexEntry &entry : read_store(root)) {
        const auto found = expected.find(entry.path);
        const RecordFile *const file = found == expected.end() ? nullptr : found->second;
        print_row(entry, file);
        if (file == nullptr || !agrees(entry, *file)) {
            std::printf("%s: the index differs from what was delivered\n", entry.path.c_str());
            all_agree = false;
        }
        if (file != nullptr) {
            expected.erase(found);
        }
    }
    for (const auto &[path, file] : expected) {
        std::printf("%s: not in the index\n", path.c_str());
    }
    return all_agree && expected.empty();
}

}  // namespace demo
