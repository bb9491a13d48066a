// Faults that the processor raised in this thread, as opposed to signals that somebody sent.
//
// Signal context: safe.
#pragma once

#include <csignal>

namespace kova {

// Returning from the handler of such a fault runs the instruction again, which faults again. Memory errors that the
// kernel reports in advance (BUS_MCEERR_AO) are none.
[[nodiscard]] inline bool is_own_fault(int signal, const siginfo_t& info) {
    if (signal != SIGSEGV && signal != SIGBUS && signal != SIGILL && signal != SIGFPE) return false;
    return info.si_code > 0 && !(signal == SIGBUS && info.si_code == BUS_MCEERR_AO);
}

}  // namespace kova
