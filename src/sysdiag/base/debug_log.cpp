// The private debug log: one line a call, appended to a file of its own.
//
// Failures go to the system log, never to the platform's log writer, whose own trouble may be what is being debugged.
#include "kova/debug_log.h"

#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <iterator>

#include "base/landing_pad.h"
#include "base/result.h"
#include "base/system_log.h"
#include "base/unique_file.h"
#include "kova/process_info.h"
#include "kova_platform/bounded_string.h"
#include "kova_platform/log.h"

namespace kova {
namespace {

constexpr char kDebugLogPath[] = "/opt/norvel/var/log/kova_debug.log";
constexpr std::size_t kHeadSize = 128;
constexpr std::size_t kLineFormatSize = 1024;
constexpr std::size_t kLongestWrite = 8192;  // a line up to here is one write

constexpr std::size_t kTimeSize = 32;
constexpr std::size_t kProcessNameSize = 128;
constexpr std::size_t kThreadNameSize = 16;  // what prctl fills at most

// A FIFO or a device at the fixed path is nobody's debug log.
bool is_regular(std::FILE* stream) {
    struct stat status {};
    return ::fstat(::fileno(stream), &status) == 0 && S_ISREG(status.st_mode);
}

const char* level_name(uint32_t level) {
    static constexpr const char* kNames[] = {"INFO", "WARNING", "ERROR"};
    if (level < std::size(kNames)) return kNames[level];
    report_to_system_log("[KOVA-LOG] level is illegal. level=%d", static_cast<int>(level));
    return "UNKNOW";
}

Code read_process_name(char (&name)[kProcessNameSize]) {
    const pid_t pid = ::getpid();
    const Code result = KovaGetProcName(pid, name, sizeof name);
    if (result == kOk && name[0] != '\0') return kOk;
    report_to_system_log("[KOVA-LOG] kova log get process name unsuccessful. procId=%u ret=%u",
                         static_cast<unsigned>(pid), result);
    return kFailed;
}

// The head is literal text: the caller's arguments are not for a '%' in a process or thread name.
void double_percents(const char* head, char (&doubled)[2 * kHeadSize]) {
    char* out = doubled;
    for (const char* in = head; *in != '\0'; ++in) {
        if (*in == '%') *out++ = '%';
        *out++ = *in;
    }
    *out = '\0';
}

// Makes the format that the caller's arguments are expanded with. False when head and format do not fit a line format
// of kLineFormatSize; what the doubling of percents adds is not counted.
bool compose_line_format(char (&line)[kLineFormatSize + kHeadSize], const char* head, const char* format) {
    if (sprintf_s(line, kLineFormatSize, "%s [SYSDIAG]%s\n", head, format) < 0) return false;
    if (std::strchr(head, '%') == nullptr) return true;
    char literal_head[2 * kHeadSize];
    double_percents(head, literal_head);
    return sprintf_s(line, sizeof line, "%s [SYSDIAG]%s\n", literal_head, format) >= 0;
}

}  // namespace
}  // namespace kova

using kova::Code;
using kova::kOk;
using kova::report_to_system_log;

void KovaDebugLog(uint32_t level, const char* format, ...) {
    if (format == nullptr) return;
    // The stream's buffer: it must outlive the stream.
    char write_buffer[kova::kLongestWrite];
    const kova::UniqueFile file(std::fopen(kova::kDebugLogPath, "ab+"));
    if (!file.is_open() || !kova::is_regular(file.get())) return;
    static_cast<void>(std::setvbuf(file.get(), write_buffer, _IOFBF, sizeof write_buffer));

    char head[kova::kHeadSize] = {};
    const Code code = KovaGetPrivateLogHead(head, sizeof head, level);
    if (code != kOk || head[0] == '\0') {
        report_to_system_log("[KOVA-LOG] kova debug get log head unsuccessful. logHeadBuf=%s ret=%d", head,
                             static_cast<int>(code));
    }
    char line_format[kova::kLineFormatSize + kova::kHeadSize];
    const bool composed = kova::compose_line_format(line_format, head, format);

    std::va_list arguments;
    va_start(arguments, format);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    // A line that cannot be written is lost.
    static_cast<void>(std::vfprintf(file.get(), composed ? line_format : format, arguments));
#pragma GCC diagnostic pop
    va_end(arguments);
}

uint32_t KovaGetPrivateLogHead(char* buffer, uint32_t length, uint32_t level) {
    char process_name[kova::kProcessNameSize] = {};
    if (const Code code = kova::read_process_name(process_name); code != kOk) return code;

    char thread_name[kova::kThreadNameSize] = {};
    const int named = ::prctl(PR_GET_NAME, thread_name);
    if (named != 0 || thread_name[0] == '\0') {
        report_to_system_log("[KOVA-LOG] kova log get thread name unsuccessful. threadId=%ld ret=%d",
                             ::syscall(SYS_gettid), named);
        return static_cast<Code>(named);
    }

    char time_text[kova::kTimeSize] = {};
    const Code timed = KovaGetLogTime(time_text, sizeof time_text);
    if (timed != kOk || time_text[0] == '\0') {
        report_to_system_log("[KOVA-LOG] kova log get time unsuccessful. timeBuf=%s ret=%d", time_text,
                             static_cast<int>(timed));
        return timed;
    }

    const int written = sprintf_s(buffer, length, "[%s][Process:%s][Thread:%s][%s]", time_text, process_name,
                                  thread_name, kova::level_name(level));
    if (written < 0) {
        report_to_system_log("[KOVA-LOG] kova log sprintf_s head unsuccessful. logHeadBuf=%s ret=%d",
                             kova::printable(buffer, length), written);
        return static_cast<Code>(written);
    }
    return kOk;
}

void KovaDbgLog(uintptr_t /*first*/, ...) {}

void KOVA_Log(uintptr_t /*first*/, ...) {}

KOVA_PATCHABLE uintptr_t KOVA_DiagLogHookReg(uintptr_t a0, uintptr_t a1, uintptr_t a2, uintptr_t a3, uintptr_t a4,
                                             uintptr_t a5) {
    KOVA_LANDING_PAD();
    return KOVA_SetDiagLogFun(a0, a1, a2, a3, a4, a5);
}
