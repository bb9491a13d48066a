// What the daemon leaves in the region, and what it leaves alone.
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <fstream>
#include <memory>
#include <random>

#include <gtest/gtest.h>

#include "region_feed.h"
#include "resource/cpu_curve.h"

namespace kova::kovad {
namespace {

constexpr std::uint64_t kSecondNs = 1'000'000'000;

using Region = std::unique_ptr<KovaResourceRegion>;

Region zeroed() {
    return std::make_unique<KovaResourceRegion>();
}

std::uint32_t own_pid() {
    return static_cast<std::uint32_t>(::getpid());
}

std::uint32_t dead_pid() {
    const pid_t pid = ::fork();
    if (pid == 0) ::_exit(0);
    ::waitpid(pid, nullptr, 0);
    return static_cast<std::uint32_t>(pid);
}

TEST(RegionFeed, HostileContentsBecomeFiguresThatCanBeTrue) {
    std::mt19937 random(2026);  // NOLINT(cert-msc51-cpp): the same in every run
    for (int round = 0; round < 20; ++round) {
        const Region region = zeroed();
        auto* const bytes = reinterpret_cast<unsigned char*>(region.get());
        for (std::size_t i = 0; i < sizeof *region; ++i) bytes[i] = static_cast<unsigned char>(random());
        const std::uint32_t reserved = region->reservedMem;
        const std::uint8_t reserved_set = region->reservedMemSet;
        RegionFeed feed(*region, {});
        feed.sample_data_plane(5 * kSecondNs);
        feed.sample_data_plane(6 * kSecondNs);
        EXPECT_EQ(0U, region->cpuSampleCount);
        EXPECT_EQ(1000U, region->cpuSampleInterval);
        EXPECT_LE(region->sysCpuUsage, 100U);
        EXPECT_LE(region->sysMemUsage, 100U);
        EXPECT_GT(region->memInfoFirst, region->memInfoSecond);
        EXPECT_LE(region->memOverloadState, 1);
        for (const std::uint32_t usage : region->coreCpuUsage) EXPECT_LE(usage, 100U);
        EXPECT_LE(feed.data_plane_percent(), 100U);
        EXPECT_EQ(reserved, region->reservedMem);
        EXPECT_EQ(reserved_set, region->reservedMemSet);
    }
}

TEST(RegionFeed, MemoryCountsAsReservedOnceItIsSaidToBe) {
    const Region region = zeroed();
    region->reservedMem = 1;  // any more may be more than is used
    RegionFeed feed(*region, {});
    const std::uint32_t total_kib = region->memInfoFirst;
    region->reservedMemSet = 1;
    feed.sample_memory();
    EXPECT_EQ(total_kib - 1, region->memInfoFirst);
}

TEST(RegionFeed, SamplesGoToTheNextSlotOfBothHistories) {
    const Region region = zeroed();
    region->cpuSampleInterval = 1000;
    region->cpuSampleCount = 719;  // what a daemon before left: the next is slot 359
    region->cpuUsageHistory[358] = 77;
    std::ofstream("/usr/local/etc/kova_cpu_smooth.cfg").put('\n');
    RegionFeed feed(*region, {});
    EXPECT_EQ(719U, region->cpuSampleCount) << "history goes on";
    region->cpuUsageHistory[359] = region->cpuUsageSmoothHistory[359] = 200;
    feed.sample_cpu();
    ::unlink("/usr/local/etc/kova_cpu_smooth.cfg");
    feed.sample_cpu();
    EXPECT_EQ(721U, region->cpuSampleCount);
    EXPECT_EQ(77, region->cpuUsageHistory[358]);
    EXPECT_EQ(smoothed_usage(region->cpuUsageHistory[359]), region->cpuUsageSmoothHistory[359]);
    EXPECT_EQ(region->cpuUsageHistory[0], region->cpuUsageSmoothHistory[0]) << "raw without the marker file";
    EXPECT_EQ(region->sysCpuUsage, region->cpuUsageHistory[0]);
    RegionFeed(*region, {.cpu_interval_ms = 500});
    EXPECT_EQ(0U, region->cpuSampleCount) << "samples of another interval are no history";
}

TEST(RegionFeed, FreesEntriesOfTheDeadAfterAWhile) {
    const Region region = zeroed();
    const std::uint32_t dead = dead_pid();
    region->threadTickTable[0] = {.coreId = 3, .pid = dead, .tid = 7, .reserved = 0, .cpuTick = 1};
    region->threadTickTable[1] = {.coreId = 4, .pid = own_pid(), .tid = 8, .reserved = 0, .cpuTick = 0};
    region->processCpuUsageTable[0] = {.pid = dead, .usage = 9'000};
    region->processCpuUsageTable[1] = {.pid = own_pid(), .usage = 4'250};
    RegionFeed feed(*region, {.release_after_s = 10});
    feed.sample_data_plane(1 * kSecondNs);
    region->threadTickTable[1].cpuTick = kSecondNs / 2;
    region->threadTickTable[0].cpuTick = kSecondNs;  // nobody is there to have written this
    feed.sample_data_plane(2 * kSecondNs);
    EXPECT_EQ(0U, region->coreCpuUsage[3]);
    EXPECT_EQ(50U, region->coreCpuUsage[4]);
    EXPECT_EQ(42U, feed.data_plane_percent()) << "of the first that lives";
    feed.sample_data_plane(10 * kSecondNs);
    EXPECT_EQ(dead, region->threadTickTable[0].pid) << "too early";
    feed.sample_data_plane(11 * kSecondNs);
    EXPECT_EQ(0U, region->threadTickTable[0].coreId | region->threadTickTable[0].pid | region->threadTickTable[0].tid);
    EXPECT_EQ(0U, region->processCpuUsageTable[0].pid);
    EXPECT_EQ(own_pid(), region->threadTickTable[1].pid);
    EXPECT_EQ(own_pid(), region->processCpuUsageTable[1].pid);
    region->processCpuUsageTable[1].pid = 0;
    region->threadTickTable[1].cpuTick += 3 * kSecondNs / 4;
    feed.sample_data_plane(12 * kSecondNs);
    EXPECT_EQ(75U, feed.data_plane_percent()) << "balanced, since no process reports";
}

}  // namespace
}  // namespace kova::kovad
