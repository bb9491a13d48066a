// A crash that is made up: a process with many mappings, and a user context whose registers point into them.
//
// Each of the fourteen general registers that x86-64 has a role for, and sp, pc and fp, points into the middle of a
// readable mapping of its own, spread over all of them. The memory around the general registers holds heap pointers, so
// that a capture searches, dumps and prints as much as it ever does: fourteen register sections, 32 heap sections, and
// those of sp, pc and fp.
#pragma once

#include <ucontext.h>
#include <csignal>
#include <cstddef>
#include <memory>

namespace kova::bench {

inline constexpr char kLogPath[] = "/opt/norvel/var/log/kova_exception.log";
inline constexpr std::size_t kGeneralSections = 14;

class MadeUpCrash {
  public:
    // Adds mappings until the process has `mappings`, if it has not more than that already.
    explicit MadeUpCrash(std::size_t mappings);
    ~MadeUpCrash();
    MadeUpCrash(const MadeUpCrash&) = delete;
    MadeUpCrash& operator=(const MadeUpCrash&) = delete;

    // What the process has in all.
    [[nodiscard]] std::size_t mappings() const { return mappings_; }

    // Empties the log and lets the heap be printed again: a process prints 32 heap sections in its life.
    static void start_afresh();
    void capture();

    [[nodiscard]] const ucontext_t& context() const { return context_; }

  private:
    void fill_pages();
    void point_registers_into_pages();
    [[nodiscard]] unsigned char* page_of(std::size_t index) const;

    std::size_t pages_;
    unsigned char* memory_ = nullptr;
    std::size_t mappings_ = 0;
    std::unique_ptr<char[]> heap_block_;
    siginfo_t info_{};
    ucontext_t context_{};
};

[[nodiscard]] std::size_t count_mappings();

}  // namespace kova::bench
