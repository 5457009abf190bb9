// What the demo delivers to each record file, in a text file that is true at any moment: it is written before each delivery,
// so that it tells what was delivered also when the demo is killed.
#ifndef RECVAULT_EXAMPLES_MANIFEST_H
#define RECVAULT_EXAMPLES_MANIFEST_H

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

namespace demo {

struct RecordFile {
    std::filesystem::path path;
    uint32_t begin = 0;
    uint32_t end = 0;
    uint16_t width = 0;
    uint16_t height = 0;
    int8_t codec_id = 0;
    uint32_t types = 0;  // mask, as in RecFileInfo
    uint64_t video = 0;
    uint64_t audio = 0;
    uint64_t bytes = 0;    // of the file, without its index
    uint64_t largest = 0;  // bytes of the largest delivery
    bool cut = false;      // it was open when the demo was killed
};

// A line a file, in the order of opening: video frames, audio frames, bytes, largest, begin, end, types, path.
class Manifest {
 public:
    // Goes on behind the lines of a manifest that is there. Throws when it cannot be written, like all functions here.
    explicit Manifest(const std::filesystem::path &path);
    ~Manifest();
    Manifest(const Manifest &) = delete;
    Manifest &operator=(const Manifest &) = delete;

    // Adds a line and returns its place.
    size_t add(const RecordFile &file);
    // Several threads may write at a time, each its own line.
    void update(size_t line, const RecordFile &file) const { write(line, text(file)); }

 private:
    static std::string text(const RecordFile &file);
    void write(size_t at, const std::string &text) const;

    int m_handle;
    std::mutex m_mutex;
    size_t m_end = 0;
};

// The lines of a manifest whose writer was killed. The last file of each channel is cut.
std::vector<RecordFile> read_manifest(const std::filesystem::path &path);

uint64_t size_on_disk(const std::filesystem::path &path);

// A time in a form as strftime has it.
std::string formatted(int64_t seconds, const char *form);

}  // namespace demo

#endif  // RECVAULT_EXAMPLES_MANIFEST_H
