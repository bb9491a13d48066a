// How long the daemon takes until every subscribed process of a busy node has heard of an update, and what it keeps.
#include <signal.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "kova/agent_registration.h"
#include "kova/data_plane_cpu.h"
#include "kova/resource_attach.h"
#include "kova/resource_subscription.h"
#include "side_by_side.h"

namespace kova::bench {
namespace {

constexpr std::size_t kProcesses = 200;
constexpr int kPatienceUs = 20'000'000;
constexpr int kLookUs = 200;

// An hour of updates at the usual pace takes a minute and a half at this one.
constexpr char kCycleMs[] = "20";
constexpr int kUsualRounds = 100;
constexpr int kHour = 3600;

// What one process heard last.
struct Heard {
    std::atomic<std::uint32_t> value;
    std::atomic<double> at_us;  // when it first heard that value
};

std::uint32_t take(const SubscribeEvent* event, void* argument) {
    auto* const heard = static_cast<Heard*>(argument);
    if (heard->value.load(std::memory_order_relaxed) == event->value) return 0;
    heard->at_us.store(monotonic_us(), std::memory_order_relaxed);
    heard->value.store(event->value, std::memory_order_release);
    return 0;
}

[[noreturn]] void live_as_subscriber(Heard* heard) {
    SubscribeRequest request{.subType = KOVA_SUBSCRIBE_DATA_PLANE_CPU,
                             .moduleName = "bench",
                             .overload = 80,
                             .recover = 60,
                             .publishHook = take,
                             .hookArg = heard};
    if (::KovaAgentRegisterInit(1) != 0 || ::KOVA_SubscribeResource(&request) != 0) ::_exit(1);
    for (;;) ::pause();
}

struct Kept {
    long descriptors = 0;
    long kib = 0;  // in memory
};

// The daemon of this build and its subscribers, for as long as it lives.
class Node {
  public:
    Node()
        : heard_(static_cast<Heard*>(
              ::mmap(nullptr, kProcesses * sizeof(Heard), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0))) {
        const auto kovad = std::filesystem::read_symlink("/proc/self/exe").parent_path() / "../bin/kovad";
        daemon_ = forked();
        if (daemon_ == 0) {
            ::execl(kovad.c_str(), "kovad", "--syslog", "--data-plane-process-cycle", kCycleMs, nullptr);
            ::_exit(127);
        }
        wait_until([] { return ::access("/run/kova/kovad_server", F_OK) == 0; });
        for (std::size_t i = 0; i < kProcesses; ++i) {
            const pid_t pid = forked();
            if (pid == 0) live_as_subscriber(&heard_[i]);
            processes_.push_back(pid);
        }
        ::KOVA_ResourceInfoInitAgent();
    }
    Node(const Node&) = delete;
    Node& operator=(const Node&) = delete;
    ~Node() {
        for (const pid_t pid : processes_) end(pid, SIGKILL);
        end(daemon_, SIGTERM);
        ::munmap(heard_, kProcesses * sizeof(Heard));
    }

    // Microseconds between the first and the last process that hears it; below 0 when one misses it.
    [[nodiscard]] double publish(std::uint32_t percent) const {
        ::KOVA_UpdateDataPlaneProcessCpuUsage(static_cast<std::uint32_t>(::getpid()), percent * 100);
        const bool complete = wait_until([&] {
            return std::all_of(heard_, heard_ + kProcesses, [&](const Heard& heard) {
                return heard.value.load(std::memory_order_acquire) == percent;
            });
        });
        if (!complete) return -1;
        const auto [first, last] = std::minmax_element(heard_, heard_ + kProcesses, [](const Heard& a, const Heard& b) {
            return a.at_us.load() < b.at_us.load();
        });
        return last->at_us.load() - first->at_us.load();
    }

    [[nodiscard]] Kept kept_by_daemon() const { return kept_by(daemon_); }
    [[nodiscard]] Kept kept_by_processes() const {
        Kept sum;
        for (const pid_t pid : processes_) {
            const Kept kept = kept_by(pid);
            sum.descriptors += kept.descriptors;
            sum.kib += kept.kib;
        }
        return sum;
    }

  private:
    static Kept kept_by(pid_t pid) {
        const std::string folder = "/proc/" + std::to_string(pid);
        Kept kept{.descriptors = std::distance(std::filesystem::directory_iterator(folder + "/fd"),
                                               std::filesystem::directory_iterator())};
        std::ifstream status(folder + "/status");
        for (std::string line; std::getline(status, line);) {
            if (line.starts_with("VmRSS:")) kept.kib = std::atol(line.c_str() + 6);
        }
        return kept;
    }
    template <typename Condition>
    static bool wait_until(Condition condition) {
        for (int waited_us = 0; waited_us < kPatienceUs; waited_us += kLookUs) {
            if (condition()) return true;
            ::usleep(kLookUs);
        }
        return false;
    }
    // A -1 that got into the list would be everybody when it comes to kill().
    static pid_t forked() {
        const pid_t pid = ::fork();
        if (pid < 0) std::abort();
        return pid;
    }
    static void end(pid_t pid, int signal_number) {
        ::kill(pid, signal_number);
        ::waitpid(pid, nullptr, 0);
    }

    Heard* heard_;
    pid_t daemon_ = -1;
    std::vector<pid_t> processes_;
};

void update_to_all(benchmark::State& state) {
    const Node node;
    // Until everybody is there; then the first lists and buffers have been made, too.
    for (std::uint32_t percent = 1; percent < 10; ++percent) static_cast<void>(node.publish(percent));
    const Kept daemon_before = node.kept_by_daemon();
    const Kept processes_before = node.kept_by_processes();
    std::vector<double> times_us;
    for ([[maybe_unused]] auto _ : state) {
        const double time_us = node.publish(static_cast<std::uint32_t>(10 + times_us.size() % 80));
        if (time_us < 0) {
            state.SkipWithError("a process missed an update");
            return;
        }
        times_us.push_back(time_us);
        state.SetIterationTime(time_us / 1e6);
    }
    const Kept daemon = node.kept_by_daemon();
    const Kept processes = node.kept_by_processes();
    if (daemon.descriptors != daemon_before.descriptors || processes.descriptors != processes_before.descriptors) {
        state.SkipWithError("descriptors leaked");
        return;
    }
    char label[160];
    std::snprintf(label, sizeof label,
                  "median %.1f ms, slowest %.1f ms, wanted 50; %zu updates, no descriptor more, the daemon grew by %ld "
                  "KiB, each process by %.1f",
                  median(times_us) / 1e3, *std::max_element(times_us.begin(), times_us.end()) / 1e3, times_us.size(),
                  daemon.kib - daemon_before.kib,
                  static_cast<double>(processes.kib - processes_before.kib) / double{kProcesses});
    state.SetLabel(label);
}
BENCHMARK(update_to_all)
    ->Name("update to 200 subscribed processes")
    ->UseManualTime()
    ->Iterations(std::getenv("KOVA_NIGHTLY") != nullptr ? kHour : kUsualRounds);

}  // namespace
}  // namespace kova::bench
