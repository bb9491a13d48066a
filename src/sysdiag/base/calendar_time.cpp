// Calendar time with the C library's time zones, and the time since boot.
#include "kova/calendar_time.h"

#include <sys/time.h>
#include <cerrno>
#include <cstdio>
#include <ctime>

#include "base/checked.h"
#include "base/log_message.h"
#include "base/result.h"
#include "base/unique_file.h"
#include "kova_platform/bounded_string.h"

namespace kova {
namespace {

constexpr Code kInvalidArgument = 22;

KovaSysTime system_time(const struct tm& time, suseconds_t microseconds) {
    return KovaSysTime{
        .year = narrow<std::uint16_t>(time.tm_year + 1900),
        .month = narrow<std::uint8_t>(time.tm_mon + 1),
        .day = narrow<std::uint8_t>(time.tm_mday),
        .hour = narrow<std::uint8_t>(time.tm_hour),
        .minute = narrow<std::uint8_t>(time.tm_min),
        .second = narrow<std::uint8_t>(time.tm_sec),
        .weekday = narrow<std::uint8_t>(time.tm_wday),
        .millisecond = narrow<std::uint32_t>(microseconds / 1000),
    };
}

}  // namespace
}  // namespace kova

using kova::Code;
using kova::kIdGeneral;
using kova::kIdStatusFile;
using kova::kInvalidArgument;
using kova::kOk;

uint32_t KOVA_GetGMTTime(struct tm* utc) {
    struct tm current {};
    const time_t now = ::time(nullptr);
    // A date that the C library cannot compute leaves the record cleared.
    static_cast<void>(::gmtime_r(&now, &current));
    return static_cast<Code>(memcpy_s(utc, sizeof *utc, &current, sizeof current));
}

struct tm* KOVA_Conver2LocalTime(struct tm* utc, struct tm* local) {
    if (utc == nullptr || local == nullptr) return nullptr;
    // mktime reads the input as local time and is off by the zone's offset at that moment, which it leaves in the
    // record. -1 is not told from a failure: it is also the second before 1970.
    utc->tm_isdst = -1;
    const time_t read_as_local = ::mktime(utc);
    const time_t seconds = read_as_local + utc->tm_gmtoff;
    ::tzset();
    return ::localtime_r(&seconds, local);
}

uint32_t KOVA_LocalSystimeGet(KovaSysTime* local, uint32_t* daylightSaving) {
    if (local == nullptr || daylightSaving == nullptr) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "[KOVA_LocalSystimeGet] input invalid.");
        return kInvalidArgument;
    }
    struct timeval now {};
    if (const int result = ::gettimeofday(&now, nullptr); result != 0) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "[KOVA_LocalSystimeGet] gettimeofday error: %d.", errno);
        return static_cast<Code>(result);
    }
    struct tm time {};
    static_cast<void>(::localtime_r(&now.tv_sec, &time));  // cleared when it cannot be computed
    *local = kova::system_time(time, now.tv_usec);
    *daylightSaving = static_cast<uint32_t>(time.tm_isdst);
    return kOk;
}

uint32_t KOVA_GMT_SystimeGet(KovaSysTime* utc) {
    if (utc == nullptr) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "[KOVA_GMT_SystimeGet] input invalid.");
        return kInvalidArgument;
    }
    struct timeval now {};
    if (const int result = ::gettimeofday(&now, nullptr); result != 0) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "[KOVA_GMT_SystimeGet] gettimeofday error: %d.", errno);
        return static_cast<Code>(result);
    }
    struct tm time {};
    static_cast<void>(::gmtime_r(&now.tv_sec, &time));  // cleared when it cannot be computed
    *utc = kova::system_time(time, now.tv_usec);
    return kOk;
}

uint32_t KovaGetUpTime(uint32_t* seconds) {
    if (seconds == nullptr) return kova::kUnavailable;
    const kova::UniqueFile file(::fopen("/proc/uptime", "re"));
    if (!file.is_open()) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdStatusFile), "[KovaGetUpTime]fopen unsuccessful");
        return kova::kUnavailable;
    }
    uint32_t whole = 0;
    uint32_t fraction = 0;
    const int scanned = fscanf_s(file.get(), "%u.%u", &whole, &fraction);
    if (scanned != 2) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdStatusFile), "[KovaGetUpTime]fscanf_s unsuccessful, ret:%d", scanned);
        return scanned == 0 ? kova::kUnavailable : static_cast<Code>(scanned);
    }
    *seconds = whole;
    return kOk;
}
