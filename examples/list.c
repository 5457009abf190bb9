/* Lists what was recorded on a channel on one day. Usage: list STORE DEVICE CHANNEL DAY, with DAY as in 2030-01-31. STORE is
 * an absolute path of at most 31 characters that no other process records to. */
#include <recvault/recvault.h>
#include <stdio.h>
#include <stdlib.h>

/* The library's times: seconds since 1970 as a clock on the wall shows them. -1 for no day. */
static int64_t parse_day(const char *text) {
    int year, month, day;
    if (sscanf(text, "%4d-%2d-%2d", &year, &month, &day) != 3 || month < 1 || month > 12) return -1;
    int64_t y = month > 2 ? year : year - 1, m = month > 2 ? month - 3 : month + 9; /* a year from March to February */
    return (y * 365 + y / 4 - y / 100 + y / 400 + (153 * m + 2) / 5 + day - 719469) * 86400;
}

static void print_clock(int64_t time) {
    printf("%02d:%02d:%02d  ", (int)(time / 3600 % 24), (int)(time / 60 % 60), (int)(time % 60));
}

/* Priority 0 and no recycling: nothing is recorded here, and nothing deleted. Files that a crash cut are repaired. */
static int open_store(const char *path) {
    RecPartitionInfo store = {.rec_space = 1ull << 40, .disk_space = 1ull << 40, .max_save_hour = UINT32_MAX};
    if (snprintf(store.path, sizeof store.path, "%s", path) >= (int)sizeof store.path) return KELM_AVIFILE_BAD_ARGUMENT;
    return KELM_AviFile_AddRecPartition(&store);
}

static int list(uint32_t channel, int64_t day, int32_t device) {
    RecSegNode *segments = NULL;
    int32_t count = 0;
    int result = KELM_AviFile_GetRecSegList(channel, day, day + 86399, 8, &segments, &count, device);
    if (result != 0) return result;
    for (const RecSegNode *segment = segments; segment != NULL; segment = segment->next) {
        print_clock(segment->begin_sec);
        print_clock(segment->end_sec);
        printf("%u\n", (unsigned)segment->type);
    }
    return segments == NULL ? 0 : KELM_AviFile_ReleaseRecSegList(segments);
}

int main(int argc, char **argv) {
    int32_t device;
    int64_t day = argc == 5 ? parse_day(argv[4]) : -1;
    if (day < 0) {
        fprintf(stderr, "usage: list STORE DEVICE CHANNEL YYYY-MM-DD\n");
        return 2;
    }
    if (KELM_AviFile_Init(0) != 0) return 1; /* the log, on standard error, tells why */
    int result = open_store(argv[1]);
    if (result == 0) result = KELM_AviFile_CreateDevHandle(&device, argv[2]);
    if (result == 0) result = list((uint32_t)strtoul(argv[3], NULL, 10), day, device);
    if (result != 0) fprintf(stderr, "list: result %d\n", result);
    return KELM_AviFile_UnInit(0) != 0 || result != 0;
}
