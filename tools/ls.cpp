// recvault ls: the record files of a store.
#include <fmt/format.h>

#include "command.h"
#include "look_options.h"

namespace recvault_tool {

namespace {

void print_files(const std::vector<Recording> &files) {
    fmt::print("{:19}  {:19}  {:16} {:>7}  {:7} {:>10}  FILE\n", "BEGIN", "END", "DEVICE", "CHANNEL", "TYPES", "SIZE");
    uint64_t total = 0;
    for (const Recording &file : files) {
        fmt::print("{:19}  {:19}  {:16} {:>7}  {:7} {:>10}  {}{}\n", iso_time(file.begin()), iso_time(file.end()),
                   file.device, file.channel, type_text(file.types()), size_text(file.size), file.path.string(),
                   file.unfinished ? "  (not finished)" : "");
        total += file.size;
    }
    fmt::print("{} files, {}\n", files.size(), size_text(total));
}

void print_files_json(const std::vector<Recording> &files) {
    auto list = nlohmann::json::array();
    for (const Recording &file : files) {
        list.push_back({{"path", file.path.string()},
                        {"device", file.device},
                        {"channel", file.channel},
                        {"day", iso_day(file.day)},
                        {"begin", iso_time(file.begin())},
                        {"end", iso_time(file.end())},
                        {"types", type_list(file.types())},
                        {"size", file.size},
                        {"finished", !file.unfinished},
                        {"segments", json_of(file.segments)}});
    }
    print_json(list);
}

}  // namespace

void add_ls(CLI::App &app) {
    CLI::App *command = app.add_subcommand("ls", "List record files. Times are local wall-clock times; nothing is changed");
    const auto options = add_look_options(command);
    command->callback([options] {
        const auto files = recordings(options->stores, options->filter);
        options->json ? print_files_json(files) : print_files(files);
    });
}

}  // namespace recvault_tool
