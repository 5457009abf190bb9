/* Copies a stretch of a channel into an AVI file of its own. Usage: export STORE DEVICE CHANNEL FROM TO FILE, times as in
 * 2030-01-31T12:00:00, at most a day apart. A file of that name is replaced. */
#include <recvault/recvault.h>
#include <stdio.h>
#include <stdlib.h>
#include <threads.h>

static uint32_t save; /* handle of the export */
static int save_result, ended;
static unsigned frames;
static mtx_t lock;
static cnd_t end_reached;

/* Runs on the one thread of the one channel. The wait for the disk slows the playback and nothing else. */
static int32_t on_frame(int32_t pop, int32_t channel, int32_t key, int32_t type, int64_t time, const void *frame,
                        int32_t length, int32_t event, uintptr_t user) {
    (void)pop, (void)channel, (void)key, (void)type, (void)time, (void)user;
    const FrameHead *head = frame;
    mtx_lock(&lock);
    if (event == POP_EVENT_FRAME && save_result == 0) {
        save_result = KELM_AviFile_SaveInput(save, head, sizeof *head, head + 1, (uint32_t)(length - (int32_t)sizeof *head));
        ++frames;
    }
    if (event == POP_EVENT_END || save_result != 0) {
        ended = 1;
        cnd_signal(&end_reached);
    }
    mtx_unlock(&lock);
    return 0;
}

/* Seconds since 1970 as a clock on the wall shows them, -1 for no time. */
static int64_t parse_time(const char *text) {
    int year, month, day, hour, minute, second;
    if (sscanf(text, "%4d-%2d-%2dT%2d:%2d:%2d", &year, &month, &day, &hour, &minute, &second) != 6 || month < 1 ||
        month > 12)
        return -1;
    int64_t y = month > 2 ? year : year - 1, m = month > 2 ? month - 3 : month + 9; /* a year from March to February */
    int64_t days = y * 365 + y / 4 - y / 100 + y / 400 + (153 * m + 2) / 5 + day - 719469;
    return days * 86400 + hour * 3600 + minute * 60 + second;
}

/* Priority 0 and no recycling: nothing is recorded here, and nothing deleted. */
static int open_store(const char *path) {
    RecPartitionInfo store = {.rec_space = 1ull << 40, .disk_space = 1ull << 40, .max_save_hour = UINT32_MAX};
    if (snprintf(store.path, sizeof store.path, "%s", path) >= (int)sizeof store.path) return KELM_AVIFILE_BAD_ARGUMENT;
    return KELM_AviFile_AddRecPartition(&store);
}

static int play_into_export(uint32_t channel, int64_t begin, int64_t end, int32_t device) {
    uint32_t pop;
    int result = KELM_AviFile_DataPopCreate(&pop, channel, begin, end, on_frame, 0, 0, device, 0);
    if (result != 0) return result;
    result = KELM_AviFile_DataPopRecTypeAdd(pop, 8); /* of all types */
    if (result == 0) result = KELM_AviFile_DataPopStart(pop);
    mtx_lock(&lock);
    while (result == 0 && !ended) cnd_wait(&end_reached, &lock);
    mtx_unlock(&lock);
    KELM_AviFile_DataPopRelease(pop); /* no call is under way when it returns */
    return result != 0 ? result : save_result != 0 ? save_result : frames == 0 ? KELM_AVIFILE_NOT_FOUND : 0;
}

static int export_range(uint32_t channel, int64_t begin, int64_t end, int32_t device, const char *path) {
    int result = KELM_AviFile_SaveStart_ByName(&save, path);
    if (result != 0) return result;
    result = play_into_export(channel, begin, end, device);
    int stopped = KELM_AviFile_SaveStop(save); /* finishes the file */
    return result != 0 ? result : stopped;
}

int main(int argc, char **argv) {
    int32_t device;
    int64_t begin = argc == 7 ? parse_time(argv[4]) : -1;
    if (begin < 0 || parse_time(argv[5]) <= begin) {
        fprintf(stderr, "usage: export STORE DEVICE CHANNEL FROM TO FILE, times as in 2030-01-31T12:00:00\n");
        return 2;
    }
    if (mtx_init(&lock, mtx_plain) != thrd_success || cnd_init(&end_reached) != thrd_success || KELM_AviFile_Init(0) != 0)
        return 1; /* the log, on standard error, tells why */
    int result = open_store(argv[1]);
    if (result == 0) result = KELM_AviFile_CreateDevHandle(&device, argv[2]);
    if (result == 0)
        result = export_range((uint32_t)strtoul(argv[3], NULL, 10), begin, parse_time(argv[5]), device, argv[6]);
    if (result != 0) fprintf(stderr, "export: result %d\n", result);
    return KELM_AviFile_UnInit(0) != 0 || result != 0;
}
