// The one line that every signal leaves in the exception log, whatever becomes of the capture.
//
// Signal context: all of it.
#include <unistd.h>
#include <ctime>

#include "base/result.h"
#include "base/signal_scope.h"
#include "except/src/proc_agent/exception_log_file.h"
#include "kova/calendar_time.h"
#include "kova/exception_capture.h"
#include "kova/exception_log.h"
#include "kova_platform/bounded_string.h"

#include "base/signal_path.h"

namespace kova {
namespace {

constexpr std::size_t kLineSize = 256;
constexpr std::size_t kProcessNameSize = 32;

}  // namespace
}  // namespace kova

using namespace kova;

uint32_t KOVA_WriteSigTrace2Log(int32_t senderPid, int32_t signal, const char* where) {
    const SignalScope scope;  // a host calls this from its handler too: its waits are bounded like the record handler's
    const pid_t self = ::getpid();
    tm now{};
    static_cast<void>(KovaGetGMTTimeNoLocks(&now));  // answers the seconds that it converted
    char signal_name[KOVA_SIGNAL_NAME_SIZE] = "";
    char sender_name[kProcessNameSize] = "";
    char own_name[kProcessNameSize] = "";
    // A name that cannot be found stays empty.
    static_cast<void>(KOVA_GetSignalName(signal, signal_name));
    static_cast<void>(KOVA_GetProcName(static_cast<std::uint32_t>(senderPid), sender_name, sizeof sender_name));
    static_cast<void>(KOVA_GetProcName(static_cast<std::uint32_t>(self), own_name, sizeof own_name));
    char line[kLineSize];
    const int length = snprintf_truncated_s(
        line, sizeof line,
        "[%04d-%02d-%02d %02d:%02d:%02d][%s][KOVA][ERROR] Proc[%d:%s] send Signal[%d:%s] to Proc[%d:%s].\n",
        now.tm_year + 1900, now.tm_mon + 1, now.tm_mday, now.tm_hour, now.tm_min, now.tm_sec,
        where != nullptr ? where : "", senderPid, sender_name, signal, signal_name, self, own_name);
    if (length < 0) return static_cast<Code>(length);
    return write_to_log(std::string_view(line, static_cast<std::size_t>(length)));
}
