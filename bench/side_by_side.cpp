#include "side_by_side.h"

#include <algorithm>
#include <ctime>

namespace kova::bench {
namespace {

double clock_us(clockid_t clock) {
    timespec now{};
    ::clock_gettime(clock, &now);
    return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) / 1e3;
}

double time_of(const Sides& sides, const std::function<void()>& side) {
    sides.prepare();
    const double start = thread_cpu_us();
    side();
    return thread_cpu_us() - start;
}

}  // namespace

double thread_cpu_us() {
    return clock_us(CLOCK_THREAD_CPUTIME_ID);
}

double monotonic_us() {
    return clock_us(CLOCK_MONOTONIC);
}

double median(std::vector<double> values) {
    if (values.empty()) return 0;
    const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
    std::nth_element(values.begin(), middle, values.end());
    return *middle;
}

void compare(benchmark::State& state, const Sides& sides) {
    std::vector<double> ours;
    std::vector<double> theirs;
    // The first run of each pays for cold caches and files that are not there yet.
    time_of(sides, sides.theirs);
    time_of(sides, sides.ours);
    for ([[maybe_unused]] auto _ : state) {
        // Each goes first every other time, so that neither always finds what the other has left in the caches.
        const bool ours_first = ours.size() % 2 == 0;
        if (ours_first) ours.push_back(time_of(sides, sides.ours));
        theirs.push_back(time_of(sides, sides.theirs));
        if (!ours_first) ours.push_back(time_of(sides, sides.ours));
        state.SetIterationTime((ours.back() + theirs.back()) / 1e6);
    }
    report(state, std::move(ours), std::move(theirs), sides.goal);
}

void report(benchmark::State& state, std::vector<double> ours, std::vector<double> theirs, double goal) {
    const double ours_us = median(std::move(ours));
    const double theirs_us = median(std::move(theirs));
    state.counters[kOurs] = ours_us;
    state.counters[kTheirs] = theirs_us;
    state.counters[kRatio] = theirs_us > 0 ? ours_us / theirs_us : 0;
    state.counters[kGoal] = goal;
}

}  // namespace kova::bench
