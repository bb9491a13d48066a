// Keeps the figures of the shared region up to date.
//
// One small action for each cycle; the daemon's loop says when. What clients wrote is read once, checked and used.
#pragma once

#include <array>
#include <cstdint>
#include <optional>

#include "core_usage.h"
#include "cpu_sample.h"
#include "kova/resource_region.h"
#include "memory_sample.h"

namespace kova::kovad {

struct FeedSettings {
    std::uint32_t cpu_interval_ms = 1000;
    std::uint32_t memory_cycle_ms = 10000;
    std::uint32_t data_plane_sample_cycle_ms = 1000;
    std::uint32_t data_plane_process_cycle_ms = 1000;
    std::uint32_t release_after_s = 60;  // an entry of a process that ended
    Thresholds memory = {.overload_percent = 90, .restore_percent = 85};
};

class RegionFeed {
  public:
    // Publishes the settings. What a daemon before left in the region stays where it can be true.
    RegionFeed(KovaResourceRegion& region, const FeedSettings& settings);

    void sample_cpu();
    void sample_memory();
    void sample_data_plane(std::uint64_t now_ns);  // on a clock that stands still for nobody

    void set_memory_cycle(std::uint32_t cycle_ms);
    void set_monitored(bool monitored);  // does anybody subscribe to data-plane CPU usage?

    // The figure that subscribers hear of: that of the first living process in the table of those that report one, else
    // the balanced usage of the cores.
    [[nodiscard]] std::uint32_t data_plane_percent();

  private:
    static constexpr std::size_t kEntries = KOVA_THREAD_TICK_ENTRIES + KOVA_PROCESS_CPU_USAGE_ENTRIES;

    void keep_history(std::uint32_t interval_ms);
    [[nodiscard]] TickTable living_threads(std::uint64_t now_ns);
    void watch_processes(std::uint64_t now_ns);
    [[nodiscard]] bool is_due(std::size_t entry, bool is_alive, std::uint64_t now_ns);

    KovaResourceRegion& region_;
    Thresholds memory_;
    std::uint64_t release_after_ns_;
    std::optional<CpuTimes> cpu_before_;
    CoreUsage cores_;
    std::optional<std::uint64_t> data_plane_before_ns_;
    // When an entry's process was first found dead, 0 while it lives; the thread table's entries, then the process
    // table's.
    std::array<std::uint64_t, kEntries> dead_since_ns_{};
    bool cpu_failed_ = false;
    bool memory_failed_ = false;
};

}  // namespace kova::kovad
