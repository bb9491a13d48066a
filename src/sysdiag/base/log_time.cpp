// Local time as text, for the debug log and for callers.
//
// Failures go to the system log: the platform's log writer is not to be called on the debug log's way.
#include <cerrno>
#include <ctime>

#include "base/result.h"
#include "base/system_log.h"
#include "kova/debug_log.h"
#include "kova_platform/bounded_string.h"

namespace kova {
namespace {

constexpr long kNanosecondsPerMillisecond = 1'000'000;

}  // namespace
}  // namespace kova

using kova::Code;
using kova::kFailed;
using kova::kOk;
using kova::report_to_system_log;

uint32_t KovaGetLogTime(char* buffer, uint32_t length) {
    struct timespec now {};
    if (const int result = ::clock_gettime(CLOCK_REALTIME, &now); result != 0) {
        report_to_system_log("[KOVA-LOG] kova log get time unsuccessful. ret=%d, errno=%d", result, errno);
        return static_cast<Code>(result);
    }
    struct tm local {};
    if (::localtime_r(&now.tv_sec, &local) == nullptr) {
        report_to_system_log("[KOVA-LOG] kova log change time unsuccessful. errno=%d", errno);
        return kFailed;
    }
    const int written = sprintf_s(buffer, length, "%04d-%02d-%02d %02d:%02d:%02d:%03u", local.tm_year + 1900,
                                  local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
                                  static_cast<unsigned>(now.tv_nsec / kova::kNanosecondsPerMillisecond));
    if (written < 0) {
        report_to_system_log("[KOVA-LOG] kova log sprintf_s time unsuccessful. timeBuf=%s ret=%d errno=%d",
                             kova::printable(buffer, length), written, errno);
        return static_cast<Code>(written);
    }
    return kOk;
}

char* GetLogTime(char* buffer, int32_t length) {
    if (buffer == nullptr || length < KOVA_LOG_TIME_SIZE) return nullptr;
    struct tm local {};
    const time_t now = ::time(nullptr);
    if (::localtime_r(&now, &local) == nullptr) return nullptr;
    // Cannot fail: the longest year leaves the text below half of the size.
    static_cast<void>(std::strftime(buffer, KOVA_LOG_TIME_SIZE, "%Y-%m-%d %H:%M:%S %z", &local));
    return buffer;
}
