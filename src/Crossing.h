// The one place where recording and storage call each other.
//
// A recorder asks storage for names and reports its files; storage asks the recorders what is open and tells them to leave a
// file. Each side takes its own locks in such a call, so neither holds one of its own across it: debug builds assert that.
// Neither side includes the other. Called from any thread; Crossing.cpp forwards to the managers of the global object.
#pragma once

#include <cstdint>

#include "RecFileNode.h"

namespace kelm_recvault {

// Where a new record file goes.
struct RecFileName {
    char path[260];
    int32_t disk_idx = -1;               // slot of the partition
    int32_t max_file_size = 0x40000000;  // bytes, 1 GiB if storage gives no other
};

// What a name holds of its partition, see GetRecFileName.
constexpr int32_t kHoldsOfAFile = 2;

// Asked by recording.
namespace ask_storage {

// FAILED when there is no partition to record on, or its folder cannot be made. A name comes with two holds on its
// partition, which is not ended while there is one: the first is given back when the close of the file has been reported,
// the second when the file has been finished, both when it was not opened.
int32_t GetRecFileName(uint32_t dev_idx, int32_t channel, uint32_t cur_sec, RecFileName *name);
// Reports a file when it is opened and when it is closed, by one who holds its partition.
int32_t AddRecNodeInfo(int32_t disk_idx, const RecFileNode &node, bool is_new);
void ReleasePartition(int32_t disk_idx, int32_t holds);

}  // namespace ask_storage

// Asked by storage.
namespace ask_recording {

// The name is empty, and the result not 0, for a device that is not registered.
int32_t GetDevName(uint32_t dev_idx, char *name, uint32_t size);
// Sum of the running sizes of the files that are open on a partition.
int64_t GetCurRecFileSize(int32_t disk_idx);
// Every recording channel closes its file, and asks for a new name with its next key frame.
void SwitchAllRecFile();
// Is a recorder writing this file?
bool IsWriting(const char *path);
// The number of channels that record.
int32_t GetRecChanCnt();
// Closes that file if the channel writes it, 0; else not 0.
int32_t SwitchRecFileByName(uint32_t channel, const char *path);
// Type mask and time range of a file, from its recorder while it is open. Not 0: no information.
int32_t GetRecInfo(uint32_t channel, const char *path, uint32_t *type, int64_t *begin_sec, int64_t *end_sec);

}  // namespace ask_recording

}  // namespace kelm_recvault
