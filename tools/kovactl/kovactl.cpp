// kovactl: what a support engineer looks at a node with.
#include <algorithm>
#include <cstdio>
#include <exception>
#include <string_view>

#include <fmt/core.h>
#include <CLI/CLI.hpp>

#include "box_commands.h"
#include "command.h"
#include "process_commands.h"
#include "region_command.h"
#include "run_command.h"

namespace kova::kovactl {
namespace {

constexpr AddCommands kFamilies[] = {
    add_box_commands,
    add_region_command,
    add_process_commands,
    add_run_command,
};

constexpr char kFooter[] =
    "Exit status of all but run: 0 done, and what was looked at is sound; 1 damaged, or not what was asked for;\n"
    "2 it cannot be read, or the command line is wrong. Results go to standard output, trouble to standard error.";

// An answer that nobody got is none.
int finish(int status) {
    if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0) return status;
    complain("cannot write to standard output");
    return kExitTrouble;
}

int run(int argc, char** argv) {
    CommonOptions options;
    char** const dashes =
        std::find_if(argv, argv + argc, [](const char* word) { return std::string_view(word) == "--"; });
    if (dashes != argv + argc) options.program.assign(dashes + 1, argv + argc);
    Action action;
    CLI::App app("Looks at what the diagnosis agent recorded on this node.", "kovactl");
    app.footer(kFooter);
    app.fallthrough();  // options may stand before or after a subcommand
    app.add_flag("--json", options.json, "Print JSON");
    for (const AddCommands add : kFamilies) add(app, options, action);
    try {
        app.parse(static_cast<int>(dashes - argv), argv);
    } catch (const CLI::ParseError& error) {
        return finish(app.exit(error) == 0 ? kExitOk : kExitTrouble);
    }
    if (!options.program.empty() && !app.got_subcommand("run")) {
        complain("a program behind \"--\" is for kovactl run");
        return kExitTrouble;
    }
    if (!action) {
        fmt::print("{}", app.help());
        return finish(kExitOk);
    }
    return finish(action());
}

}  // namespace
}  // namespace kova::kovactl

int main(int argc, char** argv) {
    try {
        return kova::kovactl::run(argc, argv);
    } catch (const std::exception& error) {
        kova::kovactl::complain(error.what());
        return kova::kovactl::kExitTrouble;
    }
}
