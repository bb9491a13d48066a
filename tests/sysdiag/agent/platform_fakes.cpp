// The fakes themselves; the agent finds them by name.
#include "platform_fakes.h"

#include "kova/process_info.h"
#include "kova_platform/process_globals.h"

using kova::test::g_platform;

struct Publisher* g_KovaPublisherAgent = nullptr;

KovaVellClient* KovaCreateVellClient(const char*, const char*, KovaVellOptions, KovaLinkNotify) {
    if (g_platform.fails("KovaCreateVellClient")) return nullptr;
    ++g_platform.clients;
    return new KovaVellClient;
}

void KovaDestroyVellClientHandle(KovaVellClient* client) {
    --g_platform.clients;
    delete client;
}

uint32_t ZIB_ConnRpcCall(KovaVellClient*, const char*, const void*, uint32_t, const KovaRpcCallback*, void*) {
    return g_platform.fails("ZIB_ConnRpcCall") ? 77 : 0;
}

uint32_t ZIB_PassThroughRpcCall(KovaVellClient*, const char*, const void*, uint32_t, const KovaRpcCallback*, void*) {
    return g_platform.fails("ZIB_PassThroughRpcCall") ? 77 : 0;
}

KovaSchThread* KovaSchThreadCreate(uint32_t kind) {
    static KovaSchThread thread;
    return g_platform.fails("KovaSchThreadCreate") || kind != 2 ? nullptr : &thread;
}

ZibTimerAttr* ZIB_TimerCreateAttr(void) {
    if (g_platform.fails("ZIB_TimerCreateAttr")) return nullptr;
    ++g_platform.attributes;
    return new ZibTimerAttr;
}

uint32_t ZIB_TimerSetAttr(ZibTimerAttr* attr, uint32_t id, const void* value, uint32_t length) {
    attr->values[id] = {static_cast<const char*>(value), length};
    return g_platform.fails("ZIB_TimerSetAttr") ? 1U << id : 0;
}

void ZIB_TimerDestroyAttr(ZibTimerAttr* attr) {
    --g_platform.attributes;
    delete attr;
}

ZibTimer* ZIB_TimerCreate(KovaSchThread*, const ZibTimerAttr* attr) {
    if (g_platform.fails("ZIB_TimerCreate")) return nullptr;
    ++g_platform.timers;
    auto* const timer = new ZibTimer{};
    std::memcpy(&timer->handler, attr->values.at(0).data(), sizeof timer->handler);
    std::memcpy(&timer->period_ms, attr->values.at(2).data(), sizeof timer->period_ms);
    return g_platform.timer = timer;
}

uint32_t ZIB_TimerStart(ZibTimer* timer) {
    if (g_platform.fails("ZIB_TimerStart")) return 11;
    timer->is_running = true;
    return 0;
}

uint32_t ZIB_TimerStop(ZibTimer* timer) {
    if (g_platform.fails("ZIB_TimerStop")) return 11;
    timer->is_running = false;
    return 0;
}

uint32_t ZIB_TimerResize(ZibTimer* timer, uint32_t periodMs) {
    if (g_platform.fails("ZIB_TimerResize")) return 11;
    timer->period_ms = periodMs;
    return 0;
}

void ZIB_TimerDestroy(ZibTimer* timer) {
    --g_platform.timers;
    if (g_platform.timer == timer) g_platform.timer = nullptr;
    delete timer;
}

// The agent's own, replaced: a name that cannot be read.
uint32_t KovaGetProcName(int32_t, char* buffer, uint32_t length) {
    if (g_platform.fails("KovaGetProcName")) return 127;
    std::strncpy(buffer, "tester", length);
    return 0;
}
