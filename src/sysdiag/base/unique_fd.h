// A descriptor that closes itself, and how the library opens files.
//
// Signal context: safe.
#pragma once

#include <sys/types.h>
#include <cstddef>

namespace kova {

class UniqueFd {
  public:
    UniqueFd() = default;
    explicit UniqueFd(int fd) : fd_(fd) {}
    UniqueFd(UniqueFd&& other) noexcept : fd_(other.release()) {}
    UniqueFd& operator=(UniqueFd&& other) noexcept;
    UniqueFd(const UniqueFd&) = delete;
    UniqueFd& operator=(const UniqueFd&) = delete;
    ~UniqueFd() { reset(); }

    [[nodiscard]] int get() const { return fd_; }
    [[nodiscard]] bool is_open() const { return fd_ >= 0; }
    int release();
    void reset();  // leaves errno as it is

  private:
    int fd_ = -1;
};

// Opens a path; repeats an interrupted call. A descriptor that lands on 0, 1 or 2, because the process closed its
// standard ones, is moved above them: nobody's error message may end up in one of our files. Not open on failure, with
// errno as the failing call left it.
[[nodiscard]] UniqueFd open_file(const char* path, int flags, mode_t mode = 0);

// Takes a descriptor over, or -1, and moves it above the standard ones in the same way. `flags` as it was opened with.
[[nodiscard]] UniqueFd above_standard(int fd, int flags);

// The same, and a path that is not a regular file (a FIFO, a device) counts as an open that failed, with EINVAL.
[[nodiscard]] UniqueFd open_regular_file(const char* path, int flags, mode_t mode = 0);

// One read or write, repeated while a signal interrupts it before anything was transferred.
[[nodiscard]] ssize_t read_once(int fd, void* buffer, std::size_t length);
[[nodiscard]] ssize_t write_once(int fd, const void* data, std::size_t length);

// Likewise, from a position of its own.
[[nodiscard]] ssize_t read_at(int fd, void* buffer, std::size_t length, off_t position);

}  // namespace kova
