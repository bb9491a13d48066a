// The system calls of the black box's operations, in the test's hands: each can be made to fail, to be cut short or to
// be the process's last; all are recorded while `watched`.
//
// Including this header defines them in the test program. Outside a Watch they are the system's own.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "kova/memory.h"
#include "kova/shell_command.h"
#include "sysdiag/except/box_fixture.h"

namespace kova::test {

// Death is by SIGKILL: midway through a write, half of it is in the file.
enum class Fate { kNormal, kFail, kHalf, kDieBefore, kDieMidway, kDieAfter };

struct Calls {
    // Decides what becomes of a call; sets errno for one that fails. May do what another process would do meanwhile.
    std::function<Fate(std::string_view call)> decide{};
    bool recording = false;
    // Sees the calls of all threads, recorded or not.
    std::function<void(std::string_view call)> observe{};
    std::vector<std::string_view> made{};
    std::vector<Step> changes{};  // writes and lengths, in their order
    std::string command{};        // the last that was given to the shell
};
inline Calls& calls() {
    static Calls instance;
    return instance;
}

// Decides and records until the end of its scope.
class Watch {
  public:
    explicit Watch(std::function<Fate(std::string_view)> decide = {}) {
        calls() = {.decide = std::move(decide), .recording = true};
    }
    Watch(const Watch&) = delete;
    Watch& operator=(const Watch&) = delete;
    ~Watch() {
        calls().decide = {};
        calls().observe = {};
        calls().recording = false;
    }
};

// Lets calls of one kind fail: `times` in a row from the at-th on, counted from 1.
inline auto failing(std::string_view kind, int at = 1, int times = 1, int error = EIO) {
    return [=, seen = 0](std::string_view call) mutable {
        if (call != kind || ++seen < at || seen >= at + times) return Fate::kNormal;
        errno = error;
        return Fate::kFail;
    };
}

template <typename Real>
long decided(std::string_view call, Real real) {
    if (calls().observe) calls().observe(call);
    if (!calls().recording) return real(false);
    const Fate fate = calls().decide ? calls().decide(call) : Fate::kNormal;
    calls().made.push_back(call);
    const auto die = [] { ::syscall(SYS_kill, ::syscall(SYS_getpid), SIGKILL); };
    if (fate == Fate::kFail) return -1;
    if (fate == Fate::kDieBefore) die();
    const long result = real(fate == Fate::kHalf || fate == Fate::kDieMidway);
    if (fate == Fate::kDieMidway || fate == Fate::kDieAfter) die();
    return result;
}

}  // namespace kova::test

extern "C" {

__attribute__((used)) inline int open(const char* path, int flags, ...) {
    va_list arguments;
    va_start(arguments, flags);
    const mode_t mode = va_arg(arguments, mode_t);
    va_end(arguments);
    const auto real = [=](bool) { return ::syscall(SYS_openat, AT_FDCWD, path, flags, mode); };
    const bool box = std::string_view(path) == kova::test::kBoxPath;
    return static_cast<int>(box ? kova::test::decided("open", real) : real(false));
}

__attribute__((used)) inline int close(int fd) {
    using namespace kova::test;
    // A descriptor is released whatever close answers.
    const long result = ::syscall(SYS_close, fd);
    return static_cast<int>(decided("close", [=](bool) { return result; }));
}

__attribute__((used)) inline int fstat(int fd, struct stat* status) noexcept {
    return static_cast<int>(
        kova::test::decided("fstat", [=](bool) { return long{::fstatat(fd, "", status, AT_EMPTY_PATH)}; }));
}

__attribute__((used)) inline int ftruncate(int fd, off_t length) noexcept {
    using namespace kova::test;
    return static_cast<int>(decided("ftruncate", [=](bool) {
        if (calls().recording) calls().changes.push_back({"ftruncate"});
        return ::syscall(SYS_ftruncate, fd, length);
    }));
}

__attribute__((used)) inline off_t lseek(int fd, off_t offset, int whence) noexcept {
    return kova::test::decided("lseek", [=](bool) { return ::syscall(SYS_lseek, fd, offset, whence); });
}

__attribute__((used)) inline ssize_t read(int fd, void* buffer, size_t length) {
    return kova::test::decided("read", [=](bool) { return ::syscall(SYS_read, fd, buffer, length); });
}

__attribute__((used)) inline ssize_t write(int fd, const void* data, size_t length) {
    using namespace kova::test;
    return decided("write", [=](bool half) {
        if (calls().recording) {
            const auto* bytes = static_cast<const std::uint8_t*>(data);
            const auto at = static_cast<std::size_t>(::syscall(SYS_lseek, fd, 0, SEEK_CUR));
            calls().changes.push_back({"write", 0, {at, Bytes(bytes, bytes + length)}});
        }
        return ::syscall(SYS_write, fd, data, half ? length / 2 : length);
    });
}

__attribute__((used)) inline int fcntl(int fd, int command, ...) {
    using namespace kova::test;
    va_list arguments;
    va_start(arguments, command);
    void* const argument = va_arg(arguments, void*);
    va_end(arguments);
    const auto real = [=](bool) { return ::syscall(SYS_fcntl, fd, command, argument); };
    if (command != F_SETLKW && command != F_SETLK) return static_cast<int>(real(false));
    const auto* lock = static_cast<const struct flock*>(argument);
    if (lock->l_whence != SEEK_SET || lock->l_start != 0 || lock->l_len != 0) ::abort();
    if (lock->l_type != (command == F_SETLKW ? F_WRLCK : F_UNLCK)) ::abort();
    return static_cast<int>(decided(command == F_SETLKW ? "lock" : "unlock", real));
}

__attribute__((used)) inline int remove(const char* path) noexcept {
    return static_cast<int>(
        kova::test::decided("remove", [=](bool) { return long{::unlink(path) == 0 ? 0 : ::rmdir(path)}; }));
}

__attribute__((used)) inline uint32_t KovaSystemCmd(const char* command) {
    kova::test::calls().command = command;
    return 0;
}

__attribute__((used)) inline void* KovaBaseMalloc(uint32_t, uint32_t kind, uint32_t size, const char* tag, uint32_t) {
    if (kind != 1 || std::string_view(tag) != "kova_box") ::abort();
    return size == 0 ? nullptr : ::malloc(size);
}

}  // extern "C"
