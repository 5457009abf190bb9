// The subcommands of `recvault`, and how each registers itself.
#pragma once

#include <CLI/CLI.hpp>

#include "failure.h"

namespace recvault_tool {

// Each adds its subcommand, with its options and its work as the callback, which throws a Failure when it cannot be done.
void add_ls(CLI::App &app);
void add_days(CLI::App &app);
void add_timeline(CLI::App &app);
void add_check(CLI::App &app);
void add_rescue(CLI::App &app);
void add_record(CLI::App &app);
void add_export(CLI::App &app);
void add_play(CLI::App &app);

}  // namespace recvault_tool
