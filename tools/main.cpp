// recvault: looks at a store, checks it, rescues what is left of a file, records any source into one and gives it back.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>

#include "command.h"

int main(int argc, char **argv) try {
    using namespace recvault_tool;
    CLI::App app(
        "Looks at the store of a video recorder, checks it, records into it and takes recordings out.\n"
        "Times are local wall-clock times, as in 2026-11-25T14:30:00.",
        "recvault");
    app.require_subcommand(1);
#if defined(RECVAULT_TOOL_LOOK)
    add_ls(app);
    add_days(app);
    add_timeline(app);
    add_check(app);
#endif
    add_rescue(app);
#if defined(RECVAULT_TOOL_RECORD)
    add_record(app);
#endif
    add_export(app);
    add_play(app);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return app.exit(error);
    }
    return 0;
} catch (const std::exception &failure) {
    std::fprintf(stderr, "recvault: %s\n", failure.what());
    return 1;
}
