#include "RecSegManager.h"

#include <algorithm>
#include <array>
#include <memory>
#include <new>

#include "GlobalObj.h"
#include "Log.h"
#include "RecDevManager.h"
#include "StorageManager.h"

namespace kelm_recvault {

namespace {

struct ListDeleter {
    void operator()(RecSegNode *head) const { CRecSegMngr::ReleaseRecSegList(head); }
};

}  // namespace

int32_t CRecSegMngr::GetRecSegList(uint32_t dev_idx, uint32_t channel, int64_t begin_sec, int64_t end_sec,
                                   uint32_t type_mask, RecSegNode **head, int32_t *count) {
    RecFileSet files;
    const RecQuery query{dev_idx, static_cast<int32_t>(channel), type_mask, true};
    CGlobalObject::Instance().StorageMngr().QueryRecFile(query, begin_sec, end_sec, true, &files);

    std::unique_ptr<RecSegNode, ListDeleter> first;
    RecSegNode *last = nullptr;
    int32_t nodes = 0;
    for (const RecFileNode &file : files) {
        std::array<RecSegEntry, kMaxSegments> entries{};
        int32_t entry_count = kMaxSegments;
        if (CGlobalObject::Instance().RecDevMngr().GetRecSegInfo(file.channel, file.rec_file_path, entries.data(),
                                                                 &entry_count) != KELM_AVIFILE_OK) {
            LOG_INFO("GetRecSegInfo failed\n");
            continue;
        }
        for (int32_t i = 0; i < entry_count; ++i) {
            const auto [rec_type, first_sec, last_sec] = entries[static_cast<size_t>(i)];
            const bool overlaps = first_sec <= end_sec && last_sec >= begin_sec;
            if (!overlaps || first_sec > last_sec || (rec_type & type_mask) == 0) continue;
            auto *node = new (std::nothrow) RecSegNode{};
            if (node == nullptr) {
                LOG_TRACE();
                return KELM_AVIFILE_NO_MEMORY;
            }
            node->begin_sec = std::max(int64_t{first_sec}, begin_sec);
            node->end_sec = std::min(int64_t{last_sec}, end_sec);
            node->type = rec_type;
            if (last != nullptr) {
                last->next = node;
            } else {
                first.reset(node);
            }
            last = node;
            ++nodes;
        }
    }
    *head = first.release();
    *count = nodes;
    return KELM_AVIFILE_OK;
}

void CRecSegMngr::ReleaseRecSegList(RecSegNode *head) {
    while (head != nullptr) {
        RecSegNode *const next = head->next;
        delete head;
        head = next;
    }
}

}  // namespace kelm_recvault
