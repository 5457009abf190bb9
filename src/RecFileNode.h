// One record file, as recording hands it in and as queries hand it out.
#pragma once

#include <algorithm>
#include <cstdint>
#include <set>

namespace kelm_recvault {

struct RecFileNode {
    char rec_file_path[256];  // full path, at most 255 characters, zero-terminated
    int32_t file_size;        // bytes
    uint32_t type;            // mask of the record types in the file
    int64_t begin_sec;
    int64_t end_sec;
    uint32_t channel;  // from 0
};

inline bool operator<(const RecFileNode &a, const RecFileNode &b) { return a.begin_sec < b.begin_sec; }

// Ascending begin_sec; equal ones in the order of insertion.
using RecFileSet = std::multiset<RecFileNode>;

// The mask that selects every record type.
constexpr uint32_t kAllRecTypes = 0x7F;

constexpr int64_t kSecondsPerDay = 86400;
// The end of all time. What an application gives beyond it, in either direction, is taken for it, so that days and seconds
// can be added.
constexpr int64_t kLastTime = INT64_C(1) << 40;
inline int64_t bounded_time(int64_t time) { return std::clamp(time, -kLastTime, kLastTime); }

}  // namespace kelm_recvault
