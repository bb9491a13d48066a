// See sample_average.h.
#include "resource/sample_average.h"

#include <cassert>

#include "resource/region_access.h"

namespace kova {

std::uint32_t samples_in_span(std::uint32_t span_seconds, std::uint32_t interval_ms) {
    assert(interval_ms != 0);
    const std::uint32_t span_ms = span_seconds * 1000;
    return interval_ms > span_ms ? 1 : span_ms / interval_ms;
}

std::uint32_t average_of_newest(const std::uint8_t* ring, std::uint32_t count, std::uint32_t wanted) {
    assert(wanted >= 1 && wanted <= count);
    const std::uint32_t rounds = wanted / KOVA_CPU_USAGE_SAMPLES;
    const std::uint32_t rest = wanted % KOVA_CPU_USAGE_SAMPLES;
    const std::uint32_t slots = rounds != 0 ? KOVA_CPU_USAGE_SAMPLES : rest;
    // 360'000 samples of 255 are the most: 32 bits hold the sum.
    std::uint32_t sum = 0;
    std::uint32_t slot = count % KOVA_CPU_USAGE_SAMPLES;
    for (std::uint32_t i = 0; i < slots; ++i) {
        slot = (slot == 0 ? KOVA_CPU_USAGE_SAMPLES : slot) - 1;
        const std::uint32_t sample = load(ring[slot]);
        sum += sample * (i < rest ? rounds + 1 : rounds);
    }
    return sum / wanted;
}

}  // namespace kova
