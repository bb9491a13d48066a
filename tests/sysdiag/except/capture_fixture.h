// What the capture's tests share: children that crash under a minimal host, and what they leave behind.
#pragma once

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <ucontext.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <string_view>
#include <vector>

#include "kova/black_box.h"
#include "kova/exception_capture.h"
#include "kova/memory.h"
#include "kova_platform/process_globals.h"

namespace kova::test {

inline constexpr char kLogPath[] = "/opt/norvel/var/log/kova_exception.log";
inline constexpr char kBoxPath[] = "/opt/norvel/var/log/kova_exception_assert";
inline constexpr int kUnrecovered = 77;  // a fault inside the capture came back to the host
inline constexpr unsigned kChildLimitSeconds = 60;

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

// Runs `body` in a child and answers its wait status. A child that hangs dies of SIGALRM.
inline int in_child(const std::function<void()>& body) {
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::alarm(kChildLimitSeconds);
        body();
        ::_exit(0);
    }
    int status = -1;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) continue;
    return status;
}

inline std::string read_text(const char* path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

inline std::size_t count_of(std::string_view text, std::string_view part) {
    std::size_t count = 0;
    for (std::size_t at = text.find(part); at != text.npos; at = text.find(part, at + part.size())) ++count;
    return count;
}

// The exception records, newest first.
inline std::vector<KovaExceptInfo> stored_records() {
    std::uint32_t count = 20;
    void* buffer = nullptr;
    EXPECT_EQ(0U, KOVA_BoxRead(0, 0, &count, &buffer));
    std::vector<KovaExceptInfo> records(buffer == nullptr ? 0 : count);
    if (!records.empty()) std::memcpy(records.data(), buffer, records.size() * sizeof(KovaExceptInfo));
    if (buffer != nullptr) KovaBaseFree(g_kovaAgentMemHandle, buffer, "test", __LINE__);
    return records;
}

// A user context made by hand. General registers that the machine does not have are left out.
struct Registers {
    std::array<std::uint64_t, 31> x{};
    std::uint64_t sp = 0;
    std::uint64_t pc = 0;
};

inline ucontext_t make_context(const Registers& registers) {
    ucontext_t context{};
#if defined(__aarch64__)
    for (std::size_t i = 0; i < registers.x.size(); ++i) context.uc_mcontext.regs[i] = registers.x[i];
    context.uc_mcontext.sp = registers.sp;
    context.uc_mcontext.pc = registers.pc;
#else
    const auto set = [&context](int index, std::uint64_t value) {
        context.uc_mcontext.gregs[index] = static_cast<greg_t>(value);
    };
    set(REG_RDI, registers.x[0]);
    set(REG_RSI, registers.x[1]);
    set(REG_RDX, registers.x[2]);
    set(REG_RCX, registers.x[3]);
    set(REG_RBX, registers.x[19]);
    set(REG_RBP, registers.x[29]);
    set(REG_RSP, registers.sp);
    set(REG_RIP, registers.pc);
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
    void SetUp() override {
        ::unlink(kLogPath);
        ::unlink(kBoxPath);
    }
};

}  // namespace kova::test
