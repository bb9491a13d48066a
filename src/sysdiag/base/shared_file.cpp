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
        fd_ =
            steps.open != nullptr ? steps.open(steps.context) : open_regular_file(kind_.path, kind_.flags, kind_.mode);
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
        if (!was_removed()) return OpenStep::kDone;
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

bool SharedFile::was_removed() const {
    struct stat status {};
    return ::fstat(fd_.get(), &status) == 0 && status.st_nlink == 0;
}

}  // namespace kova
