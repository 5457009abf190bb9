// recvault days: what each day holds of each device.
#include <fmt/format.h>

#include <map>
#include <set>

#include "command.h"
#include "look_options.h"

namespace recvault_tool {

namespace {

struct Day {
    std::set<int> channels;
    size_t files = 0;
    uint64_t size = 0;
    int64_t seconds = 0;  // recorded, summed over the channels
    uint32_t types = 0;
};
using Days = std::map<std::pair<std::string, std::string>, Day>;  // by day and device

Days sum_up(const std::vector<Recording> &files) {
    Days days;
    for (const Recording &file : files) {
        Day &day = days[{file.day, file.device}];
        day.channels.insert(file.channel);
        ++day.files;
        day.size += file.size;
        day.types |= file.types();
        for (const Segment &segment : file.segments) day.seconds += segment.end - segment.begin + 1;
    }
    return days;
}

// "0-3,7"
std::string ranges(const std::set<int> &numbers) {
    std::string text;
    for (auto first = numbers.begin(); first != numbers.end();) {
        auto last = first;
        while (std::next(last) != numbers.end() && *std::next(last) == *last + 1) ++last;
        text += fmt::format("{}{}", text.empty() ? "" : ",", *first);
        if (last != first) text += fmt::format("-{}", *last);
        first = std::next(last);
    }
    return text;
}

void print_days(const Days &days) {
    fmt::print("{:10}  {:16} {:12} {:>7} {:>10}  {:>10}  TYPES\n", "DAY", "DEVICE", "CHANNELS", "FILES", "SIZE", "RECORDED");
    for (const auto &[key, day] : days) {
        fmt::print("{:10}  {:16} {:12} {:>7} {:>10}  {:>10}  {}\n", iso_day(key.first), key.second, ranges(day.channels),
                   day.files, size_text(day.size), span_text(day.seconds), type_text(day.types));
    }
}

void print_days_json(const Days &days) {
    auto list = nlohmann::json::array();
    for (const auto &[key, day] : days) {
        list.push_back({{"day", iso_day(key.first)},
                        {"device", key.second},
                        {"channels", day.channels},
                        {"files", day.files},
                        {"size", day.size},
                        {"seconds", day.seconds},
                        {"types", type_list(day.types)}});
    }
    print_json(list);
}

}  // namespace

void add_days(CLI::App &app) {
    CLI::App *command =
        app.add_subcommand("days", "List the days that hold recordings, a line a device; nothing is changed");
    const auto options = add_look_options(command);
    command->callback([options] {
        const Days days = sum_up(recordings(options->stores, options->filter));
        options->json ? print_days_json(days) : print_days(days);
    });
}

}  // namespace recvault_tool
