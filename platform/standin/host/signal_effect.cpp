// The end of the process; see signal_effect.h.
//
// Signal context: all of it.
#include "signal_effect.h"

#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <cerrno>

#include "kova/exception_log.h"
#include "signal_disposition.h"

#include "base/signal_path.h"

namespace kova::host {

void set_default_effect(int signal) {
    // A process that is not dumpable leaves no core whatever its limits are, also where cores go to a pipe.
    if (KOVA_GetCoreDumpFlag() == 0) static_cast<void>(::prctl(PR_SET_DUMPABLE, 0, 0, 0, 0));
    struct sigaction action {};
    action.sa_handler = SIG_DFL;
    // Cannot fail: the signal is one that had a handler.
    static_cast<void>(real_sigaction(signal, &action, nullptr));
}

void die_of(int signal, const siginfo_t& info) {
    set_default_effect(signal);
    siginfo_t original = info;
    const pid_t pid = ::getpid();
    const long thread = ::syscall(SYS_gettid);
    if (::syscall(SYS_rt_tgsigqueueinfo, pid, thread, signal, &original) != 0) {
        // A sandbox that does not know the call. The status is the same, only a core would name us as the sender.
        static_cast<void>(::syscall(SYS_tgkill, pid, thread, signal));
    }
    sigset_t only;
    sigemptyset(&only);
    sigaddset(&only, signal);
    unblock(only);  // delivered on the way out of this call
    // Process 1 of a PID namespace does not die of a signal's default effect.
    ::_exit(128 + signal);
}

void unblock(const sigset_t& signals) {
    // Fails only for an operation that is none.
    static_cast<void>(::pthread_sigmask(SIG_UNBLOCK, &signals, nullptr));
}

}  // namespace kova::host
