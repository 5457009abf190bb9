// The scan of a day: a wild index, a wild record file with or without a side file, names out of the input.
#include "RecNode.h"
#include "fuzz_support.h"

using namespace kelm_recvault;
using namespace recvault_fuzz;

namespace {

std::string name_from(Input *input) {
    std::string name = input->Bytes(input->Number() % 24);
    std::erase_if(name, [](char c) { return c == '/' || c == '\0'; });
    return name.empty() || name[0] == '.' ? "n" + name : name;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Input input(data, size);
    empty_folder();
    const std::string device = folder() + "/avi_av/20261124/cam/";
    fs::create_directories(device + name_from(&input));
    const std::string channel = device + "channel01/";
    const std::string head = wild_head(&input);
    const std::string file = channel + (input.Number() % 2 == 0 ? "100000.avi" : name_from(&input) + ".avi");
    const std::string side = input.Bytes(input.Number() % 800);
    if (!side.empty()) write_file(file + "_idx", side);
    write_file(channel + "rec_index.bin", input.Bytes(input.Number() % 1000));
    write_file(file, head + input.Rest());
    CRecIndex index;
    index.set_vlist_fname((folder() + "/avi_av/20261124").c_str());
    const ScanTotals once = index.init_day_dir();
    const ScanTotals twice = index.init_day_dir();
    if (once.bytes != twice.bytes || once.files != twice.files) std::abort();  // a scan leaves nothing for the next one
    return 0;
}
