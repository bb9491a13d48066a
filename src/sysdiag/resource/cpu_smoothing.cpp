// The figures that go through the curve of cpu_curve.h.
#include "kova/cpu_smoothing.h"

#include <unistd.h>

#include "base/landing_pad.h"
#include "base/log_message.h"
#include "base/result.h"
#include "kova/process_cpu.h"
#include "kova/resource_attach.h"
#include "resource/cpu_curve.h"
#include "resource/region_access.h"

using kova::kFailed;
using kova::kIdGeneral;
using kova::kOk;

uint32_t KOVA_CpuSmoothIsEnable(void) {
    return ::access(kova::kSmoothMarkerFile, F_OK) == 0 ? 1 : 0;
}

uint32_t KOVA_CpuSmoothAlgo(uint32_t usage) {
    return kova::smoothed_usage(usage);
}

uint32_t KOVA_ChangeToSmoothCpu(uint32_t value) {
    if (KOVA_CpuSmoothIsEnable() == 0) return value;
    if (!kova::is_attached()) KOVA_ResourceInfoInitAgent();
    const KovaResourceRegion* const region = kova::load_acquire(g_KovaResourceInfoAgent);
    if (region == nullptr) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "[KOVA_ChangeToSmoothCpu] ResourceInfoInit failed.");
        return value;
    }
    const uint32_t node_usage = kova::load(region->sysCpuUsage);
    if (node_usage == 0) return value;
    return KOVA_CpuSmoothAlgo(node_usage) * value / node_usage;
}

uint32_t KOVA_GetSysCpuUsageSmooth(uint32_t* usage) {
    if (usage == nullptr) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "[KOVA_GetSysCpuUsageSmooth]Input parameters invalid.");
        return kFailed;
    }
    const KovaResourceRegion* const region = kova::attached_region();
    if (region == nullptr) {
        KOVA_ResourceInfoInitAgent();
        *usage = KOVA_ChangeToSmoothCpu(0);
        return kFailed;
    }
    *usage = KOVA_ChangeToSmoothCpu(kova::load(region->sysCpuUsage));
    return kOk;
}

KOVA_PATCHABLE uint32_t KOVA_GetCpuTimeSpanUsageSmooth(uint32_t span, uint32_t* usage) {
    KOVA_LANDING_PAD();
    return KOVA_GetCpuTimeSpanUsageInner(span, usage, 1);
}

uint32_t KOVA_GetProcessCpuUsageSmooth(uint32_t pid) {
    return KOVA_ChangeToSmoothCpu(KOVA_GetProcessCpuUsage(pid));
}
