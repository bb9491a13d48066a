// Averages over the rings of CPU usage samples.
#pragma once

#include <cstdint>

namespace kova {

// Samples that a span of 1 to 360 seconds asks for, at least 1; a span shorter than the interval (1 ms or more) is the
// newest sample alone.
[[nodiscard]] std::uint32_t samples_in_span(std::uint32_t span_seconds, std::uint32_t interval_ms);

// Mean of the `wanted` newest samples, rounded down. `wanted` is 1 to 360'000 and at most `count`, the samples taken so
// far; sample k stands in slot k mod 360. Where more are wanted than there are slots, the walk goes round the ring
// again. Reads each slot once, however many times it counts.
[[nodiscard]] std::uint32_t average_of_newest(const std::uint8_t* ring, std::uint32_t count, std::uint32_t wanted);

}  // namespace kova
