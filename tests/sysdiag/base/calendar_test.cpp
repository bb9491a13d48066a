// Calendar time: the lock-free conversion against the C library's and against dates worked out by hand, time zones, and
// the time since boot.
#include "kova/calendar_time.h"

#include <cstring>
#include <random>

#include <gtest/gtest.h>

#include "support/covered_file.h"
#include "support/log_recorder.h"
#include "sysdiag/base/clock_fakes.h"

namespace kova::test {
namespace {

constexpr std::uint32_t kGeneral = 0x0E40105B;
constexpr std::uint32_t kUpTime = 0x0E40105F;

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

std::string converted(std::int64_t seconds) {
    struct tm utc {};
    EXPECT_EQ(&utc, KovaGmtimeNolocks(&utc, seconds));
    return text_of(utc);
}

TEST(CalendarNoLocks, GivesTheDatesWorkedOutByHand) {
    const struct {
        std::int64_t seconds;
        const char* date;
    } cases[] = {
        {0, "1970-01-01 00:00:00 wday 4 yday 0 dst 0"},
        {86399, "1970-01-01 23:59:59 wday 4 yday 0 dst 0"},
        {951782400, "2000-02-29 00:00:00 wday 2 yday 59 dst 0"},
        {1735689599, "2024-12-31 23:59:59 wday 2 yday 365 dst 0"},
        {2147483648, "2038-01-19 03:14:08 wday 2 yday 18 dst 0"},
        {4107542400, "2100-03-01 00:00:00 wday 1 yday 59 dst 0"},
    };
    for (const auto& c : cases) EXPECT_EQ(c.date, converted(c.seconds)) << c.seconds;
}

TEST(CalendarNoLocks, AgreesWithTheCLibraryOnEveryDayOf800YearsAndFarBeyond) {
    const auto expect_same = [](std::int64_t seconds) {
        struct tm expected {};
        const time_t time = seconds;
        ASSERT_NE(nullptr, ::gmtime_r(&time, &expected));
        ASSERT_EQ(text_of(expected), converted(seconds)) << seconds;
    };
    for (std::int64_t day = 0; day < 2 * 146'097; ++day) expect_same(day * 86'400 + day % 86'400);
    std::mt19937_64 random(20240301);
    std::uniform_int_distribution<std::int64_t> moments(0, 67'768'036'191'676'799);  // the last one whose year fits
    for (int i = 0; i < 10'000; ++i) expect_same(moments(random));
}

TEST(CalendarNoLocks, LeavesTheZoneFieldsAloneAndSurvivesAnyInput) {
    struct tm utc {};
    utc.tm_gmtoff = 7200;
    utc.tm_zone = "kept";
    KovaGmtimeNolocks(&utc, 1);
    EXPECT_EQ(7200, utc.tm_gmtoff);
    EXPECT_STREQ("kept", utc.tm_zone);
    for (const std::int64_t seconds : {std::int64_t{-1}, INT64_MIN, INT64_MAX}) {
        KovaGmtimeNolocks(&utc, seconds);
        EXPECT_TRUE(utc.tm_mon >= 0 && utc.tm_mon < 12 && utc.tm_mday >= 1 && utc.tm_mday <= 31) << text_of(utc);
    }
    EXPECT_EQ(nullptr, KovaGmtimeNolocks(nullptr, 0));
}

TEST(CalendarNoLocks, ReadsTheClock) {
    const ClockAt clock(951782400, 999'000'000, "CET-1");
    struct tm utc {};
    EXPECT_EQ(951782400, KovaGetGMTTimeNoLocks(&utc));
    EXPECT_EQ("2000-02-29 00:00:00 wday 2 yday 59 dst 0", text_of(utc));
    KovaSysTime compact{};
    compact.millisecond = 5;
    EXPECT_EQ(951782400, KovaGMTSystimeNoLocks(&compact));
    EXPECT_EQ("2000-02-29 00:00:00.000 wday 2", text_of(compact));
    EXPECT_EQ(0, KovaGMTSystimeNoLocks(nullptr));
}

TEST(CalendarNoLocks, KnowsLeapYears) {
    for (const std::uint32_t year : {2000U, 2024U, 4000U}) EXPECT_EQ(1U, KovaIsLeapYear(year)) << year;
    for (const std::uint32_t year : {1900U, 2100U, 2023U}) EXPECT_EQ(0U, KovaIsLeapYear(year)) << year;
}

TEST(CalendarTime, ConvertsInBothZonesOfTheYear) {
    constexpr char kZone[] = "CET-1CEST,M3.5.0,M10.5.0/3";
    const struct {
        time_t seconds;
        const char* local;
        std::uint32_t daylight_saving;
        const char* utc;
    } cases[] = {
        {1704067199, "2024-01-01 00:59:59.999 wday 1", 0, "2023-12-31 23:59:59.999 wday 0"},
        {1719791999, "2024-07-01 01:59:59.999 wday 1", 1, "2024-06-30 23:59:59.999 wday 0"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.utc);
        const ClockAt clock(c.seconds, 999'999'999, kZone);
        KovaSysTime local{};
        KovaSysTime utc{};
        std::uint32_t daylight_saving = 7;
        EXPECT_EQ(0U, KOVA_LocalSystimeGet(&local, &daylight_saving));
        EXPECT_EQ(0U, KOVA_GMT_SystimeGet(&utc));
        EXPECT_EQ(c.local, text_of(local));
        EXPECT_EQ(c.daylight_saving, daylight_saving);
        EXPECT_EQ(c.utc, text_of(utc));

        struct tm broken_down {};
        struct tm converted_to_local {};
        EXPECT_EQ(0U, KOVA_GetGMTTime(&broken_down));
        EXPECT_EQ(&converted_to_local, KOVA_Conver2LocalTime(&broken_down, &converted_to_local));
        EXPECT_EQ(local.hour, converted_to_local.tm_hour);
        EXPECT_EQ(local.day, converted_to_local.tm_mday);
    }
}

TEST(CalendarTime, ReportsMissingOutputsAndAFailedClock) {
    const ClockAt clock(0);
    KovaSysTime time{};
    time.year = 1;
    std::uint32_t daylight_saving = 7;
    log_recorder().clear();
    EXPECT_EQ(22U, KOVA_LocalSystimeGet(nullptr, &daylight_saving));
    EXPECT_EQ(22U, KOVA_LocalSystimeGet(&time, nullptr));
    EXPECT_EQ(22U, KOVA_GMT_SystimeGet(nullptr));
    g_clock.fails = true;
    EXPECT_EQ(0xFFFFFFFFU, KOVA_LocalSystimeGet(&time, &daylight_saving));
    EXPECT_EQ(0xFFFFFFFFU, KOVA_GMT_SystimeGet(&time));
    EXPECT_EQ(1, time.year);
    EXPECT_EQ(7U, daylight_saving);
    const std::vector<LoggedMessage> expected = {
        error_message(kGeneral, "Base", "[KOVA_LocalSystimeGet] input invalid."),
        error_message(kGeneral, "Base", "[KOVA_LocalSystimeGet] input invalid."),
        error_message(kGeneral, "Base", "[KOVA_GMT_SystimeGet] input invalid."),
        error_message(kGeneral, "Base", "[KOVA_LocalSystimeGet] gettimeofday error: 1."),
        error_message(kGeneral, "Base", "[KOVA_GMT_SystimeGet] gettimeofday error: 1."),
    };
    EXPECT_EQ(expected, log_recorder().take());
}

TEST(UpTime, StoresWholeSecondsAndJudgesTheScan) {
    const struct {
        const char* file;
        std::uint32_t result, seconds;
        const char* message;
    } cases[] = {
        {"4294967295.07 1.00\n", 0, 4294967295U, nullptr},
        {"12 34\n", 1, 99, "[KovaGetUpTime]fscanf_s unsuccessful, ret:1"},
        {"up\n", 127, 99, "[KovaGetUpTime]fscanf_s unsuccessful, ret:0"},
        {"", 0xFFFFFFFFU, 99, "[KovaGetUpTime]fscanf_s unsuccessful, ret:-1"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.file);
        const CoveredFile uptime("/proc/uptime", c.file);
        std::uint32_t seconds = 99;
        log_recorder().clear();
        EXPECT_EQ(c.result, KovaGetUpTime(&seconds));
        EXPECT_EQ(c.seconds, seconds);
        std::vector<LoggedMessage> expected;
        if (c.message != nullptr) expected.push_back(error_message(kUpTime, "Base", c.message));
        EXPECT_EQ(expected, log_recorder().take());
    }
}

}  // namespace
}  // namespace kova::test
