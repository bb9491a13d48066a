// When a value means overload: with hysteresis, so that a figure that wavers around one threshold does not change the
// state with every sample.
#pragma once

#include <cstdint>

namespace kova {

struct Thresholds {
    std::uint32_t overload = 0;  // this and above
    std::uint32_t recover = 0;   // this and below; stronger, where the two are the wrong way round
};

[[nodiscard]] constexpr std::uint32_t next_overload_state(std::uint32_t state, std::uint32_t value, Thresholds at) {
    if (value <= at.recover) return 0;
    if (value >= at.overload) return 1;
    return state;
}

}  // namespace kova
