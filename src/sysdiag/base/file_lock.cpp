// Whole-file record locks; see file_lock.h.
//
// Signal context: all of it.
#include "base/file_lock.h"

#include <fcntl.h>
#include <unistd.h>
#include <cerrno>
#include <ctime>

#include "base/signal_path.h"

namespace kova {
namespace {

// A wrong EDEADLK lasts as long as the other process's wait: milliseconds as a rule.
constexpr std::int64_t kDeadlockPatienceMs = 5'000;
constexpr long kDeadlockPauseNs = 5'000'000;

int set_lock(int fd, int command, short type) {
    struct flock lock {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    lock.l_start = 0;
    lock.l_len = 0;  // to the end of the file, however far it grows
    return ::fcntl(fd, command, &lock);
}

void pause_before_retry() {
    const timespec pause{0, kDeadlockPauseNs};
    // Cut short by a signal at worst: then the next try comes sooner.
    static_cast<void>(::nanosleep(&pause, nullptr));
}

}  // namespace

bool lock_whole_file(int fd, WaitBudget& budget, const CallingThread& thread) {
    const bool bounded = thread.in_handler;
    const std::int64_t start_ms = monotonic_ms();
    const std::int64_t limit_ms = budget.left_ms;
    std::int64_t deadlock_since_ms = -1;
    bool granted = false;
    for (;;) {
        granted = set_lock(fd, F_SETLKW, F_WRLCK) == 0;
        if (granted || (errno != EINTR && errno != EDEADLK)) break;
        const int reason = errno;
        const std::int64_t now_ms = monotonic_ms();
        errno = reason;
        if (bounded && now_ms - start_ms >= limit_ms) break;
        if (reason != EDEADLK) {
            deadlock_since_ms = -1;
            continue;
        }
        if (deadlock_since_ms < 0) deadlock_since_ms = now_ms;
        if (now_ms - deadlock_since_ms >= kDeadlockPatienceMs) break;
        pause_before_retry();
    }
    if (bounded) {
        const int saved_errno = errno;
        budget.left_ms = limit_ms - (monotonic_ms() - start_ms);
        errno = saved_errno;
    }
    return granted;
}

bool unlock_whole_file(int fd) {
    return set_lock(fd, F_SETLK, F_UNLCK) == 0;
}

}  // namespace kova
