// CPU usage of the node over a span of time.
#include "base/landing_pad.h"
#include "base/log_message.h"
#include "base/result.h"
#include "kova/process_cpu.h"
#include "kova/resource_attach.h"
#include "resource/region_access.h"
#include "resource/sample_average.h"

namespace kova {
namespace {

constexpr uint32_t kLongestSpanSeconds = 360;

}  // namespace
}  // namespace kova

using kova::kFailed;
using kova::kIdRegion;
using kova::kOk;
using kova::load;

KOVA_PATCHABLE uint32_t KOVA_GetCpuTimeSpanUsage(uint32_t span, uint32_t* usage) {
    KOVA_LANDING_PAD();
    return KOVA_GetCpuTimeSpanUsageInner(span, usage, 0);
}

uint32_t KOVA_GetCpuTimeSpanUsageInner(uint32_t span, uint32_t* usage, uint32_t smooth) {
    if (span < 1 || span > kova::kLongestSpanSeconds || usage == nullptr) {
        KovaDLogWrite(KOVA_LOG_STARTUP(kIdRegion), "Input parameters invalid.");
        return kFailed;
    }
    const KovaResourceRegion* const region = kova::attached_region();
    if (region == nullptr) {
        *usage = 0;
        KOVA_ResourceInfoInitAgent();
        return kFailed;
    }
    const uint32_t interval_ms = load(region->cpuSampleInterval);
    if (interval_ms == 0) {
        KovaDLogWrite(KOVA_LOG_STARTUP(kIdRegion), "Cpu usage invalid sample interval.");
        *usage = 0;
        return kFailed;
    }
    const uint32_t count = load(region->cpuSampleCount);
    const uint32_t wanted = kova::samples_in_span(span, interval_ms);
    if (wanted > count) {
        KovaDLogWrite(KOVA_LOG_INFO, "Cpu usage sample little %u %u.", wanted, count);
        *usage = 0;
        return kFailed;
    }
    const uint8_t* const ring = smooth != 0 ? region->cpuUsageSmoothHistory : region->cpuUsageHistory;
    *usage = kova::average_of_newest(ring, count, wanted);
    return kOk;
}
