// Files, folders and volumes of the operating system, and the sink of the log.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

namespace kelm_recvault::platform {

enum class OpenMode {
    read,          // an existing file, reading alone
    update,        // an existing file, reading and writing
    create,        // made or emptied, writing alone
    create_update  // made or emptied, reading and writing
};

enum class SeekFrom { begin, current, end };

// One open file with a position. Unbuffered unless a buffer is asked for; a buffer is taken with the first transfer that
// is smaller than it. Owned and used by one thread at a time; movable.
class File {
 public:
    File() = default;
    ~File();
    File(File &&other) noexcept;
    File &operator=(File &&other) noexcept;

    bool Open(const char *path, OpenMode mode, size_t buffer_size = 0);
    bool IsOpen() const { return m_handle >= 0; }
    // The count that was transferred; less than asked for at the end of the file or on a failure.
    size_t Read(void *data, size_t size);
    size_t Write(const void *data, size_t size);
    bool Flush();
    // The new position, or -1.
    int64_t Seek(int64_t offset, SeekFrom whence);
    int64_t Tell() const;
    // Cuts or extends the file; the position stays.
    bool Truncate(int64_t size);
    // Returns when everything written so far has reached the disk.
    bool Sync();
    // False when what was buffered could not be written. The file is closed in any case.
    bool Close();

 private:
    size_t ReadRaw(void *data, size_t size);
    size_t WriteRaw(const void *data, size_t size);
    bool DropReadAhead();
    bool EnsureBuffer();

    int m_handle = -1;
    int64_t m_position = 0;  // of the handle
    size_t m_buffer_size = 0;
    size_t m_begin = 0;  // unread bytes of the buffer: [m_begin, m_end)
    size_t m_end = 0;    // with m_dirty: bytes [0, m_end) wait to be written at m_position
    bool m_dirty = false;
    std::unique_ptr<unsigned char[]> m_buffer;
};

bool path_exists(const char *path);
// There is certainly nothing at the path: not that it could only not be looked at.
bool path_is_gone(const char *path);
bool make_directory(const char *path);
bool remove_directory(const char *path);
bool remove_file(const char *path);

struct DirEntry {
    char name[256];  // cut at 255 characters, zero-terminated
    uint64_t size;   // of a regular file, where it was asked for
    bool directory;  // also through a link
    bool link;
};

enum class OpenFolder { opened, not_there, failed };

// A walk over the names of one folder, "." and ".." included as the system gives them.
class DirWalk {
 public:
    DirWalk() = default;
    ~DirWalk() { Close(); }
    DirWalk(const DirWalk &) = delete;
    DirWalk &operator=(const DirWalk &) = delete;

    OpenFolder Open(const char *path);
    bool IsOpen() const { return m_handle != nullptr; }
    // False at the end, and on a failure, which Failed tells apart. Sizes cost a system call an entry.
    bool Next(DirEntry *entry, bool with_size);
    bool Failed() const { return m_failed; }
    void Close();

 private:
    void *m_handle = nullptr;
    bool m_failed = false;
};

// Size and free bytes of the volume that holds `path`.
bool volume_space(const char *path, uint64_t *total, uint64_t *free_bytes);

// An advisory lock on a folder, held by the process until it is given back or the process ends. It leaves no file.
enum class FolderLock { taken, held_elsewhere, unavailable };
FolderLock lock_folder(const char *path, int *handle);
void unlock_folder(int handle);

// One call, one write to standard error.
void write_log(const char *text, size_t length);

}  // namespace kelm_recvault::platform
