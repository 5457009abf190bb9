#include "LiveFrameList.h"

#include <algorithm>
#include <cstring>

#include "Log.h"

namespace kelm_recvault {

namespace {
constexpr int32_t kHeadSize = sizeof(FrameRecHead);
}

bool is_video_frame(uint32_t type) {
    switch (type) {
        case 1:
        case 9:
        case 10:
        case 15:
        case 16:
        case 18:
        case 19:
        case 20:
        case 24:
        case 25:
        case 26: return true;
        default: return false;
    }
}

uint32_t audio_frames_in_delivery(uint32_t data_len, uint32_t length) {
    if (length == 0) return 0;
    const uint64_t step = static_cast<uint64_t>(length) + sizeof(FrameHead);
    return static_cast<uint32_t>((static_cast<uint64_t>(data_len) + sizeof(FrameHead)) / step);
}

void log_unexpected_frame(const FrameHead &head, uint32_t data_len) {
    LOG_WARN("unexpected frame, type = %d, len = %d\n", static_cast<int32_t>(head.type), static_cast<int32_t>(data_len));
}

CPacketManager::RingMemory CPacketManager::Allocate(int32_t size) {
    // Zeroed memory of this size costs nothing until it is used.
    return RingMemory(static_cast<uint8_t *>(std::calloc(1, static_cast<size_t>(size))));
}

int32_t CPacketManager::Initialize(bool warn) {
    const int32_t created = m_lock.Create();
    if (created != KELM_AVIFILE_OK) {
        LOG_TRACE();
        return created;
    }
    m_warn = warn;
    m_frame_ring = Allocate(kFrameRingSize);
    m_index_ring = Allocate(kIndexRingSize);
    if (!m_frame_ring || !m_index_ring) {
        LOG_TRACE();
        Uninitialize();
        return KELM_AVIFILE_NO_MEMORY;
    }
    return ResetBuffers();
}

int32_t CPacketManager::Uninitialize() {
    ResetBuffers();
    m_frame_ring.reset();
    m_index_ring.reset();
    m_lock.Close();
    return KELM_AVIFILE_OK;
}

int32_t CPacketManager::ResetBuffers() {
    const CAutoMutex lock(&m_lock);
    m_write_offset = m_used = m_index_write_offset = m_index_used = 0;
    return KELM_AVIFILE_OK;
}

int32_t CPacketManager::SetFilePos(int32_t position) {
    const CAutoMutex lock(&m_lock);
    m_file_pos = position;
    return KELM_AVIFILE_OK;
}

// A lost video frame closes the gate, a key frame opens it.
bool CPacketManager::PassesGate(const FrameHead &head) {
    const bool key = is_i_frame(head.type);
    if (is_video_frame(head.type)) {
        const auto difference = static_cast<int32_t>(head.frame_no - m_last_frame_no);
        m_last_frame_no = head.frame_no;
        if (!key && (difference > 1 || difference < -1)) m_gate_open = false;
    }
    m_gate_open = m_gate_open || key;
    return m_gate_open;
}

int32_t CPacketManager::CheckFrame(const FrameHead &head, const void *data, int32_t data_len) {
    if (data == nullptr || data_len <= 0) {
        LOG_TRACE();
        return KELM_AVIFILE_FAILED;
    }
    const int64_t total = static_cast<int64_t>(data_len) + data_len % 2 + kHeadSize;
    if (total > kFrameRingSize) {
        LOG_ERR("frame is too large: %d > %d \n", static_cast<int32_t>(total), kFrameRingSize);
        return KELM_AVIFILE_FAILED;
    }
    if (head.uiStartId != KELM_AVIFILE_FRAME_START_ID) {
        LOG_INFO("frame error uiStartId = %d\n", static_cast<int32_t>(head.uiStartId));
        return KELM_AVIFILE_FAILED;
    }
    // A head without a time is not held against its data: filler frames have none.
    if (head.seconds > 0 && static_cast<uint32_t>(data_len) != head.length) {
        LOG_INFO("data_len or head error: dwDataLen = %d, pHead->length = %d\n", data_len,
                 static_cast<int32_t>(head.length));
        return KELM_AVIFILE_FAILED;
    }
    return KELM_AVIFILE_OK;
}

int32_t CPacketManager::SetFrameData(FrameRecHead *head, const void *data, int32_t data_len, int32_t *position) {
    const int32_t checked = CheckFrame(head->frame, data, data_len);
    if (checked != KELM_AVIFILE_OK) return checked;
    if (!PassesGate(head->frame)) return KELM_AVIFILE_FAILED;
    return SetOneFrame(head, data, data_len, position);
}

// Copies to the ring from an offset on, around its end if need be, and gives the offset behind.
int32_t CPacketManager::CopyIn(int32_t offset, const void *data, int32_t size) {
    const int32_t first = std::min(size, kFrameRingSize - offset);
    std::memcpy(m_frame_ring.get() + offset, data, static_cast<size_t>(first));
    std::memcpy(m_frame_ring.get(), static_cast<const uint8_t *>(data) + first, static_cast<size_t>(size - first));
    return (offset + size) % kFrameRingSize;
}

int32_t CPacketManager::SetOneFrame(FrameRecHead *head, const void *data, int32_t data_len, int32_t *position) {
    if (!m_frame_ring) {
        LOG_TRACE();
        return KELM_AVIFILE_FAILED;
    }
    const int32_t total = data_len + data_len % 2 + kHeadSize;  // the pad byte is whatever the ring holds there
    int32_t offset = 0;
    int32_t room = 0;
    {
        const CAutoMutex lock(&m_lock);
        room = kFrameRingSize - m_used;
        offset = m_write_offset;
        *position = m_file_pos;
    }
    if (room < total) {
        if (m_warn) LOG_WARN("remain size is too small: (%d < %d), drop current frame\n", room, total);
        m_gate_open = false;
        return KELM_AVIFILE_NO_ROOM;
    }
    head->file_pos = static_cast<uint32_t>(*position);
    CopyIn(CopyIn(offset, head, kHeadSize), data, data_len);

    bool block_completed = false;
    {
        const CAutoMutex lock(&m_lock);
        m_write_offset = (offset + total) % kFrameRingSize;
        block_completed = m_used < kMaxBlock && m_used + total >= kMaxBlock;
        m_used += total;
        m_file_pos += total;
    }
    if (block_completed && m_consumer != nullptr) m_consumer->Wake();
    return KELM_AVIFILE_OK;
}

CPacketManager::Pieces CPacketManager::Describe(const uint8_t *ring, int32_t ring_size, int32_t write_offset, int32_t used,
                                                int32_t size) {
    const int32_t read_offset = (write_offset - used + ring_size) % ring_size;
    Pieces pieces;
    pieces.first = ring + read_offset;
    pieces.first_len = std::min(size, ring_size - read_offset);
    if (pieces.first_len < size) {
        pieces.second = ring;
        pieces.second_len = size - pieces.first_len;
    }
    return pieces;
}

int32_t CPacketManager::GetFrameData(Pieces *pieces, bool aligned) {
    const CAutoMutex lock(&m_lock);
    if (!m_frame_ring) {
        LOG_TRACE();
        return KELM_AVIFILE_FAILED;
    }
    int32_t size = m_used;
    if (aligned) {
        size -= size % kBlockAlignment;
        if (size < kMinBlock) return KELM_AVIFILE_FAILED;
        size = std::min(size, kMaxBlock);
    }
    if (size <= 0) return KELM_AVIFILE_FAILED;
    *pieces = Describe(m_frame_ring.get(), kFrameRingSize, m_write_offset, m_used, size);
    return KELM_AVIFILE_OK;
}

int32_t CPacketManager::ReleaseFrameData(int32_t count) {
    const CAutoMutex lock(&m_lock);
    m_used = std::max(0, m_used - count);
    return KELM_AVIFILE_OK;
}

int32_t CPacketManager::SetIdxInfo(const void *record, int32_t *free_slots) {
    if (!m_index_ring) {
        LOG_TRACE();
        return KELM_AVIFILE_FAILED;
    }
    int32_t offset = 0;
    int32_t room = 0;
    {
        const CAutoMutex lock(&m_lock);
        room = kIndexRingSize - m_index_used;
        offset = m_index_write_offset;
    }
    if (room < kIndexRecordSize) {
        *free_slots = 0;
        LOG_ERR("idx buffer remain size is too small: (%d < %d), drop current idx info\n", room, kIndexRecordSize);
        return KELM_AVIFILE_NO_ROOM;
    }
    // The ring's size is a whole number of records, so that none ever wraps.
    std::memcpy(m_index_ring.get() + offset, record, kIndexRecordSize);
    bool half_full = false;
    {
        const CAutoMutex lock(&m_lock);
        m_index_write_offset = (offset + kIndexRecordSize) % kIndexRingSize;
        m_index_used += kIndexRecordSize;
        half_full = m_index_used == kIndexRingSize / 2;
        *free_slots = (kIndexRingSize - m_index_used) / kIndexRecordSize;
    }
    // Small frames fill this ring long before the other one holds a block.
    if (half_full && m_consumer != nullptr) m_consumer->Wake();
    return KELM_AVIFILE_OK;
}

int32_t CPacketManager::GetIdxData(Pieces *pieces) {
    const CAutoMutex lock(&m_lock);
    if (!m_index_ring) {
        LOG_TRACE();
        return KELM_AVIFILE_FAILED;
    }
    if (m_index_used < kIndexRecordSize) return KELM_AVIFILE_FAILED;
    *pieces = Describe(m_index_ring.get(), kIndexRingSize, m_index_write_offset, m_index_used, m_index_used);
    return KELM_AVIFILE_OK;
}

int32_t CPacketManager::ReleaseIdxData(int32_t count) {
    const CAutoMutex lock(&m_lock);
    m_index_used = std::max(0, m_index_used - count);
    return KELM_AVIFILE_OK;
}

}  // namespace kelm_recvault
