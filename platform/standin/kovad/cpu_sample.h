// System CPU usage from two readings of /proc/stat. Pure: values in, values out.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace kova::kovad {

// CPU time of all processors since the node started, in clock ticks.
struct CpuTimes {
    std::uint64_t busy = 0;  // everything else: user, nice, system, irq, softirq, and what a hypervisor stole
    std::uint64_t idle = 0;  // idle and iowait: a processor that waits for a disk could run something else
};

// From the text of /proc/stat, whose first line must be that of all processors.
[[nodiscard]] std::optional<CpuTimes> parse_cpu_times(std::string_view stat_text);

// 0 to 100, to the nearest. Nothing when no tick passed between the two readings. A counter that went back (iowait may)
// counts as standing still.
[[nodiscard]] std::optional<std::uint32_t> cpu_usage_percent(const CpuTimes& before, const CpuTimes& after);

}  // namespace kova::kovad
