// A file at a fixed path that all processes of the node share: the black box and the exception log.
//
// Every operation opens it, takes the lock between threads and the lock between processes, works, and closes it again;
// nothing is kept open. Between the open and the lock somebody may remove the file: what is locked then is no longer
// what the path names, so the operation starts again at the open, three times at most.
//
// Locks: the file's ProcessLock from before the open to after the close, the whole-file record lock within it.
// Signal context: safe.
#pragma once

#include <sys/types.h>
#include <optional>

#include "base/process_lock.h"
#include "base/unique_fd.h"

namespace kova {

// What is fixed about one of the files. Its ProcessLock lives beside it, one per file and process.
struct SharedFileKind {
    const char* path;
    int flags;
    mode_t mode;
    ProcessLock& lock;
    WaitBudget& (*budget)();
};

enum class OpenStep { kDone, kOpen, kPrepare, kLock };

class SharedFile {
  public:
    explicit SharedFile(const SharedFileKind& kind, const CallingThread& thread = calling_thread())
        : kind_(kind), thread_(thread) {}
    ~SharedFile() { close(); }
    SharedFile(const SharedFile&) = delete;
    SharedFile& operator=(const SharedFile&) = delete;

    // How to open the file (by default: kind's path, flags and mode), and what to do between the open and the lock
    // (by default nothing). `prepare` answers 0 or the failing call's result. Both are called again on every restart,
    // so four times at most; `context` is theirs, for what the caller wants to know of them.
    struct Steps {
        UniqueFd (*open)(void* context) = nullptr;
        int (*prepare)(int fd, void* context) = nullptr;
        void* context = nullptr;
    };

    // Inside the record handler: nothing is left of the time for waits, so that it is better not to try.
    [[nodiscard]] bool budget_is_spent() const { return thread_.in_handler && kind_.budget().left_ms <= 0; }

    // Opens, prepares and locks. On failure answers the step that failed, with errno; the file is closed again and the
    // locks are released, except that nothing is undone of what `prepare` did.
    [[nodiscard]] OpenStep open_locked(const Steps& steps);
    [[nodiscard]] OpenStep open_locked() { return open_locked(Steps{}); }

    [[nodiscard]] int fd() const { return fd_.get(); }

    // Releases the record lock, closes, releases the process lock. Leaves errno as it is. May be called twice.
    void close();

  private:
    [[nodiscard]] UniqueFd open_for(const Steps& steps) const;

    const SharedFileKind& kind_;
    const CallingThread thread_;
    std::optional<ScopedProcessLock> process_lock_;
    UniqueFd fd_;
    bool locked_ = false;
};

}  // namespace kova
