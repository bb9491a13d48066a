// Whole-file record locks (fcntl), which keep the processes of a node apart.
//
// Signal context: safe; see signal_scope.h for how long a wait may last there.
#pragma once

#include "base/signal_scope.h"

namespace kova {

// Waits for the write lock over the whole file, however long it is.
//
// A wait that a signal interrupts is resumed; inside the record handler only while `budget` lasts, and what was waited
// is taken off it. EDEADLK, which the kernel reports wrongly for processes with several threads, is waited out and
// tried again for a bounded time. False, with errno, when the lock was not granted.
[[nodiscard]] bool lock_whole_file(int fd, WaitBudget& budget, const CallingThread& thread = calling_thread());

// False, with errno, when the call failed.
[[nodiscard]] bool unlock_whole_file(int fd);

}  // namespace kova
