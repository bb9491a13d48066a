// Memory figures from /proc/meminfo; see memory_sample.h.
#include "memory_sample.h"

#include <algorithm>
#include <charconv>
#include <limits>
#include <system_error>

namespace kova::kovad {
namespace {

// "Name:   12345 kB", at the beginning of a line.
std::optional<std::uint64_t> line_value(std::string_view text, std::string_view name) {
    for (std::size_t at = text.find(name); at != std::string_view::npos; at = text.find(name, at + 1)) {
        if (at != 0 && text[at - 1] != '\n') continue;
        const std::size_t digits = text.find_first_not_of(' ', at + name.size());
        if (digits == std::string_view::npos) return std::nullopt;
        std::uint64_t value = 0;
        const auto [rest, error] = std::from_chars(text.data() + digits, text.data() + text.size(), value);
        if (error != std::errc()) return std::nullopt;
        return value;
    }
    return std::nullopt;
}

std::uint32_t cut_to_32_bits(std::uint64_t value) {
    return static_cast<std::uint32_t>(std::min<std::uint64_t>(value, std::numeric_limits<std::uint32_t>::max()));
}

}  // namespace

std::optional<MemorySample> parse_meminfo(std::string_view text) {
    const auto total = line_value(text, "MemTotal:");
    const auto available = line_value(text, "MemAvailable:");
    if (!total || !available || *total == 0) return std::nullopt;
    return MemorySample{.total_kib = *total, .available_kib = std::min(*available, *total)};
}

MemoryFigures memory_figures(const MemorySample& sample, std::uint32_t reserved_kib) {
    const std::uint64_t all_used = sample.total_kib - sample.available_kib;
    const std::uint64_t reserved = reserved_kib <= all_used ? reserved_kib : 0;
    const std::uint64_t total = std::max<std::uint64_t>(sample.total_kib - reserved, 1);
    const std::uint64_t used = all_used - reserved;
    return {.usage_percent = cut_to_32_bits((used * 100 + total / 2) / total),
            .total_kib = cut_to_32_bits(total),
            .available_kib = cut_to_32_bits(sample.available_kib)};
}

}  // namespace kova::kovad
