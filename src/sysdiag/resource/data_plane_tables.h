// The two tables of the region that clients write: threads with their ticks, processes with their usage.
//
// Many threads of many processes write them at once, without a lock. Who has no entry takes the first free one, by a
// compare-and-swap of its thread id or pid. Two that meet at an entry do not mix their fields in it, which would be
// nobody's then: the second goes on to the next. Nothing here frees an entry; the daemon does, of processes that have
// ended, and of one that ended before it had written all its ids.
//
// Other processes may have put anything into the tables. The walks end with the table whatever it holds.
#pragma once

#include <cstdint>

#include "kova/resource_region.h"

namespace kova {

struct DataPlaneThread {
    std::uint32_t core;
    std::uint32_t pid;
    std::uint32_t tid;
};

// Index of the thread's first entry; KOVA_THREAD_TICK_ENTRIES when it has none.
[[nodiscard]] std::uint32_t find_thread(const KovaThreadTick* table, DataPlaneThread thread);

// Whether a thread of a process (neither id 0) has reported from the core.
[[nodiscard]] bool has_thread_on(const KovaThreadTick* table, std::uint32_t core);

// Records a tick in the thread's entry, or in the first free one. False when the table is full.
[[nodiscard]] bool record_tick(KovaThreadTick* table, DataPlaneThread thread, std::uint64_t tick);

// Records a usage in hundredths of a percent in the process's entry, or in the first free one. False when the table is
// full.
[[nodiscard]] bool record_usage(KovaProcessCpuUsage* table, std::uint32_t pid, std::uint32_t usage_x100);

}  // namespace kova
