// The convex curve that nodes with the marker file show their CPU load through: lowers moderate loads, keeps high ones.
// The agent applies it to current figures, the daemon to the samples of the smoothed history.
#pragma once

#include <cstdint>

namespace kova {

// Smoothing is on while this file exists, whatever it holds.
inline constexpr char kSmoothMarkerFile[] = "/usr/local/etc/kova_cpu_smooth.cfg";

// 1 to 99, for any usage in percent. Below 100 nothing wraps.
[[nodiscard]] constexpr std::uint32_t smoothed_usage(std::uint32_t percent) {
    if (percent < 7) return 1;
    if (percent > 99) return 99;
    return (8 * percent * percent + 100 * percent) / 900;
}

}  // namespace kova
