// Thread keys, the nesting of the record handler and its wait budgets; see signal_scope.h.
//
// Signal context: all of it.
#include "base/signal_scope.h"

#include <sys/syscall.h>
#include <unistd.h>
#include <cerrno>
#include <ctime>

#include "base/signal_path.h"

namespace kova {
namespace {

struct ScopeState {
    int depth = 0;
    pid_t pid = 0;  // whose depth it is
    WaitBudget log{};
    WaitBudget box{};
};

constinit thread_local ScopeState t_scope;

}  // namespace

ThreadKey this_thread_key() {
    const auto pid = static_cast<std::uint32_t>(::getpid());
    const auto tid = static_cast<std::uint32_t>(::syscall(SYS_gettid));
    return (static_cast<ThreadKey>(pid) << 32) | tid;
}

std::uint32_t key_pid(ThreadKey key) {
    return static_cast<std::uint32_t>(key >> 32);
}

std::int64_t monotonic_ms() {
    timespec now{};
    if (::clock_gettime(CLOCK_MONOTONIC, &now) != 0) return 0;
    return static_cast<std::int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1'000'000;
}

SignalScope::SignalScope() : saved_errno_(errno) {
    const pid_t pid = ::getpid();
    if (t_scope.pid != pid) t_scope = ScopeState{.pid = pid};
    if (++t_scope.depth == 1) {
        t_scope.log.left_ms = kLogWaitMs;
        t_scope.box.left_ms = kBoxWaitMs;
    }
}

SignalScope::~SignalScope() {
    --t_scope.depth;
    errno = saved_errno_;
}

bool SignalScope::is_nested() const {
    return t_scope.depth > 1;
}

bool in_signal_scope() {
    return t_scope.depth > 0 && t_scope.pid == ::getpid();
}

int signal_scope_depth() {
    return t_scope.depth;
}

void set_signal_scope_depth(int depth) {
    t_scope.depth = depth;
}

WaitBudget& log_wait_budget() {
    return t_scope.log;
}

WaitBudget& box_wait_budget() {
    return t_scope.box;
}

}  // namespace kova
