// CPU accounting of the data plane: what threads and processes report, and what the daemon makes of it.
//
// Once the process is attached nothing here takes a lock. The pointers into the region are the process's own variables,
// which another library of it may have set: each is looked at before it is used.
#include "kova/data_plane_cpu.h"

#include <unistd.h>
#include <algorithm>

#include "base/landing_pad.h"
#include "base/log_message.h"
#include "base/result.h"
#include "kova/resource_attach.h"
#include "kova_platform/bounded_string.h"
#include "resource/data_plane_tables.h"
#include "resource/region_access.h"

namespace kova {
namespace {

constexpr std::size_t kPathSize = 100;
constexpr uint32_t kMostPercent = 100;

bool process_exists(uint32_t pid) {
    char path[kPathSize];
    return sprintf_s(path, sizeof path, "/proc/%d/", static_cast<int>(pid)) > 0 && ::access(path, F_OK) == 0;
}

// Answers false for this call even when the process is attached by it.
bool attached_before() {
    if (is_attached()) return true;
    KOVA_ResourceInfoInitAgent();
    return false;
}

}  // namespace
}  // namespace kova

using kova::attached_before;
using kova::kFailed;
using kova::kIdGeneral;
using kova::kIdRegion;
using kova::kOk;
using kova::load;

void KOVA_UpdateDataPlaneCpuUsage(uint32_t core, uint32_t pid, uint32_t tid, uint64_t tick) {
    if (!attached_before()) return;
    KovaThreadTick* const table = load(g_CpuUsageIdelTickAgent);
    if (table == nullptr) return;
    if (kova::record_tick(table, {.core = core, .pid = pid, .tid = tid}, tick)) return;
    KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "update cputick unsuccessful, corid:%d pid:%d tid:%d",
                  static_cast<int>(core), static_cast<int>(pid), static_cast<int>(tid));
}

void KOVA_UpdateDataPlaneCpuIdelTick(void) {
    KovaDLogWrite(KOVA_LOG_STARTUP(kIdRegion), "Is an old api, the new api is KOVA_UpdateDataPlaneCpuUsage");
}

uint32_t KOVA_JudgeDataPlaneCore(uint32_t core) {
    if (!attached_before()) return 1;
    if (core >= KOVA_DATA_PLANE_CORES) {
        KovaDLogWrite(KOVA_LOG_STARTUP(kIdRegion), "[KOVA_JudgeDataPlaneCore] input coreid exceed limit, coreid=%d",
                      static_cast<int>(core));
        return 1;
    }
    const KovaThreadTick* const table = load(g_CpuUsageIdelTickAgent);
    return table != nullptr && kova::has_thread_on(table, core) ? 0 : 1;
}

// The flag is not asked here, so the pointer itself is read with acquire.
uint32_t KOVA_SearchIndexByThread(uint32_t core, uint32_t pid, uint32_t tid) {
    const KovaThreadTick* const table = kova::load_acquire(g_CpuUsageIdelTickAgent);
    if (table == nullptr) return KOVA_THREAD_TICK_ENTRIES;
    return kova::find_thread(table, {.core = core, .pid = pid, .tid = tid});
}

void KOVA_SearchIndexByThreadAll(void) {
    const KovaThreadTick* const table = kova::load_acquire(g_CpuUsageIdelTickAgent);
    if (table == nullptr) return;
    for (uint32_t i = 0; i < KOVA_THREAD_TICK_ENTRIES; ++i) {
        KovaDLogWrite(KOVA_LOG_STARTUP(kIdRegion), "i =%d, coreid =%d, pid =%d, tid =%d", static_cast<int>(i),
                      static_cast<int>(load(table[i].coreId)), static_cast<int>(load(table[i].pid)),
                      static_cast<int>(load(table[i].tid)));
    }
}

uint32_t KOVA_GetDataPlaneCpuUsageByCore(uint32_t core) {
    if (!attached_before()) return 0;
    if (core >= KOVA_DATA_PLANE_CORES) {
        KovaDLogWrite(KOVA_LOG_STARTUP(kIdRegion), "input coreid exceed limit, coreid=%d", static_cast<int>(core));
        return 0;
    }
    const uint32_t* const usage = load(g_DataPlaneCpuUsageAgent);
    if (usage == nullptr) {
        KovaDLogWrite(KOVA_LOG_STARTUP(kIdRegion), "g_DataPlaneCpuUsageAgent is NULL");
        return 0;
    }
    return load(usage[core]);
}

KOVA_PATCHABLE uint32_t KOVA_GetDataPlaneSampleCycle(void) {
    KOVA_LANDING_PAD();
    if (!attached_before()) return 0;
    if (load(g_DataPlaneCpuUsageAgent) == nullptr) {
        KovaDLogWrite(KOVA_LOG_STARTUP(kIdRegion), "g_DataPlaneCpuUsageAgent is NULL");
        return 0;
    }
    const uint32_t* const cycle = load(g_DataPlaneSampleCycleAgent);
    if (cycle == nullptr) {
        KovaDLogWrite(KOVA_LOG_STARTUP(kIdRegion), "g_DataPlaneSampleCycleAgent is NULL");
        return 0;
    }
    return load(*cycle);
}

KOVA_PATCHABLE uint32_t KOVA_GetDataPlaneProcessCycle(void) {
    KOVA_LANDING_PAD();
    if (!attached_before()) return 0;
    const uint32_t* const cycle = load(g_DataPlaneProcessCycleAgent);
    if (cycle == nullptr) {
        KovaDLogWrite(KOVA_LOG_STARTUP(kIdRegion), "g_DataPlaneProcessCycleAgent is NULL");
        return 0;
    }
    return load(*cycle);
}

void KOVA_UpdateDataPlaneProcessCpuUsage(uint32_t pid, uint32_t usage) {
    if (!attached_before()) return;
    KovaProcessCpuUsage* const table = load(g_DataPlaneProcessCpuUsageAgent);
    if (table == nullptr) {
        KovaDLogWrite(KOVA_LOG_STARTUP(kIdRegion), "g_DataPlaneProcessCpuUsageAgent is NULL");
        return;
    }
    if (kova::record_usage(table, pid, usage)) return;
    KovaDLogWrite(KOVA_LOG_STARTUP(kIdRegion), "update process cpu usage unsuccessful, pid:%d", static_cast<int>(pid));
}

uint32_t KOVA_GetDataPlaneCpuUsage(uint32_t* usage) {
    if (usage == nullptr) {
        KovaDLogWrite(KOVA_LOG_STARTUP(kIdRegion), "Input parameters dataplaneCpuUsage invalid.");
        return kFailed;
    }
    if (!attached_before()) return kFailed;
    const KovaProcessCpuUsage* const table = load(g_DataPlaneProcessCpuUsageAgent);
    if (table == nullptr) {
        KovaDLogWrite(KOVA_LOG_STARTUP(kIdRegion), "g_DataPlaneProcessCpuUsageAgent is NULL");
        return kFailed;
    }
    for (uint32_t i = 0; i < KOVA_PROCESS_CPU_USAGE_ENTRIES; ++i) {
        const uint32_t pid = load(table[i].pid);
        if (pid == 0 || !kova::process_exists(pid)) continue;
        *usage = std::min(load(table[i].usage) / 100, kova::kMostPercent);
        return kOk;
    }
    return kFailed;
}

uint32_t KOVA_GetDataPlaneCpuUsageBlance(uint32_t* usage) {
    return kova::read_figure(usage, &KovaResourceRegion::dataPlaneCpuUsageBalance);
}

KOVA_PATCHABLE void KOVA_GetCputick(uint64_t* tick) {
    KOVA_LANDING_PAD();
    if (tick != nullptr) *tick = 0;
}
