// The index: wild records beside one real file name, through every operation that reads them.
#include "RecNode.h"
#include "fuzz_support.h"

using namespace kelm_recvault;
using namespace recvault_fuzz;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    Input input(data, size);
    empty_folder();
    const std::string channel = folder() + "/avi_av/20261124/cam/channel01/";
    write_file(channel + "100000.avi", "x");
    write_file(channel + "rec_index.bin", input.Rest());
    CRecIndex index;
    index.set_vlist_fname((folder() + "/avi_av/20261124").c_str());
    RecFileSet files;
    RecFileSet gone;
    index.query_nodes({kAllDevices, kAllChannels, kAllRecTypes, true}, &files, &gone);
    RecFileNode node{};
    std::strcpy(node.rec_file_path, (channel + "100000.avi").c_str());
    bool deleted = false;
    index.update_file_node(node, &deleted);
    index.insert_file_node(node, true);
    RecordedSize recorded;
    index.delete_file_node(node.rec_file_path, &recorded);
    return 0;
}
