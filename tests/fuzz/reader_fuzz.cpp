// The reader: wild bytes in the head and behind it, with and without a wild side file.
#include "avi/avi_reader.h"

#include <vector>

#include "fuzz_support.h"

using namespace kelm_recvault;
using namespace recvault_fuzz;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static std::vector<uint8_t> buffer(kelm_avi_reader::kBufferSize);
    static kelm_avi_reader reader;
    Input input(data, size);
    empty_folder();
    const std::string path = folder() + "/f.avi";
    const auto mode = static_cast<int32_t>(input.Number() % 5);
    const int64_t target = input.Number();
    const std::string head = wild_head(&input);
    const std::string side = input.Bytes(input.Number() % 400);
    if (!side.empty()) write_file(path + "_idx", side);
    write_file(path, head + input.Rest());
    if (reader.open_file(path.c_str(), buffer.data()) != 0) return 0;
    const uint8_t *frame = nullptr;
    int32_t length = 0;
    uint32_t sum = 0;
    for (int round = 0; round < 2; ++round) {
        while (reader.read_data(mode, 1, 0x7F, &frame, &length) == 0) {
            for (int32_t i = 0; i < length; ++i) sum += frame[i];
        }
        if (reader.seek_time(target) != 0) break;
    }
    RecSegEntry entries[kMaxSegments];
    int32_t count = kMaxSegments;
    reader.get_recseg_info(entries, &count);
    reader.get_data_size(0, INT64_MAX, sum);
    return 0;
}
