#include "look_options.h"

#include <fmt/format.h>

#include <algorithm>

namespace recvault_tool {

namespace {

// Takes 2026-11-25 as well as 20261125, which is what the folder is named.
std::string to_day_name(std::string &text) {
    if (text.size() == 10 && text[4] == '-' && text[7] == '-') std::erase(text, '-');
    return is_day(text) ? "" : "give a day as in 2026-11-25";
}

}  // namespace

std::shared_ptr<LookOptions> add_look_options(CLI::App *command) {
    auto options = std::make_shared<LookOptions>();
    Filter &filter = options->filter;
    command->add_option("STORE", options->stores, "Roots of partitions: the folders that hold avi_av")->required();
    command->add_option("--device", filter.device, "Only this device");
    command->add_option("--channel", filter.channel, "Only this channel, numbered from 0: the folder channel01 is channel 0")
        ->check(CLI::Range(0, 1023));
    command->add_option("--day", filter.day, "Only this day, as in 2026-11-25")
        ->transform(CLI::Validator(to_day_name, "DAY"));
    command->add_option("--type", filter.type, "Only this record type, 1 to 7")->check(CLI::Range(1, 7));
    command->add_flag("--json", options->json, "Print JSON, for programs");
    return options;
}

nlohmann::json json_of(const std::vector<Segment> &segments) {
    auto list = nlohmann::json::array();
    for (const Segment &s : segments)
        list.push_back({{"types", type_list(s.types)}, {"begin", iso_time(s.begin)}, {"end", iso_time(s.end)}});
    return list;
}

void print_json(const nlohmann::json &json) {
    fmt::print("{}\n", json.dump(2, ' ', false, nlohmann::json::error_handler_t::replace));
}

}  // namespace recvault_tool
