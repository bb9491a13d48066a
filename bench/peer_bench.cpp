// The same crash, handled by the capture and by what one would use without it.
//
// Each crash is one of a child with 256 MiB of memory in use. Of the handlers the time from their first to their last
// instruction counts, on an alternate stack and with standard error in a file. The kernel's core dump counts with the
// time by which it delays the end of the process; it goes where the machine's core pattern has it, and where that is
// the current directory, to a file system in memory: no disk could be faster.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "crash_peers.h"
#include "kova/exception_capture.h"
#include "made_up_crash.h"
#include "side_by_side.h"

namespace kova::bench {
namespace {

constexpr std::size_t kMemoryInUse = 256UL << 20;
constexpr std::size_t kAlternateStack = 1UL << 20;
constexpr char kDirectory[] = "/opt/crashes";  // of the private node

// Written by the child.
struct CrashTimes {
    double crash_us = 0;
    double handled_us = 0;
};

CrashTimes* g_times = nullptr;
CrashHandler g_handler = nullptr;

void time_the_handler(int signal, siginfo_t* info, void* context) {
    const double start_us = monotonic_us();
    g_handler(signal, info, context);
    g_times->handled_us = monotonic_us() - start_us;
    // Only a signal that arrives anew is sure to end the process: a handler may have set what it likes.
    ::_exit(0);
}

CrashHandler set_up_capture() {
    if (KOVA_ExceptInit() != 0) std::abort();
    MadeUpCrash::start_afresh();
    return KOVA_SignalInfoRecordHandler;
}

void catch_with(CrashHandler handler) {
    g_handler = handler;
    void* const stack =
        ::mmap(nullptr, kAlternateStack, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
    const stack_t alternate{.ss_sp = stack, .ss_flags = 0, .ss_size = kAlternateStack};
    ::sigaltstack(&alternate, nullptr);
    struct sigaction action {};
    action.sa_sigaction = time_the_handler;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    ::sigaction(SIGSEGV, &action, nullptr);
}

[[gnu::noinline]] void write_to_null() {
    volatile int* nothing = nullptr;
    asm volatile("" : "+r"(nothing));
    *nothing = 1;
}

[[noreturn]] void crash(CrashHandler (*set_up)(), std::size_t mappings, bool with_core) {
    const rlimit limit{with_core ? RLIM_INFINITY : 0, RLIM_INFINITY};
    ::setrlimit(RLIMIT_CORE, &limit);
    const int errors = ::open("stderr", O_WRONLY | O_CREAT | O_TRUNC, 0600);
    ::dup2(errors, STDERR_FILENO);
    void* const memory =
        ::mmap(nullptr, kMemoryInUse, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
    std::memset(memory, 1, kMemoryInUse);
    const MadeUpCrash process(mappings);
    if (set_up != nullptr) catch_with(set_up());
    g_times->crash_us = monotonic_us();
    write_to_null();
    std::abort();
}

struct Ending {
    double handler_us;  // 0 without a handler
    double end_us;      // from the crash to the end of the process
    bool left_core;
};

Ending watch_crash(CrashHandler (*set_up)(), std::size_t mappings, bool with_core) {
    *g_times = {};
    const pid_t child = ::fork();
    if (child == 0) crash(set_up, mappings, with_core);
    int status = 0;
    ::waitpid(child, &status, 0);
    const double end_us = monotonic_us() - g_times->crash_us;
    return {.handler_us = g_times->handled_us, .end_us = end_us, .left_core = WIFSIGNALED(status) && WCOREDUMP(status)};
}

void prepare_once() {
    if (g_times != nullptr) return;
    if (::mkdir(kDirectory, 0700) != 0 || ::chdir(kDirectory) != 0) std::abort();
    g_times = static_cast<CrashTimes*>(
        ::mmap(nullptr, sizeof(CrashTimes), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
}

void against_core_dump(benchmark::State& state, std::size_t mappings) {
    prepare_once();
    std::vector<double> ours;
    std::vector<double> with_core;
    std::vector<double> without_core;
    for ([[maybe_unused]] auto _ : state) {
        ours.push_back(watch_crash(set_up_capture, mappings, false).handler_us);
        without_core.push_back(watch_crash(nullptr, mappings, false).end_us);
        const Ending ending = watch_crash(nullptr, mappings, true);
        static_cast<void>(std::system("rm -f core core.*"));
        if (!ending.left_core) return state.SkipWithError("the kernel dumps no core here");
        with_core.push_back(ending.end_us);
        state.SetIterationTime(ending.end_us / 1e6);
    }
    // The end of a process without a core is the same for each: it is taken off at its median.
    const double plain_us = median(without_core);
    for (double& us : with_core) us -= plain_us;
    report(state, ours, with_core, 1.0);
}

void against_handler(benchmark::State& state, std::size_t mappings, CrashHandler (*set_up)()) {
    prepare_once();
    std::vector<double> ours;
    std::vector<double> theirs;
    for ([[maybe_unused]] auto _ : state) {
        ours.push_back(watch_crash(set_up_capture, mappings, false).handler_us);
        theirs.push_back(watch_crash(set_up, mappings, false).handler_us);
        if (theirs.back() <= 0) return state.SkipWithError("the handler did not come back");
        state.SetIterationTime(theirs.back() / 1e6);
    }
    report(state, ours, theirs, 1.0);
}

constexpr struct {
    const char* text;
    std::size_t mappings;
} kSizes[] = {{"few", 0}, {"1,000", 1'000}, {"20,000", 20'000}};
constexpr int kCrashes = 9;

[[maybe_unused]] const bool kRegistered = [] {
    for (const auto& size : kSizes) {
        const std::string ours = std::string("crash, ") + size.text + " mappings/";
        const auto add = [&](const char* peer, auto measure) {
            benchmark::RegisterBenchmark((ours + peer).c_str(), measure)->UseManualTime()->Iterations(kCrashes);
        };
        add("core dump by the kernel", [size](benchmark::State& state) { against_core_dump(state, size.mappings); });
#if KOVA_BENCH_BACKWARD
        add("backward-cpp with libdw",
            [size](benchmark::State& state) { against_handler(state, size.mappings, set_up_backward); });
#endif
#if KOVA_BENCH_GLOG
        add("glog", [size](benchmark::State& state) { against_handler(state, size.mappings, set_up_glog); });
#endif
    }
    return true;
}();

}  // namespace
}  // namespace kova::bench
