/* Names every function from an installed copy, so that one which is missing fails the build. Compiled as C11 and C++20. */
#include <assert.h>
#include <recvault/recvault.h>

static_assert(sizeof(FrameHead) == KELM_AVIFILE_FRAME_HEAD_BYTES, "FrameHead is packed");
static_assert(sizeof(RecPartitionInfo) == 64, "RecPartitionInfo has its natural alignment");
static_assert(sizeof(RecFileInfo) == 272, "RecFileInfo has no gaps");

typedef void (*Function)(void);

static const Function functions[] = {(Function)KELM_AviFile_Init,
                                     (Function)KELM_AviFile_UnInit,
                                     (Function)KELM_AviFile_AddRecPartition,
                                     (Function)KELM_AviFile_DelRecPartition,
                                     (Function)KELM_AviFile_GetRecUsedSpace,
                                     (Function)KELM_AviFile_SetDiskGroupFullCallback,
                                     (Function)KELM_AviFile_CreateDevHandle,
                                     (Function)KELM_AviFile_ReleaseDevHandle,
                                     (Function)KELM_AviFile_RecStart,
                                     (Function)KELM_AviFile_RecStop,
                                     (Function)KELM_AviFile_DataInput,
                                     (Function)KELM_AviFile_DataPopCreate,
                                     (Function)KELM_AviFile_DataPopRelease,
                                     (Function)KELM_AviFile_DataPopChanAdd,
                                     (Function)KELM_AviFile_DataPopChanDel,
                                     (Function)KELM_AviFile_DataPopRecTypeAdd,
                                     (Function)KELM_AviFile_DataPopRecTypeDel,
                                     (Function)KELM_AviFile_DataPopStart,
                                     (Function)KELM_AviFile_DataPopStop,
                                     (Function)KELM_AviFile_DataPopTimeSeek,
                                     (Function)KELM_AviFile_DataPopSetKeyFrame,
                                     (Function)KELM_AviFile_DataPopGetDataSize,
                                     (Function)KELM_AviFile_DataPopSetDirect,
                                     (Function)KELM_AviFile_GetRecSegList,
                                     (Function)KELM_AviFile_ReleaseRecSegList,
                                     (Function)KELM_AviFile_JudgeIFHaveDataByDays,
                                     (Function)KELM_AviFile_QueryRecFilesStart,
                                     (Function)KELM_AviFile_GetNextRecFile,
                                     (Function)KELM_AviFile_QueryRecFilesStop,
                                     (Function)KELM_AviFile_DelAviFiles,
                                     (Function)KELM_AviFile_DelAviFileByName,
                                     (Function)KELM_AviFile_SaveStart,
                                     (Function)KELM_AviFile_SaveStart_ByName,
                                     (Function)KELM_AviFile_SaveInput,
                                     (Function)KELM_AviFile_SaveStop};

int main(void) {
    uint32_t missing = sizeof(functions) / sizeof(functions[0]) != 35;
    for (uint32_t n = 0; n < 35; ++n) missing += functions[n] == 0;
    return missing != 0 || KELM_AviFile_Init(0) != 0 || KELM_AviFile_UnInit(0) != 0;
}
