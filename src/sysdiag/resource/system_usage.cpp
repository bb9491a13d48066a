// CPU and memory figures of the node: accessors over single fields of the region.
//
// An accessor that finds no region stores its default, has the process attached and fails, even when that succeeded.
#include "kova/system_usage.h"

#include "base/log_message.h"
#include "base/result.h"
#include "kova/process_info.h"
#include "kova/resource_attach.h"
#include "resource/region_access.h"

using kova::attached_region;
using kova::is_attached;
using kova::kFailed;
using kova::kIdGeneral;
using kova::kIdRegion;
using kova::kOk;
using kova::load;
using kova::store;

uint32_t KOVA_GetSysCpuUsage(uint32_t* usage) {
    return kova::read_figure(usage, &KovaResourceRegion::sysCpuUsage);
}

uint32_t KOVA_GetSysMemUsage(uint32_t* usage) {
    if (usage == nullptr) {
        KovaDLogWrite(KOVA_LOG_STARTUP(kIdRegion), "Input parameters invalid.");
        return kFailed;
    }
    const KovaResourceRegion* const region = attached_region();
    if (region == nullptr) {
        *usage = 0;
        KOVA_ResourceInfoInitAgent();
        return kFailed;
    }
    if (KovaIsMemReady() != 1) {
        *usage = 0;
        return KOVA_MEM_NOT_READY;
    }
    *usage = load(region->sysMemUsage);
    return kOk;
}

uint32_t KOVA_GetSysMemInfo(uint64_t* first, uint64_t* second) {
    if (first == nullptr || second == nullptr) {
        KovaDLogWrite(KOVA_LOG_STARTUP(kIdRegion), "Input parameters invalid.");
        return kFailed;
    }
    *first = 0;
    *second = 0;
    const KovaResourceRegion* const region = attached_region();
    if (region == nullptr) {
        KOVA_ResourceInfoInitAgent();
        return kFailed;
    }
    if (KovaIsMemReady() != 1) return KOVA_MEM_NOT_READY;
    const uint32_t first_figure = load(region->memInfoFirst);
    if (first_figure == 0) return KOVA_MEM_NOT_READY;
    *first = first_figure;
    *second = load(region->memInfoSecond);
    return kOk;
}

uint32_t KOVA_GetSysMemThreshold(uint32_t* threshold, uint32_t* restore) {
    if (threshold == nullptr || restore == nullptr) return KOVA_MEM_BAD_ARGUMENT;
    if (!is_attached()) {
        KOVA_ResourceInfoInitAgent();
        KovaDLogWrite(KOVA_LOG_STARTUP(kIdRegion), "[KOVA_GetSysMemThreshold] resourceInfo not ready!");
        return KOVA_MEM_NOT_READY;
    }
    const KovaResourceRegion* const region = load(g_KovaResourceInfoAgent);
    if (region == nullptr) return KOVA_MEM_NOT_READY;
    const uint32_t overload_at = load(region->memThreshold);
    const uint32_t restore_at = load(region->memRestore);
    if (overload_at == 0 || restore_at == 0) {
        KovaDLogWrite(KOVA_LOG_STARTUP(kIdRegion),
                      "[KOVA_GetSysMemThreshold] info not ready! threshold:%u, restore:%u.", overload_at, restore_at);
        return KOVA_MEM_NOT_READY;
    }
    *threshold = overload_at;
    *restore = restore_at;
    return kOk;
}

uint32_t KOVA_GetMemOvloadState(void) {
    if (!is_attached()) {
        KovaDLogWrite(KOVA_LOG_STARTUP(kIdRegion), "KovaResourceInitAgent not OK.");
        KOVA_ResourceInfoInitAgent();
        return 0;
    }
    const KovaResourceRegion* const region = load(g_KovaResourceInfoAgent);
    return region != nullptr ? load(region->memOverloadState) : 0;
}

uint32_t KOVA_GetReservedVirtualMem(uint32_t* value) {
    return kova::read_figure(value, &KovaResourceRegion::reservedVirtualMem);
}

uint32_t KOVA_SetReservedMem(uint32_t value) {
    if (!is_attached()) {
        KOVA_ResourceInfoInitAgent();
        return kFailed;
    }
    KovaResourceRegion* const region = load(g_KovaResourceInfoAgent);
    if (region == nullptr) {
        KovaDLogWrite(KOVA_LOG_STARTUP(kIdRegion), "[KOVA_SetReservedMem] g_KovaResourceInfoAgent is NULL");
        return kFailed;
    }
    store(region->reservedMem, value);
    // Release: who reads the flag with acquire finds the value.
    kova::store_release<uint8_t>(region->reservedMemSet, 1);
    return kOk;
}

uint32_t KOVA_SetReservedVirtualMem(uint32_t value) {
    if (!is_attached()) {
        KOVA_ResourceInfoInitAgent();
        return kFailed;
    }
    KovaResourceRegion* const region = load(g_KovaResourceInfoAgent);
    if (region == nullptr) {
        KovaDLogWrite(KOVA_LOG_STARTUP(kIdRegion), "[KOVA_SetReservedVirtualMem] g_KovaResourceInfoAgent is NULL");
        return kFailed;
    }
    store(region->reservedVirtualMem, value);
    return kOk;
}

uint32_t KOVA_GetOOMThreshold(uint32_t* value) {
    if (value == nullptr) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "[KOVA_GetOOMThreshold] Input parameters invalid.");
        return kFailed;
    }
    *value = KovaGetOOMThreshold();
    return kOk;
}
