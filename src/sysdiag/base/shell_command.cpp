// Running a shell command without system(), which takes locks and changes the whole process's signal dispositions.
//
// The child is made with vfork: it borrows the memory and the stack of the calling thread until it execs or ends, so it
// only makes system calls. All signals are blocked while it does, and a handler of the parent is never run in it: what
// the parent catches is set to its default before the child takes signals again (exec would do the same a moment
// later). A failed exec is reported by the parent, which finds the result in the shared memory: syslog() in the child
// would open a descriptor that exists in the child alone and leave its number behind for the parent to write to.
//
// Signal context: safe. The platform's log writer is not called inside the record handler.
#include "kova/shell_command.h"

#include <pthread.h>
#include <sys/wait.h>
#include <unistd.h>
#include <cerrno>
#include <csignal>

#include "base/log_message.h"
#include "base/no_cancellation.h"
#include "base/result.h"
#include "base/signal_scope.h"
#include "base/system_log.h"

#include "base/signal_path.h"

namespace kova {
namespace {

constexpr char kShell[] = "/bin/sh";
constexpr int kNotStarted = 127;

// A handler of the parent must not run on memory that the parent still uses.
void reset_caught_signals() {
    for (int signal = 1; signal < NSIG; ++signal) {
        struct sigaction action {};
        if (::sigaction(signal, nullptr, &action) != 0) continue;
        if (action.sa_handler == SIG_DFL || action.sa_handler == SIG_IGN) continue;
        action = {};
        action.sa_handler = SIG_DFL;
        static_cast<void>(::sigaction(signal, &action, nullptr));
    }
}

[[noreturn]] void become_shell(const char* command, const sigset_t* mask, volatile int* exec_result) {
    constexpr int kIgnored[] = {SIGQUIT, SIGINT, SIGCHLD};
    for (const int signal : kIgnored) static_cast<void>(::signal(signal, SIG_IGN));
    reset_caught_signals();
    static_cast<void>(::pthread_sigmask(SIG_SETMASK, mask, nullptr));
    *exec_result = ::execl(kShell, "sh", "-c", command, static_cast<char*>(nullptr));
    ::_exit(kNotStarted);
}

// Answers like vfork, in the parent only. On its own, so that the child's way shares no variable with what comes after.
[[gnu::noinline]] pid_t start_shell(const char* command, const sigset_t* mask, volatile int* exec_result) {
    const pid_t pid = ::vfork();
    // NOLINTNEXTLINE(clang-analyzer-unix.Vfork): all that runs in the child makes system calls only and never returns
    if (pid == 0) become_shell(command, mask, exec_result);
    return pid;
}

// The wait status; 0 when the wait failed, as it does where the process ignores SIGCHLD.
int wait_for(pid_t pid) {
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0) {
        if (errno != EINTR) return 0;
    }
    return status;
}

}  // namespace
}  // namespace kova

using kova::kIdGeneral;
using kova::kUnavailable;

uint32_t KovaSystemCmd(const char* command) {
    const kova::NoCancellation no_cancellation;  // a cancelled wait would leave a zombie
    if (command == nullptr) {
        if (!kova::in_signal_scope()) KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "KovaSystemCmd,command is null.");
        return kUnavailable;
    }
    sigset_t all;
    sigset_t mask;
    sigfillset(&all);
    sigemptyset(&mask);
    static_cast<void>(::pthread_sigmask(SIG_BLOCK, &all, &mask));
    volatile int exec_result = 0;
    const pid_t pid = kova::start_shell(command, &mask, &exec_result);
    static_cast<void>(::pthread_sigmask(SIG_SETMASK, &mask, nullptr));
    if (pid < 0) {
        if (!kova::in_signal_scope()) {
            KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "KovaSystemCmd,Fork process unsuccessful.");
        }
        return kUnavailable;
    }
    if (exec_result != 0) {
        kova::report_to_system_log("[KOVA-LOG] execl %s unsuccessful, ret = %d", command,
                                   static_cast<int>(exec_result));
    }
    constexpr int kExitCodeShift = 8;
    return static_cast<uint32_t>(kova::wait_for(pid) >> kExitCodeShift) & 0xFFU;
}
