// Texts in fixed buffers: cut, always terminated.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstring>

namespace kelm_recvault {

// The longest path that the buffers of the index and of the interface can hold.
constexpr size_t kMaxPath = 255;

// Copies at most size - 1 characters and fills the rest with zeros.
inline void copy_text(char *out, size_t size, const char *text) {
    const size_t length = std::min(std::strlen(text), size - 1);
    std::memcpy(out, text, length);
    std::memset(out + length, 0, size - length);
}

template <size_t N>
void copy_text(char (&out)[N], const char *text) {
    copy_text(out, N, text);
}

}  // namespace kelm_recvault
