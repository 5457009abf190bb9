// Holds the index files of a store against what was delivered to it.
#ifndef RECVAULT_EXAMPLES_INDEX_REPORT_H
#define RECVAULT_EXAMPLES_INDEX_REPORT_H

#include <filesystem>
#include <vector>

#include "manifest.h"

namespace demo {

// Prints a table of all record files below a store's root and what was delivered to each. Returns whether index and
// deliveries agree; a file that was cut may end earlier.
bool report_index(const std::filesystem::path &root, const std::vector<RecordFile> &delivered);

}  // namespace demo

#endif  // RECVAULT_EXAMPLES_INDEX_REPORT_H
