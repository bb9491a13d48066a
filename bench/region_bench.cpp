// Accessors of the attached region against the loads and scans that they cannot do without. A bare load knows where the
// field is and asks nothing.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>
#include <cstdint>
#include <cstdlib>
#include <functional>

#include "bare_region.h"
#include "kova/data_plane_cpu.h"
#include "kova/resource_attach.h"
#include "kova/system_usage.h"
#include "kova_platform/process_globals.h"
#include "side_by_side.h"

namespace kova::bench {
namespace {

constexpr std::uint32_t kCalls = 100'000;  // a single one is shorter than the clock can tell
constexpr std::uint64_t kScans = 2000;
constexpr double kAccessorGoal = 1.5;

// A region as the daemon makes it, with a thread in every entry of the table: eight processes, sixteen cores.
KovaResourceRegion& attached_region() {
    ::close(::shm_open(KOVA_RESOURCE_REGION_NAME, O_RDWR | O_CREAT, 0660));
    KOVA_ResourceInfoInitAgent();
    if (GetResourceInitAgentState() != 1) std::abort();
    KovaResourceRegion& region = *g_KovaResourceInfoAgent;
    region.memThreshold = 80;
    region.memRestore = 70;
    for (std::uint32_t i = 0; i < KOVA_THREAD_TICK_ENTRIES; ++i) {
        region.threadTickTable[i] = {
            .coreId = i % 16, .pid = 100 + i / 16, .tid = 1000 + i, .reserved = 0, .cpuTick = 0};
    }
    return region;
}

// Nothing waits for what a call stores, so that calls may overlap as they do in a busy program.
template <typename Call>
std::function<void()> calls(Call call) {
    return [call] {
        std::uint32_t usage = 0;
        for (std::uint32_t i = 0; i < kCalls; ++i) call(i, &usage);
        benchmark::DoNotOptimize(usage);
    };
}

void cpu_usage(benchmark::State& state) {
    static const KovaResourceRegion& region = attached_region();
    compare(state, {.ours = calls([](std::uint32_t, std::uint32_t* usage) { KOVA_GetSysCpuUsage(usage); }),
                    .theirs = calls([](std::uint32_t, std::uint32_t* usage) { bare_load(&region.sysCpuUsage, usage); }),
                    .goal = kAccessorGoal});
}

void core_usage(benchmark::State& state) {
    static const KovaResourceRegion& region = attached_region();
    compare(state, {.ours = calls([](std::uint32_t i, std::uint32_t* usage) {
                        *usage = KOVA_GetDataPlaneCpuUsageByCore(i % KOVA_DATA_PLANE_CORES);
                    }),
                    .theirs = calls([](std::uint32_t i, std::uint32_t* usage) {
                        bare_load(&region.coreCpuUsage[i % KOVA_DATA_PLANE_CORES], usage);
                    }),
                    .goal = kAccessorGoal});
}

// The thread of the last entry: the whole table is looked through.
void thread_tick(benchmark::State& state) {
    static KovaResourceRegion& region = attached_region();
    const auto ours = [] {
        for (std::uint64_t i = 0; i < kScans; ++i) KOVA_UpdateDataPlaneCpuUsage(15, 107, 1127, i);
    };
    const auto theirs = [] {
        for (std::uint64_t i = 0; i < kScans; ++i) bare_scan(region.threadTickTable, 15, 107, 1127, i);
    };
    compare(state, {.ours = ours, .theirs = theirs});
    if (region.threadTickTable[127].cpuTick != kScans - 1) std::abort();
}

BENCHMARK(cpu_usage)->Name("CPU usage of the node/bare load and a call")->UseManualTime()->Iterations(1000);
BENCHMARK(core_usage)->Name("usage of a data-plane core/bare load and a call")->UseManualTime()->Iterations(1000);
BENCHMARK(thread_tick)->Name("report of a data-plane thread, full table/bare scan")->UseManualTime()->Iterations(2000);

}  // namespace
}  // namespace kova::bench
