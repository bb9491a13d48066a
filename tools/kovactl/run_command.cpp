// kovactl run; see run_command.h.
#include "run_command.h"

#include <unistd.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string_view>
#include <system_error>
#include <utility>

#include <fmt/core.h>
#include <CLI/CLI.hpp>

namespace kova::kovactl {
namespace {

namespace fs = std::filesystem;

constexpr char kHostLibrary[] = "libkova_host.so";

constexpr char kSummary[] = "Run a program under capture: kovactl run [--timeout SECONDS] -- PROGRAM [ARGUMENT...]";
constexpr char kFooter[] =
    "What it leaves when it crashes: /opt/norvel/var/log/kova_exception.log, and kovactl box.\n"
    "Exit status: the program's; 125 libkova_host.so is missing; 126 PROGRAM cannot be run; 127 it is not found;\n"
    "2 the command line is wrong.";

template <typename... Arguments>
int fail(int exit_code, fmt::format_string<Arguments...> text, Arguments&&... arguments) {
    complain(fmt::format(text, std::forward<Arguments>(arguments)...));
    return exit_code;
}

// Build tree and install tree look alike: programs in bin/, libraries in lib/.
fs::path host_library(std::error_code& error) {
    const fs::path own = fs::read_symlink("/proc/self/exe", error);
    if (error) return {};
    return fs::canonical(own.parent_path() / ".." / "lib" / kHostLibrary, error);
}

// The loader splits the list at blanks and colons and expands what follows a dollar, and knows no way to quote them.
bool can_be_preloaded(const fs::path& library) {
    return library.string().find_first_of(": $") == std::string::npos;
}

[[nodiscard]] bool preload(const fs::path& library) {
    std::string list = library.string();
    if (const char* const others = std::getenv("LD_PRELOAD"); others != nullptr && *others != '\0') {
        list.append(":").append(others);
    }
    return ::setenv("LD_PRELOAD", list.c_str(), 1) == 0;
}

int execute(std::vector<std::string> command) {
    std::vector<char*> arguments;
    arguments.reserve(command.size() + 1);
    for (std::string& word : command) arguments.push_back(word.data());
    arguments.push_back(nullptr);
    ::execvp(arguments[0], arguments.data());
    const int reason = errno;
    if (reason == ENOENT && command[0].find('/') != std::string::npos && ::access(command[0].c_str(), F_OK) == 0) {
        return fail(kExitNotFound, "program '{}' is there, but not the interpreter that it names", command[0]);
    }
    if (reason == ENOENT) {
        return fail(kExitNotFound, "program '{}' not found{}", command[0],
                    command[0].find('/') == std::string::npos ? " in PATH" : "");
    }
    return fail(kExitCannotRun, "program '{}' cannot be run: {}", command[0], std::strerror(reason));
}

}  // namespace

int run_command(const RunOptions& options) {
    if (options.command.empty()) return fail(kExitTrouble, "no program given: kovactl run -- PROGRAM [ARGUMENT...]");
    std::error_code error;
    const fs::path library = host_library(error);
    if (error) {
        return fail(kExitNoHost, "{} not found in the folder ../lib beside kovactl: {}; build or install it",
                    kHostLibrary, error.message());
    }
    if (!can_be_preloaded(library)) {
        return fail(kExitNoHost,
                    "'{}' cannot be preloaded: no folder on the way may have a space, a colon or a dollar in its name",
                    library.string());
    }
    if (!preload(library)) return fail(kExitTrouble, "no memory for the program's environment");
    if (options.timeout_seconds) ::setenv("KOVA_HOST_TIMEOUT", std::to_string(*options.timeout_seconds).c_str(), 1);
    return execute(options.command);
}

void add_run_command(CLI::App& app, const CommonOptions& common, Action& action) {
    const auto options = std::make_shared<RunOptions>();
    CLI::App* const run = app.add_subcommand("run", kSummary);
    run->footer(kFooter);
    run->add_option("--timeout", options->timeout_seconds, "Seconds that one capture may last, 30 by default")
        ->type_name("SECONDS")
        ->check(CLI::Range(1, 3600));
    run->callback([&action, &common, options] {
        action = [&common, options] {
            options->command = common.program;
            return run_command(*options);
        };
    });
}

}  // namespace kova::kovactl
