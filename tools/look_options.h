// What the subcommands that list a store have in common: its path, the filters, and `--json`.
#pragma once

#include <CLI/CLI.hpp>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "store.h"

namespace recvault_tool {

struct LookOptions {
    std::vector<std::string> stores;
    Filter filter;
    bool json = false;
};

std::shared_ptr<LookOptions> add_look_options(CLI::App *command);
nlohmann::json json_of(const std::vector<Segment> &segments);
// Names on disk may hold any bytes; what is no UTF-8 is replaced.
void print_json(const nlohmann::json &json);

}  // namespace recvault_tool
