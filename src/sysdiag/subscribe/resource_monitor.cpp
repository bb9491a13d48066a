// What the daemon does for the subscriptions of the node, as its region tells.
#include "base/log_message.h"
#include "base/result.h"
#include "kova/resource_attach.h"
#include "kova/resource_subscription.h"
#include "resource/region_access.h"

using kova::attached_region;
using kova::kFailed;
using kova::kIdRegion;
using kova::kOk;
using kova::load;

uint32_t KOVA_GetMemUsageCycle(uint32_t* cycle) {
    if (cycle == nullptr) {
        KovaDLogWrite(KOVA_LOG_STARTUP(kIdRegion), "[KOVA_GetMemUsageCycle] Input parameters invalid.");
        return kFailed;
    }
    const KovaResourceRegion* const region = attached_region();
    if (region == nullptr) {
        *cycle = KOVA_MEM_USAGE_CYCLE_DEFAULT;
        KOVA_ResourceInfoInitAgent();
        return kFailed;
    }
    const uint32_t published = load(region->memUsageCycle);
    *cycle = published != 0 ? published : KOVA_MEM_USAGE_CYCLE_DEFAULT;
    return kOk;
}

uint32_t KOVA_GetResourceMonitorStatus(int32_t type) {
    if (type != static_cast<int32_t>(KOVA_SUBSCRIBE_DATA_PLANE_CPU)) {
        KovaDLogWrite(KOVA_LOG_STARTUP(kIdRegion), "Input parameters invalid.");
        return 0;
    }
    const KovaResourceRegion* const region = attached_region();
    if (region == nullptr) {
        KOVA_ResourceInfoInitAgent();
        return 0;
    }
    return load(region->resourceMonitorStatus) != 0 ? 1 : 0;
}
