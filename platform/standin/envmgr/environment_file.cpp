#include "environment_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

namespace envmgr {
namespace {

constexpr off_t kMostBytes = 64 * 1024;  // what boot loaders have room for

bool fail(const char* what, const std::string& path, int error) {
    std::fprintf(stderr, "envmgr: cannot %s %s: %s\n", what, path.c_str(), std::strerror(error));
    return false;
}

std::string folder_of(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : path.substr(0, slash);
}

class Descriptor {
  public:
    Descriptor(const std::string& path, int flags) : fd_(::open(path.c_str(), flags | O_CLOEXEC, 0644)) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() {
        if (fd_ >= 0) ::close(fd_);
    }
    [[nodiscard]] int get() const { return fd_; }

  private:
    int fd_;
};

bool read_all(int fd, std::string* text) {
    char piece[4096];
    for (;;) {
        const ssize_t got = ::read(fd, piece, sizeof piece);
        if (got == 0) return true;
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return false;
        text->append(piece, static_cast<std::size_t>(got));
    }
}

bool write_all(int fd, const std::string& text) {
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t put = ::write(fd, text.data() + done, text.size() - done);
        if (put < 0 && errno == EINTR) continue;
        if (put < 0) return false;
        done += static_cast<std::size_t>(put);
    }
    return true;
}

}  // namespace

EnvironmentFile::EnvironmentFile(std::string path)
    : path_(std::move(path)), pending_(path_ + ".pending"), folder_(folder_of(path_)) {}

EnvironmentFile::~EnvironmentFile() {
    if (folder_fd_ >= 0) ::close(folder_fd_);
}

bool EnvironmentFile::lock() {
    folder_fd_ = ::open(folder_.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder_fd_ < 0) return fail("open folder", folder_, errno);
    while (::flock(folder_fd_, LOCK_EX) != 0) {
        if (errno != EINTR) return fail("lock folder", folder_, errno);
    }
    return true;
}

std::optional<std::string> EnvironmentFile::read() const {
    // Needs no lock: both files are complete at any moment, and a save moves the first to where the second is sought.
    for (const std::string* path : {&pending_, &path_}) {
        const Descriptor file(*path, O_RDONLY | O_NONBLOCK);
        if (file.get() < 0 && errno == ENOENT) continue;
        struct stat status {};
        if (file.get() < 0 || ::fstat(file.get(), &status) != 0) {
            fail("open", *path, errno);
            return std::nullopt;
        }
        if (!S_ISREG(status.st_mode) || status.st_size > kMostBytes) {
            fail("read", *path, S_ISREG(status.st_mode) ? EFBIG : EINVAL);
            return std::nullopt;
        }
        std::string text;
        if (!read_all(file.get(), &text)) {
            fail("read", *path, errno);
            return std::nullopt;
        }
        return text;
    }
    return std::string();
}

bool EnvironmentFile::set_pending(const std::string& text) {
    if (text.size() > static_cast<std::size_t>(kMostBytes)) return fail("write", pending_, EFBIG);
    const std::string unfinished = pending_ + ".new";
    {
        const Descriptor file(unfinished, O_WRONLY | O_CREAT | O_TRUNC | O_NOFOLLOW);
        if (file.get() < 0) return fail("create", unfinished, errno);
        if (!write_all(file.get(), text)) return fail("write", unfinished, errno);
        // First the bytes, then the name: after a power failure the name must not stand for an empty file.
        if (::fsync(file.get()) != 0) return fail("write back", unfinished, errno);
    }
    return ::rename(unfinished.c_str(), pending_.c_str()) == 0 || fail("rename", unfinished, errno);
}

bool EnvironmentFile::save() {
    // Without a pending environment the folder is written back all the same: an earlier save may have been killed
    // between the two.
    if (::rename(pending_.c_str(), path_.c_str()) != 0 && errno != ENOENT) return fail("replace", path_, errno);
    return ::fsync(folder_fd_) == 0 || fail("write back", folder_, errno);
}

}  // namespace envmgr
