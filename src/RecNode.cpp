#include "RecNode.h"

#include <recvault/recvault.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "Crossing.h"
#include "FileManager.h"
#include "Log.h"
#include "Text.h"

namespace kelm_recvault {

namespace {

constexpr int64_t kRecordSize = sizeof(RecIndexRecord);
constexpr size_t kIndexBuffer = 16 * sizeof(RecIndexRecord);

// The result of a formatted path: stored when it fits, else a trace line and FAILED.
int32_t store_path(const std::string &path, char *out, size_t out_size) {
    if (out_size <= path.size()) {
        LOG_TRACE();
        return KELM_AVIFILE_FAILED;
    }
    copy_text(out, out_size, path.c_str());
    return KELM_AVIFILE_OK;
}

// `path` up to and including its last slash, followed by `name`.
int32_t store_beside(const char *path, const char *name, char *out, size_t out_size) {
    const char *slash = std::strrchr(path, '/');
    if (slash == nullptr) {
        LOG_TRACE();
        return KELM_AVIFILE_FAILED;
    }
    return store_path(std::string(path, slash + 1) + name, out, out_size);
}

bool has_name(const RecIndexRecord &record, const char *name) {
    return std::strncmp(record.file_name, name, sizeof(record.file_name)) == 0;
}

bool read_record(platform::File *file, RecIndexRecord *record) { return file->Read(record, kRecordSize) == kRecordSize; }

bool rewrite_record(platform::File *file, const RecIndexRecord &record) {
    file->Seek(-kRecordSize, platform::SeekFrom::current);
    return file->Write(&record, kRecordSize) == kRecordSize && file->Flush();
}

// From the front, where the old files stand: the first record of a name that is not deleted, else the first one that is.
// The file then stands behind the record.
bool find_first_record(platform::File *file, const char *name, RecIndexRecord *record) {
    int64_t deleted_end = -1;
    while (read_record(file, record)) {
        if (!has_name(*record, name)) continue;
        if (record->type != 0) return true;
        if (deleted_end < 0) deleted_end = file->Tell();
    }
    if (deleted_end < 0) return false;
    file->Seek(deleted_end - kRecordSize, platform::SeekFrom::begin);
    return read_record(file, record);
}

// From the end, where the file that was just closed stands.
bool find_last_record(platform::File *file, const char *name, RecIndexRecord *record) {
    file->Seek(-kRecordSize, platform::SeekFrom::end);
    while (read_record(file, record)) {
        if (has_name(*record, name)) return true;
        if (file->Tell() < 2 * kRecordSize) return false;
        file->Seek(-2 * kRecordSize, platform::SeekFrom::current);
    }
    return false;
}

// The name of a record file and the path of the index beside it.
struct IndexedName {
    char name[64];
    char index_path[256];
};

int32_t split_record_path(const char *file_path, IndexedName *out) {
    if (CFileManager::get_fname_by_path(file_path, out->name, sizeof(out->name)) != KELM_AVIFILE_OK) {
        LOG_ERR("get_fname_by_path %s fail !\n", file_path);
        return KELM_AVIFILE_FAILED;
    }
    return CRecIndex::get_nodeidxz_fname(file_path, out->index_path, sizeof(out->index_path));
}

}  // namespace

int32_t CRecIndex::set_vlist_fname(const char *fname) {
    if (fname == nullptr) {
        LOG_TRACE();
        return KELM_AVIFILE_BAD_ARGUMENT;
    }
    copy_text(m_vlist_fname, fname);
    return KELM_AVIFILE_OK;
}

int32_t CRecIndex::get_nodeidxz_fname(const char *file_path, char *out, size_t out_size) {
    return store_beside(file_path, kIndexFileName, out, out_size);
}

int32_t CRecIndex::get_recfile_full_path(const char *index_path, const char *file_name, char *out, size_t out_size) {
    return store_beside(index_path, file_name, out, out_size);
}

int32_t CRecIndex::get_nodeidx_fname(uint32_t dev_idx, int32_t channel, char *out, size_t out_size) const {
    char name[kMaxDeviceName + 1] = {};
    ask_recording::GetDevName(dev_idx, name, sizeof(name));
    return get_nodeidx_fname(name, channel, out, out_size);
}

int32_t CRecIndex::get_nodeidx_fname(const char *dev_name, int32_t channel, char *out, size_t out_size) const {
    char folder[24];
    std::snprintf(folder, sizeof(folder), "/channel%02d/", channel + 1);
    const std::string device = dev_name[0] == '\0' ? std::string() : std::string("/") + dev_name;
    return store_path(m_vlist_fname + device + folder + kIndexFileName, out, out_size);
}

int32_t CRecIndex::insert_file_node(const RecFileNode &node, bool is_recording) {
    char index_path[256];
    if (get_nodeidxz_fname(node.rec_file_path, index_path, sizeof(index_path)) != KELM_AVIFILE_OK)
        return KELM_AVIFILE_FAILED;
    platform::File file;
    if (!file.Open(index_path, platform::OpenMode::update) &&
        (CFileManager::file_exists(index_path) || !file.Open(index_path, platform::OpenMode::create_update))) {
        LOG_ERR("open %s failed when gen file name\n", index_path);
        return KELM_AVIFILE_FAILED;
    }
    RecIndexRecord record{};
    if (CFileManager::get_fname_by_path(node.rec_file_path, record.file_name, sizeof(record.file_name)) != KELM_AVIFILE_OK) {
        LOG_ERR("get_fname_by_path %s fail !\n", node.rec_file_path);
        return KELM_AVIFILE_FAILED;
    }
    record.begin_sec = node.begin_sec;
    record.end_sec = node.end_sec;
    record.type = node.type;
    record.file_size = node.file_size;
    record.channel = node.channel;
    record.is_recording = is_recording ? 1 : 0;
    const int64_t end = file.Seek(0, platform::SeekFrom::end);
    if (file.Write(&record, sizeof(record)) != sizeof(record)) {
        LOG_ERR("%s write fail!\n", index_path);
        file.Truncate(end);  // a torn record would misalign everything behind it
        return KELM_AVIFILE_FAILED;
    }
    return KELM_AVIFILE_OK;
}

int32_t CRecIndex::update_file_node(const RecFileNode &node, bool *deleted) {
    *deleted = false;
    IndexedName file_name{};
    if (split_record_path(node.rec_file_path, &file_name) != KELM_AVIFILE_OK) return KELM_AVIFILE_FAILED;
    platform::File file;
    if (!file.Open(file_name.index_path, platform::OpenMode::update)) {
        LOG_ERR("open %s failed when update node\n", file_name.index_path);
        return KELM_AVIFILE_FAILED;
    }
    RecIndexRecord record{};
    if (!find_last_record(&file, file_name.name, &record)) {
        LOG_WARN("not find the file node: %s, name = %s\n", file_name.index_path, file_name.name);
        return KELM_AVIFILE_FAILED;
    }
    if (record.type != 0) {
        record.type = node.type;
    } else {
        *deleted = true;
        LOG_ERR("the node has been deleted, name = %s, channel = %d\n", file_name.name,
                static_cast<int32_t>(record.channel));
    }
    record.is_recording = 0;
    record.begin_sec = node.begin_sec;
    record.end_sec = node.end_sec;
    record.file_size = node.file_size;
    if (!rewrite_record(&file, record)) {
        LOG_ERR("%s, update fail!\n", file_name.index_path);
        return KELM_AVIFILE_FAILED;
    }
    LOG_INFO("update %s, file_size = %d, success\n", file_name.name, node.file_size);
    return KELM_AVIFILE_OK;
}

int32_t CRecIndex::delete_file_node(const char *file_path, RecordedSize *recorded) {
    *recorded = RecordedSize{};
    IndexedName file_name{};
    if (split_record_path(file_path, &file_name) != KELM_AVIFILE_OK) return KELM_AVIFILE_FAILED;
    platform::File file;
    if (!file.Open(file_name.index_path, platform::OpenMode::update, kIndexBuffer)) {
        LOG_INFO("%s open fail!\n", file_name.index_path);
        return KELM_AVIFILE_FAILED;
    }
    RecIndexRecord record{};
    if (!find_first_record(&file, file_name.name, &record)) return KELM_AVIFILE_FAILED;
    recorded->known = true;
    recorded->bytes = record.type == 0 || record.is_recording != 0 ? 0 : record.file_size;
    record.type = 0;
    if (!rewrite_record(&file, record)) {
        LOG_ERR("%s write fail!\n", file_name.index_path);
        return KELM_AVIFILE_FAILED;
    }
    LOG_INFO("recnode_file %s delete %s success!\n", file_name.index_path, file_path);
    file.Close();
    decrease_rec_cnt(file_name.index_path);
    return KELM_AVIFILE_OK;
}

int32_t CRecIndex::decrease_rec_cnt(const char *index_path) {
    const char *slash = std::strrchr(index_path, '/');
    if (slash == nullptr) {
        LOG_TRACE();
        return KELM_AVIFILE_FAILED;
    }
    const std::string folder(index_path, slash + 1);
    if (!CFileManager::dir_has_avi_file(folder.c_str())) CFileManager::delete_avi_file(index_path);
    return KELM_AVIFILE_OK;
}

bool CRecIndex::check_rec_dir(uint32_t dev_idx) {
    char name[kMaxDeviceName + 1] = {};
    if (dev_idx <= KELM_AVIFILE_MAX_DEVICES) ask_recording::GetDevName(dev_idx, name, sizeof(name));
    const std::string folder = name[0] == '\0' ? std::string(m_vlist_fname) : std::string(m_vlist_fname) + "/" + name;
    if (CFileManager::dir_has_avi_file(folder.c_str())) return true;
    CFileManager::prune_dir(folder.c_str());
    return false;
}

}  // namespace kelm_recvault
