/* Records a Motion JPEG file as a camera would deliver it, 25 pictures a second. Usage: record STORE FILE, where STORE is an
 * absolute path of at most 31 characters. */
#include <recvault/recvault.h>
#include <stdio.h>
#include <threads.h>
#include <time.h>

/* Pictures begin with FF D8. */
static size_t next_picture(const unsigned char *data, size_t size, size_t at) {
    for (at += 2; at + 1 < size && (data[at] != 0xFF || data[at + 1] != 0xD8); ++at) {
    }
    return at + 1 < size ? at : size;
}

int main(int argc, char **argv) {
    static unsigned char data[16 << 20];
    FILE *file = argc == 3 ? fopen(argv[2], "rb") : NULL;
    size_t size = file ? fread(data, 1, sizeof data, file) : 0;
    RecPartitionInfo store = {.priority = 1, .rec_space = 4ull << 30, .disk_space = 4ull << 30};
    FrameHead head = {.uiStartId = KELM_AVIFILE_FRAME_START_ID, .width = 480, .height = 270, .codec_id = 2};
    uint32_t begin = 1893456000; /* 2030-01-01 00:00:00 by the local clock */
    int32_t device;

    if (size == 0 || snprintf(store.path, sizeof store.path, "%s", argv[1]) >= (int)sizeof store.path ||
        KELM_AviFile_Init(0) != 0 || KELM_AviFile_AddRecPartition(&store) != 0 ||
        KELM_AviFile_CreateDevHandle(&device, "camera") != 0 || KELM_AviFile_RecStart(0, 1, device) != 0)
        return 1; /* the log, on standard error, tells why */
    for (size_t at = 0, next; at < size; at = next, ++head.frame_no) {
        next = next_picture(data, size, at);
        head.type = head.frame_no % 25 == 0 ? 1 : 9; /* one key frame a second */
        head.length = (uint32_t)(next - at);
        if (KELM_AviFile_DataInput(0, &head, sizeof head, data + at, head.length, begin + head.frame_no / 25,
                                   head.frame_no % 25 * 40000, device) != 0)
            return 1;
        thrd_sleep(&(struct timespec){.tv_nsec = 40000000}, NULL);
    }
    return KELM_AviFile_RecStop(0, device) != 0 || KELM_AviFile_UnInit(0) != 0;
}
