// Opening and locking the node's shared files; see shared_file.h.
//
// Signal context: all of it.
#include "base/shared_file.h"

#include <sys/stat.h>
#include <cerrno>

#include "base/file_lock.h"
#include "base/signal_path.h"

namespace kova {
namespace {

constexpr int kRestarts = 3;

}  // namespace

OpenStep SharedFile::open_locked(const Steps& steps) {
    process_lock_.emplace(kind_.lock, kind_.budget(), thread_);
    OpenStep failed = OpenStep::kLock;
    for (int restarts = 0; restarts <= kRestarts; ++restarts) {
        fd_ = open_for(steps);
        if (!fd_.is_open()) {
            failed = OpenStep::kOpen;
            break;
        }
        if (steps.prepare != nullptr && steps.prepare(fd_.get(), steps.context) != 0) {
            failed = OpenStep::kPrepare;
            break;
        }
        if (!lock_whole_file(fd_.get(), kind_.budget(), thread_)) break;
        locked_ = true;
        struct stat status {};
        // A file that cannot be looked at may still be written: nothing is lost by trying.
        if (::fstat(fd_.get(), &status) != 0) return OpenStep::kDone;
        if (!S_ISREG(status.st_mode)) {
            errno = EINVAL;
            failed = OpenStep::kOpen;
            break;
        }
        if (status.st_nlink != 0) return OpenStep::kDone;
        // What was locked is nobody's file any more. The lock goes with the descriptor.
        locked_ = false;
        fd_.reset();
        errno = ESTALE;
    }
    close();
    return failed;
}

void SharedFile::close() {
    const int saved_errno = errno;
    // A failed unlock is made good by the close that follows.
    if (locked_) static_cast<void>(unlock_whole_file(fd_.get()));
    locked_ = false;
    fd_.reset();
    process_lock_.reset();
    errno = saved_errno;
}

// A FIFO or a device must not be prepared. Where there is nothing to prepare, the look at the file after the lock will
// do: a report has a hundred pieces.
UniqueFd SharedFile::open_for(const Steps& steps) const {
    if (steps.open != nullptr) return steps.open(steps.context);
    if (steps.prepare != nullptr) return open_regular_file(kind_.path, kind_.flags, kind_.mode);
    return open_file(kind_.path, kind_.flags, kind_.mode);
}

}  // namespace kova
