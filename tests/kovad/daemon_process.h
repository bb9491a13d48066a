// The daemon and kovactl as a user runs them.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include "support/run_command.h"

namespace kova::test {

// A daemon of the test's own, killed at the end.
class DaemonProcess {
  public:
    explicit DaemonProcess(const std::string& options) {
        int ends[2];
        if (::pipe2(ends, O_CLOEXEC) != 0) std::abort();
        // Made before the fork: the test may have threads, and one of them may hold the heap's lock.
        const std::string command = std::string("exec " KOVAD " ") + options;
        if ((pid_ = ::fork()) < 0) std::abort();
        if (pid_ == 0) {
            ::dup2(ends[1], STDERR_FILENO);
            ::execl("/bin/sh", "sh", "-c", command.c_str(), nullptr);
            ::_exit(127);
        }
        ::close(ends[1]);
        lines_ = ::fdopen(ends[0], "r");
    }
    DaemonProcess(const DaemonProcess&) = delete;
    DaemonProcess& operator=(const DaemonProcess&) = delete;
    ~DaemonProcess() {
        if (pid_ > 0) stop(SIGKILL);
        std::fclose(lines_);
    }

    [[nodiscard]] pid_t pid() const { return pid_; }

    // Reads what it logs until a line has this text in it; false when it ends before.
    bool wait_for(const std::string& text) {
        char line[1024];
        while (std::fgets(line, sizeof line, lines_) != nullptr) {
            if (std::string(line).find(text) != std::string::npos) return true;
        }
        return false;
    }

    int stop(int signal_number) {
        ::kill(pid_, signal_number);
        return wait_status();
    }

    int wait_status() {
        int status = -1;
        ::waitpid(pid_, &status, 0);
        pid_ = -1;
        return status;
    }

  private:
    pid_t pid_ = -1;
    std::FILE* lines_ = nullptr;
};

}  // namespace kova::test
