// See data_plane_tables.h.
#include "resource/data_plane_tables.h"

#include <atomic>

#include "resource/region_access.h"

namespace kova {
namespace {

bool belongs_to(const KovaThreadTick& entry, DataPlaneThread thread) {
    return load(entry.coreId) == thread.core && load(entry.pid) == thread.pid && load(entry.tid) == thread.tid;
}

bool is_free(const KovaThreadTick& entry) {
    return load(entry.tid) == 0 && load(entry.pid) == 0 && load(entry.coreId) == 0;
}

// Puts an id where 0 stands. True also when the very same id stands there by now. Acquire: what the daemon cleared
// before the id is behind us, and cannot wipe out what we store next.
bool take(std::uint32_t& id, std::uint32_t own) {
    std::uint32_t seen = 0;
    return std::atomic_ref(id).compare_exchange_strong(seen, own, std::memory_order_acquire) || seen == own;
}

}  // namespace

std::uint32_t find_thread(const KovaThreadTick* table, DataPlaneThread thread) {
    std::uint32_t i = 0;
    while (i < KOVA_THREAD_TICK_ENTRIES && !belongs_to(table[i], thread)) ++i;
    return i;
}

bool has_thread_on(const KovaThreadTick* table, std::uint32_t core) {
    for (std::uint32_t i = 0; i < KOVA_THREAD_TICK_ENTRIES; ++i) {
        if (load(table[i].coreId) == core && load(table[i].pid) != 0 && load(table[i].tid) != 0) return true;
    }
    return false;
}

bool record_tick(KovaThreadTick* table, DataPlaneThread thread, std::uint64_t tick) {
    std::uint32_t i = find_thread(table, thread);
    if (i == KOVA_THREAD_TICK_ENTRIES) {
        // Somebody who reports for the same thread may have taken an entry since: look for both in one walk.
        i = 0;
        while (!(is_free(table[i]) && take(table[i].tid, thread.tid)) && !belongs_to(table[i], thread)) {
            if (++i == KOVA_THREAD_TICK_ENTRIES) return false;
        }
        store(table[i].coreId, thread.core);
        store(table[i].pid, thread.pid);
    }
    store(table[i].cpuTick, tick);
    return true;
}

bool record_usage(KovaProcessCpuUsage* table, std::uint32_t pid, std::uint32_t usage_x100) {
    std::uint32_t i = 0;
    while (i < KOVA_PROCESS_CPU_USAGE_ENTRIES && load(table[i].pid) != pid) ++i;
    if (i == KOVA_PROCESS_CPU_USAGE_ENTRIES) {
        i = 0;
        while (!take(table[i].pid, pid)) {
            if (++i == KOVA_PROCESS_CPU_USAGE_ENTRIES) return false;
        }
    }
    store(table[i].usage, usage_x100);
    return true;
}

}  // namespace kova
