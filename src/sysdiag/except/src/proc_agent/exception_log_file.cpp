// Writing to the node's exception log; see exception_log_file.h and kova/exception_log.h.
//
// A piece is lost rather than split: it goes out in a single write under the lock of the whole file. The descriptor is
// opened for each piece, so that a log that somebody moved away in the middle of a report is made anew.
//
// Signal context: all of it.
#include "except/src/proc_agent/exception_log_file.h"

#include <fcntl.h>

#include "base/file_lock.h"
#include "base/signal_scope.h"
#include "base/unique_fd.h"
#include "kova/exception_log.h"

#include "base/signal_path.h"

namespace kova {
namespace {

constinit ProcessLock g_log_lock;

Code code_of(bool done) {
    return done ? kOk : kFailed;
}

}  // namespace

constinit const SharedFileKind kExceptionLog{.path = "/opt/norvel/var/log/kova_exception.log",
                                             .flags = O_RDWR | O_CREAT | O_APPEND | O_NOFOLLOW,
                                             .mode = 0660,
                                             .lock = g_log_lock,
                                             .budget = log_wait_budget};

Code write_to_log(std::string_view text, const CallingThread& thread) {
    SharedFile log(kExceptionLog, thread);
    if (log.budget_is_spent() || log.open_locked() != OpenStep::kDone) return kFailed;
    const ssize_t written = write_once(log.fd(), text.data(), text.size());
    return code_of(written >= 0 && static_cast<std::size_t>(written) >= text.size());
}

void write_section_to_log(std::string_view text) {
    if (text.empty()) return;
    // A piece that is lost is lost alone: the line feed is tried all the same.
    const CallingThread thread = calling_thread();
    static_cast<void>(write_to_log(text, thread));
    static_cast<void>(write_to_log("\n", thread));
}

}  // namespace kova

uint32_t KOVA_WriteExceptInfo2Log(const char* text, uint32_t length) {
    if (text == nullptr) return kova::kFailed;
    return kova::write_to_log({text, length});
}

uint32_t KOVA_PrintfExceptInfo2log(const char* text, uint32_t length) {
    if (text == nullptr || length == 0) return kova::kFailed;
    kova::write_section_to_log({text, length});
    return kova::kOk;
}

uint32_t KOVA_ExceptFileLock(int32_t fd) {
    return kova::code_of(kova::lock_whole_file(fd, kova::log_wait_budget()));
}

uint32_t KOVA_ExceptFileUnlock(int32_t fd) {
    return kova::code_of(kova::unlock_whole_file(fd));
}
