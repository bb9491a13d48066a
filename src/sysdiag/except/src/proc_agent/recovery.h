// Steps of a capture that may fault themselves, and where the capture goes on when they do.
//
// After a wild jump or on a smashed stack backtrace() faults; a symbol look-up or a registered hook may; so does a
// plain copy where the kernel refuses to copy for us. Such a step runs under a recovery point. When the record handler
// is entered again on the same thread for a synchronous fault, it jumps back here: the step has failed, the rest goes
// on.
//
// Signal context: all of it. The point is thread-local; it is armed only inside the record handler.
#pragma once

#include <type_traits>

namespace kova {

// Runs the step. False when it faulted; what it had written by then stays. Outside the record handler it just runs.
[[nodiscard]] bool run_recoverable(void (*step)(void*), void* argument);

// The same for a lambda. Locals that the step changes and that are read after a fault must not live in registers: keep
// them in an object whose address the step has (a capture by reference does).
template <typename Step>
[[nodiscard]] bool run_recoverable(Step&& step) {
    using Callable = std::remove_reference_t<Step>;
    return run_recoverable([](void* argument) { (*static_cast<Callable*>(argument))(); },
                           const_cast<void*>(static_cast<const void*>(&step)));
}

// At the outermost entry: what a vfork child that died in its handler left armed leads nowhere in its parent.
void drop_recovery_points();

// Jumps to the innermost recovery point; returns when none is armed.
void recover_if_armed();

}  // namespace kova
