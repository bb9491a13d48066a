// What the host's tests share: programs that run with and without the host, and what they leave behind.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>

#include <csignal>
#include <cstdlib>
#include <optional>

#include "support/crash_traces.h"

namespace kova::test {

// Helper programs stand beside this one, libraries in ../lib.
inline std::string beside_this_program(const std::string& name) {
    char path[4096] = "";
    const ssize_t length = ::readlink("/proc/self/exe", path, sizeof path - 1);
    std::string own(path, length > 0 ? static_cast<std::size_t>(length) : 0);
    return own.substr(0, own.rfind('/') + 1) + name;
}

enum class Host { kNone, kPreloaded };

struct StartOptions {
    Host host = Host::kPreloaded;
    const char* timeout_seconds = nullptr;
    std::function<void()> before_exec = [] {};
};

class Program {
  public:
    Program(std::vector<std::string> command, const StartOptions& options) {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0) std::abort();
        command[0] = beside_this_program(command[0]);
        if ((pid_ = ::fork()) < 0) std::abort();
        if (pid_ == 0) {
            ::dup2(ends[1], STDOUT_FILENO);
            if (options.timeout_seconds != nullptr) ::setenv("KOVA_HOST_TIMEOUT", options.timeout_seconds, 1);
            if (options.host == Host::kPreloaded) {
                ::setenv("LD_PRELOAD", beside_this_program("../lib/libkova_host.so").c_str(), 1);
            }
            std::vector<char*> arguments;
            arguments.reserve(command.size() + 1);
            for (std::string& word : command) arguments.push_back(word.data());
            arguments.push_back(nullptr);
            options.before_exec();
            ::execv(arguments[0], arguments.data());
            ::_exit(127);
        }
        ::close(ends[1]);
        output_ = ends[0];
    }
    ~Program() { ::close(output_); }
    Program(const Program&) = delete;
    Program& operator=(const Program&) = delete;

    [[nodiscard]] pid_t pid() const { return pid_; }

    // Until the program has said that it is up.
    void wait_until_ready() const {
        char letter = 0;
        EXPECT_EQ(1, ::read(output_, &letter, 1));
    }

    // Until a capture has begun: from then on the host ignores this signal.
    void wait_until_capturing() const {
        while ((ignored_signals() >> (SIGXFSZ - 1) & 1) == 0 && ::kill(pid_, 0) == 0) ::poll(nullptr, 0, 1);
    }

    // All that it writes to its standard output, until it closes it.
    [[nodiscard]] std::string output() const {
        std::string text;
        char piece[512];
        for (ssize_t count = 0; (count = ::read(output_, piece, sizeof piece)) > 0;) {
            text.append(piece, static_cast<std::size_t>(count));
        }
        return text;
    }

    int wait_status() const { return end_of_child(pid_); }

    // The same for a program that may never end; it is killed then, and nothing is answered.
    [[nodiscard]] std::optional<int> wait_status_within(int seconds) const {
        pollfd end{.fd = static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0)), .events = POLLIN, .revents = 0};
        if (end.fd < 0) return wait_status();
        int ready = 0;
        while ((ready = ::poll(&end, 1, seconds * 1000)) < 0 && errno == EINTR) continue;
        ::close(end.fd);
        if (ready == 0) ::kill(pid_, SIGKILL);
        const int status = wait_status();
        return ready == 0 ? std::nullopt : std::optional<int>(status);
    }

  private:
    [[nodiscard]] unsigned long long ignored_signals() const {
        std::ifstream file("/proc/" + std::to_string(pid_) + "/status");
        for (std::string line; std::getline(file, line);) {
            if (line.starts_with("SigIgn:")) return std::strtoull(line.c_str() + 7, nullptr, 16);
        }
        return 0;
    }

    pid_t pid_;
    int output_;
};

inline int run(const std::vector<std::string>& command, const StartOptions& options = {}) {
    return Program(command, options).wait_status();
}

// Holds the whole-file lock of a file until it goes out of scope. The lock belongs to a stopped child, so nothing that
// this process opens and closes drops it.
class HeldLock {
  public:
    explicit HeldLock(const char* path) {
        holder_ = ::fork();
        if (holder_ == 0) {
            struct flock whole {};
            whole.l_type = F_WRLCK;
            const int fd = ::open(path, O_RDWR | O_CREAT, 0660);
            if (::fcntl(fd, F_SETLKW, &whole) != 0) ::_exit(1);
            ::raise(SIGSTOP);
            ::_exit(0);
        }
        int status = 0;
        EXPECT_EQ(holder_, ::waitpid(holder_, &status, WUNTRACED));
        EXPECT_TRUE(WIFSTOPPED(status));
    }
    ~HeldLock() { release(); }
    HeldLock(const HeldLock&) = delete;
    HeldLock& operator=(const HeldLock&) = delete;

    void release() {
        if (holder_ < 0) return;
        ::kill(holder_, SIGKILL);
        ::waitpid(holder_, nullptr, 0);
        holder_ = -1;
    }

  private:
    pid_t holder_;
};

// A node without log and black box, and room for core files that vanishes with it.
class OnFreshNode : public testing::Test {
  protected:
    OnFreshNode() {
        remove_log_and_box();
        EXPECT_EQ(0, ::chdir("/run/kova"));
    }
};

inline void allow_core() {
    rlimit limit{};
    ::getrlimit(RLIMIT_CORE, &limit);
    limit.rlim_cur = limit.rlim_max;
    ::setrlimit(RLIMIT_CORE, &limit);
}

}  // namespace kova::test
