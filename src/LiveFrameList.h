// The live frame buffer between the thread that delivers a channel's frames and the thread that writes them.
//
// Two rings. The frame ring, 1 MiB, is a byte image of the record file's frame area: each frame stands in it as the 64-byte
// record head, the data and a pad byte, and may wrap at any byte. The index ring takes the 40-byte side record of each
// frame. The position in the file of each frame is known when it enters, so that its side record need not wait for the disk.
//
// The drop rule. A frame that does not fit is dropped whole, and so is a video frame whose number jumps; then nothing is
// taken until the next key frame, so that what is stored stays decodable.
//
// Threads. One producer, the thread that holds the channel's lock; one consumer, the writer thread of the open file, or the
// thread that closes the file once that one has ended. m_lock is held for positions and counters alone, never for a copy:
// the producer copies into free space, which only it makes smaller, and the consumer reads bytes that count as used until it
// releases them. The consumer looks by itself every 20 ms; it is woken before that when a block of the largest size becomes
// complete, or the index ring half full, which costs the delivering call a system call, so not for less.
//
// Owned by value by CAviWriter; the rings exist from Initialize to Uninitialize.
#pragma once

#include <recvault/recvault.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "Mutex.h"
#include "Thread.h"

namespace kelm_recvault {

inline bool is_i_frame(uint32_t type) { return type == 1 || type == 18 || type == 24; }
inline bool is_audio_frame(uint32_t type) { return type == 8; }
bool is_video_frame(uint32_t type);

// The number of audio frames in one delivery: the data of the first, then a FrameHead and the data of each further one, all
// `length` bytes long. 0 for a delivery that is shorter than one frame, or whose length no delivery can hold.
uint32_t audio_frames_in_delivery(uint32_t data_len, uint32_t length);
void log_unexpected_frame(const FrameHead &head, uint32_t data_len);

// Takes such a delivery apart: visit(number from 0, head, data) for each frame. One whose own head says that it is no audio
// is passed over, and told on the log.
template <class Visit>
void for_each_audio_frame(const FrameHead &head, const void *data, uint32_t data_len, Visit visit) {
    const uint32_t count = audio_frames_in_delivery(data_len, head.length);
    const auto *bytes = static_cast<const uint8_t *>(data);
    FrameHead frame = head;
    for (uint32_t i = 0; i < count; ++i) {
        if (is_audio_frame(frame.type)) {
            visit(i, frame, bytes);
        } else {
            log_unexpected_frame(frame, head.length);
        }
        if (i + 1 == count) break;
        std::memcpy(&frame, bytes + head.length, sizeof(frame));
        bytes += head.length + sizeof(frame);
    }
}

#pragma pack(push, 1)
// The head of a frame record in the ring and in the file.
struct FrameRecHead {
    uint32_t junk_fcc;    // "JUNK"
    uint32_t junk_size;   // 48: bytes 8 to 55
    FrameHead frame;      // as it was delivered
    uint32_t rec_type;    // record-type mask
    uint32_t prev_size;   // chunk_size of the record before, plus 128; 0 in the first
    uint32_t file_pos;    // file offset of this record; 0 in an export
    uint32_t chunk_fcc;   // "01wb" or "00dc"
    uint32_t chunk_size;  // bytes of data, rounded up to an even number
};
#pragma pack(pop)
static_assert(sizeof(FrameHead) == 36 && sizeof(FrameRecHead) == 64);

class CPacketManager {
 public:
    static constexpr int32_t kFrameRingSize = 0x100000;
    static constexpr int32_t kIndexRecordSize = 40;
    static constexpr int32_t kIndexRingSize = 500 * kIndexRecordSize;
    static constexpr int32_t kMinBlock = 0x4000;
    static constexpr int32_t kMaxBlock = 0x40000;
    static constexpr int32_t kBlockAlignment = 4096;

    // Up to two pieces of a ring.
    struct Pieces {
        const uint8_t *first = nullptr;
        int32_t first_len = 0;
        const uint8_t *second = nullptr;
        int32_t second_len = 0;
        int32_t total() const { return first_len + second_len; }
    };

    CPacketManager() = default;
    CPacketManager(const CPacketManager &) = delete;
    CPacketManager &operator=(const CPacketManager &) = delete;

    // With `warn`, a full ring is told on the log. NO_MEMORY when the rings cannot be had.
    int32_t Initialize(bool warn);
    int32_t Uninitialize();

    // Per record file, while there is no consumer: empties the rings, says where the first frame will stand, and whom to
    // wake.
    int32_t ResetBuffers();
    int32_t SetFilePos(int32_t position);
    void SetConsumer(CThreadBase *consumer) { m_consumer = consumer; }

    // Is this a frame that the ring can take at all? Told on the log if not, FAILED.
    static int32_t CheckFrame(const FrameHead &head, const void *data, int32_t data_len);
    // The producer. Takes a frame after CheckFrame and the gate; an odd length is followed by one pad byte. The frame's file
    // position goes into the head and to `position`. NO_ROOM: dropped, the ring is full; FAILED: refused.
    int32_t SetFrameData(FrameRecHead *head, const void *data, int32_t data_len, int32_t *position);
    // The last step of it: puts a frame into the ring.
    int32_t SetOneFrame(FrameRecHead *head, const void *data, int32_t data_len, int32_t *position);
    // NO_ROOM when the index ring is full; the frame then has no side record.
    int32_t SetIdxInfo(const void *record, int32_t *free_slots);

    // The consumer. Tells what may be written, and removes nothing; FAILED when there is nothing. `aligned` asks for a
    // multiple of 4 KiB between 16 KiB and 256 KiB.
    int32_t GetFrameData(Pieces *pieces, bool aligned);
    int32_t ReleaseFrameData(int32_t count);
    int32_t GetIdxData(Pieces *pieces);
    int32_t ReleaseIdxData(int32_t count);

 private:
    struct FreeDeleter {
        void operator()(void *memory) const { std::free(memory); }
    };
    using RingMemory = std::unique_ptr<uint8_t[], FreeDeleter>;

    static RingMemory Allocate(int32_t size);
    bool PassesGate(const FrameHead &head);
    int32_t CopyIn(int32_t offset, const void *data, int32_t size);
    static Pieces Describe(const uint8_t *ring, int32_t ring_size, int32_t write_offset, int32_t used, int32_t size);

    CMutex m_lock{LockRank::live_frames};

    // The producer's own.
    bool m_gate_open = false;
    uint32_t m_last_frame_no = 0;
    bool m_warn = true;

    // Set while there is no consumer.
    RingMemory m_frame_ring;
    RingMemory m_index_ring;
    CThreadBase *m_consumer = nullptr;

    int32_t m_file_pos RCVT_GUARDED_BY(m_lock) = 0;
    int32_t m_write_offset RCVT_GUARDED_BY(m_lock) = 0;
    int32_t m_used RCVT_GUARDED_BY(m_lock) = 0;
    int32_t m_index_write_offset RCVT_GUARDED_BY(m_lock) = 0;
    int32_t m_index_used RCVT_GUARDED_BY(m_lock) = 0;
};

}  // namespace kelm_recvault
