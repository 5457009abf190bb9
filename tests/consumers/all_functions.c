/* Calls every function of the library from an installed copy, before KELM_AviFile_Init and around it. Compiled as C11 and
 * as C++20. Ends with 0 when each answers as the header says. */
#include <assert.h>
#include <recvault/recvault.h>
#include <stdio.h>
#include <string.h>

static_assert(sizeof(FrameHead) == KELM_AVIFILE_FRAME_HEAD_BYTES, "FrameHead is packed");
static_assert(sizeof(RecPartitionInfo) == 64, "RecPartitionInfo has its natural alignment");
static_assert(sizeof(RecFileInfo) == 272, "RecFileInfo has no gaps");

static int calls;
static int failures;

static void expect(const char *call, int32_t wanted, int32_t got) {
    ++calls;
    if (got == wanted) return;
    ++failures;
    printf("%s gave %ld, not %ld\n", call, (long)got, (long)wanted);
}

#define EXPECT(wanted, call) expect(#call, wanted, call)
#define EXPECT_REFUSED(call) EXPECT(KELM_AVIFILE_NOT_INITIALIZED, call)

static int32_t on_frame(int32_t pop_index, int32_t channel, int32_t key_flag, int32_t frame_type, int64_t time,
                        const void *frame, int32_t length, int32_t event, uintptr_t user) {
    return pop_index + channel + key_flag + frame_type + (time != 0) + (frame != 0) + length + event + (user != 0);
}

static int32_t on_full(void *user) { return user != 0; }

static void record_refused(void) {
    RecPartitionInfo partition;
    FrameHead head;
    uint64_t used = 77;
    int32_t device = 77;
    memset(&partition, 0, sizeof(partition));
    memset(&head, 0, sizeof(head));

    EXPECT_REFUSED(KELM_AviFile_AddRecPartition(&partition));
    EXPECT_REFUSED(KELM_AviFile_DelRecPartition("/srv/video"));
    EXPECT_REFUSED(KELM_AviFile_GetRecUsedSpace("/srv/video", &used));
    EXPECT_REFUSED(KELM_AviFile_SetDiskGroupFullCallback(on_full, 0));
    EXPECT_REFUSED(KELM_AviFile_CreateDevHandle(&device, "camera"));
    EXPECT_REFUSED(KELM_AviFile_ReleaseDevHandle(1));
    EXPECT_REFUSED(KELM_AviFile_RecStart(0, 1, 1));
    EXPECT_REFUSED(KELM_AviFile_RecStop(0, 1));
    EXPECT_REFUSED(KELM_AviFile_DataInput(0, &head, KELM_AVIFILE_FRAME_HEAD_BYTES, "data", 4, 1, 0, 1));
    EXPECT(77, (int32_t)used);
    EXPECT(77, device);
}

static void playback_refused(void) {
    uint32_t handle = 77;
    uint64_t size = 77;

    EXPECT_REFUSED(KELM_AviFile_DataPopCreate(&handle, 0, 1, 2, on_frame, 0, 0, 1, 0));
    EXPECT_REFUSED(KELM_AviFile_DataPopRelease(1));
    EXPECT_REFUSED(KELM_AviFile_DataPopChanAdd(1, 0));
    EXPECT_REFUSED(KELM_AviFile_DataPopChanDel(1, 0));
    EXPECT_REFUSED(KELM_AviFile_DataPopRecTypeAdd(1, 8));
    EXPECT_REFUSED(KELM_AviFile_DataPopRecTypeDel(1, 8));
    EXPECT_REFUSED(KELM_AviFile_DataPopStart(1));
    EXPECT_REFUSED(KELM_AviFile_DataPopStop(1));
    EXPECT_REFUSED(KELM_AviFile_DataPopTimeSeek(1, 1));
    EXPECT_REFUSED(KELM_AviFile_DataPopSetKeyFrame(1, 1, 0));
    EXPECT_REFUSED(KELM_AviFile_DataPopGetDataSize(1, &size));
    EXPECT_REFUSED(KELM_AviFile_DataPopSetDirect(1, 0));
    EXPECT(77, (int32_t)handle);
    EXPECT(77, (int32_t)size);
}

static void query_refused(void) {
    RecSegNode node;
    RecSegNode *list = &node;
    RecFileInfo file;
    int32_t count = 77;
    uint32_t days = 77;
    uint32_t handle = 77;

    EXPECT_REFUSED(KELM_AviFile_GetRecSegList(0, 1, 2, 8, &list, &count, 1));
    EXPECT_REFUSED(KELM_AviFile_ReleaseRecSegList(list));
    EXPECT_REFUSED(KELM_AviFile_JudgeIFHaveDataByDays(0, 31, &days, 1));
    EXPECT_REFUSED(KELM_AviFile_QueryRecFilesStart(&handle, 0, -1, 1));
    EXPECT_REFUSED(KELM_AviFile_GetNextRecFile(1, &file));
    EXPECT_REFUSED(KELM_AviFile_QueryRecFilesStop(1));
    EXPECT_REFUSED(KELM_AviFile_DelAviFiles(0, -1, 1));
    EXPECT_REFUSED(KELM_AviFile_DelAviFileByName("/srv/video/file.avi"));
    EXPECT(1, list == &node);
    EXPECT(77, count);
    EXPECT(77, (int32_t)days);
    EXPECT(77, (int32_t)handle);
}

static void save_refused(void) {
    FrameHead head;
    uint32_t handle = 77;
    memset(&head, 0, sizeof(head));

    EXPECT_REFUSED(KELM_AviFile_SaveStart(&handle, "/srv/export"));
    EXPECT_REFUSED(KELM_AviFile_SaveStart_ByName(&handle, "/srv/export.avi"));
    EXPECT_REFUSED(KELM_AviFile_SaveInput(1, &head, KELM_AVIFILE_FRAME_HEAD_BYTES, "data", 4));
    EXPECT_REFUSED(KELM_AviFile_SaveStop(1));
    EXPECT(77, (int32_t)handle);
}

static void all_refused(void) {
    EXPECT_REFUSED(KELM_AviFile_UnInit(0));
    record_refused();
    playback_refused();
    query_refused();
    save_refused();
}

int main(void) {
    all_refused();
    EXPECT(KELM_AVIFILE_OK, KELM_AviFile_Init(0));
    EXPECT(KELM_AVIFILE_ALREADY_RUNNING, KELM_AviFile_Init(0));
    EXPECT(KELM_AVIFILE_OK, KELM_AviFile_UnInit(0));
    all_refused();
    printf("%d checks, %d failed\n", calls, failures);
    return failures != 0;
}
