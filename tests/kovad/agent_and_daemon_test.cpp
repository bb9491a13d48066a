// The agent and the daemon together, over a real connection: what a module of a process gets to see.
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>

#include "kova/agent_registration.h"
#include "kova/data_plane_cpu.h"
#include "kova/resource_attach.h"
#include "kova/resource_subscription.h"
#include "kovad/daemon_process.h"

namespace kova::test {
namespace {

// A quick daemon; the agent's own periods stay as they are.
constexpr char kFast[] = "--data-plane-process-cycle 20 --cpu-interval 20";
constexpr std::chrono::seconds kPatience{60};

class Module {
  public:
    [[nodiscard]] SubscribeRequest request() {
        return {
            .subType = 0, .moduleName = "router", .overload = 80, .recover = 60, .publishHook = take, .hookArg = this};
    }
    // Until an event that has come since the last call has this state and value.
    bool hears(uint32_t state, uint32_t value) {
        std::unique_lock lock(mutex_);
        has_event_ = false;
        return changed_.wait_for(lock, kPatience,
                                 [&] { return has_event_ && event_.state == state && event_.value == value; });
    }

  private:
    static uint32_t take(const SubscribeEvent* event, void* module) {
        auto* const self = static_cast<Module*>(module);
        const std::lock_guard lock(self->mutex_);
        self->event_ = *event;
        self->has_event_ = true;
        self->changed_.notify_all();
        return 0;
    }

    std::mutex mutex_;
    std::condition_variable changed_;
    SubscribeEvent event_{};
    bool has_event_ = false;
};

bool comes_true(const std::function<bool()>& condition) {
    const auto end = std::chrono::steady_clock::now() + kPatience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > end) return false;
        ::usleep(20'000);
    }
    return true;
}

bool is_in(const std::string& command, const std::string& text) {
    return run_command(command).output.find(text) != std::string::npos;
}

// One test: a process registers once in its life.
TEST(AgentAndDaemon, GoOnWhenTheDaemonComesLateOrIsKilledAndStartedAgain) {
    const auto pid = static_cast<uint32_t>(::getpid());
    static Module module;  // hooks may run as long as the process does
    ASSERT_EQ(0U, KovaAgentRegisterInit(3)) << "the daemon comes later";
    const SubscribeRequest request = module.request();
    EXPECT_EQ(1U, KOVA_SubscribeResource(&request)) << "nobody can be asked";
    DaemonProcess killed(kFast);
    ASSERT_TRUE(killed.wait_for("ready"));
    EXPECT_TRUE(comes_true([] { return is_in(KOVACTL " ps --json", "\"type\": 3"); }));
    KOVA_ResourceInfoInitAgent();
    ASSERT_EQ(1U, GetResourceInitAgentState());

    KOVA_UpdateDataPlaneProcessCpuUsage(pid, 9'050);
    ASSERT_EQ(0U, KOVA_SubscribeResource(&request));
    EXPECT_TRUE(module.hears(1, 90));
    KOVA_UpdateDataPlaneProcessCpuUsage(pid, 7'000);
    EXPECT_TRUE(module.hears(1, 70)) << "between the thresholds it stays overloaded";
    KOVA_UpdateDataPlaneProcessCpuUsage(pid, 6'000);
    EXPECT_TRUE(module.hears(0, 60));
    EXPECT_TRUE(is_in(KOVACTL " subscriptions", "router            dataPlaneCpu      80        60"));
    EXPECT_EQ(1U, KOVA_GetResourceMonitorStatus(0));
    EXPECT_EQ(0U, KOVA_SetMemUsageBaseCycle(1));
    uint32_t cycle = 0;
    EXPECT_TRUE(comes_true([&] { return KOVA_GetMemUsageCycle(&cycle) == 0 && cycle == 1000; }));

    killed.stop(SIGKILL);
    DaemonProcess next(kFast);
    ASSERT_TRUE(next.wait_for("ready"));
    KOVA_UpdateDataPlaneProcessCpuUsage(pid, 8'500);
    EXPECT_TRUE(module.hears(1, 85)) << "it registers again, and is asked what it subscribed to";
    EXPECT_TRUE(is_in(KOVACTL " ps", "registered"));
    EXPECT_EQ(0U, KOVA_UnSubscribeResource(&request));
    EXPECT_FALSE(is_in(KOVACTL " subscriptions", "router"));
}

}  // namespace
}  // namespace kova::test
