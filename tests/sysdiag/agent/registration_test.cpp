// Registration with the daemon, every call to the platform failed in turn.
#include "kova/agent_registration.h"

#include <unistd.h>
#include <algorithm>
#include <functional>

#include <gtest/gtest.h>

#include "kova_platform/process_globals.h"
#include "platform_fakes.h"
#include "support/log_recorder.h"

namespace kova::test {
namespace {

constexpr std::uint32_t kFailure = 0xFFFFFFFF;

KovaAgentRegCtrl& ctrl() {
    return g_kovaAgentRegCtrl;
}

KovaAgentRegRsp response(std::string_view name = "tester", std::uint32_t pid = static_cast<std::uint32_t>(::getpid())) {
    KovaAgentRegRsp made{};
    std::ranges::copy(name.substr(0, sizeof made.name), made.name);
    made.pid = pid;
    return made;
}

void respond(std::uint64_t status, KovaAgentRegRsp answer = response()) {
    KovaAgentRegInfoClientRspPro(status, 0, &answer, nullptr);
}

std::string text_of_state() {
    std::string text = std::to_string(ctrl().RegState);
    if (ctrl().timer == nullptr) return text + ", timer type " + std::to_string(ctrl().timerType);
    return text + (ctrl().timer->is_running ? ", runs " : ", stopped ") + std::to_string(ctrl().timer->period_ms) +
           " ms, timer type " + std::to_string(ctrl().timerType);
}

constexpr char kWaiting[] = "1, runs 300000 ms, timer type 1";
constexpr char kRetrying[] = "0, runs 5000 ms, timer type 2";
constexpr char kRegistered[] = "2, timer type 0";

bool has_logged(const std::string& part) {
    for (const LoggedMessage& message : log_recorder().messages()) {
        if (message.text.find(part) != std::string::npos) return true;
    }
    return false;
}

class Registration : public testing::Test {
  protected:
    void SetUp() override { begin(); }
    void TearDown() override { end(); }

    static void begin() {
        g_platform.fail(0, 0);
        log_recorder().clear();
    }
    // What a process never does.
    static void end() {
        if (ctrl().timer != nullptr) KovaAgentDestroyRegTimer(&ctrl());
        if (ctrl().client != nullptr) KovaDestroyVellClientHandle(std::exchange(ctrl().client, nullptr));
        EXPECT_EQ(0, g_platform.clients + g_platform.timers + g_platform.attributes);
    }
};

// How a test gets into each state, and what can happen in it.
const std::function<void()> kInit = [] { EXPECT_EQ(0U, KovaAgentRegisterInit(3)); };
const std::function<void()> kGood = [] { respond(1); };
const std::function<void()> kLost = [] { KovaAgentConnLinkClientNotify(0, "kovad_server", "a"); };
const std::function<void()> kExpire = [] { g_platform.expire(); };

TEST_F(Registration, GoesThroughItsStates) {
    const struct {
        const char* name;
        std::vector<std::function<void()>> events;
        const char* expected;
    } cases[] = {
        {"started", {kInit}, kWaiting},
        {"answered", {kInit, kGood}, kRegistered},
        {"error number beside success", {kInit, [] { respond(1 | 1ULL << 32); }}, kRetrying},
        {"other success word", {kInit, [] { respond(2); }}, kRetrying},
        {"no response", {kInit, [] { KovaAgentRegInfoClientRspPro(1, 0, nullptr, nullptr); }}, kRetrying},
        {"other pid", {kInit, [] { respond(1, response("tester", 1)); }}, kRetrying},
        {"other name", {kInit, [] { respond(1, response("tester2")); }}, kRetrying},
        {"unterminated name", {kInit, [] { respond(1, response("0123456789abcdef0123456789abcdefX")); }}, kRetrying},
        {"response in time never came", {kInit, kExpire}, kWaiting},
        {"tried again", {kInit, kLost, kExpire}, kWaiting},
        {"lost while waiting", {kInit, kLost}, kRetrying},
        {"lost while registered", {kInit, kGood, kLost}, kRetrying},
        {"lost twice", {kInit, kGood, kLost, kLost}, kRetrying},
        {"registered again", {kInit, kGood, kLost, kExpire, kGood}, kRegistered},
        {"late second answer", {kInit, kExpire, kGood, kGood}, kRegistered},
        {"other event", {kInit, kGood, [] { KovaAgentConnLinkClientNotify(1, "s", "a"); }}, kRegistered},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        begin();
        for (const auto& event : c.events) event();
        EXPECT_EQ(c.expected, text_of_state());
        EXPECT_EQ(g_platform.timers, ctrl().timer != nullptr ? 1 : 0);
        end();
    }
}

// Every state but registered has its running timer, or said that it could get none and stayed what it was.
void expect_table_holds(std::uint32_t state_before) {
    const std::string state = text_of_state();
    if (state == kWaiting || state == kRetrying || state == kRegistered) return;
    EXPECT_EQ(std::to_string(state_before) + ", timer type 0", state);
    EXPECT_TRUE(has_logged("Kova Agent start timer unsuccessful in RegisterTask. (state=" +
                           std::to_string(state_before) + ").") ||
                has_logged("Kova Agent send register unsuccessful in proc timmer."));
}

TEST_F(Registration, HoldsItsTableWhateverCallFails) {
    const struct {
        const char* name;
        std::vector<std::function<void()>> before;
        std::function<void()> event;
    } cases[] = {
        {"good response", {kInit}, kGood},      {"bad response", {kInit}, [] { respond(0); }},
        {"response timer", {kInit}, kExpire},   {"retry timer", {kInit, kLost}, kExpire},
        {"lost while waiting", {kInit}, kLost}, {"lost while registered", {kInit, kGood}, kLost},
    };
    for (const auto& c : cases) {
        // Once, and from there on.
        for (const int last : {0, 1000}) {
            int call = 0;
            do {
                SCOPED_TRACE(std::string(c.name) + ", call " + std::to_string(++call) + (last == 0 ? "" : " and on"));
                begin();
                for (const auto& event : c.before) event();
                const std::uint32_t state_before = ctrl().RegState;
                log_recorder().clear();
                g_platform.fail(call, std::max(call, last));
                c.event();
                EXPECT_EQ(g_platform.timers, ctrl().timer != nullptr ? 1 : 0);
                EXPECT_EQ(0, g_platform.attributes);
                expect_table_holds(state_before);
                EXPECT_TRUE(g_platform.failed.empty() || !log_recorder().messages().empty()) << g_platform.failed;
                const bool is_through = g_platform.failed.empty();
                // Whatever happened, the next loss of a connection starts all over.
                g_platform.fail(0, 0);
                kLost();
                kExpire();
                kGood();
                EXPECT_EQ(kRegistered, text_of_state());
                end();
                if (is_through) break;
            } while (call < 100);
            EXPECT_LT(call, 100);
        }
    }
}

TEST_F(Registration, StartsOrLeavesNothing) {
    int call = 0;
    do {
        SCOPED_TRACE(++call);
        begin();
        g_platform.fail(call, call);
        const std::uint32_t rc = KovaAgentRegisterInit(3);
        EXPECT_TRUE(g_platform.failed.empty() || !log_recorder().messages().empty()) << g_platform.failed;
        // The name and the sending alone are tried again later.
        const bool must_start = g_platform.failed.empty() || g_platform.failed == "KovaGetProcName" ||
                                g_platform.failed == "ZIB_ConnRpcCall";
        EXPECT_EQ(must_start ? 0U : kFailure, rc) << g_platform.failed;
        if (rc != 0) {
            EXPECT_EQ(nullptr, ctrl().client);
            EXPECT_EQ(0, g_platform.clients + g_platform.timers + g_platform.attributes);
        }
        end();
    } while (!g_platform.failed.empty() && call < 100);
    EXPECT_EQ(12, call);  // client, name, thread, attributes, four of them, timer, start, send; and none
}

}  // namespace
}  // namespace kova::test
