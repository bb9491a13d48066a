// Messages of the code that the platform's log writer itself depends on, or that runs where it must not be used.
//
// They go to the system log at priority 3 (error, no facility bits). syslog() allocates and locks, so inside the record
// handler the same text goes out as one datagram to /dev/log, or is lost when nobody listens there.
//
// Signal context: safe.
#pragma once

#include <syslog.h>
#include <cerrno>
#include <climits>
#include <cstddef>

#include "base/signal_scope.h"
#include "kova_platform/bounded_string.h"

namespace kova {

inline constexpr int kSystemLogTextSize = 512;

// What may be printed of a caller's buffer after a formatting function failed on it and left an empty text, if
// anything. A size that no formatting function takes leaves the buffer as it was.
[[nodiscard]] constexpr const char* printable(const char* buffer, std::size_t size) {
    return buffer != nullptr && size != 0 && size <= INT_MAX ? buffer : "";
}

// A finished text.
void send_to_system_log(const char* text);

// A text with arguments. Outside the record handler syslog() expands it, whatever its length; inside it is cut at 511
// characters.
// Leaves errno as it is.
template <typename... Arguments>
[[gnu::noinline]] void report_to_system_log(const char* format, Arguments... arguments) {
    const int saved_errno = errno;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
    if (!in_signal_scope()) {
        ::syslog(LOG_ERR, format, arguments...);
    } else {
        char text[kSystemLogTextSize];
        if (snprintf_truncated_s(text, sizeof text, format, arguments...) >= 0) send_to_system_log(text);
    }
#pragma GCC diagnostic pop
    errno = saved_errno;
}

}  // namespace kova
