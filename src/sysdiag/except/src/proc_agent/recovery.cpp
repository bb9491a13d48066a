// Recovery points; see recovery.h.
//
// Signal context: all of it.
#include "except/src/proc_agent/recovery.h"

#include <csetjmp>

#include "base/signal_scope.h"

#include "base/signal_path.h"

namespace kova {
namespace {

struct RecoveryPoint {
    RecoveryPoint* outer;
    int scope_depth;
    sigjmp_buf jump;
};

// Volatile: read by a handler that interrupts this very thread.
constinit thread_local RecoveryPoint* volatile t_point = nullptr;

}  // namespace

[[gnu::noinline]] bool run_recoverable(void (*step)(void*), void* argument) {
    if (!in_signal_scope()) {
        step(argument);
        return true;
    }
    RecoveryPoint point{.outer = t_point, .scope_depth = signal_scope_depth(), .jump = {}};
    if (sigsetjmp(point.jump, 1) != 0) return false;
    t_point = &point;
    step(argument);
    t_point = point.outer;
    return true;
}

void drop_recovery_points() {
    t_point = nullptr;
}

void recover_if_armed() {
    RecoveryPoint* const point = t_point;
    if (point == nullptr) return;
    t_point = point->outer;
    set_signal_scope_depth(point->scope_depth);
    siglongjmp(point->jump, 1);
}

}  // namespace kova
