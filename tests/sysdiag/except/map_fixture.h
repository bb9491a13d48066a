// What the tests of the exception log and the memory map share: map files made by hand, mappings with edges.
#pragma once

#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>

#include <cinttypes>
#include <cstdio>

#include "base/result.h"
#include "kova/memory_map.h"
#include "support/crash_traces.h"

namespace kova::test {

inline constexpr char kFakeMapPath[] = "/run/kova/fake_map";

inline void write_fake_map(const std::string& text) {
    write_file(kFakeMapPath, text);
}

// Puts a text in the place of this process's map file. In a child only: the sanitizers need the real one at the end.
inline void fake_map_file(const std::string& text) {
    write_fake_map(text);
    ASSERT_EQ(0, ::unshare(CLONE_NEWNS)) << std::strerror(errno);
    ASSERT_EQ(0, ::mount(kFakeMapPath, "/proc/self/maps", nullptr, MS_BIND, nullptr)) << std::strerror(errno);
}

inline std::string map_line(std::uint64_t start, std::uint64_t end, const std::string& permissions = "rw-p",
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
