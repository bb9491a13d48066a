// Memory figures from /proc/meminfo, and the hysteresis of overload states. Pure: values in, values out.
#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

namespace kova::kovad {

struct MemorySample {
    std::uint64_t total_kib = 0;
    std::uint64_t available_kib = 0;  // what can be had without swapping, as the kernel estimates it
};

// From the text of /proc/meminfo.
[[nodiscard]] std::optional<MemorySample> parse_meminfo(std::string_view text);

struct MemoryFigures {
    std::uint32_t usage_percent = 0;  // 0 to 100, to the nearest
    std::uint32_t total_kib = 0;      // at least 1
    std::uint32_t available_kib = 0;
};

// What is reserved (the data plane's own pools) looks used to the kernel, and is not the system's to use: it counts
// neither as memory of the node nor as used. Any process may write that number: more than what is used cannot be true,
// and is taken as 0.
[[nodiscard]] MemoryFigures memory_figures(const MemorySample& sample, std::uint32_t reserved_kib);

// Overloaded from overload_percent on, down to restore_percent; between the two it stays as it was.
struct Thresholds {
    std::uint32_t overload_percent = 0;
    std::uint32_t restore_percent = 0;  // below overload_percent
};

}  // namespace kova::kovad
