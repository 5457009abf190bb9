// What the fuzzers share: a folder in memory, a valid head to put wild bytes behind, and input that is taken apart.
#pragma once

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "avi/avi_common.h"

namespace recvault_fuzz {

namespace fs = std::filesystem;

// One folder a process, emptied before each input.
inline const std::string &folder() {
    static const std::string path = (fs::exists("/dev/shm") ? "/dev/shm" : fs::temp_directory_path().string()) +
                                    "/recvault-fuzz-" + std::to_string(getpid());
    return path;
}

inline void empty_folder() {
    fs::remove_all(folder());
    fs::create_directories(folder());
}

inline void write_file(const std::string &path, const std::string &bytes) {
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << bytes;
}

class Input {
 public:
    Input(const uint8_t *data, size_t size) : m_data(data), m_size(size) {}

    uint32_t Number() {
        uint32_t number = 0;
        const size_t count = std::min(m_size, sizeof(number));
        std::memcpy(&number, m_data, count);
        Skip(count);
        return number;
    }
    std::string Bytes(size_t count) {
        count = std::min(count, m_size);
        std::string bytes(reinterpret_cast<const char *>(m_data), count);
        Skip(count);
        return bytes;
    }
    std::string Rest() { return Bytes(m_size); }

 private:
    void Skip(size_t count) {
        m_data += count;
        m_size -= count;
    }
    const uint8_t *m_data;
    size_t m_size;
};

// A head with two words changed, or none.
inline std::string wild_head(Input *input) {
    const auto head = std::make_unique<kelm_recvault::AviHead>();
    kelm_recvault::kelm_avi::fill_avi_head(head.get(), 640, 360);
    std::string bytes(reinterpret_cast<const char *>(head.get()), sizeof(*head));
    for (int i = 0; i < 2; ++i) {
        const uint32_t offset = input->Number();
        const uint32_t value = input->Number();
        if (offset != 0) std::memcpy(bytes.data() + offset % (bytes.size() - 4), &value, sizeof(value));
    }
    return bytes;
}

}  // namespace recvault_fuzz
