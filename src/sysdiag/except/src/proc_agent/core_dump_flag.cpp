// What the library keeps for others: the core-dump switch, and the tick words that nothing here fills.
//
// Signal context: all of it.
#include <atomic>

#include "kova/exception_log.h"

#include "base/signal_path.h"

constinit uint32_t g_coreDumpFlag = 1;

namespace {

// Set by one thread and read by another with nothing else to order.
std::atomic_ref<uint32_t> core_dump_flag() {
    return std::atomic_ref(g_coreDumpFlag);
}

}  // namespace

void KOVA_SetCoreDumpFlag(void) {
    core_dump_flag().store(1, std::memory_order_relaxed);
}

void KOVA_UnsetCoreDumpFlag(void) {
    core_dump_flag().store(0, std::memory_order_relaxed);
}

uint32_t KOVA_GetCoreDumpFlag(void) {
    return core_dump_flag().load(std::memory_order_relaxed);
}

void KOVA_GetCpuTick(uint32_t* high, uint32_t* low) {
    if (high == nullptr || low == nullptr) return;
    *high = 0;
    *low = 0;
}
