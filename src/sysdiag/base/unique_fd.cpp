// Opening, reading and writing; see unique_fd.h.
//
// Signal context: all of it.
#include "base/unique_fd.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>

#include "base/signal_path.h"

namespace kova {
namespace {

constexpr int kFirstOwnFd = STDERR_FILENO + 1;

}  // namespace

UniqueFd& UniqueFd::operator=(UniqueFd&& other) noexcept {
    if (this != &other) {
        reset();
        fd_ = other.release();
    }
    return *this;
}

int UniqueFd::release() {
    const int fd = fd_;
    fd_ = -1;
    return fd;
}

void UniqueFd::reset() {
    if (fd_ < 0) return;
    const int saved_errno = errno;
    // Never repeated: Linux releases the descriptor whatever close answers.
    static_cast<void>(::close(release()));
    errno = saved_errno;
}

UniqueFd open_file(const char* path, int flags, mode_t mode) {
    int fd = -1;
    do {
        fd = ::open(path, flags, mode);
    } while (fd < 0 && errno == EINTR);
    return above_standard(fd, flags);
}

UniqueFd above_standard(int fd, int flags) {
    if (fd < 0 || fd >= kFirstOwnFd) return UniqueFd(fd);
    UniqueFd low(fd);
    const int command = (flags & O_CLOEXEC) != 0 ? F_DUPFD_CLOEXEC : F_DUPFD;
    return UniqueFd(::fcntl(low.get(), command, kFirstOwnFd));
}

UniqueFd open_regular_file(const char* path, int flags, mode_t mode) {
    UniqueFd fd = open_file(path, flags, mode);
    if (!fd.is_open()) return fd;
    struct stat status {};
    if (::fstat(fd.get(), &status) != 0) {
        fd.reset();
    } else if (!S_ISREG(status.st_mode)) {
        fd.reset();
        errno = EINVAL;
    }
    return fd;
}

ssize_t read_once(int fd, void* buffer, std::size_t length) {
    ssize_t count = 0;
    do {
        count = ::read(fd, buffer, length);
    } while (count < 0 && errno == EINTR);
    return count;
}

ssize_t read_at(int fd, void* buffer, std::size_t length, off_t position) {
    ssize_t count = 0;
    do {
        count = ::pread(fd, buffer, length, position);
    } while (count < 0 && errno == EINTR);
    return count;
}

ssize_t write_once(int fd, const void* data, std::size_t length) {
    ssize_t count = 0;
    do {
        count = ::write(fd, data, length);
    } while (count < 0 && errno == EINTR);
    return count;
}

}  // namespace kova
