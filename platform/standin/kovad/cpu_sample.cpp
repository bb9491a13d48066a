// System CPU usage from two readings of /proc/stat; see cpu_sample.h.
#include "cpu_sample.h"

#include <array>
#include <charconv>
#include <cstddef>
#include <system_error>

namespace kova::kovad {
namespace {

constexpr std::string_view kAllProcessors = "cpu ";

// user nice system idle iowait irq softirq steal; guest times, which follow, are in user and nice already. Old kernels
// print four.
constexpr std::size_t kFields = 8;
constexpr std::size_t kLeastFields = 4;
constexpr std::size_t kIdle = 3;
constexpr std::size_t kIowait = 4;

std::uint64_t progress(std::uint64_t before, std::uint64_t after) {
    return after > before ? after - before : 0;
}

}  // namespace

std::optional<CpuTimes> parse_cpu_times(std::string_view stat_text) {
    if (!stat_text.starts_with(kAllProcessors)) return std::nullopt;
    const char* at = stat_text.data() + kAllProcessors.size();
    const char* const end = stat_text.data() + stat_text.size();
    std::array<std::uint64_t, kFields> fields{};
    std::size_t count = 0;
    for (; count < kFields; ++count) {
        while (at != end && *at == ' ') ++at;
        const auto [rest, error] = std::from_chars(at, end, fields[count]);
        if (error != std::errc()) break;
        at = rest;
    }
    if (count < kLeastFields) return std::nullopt;
    CpuTimes times;
    for (std::size_t i = 0; i < kFields; ++i) (i == kIdle || i == kIowait ? times.idle : times.busy) += fields[i];
    return times;
}

std::optional<std::uint32_t> cpu_usage_percent(const CpuTimes& before, const CpuTimes& after) {
    const std::uint64_t busy = progress(before.busy, after.busy);
    const std::uint64_t total = busy + progress(before.idle, after.idle);
    if (total == 0) return std::nullopt;
    return static_cast<std::uint32_t>((busy * 100 + total / 2) / total);
}

}  // namespace kova::kovad
