// Holds the bytes of one record file against docs/format.md.
#pragma once

#include <string>
#include <vector>

#include "store.h"

namespace recvault_tool {

struct Finding {
    std::string path;
    std::string defect;  // a name for programs
    std::string text;    // a sentence without its subject, which is the path
    std::string advice;
    auto operator<=>(const Finding &) const = default;
};
using Findings = std::vector<Finding>;

// What the folder's index is held against.
struct FileFacts {
    uint64_t size = 0;
    uint64_t movi_end = 0;  // 0 when the head does not tell
    std::vector<Segment> segments;
    int64_t first_second = -1;  // of the first video frame; -1 when there is none
};

// Of a file that is not finished only that is held against the format which no writer changes any more: the fixed parts of
// the head, and the frame records up to the last whole one. `in_store`: not an export, whose records have no positions.
FileFacts check_record_file(const fs::path &path, bool unfinished, bool in_store, Findings *findings);

}  // namespace recvault_tool
