// The lock between threads of one process; see process_lock.h.
//
// Signal context: all of it.
#include "base/process_lock.h"

#include <linux/futex.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <algorithm>
#include <climits>
#include <ctime>

#include "base/signal_path.h"

namespace kova {
namespace {

// How long a thread inside the record handler waits for another thread before it goes ahead.
constexpr std::int64_t kHandlerWaitMs = 2'000;

constexpr std::int64_t kWaitForEver = -1;

// A waiter looks again at least this often: the holder may have been a forked child's memory all along.
constexpr std::int64_t kLookAgainMs = 100;

void sleep_on(std::atomic<std::uint32_t>& word, std::uint32_t seen, std::int64_t limit_ms) {
    const timespec limit{limit_ms / 1000, (limit_ms % 1000) * 1'000'000};
    // Woken, changed in the meantime, interrupted or timed out: the caller looks again in every case.
    static_cast<void>(::syscall(SYS_futex, &word, FUTEX_WAIT_PRIVATE, seen, &limit, nullptr, 0));
}

void wake_one(std::atomic<std::uint32_t>& word) {
    // Fails only for an address that is none.
    static_cast<void>(::syscall(SYS_futex, &word, FUTEX_WAKE_PRIVATE, 1, nullptr, nullptr, 0));
}

// Everything but the signals that a fault of the operation itself raises.
sigset_t asynchronous_signals() {
    sigset_t set;
    sigfillset(&set);
    for (const int fault : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGSYS, SIGTRAP}) sigdelset(&set, fault);
    return set;
}

}  // namespace

bool ProcessLock::acquire(ThreadKey self, std::int64_t limit_ms) {
    std::int64_t start_ms = -1;  // not yet waiting
    for (;;) {
        const std::uint32_t turn = turn_.load(std::memory_order_acquire);
        ThreadKey holder = 0;
        if (holder_.compare_exchange_strong(holder, self, std::memory_order_acquire)) return true;
        if (holder == self) return false;
        if (key_pid(holder) != key_pid(self)) {
            if (holder_.compare_exchange_strong(holder, self, std::memory_order_acquire)) return true;
            continue;
        }
        std::int64_t wait_ms = kLookAgainMs;
        if (limit_ms >= 0) {
            if (start_ms < 0) start_ms = monotonic_ms();
            wait_ms = std::min(wait_ms, start_ms + limit_ms - monotonic_ms());
            if (wait_ms <= 0) return false;
        }
        waiters_.fetch_add(1);
        if (holder_.load() != 0) sleep_on(turn_, turn, wait_ms);
        waiters_.fetch_sub(1);
    }
}

void ProcessLock::release(ThreadKey self) {
    // A vfork child takes over what a thread of its parent holds. What it has taken is its own to release.
    holder_.compare_exchange_strong(self, 0);
    turn_.fetch_add(1);
    if (waiters_.load() != 0) wake_one(turn_);
}

ScopedProcessLock::ScopedProcessLock(ProcessLock& lock, WaitBudget& budget,
                                     const CallingThread& thread) KOVA_NO_THREAD_SAFETY_ANALYSIS
    : lock_(lock),
      self_(thread.key),
      in_handler_(thread.in_handler) {
    if (!in_handler_) {
        if (!thread.signals_are_blocked) {
            const sigset_t blocked = asynchronous_signals();
            masked_ = ::pthread_sigmask(SIG_BLOCK, &blocked, &old_mask_) == 0;
        }
        held_ = lock_.acquire(self_, kWaitForEver);
        return;
    }
    // Free as a rule: a report takes it a hundred times, and needs no clock for that.
    held_ = lock_.acquire(self_, 0);
    if (!held_ && !budget.past_threads) {
        const std::int64_t start_ms = monotonic_ms();
        held_ = lock_.acquire(self_, std::clamp<std::int64_t>(budget.left_ms, 0, kHandlerWaitMs));
        budget.left_ms -= monotonic_ms() - start_ms;
    }
    budget.past_threads = !held_;
}

ScopedProcessLock::~ScopedProcessLock() KOVA_NO_THREAD_SAFETY_ANALYSIS {
    if (held_) lock_.release(self_);
    // Cannot fail: the old mask is one that the kernel gave.
    if (masked_) static_cast<void>(::pthread_sigmask(SIG_SETMASK, &old_mask_, nullptr));
}

}  // namespace kova
