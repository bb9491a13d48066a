// The platform's log writers, on the system log.
//
// A message becomes one line "level=1 id=0x0E40105B [Base] text" of at most 1023 characters. KOVA_LOG_STDERR=1 in the
// environment sends it to standard error as well, for a developer who has no system log; the variable is read once, at
// the first message.
//
// Signal context: none of it: syslog() allocates and locks.
#include "kova_platform/log.h"

#include <sys/uio.h>
#include <syslog.h>
#include <unistd.h>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>

#include "bounded_format.h"

namespace {

constexpr size_t kLineSize = 1024;
constexpr size_t kSliceSize = 960;  // what a line takes beside its head
constexpr uint32_t kInformation = 3;

enum class Copy : int { kUndecided, kNo, kYes };
constinit std::atomic<Copy> g_copy_to_stderr{Copy::kUndecided};

bool copies_to_stderr() {
    Copy copy = g_copy_to_stderr.load(std::memory_order_relaxed);
    if (copy == Copy::kUndecided) {
        const char* const value = std::getenv("KOVA_LOG_STDERR");
        copy = value != nullptr && std::strcmp(value, "1") == 0 ? Copy::kYes : Copy::kNo;
        g_copy_to_stderr.store(copy, std::memory_order_relaxed);
    }
    return copy == Copy::kYes;
}

int priority_of(uint32_t level) {
    switch (level) {
        case 0:
        case 1:
            return LOG_ERR;
        case 2:
            return LOG_WARNING;
        default:
            return LOG_INFO;
    }
}

// Characters of the next slice: up to its last line end, which a reader of the log would otherwise see in mid-word.
size_t slice_length(const char* text, size_t left) {
    if (left <= kSliceSize) return left;
    const void* const line_end = ::memrchr(text, '\n', kSliceSize);
    return line_end == nullptr ? kSliceSize : static_cast<size_t>(static_cast<const char*>(line_end) - text) + 1;
}

// One write, so that lines of several processes do not mix.
void write_line(const char* line) {
    iovec parts[2] = {};
    char line_end = '\n';
    parts[0].iov_base = const_cast<char*>(line);
    parts[0].iov_len = std::strlen(line);
    parts[1].iov_base = &line_end;
    parts[1].iov_len = 1;
    // Whoever closed standard error does not want the line.
    static_cast<void>(!::writev(STDERR_FILENO, parts, 2));
}

}  // namespace

uint32_t KovaDLogWrite(uint32_t level, uint32_t messageId, const char* moduleTag, const char* format, ...) {
    const int saved_errno = errno;
    char line[kLineSize];
    const int head = kova_standin::format_text(line, sizeof line, "level=%u id=0x%08X [%.32s] ", level, messageId,
                                               moduleTag != nullptr ? moduleTag : "");
    va_list arguments;
    va_start(arguments, format);
    static_cast<void>(
        kova_standin::format_truncated(line + head, sizeof line - static_cast<size_t>(head), format, arguments));
    va_end(arguments);
    ::syslog(priority_of(level), "%s", line);
    if (copies_to_stderr()) write_line(line);
    errno = saved_errno;
    return 0;
}

void KOVA_DiagLogInSlice(const char* text, uint32_t length, uint32_t messageId) {
    if (text == nullptr) return;
    for (size_t left = length; left != 0;) {
        const size_t slice = slice_length(text, left);
        const bool ends_line = text[slice - 1] == '\n';  // the log ends its lines itself
        KovaDLogWrite(kInformation, messageId, "Info", "%.*s", static_cast<int>(slice - (ends_line ? 1 : 0)), text);
        text += slice;
        left -= slice;
    }
}

// Nothing here keeps a diagnostic log that a hook could receive lines from.
uintptr_t KOVA_SetDiagLogFun(uintptr_t, uintptr_t, uintptr_t, uintptr_t, uintptr_t, uintptr_t) {
    return 0;
}
