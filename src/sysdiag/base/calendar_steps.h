// From seconds to a calendar date in UTC: pure arithmetic, no time zone, no table, no loop.
//
// Days are counted from 1 March of year 0, so that the leap day ends a year and months have a regular rhythm: five
// months, March to July and August to December, have 153 days. A cycle of the Gregorian calendar is 400 years or
// 146097 days.
//
// Signal context: safe.
#pragma once

#include <cstdint>

namespace kova {

struct CalendarDate {
    std::uint64_t year;
    std::uint32_t month;        // 1 to 12
    std::uint32_t day;          // 1 to 31
    std::uint32_t hour;         // 0 to 23
    std::uint32_t minute;       // 0 to 59
    std::uint32_t second;       // 0 to 59
    std::uint32_t weekday;      // 0 to 6, 0 is Sunday
    std::uint32_t day_of_year;  // 0 to 365
};

[[nodiscard]] constexpr bool is_leap_year(std::uint64_t year) {
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

// Seconds since 1970-01-01 00:00:00. Before 1970 the date is none, but still one with every field in its range.
[[nodiscard]] constexpr CalendarDate calendar_date(std::int64_t seconds) {
    constexpr std::uint32_t kSecondsPerDay = 86'400;
    constexpr std::uint64_t kDaysTo1970 = 719'468;  // since 0000-03-01
    constexpr std::uint32_t kDaysPerCycle = 146'097;
    constexpr std::uint32_t kDaysPer4Years = 1'461;
    constexpr std::uint32_t kDaysPerCentury = 36'524;
    constexpr std::uint32_t kDaysPer5Months = 153;
    constexpr std::uint32_t kFirstDayOfJanuary = 306;  // of a year that begins in March
    constexpr std::uint32_t kDaysToMarch = 59;         // of a common year that begins in January

    const auto unsigned_seconds = static_cast<std::uint64_t>(seconds);
    const std::uint64_t days = unsigned_seconds / kSecondsPerDay;
    const auto rest = static_cast<std::uint32_t>(unsigned_seconds % kSecondsPerDay);

    const std::uint64_t march_days = days + kDaysTo1970;
    const std::uint64_t cycle = march_days / kDaysPerCycle;
    const auto day_of_cycle = static_cast<std::uint32_t>(march_days % kDaysPerCycle);
    // The leap days before this day are taken out: one in 4 years, none in a century's last, one in the cycle's last.
    const std::uint32_t year_of_cycle = (day_of_cycle - day_of_cycle / (kDaysPer4Years - 1) +
                                         day_of_cycle / kDaysPerCentury - day_of_cycle / (kDaysPerCycle - 1)) /
                                        365;
    const std::uint32_t day_of_march_year =
        day_of_cycle - (365 * year_of_cycle + year_of_cycle / 4 - year_of_cycle / 100);
    const std::uint32_t march_month = (5 * day_of_march_year + 2) / kDaysPer5Months;  // 0 is March
    const bool from_january = day_of_march_year >= kFirstDayOfJanuary;
    const std::uint64_t year = cycle * 400 + year_of_cycle + (from_january ? 1 : 0);

    return CalendarDate{
        .year = year,
        .month = from_january ? march_month - 9 : march_month + 3,
        .day = day_of_march_year - (kDaysPer5Months * march_month + 2) / 5 + 1,
        .hour = rest / 3600,
        .minute = rest / 60 % 60,
        .second = rest % 60,
        .weekday = static_cast<std::uint32_t>((days + 4) % 7),  // 1970-01-01 was a Thursday
        .day_of_year = from_january ? day_of_march_year - kFirstDayOfJanuary
                                    : day_of_march_year + kDaysToMarch + (is_leap_year(year) ? 1 : 0),
    };
}

}  // namespace kova
