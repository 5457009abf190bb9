/* Draws what was recorded on channels of a device, a line a channel: a digit for the record type, a dot where nothing was
 * recorded, a dash where a part of the time was. Usage: timeline STORE DEVICE FROM TO CHANNEL..., times as in
 * 2030-01-31T12:00:00, 96 seconds to a day apart. */
#include <recvault/recvault.h>
#include <stdio.h>
#include <stdlib.h>

enum { columns = 96, columns_per_label = 16 };

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

/* The first second of a column; that of column `columns` is the end of the drawing. */
static int64_t column_begin(int column, int64_t begin, int64_t end) { return begin + (end - begin) * column / columns; }

static void draw_clock(int64_t begin, int64_t end) {
    printf("%-10s  ", "channel");
    for (int column = 0; column < columns; column += columns_per_label) {
        int64_t time = column_begin(column, begin, end);
        printf("%02d:%02d:%02d%*s", (int)(time / 3600 % 24), (int)(time / 60 % 60), (int)(time % 60),
               column + columns_per_label < columns ? columns_per_label - 8 : 0, "");
    }
    printf("\n");
}

/* What stands for the time from begin to the second before end. */
static char symbol(const RecSegNode *segments, int64_t begin, int64_t end) {
    int64_t recorded = begin, longest = 0; /* the list is in ascending order: all up to `recorded` is looked at */
    int whole = 1;
    char type = '.';
    for (const RecSegNode *segment = segments; segment != NULL; segment = segment->next) {
        int64_t from = segment->begin_sec > recorded ? segment->begin_sec : recorded;
        int64_t to = segment->end_sec < end ? segment->end_sec + 1 : end;
        if (from >= to) continue;
        whole = whole && from == recorded;
        recorded = to;
        if (to - from > longest) {
            longest = to - from;
            type = (char)('0' + segment->type);
        }
    }
    return longest > 0 && (!whole || recorded < end) ? '-' : type;
}

static int draw(uint32_t channel, int64_t begin, int64_t end, int32_t device) {
    RecSegNode *segments = NULL;
    int32_t count = 0;
    int result = KELM_AviFile_GetRecSegList(channel, begin, end - 1, 8, &segments, &count, device);
    if (result != 0) return result;
    printf("%-10u  ", (unsigned)channel);
    for (int column = 0; column < columns; ++column)
        putchar(symbol(segments, column_begin(column, begin, end), column_begin(column + 1, begin, end)));
    printf("\n");
    return segments == NULL ? 0 : KELM_AviFile_ReleaseRecSegList(segments);
}

int main(int argc, char **argv) {
    int32_t device;
    int64_t begin = argc > 5 ? parse_time(argv[3]) : -1, end = begin < 0 ? -1 : parse_time(argv[4]);
    if (begin < 0 || end < begin + columns) {
        fprintf(stderr, "usage: timeline STORE DEVICE FROM TO CHANNEL..., times as in 2030-01-31T12:00:00\n");
        return 2;
    }
    if (KELM_AviFile_Init(0) != 0) return 1; /* the log, on standard error, tells why */
    int result = open_store(argv[1]);
    if (result == 0) result = KELM_AviFile_CreateDevHandle(&device, argv[2]);
    if (result == 0) draw_clock(begin, end);
    for (int i = 5; i < argc && result == 0; ++i) result = draw((uint32_t)strtoul(argv[i], NULL, 10), begin, end, device);
    if (result != 0) fprintf(stderr, "timeline: result %d\n", result);
    return KELM_AviFile_UnInit(0) != 0 || result != 0;
}
