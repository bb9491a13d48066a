// The capture's clock; see watchdog.h.
//
// The timer is the kernel's, asked for by number: the C library's timer_create takes a lock and allocates. Where the
// kernel gives none (too many pending signals, a sandbox), the process's interval timer serves; its signal may reach
// any thread, which passes it on.
//
// Signal context: all of it.
#include "watchdog.h"

#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <ctime>

#include "base/thread_key.h"
#include "signal_disposition.h"

#include "base/signal_path.h"

namespace kova::host {
namespace {

constexpr std::int64_t kTickMs = 1'000;

struct Watchdog {
    std::atomic<pid_t> pid{0};
    std::atomic<pid_t> thread{0};
    std::atomic<std::int64_t> deadline_ms{0};
    std::atomic<void (*)()> expired{nullptr};
    // Of the kernel's timers of this process. Touched by the capturing thread alone, as is has_timer.
    int timer = 0;
    bool has_timer = false;
};

constinit Watchdog g_watchdog;

pid_t this_thread() {
    return static_cast<pid_t>(::syscall(SYS_gettid));
}

bool make_timer() {
    sigevent event{};
    event.sigev_notify = SIGEV_THREAD_ID;
    event.sigev_signo = kWatchdogSignal;
    event._sigev_un._tid = this_thread();
    return ::syscall(SYS_timer_create, CLOCK_MONOTONIC, &event, &g_watchdog.timer) == 0;
}

void tick_after(std::int64_t first_ms) {
    const time_t seconds = first_ms / 1000;
    const long rest_ms = static_cast<long>(first_ms % 1000);
    if (g_watchdog.has_timer) {
        const itimerspec ticks{.it_interval = {.tv_sec = kTickMs / 1000, .tv_nsec = 0},
                               .it_value = {.tv_sec = seconds, .tv_nsec = rest_ms * 1'000'000}};
        if (::syscall(SYS_timer_settime, g_watchdog.timer, 0, &ticks, nullptr) == 0) return;
    }
    const itimerval ticks{.it_interval = {.tv_sec = kTickMs / 1000, .tv_usec = 0},
                          .it_value = {.tv_sec = seconds, .tv_usec = rest_ms * 1000}};
    // Nothing is left to fall back to: the capture goes on without a limit.
    static_cast<void>(::setitimer(ITIMER_REAL, &ticks, nullptr));
}

void on_tick(int, siginfo_t*, void*) {
    const int saved_errno = errno;
    const pid_t thread = g_watchdog.thread.load();
    // A child that was forked during the capture inherits the handler, not the capture.
    if (g_watchdog.pid.load() == ::getpid()) {
        if (thread != this_thread()) {
            static_cast<void>(::syscall(SYS_tgkill, ::getpid(), thread, kWatchdogSignal));
        } else if (monotonic_ms() >= g_watchdog.deadline_ms.load()) {
            g_watchdog.expired.load()();
        }
    }
    errno = saved_errno;
}

}  // namespace

void start_watchdog(std::int64_t limit_ms, void (*expired)()) {
    g_watchdog.pid.store(::getpid());
    g_watchdog.thread.store(this_thread());
    g_watchdog.deadline_ms.store(monotonic_ms() + limit_ms);
    g_watchdog.expired.store(expired);

    struct sigaction action {};
    action.sa_sigaction = on_tick;
    // Without SA_RESTART: that the wait comes back is the purpose. Without SA_NODEFER: somebody who sends the signal
    // all the time would pile up ticks until the alternate stack overflows.
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    sigemptyset(&action.sa_mask);
    // Cannot fail: the signal is a valid one.
    static_cast<void>(real_sigaction(kWatchdogSignal, &action, nullptr));

    g_watchdog.has_timer = make_timer();
    tick_after(std::min(limit_ms, kTickMs));
}

void set_watchdog_limit(std::int64_t limit_ms) {
    g_watchdog.deadline_ms.store(monotonic_ms() + limit_ms);
    tick_after(std::min(limit_ms, kTickMs));
}

}  // namespace kova::host
