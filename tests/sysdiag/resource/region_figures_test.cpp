// The node's CPU and memory figures: readiness, averages, smoothing, shares of a process.
#include <random>

#include "kova/cpu_smoothing.h"
#include "kova/process_cpu.h"
#include "kova/system_usage.h"
#include "region_fixture.h"

namespace kova::test {
namespace {

constexpr std::uint32_t kNotReady = 0x00600101;

class Figures : public RegionTest {};

TEST_F(Figures, OfMemoryBecomeReadyOnceAndForEver) {
    attach();
    region().memInfoSecond = 5;
    const auto with_uptime = [](const char* uptime, auto then) {
        const CoveredFile covered("/proc/uptime", uptime);
        expect_in_child(then);
    };
    std::uint32_t usage = 7;
    std::uint64_t figures[] = {7, 7};
    with_uptime("1.00 1.00\n", [] {
        EXPECT_EQ(1U, KovaIsMemReady());
        write_file(kMemoryMarker, "");
        EXPECT_EQ(1U, KovaIsMemReady());
    });
    with_uptime("719.99 1.00\n", [&] {
        EXPECT_EQ(0U, KOVA_SetReservedVirtualMem(1));
        for (int i = 0; i < 2; ++i) EXPECT_EQ(kNotReady, KOVA_GetSysMemUsage(&usage));
        EXPECT_EQ(0U, KOVA_SetReservedMem(9));
        EXPECT_EQ(0U, KOVA_GetSysMemUsage(&usage));
        EXPECT_EQ(kNotReady, KOVA_GetSysMemInfo(&figures[0], &figures[1]));  // not published
        EXPECT_EQ(0U, usage + figures[0] + figures[1]);
        region().reservedMemSet = 0;
        EXPECT_EQ(1U, KovaIsMemReady());
    });
    EXPECT_EQ(9U, region().reservedMem);
    with_uptime("720.00 1.00\n", [&] {
        EXPECT_EQ(kNotReady, KOVA_GetSysMemUsage(&usage));
        EXPECT_EQ(0U, KOVA_GetSysMemUsage(&usage));
    });
    with_uptime("soon\n", [&] {
        EXPECT_EQ(0U, KovaIsMemReady());
        EXPECT_EQ(region_error("[KovaIsMemReady] get /proc/uptime unsuccessful, ret:127"),
                  log_recorder().take().back());
        detach();
        EXPECT_EQ(0U, KovaIsMemReady());
    });
}

// The model keeps every sample ever taken; the region only the last 360.
TEST_F(Figures, OfASpanAreTheMeanOfItsNewestSamples) {
    attach();
    std::mt19937 random(20'240'601);
    const auto below = [&](std::uint32_t limit) { return static_cast<std::uint32_t>(random() % limit); };
    std::vector<std::uint32_t> taken;
    for (int round = 0; round < 3000; ++round) {
        for (auto left = below(4); left != 0; --left) {
            taken.push_back(below(101));
            region().cpuUsageSmoothHistory[(taken.size() - 1) % 360] = static_cast<std::uint8_t>(taken.back());
            region().cpuUsageHistory[(taken.size() - 1) % 360] = static_cast<std::uint8_t>(100 - taken.back());
        }
        const std::uint32_t span = 1 + below(360);
        const std::uint32_t interval = 1 + below(round % 2 == 0 ? 5000 : 400);
        region().cpuSampleCount = static_cast<std::uint32_t>(taken.size());
        region().cpuSampleInterval = interval;
        const std::size_t wanted = interval > span * 1000 ? 1 : span * 1000 / interval;
        std::size_t sum = 0;
        for (std::size_t i = 0; i < wanted && wanted <= taken.size(); ++i) sum += taken[taken.size() - 1 - i % 360];
        std::uint32_t usage = 7;
        std::uint32_t smoothed = 7;
        const std::uint32_t code = KOVA_GetCpuTimeSpanUsage(span, &usage);
        EXPECT_EQ(code, KOVA_GetCpuTimeSpanUsageSmooth(span, &smoothed));
        ASSERT_EQ(wanted > taken.size() ? 1U : 0U, code) << round;
        ASSERT_EQ(sum / wanted, smoothed) << round;
        ASSERT_EQ(code == 0 ? (100 * wanted - sum) / wanted : 0, usage) << round;
    }
}

TEST_F(Figures, AreSmoothedWhereTheMarkerFileIs) {
    const std::uint32_t curve[][2] = {{0, 1}, {7, 1}, {10, 2}, {50, 27}, {80, 65}, {99, 98}, {100, 99}, {~0U, 99}};
    for (const auto& [usage, smoothed] : curve) EXPECT_EQ(smoothed, KOVA_CpuSmoothAlgo(usage)) << usage;
    make_object();
    region().sysCpuUsage = 50;
    EXPECT_EQ(20U, KOVA_ChangeToSmoothCpu(20));
    EXPECT_EQ(0U, GetResourceInitAgentState());  // nothing to do with the region
    write_file(kSmoothMarker, "0");
    EXPECT_EQ(10U, KOVA_ChangeToSmoothCpu(20));  // goes on with what it has attached
    for (const auto& [node, smoothed] : {std::pair{100U, 99U}, {50U, 27U}, {3U, 1U}, {0U, 0U}}) {
        std::uint32_t usage = 7;
        region().sysCpuUsage = node;
        EXPECT_EQ(0U, KOVA_GetSysCpuUsageSmooth(&usage));
        EXPECT_EQ(smoothed, usage) << node;
    }
}

std::string stat_line(int user, int system) {
    return "5 (a) b (c) S 1 2 3 4 5 6 7 8 9 10 " + std::to_string(user) + " " + std::to_string(system) + " 0 0 20 0 1";
}

TEST_F(Figures, OfAProcessCountSinceItsRegistration) {
    const auto with_files = [](const std::string& node, const std::string& process, auto call) {
        const CoveredFile covered_node("/proc/stat", node);
        const CoveredFile covered_process("/proc/" + std::to_string(::getpid()) + "/stat", process);
        return call(static_cast<std::uint32_t>(::getpid()));
    };
    const std::string start = "cpu  100 1 2 3 4 5 6 879 77 88\ncpu0 1 1 1 1\n";
    EXPECT_EQ(0U, with_files(start, stat_line(100, 50), KOVA_RegProcessCpuUsageMon));
    EXPECT_EQ(1000U, g_gKovaProcessCpuUseAgent.regTotalTicks);
    const struct {
        std::string node, process;
        std::uint32_t usage;
    } queries[] = {
        {"cpu 1500 0 0 500\n", stat_line(300, 109), 25},
        {"cpu 2500 0 0 500 ", stat_line(1000, 150), 50},  // since then, not since the last query
        {"cpu 2500 0 0 500\n", stat_line(100, 49), 0},
        {start, stat_line(1000, 0), 0},
        {"cpu 1 2 3\n", stat_line(1000, 0), 0},
        {"intr 1 2 3 4 5\n", stat_line(1000, 0), 0},
    };
    for (const auto& [node, process, usage] : queries) {
        EXPECT_EQ(usage, with_files(node, process, KOVA_GetProcessCpuUsage)) << node;
    }
    for (const char* process : {"", "5 (name", "5 (name)", "5 (name) ", "5 (n) S 1 2 3 4 5 6 7 8 9 10 11"}) {
        EXPECT_EQ(1U, with_files(start, process, KOVA_RegProcessCpuUsageMon)) << process;
    }
    EXPECT_EQ(Messages{}, log_recorder().take());
    EXPECT_EQ(0U, KOVA_GetProcessCpuUsage(0x7FFFFFFF));
}

}  // namespace
}  // namespace kova::test
