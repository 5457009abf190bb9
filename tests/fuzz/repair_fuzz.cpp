// The repair: a cut file with wild bytes, and a wild side file. What it makes is read.
#include <cstdlib>

#include "avi/h264avi.h"
#include "fuzz_support.h"

using namespace kelm_recvault;
using namespace recvault_fuzz;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Input input(data, size);
    empty_folder();
    const std::string path = folder() + "/f.avi";
    const std::string head = wild_head(&input);
    write_file(path + "_idx", input.Bytes(input.Number() % 2000));
    write_file(path, head + input.Rest());
    const int32_t result = avi_restore_file(path.c_str());
    // Mended, or no record file: not marked as cut any more. There is nothing else that can fail here.
    if (result == KELM_AVIFILE_FAILED || fs::exists(path + "_idx")) std::abort();
    RecSegEntry entries[kMaxSegments];
    int32_t count = kMaxSegments;
    uint32_t type = 0;
    int64_t begin = 0;
    int64_t end = 0;
    avi_get_recinfo_by_name(path.c_str(), &type, &begin, &end);
    avi_get_recseg_by_name(path.c_str(), entries, &count);
    return 0;
}
