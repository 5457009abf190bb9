// The fault injector: stands between platform/posix/ and the system calls (linker option --wrap) and fails those that a test
// names. Nothing in the library knows of it. All of it may be used from any thread.
#pragma once

#include <cerrno>
#include <cstddef>
#include <string>

namespace kelm_recvault::platform::testing {

enum class Call { open, write, truncate, make_directory, remove, start_thread };

struct Fault {
    Call call;
    std::string path_end;       // the end of the path; empty for any
    int skip = 0;               // calls that still succeed
    int times = -1;             // calls that then fail; -1 for good
    int error = EIO;            // errno of a failed call
    size_t written_before = 0;  // bytes that the first failing write still takes: a short one, and then the others
};

// Adds a fault. The calls that it has failed so far are counted.
void inject(const Fault &fault);
void clear_faults();
int failed_calls();

}  // namespace kelm_recvault::platform::testing
