/* Plays channels of a device in step and tells how many frames came and how far apart the channels were. Usage: play STORE
 * DEVICE FROM TO CHANNEL..., times as in 2030-01-31T12:00:00, at most a day apart. */
#include <recvault/recvault.h>
#include <stdio.h>
#include <stdlib.h>
#include <threads.h>

enum { max_played = 16 };

static struct {
    unsigned frames, key_frames;
    int ended;
} channels[KELM_AVIFILE_MAX_CHANNELS];
static int64_t newest, largest_lag; /* of all channels: time of the newest frame, and seconds that one came behind it */
static int playing;                 /* channels that have not ended */
static mtx_t lock;                  /* each channel calls on a thread of its own */
static cnd_t all_ended;

static int32_t on_frame(int32_t pop, int32_t channel, int32_t key, int32_t type, int64_t time, const void *frame,
                        int32_t length, int32_t event, uintptr_t user) {
    (void)pop, (void)type, (void)frame, (void)length, (void)user;
    mtx_lock(&lock);
    if (event == POP_EVENT_FRAME) {
        channels[channel].frames++;
        channels[channel].key_frames += key != 0;
        newest = time > newest ? time : newest;
        largest_lag = newest - time > largest_lag ? newest - time : largest_lag;
        /* A player decodes here: a FrameHead, and behind it the data. */
    } else if (event == POP_EVENT_END && !channels[channel].ended) { /* the end is told again and again */
        channels[channel].ended = 1;
        if (--playing == 0) cnd_signal(&all_ended);
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

/* A channel without recordings would fall out of the playback and tell no end, so it is left out. */
static int has_recordings(uint32_t channel, int64_t begin, int64_t end, int32_t device) {
    RecSegNode *segments = NULL;
    int32_t count = 0;
    if (KELM_AviFile_GetRecSegList(channel, begin, end, 8, &segments, &count, device) != 0 || segments == NULL) return 0;
    return KELM_AviFile_ReleaseRecSegList(segments) == 0;
}

static int play(int count, char **numbers, int64_t begin, int64_t end, int32_t device) {
    uint32_t pop;
    int result = KELM_AviFile_DataPopCreate(&pop, KELM_AVIFILE_ALL_CHANNELS, begin, end, on_frame, 0, 0, device, 1);
    if (result != 0) return result;
    result = KELM_AviFile_DataPopRecTypeAdd(pop, 8);
    for (int i = 0; i < count && result == 0; ++i) {
        uint32_t channel = (uint32_t)strtoul(numbers[i], NULL, 10);
        if (has_recordings(channel, begin, end, device) && (result = KELM_AviFile_DataPopChanAdd(pop, channel)) == 0)
            ++playing;
    }
    if (result == 0) result = playing > 0 ? KELM_AviFile_DataPopStart(pop) : KELM_AVIFILE_NOT_FOUND;
    mtx_lock(&lock);
    while (result == 0 && playing > 0) cnd_wait(&all_ended, &lock);
    mtx_unlock(&lock);
    KELM_AviFile_DataPopRelease(pop); /* no call is under way when it returns */
    for (int i = 0; i < KELM_AVIFILE_MAX_CHANNELS; ++i)
        if (channels[i].frames > 0)
            printf("channel %d: %u frames, %u of them key frames\n", i, channels[i].frames, channels[i].key_frames);
    printf("largest distance between frames of different channels: %d s\n", (int)largest_lag);
    return result;
}

int main(int argc, char **argv) {
    int32_t device;
    int64_t begin = argc > 5 && argc <= 5 + max_played ? parse_time(argv[3]) : -1;
    if (begin < 0 || parse_time(argv[4]) <= begin) {
        fprintf(stderr, "usage: play STORE DEVICE FROM TO CHANNEL..., times as in 2030-01-31T12:00:00\n");
        return 2;
    }
    if (mtx_init(&lock, mtx_plain) != thrd_success || cnd_init(&all_ended) != thrd_success || KELM_AviFile_Init(0) != 0)
        return 1; /* the log, on standard error, tells why */
    int result = open_store(argv[1]);
    if (result == 0) result = KELM_AviFile_CreateDevHandle(&device, argv[2]);
    if (result == 0) result = play(argc - 5, argv + 5, begin, parse_time(argv[4]), device);
    if (result != 0) fprintf(stderr, "play: result %d\n", result);
    return KELM_AviFile_UnInit(0) != 0 || result != 0;
}
