// Deaths among threads and children, with locks held and with system calls and hooks that go wrong.
#include <dlfcn.h>
#include <link.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <pthread.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <thread>

#include "host/crash_helper_modes.h"

namespace {

std::atomic<bool> g_is_inside{false};
bool g_crash_inside = false;

[[noreturn]] void stay_inside() {
    if (g_crash_inside) fault();
    g_is_inside = true;
    for (;;) ::pause();
}

void fault_in_many_threads(int count) {
    pthread_barrier_t barrier;
    pthread_barrier_init(&barrier, nullptr, static_cast<unsigned>(count));
    for (int i = 0; i < count; ++i) {
        std::thread([&barrier] {
            pthread_barrier_wait(&barrier);
            fault();
        }).detach();
    }
    for (;;) ::pause();
}

void load_the_module() {
    Dl_info own{};
    if (::dladdr(reinterpret_cast<const void*>(&load_the_module), &own) == 0) std::_Exit(kSetUpFailed);
    const std::string program(own.dli_fname);
    const std::string module = program.substr(0, program.rfind('/') + 1) + "libblocking_module.so";
    if (::dlopen(module.c_str(), RTLD_NOW) == nullptr) std::_Exit(kSetUpFailed);
}

void crash_while_another_loads(int) {
    std::thread(load_the_module).detach();
    while (!g_is_inside) continue;
    fault();
}

void crash_while_another_lists_modules(int) {
    std::thread([] {
        ::dl_iterate_phdr([](dl_phdr_info*, std::size_t, void*) -> int { stay_inside(); }, nullptr);
    }).detach();
    while (!g_is_inside) continue;
    fault();
}

void crash_in_a_constructor(int) {
    g_crash_inside = true;
    load_the_module();
}

// The child dies first, then the parent, which has more threads than the child ever had.
void crash_after_forked_child(int) {
    std::thread([] {
        for (;;) ::pause();
    }).detach();
    const pid_t child = ::fork();
    if (child == 0) fault();
    int status = 0;
    ::waitpid(child, &status, 0);
    if (!WIFSIGNALED(status) || WTERMSIG(status) != SIGSEGV) std::_Exit(kSetUpFailed);
    fault();
}

void crash_after_vfork_child(int) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
    const pid_t child = ::vfork();
#pragma GCC diagnostic pop
    if (child == 0) {
        ::raise(SIGABRT);  // NOLINT(clang-analyzer-unix.Vfork): that the child dies here is the purpose
        ::_exit(1);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    if (!WIFSIGNALED(status) || WTERMSIG(status) != SIGABRT) std::_Exit(kSetUpFailed);
    fault();
}

// Signals of all kinds reach the process while it dies.
void crash_in_a_storm(int) {
    for (const int number : {SIGUSR1, SIGALRM}) ::signal(number, [](int) {});
    std::thread([] {
        sigset_t all;
        sigfillset(&all);
        ::pthread_sigmask(SIG_SETMASK, &all, nullptr);
        g_is_inside = true;
        for (;;) {
            for (const int number : {SIGUSR1, SIGWINCH, SIGALRM}) ::kill(::getpid(), number);
        }
    }).detach();
    while (!g_is_inside) continue;
    fault();
}

using CallStackHook = std::uint32_t (*)(void*, std::uint32_t, std::uint32_t, std::uint64_t*, std::uint32_t*);

std::uint32_t faulty_hook(void*, std::uint32_t, std::uint32_t, std::uint64_t* frames, std::uint32_t* depth) {
    frames[0] = frames[1] = frames[2] = 0x1234;
    *depth = 3;
    fault();
    return 0;
}

std::uint32_t hanging_hook(void*, std::uint32_t, std::uint32_t, std::uint64_t* frames, std::uint32_t* depth) {
    frames[0] = 0x1234;
    *depth = 1;
    for (;;) ::pause();
}

void crash_with_hook(int which) {
    constexpr CallStackHook kHooks[] = {faulty_hook, hanging_hook};
    // There only under the host.
    const auto install =
        reinterpret_cast<std::uint32_t (*)(CallStackHook)>(::dlsym(RTLD_DEFAULT, "KOVA_RegExceptCallStackDumpHook"));
    if (install != nullptr) install(kHooks[which]);
    fault();
}

// The kernel refuses a call: with this error, or for SIGSYS with a signal.
void refuse(unsigned call, int answer) {
    const unsigned action =
        answer == SIGSYS ? SECCOMP_RET_TRAP : SECCOMP_RET_ERRNO | (static_cast<unsigned>(answer) & SECCOMP_RET_DATA);
    sock_filter code[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, call, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, action),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog program{.len = sizeof code / sizeof code[0], .filter = code};
    ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0);
    if (::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0) std::_Exit(kSetUpFailed);
}

void crash_where_reading_is_refused(int answer) {
    refuse(SYS_process_vm_readv, answer);
    fault();
}

void crash_where_opening_is_refused(int answer) {
    refuse(SYS_openat, answer);
    fault();
}

constexpr Mode kModes[] = {
    {"many-threads", fault_in_many_threads},
    {"another-loads", crash_while_another_loads},
    {"another-lists-modules", crash_while_another_lists_modules},
    {"in-a-constructor", crash_in_a_constructor},
    {"after-forked-child", crash_after_forked_child},
    {"after-vforked-child", crash_after_vfork_child},
    {"in-a-storm", crash_in_a_storm},
    {"with-hook", crash_with_hook},
    {"refused-read", crash_where_reading_is_refused},
    {"refused-open", crash_where_opening_is_refused},
};

}  // namespace

// Called by the constructor of blocking_module.cpp, with the loader's lock held.
extern "C" void crash_helper_module_loads();
void crash_helper_module_loads() {
    stay_inside();
}

std::span<const Mode> thread_modes() {
    return kModes;
}
