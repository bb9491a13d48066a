// Usage of the data-plane cores; see core_usage.h.
#include "core_usage.h"

#include <algorithm>
#include <cstddef>

namespace kova::kovad {
namespace {

bool is_on_a_core(const KovaThreadTick& entry) {
    return entry.coreId < KOVA_DATA_PLANE_CORES && entry.pid != 0 && entry.tid != 0;
}

bool is_same_thread(const KovaThreadTick& a, const KovaThreadTick& b) {
    return a.coreId == b.coreId && a.pid == b.pid && a.tid == b.tid;
}

// Nobody works longer than the time that passed; so sums over the table cannot wrap either.
std::uint64_t work_ns(const KovaThreadTick& before, const KovaThreadTick& now, std::uint64_t elapsed_ns) {
    if (!is_same_thread(before, now) || now.cpuTick < before.cpuTick) return 0;
    return std::min(now.cpuTick - before.cpuTick, elapsed_ns);
}

}  // namespace

CoreFigures CoreUsage::sample(const TickTable& table, std::uint64_t elapsed_ns) {
    // A daemon that was stopped for years is the longest that needs no wider arithmetic.
    const std::uint64_t elapsed = std::clamp<std::uint64_t>(elapsed_ns, 1, 1ULL << 56);
    std::array<std::uint64_t, KOVA_DATA_PLANE_CORES> work{};
    std::array<bool, KOVA_DATA_PLANE_CORES> carries_thread{};
    for (std::size_t i = 0; i < table.size(); ++i) {
        if (!is_on_a_core(table[i])) continue;
        work[table[i].coreId] += work_ns(before_[i], table[i], elapsed);
        carries_thread[table[i].coreId] = true;
    }
    before_ = table;

    CoreFigures figures;
    std::uint32_t sum = 0;
    std::uint32_t cores = 0;
    for (std::size_t core = 0; core < work.size(); ++core) {
        figures.usage_percent[core] =
            static_cast<std::uint32_t>((std::min(work[core], elapsed) * 100 + elapsed / 2) / elapsed);
        if (!carries_thread[core]) continue;
        sum += figures.usage_percent[core];
        ++cores;
    }
    if (cores != 0) figures.balanced_percent = sum / cores;
    return figures;
}

std::uint32_t whole_percent(std::uint32_t usage_x100) {
    return std::min<std::uint32_t>(usage_x100 / 100, 100);
}

}  // namespace kova::kovad
