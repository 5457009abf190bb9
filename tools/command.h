// What the subcommands of `recvault` share: how one registers itself, and how a failure reaches the user.
#pragma once

#include <CLI/CLI.hpp>
#include <stdexcept>

namespace recvault_tool {

// What the user can mend: shown as one line that says what to do, exit code 1.
class Failure : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

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
