// See proc_stat.h.
#include "resource/proc_stat.h"

#include <cstring>

#include "base/checked.h"
#include "kova_platform/bounded_string.h"

namespace kova {

CpuLine parse_cpu_line(const char* line) {
    unsigned long long ticks[8] = {};
    CpuLine answer;
    answer.numbers = sscanf_s(line, "cpu %llu %llu %llu %llu %llu %llu %llu %llu", &ticks[0], &ticks[1], &ticks[2],
                              &ticks[3], &ticks[4], &ticks[5], &ticks[6], &ticks[7]);
    for (const unsigned long long value : ticks) answer.total += value;
    return answer;
}

std::optional<std::uint64_t> parse_task_ticks(const char* stat) {
    // The name may hold anything, ')' and blanks too: what follows the last one is the kernel's.
    const char* const name_end = std::strrchr(stat, ')');
    if (name_end == nullptr || std::strlen(name_end) <= 2) return std::nullopt;
    unsigned long long user = 0;
    unsigned long long system = 0;
    // From the state to the major faults of waited-for children, then the two.
    if (sscanf_s(name_end + 2,
                 "%*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %*s %llu %llu %*s %*s %*s %*s %*s %*s %*s %*s %*s ", &user,
                 &system) < 2) {
        return std::nullopt;
    }
    return user + system;
}

std::uint32_t usage_percent(std::uint64_t process_then, std::uint64_t total_then, std::uint64_t process_now,
                            std::uint64_t total_now) {
    if (process_now < process_then || total_now == total_then) return 0;
    // A total that went backwards gives a huge divisor and so 0, but for a process that never ran that long.
    return narrow<std::uint32_t>((process_now - process_then) * 100 / (total_now - total_then));
}

}  // namespace kova
