// The nesting of the record handler and its wait budgets; see signal_scope.h.
//
// Signal context: all of it.
#include "base/signal_scope.h"

#include <unistd.h>
#include <cerrno>

#include "base/signal_path.h"

namespace kova {
namespace {

struct ScopeState {
    int depth = 0;
    ThreadKey thread = 0;  // whose depth it is
    WaitBudget log{};
    WaitBudget box{};
};

constinit thread_local ScopeState t_scope;

}  // namespace

SignalScope::SignalScope() : saved_errno_(errno) {
    const ThreadKey thread = this_thread_key();
    if (t_scope.thread != thread) t_scope = ScopeState{.thread = thread};
    if (++t_scope.depth == 1) {
        t_scope.log = WaitBudget{.left_ms = kLogWaitMs};
        t_scope.box = WaitBudget{.left_ms = kBoxWaitMs};
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
    return t_scope.depth > 0 && key_pid(t_scope.thread) == static_cast<std::uint32_t>(::getpid());
}

CallingThread calling_thread() {
    if (in_signal_scope()) return {.key = t_scope.thread, .in_handler = true};
    return {.key = this_thread_key(), .in_handler = false};
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
