// The node's CPU and memory figures: readiness, thresholds, averages, smoothing, shares of a process.
#include <random>
#include <string>

#include "kova/cpu_smoothing.h"
#include "kova/process_cpu.h"
#include "kova/system_usage.h"
#include "region_fixture.h"

namespace kova::test {
namespace {

constexpr char kMemoryMarker[] = "/usr/local/etc/kova_mem.cfg";
constexpr char kSmoothMarker[] = "/usr/local/etc/kova_cpu_smooth.cfg";

class Figures : public RegionTest {};

TEST_F(Figures, MemoryBecomesReadyOnceAndForEver) {
    attach();
    region().memInfoFirst = 1;
    const auto answers = [](const char* uptime, auto then) {
        const CoveredFile covered("/proc/uptime", uptime);
        in_child(then);
    };
    std::uint32_t usage = 7;
    answers("1.00 1.00\n", [&] {
        EXPECT_EQ(1U, KovaIsMemReady());
        write_file(kMemoryMarker, "");
        EXPECT_EQ(1U, KovaIsMemReady());
    });
    write_file(kMemoryMarker, "");
    answers("719.99 1.00\n", [&] {
        std::uint64_t first = 7;
        std::uint64_t second = 7;
        EXPECT_EQ(0U, KOVA_SetReservedVirtualMem(1));
        for (int i = 0; i < 2; ++i) EXPECT_EQ(0x00600101U, KOVA_GetSysMemUsage(&usage));
        EXPECT_EQ(0U, usage);
        EXPECT_EQ(0x00600101U, KOVA_GetSysMemInfo(&first, &second));
        EXPECT_EQ(0U, first + second);
        EXPECT_EQ(0U, KOVA_SetReservedMem(9));
        EXPECT_EQ(0U, KOVA_GetSysMemUsage(&usage));
        EXPECT_EQ(0U, KOVA_GetSysMemInfo(&first, &second));
        region().reservedMemSet = 0;
        EXPECT_EQ(1U, KovaIsMemReady());
    });
    EXPECT_EQ(9U, region().reservedMem);
    answers("720.00 1.00\n", [&] {
        EXPECT_EQ(0x00600101U, KOVA_GetSysMemUsage(&usage));
        EXPECT_EQ(0U, KOVA_GetSysMemUsage(&usage));
    });
    answers("soon\n", [&] {
        EXPECT_EQ(0U, KovaIsMemReady());
        EXPECT_EQ(region_error("[KovaIsMemReady] get /proc/uptime unsuccessful, ret:127"),
                  log_recorder().take().back());
        detach();
        EXPECT_EQ(0U, KovaIsMemReady());
    });
}

TEST_F(Figures, ThatAreNotPublishedYetAreNotHandedOut) {
    attach();
    region().memThreshold = 80;
    region().memInfoSecond = 5;
    in_child([] {
        std::uint32_t threshold = 7;
        std::uint64_t figures[] = {7, 7};
        EXPECT_EQ(0x00600101U, KOVA_GetSysMemThreshold(&threshold, &threshold));
        EXPECT_EQ(7U, threshold);
        EXPECT_EQ(Messages{region_error("[KOVA_GetSysMemThreshold] info not ready! threshold:80, restore:0.")},
                  log_recorder().take());
        EXPECT_EQ(0x00600101U, KOVA_GetSysMemInfo(&figures[0], &figures[1]));
        EXPECT_EQ(0U, figures[0] + figures[1]);
    });
}

TEST_F(Figures, NullArgumentsAreReportedAndAttachNothing) {
    std::uint64_t figure = 0;
    const std::uint32_t failures[] = {KOVA_GetSysCpuUsage(nullptr),
                                      KOVA_GetSysMemUsage(nullptr),
                                      KOVA_GetSysMemInfo(nullptr, &figure),
                                      KOVA_GetSysMemInfo(&figure, nullptr),
                                      KOVA_GetReservedVirtualMem(nullptr),
                                      KOVA_GetCpuTimeSpanUsage(1, nullptr),
                                      KOVA_ScanSpecificProcStatByID(1, nullptr)};
    for (const std::uint32_t code : failures) EXPECT_EQ(1U, code);
    EXPECT_EQ(0, KOVA_ReadCpuJiffy(nullptr));
    EXPECT_EQ(-1, KOVA_TaskCpuReadBuf("/proc/stat", nullptr, 1020));
    EXPECT_EQ(Messages(9, region_error("Input parameters invalid.")), log_recorder().take());
    EXPECT_EQ(0x00600100U, KOVA_GetSysMemThreshold(nullptr, nullptr));
    EXPECT_EQ(2U, KOVA_GetOOMThreshold(nullptr) + KOVA_GetSysCpuUsageSmooth(nullptr));
    EXPECT_EQ((Messages{base_error("[KOVA_GetOOMThreshold] Input parameters invalid."),
                        base_error("[KOVA_GetSysCpuUsageSmooth]Input parameters invalid.")}),
              log_recorder().take());
    EXPECT_EQ(0U, GetResourceInitAgentState());
}

// The model keeps every sample ever taken; the region only the last 360.
TEST_F(Figures, ASpanIsTheMeanOfItsNewestSamples) {
    attach();
    std::mt19937 random(20'240'601);
    const auto below = [&](std::uint32_t limit) { return static_cast<std::uint32_t>(random() % limit); };
    std::vector<std::uint32_t> taken;
    for (int round = 0; round < 3000; ++round) {
        for (auto left = below(4); left != 0; --left) {
            const auto sample = static_cast<std::uint8_t>(below(101));
            region().cpuUsageSmoothHistory[taken.size() % 360] = sample;
            region().cpuUsageHistory[taken.size() % 360] = static_cast<std::uint8_t>(100 - sample);
            taken.push_back(sample);
        }
        const std::uint32_t span = 1 + below(360);
        const std::uint32_t interval = 1 + below(round % 2 == 0 ? 5000 : 400);
        region().cpuSampleCount = static_cast<std::uint32_t>(taken.size());
        region().cpuSampleInterval = interval;
        const std::size_t wanted = interval > span * 1000 ? 1 : span * 1000 / interval;
        std::uint32_t usage = 7;
        std::uint32_t smoothed = 7;
        const std::uint32_t code = KOVA_GetCpuTimeSpanUsage(span, &usage);
        EXPECT_EQ(code, KOVA_GetCpuTimeSpanUsageSmooth(span, &smoothed));
        ASSERT_EQ(wanted > taken.size() ? 1U : 0U, code) << round;
        std::size_t sum = 0;
        if (code == 0) {
            for (std::size_t i = 0; i < wanted; ++i) sum += taken[taken.size() - 1 - i % 360];
        }
        ASSERT_EQ(code == 0 ? sum / wanted : 0, smoothed) << round;
        ASSERT_EQ(code == 0 ? (100 * wanted - sum) / wanted : 0, usage) << round;
    }
}

TEST_F(Figures, ASpanThatCannotBeServedSaysWhy) {
    attach();
    std::uint32_t usage = 7;
    for (const std::uint32_t span : {0U, 361U}) EXPECT_EQ(1U, KOVA_GetCpuTimeSpanUsage(span, &usage));
    EXPECT_EQ(7U, usage);
    EXPECT_EQ(1U, KOVA_GetCpuTimeSpanUsage(360, &usage));
    EXPECT_EQ(0U, usage);
    region().cpuSampleInterval = 1000;
    region().cpuSampleCount = 50;
    EXPECT_EQ(1U, KOVA_GetCpuTimeSpanUsage(60, &usage));
    const auto invalid = region_error("Input parameters invalid.");
    EXPECT_EQ((Messages{invalid, invalid, region_error("Cpu usage invalid sample interval."),
                        info_message("Cpu usage sample little 60 50.")}),
              log_recorder().take());
}

TEST_F(Figures, TheCurveLowersModerateLoads) {
    const std::uint32_t points[][2] = {{0, 1},   {6, 1},   {7, 1},    {10, 2},         {20, 5},  {30, 11},
                                       {40, 18}, {50, 27}, {60, 38},  {70, 51},        {80, 65}, {90, 82},
                                       {95, 90}, {99, 98}, {100, 99}, {0xFFFFFFFF, 99}};
    for (const auto& [usage, smoothed] : points) EXPECT_EQ(smoothed, KOVA_CpuSmoothAlgo(usage)) << usage;
}

TEST_F(Figures, SmoothingFollowsItsMarkerFile) {
    EXPECT_EQ(20U, KOVA_ChangeToSmoothCpu(20));
    make_object();
    EXPECT_EQ(20U, KOVA_ChangeToSmoothCpu(20));
    EXPECT_EQ(0U, GetResourceInitAgentState());  // nothing to do with the region
    ::unlink(kObject);
    write_file(kSmoothMarker, "0");
    EXPECT_EQ(20U, KOVA_ChangeToSmoothCpu(20));
    EXPECT_EQ(Messages{base_error("[KOVA_ChangeToSmoothCpu] ResourceInfoInit failed.")}, log_recorder().take());
    make_object();
    region().sysCpuUsage = 50;
    EXPECT_EQ(10U, KOVA_ChangeToSmoothCpu(20));  // goes on with what it attached
    const std::uint32_t nodes[][2] = {{100, 99}, {50, 27}, {3, 1}, {0, 0}};
    for (const auto& [node, smoothed] : nodes) {
        std::uint32_t usage = 7;
        region().sysCpuUsage = node;
        EXPECT_EQ(0U, KOVA_GetSysCpuUsageSmooth(&usage));
        EXPECT_EQ(smoothed, usage) << node;
    }
    region().sysCpuUsage = 3;
    EXPECT_EQ(1U, KOVA_ChangeToSmoothCpu(3));
    ::unlink(kSmoothMarker);
    EXPECT_EQ(3U, KOVA_ChangeToSmoothCpu(3));
}

std::string stat_line(std::uint64_t user, std::uint64_t system) {
    return "5 (a) b (c) S 1 2 3 4 5 6 7 8 9 10 " + std::to_string(user) + " " + std::to_string(system) + " 0 0 20 0 1";
}

TEST_F(Figures, AProcessIsMeasuredSinceItsRegistration) {
    const auto pid = static_cast<std::uint32_t>(::getpid());
    const auto with_files = [&](const std::string& node, const std::string& process, auto call) {
        const CoveredFile covered_node("/proc/stat", node);
        const CoveredFile covered_process("/proc/" + std::to_string(pid) + "/stat", process);
        return call(pid);
    };
    const auto usage = [&](const std::string& node, const std::string& process) {
        return with_files(node, process, KOVA_GetProcessCpuUsage);
    };
    const std::string start = "cpu  100 1 2 3 4 5 6 879 77 88\ncpu0 1 1 1 1\n";
    EXPECT_EQ(0U, with_files(start, stat_line(100, 50), KOVA_RegProcessCpuUsageMon));
    EXPECT_EQ(pid, g_gKovaProcessCpuUseAgent.regPid);
    EXPECT_EQ(1000U, g_gKovaProcessCpuUseAgent.regTotalTicks);
    EXPECT_EQ(150U, g_gKovaProcessCpuUseAgent.regProcTicks);
    EXPECT_EQ(25U, usage("cpu 1500 0 0 500\n", stat_line(300, 109)));
    EXPECT_EQ(50U, usage("cpu 2500 0 0 500 ", stat_line(1000, 150)));  // since then, not since the last query
    EXPECT_EQ(0U, usage("cpu 2500 0 0 500\n", stat_line(100, 49)));
    EXPECT_EQ(0U, usage(start, stat_line(1000, 0)));
    const char* const bad_nodes[] = {"", "cpu", "cpu 1 2 3\n", "intr 1 2 3 4 5\n"};
    for (const char* node : bad_nodes) EXPECT_EQ(0U, usage(node, stat_line(1000, 0))) << node;
    const char* const bad_processes[] = {"", "5 (name", "5 (name)", "5 (name) ", "5 (n) S 1 2 3 4 5 6 7 8 9 10 11"};
    for (const char* process : bad_processes) {
        EXPECT_EQ(1U, with_files(start, process, KOVA_RegProcessCpuUsageMon)) << process;
    }
    EXPECT_EQ(Messages{}, log_recorder().take());
    EXPECT_EQ(0U, KOVA_GetProcessCpuUsage(0x7FFFFFFF));
    EXPECT_EQ(Messages{region_error("KOVATaskCpuReadBuf Get realpath unsuccessful. errno=2.")}, log_recorder().take());
}

TEST_F(Figures, AFileIsReadToTheBuffersEnd) {
    char buffer[1021] = {};
    buffer[1020] = '?';
    write_file("/run/long", std::string(5000, 'x'));
    EXPECT_EQ(1019, KOVA_TaskCpuReadBuf("/run/long", buffer, 2000));
    EXPECT_EQ(std::string(1019, 'x'), buffer);
    EXPECT_EQ('?', buffer[1020]);
    EXPECT_EQ(-1, KOVA_TaskCpuReadBuf("/run", buffer, 1020));
    EXPECT_STREQ("", buffer);
}

}  // namespace
}  // namespace kova::test
