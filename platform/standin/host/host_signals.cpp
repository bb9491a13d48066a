// From a fatal signal to the end of the process, with a capture in between.
//
// One thread captures: the one whose {pid, thread id} stands in g_owner. It alone ends the process. Other threads that
// take a signal meanwhile leave their trace line and wait. The owner's own further signals come back here, nested: a
// fault of the capture goes to the record handler, which has a recovery point to jump to; when it returns there was
// none, and the capture is over.
//
// A child made with vfork dies in its parent's memory: an owner of another pid is nobody.
//
// Signal context: the handler and all it calls. On the way out errno is as it was.
#include "host_signals.h"

#include <ucontext.h>
#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <csignal>

#include "base/no_cancellation.h"
#include "base/own_fault.h"
#include "base/thread_key.h"
#include "kova/exception_capture.h"
#include "kova/exception_log.h"
#include "refused_call.h"
#include "signal_disposition.h"
#include "signal_effect.h"
#include "stored_record.h"
#include "watchdog.h"

#include "base/signal_path.h"

namespace kova::host {
namespace {

// The record handler's name in its own trace lines; the ones written here must not look different.
constexpr char kTraceName[] = "[Native]KOVA_SignalInfoRecordHandler";

// What an ending that stores the record may still take, e.g. waiting for the box's lock.
constexpr std::int64_t kStoreLimitMs = 5'000;

// After the handler has returned into its fault, the process is gone as soon as the thread runs again. It lives on only
// when the fault does not repeat (another thread has mapped the page); then a tick ends it. Long enough for a thread
// that the scheduler holds back: a tick that comes first would put the handler into the core instead of the fault.
constexpr std::int64_t kRefaultLimitMs = 2'000;

// Recovery may fault itself. Three entries on top of each other, with their signal frames, fit the alternate stack.
constexpr int kNestedLimit = 3;

// si_code of a SIGSYS that a seccomp filter raised.
constexpr int kSeccomp = 1;

enum class Phase { kCapturing, kEnding, kReturned };

struct Capture {
    int signal = 0;
    siginfo_t info{};
    std::atomic<Phase> phase{Phase::kCapturing};
    std::uintptr_t nested_frame[kNestedLimit] = {};  // outermost first, so falling addresses
    int nested_count = 0;
};

constinit std::atomic<ThreadKey> g_owner{0};
// Of the owner alone.
constinit Capture g_capture;
// This thread waits for another one's capture to end the process.
constinit thread_local bool t_waits = false;
// Set before the first handler is installed.
constinit std::int64_t g_capture_limit_ms = 0;

bool is_refused_call(int signal, const siginfo_t& info) {
    return signal == SIGSYS && info.si_code == kSeccomp;
}

sigset_t signals_that_interrupt_a_capture() {
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGSYS, kWatchdogSignal}) sigaddset(&set, signal);
    return set;
}

void ignore_file_size_signal() {
    // The log may be at the limit for files: the write must fail, not kill the capture.
    struct sigaction action {};
    action.sa_handler = SIG_IGN;
    static_cast<void>(real_sigaction(SIGXFSZ, &action, nullptr));
}

// A trace line and nothing else. The record handler would write the same line, but when the first capture ends just
// now it would begin a second one, which nobody waits for.
void write_trace_line(int signal, const siginfo_t& info) {
    // Lost when the log cannot be written, like every piece of a report.
    static_cast<void>(KOVA_WriteSigTrace2Log(info.si_pid, signal, kTraceName));
}

// The way out for a capture that cannot go on: keep what is known, then die of the first signal.
[[noreturn]] void end_capture() {
    if (g_capture.phase.load() == Phase::kCapturing) {
        // The new limit first: a tick that finds the old one in the new phase would end the process at once.
        set_watchdog_limit(std::min(kStoreLimitMs, g_capture_limit_ms));
        g_capture.phase.store(Phase::kEnding);
        // This may be a tick itself, and storing may wait for a lock that only another tick ends.
        sigset_t ticks;
        sigemptyset(&ticks);
        sigaddset(&ticks, kWatchdogSignal);
        unblock(ticks);
        store_unfinished_record();
    }
    die_of(g_capture.signal, g_capture.info);
}

// False when too many entries are on top of each other already. Entries that the recovery jumped out of do not come
// back to sign off; they are known by standing below the new one on the stack.
bool enter_nested(std::uintptr_t frame) {
    int& count = g_capture.nested_count;
    while (count > 0 && g_capture.nested_frame[count - 1] <= frame) --count;
    if (count == kNestedLimit) return false;
    g_capture.nested_frame[count++] = frame;
    return true;
}

void interrupt_capture(int signal, siginfo_t* info, void* context) {
    if (is_refused_call(signal, *info)) {
        // No trace line: the calls that would write it are refused as well, and again, without an end.
        refuse_call(static_cast<ucontext_t*>(context));
        return;
    }
    const auto frame = reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0));
    if (!is_own_fault(signal, *info)) {
        if (enter_nested(frame)) write_trace_line(signal, *info);
        return;
    }
    if (g_capture.phase.load() == Phase::kCapturing && enter_nested(frame)) {
        KOVA_SignalInfoRecordHandler(signal, info, context);
    }
    end_capture();
}

void capture(int signal, siginfo_t* info, void* context) {
    g_capture.signal = signal;
    g_capture.info = *info;
    g_capture.phase.store(Phase::kCapturing);
    g_capture.nested_count = 0;
    start_watchdog(g_capture_limit_ms, end_capture);
    ignore_file_size_signal();
    unblock(signals_that_interrupt_a_capture());

    KOVA_SignalInfoRecordHandler(signal, info, context);

    if (!is_own_fault(signal, *info)) {
        g_capture.phase.store(Phase::kEnding);
        die_of(signal, *info);
    }
    g_capture.phase.store(Phase::kReturned);
    set_watchdog_limit(kRefaultLimitMs);
    sigdelset(&static_cast<ucontext_t*>(context)->uc_sigmask, kWatchdogSignal);
    set_default_effect(signal);
}

// Another thread captures. This one leaves its trace line and waits; what interrupts it in that goes on at once: a call
// that a sandbox refuses fails, anything else waits without a line of its own.
void wait_for_the_end(int signal, const siginfo_t& info, void* context) {
    if (t_waits && is_refused_call(signal, info)) {
        refuse_call(static_cast<ucontext_t*>(context));
        return;
    }
    if (!t_waits) {
        t_waits = true;
        write_trace_line(signal, info);
    }
    sigset_t all;
    sigfillset(&all);
    // Cannot fail: the operation is a valid one.
    static_cast<void>(::pthread_sigmask(SIG_BLOCK, &all, nullptr));
    for (;;) ::pause();
}

void on_signal(int signal, siginfo_t* info, void* context) {
    const int saved_errno = errno;
    const NoCancellation no_cancellation;
    const ThreadKey self = this_thread_key();
    ThreadKey owner = g_owner.load();
    while (key_pid(owner) != key_pid(self)) {
        if (!g_owner.compare_exchange_weak(owner, self)) continue;
        capture(signal, info, context);
        errno = saved_errno;
        return;
    }
    if (owner == self) {
        interrupt_capture(signal, info, context);
    } else {
        wait_for_the_end(signal, *info, context);
    }
    errno = saved_errno;
}

struct sigaction handler_action() {
    struct sigaction action {};
    action.sa_sigaction = on_signal;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER;
    sigfillset(&action.sa_mask);
    for (const int open : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGSYS, kWatchdogSignal}) sigdelset(&action.sa_mask, open);
    return action;
}

// False for what is no signal that a handler can be installed for.
bool install_handler(int signal, const struct sigaction& action) {
    struct sigaction current {};
    if (real_sigaction(signal, nullptr, &current) != 0) return false;
    if ((current.sa_flags & SA_SIGINFO) != 0 || current.sa_handler != SIG_DFL) return true;
    return real_sigaction(signal, &action, nullptr) == 0;
}

}  // namespace

void install_handlers(std::int64_t capture_limit_ms) {
    g_capture_limit_ms = capture_limit_ms;
    const struct sigaction action = handler_action();
    std::uint64_t installed = 0;
    for (std::uint32_t i = 0; i < g_kovaSignalNum; ++i) {
        const int signal = g_kovaSignalList[i];
        if (install_handler(signal, action)) installed |= std::uint64_t{1} << (signal - 1);
    }
    stand_in_for_default(installed, action);
}

}  // namespace kova::host
