// Whether the region's memory figures may be used yet.
#include <atomic>

#include "base/landing_pad.h"
#include "base/log_message.h"
#include "base/result.h"
#include "kova/calendar_time.h"
#include "kova/process_info.h"
#include "kova/resource_attach.h"
#include "resource/region_access.h"

namespace kova {
namespace {

constexpr char kMarkerFile[] = "/usr/local/etc/kova_mem.cfg";
constexpr uint32_t kReadyUptimeSeconds = 720;

// Set once, never cleared; guards nothing.
constinit std::atomic<bool> g_memory_ready{false};

// The marker file promises that somebody reserves memory before the figures mean anything.
bool waits_for_reserved_memory() {
    if (KOVA_IsFileExist(kMarkerFile) == 0) return false;
    const KovaResourceRegion* const region = load_acquire(g_KovaResourceInfoAgent);
    return region == nullptr || load(region->reservedMemSet) == 0;
}

}  // namespace
}  // namespace kova

KOVA_PATCHABLE uint32_t KovaIsMemReady(void) {
    KOVA_LANDING_PAD();
    if (kova::g_memory_ready.load(std::memory_order_relaxed)) return 1;
    uint32_t uptime_seconds = 0;
    if (const kova::Code rc = KovaGetUpTime(&uptime_seconds); rc != kova::kOk) {
        KovaDLogWrite(KOVA_LOG_STARTUP(kova::kIdRegion), "[KovaIsMemReady] get /proc/uptime unsuccessful, ret:%d",
                      static_cast<int>(rc));
        uptime_seconds = 0;
    }
    // Holds from the next call on.
    if (uptime_seconds >= kova::kReadyUptimeSeconds) kova::g_memory_ready.store(true, std::memory_order_relaxed);
    if (kova::waits_for_reserved_memory()) return 0;
    kova::g_memory_ready.store(true, std::memory_order_relaxed);
    return 1;
}
