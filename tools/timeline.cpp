// recvault timeline: what was recorded when, a lane a channel and day.
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <bit>
#include <chrono>
#include <fstream>
#include <map>
#include <numeric>
#include <string_view>

#include "command.h"
#include "look_options.h"

namespace recvault_tool {

namespace {

struct Lane {
    std::string device;
    int channel;
    std::vector<Segment> segments;  // in the order of time, within the day
};
using Days = std::map<std::string, std::vector<Lane>>;

int64_t day_start(int64_t second) { return second - second % kDaySeconds; }

// By the times of the segments, not by the folder: a file's end may lie behind midnight.
Days lanes_of(const std::vector<Recording> &files, const std::string &only_day) {
    std::map<std::tuple<std::string, std::string, int>, std::vector<Segment>> lanes;
    for (const Recording &file : files) {
        for (Segment segment : file.segments) {
            while (segment.begin <= segment.end) {
                const int64_t last = std::min(segment.end, day_start(segment.begin) + kDaySeconds - 1);
                const std::string day = day_of(segment.begin);
                if (only_day.empty() || only_day == day)
                    lanes[{day, file.device, file.channel}].push_back({segment.types, segment.begin, last});
                segment.begin = last + 1;
            }
        }
    }
    Days days;
    for (auto &[key, segments] : lanes) {
        std::sort(segments.begin(), segments.end(), [](auto &a, auto &b) { return a.begin < b.begin; });
        std::vector<Segment> joined;
        for (const Segment &segment : segments) {
            const bool goes_on =
                !joined.empty() && joined.back().types == segment.types && segment.begin <= joined.back().end + 1;
            if (goes_on) {
                joined.back().end = std::max(joined.back().end, segment.end);
            } else {
                joined.push_back(segment);
            }
        }
        days[std::get<0>(key)].push_back({std::get<1>(key), std::get<2>(key), std::move(joined)});
    }
    return days;
}

std::string day_before(const std::string &day) {
    const auto digits = [&day](size_t at, size_t count) { return std::stoi(day.substr(at, count)); };
    const std::chrono::year_month_day date{std::chrono::year(digits(0, 4)),
                                           std::chrono::month(static_cast<unsigned>(digits(4, 2))),
                                           std::chrono::day(static_cast<unsigned>(digits(6, 2)))};
    return day_of((std::chrono::sys_days(date) - std::chrono::days(1)).time_since_epoch().count() * kDaySeconds);
}

struct Coverage {
    int64_t seconds = 0;
    int gaps = 0;  // of 6 seconds and more, within the day's recording
};

Coverage coverage_of(const Lane &lane) {
    constexpr int64_t kGap = 6;
    Coverage coverage;
    int64_t covered_to = -1;
    for (const Segment &segment : lane.segments) {
        if (covered_to >= 0 && segment.begin - covered_to >= kGap) ++coverage.gaps;
        coverage.seconds += std::max<int64_t>(segment.end - std::max(segment.begin - 1, covered_to), 0);
        covered_to = std::max(covered_to, segment.end);
    }
    return coverage;
}

std::string summary(const Lane &lane) {
    const Coverage coverage = coverage_of(lane);
    return fmt::format("{} recorded, {} gap{}", span_text(coverage.seconds), coverage.gaps, coverage.gaps == 1 ? "" : "s");
}

// The class of the colour and the character of a lane: the lowest type.
int lowest_type(uint32_t types) { return std::countr_zero(types & kAllTypes) + 1; }

// ---- Text ----

constexpr int64_t kCells = 96;
constexpr int64_t kCell = kDaySeconds / kCells;

// A cell shows the type that fills most of it; a gap shows where nothing fills half of it.
std::string cells_of(const Lane &lane) {
    std::array<std::array<int64_t, 8>, kCells> filled{};
    for (const Segment &segment : lane.segments) {
        for (int64_t at = segment.begin; at <= segment.end;) {
            const int64_t cell = at % kDaySeconds / kCell;
            const int64_t next = std::min(segment.end + 1, at - at % kCell + kCell);
            filled[static_cast<size_t>(cell)][static_cast<size_t>(lowest_type(segment.types))] += next - at;
            at = next;
        }
    }
    std::string text;
    for (const auto &cell : filled) {
        const auto most = std::max_element(cell.begin(), cell.end());
        const int64_t sum = std::accumulate(cell.begin(), cell.end(), int64_t{0});
        const char type = static_cast<char>('0' + (most - cell.begin()));
        text += sum == 0 ? ' ' : sum * 2 >= kCell ? type : '.';
    }
    return text;
}

void print_timeline(const Days &days) {
    for (const auto &[day, lanes] : days) {
        std::string hours;
        for (int hour = 0; hour < 24; ++hour) hours += fmt::format("{:02}  ", hour);
        fmt::print("{}{:13}|{}|\n", iso_day(day), "", hours);
        for (const Lane &lane : lanes) {
            fmt::print("{:16.16} {:>5} |{}|  {}\n", lane.device, lane.channel, cells_of(lane), summary(lane));
        }
    }
    fmt::print("A column is 15 minutes and shows the record type; a point: less than half of it, a blank: nothing.\n");
}

void print_timeline_json(const Days &days) {
    auto list = nlohmann::json::array();
    for (const auto &[day, lanes] : days) {
        for (const Lane &lane : lanes) {
            const Coverage coverage = coverage_of(lane);
            list.push_back({{"day", iso_day(day)},
                            {"device", lane.device},
                            {"channel", lane.channel},
                            {"seconds", coverage.seconds},
                            {"gaps", coverage.gaps},
                            {"segments", json_of(lane.segments)}});
        }
    }
    print_json(list);
}

// ---- HTML ----

constexpr std::string_view kPageHead = R"(<!doctype html>
<html lang="en"><head><meta charset="utf-8"><meta name="viewport" content="width=device-width, initial-scale=1">
<title>Recordings</title><style>
:root { color-scheme: light dark; --ink: #1b1f24; --faint: #6a737d; --page: #ffffff; --lane: #eef0f3; --line: #d0d7de;
  --t1: #2f6fde; --t2: #d1730a; --t3: #1a8f50; --t4: #b63fb0; --t5: #c0392b; --t6: #0f8b99; --t7: #7a6200; }
@media (prefers-color-scheme: dark) { :root { --ink: #e6e9ed; --faint: #9aa4af; --page: #14171b; --lane: #23282f; --line: #3a424c;
  --t1: #6ea3ff; --t2: #f2a24b; --t3: #4fcb86; --t4: #e07fda; --t5: #ff7b6e; --t6: #4cc9d6; --t7: #d9b93a; } }
body { margin: 1.5rem; background: var(--page); color: var(--ink); font: 15px/1.4 system-ui, sans-serif; }
h1 { font-size: 1.3rem; } h2 { font-size: 1.05rem; margin: 1.5rem 0 .3rem; } p { color: var(--faint); }
svg { display: block; width: 100%; min-width: 46rem; height: auto; } section { overflow-x: auto; }
text { font: 11px system-ui, sans-serif; fill: var(--ink); } .faint { fill: var(--faint); }
.lane { fill: var(--lane); } .hour { stroke: var(--line); stroke-width: 1; }
.t1 { fill: var(--t1); } .t2 { fill: var(--t2); } .t3 { fill: var(--t3); } .t4 { fill: var(--t4); }
.t5 { fill: var(--t5); } .t6 { fill: var(--t6); } .t7 { fill: var(--t7); }
.key { display: inline-block; width: .9em; height: .9em; margin: 0 .35em 0 1em; vertical-align: -.1em; }
</style></head><body>
<h1>Recordings</h1>
)";

// Also for what is no UTF-8: a page with broken text would be shown as one, but a byte of a tag must not be swallowed.
std::string escaped(const std::string &text) {
    std::string out;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '&' || c == '<' || c == '>' || c == '"' || byte < 0x20) {
            out += fmt::format("&#{};", byte < 0x20 ? 0xFFFD : byte);
        } else {
            out += c;
        }
    }
    return out;
}

constexpr int kLabel = 150;  // width of the names
constexpr int kHour = 38;    // width of an hour
constexpr int kPitch = 18;   // height of a lane
constexpr int kTop = 18;     // above the lanes, for the hours
constexpr int kRight = 178;  // for the summary

double x_of(int64_t second) { return kLabel + static_cast<double>(second % kDaySeconds) * kHour / 3600; }

void write_hours(std::ostream &page, int bottom) {
    for (int hour = 0; hour <= 24; ++hour) {
        const int x = kLabel + hour * kHour;
        page << fmt::format("<line class=\"hour\" x1=\"{0}\" y1=\"{1}\" x2=\"{0}\" y2=\"{2}\"/>\n", x, kTop - 4, bottom);
        for (const int y : {kTop - 6, bottom + 12}) {
            page << fmt::format("<text class=\"faint\" text-anchor=\"middle\" x=\"{}\" y=\"{}\">{:02}</text>\n", x, y, hour);
        }
    }
}

void write_lane(std::ostream &page, const Lane &lane, int y) {
    const std::string name = escaped(lane.device);
    page << fmt::format("<rect class=\"lane\" x=\"{}\" y=\"{}\" width=\"{}\" height=\"{}\"/>\n", kLabel, y, 24 * kHour,
                        kPitch - 4);
    // A long name is squeezed in; its title has it in full.
    page << fmt::format(
        "<text x=\"{}\" y=\"{}\" text-anchor=\"end\"{}><title>{}</title>{} / {}</text>\n", kLabel - 8, y + 11,
        lane.device.size() > 18 ? fmt::format(" textLength=\"{}\" lengthAdjust=\"spacingAndGlyphs\"", kLabel - 12) : "",
        name, name, lane.channel);
    for (const Segment &s : lane.segments) {
        const double width = std::max(static_cast<double>(s.end - s.begin + 1) * kHour / 3600, 0.75);
        page << fmt::format(
            "<rect class=\"t{}\" x=\"{:.2f}\" y=\"{}\" width=\"{:.2f}\" height=\"{}\"><title>{} / {}, type {}: {} to {}"
            "</title></rect>\n",
            lowest_type(s.types), x_of(s.begin), y, width, kPitch - 4, name, lane.channel, type_text(s.types),
            clock_time(s.begin), clock_time(s.end));
    }
    page << fmt::format("<text class=\"faint\" x=\"{}\" y=\"{}\">{}</text>\n", kLabel + 24 * kHour + 12, y + 11,
                        summary(lane));
}

void write_day(std::ostream &page, const std::string &day, const std::vector<Lane> &lanes) {
    const int bottom = kTop + static_cast<int>(lanes.size()) * kPitch;
    page << fmt::format("<section><h2>{}</h2>\n<svg viewBox=\"0 0 {} {}\" role=\"img\" aria-label=\"Recordings of {}\">\n",
                        iso_day(day), kLabel + 24 * kHour + kRight, bottom + 16, iso_day(day));
    int y = kTop + 2;
    write_hours(page, bottom);
    for (const Lane &lane : lanes) {
        write_lane(page, lane, y);
        y += kPitch;
    }
    page << "</svg></section>\n";
}

void write_page(const Days &days, std::ostream &page) {
    uint32_t types = 0;
    for (const auto &[day, lanes] : days) {
        for (const Lane &lane : lanes) {
            for (const Segment &segment : lane.segments) types |= segment.types & (~segment.types + 1);  // the lowest
        }
    }
    page << kPageHead
         << "<p>Local wall-clock time. A lane is named by device and channel, which counts from 0. Record types:";
    for (const int type : type_list(types)) {
        page << fmt::format(
            "<svg class=\"key\" style=\"min-width:0\" viewBox=\"0 0 1 1\"><rect class=\"t{0}\" width=\"1\" "
            "height=\"1\"/></svg>{0}",
            type);
    }
    page << "</p>\n";
    if (days.empty()) page << "<p>Nothing was recorded.</p>\n";
    for (const auto &[day, lanes] : days) write_day(page, day, lanes);
    page << "</body></html>\n";
}

// An older page is written over, but never a file that is none: it might be a recording.
void save_page(const Days &days, const std::string &path) {
    std::error_code error;
    if (fs::exists(path, error)) {
        std::string begin(15, '\0');
        std::ifstream(path, std::ios::binary).read(begin.data(), 15);
        if (begin != "<!doctype html>") throw Failure(path + " exists and is no such page: give another name");
    }
    std::ofstream page(path, std::ios::binary | std::ios::trunc);
    if (page) write_page(days, page);
    page.close();
    if (!page) throw Failure(path + " cannot be written: give a file in a folder that is yours and has room");
}

}  // namespace

void add_timeline(CLI::App &app) {
    CLI::App *command = app.add_subcommand(
        "timeline", "Show what was recorded when, a line a channel. Times are local wall-clock times; nothing is changed");
    const auto options = add_look_options(command);
    const auto html = std::make_shared<std::string>();
    command->add_option("--html", *html, "Write one page that needs nothing else to this file");
    command->callback([options, html] {
        const Filter &filter = options->filter;
        std::vector<Recording> files = recordings(options->stores, filter);
        if (!filter.day.empty()) {  // the last file of the day before may run into it
            Filter before = filter;
            before.day = day_before(filter.day);
            for (Recording &file : recordings(options->stores, before)) files.push_back(std::move(file));
        }
        const Days days = lanes_of(files, filter.day);
        if (!html->empty()) save_page(days, *html);
        if (options->json) print_timeline_json(days);
        if (!options->json && html->empty()) print_timeline(days);
    });
}

}  // namespace recvault_tool
