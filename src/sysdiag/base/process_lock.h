// A lock between the threads of one process, for operations that a record lock cannot keep apart.
//
// A record lock belongs to the process: two threads both get it, and closing any descriptor of the file drops it. So
// every operation on a shared file also holds the file's ProcessLock, from before the open to after the close.
//
// The lock word holds {pid, thread id}. A holder of another pid is what a forked child inherited from a thread that it
// does not have; it counts as nobody. While a thread holds the lock outside the record handler, asynchronous signals
// are blocked for it: what interrupts an operation is a fault, its own or one that somebody sent. Inside the handler
// the mask is the host's: a thread that already holds the lock goes ahead, and one that finds it held by another thread
// waits a bounded time and then goes ahead with the file lock alone.
//
// Signal context: safe.
#pragma once

#include <atomic>
#include <csignal>
#include <cstdint>

#include "base/signal_scope.h"
#include "base/thread_annotations.h"

namespace kova {

class KOVA_CAPABILITY("mutex") ProcessLock {
  public:
    constexpr ProcessLock() = default;
    ProcessLock(const ProcessLock&) = delete;
    ProcessLock& operator=(const ProcessLock&) = delete;

  private:
    friend class ScopedProcessLock;

    // Takes the lock for `self`. False when it is not taken: held by this very thread, or not free within limit_ms.
    // A negative limit waits for ever.
    bool acquire(ThreadKey self, std::int64_t limit_ms);
    void release(ThreadKey self);

    std::atomic<ThreadKey> holder_{0};
    std::atomic<std::uint32_t> turn_{0};  // what waiters sleep on; counts releases
    std::atomic<std::uint32_t> waiters_{0};
};

// Holds the lock, and outside the record handler keeps asynchronous signals blocked, until it goes out of scope.
class KOVA_SCOPED_CAPABILITY ScopedProcessLock {
  public:
    // Inside the record handler the wait is taken off `budget`, and made once: a thread that did not let go in that
    // time is passed by from then on.
    ScopedProcessLock(ProcessLock& lock, WaitBudget& budget, const CallingThread& thread = calling_thread())
        KOVA_ACQUIRE(lock);
    ~ScopedProcessLock() KOVA_RELEASE();
    ScopedProcessLock(const ScopedProcessLock&) = delete;
    ScopedProcessLock& operator=(const ScopedProcessLock&) = delete;

    // The thread as it stands now, for locks that are taken while this one is held.
    [[nodiscard]] CallingThread holder() const {
        return {.key = self_, .in_handler = in_handler_, .signals_are_blocked = !in_handler_};
    }

  private:
    ProcessLock& lock_;
    NoCancellation no_cancellation_;
    ThreadKey self_;
    bool in_handler_;
    bool masked_ = false;
    bool held_ = false;
    sigset_t old_mask_{};
};

}  // namespace kova
