/* recvault: the storage engine of a video recorder.
 *
 * Conventions
 *
 *  1. Results. Every function returns 0 or one of the negative codes of kelm_avifile_result. The codes that a function
 *     can give are listed at the function; each of them may also give KELM_AVIFILE_NOT_INITIALIZED, and
 *     KELM_AVIFILE_NO_MEMORY. A failure is told on the log (standard error) where it arises. A call that fails for a bad
 *     argument has changed nothing, but for the record of KELM_AviFile_AddRecPartition, which is normalised first.
 *  2. Handles. A device is named by its number, 1 to 255, everything else by a handle that is the index in a table plus 1.
 *     0 is never a device and never a handle. A number or a handle is used again once it has been given back.
 *  3. Channels are numbered 0 to 1023 within a device. KELM_AVIFILE_ALL_CHANNELS stands for all of them where it is allowed.
 *  4. Times are seconds whose broken-down form, taken as UTC, shows the local wall clock: a time divided by 86400 is the
 *     number of the local day. The offset to UTC is the one in force when KELM_AviFile_Init was called.
 *  5. Record types are numbers 1 to 8; 8 stands for all seven others together. A RecFileInfo alone shows a mask, bit n-1 for
 *     type n.
 *  6. Strings are zero-terminated single-byte strings. The library copies what it keeps of an argument; what it hands out
 *     belongs to the caller, but for the list of KELM_AviFile_GetRecSegList, which goes back through
 *     KELM_AviFile_ReleaseRecSegList, and the frame of a DataPopCallback, which is lent for the length of the call.
 *  7. Threads. Any function may be called from any thread, several at a time, but for three rules: KELM_AviFile_Init and
 *     KELM_AviFile_UnInit are called while no other call is under way; the frames of one channel come from one thread at a
 *     time, or their order is whatever it happens to be; a file query is used by one thread at a time.
 *  8. Callbacks run on threads of the library. A DataPopCallback must not stop, release or otherwise call its own playback
 *     while another thread does; no callback may call KELM_AviFile_UnInit.
 *  9. Numbers in memory are those of the machine; the structures below that reach the disk are little-endian.
 *
 * The smallest program that records: KELM_AviFile_Init, KELM_AviFile_AddRecPartition, KELM_AviFile_CreateDevHandle,
 * KELM_AviFile_RecStart, KELM_AviFile_DataInput for each frame, KELM_AviFile_RecStop, KELM_AviFile_UnInit.
 */
#ifndef RECVAULT_RECVAULT_H
#define RECVAULT_RECVAULT_H

#include <stdint.h>

#if defined(_WIN32)
#if defined(RECVAULT_BUILDING)
#define RECVAULT_API __declspec(dllexport)
#else
#define RECVAULT_API __declspec(dllimport)
#endif
#elif defined(__GNUC__)
#define RECVAULT_API __attribute__((visibility("default")))
#else
#define RECVAULT_API
#endif

#ifdef __cplusplus
extern "C" {
#endif

/* Result codes, the same at the interface and inside. */
enum kelm_avifile_result {
    KELM_AVIFILE_OK = 0,
    KELM_AVIFILE_END_OF_DATA = -987,     /* a read has reached the end of the data that is there */
    KELM_AVIFILE_NOT_FOUND = -988,       /* nothing found, or no further entry */
    KELM_AVIFILE_NOT_CREATED = -989,     /* the object was not created */
    KELM_AVIFILE_EXISTS = -990,          /* it exists already: a device of that name, a lock */
    KELM_AVIFILE_NOT_RUNNING = -991,     /* recording not started on the channel, handle not in use */
    KELM_AVIFILE_ALREADY_RUNNING = -992, /* library already initialised, playback or thread already started */
    KELM_AVIFILE_NO_SLOT = -993,         /* the table is full */
    KELM_AVIFILE_NO_ROOM = -994,         /* ring buffer full, path buffer too short */
    KELM_AVIFILE_NO_FILE = -995,         /* no such file, not a record file, or it could not be opened */
    KELM_AVIFILE_BAD_HANDLE = -996,      /* a device number or a handle out of range */
    KELM_AVIFILE_BAD_ARGUMENT = -997,    /* null pointer, empty string, value or time range out of bounds */
    KELM_AVIFILE_NO_MEMORY = -998,       /* out of memory */
    KELM_AVIFILE_NOT_INITIALIZED = -999, /* KELM_AviFile_Init has not been called */
    KELM_AVIFILE_FAILED = -1000          /* any other failure; a device number in range with no device behind it */
};

/* Events of a DataPopCallback. */
enum kelm_avifile_pop_event {
    POP_EVENT_FRAME = 0, /* one frame */
    POP_EVENT_END = 2,   /* the channel has nothing left in the range; repeated every 100 ms */
    POP_EVENT_WAIT = 3   /* the channel is at the live end; repeated every 20 ms, or 500 ms while there is no further file */
};

/* Limits. */
enum kelm_avifile_limit {
    KELM_AVIFILE_MAX_DEVICES = 255,
    KELM_AVIFILE_MAX_CHANNELS = 1024,
    KELM_AVIFILE_MAX_PARTITIONS = 24,
    KELM_AVIFILE_MAX_FRAME_BYTES = 0x100000, /* bytes of frame data in one call */
    KELM_AVIFILE_FRAME_HEAD_BYTES = 36       /* sizeof(FrameHead), the head length that every frame call wants */
};

#define KELM_AVIFILE_FRAME_START_ID 0xAB010000u /* FrameHead.uiStartId */
#define KELM_AVIFILE_ALL_CHANNELS 0xFFFFFFFFu

/* The head of a frame as the application delivers it. It is stored with the frame and given back by playback.
 * Packed, little-endian, 36 bytes. */
#pragma pack(push, 1)
typedef struct FrameHead {
    uint32_t uiStartId; /* KELM_AVIFILE_FRAME_START_ID */
    uint32_t type;      /* 1, 18, 24: key frame; 9, 10, 15, 16, 19, 20, 25, 26: other video; 8: audio */
    uint32_t frame_no;  /* running number in the channel's video stream: a jump of more than 1 means a lost frame, and what
                           follows is dropped up to the next key frame. Not looked at in audio */
    uint32_t seconds;   /* time of the frame; KELM_AviFile_DataInput puts its own arguments here */
    uint32_t microseconds; /* 0 to 999999 */
    uint32_t length;       /* bytes of data of this frame; in a delivery of several audio frames that of each of them */
    union {
        uint16_t width;      /* video: picture width in pixels */
        uint8_t audio_codec; /* audio: 1 G.711 A-law, 2 G.711 mu-law (ITU-T G.711), else IMA ADPCM in blocks of 164 bytes */
    };
    uint16_t height;     /* video: picture height in pixels */
    int8_t codec_id;     /* video: 2 Motion JPEG, else H.264 (ITU-T H.264, Annex B byte stream) */
    uint8_t reserved[7]; /* the application's own; stored and given back unchanged */
} FrameHead;
#pragma pack(pop)

/* A record partition: a folder on a volume with a budget of bytes. Natural alignment, 64 bytes. */
typedef struct RecPartitionInfo {
    char path[32];       /* root: an absolute path, or a drive letter, a colon and an optional path. Normalised in place */
    int32_t priority;    /* above 0 to be chosen for recording; the highest wins, 4 is the highest */
    uint64_t rec_space;  /* bytes that recording may use; lowered to disk_space in place if it is more */
    uint64_t disk_space; /* bytes of the partition */
    uint32_t max_save_hour; /* maximum age of files in hours; 0: no limit; 0xFFFFFFFF: no limit and no recycling */
} RecPartitionInfo;

/* One stretch of recording of one type on one channel, in a list. */
typedef struct RecSegNode {
    int64_t begin_sec;       /* first second, not before the range asked for */
    int64_t end_sec;         /* last second, not after the range asked for */
    uint32_t type;           /* record type, 1 to 7 */
    struct RecSegNode *next; /* null at the end of the list */
} RecSegNode;

/* One record file. */
typedef struct RecFileInfo {
    char file_path[256]; /* full path */
    uint32_t begin_sec;  /* low 32 bits of the file's first second */
    uint32_t end_sec;    /* low 32 bits of the file's last second */
    int32_t file_size;   /* bytes */
    uint32_t type;       /* mask of the record types in the file, bit n-1 for type n */
} RecFileInfo;

/* A frame or an event of a playback.
 *   pop_index   the playback's handle minus 1
 *   channel     0 to 1023
 *   key_flag    1 for a key frame, else 0
 *   frame_type  the low 16 bits of FrameHead.type
 *   time        the frame's seconds
 *   frame       the FrameHead with the data behind it, valid until the call returns; null for other events
 *   length      bytes of head and data; 0 for other events
 *   event       one of kelm_avifile_pop_event
 *   user        the word given to KELM_AviFile_DataPopCreate
 * The result is ignored. Runs on a thread of the library, one for each channel of the playback: several channels may call
 * at the same time. No lock of the library is held. A slow callback slows the playback and nothing else. */
typedef int32_t (*DataPopCallback)(int32_t pop_index, int32_t channel, int32_t key_flag, int32_t frame_type, int64_t time,
                                   const void *frame, int32_t length, int32_t event, uintptr_t user);

/* Told about once a second for as long as nothing more can be recorded: there are partitions, none of them can be used, and
 * none may be recycled. `user` is the value given at registration; the result is ignored. Runs on a thread of the library,
 * and may call KELM_AviFile_SetDiskGroupFullCallback. */
typedef int32_t (*DiskGroupFullCallback)(void *user);

/* ---- Library ---- */

/* Initialises the library and starts its two threads. `reserved` is not looked at.
 *   KELM_AVIFILE_ALREADY_RUNNING  it is initialised; nothing changes */
RECVAULT_API int32_t KELM_AviFile_Init(uint32_t reserved);

/* Ends everything: playbacks, recordings, exports, queries. Returns when all threads of the library have ended and each
 * record file is finished. KELM_AviFile_Init may be called again after it. The application ends its own calls first.
 *   KELM_AVIFILE_NOT_INITIALIZED  there is nothing to end */
RECVAULT_API int32_t KELM_AviFile_UnInit(uint32_t reserved);

/* ---- Partitions ---- */

/* Adds a partition, or gives a known one new values of rec_space, max_save_hour and priority. Up to 24 partitions. The path
 * is normalised in `info`, and rec_space lowered to disk_space. Blocks while the partition is scanned: files that a crash
 * cut are repaired, and every index is written anew from the files. A partition belongs to one process at a time.
 *   KELM_AVIFILE_BAD_ARGUMENT  info is null, the path is empty or not absolute, or rec_space is 0
 *   KELM_AVIFILE_NO_SLOT       24 partitions are in use
 *   KELM_AVIFILE_FAILED        another process records on the partition, or it could not be taken into use */
RECVAULT_API int32_t KELM_AviFile_AddRecPartition(RecPartitionInfo *info);

/* Takes a partition out of use; its files stay. Open files on it are closed. Returns when every file on it is finished and
 * nothing works on it any more.
 *   KELM_AVIFILE_BAD_ARGUMENT  path is null
 *   KELM_AVIFILE_FAILED        no partition of that path is in use */
RECVAULT_API int32_t KELM_AviFile_DelRecPartition(const char *path);

/* Tells how many bytes of record files lie on a partition, the files being written included.
 *   KELM_AVIFILE_BAD_ARGUMENT  path or used_bytes is null
 *   KELM_AVIFILE_FAILED        no partition of that path is in use */
RECVAULT_API int32_t KELM_AviFile_GetRecUsedSpace(const char *path, uint64_t *used_bytes);

/* Sets the function that is called when nothing more can be recorded; null ends the calls. Waits for a call that is under
 * way on another thread. Always KELM_AVIFILE_OK. */
RECVAULT_API int32_t KELM_AviFile_SetDiskGroupFullCallback(DiskGroupFullCallback callback, void *user);

/* ---- Devices ---- */

/* Registers a device by name and stores its number, 1 to 255, in *nDevIdx. The name is a folder name in every path of the
 * device's record files and ties old recordings to it across restarts; it is cut to 63 characters.
 *   KELM_AVIFILE_BAD_ARGUMENT  a pointer is null; the name is empty, "." or "..", or holds a slash or a backslash
 *   KELM_AVIFILE_EXISTS        the name is, or contains, the name of a registered device; nothing is stored
 *   KELM_AVIFILE_NO_SLOT       255 devices are registered */
RECVAULT_API int32_t KELM_AviFile_CreateDevHandle(int32_t *nDevIdx, const char *name);

/* Stops all recording of a device, finishes its files and gives its number back. A number without a device is no failure.
 *   KELM_AVIFILE_BAD_HANDLE  nDevIdx is below 0 or above 255 */
RECVAULT_API int32_t KELM_AviFile_ReleaseDevHandle(int32_t nDevIdx);

/* ---- Recording ---- */

/* Starts recording on a channel, or changes the record type of a recording that runs. A file is opened by the first key
 * frame. A started channel takes 1 MiB for its ring and one thread, and one more while a file is open.
 *   KELM_AVIFILE_BAD_ARGUMENT  channel above 1023, or nRecType not in 1 to 8
 *   KELM_AVIFILE_BAD_HANDLE    nDevIdx not in 1 to 255
 *   KELM_AVIFILE_NO_MEMORY     no memory for the ring
 *   KELM_AVIFILE_FAILED        no such device, or the recording is being stopped on another thread */
RECVAULT_API int32_t KELM_AviFile_RecStart(uint32_t nChannel, int32_t nRecType, int32_t nDevIdx);

/* Stops recording on a channel. Returns when all its files are finished. A channel that does not record is no failure.
 *   KELM_AVIFILE_BAD_ARGUMENT  channel above 1023
 *   KELM_AVIFILE_BAD_HANDLE    nDevIdx not in 1 to 255
 *   KELM_AVIFILE_FAILED        no such device */
RECVAULT_API int32_t KELM_AviFile_RecStop(uint32_t nChannel, int32_t nDevIdx);

/* Delivers one video frame, or one or several audio frames, of a channel. Does not wait for the disk: the data are copied
 * into the channel's ring. A key frame may close a file and open the next one on this call.
 *   pHead      the frame's head; nHeadLen is 36. Its time is replaced by dwSec and dwUsec
 *   pData      dwDataLen bytes, at most 0x100000: the frame. For several audio frames the data of the first, then for each
 *              further one its FrameHead and its data; all have the length of the first, and each is timed 40 ms after the
 *              one before it
 * The result 0 also covers a frame that was dropped: before the first key frame, after a lost one, with a full ring, of an
 * unknown type, or with a head that does not fit its data. The log tells.
 *   KELM_AVIFILE_BAD_ARGUMENT  channel above 1023, a null pointer, nHeadLen not 36, or dwDataLen too large
 *   KELM_AVIFILE_BAD_HANDLE    nDevIdx not in 1 to 255
 *   KELM_AVIFILE_NOT_RUNNING   the channel does not record
 *   KELM_AVIFILE_FAILED        no such device */
RECVAULT_API int32_t KELM_AviFile_DataInput(uint32_t nChannel, const FrameHead *pHead, int32_t nHeadLen, const void *pData,
                                            uint32_t dwDataLen, uint32_t dwSec, uint32_t dwUsec, int32_t nDevIdx);

/* ---- Playback ---- */

/* Creates a playback of one device and stores its handle, 1 to 32, in *pHandle.
 *   nChannel  its first and leading channel, or KELM_AVIFILE_ALL_CHANNELS to begin with none
 *   begin     first second
 *   end       last second, at most 86400 behind begin; 0 for no end, which makes nMode 1
 *   nMode     1: follow a recording that is still being written; else treat every file as finished
 *   dwUser    handed back in each callback
 *   bSync     not 0: keep the channels together within 2 seconds; 0: each as fast as it goes
 * A record type has to be added before the start.
 *   KELM_AVIFILE_BAD_ARGUMENT  pHandle or callback null, channel, or range out of bounds
 *   KELM_AVIFILE_BAD_HANDLE    nDevIdx not in 1 to 255
 *   KELM_AVIFILE_NO_SLOT       32 playbacks exist
 *   KELM_AVIFILE_NO_MEMORY, KELM_AVIFILE_FAILED */
RECVAULT_API int32_t KELM_AviFile_DataPopCreate(uint32_t *pHandle, uint32_t nChannel, int64_t begin, int64_t end,
                                                DataPopCallback callback, int32_t nMode, uint32_t dwUser, int32_t nDevIdx,
                                                uint32_t bSync);

/* Ends a playback. Returns when no callback of it runs any more.
 *   KELM_AVIFILE_BAD_HANDLE   handle not in 1 to 32
 *   KELM_AVIFILE_NOT_RUNNING  handle not in use */
RECVAULT_API int32_t KELM_AviFile_DataPopRelease(uint32_t handle);

/* Adds a channel, up to 16, or takes one out. Not while the playback runs.
 *   KELM_AVIFILE_BAD_ARGUMENT     channel above 1023
 *   KELM_AVIFILE_BAD_HANDLE, KELM_AVIFILE_NOT_RUNNING  as above
 *   KELM_AVIFILE_ALREADY_RUNNING  the playback runs, or the channel is in it already
 *   KELM_AVIFILE_FAILED           16 channels are in it; the channel to take out is not in it, or was not started */
RECVAULT_API int32_t KELM_AviFile_DataPopChanAdd(uint32_t handle, uint32_t nChannel);
RECVAULT_API int32_t KELM_AviFile_DataPopChanDel(uint32_t handle, uint32_t nChannel);

/* Adds a record type, 1 to 8, to those that are played, or takes it out.
 *   KELM_AVIFILE_BAD_ARGUMENT  nRecType not in 1 to 8
 *   KELM_AVIFILE_BAD_HANDLE, KELM_AVIFILE_NOT_RUNNING  as above */
RECVAULT_API int32_t KELM_AviFile_DataPopRecTypeAdd(uint32_t handle, uint32_t nRecType);
RECVAULT_API int32_t KELM_AviFile_DataPopRecTypeDel(uint32_t handle, uint32_t nRecType);

/* Starts a playback, or goes on with one that was stopped. A channel without data falls out at the first start.
 *   KELM_AVIFILE_BAD_HANDLE, KELM_AVIFILE_NOT_RUNNING  as above
 *   KELM_AVIFILE_ALREADY_RUNNING  it runs
 *   KELM_AVIFILE_FAILED           no record type was added, or no channel has data */
RECVAULT_API int32_t KELM_AviFile_DataPopStart(uint32_t handle);

/* Pauses a playback where it stands: no frame goes out before the next start, but for one of each channel whose callback is
 * already on its way. A playback that does not run is no failure.
 *   KELM_AVIFILE_BAD_HANDLE  handle not in 1 to 32 */
RECVAULT_API int32_t KELM_AviFile_DataPopStop(uint32_t handle);

/* Moves a playback to a time, given in seconds; returns at once. Nothing from before the move goes out any more, but for one
 * frame of each channel whose callback is already on its way. The first key frames come from within 2 seconds of the time,
 * or from the first recording behind it; a playback that follows goes to the live end at most. While it does not run, the
 * next start carries the move out.
 *   KELM_AVIFILE_BAD_HANDLE, KELM_AVIFILE_NOT_RUNNING  as above */
RECVAULT_API int32_t KELM_AviFile_DataPopTimeSeek(uint32_t handle, int64_t time);

/* Chooses between all frames (bKeyOnly 0) and key frames alone, passing over nKeySkip of them, 0 to 3, before each one.
 *   KELM_AVIFILE_BAD_ARGUMENT  nKeySkip above 3
 *   KELM_AVIFILE_BAD_HANDLE, KELM_AVIFILE_NOT_RUNNING  as above */
RECVAULT_API int32_t KELM_AviFile_DataPopSetKeyFrame(uint32_t handle, uint32_t bKeyOnly, uint32_t nKeySkip);

/* Estimates the bytes of the playback's range, by whole key-frame intervals.
 *   KELM_AVIFILE_FAILED  size is null
 *   KELM_AVIFILE_BAD_HANDLE, KELM_AVIFILE_NOT_RUNNING  as above */
RECVAULT_API int32_t KELM_AviFile_DataPopGetDataSize(uint32_t handle, uint64_t *size);

/* Direction: 0 forward; any other value stops the flow of frames until 0 is given again, for there is no backward reading.
 *   KELM_AVIFILE_BAD_HANDLE, KELM_AVIFILE_NOT_RUNNING  as above */
RECVAULT_API int32_t KELM_AviFile_DataPopSetDirect(uint32_t handle, uint32_t nDirect);

/* ---- What was recorded ---- */

/* Lists what was recorded on a channel from begin to end, at most 86400 seconds, with record type nRecType. *head receives
 * the list, null for nothing recorded, and *count its length. Release the list with KELM_AviFile_ReleaseRecSegList.
 *   KELM_AVIFILE_BAD_ARGUMENT  channel, type or range out of bounds, or a pointer is null
 *   KELM_AVIFILE_BAD_HANDLE    nDevIdx not in 1 to 255
 *   KELM_AVIFILE_NO_MEMORY, KELM_AVIFILE_FAILED */
RECVAULT_API int32_t KELM_AviFile_GetRecSegList(uint32_t nChannel, int64_t begin, int64_t end, int32_t nRecType,
                                                RecSegNode **head, int32_t *count, int32_t nDevIdx);

/* Frees a list of KELM_AviFile_GetRecSegList.
 *   KELM_AVIFILE_BAD_ARGUMENT  head is null */
RECVAULT_API int32_t KELM_AviFile_ReleaseRecSegList(RecSegNode *head);

/* Tells which of nDays days, at most 31 from the day that holds firstDay, have recordings of a device: bit n of *dayMask is
 * day n.
 *   KELM_AVIFILE_BAD_ARGUMENT  more than 31 days, or dayMask is null
 *   KELM_AVIFILE_BAD_HANDLE    nDevIdx not in 1 to 255
 *   KELM_AVIFILE_FAILED        no such device */
RECVAULT_API int32_t KELM_AviFile_JudgeIFHaveDataByDays(int64_t firstDay, uint32_t nDays, uint32_t *dayMask,
                                                        int32_t nDevIdx);

/* Starts a walk over the finished record files of a device, oldest first: of one channel or KELM_AVIFILE_ALL_CHANNELS, of
 * the day that holds the time `day` or, with -1, of all days. Stores a handle in *pHandle; at most 8 walks at a time.
 *   KELM_AVIFILE_BAD_ARGUMENT  pHandle is null, or channel out of bounds
 *   KELM_AVIFILE_BAD_HANDLE    nDevIdx not in 1 to 255
 *   KELM_AVIFILE_NO_SLOT       8 walks are under way
 *   KELM_AVIFILE_NOT_FOUND     all days are asked for and there is none
 *   KELM_AVIFILE_FAILED        no such device */
RECVAULT_API int32_t KELM_AviFile_QueryRecFilesStart(uint32_t *pHandle, uint32_t nChannel, int64_t day, int32_t nDevIdx);

/* Gives the next file of a walk.
 *   KELM_AVIFILE_BAD_ARGUMENT  info is null
 *   KELM_AVIFILE_BAD_HANDLE    handle not in 1 to 256
 *   KELM_AVIFILE_NOT_RUNNING   handle not in use
 *   KELM_AVIFILE_NOT_FOUND     there is no further file */
RECVAULT_API int32_t KELM_AviFile_GetNextRecFile(uint32_t handle, RecFileInfo *info);

/* Ends a walk.
 *   KELM_AVIFILE_BAD_HANDLE  handle not in 1 to 8 */
RECVAULT_API int32_t KELM_AviFile_QueryRecFilesStop(uint32_t handle);

/* Deletes finished record files, chosen as in KELM_AviFile_QueryRecFilesStart. A file that cannot be deleted is told on the
 * log and passed over.
 *   The codes of KELM_AviFile_QueryRecFilesStart */
RECVAULT_API int32_t KELM_AviFile_DelAviFiles(uint32_t nChannel, int64_t day, int32_t nDevIdx);

/* Deletes one record file of a partition in use, by its full path with forward slashes.
 *   KELM_AVIFILE_BAD_ARGUMENT  path is null or shorter than 4 characters
 *   KELM_AVIFILE_NO_FILE       the name does not end in ".avi", or there is no such file
 *   KELM_AVIFILE_FAILED        the file lies on no partition in use, is being recorded, or could not be deleted */
RECVAULT_API int32_t KELM_AviFile_DelAviFileByName(const char *path);

/* ---- Save-as export ---- */

/* Starts an export and stores its handle, 1 to 32, in *pHandle. A path that does not end in ".avi" is a folder: it is
 * created, and files named by time are made in it, switched at a new size, codec, hour or GiB. A path that ends in ".avi" is
 * the one file that is written. KELM_AviFile_SaveStart_ByName takes the path as that one file whatever it ends in. A file is
 * opened by the first key frame, and replaces one of the same name.
 *   KELM_AVIFILE_BAD_ARGUMENT  a pointer is null, the path is empty or longer than 255 characters, or the folder cannot be
 *                              created
 *   KELM_AVIFILE_NO_SLOT       32 exports are under way
 *   KELM_AVIFILE_NO_MEMORY */
RECVAULT_API int32_t KELM_AviFile_SaveStart(uint32_t *pHandle, const char *path);
RECVAULT_API int32_t KELM_AviFile_SaveStart_ByName(uint32_t *pHandle, const char *path);

/* Writes a frame, or several audio frames, as in KELM_AviFile_DataInput, but with the times of their own heads, and waits
 * for the disk. A frame that cannot be written is lost and told on the log.
 *   KELM_AVIFILE_BAD_ARGUMENT  a null pointer, nHeadLen not 36, or dwDataLen above 0x100000
 *   KELM_AVIFILE_BAD_HANDLE    handle not in 1 to 32
 *   KELM_AVIFILE_NOT_RUNNING   handle not in use */
RECVAULT_API int32_t KELM_AviFile_SaveInput(uint32_t handle, const FrameHead *pHead, int32_t nHeadLen, const void *pData,
                                            uint32_t dwDataLen);

/* Ends an export and finishes its file.
 *   KELM_AVIFILE_BAD_HANDLE   handle not in 1 to 32
 *   KELM_AVIFILE_NOT_RUNNING  handle not in use */
RECVAULT_API int32_t KELM_AviFile_SaveStop(uint32_t handle);

#ifdef __cplusplus
}
#endif

#endif /* RECVAULT_RECVAULT_H */
