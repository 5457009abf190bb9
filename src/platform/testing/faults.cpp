#include "platform/testing/faults.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <map>
#include <mutex>
#include <string_view>
#include <vector>

namespace kelm_recvault::platform::testing {

namespace {

struct Plan {
    std::mutex mutex;
    std::vector<Fault> faults;
    std::map<int, std::string> open_paths;  // by file descriptor
    int failed = 0;
};

// Never destroyed: threads of the library may still write while the process ends.
Plan &plan() {
    static auto *const the_plan = new Plan;
    return *the_plan;
}

// The fault that a call meets, if any; used up by one.
bool meets_fault(Call call, std::string_view path, Fault *met) {
    for (Fault &fault : plan().faults) {
        if (fault.call != call || fault.times == 0 || !path.ends_with(fault.path_end)) continue;
        if (fault.skip > 0) {
            --fault.skip;
            continue;
        }
        if (fault.times > 0) --fault.times;
        ++plan().failed;
        *met = fault;
        fault.written_before = 0;
        return true;
    }
    return false;
}

bool fails(Call call, std::string_view path) {
    const std::lock_guard lock(plan().mutex);
    Fault met{};
    if (!meets_fault(call, path, &met)) return false;
    errno = met.error;
    return true;
}

std::string path_of(int handle) {
    const std::lock_guard lock(plan().mutex);
    const auto found = plan().open_paths.find(handle);
    return found == plan().open_paths.end() ? std::string() : found->second;
}

}  // namespace

void inject(const Fault &fault) {
    const std::lock_guard lock(plan().mutex);
    plan().faults.push_back(fault);
}

void clear_faults() {
    const std::lock_guard lock(plan().mutex);
    plan().faults.clear();
    plan().failed = 0;
}

int failed_calls() {
    const std::lock_guard lock(plan().mutex);
    return plan().failed;
}

}  // namespace kelm_recvault::platform::testing

using namespace kelm_recvault::platform::testing;

extern "C" {

int __real_open(const char *path, int flags, ...);
ssize_t __real_write(int handle, const void *data, size_t size);
int __real_ftruncate(int handle, off_t size);
int __real_mkdir(const char *path, mode_t mode);
int __real_unlink(const char *path);
int __real_pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*entry)(void *), void *argument);

int __wrap_open(const char *path, int flags, ...) {
    mode_t mode = 0;
    if ((flags & O_CREAT) != 0) {
        va_list arguments;
        va_start(arguments, flags);
        mode = va_arg(arguments, mode_t);
        va_end(arguments);
    }
    if (fails(Call::open, path)) return -1;
    const int handle = __real_open(path, flags, mode);
    const std::lock_guard lock(plan().mutex);
    if (handle >= 0) plan().open_paths[handle] = path;
    return handle;
}

ssize_t __wrap_write(int handle, const void *data, size_t size) {
    Fault met{};
    bool met_one = false;
    if (handle > STDERR_FILENO) {
        const std::string path = path_of(handle);
        const std::lock_guard lock(plan().mutex);
        met_one = meets_fault(Call::write, path, &met);
    }
    if (!met_one) return __real_write(handle, data, size);
    if (met.written_before > 0) {
        const size_t part = std::min(size, met.written_before);
        return __real_write(handle, data, part);
    }
    errno = met.error;
    return -1;
}

int __wrap_ftruncate(int handle, off_t size) {
    return fails(Call::truncate, path_of(handle)) ? -1 : __real_ftruncate(handle, size);
}

int __wrap_mkdir(const char *path, mode_t mode) { return fails(Call::make_directory, path) ? -1 : __real_mkdir(path, mode); }

int __wrap_unlink(const char *path) { return fails(Call::remove, path) ? -1 : __real_unlink(path); }

int __wrap_pthread_create(pthread_t *thread, const pthread_attr_t *attributes, void *(*entry)(void *), void *argument) {
    return fails(Call::start_thread, "") ? EAGAIN : __real_pthread_create(thread, attributes, entry, argument);
}
}
