// The boot environment in two files: FILE, which is persistent, and FILE.pending, the environment as setenv left it.
//
// Both hold one NAME=VALUE a line; the last line of a name counts, and lines of any other form are kept as they are.
// FILE.pending is complete whenever it exists, and saving renames it over FILE. So FILE is the old or the new
// environment, whole, wherever a process is killed or the power fails.
//
// Failures are told on standard error.
#pragma once

#include <optional>
#include <string>

namespace envmgr {

class EnvironmentFile {
  public:
    explicit EnvironmentFile(std::string path);
    EnvironmentFile(const EnvironmentFile&) = delete;
    EnvironmentFile& operator=(const EnvironmentFile&) = delete;
    ~EnvironmentFile();

    // Waits for other processes that change this environment.
    [[nodiscard]] bool lock();

    // The pending environment where there is one, else the persistent one; empty where there is neither.
    [[nodiscard]] std::optional<std::string> read() const;

    // The two that change something are called under the lock.
    [[nodiscard]] bool set_pending(const std::string& text);
    [[nodiscard]] bool save();

  private:
    std::string path_;
    std::string pending_;
    std::string folder_;
    int folder_fd_ = -1;  // its lock is the lock of the environment
};

}  // namespace envmgr
