// Where the daemon tells what it does: standard error, or the system log when it runs without a terminal.
#pragma once

#include <string_view>
#include <utility>

#include <fmt/format.h>

namespace kova::kovad {

enum class LogTarget { kStandardError, kSystemLog };

// Once, before the first line.
void set_log_target(LogTarget target);

enum class Level { kError, kWarning, kInfo };

// One line. What is not printable is shown as \xNN: names of processes are anybody's.
void log_line(Level level, std::string_view text);

template <typename... Arguments>
void log(Level level, fmt::format_string<Arguments...> text, Arguments&&... arguments) {
    log_line(level, fmt::format(text, std::forward<Arguments>(arguments)...));
}

}  // namespace kova::kovad
