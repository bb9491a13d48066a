// What the capture's tests share: children that crash under a minimal host, and what they leave behind.
#pragma once

#include <sys/mman.h>
#include <ucontext.h>

#include <csignal>
#include <cstdlib>

#include "kova/exception_capture.h"
#include "support/crash_traces.h"

namespace kova::test {

inline constexpr int kUnrecovered = 77;  // a fault inside the capture came back to the host

// The least that a host does: record, then let the signal have its effect.
inline void host_handler(int signal, siginfo_t* info, void* context) {
    static volatile sig_atomic_t depth = 0;
    const int own_depth = depth + 1;
    depth = own_depth;
    KOVA_SignalInfoRecordHandler(signal, info, context);
    // An entry for a fault inside the capture comes back only when nothing could be recovered.
    if (own_depth > 1) ::_exit(kUnrecovered);
    depth = 0;
    ::signal(signal, SIG_DFL);
    if (info->si_code <= 0) ::raise(signal);
}

inline void install_host(void (*handler)(int, siginfo_t*, void*) = host_handler) {
    struct sigaction action {};
    action.sa_sigaction = handler;
    action.sa_flags = SA_ONSTACK | SA_SIGINFO | SA_NODEFER;
    sigfillset(&action.sa_mask);
    for (const int fault : {SIGSEGV, SIGBUS, SIGILL, SIGFPE}) sigdelset(&action.sa_mask, fault);
    for (const int signal : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGABRT, SIGTERM}) ::sigaction(signal, &action, nullptr);
}

// An alternate stack that remembers how deep it was used, with a guard page below it.
class PaintedStack {
  public:
    explicit PaintedStack(std::size_t size) : size_(size) {
        auto* const memory = static_cast<std::uint8_t*>(
            ::mmap(nullptr, size + kGuard, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        ::mprotect(memory, kGuard, PROT_NONE);
        base_ = memory + kGuard;
        std::memset(base_, kPaint, size);
        const stack_t stack{.ss_sp = base_, .ss_flags = 0, .ss_size = size};
        if (::sigaltstack(&stack, nullptr) != 0) std::abort();
    }

    [[nodiscard]] std::size_t deepest_use() const {
        std::size_t untouched = 0;
        while (untouched < size_ && base_[untouched] == kPaint) ++untouched;
        return size_ - untouched;
    }

  private:
    static constexpr std::size_t kGuard = 65536;
    static constexpr std::uint8_t kPaint = 0xA5;
    std::uint8_t* base_;
    std::size_t size_;
};

// Ends in a fault at the end of the stack.
[[gnu::noinline]] inline int recurse_for_ever(volatile int* depth) {
    volatile char frame[4096];
    frame[0] = static_cast<char>(*depth);
    *depth = *depth + 1;
    if (*depth < 0) return 0;
    return recurse_for_ever(depth) + frame[0];
}

[[gnu::noinline]] inline void overflow_the_stack() {
    volatile int depth = 0;
    recurse_for_ever(&depth);
}

// A user context made by hand, of which the program counter is all that tells.
inline ucontext_t context_at(std::uint64_t pc) {
    ucontext_t context{};
#if defined(__aarch64__)
    context.uc_mcontext.pc = pc;
#else
    context.uc_mcontext.gregs[REG_RIP] = static_cast<greg_t>(pc);
#endif
    return context;
}

inline siginfo_t sent_by(pid_t sender, int signal) {
    siginfo_t info{};
    info.si_signo = signal;
    info.si_code = SI_USER;
    info.si_pid = sender;
    return info;
}

// Starts every test on a node without log and black box.
class Capture : public testing::Test {
  protected:
    Capture() { remove_log_and_box(); }
};

}  // namespace kova::test
