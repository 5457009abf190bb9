// The record index: the folder tree below a partition, and the index file of each channel folder.
//
//   <root>/avi_av/<yyyymmdd>/<device>/channel<nn>/<hhmmss>.avi      record file; channel number from 1, at least two digits
//                                                 <hhmmss>.avi_idx  side file, while the record file is not finished
//                                                 rec_index.bin     312 bytes a record file, in the order of opening
//
// An index file has no head. Its records are never moved; a deleted one keeps its place with type 0. The index can always be
// thrown away: the folder is the truth.
//
// A CRecIndex is the path of one day folder and nothing else. Each operation opens the file that it needs and closes it
// again; copies are free, and there is no lock. That works because an index file has one appender, its channel's recorder,
// and because every other change rewrites one whole record at its own place.
#pragma once

#include <cstddef>
#include <cstdint>
#include <set>
#include <string>

#include "RecFileNode.h"
#include "platform/file.h"

namespace kelm_recvault {

constexpr const char *kIndexFileName = "rec_index.bin";
// As a device index: all device folders of a day.
constexpr uint32_t kAllDevices = 0xFFFFFFFF;
constexpr size_t kMaxDeviceName = 63;

#pragma pack(push, 1)
struct RecIndexRecord {
    uint32_t channel;  // from 0
    uint32_t type;     // mask of the record types; 0 marks a deleted record
    char file_name[256];
    int32_t file_size;
    uint32_t reserved1;
    int64_t begin_sec;
    int64_t end_sec;
    uint32_t reserved2;
    uint32_t is_recording;  // 1 from the opening of the file to its close
    uint8_t reserved3[16];
};
#pragma pack(pop)
static_assert(sizeof(RecIndexRecord) == 312 && offsetof(RecIndexRecord, file_size) == 264 &&
              offsetof(RecIndexRecord, begin_sec) == 272 && offsetof(RecIndexRecord, end_sec) == 280 &&
              offsetof(RecIndexRecord, is_recording) == 292);

// What a record had in the account of the partition.
struct RecordedSize {
    bool known = false;  // there is a record
    int32_t bytes = 0;   // of a closed file; neither an open one nor one that was deleted before is in the account
};

// What a query asks for.
struct RecQuery {
    uint32_t dev_idx;  // kAllDevices for all device folders
    int32_t channel;   // kAllChannels for all
    uint32_t type_mask;
    bool include_recording;  // open files too
};
constexpr int32_t kAllChannels = -1;

// What a scan kept.
struct ScanTotals {
    uint64_t bytes = 0;
    uint32_t files = 0;
    void Add(const ScanTotals &other) {
        bytes += other.bytes;
        files += other.files;
    }
};

class CRecIndex {
 public:
    CRecIndex() = default;

    // Paths. FAILED when the result does not fit, or a path has no slash.
    int32_t set_vlist_fname(const char *fname);
    const char *vlist_fname() const { return m_vlist_fname; }
    static int32_t get_nodeidxz_fname(const char *file_path, char *out, size_t out_size);
    int32_t get_nodeidx_fname(uint32_t dev_idx, int32_t channel, char *out, size_t out_size) const;
    int32_t get_nodeidx_fname(const char *dev_name, int32_t channel, char *out, size_t out_size) const;
    static int32_t get_recfile_full_path(const char *index_path, const char *file_name, char *out, size_t out_size);

    // Appends the record of a file that is being recorded, or was closed; makes the index file if need be.
    int32_t insert_file_node(const RecFileNode &node, bool is_recording);
    // Rewrites the record of a file that was closed, the last one of its name. `deleted` tells that the record was deleted
    // meanwhile; it stays so.
    int32_t update_file_node(const RecFileNode &node, bool *deleted);
    // Marks the first record of a file's name that is not deleted yet as deleted, and removes the index of a folder without
    // record files.
    int32_t delete_file_node(const char *file_path, RecordedSize *recorded);
    static int32_t decrease_rec_cnt(const char *index_path);

    // Queries. What is found is inserted into `files`. Records that were left incomplete are mended on the way. Where `gone`
    // is given, the closed records whose files are not there are collected in it. The last record of a channel, also a
    // deleted one, with its type 0.
    int32_t get_newest_node_info(uint32_t dev_idx, int32_t channel, bool include_recording, RecFileNode *node) const;
    static int32_t query_node(const char *index_path, int32_t channel, const RecQuery &query, RecFileSet *files,
                              RecFileSet *gone);
    void query_nodes(const RecQuery &query, RecFileSet *files, RecFileSet *gone) const;

    // The scan. Rewrites the index files of the day, of a device folder, of a channel folder from what lies in the folders.
    ScanTotals init_day_dir() const;
    ScanTotals init_devch_dir(const char *dev_name) const;
    static int32_t rebuild_file(const char *index_path, int32_t channel, ScanTotals *totals);
    // The folder of the day, or of one device in it.
    std::string folder_of(uint32_t dev_idx) const;
    // Does such a folder hold record files? One that does not is removed.
    static bool check_rec_dir(const std::string &folder);
    // The channel asked for, or those that have a folder there, ascending.
    static std::set<int32_t> channels_in(const std::string &device_folder, int32_t channel);

 private:
    void query_device(const char *dev_name, const RecQuery &query, RecFileSet *files, RecFileSet *gone) const;
    std::string device_folder(const char *dev_name) const;

    char m_vlist_fname[256] = {};  // the day folder, without a slash at its end
};

}  // namespace kelm_recvault
