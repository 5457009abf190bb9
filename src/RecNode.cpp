#include "RecNode.h"

#include <recvault/recvault.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <set>
#include <string>
#include <string_view>

#include "Crossing.h"
#include "FileManager.h"
#include "Log.h"
#include "Text.h"
#include "avi/h264avi.h"

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

// Writes a mended record back, unless somebody has changed it since it was read.
void write_back(const char *index_path, int64_t position, const RecIndexRecord &read, const RecIndexRecord &mended) {
    platform::File file;
    RecIndexRecord now{};
    if (!file.Open(index_path, platform::OpenMode::update)) return;
    file.Seek(position, platform::SeekFrom::begin);
    if (!read_record(&file, &now) || std::memcmp(&now, &read, sizeof(now)) != 0) return;
    file.Seek(position, platform::SeekFrom::begin);
    file.Write(&mended, sizeof(mended));
}

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
    char name[256];
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
    // A torn record at the end would misalign everything behind it: it is written over.
    int64_t end = file.Seek(0, platform::SeekFrom::end);
    end -= end % kRecordSize;
    file.Seek(end, platform::SeekFrom::begin);
    if (file.Write(&record, sizeof(record)) != sizeof(record)) {
        LOG_ERR("%s write fail!\n", index_path);
        file.Truncate(end);
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

std::string CRecIndex::folder_of(uint32_t dev_idx) const {
    char name[kMaxDeviceName + 1] = {};
    if (dev_idx <= KELM_AVIFILE_MAX_DEVICES) ask_recording::GetDevName(dev_idx, name, sizeof(name));
    return device_folder(name);
}

bool CRecIndex::check_rec_dir(const std::string &folder) {
    if (CFileManager::dir_has_avi_file(folder.c_str())) return true;
    CFileManager::prune_dir(folder.c_str());
    return false;
}

std::string CRecIndex::device_folder(const char *dev_name) const {
    return dev_name[0] == '\0' ? std::string(m_vlist_fname) : std::string(m_vlist_fname) + "/" + dev_name;
}

// ---- Queries ----

namespace {

constexpr size_t kMaxChannelName = sizeof("channel1024") - 1;
constexpr size_t kMinChannelName = sizeof("channel01") - 1;

// The channel of a channel folder's name, -1 for any other name: "channel01" to "channel99", "channel100" to "channel1024".
int32_t channel_of_folder(const char *name) {
    constexpr std::string_view kPrefix = "channel";
    const std::string_view text(name);
    if (text.size() < kMinChannelName || text.size() > kMaxChannelName || !text.starts_with(kPrefix)) return -1;
    const std::string_view digits = text.substr(kPrefix.size());
    if (digits.find_first_not_of("0123456789") != std::string_view::npos) return -1;
    if (digits.size() > 2 && digits[0] == '0') return -1;
    const int32_t channel = static_cast<int32_t>(std::strtol(digits.data(), nullptr, 10)) - 1;
    return channel < KELM_AVIFILE_MAX_CHANNELS ? channel : -1;
}

bool is_plausible(const RecFileNode &node) {
    // Of wild values the difference may not fit; as unsigned numbers it is right where the order is.
    const uint64_t span = static_cast<uint64_t>(node.end_sec) - static_cast<uint64_t>(node.begin_sec);
    return node.begin_sec <= node.end_sec && span <= static_cast<uint64_t>(kSecondsPerDay);
}

// Of an index record, whatever bytes it holds.
RecFileNode node_of(const RecIndexRecord &record) {
    RecFileNode node{};
    node.file_size = record.file_size;
    node.type = record.type;
    node.begin_sec = record.begin_sec;
    node.end_sec = record.end_sec;
    node.channel = record.channel;
    return node;
}

// The name in a record: terminated, and a name in its own folder.
bool safe_name(const RecIndexRecord &record, std::string *name) {
    const size_t length = strnlen(record.file_name, sizeof(record.file_name));
    name->assign(record.file_name, length);
    return length > 0 && length < sizeof(record.file_name) && name->find('/') == std::string::npos && *name != "." &&
           *name != "..";
}

// Brings a record up to date with its file: an open one, or one whose close was not entered. False when the file cannot
// tell.
bool refresh_record(const char *path, RecIndexRecord *record) {
    const bool closed = record->is_recording == 0;
    if (closed) {
        LOG_WARN("file %s is not recording, but need to update, end_time = %ld, file_size = %ld\n", path,
                 static_cast<long>(record->end_sec), static_cast<long>(record->file_size));
        if (CFileManager::file_exists((std::string(path) + kSideSuffix).c_str())) avi_restore_file(path);
    }
    uint32_t type = 0;
    int64_t begin_sec = 0;
    int64_t end_sec = 0;
    if (!closed || record->file_size == 0) record->file_size = CFileManager::get_file_size(path);
    if (ask_recording::GetRecInfo(record->channel, path, &type, &begin_sec, &end_sec) != KELM_AVIFILE_OK) return false;
    record->type = type;
    record->begin_sec = begin_sec;
    record->end_sec = end_sec;
    return true;
}

}  // namespace

int32_t CRecIndex::get_newest_node_info(uint32_t dev_idx, int32_t channel, bool include_recording, RecFileNode *node) const {
    if (channel < 0 || channel >= KELM_AVIFILE_MAX_CHANNELS || node == nullptr) {
        LOG_TRACE();
        return KELM_AVIFILE_BAD_ARGUMENT;
    }
    char index_path[256];
    if (dev_idx == kAllDevices || get_nodeidx_fname(dev_idx, channel, index_path, sizeof(index_path)) != KELM_AVIFILE_OK ||
        !CFileManager::file_exists(index_path)) {
        return KELM_AVIFILE_FAILED;
    }
    platform::File file;
    if (!file.Open(index_path, platform::OpenMode::read)) {
        LOG_ERR("open file failed, name = %s \n", index_path);
        return KELM_AVIFILE_FAILED;
    }
    RecIndexRecord record{};
    std::string name;
    file.Seek(-kRecordSize, platform::SeekFrom::end);
    if (!read_record(&file, &record) || !safe_name(record, &name)) return KELM_AVIFILE_FAILED;
    if (record.is_recording != 0 && !include_recording) {
        LOG_INFO("file %s is recording\n", name.c_str());
        return KELM_AVIFILE_FAILED;
    }
    *node = node_of(record);
    return get_recfile_full_path(index_path, name.c_str(), node->rec_file_path, sizeof(node->rec_file_path));
}

int32_t CRecIndex::query_node(const char *index_path, int32_t channel, const RecQuery &query, RecFileSet *files,
                              RecFileSet *gone) {
    platform::File file;
    if (!file.Open(index_path, platform::OpenMode::read, kIndexBuffer)) {
        LOG_TRACE();
        return KELM_AVIFILE_FAILED;
    }
    RecIndexRecord record{};
    std::string name;
    char path[256];
    while (read_record(&file, &record)) {
        const bool recording = record.is_recording != 0;
        if (record.type == 0 || (recording && !query.include_recording)) continue;
        if (record.channel != static_cast<uint32_t>(channel) || !safe_name(record, &name)) continue;
        if (get_recfile_full_path(index_path, name.c_str(), path, sizeof(path)) != KELM_AVIFILE_OK) continue;
        if (!CFileManager::file_exists(path)) {
            RecFileNode node = node_of(record);
            copy_text(node.rec_file_path, path);
            if (gone != nullptr && !recording && platform::path_is_gone(path)) gone->insert(node);
            continue;
        }
        if (recording || record.end_sec == 0 || record.file_size == 0) {
            const RecIndexRecord read = record;
            if (!refresh_record(path, &record)) continue;
            if (!recording) write_back(index_path, file.Tell() - kRecordSize, read, record);
        }
        if ((record.type & query.type_mask) == 0) continue;
        RecFileNode node = node_of(record);
        copy_text(node.rec_file_path, path);
        if (!is_plausible(node) || node.file_size == 0) {
            LOG_WARN("file error, name = %s, start_time = %d, end_time = %d, type = %d, size = %d \n", path,
                     static_cast<int32_t>(node.begin_sec), static_cast<int32_t>(node.end_sec),
                     static_cast<int32_t>(node.type), node.file_size);
            continue;
        }
        files->insert(node);
    }
    return KELM_AVIFILE_OK;
}

// One channel is looked for by name; for all of them the folder is listed once.
std::set<int32_t> CRecIndex::channels_in(const std::string &device_folder, int32_t channel) {
    if (channel != kAllChannels) return {channel};
    std::set<int32_t> channels;
    for_each_entry(device_folder.c_str(), true, [&channels](const FileFindEntry &entry) {
        const int32_t found = channel_of_folder(entry.name);
        if (found >= 0) channels.insert(found);
    });
    return channels;
}

void CRecIndex::query_device(const char *dev_name, const RecQuery &query, RecFileSet *files, RecFileSet *gone) const {
    char index_path[256];
    for (const int32_t channel : channels_in(device_folder(dev_name), query.channel)) {
        if (get_nodeidx_fname(dev_name, channel, index_path, sizeof(index_path)) != KELM_AVIFILE_OK) continue;
        if (CFileManager::file_exists(index_path)) query_node(index_path, channel, query, files, gone);
    }
}

void CRecIndex::query_nodes(const RecQuery &query, RecFileSet *files, RecFileSet *gone) const {
    if (query.dev_idx <= KELM_AVIFILE_MAX_DEVICES) {
        char name[kMaxDeviceName + 1] = {};
        ask_recording::GetDevName(query.dev_idx, name, sizeof(name));
        query_device(name, query, files, gone);
        return;
    }
    for_each_entry(m_vlist_fname, true, [&](const FileFindEntry &entry) {
        if (std::strlen(entry.name) <= kMaxDeviceName) query_device(entry.name, query, files, gone);
    });
}

// ---- The scan ----
//
// The folders are the truth: each index file is written anew from the record files beside it. A file with a side file was
// cut and is repaired first; one that a record knows and that was not repaired is believed unread; one that no record knows
// is asked itself; one that makes no sense is deleted; a record without a file goes.

ScanTotals CRecIndex::init_day_dir() const {
    ScanTotals totals;
    for_each_entry(m_vlist_fname, true, [this, &totals](const FileFindEntry &entry) {
        if (std::strlen(entry.name) <= kMaxDeviceName) totals.Add(init_devch_dir(entry.name));
    });
    return totals;
}

ScanTotals CRecIndex::init_devch_dir(const char *dev_name) const {
    ScanTotals totals;
    const std::string folder = device_folder(dev_name);
    for_each_entry(folder.c_str(), true, [&](const FileFindEntry &entry) {
        const int32_t channel = channel_of_folder(entry.name);
        if (channel < 0) {
            if (std::strlen(entry.name) != kMinChannelName) return;
            const std::string stray = folder + "/" + entry.name;
            LOG_WARN("remove invalid folder: %s \n", stray.c_str());
            CFileManager::delete_dir_tree(stray.c_str());
            return;
        }
        char index_path[256];
        if (get_nodeidx_fname(dev_name, channel, index_path, sizeof(index_path)) != KELM_AVIFILE_OK) return;
        ScanTotals folder_totals;
        rebuild_file(index_path, channel, &folder_totals);
        totals.Add(folder_totals);
    });
    return totals;
}

namespace {

constexpr size_t kMinRecordName = sizeof("100000.avi") - 1;

// The records of an index file that are not deleted, by name. Of several of a name one that was closed stands.
std::map<std::string, RecIndexRecord> read_old_records(const char *index_path) {
    std::map<std::string, RecIndexRecord> records;
    platform::File file;
    RecIndexRecord record{};
    std::string name;
    if (!file.Open(index_path, platform::OpenMode::read, kIndexBuffer)) return records;
    while (read_record(&file, &record)) {
        if (record.type == 0 || !safe_name(record, &name)) continue;
        const auto known = records.emplace(name, record).first;
        if (known->second.is_recording != 0) known->second = record;
    }
    return records;
}

// What the new index says of a file: what its record says, if that was entered at a close and the file was not cut; else
// what the file itself says. The type stays 0 when neither can tell.
RecFileNode scan_file(const std::string &folder, const FileFindEntry &entry, int32_t channel,
                      const std::map<std::string, RecIndexRecord> &old_records) {
    const std::string path = folder + entry.name;
    const bool cut = CFileManager::file_exists((path + kSideSuffix).c_str());
    if (cut) avi_restore_file(path.c_str());
    const auto known = old_records.find(entry.name);
    const bool believed = known != old_records.end() && !cut && known->second.is_recording == 0;
    RecFileNode node{};
    if (known != old_records.end()) node = node_of(known->second);
    copy_text(node.rec_file_path, entry.name);
    node.channel = static_cast<uint32_t>(channel);
    node.file_size = cut ? CFileManager::get_file_size(path.c_str()) : static_cast<int32_t>(entry.size);
    if (!believed) avi_get_recinfo_by_name(path.c_str(), &node.type, &node.begin_sec, &node.end_sec);
    return node;
}

bool append_record(platform::File *file, const RecFileNode &node) {
    RecIndexRecord record{};
    copy_text(record.file_name, node.rec_file_path);
    record.begin_sec = node.begin_sec;
    record.end_sec = node.end_sec;
    record.type = node.type;
    record.file_size = node.file_size;
    record.channel = node.channel;
    return file->Write(&record, sizeof(record)) == sizeof(record);
}

// What an index that cannot be written anew still says: its closed files stay in the account, which they leave with it.
ScanTotals totals_of(const std::map<std::string, RecIndexRecord> &records) {
    ScanTotals totals;
    for (const auto &[name, record] : records) {
        if (record.is_recording == 0 && record.file_size > 0) totals.Add({static_cast<uint64_t>(record.file_size), 1});
    }
    return totals;
}

void delete_senseless(const std::string &folder, const RecFileNode &node) {
    const std::string path = folder + node.rec_file_path;
    platform::File file;
    if (!file.Open(path.c_str(), platform::OpenMode::read)) return;  // that says nothing of what it holds
    file.Close();
    LOG_WARN("file error, delete it, file_name = %s, type = %d, begin_sec = %d, end_sec = %d, file_size = %d \n",
             path.c_str(), static_cast<int32_t>(node.type), static_cast<int32_t>(node.begin_sec),
             static_cast<int32_t>(node.end_sec), node.file_size);
    CFileManager::delete_avi_file(path.c_str());
    CFileManager::delete_file((path + kSideSuffix).c_str());
}

}  // namespace

int32_t CRecIndex::rebuild_file(const char *index_path, int32_t channel, ScanTotals *totals) {
    *totals = ScanTotals{};
    const char *slash = std::strrchr(index_path, '/');
    if (slash == nullptr) {
        LOG_TRACE();
        return KELM_AVIFILE_FAILED;
    }
    const std::string folder(index_path, slash + 1);
    const std::map<std::string, RecIndexRecord> old_records = read_old_records(index_path);
    RecFileSet new_nodes;
    for_each_entry((folder + "*.avi").c_str(), false, [&](const FileFindEntry &entry) {
        if (std::strlen(entry.name) >= kMinRecordName) new_nodes.insert(scan_file(folder, entry, channel, old_records));
    });
    platform::File file;
    if (!file.Open(index_path, platform::OpenMode::create_update, kIndexBuffer)) {
        LOG_TRACE();
        *totals = totals_of(old_records);
        return KELM_AVIFILE_FAILED;
    }
    for (const RecFileNode &node : new_nodes) {
        if (node.type == 0 || !is_plausible(node) || node.file_size <= 0) {
            delete_senseless(folder, node);
        } else if (append_record(&file, node)) {
            totals->bytes += static_cast<uint64_t>(node.file_size);
            ++totals->files;
        }
    }
    if (!file.Close()) {  // what is not entered does not count
        LOG_TRACE();
        CFileManager::delete_file(index_path);
        *totals = ScanTotals{};
        return KELM_AVIFILE_FAILED;
    }
    if (totals->files == 0) CFileManager::delete_avi_file(index_path);
    return KELM_AVIFILE_OK;
}

}  // namespace kelm_recvault
