// What the stat files of /proc say about CPU time, in clock ticks.
#pragma once

#include <cstdint>
#include <optional>

namespace kova {

struct CpuLine {
    int numbers = 0;          // how many the line holds, 8 at most; negative when it ends before the first
    std::uint64_t total = 0;  // their sum
};

// The aggregate "cpu" line of the node's stat file: user, nice, system, idle, iowait, irq, softirq, steal.
[[nodiscard]] CpuLine parse_cpu_line(const char* line);

// User and system time in the stat line of a process or thread; nothing when the line does not hold them.
[[nodiscard]] std::optional<std::uint64_t> parse_task_ticks(const char* stat);

// Share of a process between two readings in percent, rounded down. 0 where its counter went backwards (another id, or
// a new process with the old one's) or no time has passed.
[[nodiscard]] std::uint32_t usage_percent(std::uint64_t process_then, std::uint64_t total_then,
                                          std::uint64_t process_now, std::uint64_t total_now);

}  // namespace kova
