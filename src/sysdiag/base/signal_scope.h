// What a thread knows about being inside the record handler, and how long it may still wait there.
//
// Outside the handler a wait for a file lock is as long as it takes. Inside, the process is dying and somebody may have
// stopped while holding the lock, so waits are bounded: for the exception log 5 s over the whole capture, after which
// its remaining pieces are dropped, and for the black box 15 s, so that the capture ends well before a host's watchdog
// does. A wait is only looked at when a signal interrupts it; a host ticks for that.
//
// A child made with vfork that dies in its handler leaves its marks in the memory of its parent's thread; what another
// pid left counts as nothing.
//
// Signal context: all of it. State is thread-local and initial-exec: reading it never allocates.
#pragma once

#include <cstdint>

#include "base/no_cancellation.h"
#include "base/thread_key.h"

namespace kova {

// Time that a thread inside the handler may still spend waiting for one of the shared files.
struct WaitBudget {
    std::int64_t left_ms = 0;
    bool past_threads = false;  // another thread did not let go of the file's ProcessLock: it is not waited for again
};

inline constexpr std::int64_t kLogWaitMs = 5'000;
inline constexpr std::int64_t kBoxWaitMs = 15'000;

// One entry of the record handler: keeps errno, is not cancelled, counts the nesting, and refills the wait budgets on
// the outermost entry.
class SignalScope {
  public:
    SignalScope();
    ~SignalScope();
    SignalScope(const SignalScope&) = delete;
    SignalScope& operator=(const SignalScope&) = delete;

    // This entry interrupted another one on the same thread.
    [[nodiscard]] bool is_nested() const;

  private:
    int saved_errno_;
    NoCancellation no_cancellation_;
};

// True between entry and return of the record handler on this thread.
[[nodiscard]] bool in_signal_scope();

// What an operation on a shared file has to know of the thread that runs it. To be asked for once in an operation: it
// takes one system call inside the handler, two outside.
struct CallingThread {
    ThreadKey key;
    bool in_handler;
    bool signals_are_blocked = false;  // by a lock that the thread holds already: asynchronous ones
};
[[nodiscard]] CallingThread calling_thread();

// How many entries are open on this thread, and the way back to that number for one that jumps out of the entries
// above.
[[nodiscard]] int signal_scope_depth();
void set_signal_scope_depth(int depth);

[[nodiscard]] WaitBudget& log_wait_budget();
[[nodiscard]] WaitBudget& box_wait_budget();

}  // namespace kova
