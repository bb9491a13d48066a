// Where the daemon tells what it does; see daemon_log.h.
#include "daemon_log.h"

#include <syslog.h>
#include <unistd.h>
#include <string>

namespace kova::kovad {
namespace {

LogTarget g_target = LogTarget::kStandardError;

int priority(Level level) {
    switch (level) {
        case Level::kError:
            return LOG_ERR;
        case Level::kWarning:
            return LOG_WARNING;
        case Level::kInfo:
            break;
    }
    return LOG_INFO;
}

std::string printable(std::string_view text) {
    std::string line;
    for (const char c : text) {
        if (c >= 0x20 && c < 0x7F) {
            line += c;
        } else {
            line += fmt::format("\\x{:02x}", static_cast<unsigned char>(c));
        }
    }
    return line;
}

}  // namespace

void set_log_target(LogTarget target) {
    g_target = target;
    if (target == LogTarget::kSystemLog) ::openlog("kovad", LOG_PID | LOG_NDELAY, LOG_DAEMON);
}

void log_line(Level level, std::string_view text) {
    std::string line = printable(text);
    if (g_target == LogTarget::kSystemLog) {
        ::syslog(priority(level), "%s", line.c_str());
        return;
    }
    line = "kovad: " + line + "\n";
    // One write for a line, so that lines of several processes do not mix. Nobody is left to tell when it fails.
    static_cast<void>(!::write(STDERR_FILENO, line.data(), line.size()));
}

}  // namespace kova::kovad
