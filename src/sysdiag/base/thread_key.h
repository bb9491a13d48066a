// Who is who: threads across fork, and the clock that waits are measured with.
//
// Signal context: safe.
#pragma once

#include <sys/syscall.h>
#include <unistd.h>
#include <cstdint>
#include <ctime>

namespace kova {

// {pid, thread id}: what lock words hold, so that a holder can be told from a forked child's memory of it.
using ThreadKey = std::uint64_t;

[[nodiscard]] inline ThreadKey this_thread_key() {
    const auto pid = static_cast<std::uint32_t>(::getpid());
    const auto thread = static_cast<std::uint32_t>(::syscall(SYS_gettid));
    return (static_cast<ThreadKey>(pid) << 32) | thread;
}

[[nodiscard]] inline std::uint32_t key_pid(ThreadKey key) {
    return static_cast<std::uint32_t>(key >> 32);
}

[[nodiscard]] inline std::int64_t monotonic_ms() {
    timespec now{};
    // Cannot fail for this clock, which is a few milliseconds coarse and costs a fifth of the exact one.
    static_cast<void>(::clock_gettime(CLOCK_MONOTONIC_COARSE, &now));
    return static_cast<std::int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1'000'000;
}

}  // namespace kova
