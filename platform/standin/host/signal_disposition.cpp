// The host's handler in the place of the default disposition; see signal_disposition.h.
//
// The functions at the end stand in front of the C library's. What the kernel resets by itself (SA_RESETHAND, exec) is
// the real default.
//
// Signal context: all of it, once the host is set up; before, the first call of each function looks up its next one.
#include "signal_disposition.h"

#include <dlfcn.h>
#include <atomic>

#include "kova/export.h"

namespace kova::host {
namespace {

using Sigaction = int (*)(int, const struct sigaction*, struct sigaction*);
using Signal = sighandler_t (*)(int, sighandler_t);

// A function of the C library, looked up on its first use: by the host's set-up at the latest.
template <typename Function>
Function next(std::atomic<Function>& known, const char* name) {
    Function function = known.load(std::memory_order_relaxed);
    if (function == nullptr) {
        function = reinterpret_cast<Function>(::dlsym(RTLD_NEXT, name));
        known.store(function, std::memory_order_relaxed);
    }
    return function;
}

constinit std::atomic<Sigaction> g_sigaction{nullptr};
constinit std::atomic<Signal> g_bsd_signal{nullptr};
constinit std::atomic<Signal> g_sysv_signal{nullptr};

// Written before g_hosted_signals, which is stored with release and read with acquire.
constinit struct sigaction g_handler {};
constinit std::atomic<std::uint64_t> g_hosted_signals{0};

bool is_hosted(int signal) {
    if (signal < 1 || signal > 64) return false;
    return (g_hosted_signals.load(std::memory_order_acquire) >> (signal - 1) & 1) != 0;
}

bool is_host(const struct sigaction& action) {
    return (action.sa_flags & SA_SIGINFO) != 0 && action.sa_sigaction == g_handler.sa_sigaction;
}

int sigaction_as_seen(int signal, const struct sigaction* action, struct sigaction* old) {
    if (!is_hosted(signal)) return real_sigaction(signal, action, old);
    const bool to_default = action != nullptr && action->sa_handler == SIG_DFL;
    const int result = real_sigaction(signal, to_default ? &g_handler : action, old);
    if (result == 0 && old != nullptr && is_host(*old)) {
        *old = {};
        old->sa_handler = SIG_DFL;
    }
    return result;
}

sighandler_t signal_as_seen(int signal, sighandler_t handler, Signal next_signal) {
    if (!is_hosted(signal)) return next_signal(signal, handler);
    struct sigaction old {};
    if (handler == SIG_DFL) {
        if (real_sigaction(signal, &g_handler, &old) != 0) return SIG_ERR;
    } else {
        if (real_sigaction(signal, nullptr, &old) != 0 || next_signal(signal, handler) == SIG_ERR) return SIG_ERR;
    }
    return is_host(old) ? SIG_DFL : old.sa_handler;
}

}  // namespace

int real_sigaction(int signal, const struct sigaction* action, struct sigaction* old) {
    return next(g_sigaction, "sigaction")(signal, action, old);
}

void stand_in_for_default(std::uint64_t signals, const struct sigaction& handler) {
    g_handler = handler;
    static_cast<void>(next(g_bsd_signal, "signal"));
    static_cast<void>(next(g_sysv_signal, "__sysv_signal"));
    g_hosted_signals.store(signals, std::memory_order_release);
}

}  // namespace kova::host

extern "C" {

KOVA_API int sigaction(int signal, const struct sigaction* action, struct sigaction* old) noexcept {
    return kova::host::sigaction_as_seen(signal, action, old);
}

KOVA_API sighandler_t signal(int number, sighandler_t handler) noexcept {
    return kova::host::signal_as_seen(number, handler, kova::host::next(kova::host::g_bsd_signal, "signal"));
}

KOVA_API sighandler_t sysv_signal(int number, sighandler_t handler) noexcept {
    return kova::host::signal_as_seen(number, handler, kova::host::next(kova::host::g_sysv_signal, "__sysv_signal"));
}

// Other names of the same, found in old programs and in what <signal.h> makes of `signal` for some of them.
KOVA_API sighandler_t ssignal(int number, sighandler_t handler) noexcept {
    return signal(number, handler);
}
KOVA_API sighandler_t __sysv_signal(int number, sighandler_t handler) noexcept {
    return sysv_signal(number, handler);
}

}  // extern "C"
