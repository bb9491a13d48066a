#include "bare_region.h"

namespace kova::bench {

void bare_load(const std::uint32_t* field, std::uint32_t* out) {
    *out = *field;
}

void bare_scan(KovaThreadTick* table, std::uint32_t core, std::uint32_t pid, std::uint32_t tid, std::uint64_t tick) {
    for (std::uint32_t i = 0; i < KOVA_THREAD_TICK_ENTRIES; ++i) {
        if (table[i].coreId == core && table[i].pid == pid && table[i].tid == tid) {
            table[i].cpuTick = tick;
            return;
        }
    }
}

}  // namespace kova::bench
