// Calendar time for the record handler: the current time in UTC without a lock, a table or the time zone.
//
// Signal context: all of it. The C library's conversions lock the time zone's data even for UTC.
#include <ctime>

#include "base/calendar_steps.h"
#include "base/checked.h"
#include "kova/calendar_time.h"

#include "base/signal_path.h"

namespace kova {
namespace {

void fill(const CalendarDate& date, struct tm* out) {
    out->tm_sec = static_cast<int>(date.second);
    out->tm_min = static_cast<int>(date.minute);
    out->tm_hour = static_cast<int>(date.hour);
    out->tm_mday = static_cast<int>(date.day);
    out->tm_mon = static_cast<int>(date.month) - 1;
    out->tm_year = static_cast<int>(date.year - 1900);
    out->tm_wday = static_cast<int>(date.weekday);
    out->tm_yday = static_cast<int>(date.day_of_year);
    out->tm_isdst = 0;
}

KovaSysTime system_time(const CalendarDate& date) {
    return KovaSysTime{
        .year = narrow<std::uint16_t>(date.year),
        .month = narrow<std::uint8_t>(date.month),
        .day = narrow<std::uint8_t>(date.day),
        .hour = narrow<std::uint8_t>(date.hour),
        .minute = narrow<std::uint8_t>(date.minute),
        .second = narrow<std::uint8_t>(date.second),
        .weekday = narrow<std::uint8_t>(date.weekday),
        .millisecond = 0,
    };
}

}  // namespace
}  // namespace kova

uint32_t KovaIsLeapYear(uint32_t year) {
    return kova::is_leap_year(year) ? 1 : 0;
}

struct tm* KovaGmtimeNolocks(struct tm* utc, int64_t seconds) {
    if (utc != nullptr) kova::fill(kova::calendar_date(seconds), utc);
    return utc;
}

int64_t KovaGetGMTTimeNoLocks(struct tm* utc) {
    const int64_t now = ::time(nullptr);
    if (utc != nullptr) kova::fill(kova::calendar_date(now), utc);
    return now;
}

int64_t KovaGMTSystimeNoLocks(KovaSysTime* utc) {
    if (utc == nullptr) return 0;
    const int64_t now = ::time(nullptr);
    *utc = kova::system_time(kova::calendar_date(now));
    return now;
}
