#include "FileManager.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>

#include "Log.h"
#include "Text.h"

namespace kelm_recvault {

namespace {

constexpr size_t kStreamBuffer = 4096;

platform::OpenMode open_mode(int32_t io_mode) {
    if (io_mode == CFileIO::kReadUpdate) return platform::OpenMode::read;
    if (io_mode == CFileIO::kWriteCreate) return platform::OpenMode::create;
    return platform::OpenMode::create_update;
}

int32_t to_position(int64_t position) { return static_cast<int32_t>(std::clamp<int64_t>(position, 0, INT32_MAX)); }

bool is_dot_name(const char *name) { return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0; }

bool is_drive_path(std::string_view path) {
    const bool letter = path.size() >= 2 && ((path[0] >= 'A' && path[0] <= 'Z') || (path[0] >= 'a' && path[0] <= 'z'));
    return letter && path[1] == ':';
}

// Visits each entry of a folder as (full path, entry).
template <class Visit>
platform::OpenFolder walk_folder(const std::string &dir, Visit visit) {
    platform::DirWalk walk;
    const platform::OpenFolder outcome = walk.Open(dir.c_str());
    platform::DirEntry entry{};
    while (walk.Next(&entry, false)) {
        if (!is_dot_name(entry.name) && !visit(dir + "/" + entry.name, entry)) break;
    }
    return walk.Failed() ? platform::OpenFolder::failed : outcome;
}

// A record file, or the side file of one that is there.
bool belongs_to_recording(const std::string &path, const char *name) {
    if (CFileManager::is_avi_file(name)) return true;
    if (!std::string_view(name).ends_with(kSideSuffix)) return false;
    return CFileManager::file_exists(path.substr(0, path.size() - std::strlen(kSideSuffix)).c_str());
}

}  // namespace

int32_t CFileIO::open_file(const char *path, int32_t io_mode, bool no_buffer) {
    if (path == nullptr) {
        LOG_TRACE();
        return KELM_AVIFILE_BAD_ARGUMENT;
    }
    if (!m_stream.Open(path, open_mode(io_mode), no_buffer ? 0 : kStreamBuffer)) {
        LOG_INFO("open file: %s failed, io_mode = %d\n", path, io_mode);
        return KELM_AVIFILE_FAILED;
    }
    m_io_mode = io_mode;
    return KELM_AVIFILE_OK;
}

int32_t CFileIO::read_file(void *data, int32_t size) {
    if (!is_open() || m_io_mode == kWriteCreate) {
        LOG_TRACE();
        return KELM_AVIFILE_FAILED;
    }
    const auto count = static_cast<int32_t>(m_stream.Read(data, static_cast<size_t>(size)));
    if (count < size) LOG_ERR("read failed, rd_size = %d, data_len = %d \n", count, size);
    return count;
}

int32_t CFileIO::read_some(void *data, int32_t size) {
    return m_io_mode == kWriteCreate ? 0 : static_cast<int32_t>(m_stream.Read(data, static_cast<size_t>(size)));
}

int32_t CFileIO::write_file(const void *data, int32_t size) {
    if (!is_open() || m_io_mode == kReadUpdate) {
        LOG_TRACE();
        return KELM_AVIFILE_FAILED;
    }
    const auto count = static_cast<int32_t>(m_stream.Write(data, static_cast<size_t>(size)));
    if (count < size) LOG_ERR("write failed, write_len = %d, data_len = %d\n", count, size);
    return count;
}

int32_t CFileIO::seek_file(int32_t offset, platform::SeekFrom whence) {
    if (!is_open()) {
        LOG_TRACE();
        return KELM_AVIFILE_FAILED;
    }
    m_stream.Seek(offset, whence);
    return tell_file();
}

int32_t CFileIO::tell_file() const {
    if (!is_open()) {
        LOG_TRACE();
        return 0;
    }
    return to_position(m_stream.Tell());
}

int32_t CFileIO::truncate_file(int32_t size) {
    if (!is_open() || !m_stream.Truncate(size) || m_stream.Seek(size, platform::SeekFrom::begin) != size) {
        LOG_TRACE();
        return KELM_AVIFILE_FAILED;
    }
    return KELM_AVIFILE_OK;
}

int32_t CFileIO::close_file() {
    if (!is_open()) return KELM_AVIFILE_FAILED;
    m_stream.Close();
    return KELM_AVIFILE_OK;
}

bool CFileManager::file_exists(const char *path) { return platform::path_exists(path); }

int32_t CFileManager::delete_file(const char *path) {
    return platform::remove_file(path) ? KELM_AVIFILE_OK : KELM_AVIFILE_FAILED;
}

int32_t CFileManager::get_file_size(const char *path) {
    platform::File file;
    if (!file.Open(path, platform::OpenMode::read)) return 0;
    return to_position(file.Seek(0, platform::SeekFrom::end));
}

int32_t CFileManager::get_fname_by_path(const char *path, char *name, uint32_t size) {
    if (size < 2 || path[0] == '\0') {
        LOG_TRACE();
        return KELM_AVIFILE_FAILED;
    }
    name[0] = '\0';
    const char *slash = std::strrchr(path, '/');
    const size_t length = slash == nullptr ? 0 : std::strlen(slash + 1);
    if (length == 0 || size < length + 1) {
        LOG_TRACE();
        return KELM_AVIFILE_FAILED;
    }
    std::memcpy(name, slash + 1, length + 1);
    return KELM_AVIFILE_OK;
}

bool CFileManager::is_avi_file(const char *name) {
    const std::string_view text(name == nullptr ? "" : name);
    if (text.size() <= 4) {
        LOG_TRACE();
        return false;
    }
    return text.ends_with(".avi");
}

void CFileManager::path_to_slash(char *path) { std::replace(path, path + std::strlen(path), '\\', '/'); }

bool CFileManager::file_path_valid(char *path) {
    if (path == nullptr || path[0] == '\0') {
        LOG_TRACE();
        return false;
    }
    path_to_slash(path);
    if (path[0] >= 'a' && path[0] <= 'z') path[0] = static_cast<char>(path[0] - 'a' + 'A');
    if (path[0] != '/' && !is_drive_path(path)) {
        LOG_TRACE();
        return false;
    }
    const size_t length = std::strlen(path);
    if (length > 1 && path[length - 1] == '/') path[length - 1] = '\0';
    return true;
}

int32_t CFileManager::create_file_dir(const char *dir_path) {
    if (file_exists(dir_path)) return KELM_AVIFILE_OK;
    std::string path(dir_path);
    if (path.size() < 2 || path.size() > kMaxPath || path.find_first_of("\\/") == std::string::npos) {
        LOG_TRACE();
        return KELM_AVIFILE_BAD_ARGUMENT;
    }
    if (path.back() != '/') path += '/';
    const size_t behind_root = is_drive_path(path) ? 3 : 1;
    for (size_t slash = path.find('/', behind_root); slash != std::string::npos; slash = path.find('/', slash + 1)) {
        const std::string part = path.substr(0, slash);
        platform::make_directory(part.c_str());
        if (!file_exists(part.c_str())) {
            LOG_ERR("create path failed: %s\n", part.c_str());
            return KELM_AVIFILE_FAILED;
        }
    }
    return KELM_AVIFILE_OK;
}

void CFileManager::delete_dir_tree(const char *dir) {
    walk_folder(dir, [](const std::string &path, const platform::DirEntry &entry) {
        if (entry.directory && !entry.link) {
            delete_dir_tree(path.c_str());
        } else {
            platform::remove_file(path.c_str());
        }
        return true;
    });
    platform::remove_directory(dir);
}

bool CFileManager::dir_has_avi_file(const char *dir) {
    bool found = false;
    const auto outcome = walk_folder(dir, [&found](const std::string &path, const platform::DirEntry &entry) {
        if (entry.directory) {
            found = dir_has_avi_file(path.c_str());
        } else {
            found = std::strlen(entry.name) > 4 && is_avi_file(entry.name);
        }
        return !found;
    });
    return found || outcome == platform::OpenFolder::failed;
}

void CFileManager::prune_dir(const char *dir) {
    walk_folder(dir, [](const std::string &path, const platform::DirEntry &entry) {
        if (entry.directory && !entry.link) {
            prune_dir(path.c_str());
        } else if (std::strlen(entry.name) <= 4 || !belongs_to_recording(path, entry.name)) {
            platform::remove_file(path.c_str());
        }
        return true;
    });
    platform::remove_directory(dir);
}

int32_t CFileManager::delete_avi_file(const char *path) {
    if (!file_exists(path)) return KELM_AVIFILE_OK;
    if (delete_file(path) != KELM_AVIFILE_OK) return KELM_AVIFILE_FAILED;
    prune_above(path);
    return KELM_AVIFILE_OK;
}

void CFileManager::prune_above(const char *path) {
    std::string dir(path);
    const std::string marker = std::string("/") + kRecordFolder + "/";
    const size_t tree = dir.rfind(marker);
    if (tree == std::string::npos) return;
    const size_t tree_length = tree + marker.size() - 1;
    for (dir.resize(dir.rfind('/')); dir.size() >= tree_length; dir.resize(dir.rfind('/'))) {
        if (dir_has_avi_file(dir.c_str())) break;
        prune_dir(dir.c_str());
    }
}

int32_t CFileFinder::find_first(const char *path, FileFindEntry *entry, bool directories) {
    std::string folder(path);
    m_directories = directories;
    m_ending[0] = '\0';
    if (!directories) {
        const size_t star = folder.rfind("/*");
        if (star == std::string::npos) return KELM_AVIFILE_FAILED;
        copy_text(m_ending, folder.c_str() + star + 2);
        folder.resize(star);
    }
    if (m_walk.Open(folder.c_str()) != platform::OpenFolder::opened) return KELM_AVIFILE_FAILED;
    return find_next(entry);
}

int32_t CFileFinder::find_next(FileFindEntry *entry) {
    platform::DirEntry found{};
    if (!m_walk.Next(&found, !m_directories)) return KELM_AVIFILE_NOT_FOUND;
    const bool wanted = found.directory == m_directories && found.name[0] != '\0' && !is_dot_name(found.name) &&
                        std::string_view(found.name).ends_with(m_ending);
    if (!wanted) return KELM_AVIFILE_NO_FILE;
    *entry = FileFindEntry{};
    copy_text(entry->name, found.name);
    entry->size = static_cast<uint32_t>(found.size);
    return KELM_AVIFILE_OK;
}

int32_t CFileFinder::close() {
    m_walk.Close();
    return KELM_AVIFILE_OK;
}

}  // namespace kelm_recvault
