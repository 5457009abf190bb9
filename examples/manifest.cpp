#include "manifest.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <iomanip>
#include <map>
#include <sstream>
#include <stdexcept>

namespace demo {

namespace fs = std::filesystem;

Manifest::Manifest(const fs::path &path) : m_handle(open(path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0644)) {
    if (m_handle < 0) {
        throw std::runtime_error("cannot write " + path.string());
    }
    m_end = size_on_disk(path);
}

Manifest::~Manifest() { close(m_handle); }

size_t Manifest::add(const RecordFile &file) {
    const std::string line = text(file);
    const std::scoped_lock lock(m_mutex);
    const size_t place = m_end;
    write(place, line);
    m_end += line.size();
    return place;
}

// The numbers have a fixed width, so that a line keeps its length.
std::string Manifest::text(const RecordFile &file) {
    std::array<char, 128> numbers{};
    std::snprintf(numbers.data(), numbers.size(), "%8llu %8llu %12llu %8llu %10u %10u %3u ",
                  static_cast<unsigned long long>(file.video), static_cast<unsigned long long>(file.audio),
                  static_cast<unsigned long long>(file.bytes), static_cast<unsigned long long>(file.largest), file.begin,
                  file.end, file.types);
    return numbers.data() + file.path.string() + '\n';
}

void Manifest::write(size_t at, const std::string &text) const {
    if (pwrite(m_handle, text.data(), text.size(), static_cast<off_t>(at)) != static_cast<ssize_t>(text.size())) {
        throw std::runtime_error("cannot write the manifest");
    }
}

std::vector<RecordFile> read_manifest(const fs::path &path) {
    std::ifstream in(path);
    std::vector<RecordFile> files;
    std::map<std::string, size_t> last;  // of each channel, by the device's and the channel's folder
    RecordFile file;
    std::string name;
    while (in >> file.video >> file.audio >> file.bytes >> file.largest >> file.begin >> file.end >> file.types >> std::ws &&
           std::getline(in, name)) {
        file.path = name;
        const fs::path folder = file.path.parent_path();
        last[(folder.parent_path().filename() / folder.filename()).string()] = files.size();
        files.push_back(file);
    }
    if (files.empty()) {
        throw std::runtime_error(path.string() + " tells of no record file");
    }
    for (const auto &[channel, index] : last) {
        files[index].cut = true;
    }
    return files;
}

uint64_t size_on_disk(const fs::path &path) {
    std::error_code error;
    const uintmax_t size = fs::file_size(path, error);
    return error ? 0 : size;
}

std::string formatted(int64_t seconds, const char *form) {
    const std::time_t time = seconds;
    std::tm fields{};
    gmtime_r(&time, &fields);
    std::ostringstream text;
    text << std::put_time(&fields, form);
    return text.str();
}

}  // namespace demo
