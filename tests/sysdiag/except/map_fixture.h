// What the tests of the exception log and the memory map share: children, map files made by hand, mappings with edges.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>

#include "base/result.h"
#include "kova/memory_map.h"

namespace kova::test {

inline constexpr char kLogPath[] = "/opt/norvel/var/log/kova_exception.log";
inline constexpr char kFakeMapPath[] = "/run/kova/fake_map";
inline constexpr unsigned kChildLimitSeconds = 60;

inline void remove_log() {
    ::unlink(kLogPath);
}

inline std::string log_text() {
    std::ifstream file(kLogPath, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

inline pid_t start_child(const std::function<void()>& body) {
    const pid_t pid = ::fork();
    if (pid != 0) return pid;
    ::alarm(kChildLimitSeconds);
    body();
    ::_exit(testing::Test::HasFailure() ? 1 : 0);
}

inline int end_of_child(pid_t pid) {
    int status = -1;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) continue;
    return status;
}

inline void expect_child_succeeds(const std::function<void()>& body) {
    EXPECT_EQ(0, end_of_child(start_child(body)));
}

inline void write_fake_map(const std::string& text) {
    std::ofstream(kFakeMapPath, std::ios::binary | std::ios::trunc) << text;
}

// Puts a file in the place of this process's map file. In a child only: the sanitizers need the real one at the end.
inline void cover_map_file(const char* path) {
    ASSERT_EQ(0, ::unshare(CLONE_NEWNS)) << std::strerror(errno);
    ASSERT_EQ(0, ::mount(path, "/proc/self/maps", nullptr, MS_BIND, nullptr)) << std::strerror(errno);
}

inline void fake_map_file(const std::string& text) {
    write_fake_map(text);
    cover_map_file(kFakeMapPath);
}

inline std::string map_line(std::uint64_t start, std::uint64_t end, const std::string& permissions,
                            const std::string& name = "") {
    char head[96];
    std::snprintf(head, sizeof head, "%" PRIx64 "-%" PRIx64 " ", start, end);
    return head + permissions + " 00000000 00:00 0 " + (name.empty() ? "" : "         " + name) + "\n";
}

inline std::string many_map_lines() {
    std::string text;
    for (std::uint64_t i = 1; i <= 100; ++i) text += map_line(i << 20, (i << 20) + 0x1000, "r--p", "/usr/lib/some.so");
    return text;
}

// Pages in front of one that cannot be touched. The bytes count up, so that every word tells where it stood.
class EdgedPages {
  public:
    static constexpr std::size_t kPage = 4096;

    explicit EdgedPages(std::size_t count = 1) : size_(count * kPage) {
        memory_ = static_cast<std::uint8_t*>(
            ::mmap(nullptr, size_ + kPage, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        for (std::size_t i = 0; i < size_; ++i) memory_[i] = static_cast<std::uint8_t>(i);
        ::mprotect(memory_ + size_, kPage, PROT_NONE);
    }
    EdgedPages(const EdgedPages&) = delete;
    EdgedPages& operator=(const EdgedPages&) = delete;
    ~EdgedPages() { ::munmap(memory_, size_ + kPage); }

    [[nodiscard]] std::uint8_t* memory() const { return memory_; }
    [[nodiscard]] std::uint64_t start() const { return reinterpret_cast<std::uint64_t>(memory_); }
    [[nodiscard]] std::uint64_t end() const { return start() + size_; }

  private:
    std::size_t size_;
    std::uint8_t* memory_;
};

}  // namespace kova::test
