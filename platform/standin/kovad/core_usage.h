// Usage of the data-plane cores, from what their threads report.
//
// A polling thread keeps its core busy whether there is work or not, so the kernel's own figures say nothing about it.
// Each thread reports how long it did useful work: a running count of nanoseconds. The growth between two samples over
// the time between them is its share of the core; a core's usage is the sum of its threads, 100 % at most.
//
// Pure: what the table held goes in, figures come out. The table is hostile: a count may be anything, go back, or
// belong to a new thread.
#pragma once

#include <array>
#include <cstdint>
#include <optional>

#include "kova/resource_region.h"

namespace kova::kovad {

using TickTable = std::array<KovaThreadTick, KOVA_THREAD_TICK_ENTRIES>;

struct CoreFigures {
    std::array<std::uint32_t, KOVA_DATA_PLANE_CORES> usage_percent{};  // to the nearest
    std::uint32_t balanced_percent = 0;  // mean over the cores that carry a data-plane thread, 0 when none does
};

class CoreUsage {
  public:
    // The first sample only gives later ones something to compare with, and all figures are 0. `elapsed_ns` is the time
    // since the sample before.
    [[nodiscard]] CoreFigures sample(const TickTable& table, std::uint64_t elapsed_ns);

  private:
    TickTable before_{};
};

// What a data-plane process reported about itself, hundredths of a percent, as whole percent, 100 at most.
[[nodiscard]] std::uint32_t whole_percent(std::uint32_t usage_x100);

}  // namespace kova::kovad
