#include "platform/file.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <new>
#include <utility>

namespace kelm_recvault::platform {

namespace {

constexpr mode_t kFileMode = 0644;
constexpr mode_t kFolderMode = 0755;

// Handles 0 to 2 belong to the application's standard streams, also where it has closed them: a log line must never reach a
// record file.
int above_standard_streams(int handle) {
    if (handle < 0 || handle > STDERR_FILENO) return handle;
    const int moved = fcntl(handle, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    close(handle);
    return moved;
}

int open_flags(OpenMode mode) {
    switch (mode) {
        case OpenMode::read: return O_RDONLY;
        case OpenMode::update: return O_RDWR;
        case OpenMode::create: return O_WRONLY | O_CREAT | O_TRUNC;
        case OpenMode::create_update: return O_RDWR | O_CREAT | O_TRUNC;
    }
    return O_RDONLY;
}

}  // namespace

File::~File() { Close(); }

File::File(File &&other) noexcept { *this = std::move(other); }

File &File::operator=(File &&other) noexcept {
    if (this == &other) return *this;
    Close();
    m_handle = std::exchange(other.m_handle, -1);
    m_position = std::exchange(other.m_position, 0);
    m_buffer_size = other.m_buffer_size;
    m_begin = std::exchange(other.m_begin, 0);
    m_end = std::exchange(other.m_end, 0);
    m_dirty = std::exchange(other.m_dirty, false);
    m_buffer = std::move(other.m_buffer);
    return *this;
}

bool File::Open(const char *path, OpenMode mode, size_t buffer_size) {
    Close();
    do {
        m_handle = above_standard_streams(open(path, open_flags(mode) | O_CLOEXEC, kFileMode));
    } while (m_handle < 0 && errno == EINTR);
    // A folder opens for reading; it is no file.
    struct stat info {};
    if (m_handle >= 0 && (fstat(m_handle, &info) != 0 || S_ISDIR(info.st_mode))) {
        close(m_handle);
        m_handle = -1;
    }
    m_buffer_size = buffer_size;
    return m_handle >= 0;
}

size_t File::ReadRaw(void *data, size_t size) {
    size_t done = 0;
    while (done < size) {
        const ssize_t count = read(m_handle, static_cast<unsigned char *>(data) + done, size - done);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) break;
        done += static_cast<size_t>(count);
    }
    m_position += static_cast<int64_t>(done);
    return done;
}

size_t File::WriteRaw(const void *data, size_t size) {
    size_t done = 0;
    while (done < size) {
        const ssize_t count = write(m_handle, static_cast<const unsigned char *>(data) + done, size - done);
        if (count < 0 && errno == EINTR) continue;
        if (count <= 0) break;
        done += static_cast<size_t>(count);
    }
    m_position += static_cast<int64_t>(done);
    return done;
}

bool File::EnsureBuffer() {
    if (!m_buffer) m_buffer.reset(new (std::nothrow) unsigned char[m_buffer_size]);
    return m_buffer != nullptr;
}

size_t File::Read(void *data, size_t size) {
    if (!IsOpen() || !Flush()) return 0;
    auto *out = static_cast<unsigned char *>(data);
    size_t done = 0;
    while (done < size) {
        const size_t have = std::min(m_end - m_begin, size - done);
        if (have > 0) {
            std::memcpy(out + done, m_buffer.get() + m_begin, have);
            m_begin += have;
            done += have;
            continue;
        }
        m_begin = m_end = 0;
        if (size - done >= m_buffer_size || !EnsureBuffer()) return done + ReadRaw(out + done, size - done);
        m_end = ReadRaw(m_buffer.get(), m_buffer_size);
        if (m_end == 0) break;
    }
    return done;
}

size_t File::Write(const void *data, size_t size) {
    if (!IsOpen() || !DropReadAhead()) return 0;
    if (size >= m_buffer_size || !EnsureBuffer()) return Flush() ? WriteRaw(data, size) : 0;
    if (m_end + size > m_buffer_size && !Flush()) return 0;
    std::memcpy(m_buffer.get() + m_end, data, size);
    m_end += size;
    m_dirty = true;
    return size;
}

// The handle stands behind what was read ahead; a write has to begin where the reader is.
bool File::DropReadAhead() {
    if (m_dirty || m_begin == m_end) {
        if (!m_dirty) m_begin = m_end = 0;
        return true;
    }
    const int64_t position = Tell();
    m_begin = m_end = 0;
    m_position = lseek(m_handle, position, SEEK_SET);
    return m_position == position;
}

bool File::Flush() {
    if (!m_dirty) return true;
    const size_t done = WriteRaw(m_buffer.get(), m_end);
    std::memmove(m_buffer.get(), m_buffer.get() + done, m_end - done);
    m_end -= done;
    m_dirty = m_end > 0;
    return !m_dirty;
}

int64_t File::Seek(int64_t offset, SeekFrom whence) {
    if (!IsOpen() || !Flush()) return -1;
    if (whence == SeekFrom::current) offset += Tell();
    const int64_t buffered_from = m_position - static_cast<int64_t>(m_end);
    if (whence != SeekFrom::end && offset >= buffered_from && offset < m_position) {  // what was read ahead still serves
        m_begin = static_cast<size_t>(offset - buffered_from);
        return offset;
    }
    m_begin = m_end = 0;
    const int64_t position = lseek(m_handle, offset, whence == SeekFrom::end ? SEEK_END : SEEK_SET);
    if (position >= 0) m_position = position;
    return position;
}

int64_t File::Tell() const {
    if (m_dirty) return m_position + static_cast<int64_t>(m_end);
    return m_position - static_cast<int64_t>(m_end - m_begin);
}

bool File::Truncate(int64_t size) {
    // What is still buffered would otherwise reach behind the cut later.
    return IsOpen() && Flush() && ftruncate(m_handle, size) == 0;
}

bool File::Sync() { return IsOpen() && Flush() && fdatasync(m_handle) == 0; }

bool File::Close() {
    if (!IsOpen()) return true;
    const bool flushed = Flush();
    const bool closed = close(m_handle) == 0;
    m_handle = -1;
    m_position = 0;
    m_begin = m_end = 0;
    m_dirty = false;
    m_buffer.reset();
    return flushed && closed;
}

bool path_exists(const char *path) { return access(path, F_OK) == 0; }

bool path_is_gone(const char *path) { return access(path, F_OK) != 0 && (errno == ENOENT || errno == ENOTDIR); }

bool make_directory(const char *path) { return mkdir(path, kFolderMode) == 0; }

bool remove_directory(const char *path) { return rmdir(path) == 0; }

bool remove_file(const char *path) { return unlink(path) == 0; }

OpenFolder DirWalk::Open(const char *path) {
    Close();
    m_failed = false;
    m_handle = opendir(path);
    if (IsOpen()) return OpenFolder::opened;
    return errno == ENOENT || errno == ENOTDIR ? OpenFolder::not_there : OpenFolder::failed;
}

bool DirWalk::Next(DirEntry *entry, bool with_size) {
    if (!IsOpen()) return false;
    auto *directory = static_cast<DIR *>(m_handle);
    errno = 0;
    const dirent *found = readdir(directory);
    if (found == nullptr) {
        m_failed = errno != 0;
        return false;
    }
    *entry = DirEntry{};
    std::memcpy(entry->name, found->d_name, strnlen(found->d_name, sizeof(entry->name) - 1));
    struct stat info {};
    entry->directory = found->d_type == DT_DIR;
    entry->link = found->d_type == DT_LNK;
    if (found->d_type == DT_UNKNOWN && fstatat(dirfd(directory), found->d_name, &info, AT_SYMLINK_NOFOLLOW) == 0) {
        entry->directory = S_ISDIR(info.st_mode);
        entry->link = S_ISLNK(info.st_mode);
    }
    if ((entry->link || (with_size && !entry->directory)) && fstatat(dirfd(directory), found->d_name, &info, 0) == 0) {
        entry->directory = S_ISDIR(info.st_mode);
        entry->size = entry->directory ? 0 : static_cast<uint64_t>(info.st_size);
    }
    return true;
}

void DirWalk::Close() {
    if (IsOpen()) closedir(static_cast<DIR *>(m_handle));
    m_handle = nullptr;
}

bool volume_space(const char *path, uint64_t *total, uint64_t *free_bytes) {
    struct statvfs info {};
    if (statvfs(path, &info) != 0) return false;
    *total = static_cast<uint64_t>(info.f_blocks) * info.f_frsize;
    *free_bytes = static_cast<uint64_t>(info.f_bfree) * info.f_frsize;
    return true;
}

FolderLock lock_folder(const char *path, int *handle) {
    *handle = above_standard_streams(open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (*handle < 0) return FolderLock::unavailable;
    if (flock(*handle, LOCK_EX | LOCK_NB) == 0) return FolderLock::taken;
    const bool held = errno == EWOULDBLOCK;
    close(*handle);
    *handle = -1;
    return held ? FolderLock::held_elsewhere : FolderLock::unavailable;
}

void unlock_folder(int handle) {
    if (handle >= 0) close(handle);
}

void write_log(const char *text, size_t length) {
    // A log that cannot be written has nobody to tell.
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, text, length);
}

}  // namespace kelm_recvault::platform
