// A program that dies in the way that is asked for. It is linked with nothing of ours.
//
//     crash_helper MODE [NUMBER]
#include "host/crash_helper_modes.h"

#include <signal.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>

namespace {

// Reads and writes through these cannot be optimised away.
volatile int g_zero = 0;
volatile int g_sink = 0;

void fault_by_signal(int number) {
    if (number == SIGSEGV) fault();
    if (number == SIGBUS) {
        char name[] = "/dev/shm/crash_helperXXXXXX";
        const int fd = ::mkstemp(name);
        ::unlink(name);
        void* const past_the_end = ::mmap(nullptr, 4096, PROT_READ, MAP_SHARED, fd, 0);
        g_sink = *static_cast<volatile int*>(past_the_end);
    }
#if defined(__x86_64__)
    if (number == SIGFPE) g_sink = g_sink / g_zero;
    if (number == SIGILL) asm volatile("ud2");
#elif defined(__aarch64__)
    if (number == SIGFPE) ::raise(number);  // integer division does not trap
    if (number == SIGILL) asm volatile(".inst 0");
#endif
}

// An address that no address space has: the kernel does not tell which, and answers SI_KERNEL.
void fault_at_impossible_address(int) {
    g_sink = *reinterpret_cast<volatile int*>(0x8000'0000'0000'0000UL);
}

int overflow(int frames) {
    volatile char frame[4096];
    frame[0] = static_cast<char>(frames);
    return frames > 0 ? overflow(frames - 1) + frame[0] : 0;
}

void overflow_stack(int) {
    g_sink = overflow(1'000'000);
}

void wait_for_signal(int) {
    ::write(STDOUT_FILENO, "r", 1);
    for (;;) ::pause();
}

void own_handler(int number) {
    ::signal(number, [](int) { ::_exit(77); });
    ::raise(number);
}

// A program that looks before it arranges its signals, arranges them, and puts them back. Exit codes 10 to 13 tell what
// it saw that it should not have seen.
void default_again(int number) {
    const auto is_default = [number] {
        struct sigaction seen {};
        ::sigaction(number, nullptr, &seen);
        return seen.sa_handler == SIG_DFL && (seen.sa_flags & SA_SIGINFO) == 0;
    };
    if (!is_default()) std::_Exit(10);
    if (::signal(number, SIG_IGN) != SIG_DFL) std::_Exit(11);
    ::raise(number);
    if (::signal(number, SIG_DFL) != SIG_IGN || !is_default()) std::_Exit(12);
    struct sigaction action {};
    action.sa_handler = [](int) { std::_Exit(13); };
    struct sigaction old {};
    ::sigaction(number, &action, &old);
    ::sigaction(number, &old, nullptr);
    ::raise(number);
}

void blocked(int number) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, number);
    ::sigprocmask(SIG_BLOCK, &set, nullptr);
    ::raise(number);
}

// Exit code 0: limits are raised, and as many mappings as before are left of many threads.
void setup_is_sane(int) {
    for (const auto resource : {RLIMIT_NOFILE, RLIMIT_FSIZE}) {
        rlimit limit{};
        ::getrlimit(resource, &limit);
        if (limit.rlim_cur != limit.rlim_max) std::_Exit(10);
    }
    const auto count_maps = [] {
        std::FILE* const file = std::fopen("/proc/self/maps", "r");
        int lines = 0;
        for (int c = std::fgetc(file); c != EOF; c = std::fgetc(file)) lines += c == '\n' ? 1 : 0;
        std::fclose(file);
        return lines;
    };
    std::thread([] {}).join();
    const int before = count_maps();
    for (int i = 0; i < 200; ++i) std::thread([] {}).join();
    std::_Exit(count_maps() > before + 20 ? 11 : 0);
}

constexpr Mode kOwnModes[] = {
    {"fault", fault_by_signal},
    {"fault-impossible-address", fault_at_impossible_address},
    {"overflow", overflow_stack},
    {"overflow-thread", [](int) { std::thread(overflow_stack, 0).join(); }},
    {"raise", [](int number) { ::raise(number); }},
    {"kill", [](int number) { ::kill(::getpid(), number); }},
    {"abort", [](int) { std::abort(); }},
    {"exit", [](int number) { std::exit(number); }},
    {"wait", wait_for_signal},
    {"own-handler", own_handler},
    {"default-again", default_again},
    {"blocked", blocked},
    {"setup", setup_is_sane},
};

}  // namespace

int main(int argc, char** argv) {
    const int number = argc > 2 ? std::atoi(argv[2]) : 0;
    for (const auto modes : {std::span<const Mode>(kOwnModes), memory_modes(), thread_modes(), resource_modes()}) {
        for (const Mode& mode : modes) {
            if (argc > 1 && std::strcmp(mode.name, argv[1]) == 0) mode.run(number);
        }
    }
    return 3;  // still alive
}
