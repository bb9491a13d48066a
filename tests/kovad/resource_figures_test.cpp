// What the daemon computes from /proc and from reported ticks.
#include <gtest/gtest.h>

#include "core_usage.h"
#include "cpu_sample.h"
#include "memory_sample.h"

namespace kova::kovad {
namespace {

constexpr std::uint64_t kAnything = ~std::uint64_t{0};

TEST(CpuUsage, IsWhatIsNeitherIdleNorWaiting) {
    const struct {
        const char* name;
        const char* before;
        const char* after;
        std::optional<std::uint32_t> percent;
    } cases[] = {
        {"one of two processors busy", "cpu  100 0 0 900 0 0 0 0 0 0\n", "cpu  200 0 0 1000 0 0 0 0 0 0\n", 50},
        {"waiting for a disk is idle", "cpu  0 0 0 0 0 0 0 0\n", "cpu  10 0 0 45 45 0 0 0\n", 10},
        {"stolen time, interrupts and nice are busy", "cpu  0 0 0 0 0 0 0 0\n", "cpu  0 10 10 50 0 10 10 10\n", 50},
        {"guest time is not counted twice", "cpu  0 0 0 0 0 0 0 0 0 0\n", "cpu  10 0 0 90 0 0 0 0 10 5\n", 10},
        {"to the nearest", "cpu  0 0 0 0\n", "cpu  2 0 0 1\n", 67},
        {"no tick passed", "cpu  5 0 0 5\n", "cpu  5 0 0 5\n", std::nullopt},
        {"iowait went back", "cpu  0 0 0 100 500 0 0 0\n", "cpu  10 0 0 200 300 0 0 0\n", 100},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const auto before = parse_cpu_times(c.before);
        const auto after = parse_cpu_times(c.after);
        ASSERT_TRUE(before && after);
        EXPECT_EQ(c.percent, cpu_usage_percent(*before, *after));
    }
    for (const char* const text : {"", "cpu0 1 2 3 4\n", "cpu  1 2 3\n", "cpu  1 2 x 4\n", "intr 1 2 3 4\n"}) {
        EXPECT_FALSE(parse_cpu_times(text)) << text;
    }
}

TEST(Memory, FiguresLeaveOutWhatIsReserved) {
    const char text[] = "MemTotal:  1000 kB\nMemFree:   1 kB\nNotMemAvailable: 7 kB\nMemAvailable:  400 kB\n";
    const auto sample = parse_meminfo(text);
    ASSERT_TRUE(sample);
    const struct {
        std::uint32_t reserved, percent, total;
    } cases[] = {{0, 60, 1000}, {200, 50, 800}, {600, 0, 400}, {601, 60, 1000}, {0xFFFFFFFF, 60, 1000}};
    for (const auto& c : cases) {
        const MemoryFigures figures = memory_figures(*sample, c.reserved);
        EXPECT_EQ(c.percent, figures.usage_percent) << c.reserved;
        EXPECT_EQ(c.total, figures.total_kib) << c.reserved;
        EXPECT_EQ(400U, figures.available_kib);
    }
    // A total of 0 would read as "not published".
    EXPECT_EQ(1U, memory_figures({.total_kib = 5, .available_kib = 0}, 5).total_kib);
    EXPECT_EQ(0xFFFFFFFF, memory_figures({.total_kib = 1ULL << 40, .available_kib = 1}, 0).total_kib);
    for (const char* const bad : {"", "MemTotal: 5 kB\n", "MemTotal: 0 kB\nMemAvailable: 0 kB\n", "MemTotal:"}) {
        EXPECT_FALSE(parse_meminfo(bad)) << bad;
    }
}

TEST(CoreUsage, IsTheWorkOfTheCoresThreadsOverTheTime) {
    CoreUsage cores;
    TickTable table{};
    table[0] = {.coreId = 1, .pid = 10, .tid = 11, .reserved = 0, .cpuTick = 5'000};
    table[1] = {.coreId = 1, .pid = 10, .tid = 12, .reserved = 0, .cpuTick = kAnything};
    table[2] = {.coreId = 127, .pid = 20, .tid = 21, .reserved = 0, .cpuTick = 900};
    table[3] = {.coreId = 128, .pid = 20, .tid = 22, .reserved = 0, .cpuTick = 0};
    table[4] = {.coreId = 2, .pid = 0, .tid = 23, .reserved = 0, .cpuTick = 0};
    EXPECT_EQ(0U, cores.sample(table, 1'000).balanced_percent) << "nothing to compare with";

    table[0].cpuTick += 300;
    table[1].cpuTick = 0;  // began anew
    table[2].cpuTick = kAnything;
    table[3].cpuTick = table[4].cpuTick = kAnything;
    CoreFigures figures = cores.sample(table, 1'000);
    EXPECT_EQ(30U, figures.usage_percent[1]);
    EXPECT_EQ(100U, figures.usage_percent[127]);
    EXPECT_EQ(0U, figures.usage_percent[2]);
    EXPECT_EQ(65U, figures.balanced_percent) << "of cores 1 and 127 alone";

    table[0].cpuTick += 600;
    table[1].cpuTick += 600;
    table[2].tid = 99;  // another thread in the entry
    figures = cores.sample(table, 1'000);
    EXPECT_EQ(100U, figures.usage_percent[1]) << "120 % cannot be";
    EXPECT_EQ(0U, figures.usage_percent[127]);
    EXPECT_EQ(0U, cores.sample(table, 0).usage_percent[1]) << "no time passed";
    EXPECT_EQ(100U, whole_percent(10'099));
    EXPECT_EQ(42U, whole_percent(4'299));
}

}  // namespace
}  // namespace kova::kovad
