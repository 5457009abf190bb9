// The file layer: a stream with a fixed access direction, the operations on paths and folders, and the walk over one
// folder. No locks and no shared state; a CFileIO or a CFileFinder is used by one thread at a time. Paths have forward
// slashes.
#pragma once

#include <recvault/recvault.h>

#include <cstdint>

#include "platform/file.h"

namespace kelm_recvault {

// The folder at the root of every record tree. Nothing above it is ever pruned.
constexpr const char *kRecordFolder = "avi_av";
// What a side file's name adds to the name of its record file.
constexpr const char *kSideSuffix = "_idx";

class CFileIO {
 public:
    static constexpr int32_t kReadUpdate = 0;    // an existing file: reads, also one that must not be written
    static constexpr int32_t kWriteCreate = 1;   // "wb": writes
    static constexpr int32_t kUpdateCreate = 2;  // "wb+": both

    // BAD_ARGUMENT for a null path, FAILED when the file cannot be opened. Closes what was open.
    int32_t open_file(const char *path, int32_t io_mode, bool no_buffer);
    // The count that was transferred, or FAILED when closed or opened for the other direction. A short count is logged.
    int32_t read_file(void *data, int32_t size);
    // As read_file for one who expects the end: nothing is logged, and the count is 0 when refused.
    int32_t read_some(void *data, int32_t size);
    int32_t write_file(const void *data, int32_t size);
    // The new position, or FAILED when closed.
    int32_t seek_file(int32_t offset, platform::SeekFrom whence);
    int32_t tell_file() const;
    // Cuts the file and stands at its new end.
    int32_t truncate_file(int32_t size);
    int32_t close_file();
    bool is_open() const { return m_stream.IsOpen(); }

 private:
    platform::File m_stream;
    int32_t m_io_mode = kReadUpdate;
};

class CFileManager {
 public:
    static bool file_exists(const char *path);
    static int32_t delete_file(const char *path);
    // 0 for a file that cannot be opened; at most INT32_MAX.
    static int32_t get_file_size(const char *path);
    // Copies what follows the last slash. FAILED, with an empty name, when there is none or it does not fit.
    static int32_t get_fname_by_path(const char *path, char *name, uint32_t size);
    // More than 4 characters that end in ".avi", in lower case.
    static bool is_avi_file(const char *name);
    static void path_to_slash(char *path);
    // Checks the root of a partition and normalises it in place, also where it is then refused: slashes, a leading drive
    // letter in upper case, no trailing slash. Accepts an absolute path, and a letter and a colon with an optional path.
    static bool file_path_valid(char *path);
    // Makes a folder and those above it, but never the root, which is "/" or the folder of a drive letter.
    static int32_t create_file_dir(const char *dir_path);
    // Deletes a folder with all it holds, as far as that can be done. A link is deleted, not followed.
    static void delete_dir_tree(const char *dir);
    // A folder that is there but cannot be read in full counts as holding recordings: it might.
    static bool dir_has_avi_file(const char *dir);
    // Deletes a folder in which there is no record file. One that turns up meanwhile stays, with its side file and folder.
    static void prune_dir(const char *dir);
    // Deletes a file, and the folders of the record tree that hold no record file without it. No file is no failure.
    static int32_t delete_avi_file(const char *path);
    // The second half of it.
    static void prune_above(const char *path);
};

struct FileFindEntry {
    char name[256];
    uint32_t size;  // low 32 bits
};

class CFileFinder {
 public:
    // With `directories`, `path` is a folder and its folders are found; else it is a folder followed by "/*" and the end
    // that the names must have, and files are found. NO_FILE: this entry is passed over; FAILED: the folder cannot be
    // opened; NOT_FOUND: it holds nothing.
    int32_t find_first(const char *path, FileFindEntry *entry, bool directories);
    // NO_FILE: this entry is passed over; NOT_FOUND: there is no further one.
    int32_t find_next(FileFindEntry *entry);
    int32_t close();

 private:
    platform::DirWalk m_walk;
    bool m_directories = false;
    char m_ending[32] = {};
};

// Calls `visit(const FileFindEntry &)` for each entry that CFileFinder finds. False when the folder cannot be opened.
template <class Visit>
bool for_each_entry(const char *path, bool directories, Visit visit) {
    CFileFinder finder;
    FileFindEntry entry{};
    int32_t result = finder.find_first(path, &entry, directories);
    if (result == KELM_AVIFILE_FAILED) return false;
    for (; result != KELM_AVIFILE_NOT_FOUND; result = finder.find_next(&entry)) {
        if (result == KELM_AVIFILE_OK) visit(entry);
    }
    return true;
}

}  // namespace kelm_recvault
