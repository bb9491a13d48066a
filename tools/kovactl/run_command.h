// kovactl run: starts a program under capture.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "command.h"

namespace kova::kovactl {

// What stops the program from being started. Otherwise its exit status is that of `kovactl run`, which it replaces.
inline constexpr int kExitNoHost = 125;
inline constexpr int kExitCannotRun = 126;
inline constexpr int kExitNotFound = 127;

struct RunOptions {
    std::vector<std::string> command;              // program, as a shell would find it, and its arguments
    std::optional<std::uint32_t> timeout_seconds;  // of one capture; the host's own limit when there is none
};

// Replaces this process by the program. Returns only when that fails, after telling why on standard error.
[[nodiscard]] int run_command(const RunOptions& options);

void add_run_command(CLI::App& app, const CommonOptions& common, Action& action);

}  // namespace kova::kovactl
