// The ways to die that crash_helper knows beside its own.
#pragma once

#include <span>

struct Mode {
    const char* name;
    void (*run)(int number);
};

// Dies of `number` in a sandbox that answers openat with SIGSYS; 31 (SIGSYS) dies of the sandbox's own refusal.
void die_in_a_sandbox(int number);

// A fault whose cause another thread has removed by the time that the handler returns.
void fault_that_does_not_repeat(int number);

// Processes whose memory, threads or resources are in the worst state that we could think of.
std::span<const Mode> memory_modes();
std::span<const Mode> thread_modes();
std::span<const Mode> resource_modes();
