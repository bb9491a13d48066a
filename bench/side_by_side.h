// Comparing two ways of doing the same thing on a machine that is busy with other things too.
//
// Both sides run in turn, many times, and each is judged by the median of its own times. Only the ratio of the two
// means anything elsewhere. Times are CPU time of the calling thread, kernel work included: what a neighbour takes of
// the machine does not count, and none of the measured work waits for a device.
#pragma once

#include <benchmark/benchmark.h>
#include <functional>
#include <vector>

namespace kova::bench {

// Names of the counters that a comparison leaves in its benchmark's state.
inline constexpr char kOurs[] = "ours_us";
inline constexpr char kTheirs[] = "theirs_us";
inline constexpr char kRatio[] = "ratio";
inline constexpr char kGoal[] = "goal";

struct Sides {
    std::function<void()> ours;
    std::function<void()> theirs;
    std::function<void()> prepare = [] {};  // before each run of either side, outside the timing
    double goal = 1.3;                      // the ratio that is wanted at most
};

// One iteration runs both sides once.
void compare(benchmark::State& state, const Sides& sides);

// Puts the medians of two series, in microseconds, into the state's counters.
void report(benchmark::State& state, std::vector<double> ours, std::vector<double> theirs, double goal);

[[nodiscard]] double median(std::vector<double> values);

[[nodiscard]] double thread_cpu_us();
[[nodiscard]] double monotonic_us();

}  // namespace kova::bench
