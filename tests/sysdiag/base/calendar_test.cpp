// Calendar time: the lock-free conversion against the C library's, time zones, and the time since boot.
#include "kova/calendar_time.h"

#include <random>
#include <tuple>

#include <gtest/gtest.h>

#include "support/covered_file.h"
#include "sysdiag/base/clock_fakes.h"

namespace kova::test {
namespace {

std::string text_of(const struct tm& t) {
    char text[96];
    std::snprintf(text, sizeof text, "%d-%02d-%02d %02d:%02d:%02d wday %d yday %d dst %d", t.tm_year + 1900,
                  t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec, t.tm_wday, t.tm_yday, t.tm_isdst);
    return text;
}

std::string text_of(const KovaSysTime& t) {
    char text[96];
    std::snprintf(text, sizeof text, "%d-%02d-%02d %02d:%02d:%02d.%03u wday %d", t.year, t.month, t.day, t.hour,
                  t.minute, t.second, t.millisecond, t.weekday);
    return text;
}

TEST(CalendarNoLocks, AgreesWithTheCLibraryOnEveryDayOf800YearsAndFarBeyond) {
    const auto expect_same = [](std::int64_t seconds) {
        struct tm expected {};
        struct tm utc {};
        const time_t time = seconds;
        ASSERT_NE(nullptr, ::gmtime_r(&time, &expected));
        ASSERT_EQ(&utc, KovaGmtimeNolocks(&utc, seconds));
        ASSERT_EQ(text_of(expected), text_of(utc)) << seconds;
    };
    for (std::int64_t day = 0; day < 2 * 146'097; ++day) expect_same(day * 86'400 + day % 86'400);
    std::mt19937_64 random(20240301);
    std::uniform_int_distribution<std::int64_t> moments(0, 67'768'036'191'676'799);  // the last one whose year fits
    for (int i = 0; i < 10'000; ++i) expect_same(moments(random));
}

TEST(CalendarNoLocks, SurvivesAnyInput) {
    for (const std::int64_t seconds : {std::int64_t{-1}, INT64_MIN, INT64_MAX}) {
        struct tm utc {};
        KovaGmtimeNolocks(&utc, seconds);
        EXPECT_TRUE(utc.tm_mon >= 0 && utc.tm_mon < 12 && utc.tm_mday >= 1 && utc.tm_mday <= 31) << text_of(utc);
    }
}

TEST(CalendarTime, ConvertsInBothZonesOfTheYear) {
    for (const auto& [seconds, local_text, utc_text] :
         {std::tuple{1704067199, "2024-01-01 00:59:59.999 wday 1", "2023-12-31 23:59:59.999 wday 0"},
          std::tuple{1719791999, "2024-07-01 01:59:59.999 wday 1", "2024-06-30 23:59:59.999 wday 0"}}) {
        const ClockAt clock(seconds, 999'999'999, "CET-1CEST,M3.5.0,M10.5.0/3");
        KovaSysTime local{};
        KovaSysTime utc{};
        std::uint32_t daylight_saving = 7;
        EXPECT_EQ(0U, KOVA_LocalSystimeGet(&local, &daylight_saving));
        EXPECT_EQ(local_text, text_of(local));
        EXPECT_EQ(local.month == 7 ? 1U : 0U, daylight_saving);
        EXPECT_EQ(0U, KOVA_GMT_SystimeGet(&utc));
        EXPECT_EQ(utc_text, text_of(utc));
        EXPECT_EQ(seconds, KovaGMTSystimeNoLocks(&utc));
        utc.millisecond += 999;  // it has whole seconds only
        EXPECT_EQ(utc_text, text_of(utc));

        struct tm broken_down {};
        struct tm converted {};
        EXPECT_EQ(0U, KOVA_GetGMTTime(&broken_down));
        EXPECT_EQ(&converted, KOVA_Conver2LocalTime(&broken_down, &converted));
        EXPECT_TRUE(local.hour == converted.tm_hour && local.day == converted.tm_mday) << text_of(converted);
    }
}

TEST(UpTime, IsTheWholeSecondsOfTheFirstNumber) {
    std::uint32_t seconds = 99;
    const CoveredFile uptime("/proc/uptime", "4294967295.07 1.00\n");
    EXPECT_EQ(0U, KovaGetUpTime(&seconds));
    EXPECT_EQ(UINT32_MAX, seconds);
}

}  // namespace
}  // namespace kova::test
