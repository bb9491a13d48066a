// The ways to die that crash_helper knows: its own, and those of processes whose memory, threads or resources are in
// the worst state that we could think of.
#pragma once

#include <span>

struct Mode {
    const char* name;
    void (*run)(int number);
};

std::span<const Mode> memory_modes();
std::span<const Mode> thread_modes();
std::span<const Mode> resource_modes();

// What a program exits with that could not get into trouble: it failed, or this machine does not let it.
inline constexpr int kSetUpFailed = 4;
inline constexpr int kNotPossibleHere = 6;

// Writes to address 0.
[[gnu::noinline]] inline void fault() {
    volatile int* nothing = nullptr;
    asm volatile("" : "+r"(nothing));
    *nothing = 1;
}
