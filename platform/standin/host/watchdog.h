// A clock that ticks on the capturing thread, so that no capture lasts for ever.
//
// Every second a SIGALRM interrupts the thread: a wait for a file lock then looks whether it has lasted long enough,
// and when the time is over the tick itself ends the capture. No thread is needed for it.
//
// Signal context: all of it.
#pragma once

#include <csignal>
#include <cstdint>

namespace kova::host {

inline constexpr int kWatchdogSignal = SIGALRM;

// Starts to tick on the calling thread, which must not block kWatchdogSignal. From limit_ms on, every tick calls
// `expired` there, in signal context. What the program did with that signal is replaced: it is about to end.
void start_watchdog(std::int64_t limit_ms, void (*expired)());

// Gives the thread a new limit, counted from now. The next tick comes after limit_ms or a second, what is less.
void set_watchdog_limit(std::int64_t limit_ms);

}  // namespace kova::host
