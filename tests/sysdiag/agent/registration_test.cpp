// Registration with the daemon, every call to the platform failed in turn. The texts are those of the agent's log.
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
constexpr std::uint32_t kGeneral = 0x0E40105B;
constexpr std::uint32_t kResponseMs = 300000;
constexpr std::uint32_t kRetryMs = 5000;

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
        g_platform.sent.clear();
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

// What a failed call leaves in the log; %T stands for the timer's type.
const std::multimap<std::string, std::string> kTexts = {
    {"KovaCreateVellClient", "Kova Agent conn kovad unsuccessful."},
    {"KovaGetProcName", "Kova Agent get proc namne unsuccessful.(ret=127)."},
    {"KovaGetProcName", "Kova Agent get proc namne unsuccessful in Check RegRspInfo.(ret=127)."},
    {"ZIB_ConnRpcCall", "Kova Agent register send msg unsuccessful. name = tester, pid = "},
    {"ZIB_PassThroughRpcCall", "Kova Agent register send msg unsuccessful. name = tester, pid = "},
    {"KovaSchThreadCreate", "Kova agent get thread handle unsuccessful. timerType = %T."},
    {"ZIB_TimerCreateAttr", "Kova agent create timer attr unsuccessful. timerType = %T."},
    {"ZIB_TimerSetAttr", "Kova agent set timer attribute unsuccessful, timerType = %T, ret = "},
    {"ZIB_TimerCreate", "Kova agent create timer unsuccessful. timerType = %T."},
    {"ZIB_TimerStart", "Kova agent start new timer unsuccessful, timerType = %T, ret = 11."},
    {"ZIB_TimerStart", "Kova agent start timer unsuccessful, timerType = %T, ret = 11."},
    {"ZIB_TimerStop", "Kova agent stop timer unsuccessful, timerType = %T, ret = 11."},
    {"ZIB_TimerStop", "Kova agent stop timer unsuccessful, curTimertype = %T, ret = 11."},
    {"ZIB_TimerResize", "Kova agent Resize timer unsuccessful, timerType = %T, ret = 11."},
};

bool failure_is_logged() {
    const auto [first, last] = kTexts.equal_range(g_platform.failed);
    return std::any_of(first, last, [](const auto& text) {
        const std::string& wanted = text.second;
        const std::size_t type = wanted.find("%T");
        if (type == std::string::npos) return has_logged(wanted);
        return has_logged(std::string(wanted).replace(type, 2, "1")) ||
               has_logged(std::string(wanted).replace(type, 2, "2"));
    });
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
                EXPECT_TRUE(g_platform.failed.empty() || failure_is_logged()) << g_platform.failed;
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
        EXPECT_TRUE(g_platform.failed.empty() || failure_is_logged()) << g_platform.failed;
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

TEST_F(Registration, SendsWhatTheDaemonReads) {
    Publisher* const publisher = reinterpret_cast<Publisher*>(&g_platform);
    for (const bool has_publisher : {false, true}) {
        begin();
        g_KovaPublisherAgent = has_publisher ? publisher : nullptr;
        ASSERT_EQ(0U, KovaAgentRegisterInit(0x01020304));
        kExpire();
        ASSERT_EQ(2U, g_platform.sent.size());
        EXPECT_EQ("ZIB_ConnRpcCall", g_platform.sent[0].path);
        EXPECT_EQ("ZIB_PassThroughRpcCall", g_platform.sent[1].path);
        const auto pid = static_cast<std::uint32_t>(::getpid());
        std::string expected = "tester" + std::string(26, '\0');
        expected.append(reinterpret_cast<const char*>(&pid), 4).append("\x04\x03\x02\x01", 4);
        expected.append(has_publisher ? 1 : 0, '\1').append(has_publisher ? 3 : 4, '\0');
        for (const SentRequest& sent : g_platform.sent) {
            EXPECT_EQ("AgentRegInfo", sent.service);
            EXPECT_EQ(expected, sent.bytes);
            EXPECT_EQ(ctrl().client, sent.client);
            EXPECT_EQ(KovaAgentRegInfoClientRspPro, sent.callback.handler);
            EXPECT_EQ(nullptr, sent.callback.context);
        }
        end();
    }
    g_KovaPublisherAgent = nullptr;
}

TEST_F(Registration, GivesThePlatformItsParameters) {
    KovaVellClient* const client = KovaAgentRpcConn2Kovad();
    ASSERT_NE(nullptr, client);
    EXPECT_EQ("KovaSysdiagKovadAgent", client->name);
    EXPECT_EQ("domain://peer:kovad_server:1", client->address);
    EXPECT_EQ(2U, client->options.first);
    EXPECT_EQ(30U, client->options.second);
    EXPECT_EQ(KovaAgentConnLinkClientNotify, client->notify);
    KovaDestroyVellClientHandle(client);

    kInit();
    const std::string one("\1\0\0\0", 4), period(reinterpret_cast<const char*>(&kResponseMs), 4);
    std::string handler(16, '\0');
    const auto proc = KovaAgentRegTimerProc;
    std::memcpy(handler.data(), &proc, sizeof proc);
    const std::map<std::uint32_t, std::string> expected = {{0, handler}, {1, one}, {2, period}, {3, "agent_reg_timer"}};
    EXPECT_EQ(expected, g_platform.attribute_values);
    EXPECT_EQ(kRetryMs, KovaAgentTimeOutByType(0));
}

TEST_F(Registration, SaysWhatHappened) {
    kInit();
    const std::string pid = std::to_string(::getpid());
    EXPECT_EQ(info_message("Kova Agent register send msg. name = tester, pid = " + pid + "."),
              log_recorder().take().at(0));
    kExpire();
    EXPECT_EQ((LoggedMessage{1, 0x0E401060, "Startup", "KovaAgentRegTimerProc: timeout reg not rsp."}),
              log_recorder().take().at(0));
    KovaAgentConnLinkClientNotify(7, "s", nullptr);
    EXPECT_EQ((LoggedMessage{1, 0x0E401060, "Startup", "Kova Agent link notification, event:7 service:s, addr:."}),
              log_recorder().take().at(0));
    respond(1, response("tester", 1));
    EXPECT_EQ(error_message(kGeneral, "Base", "Kova Agent Check RegRspInfo unsuccessful.pid=" + pid + ", processPid=1"),
              log_recorder().take().at(0));
    respond(1, response("0123456789abcdef0123456789abcdefX"));
    EXPECT_EQ(error_message(kGeneral, "Base",
                            "Kova Agent Check RegRspInfo unsuccessful.tempProcName=tester, "
                            "processName=0123456789abcdef0123456789abcdef."),
              log_recorder().take().at(0));

    // A daemon that is not there yet is no news; anything else is, each time.
    for (const auto& [code, lines] : std::map<std::uint32_t, std::size_t>{{0x03018007, 0}, {0x03018006, 1}}) {
        g_platform.send_failure = code;
        g_platform.fail(6, 6);  // stop; name, stop, resize, start; send
        kExpire();
        EXPECT_EQ("ZIB_PassThroughRpcCall", g_platform.failed);
        const std::vector<LoggedMessage> logged = log_recorder().take();
        ASSERT_EQ(lines, logged.size());
        if (lines == 1) {
            EXPECT_EQ(error_message(kGeneral, "Base",
                                    "Kova Agent register send msg unsuccessful. name = tester, pid = " + pid +
                                        ", type = 3, ret=50429958."),
                      logged[0]);
        }
        EXPECT_EQ(kRetrying, text_of_state());
    }
}

TEST_F(Registration, DropsAnEventWhenItCannotLock) {
    kInit();
    pthread_mutexattr_t checked;
    pthread_mutexattr_init(&checked);
    pthread_mutexattr_settype(&checked, PTHREAD_MUTEX_ERRORCHECK);
    pthread_mutex_init(&ctrl().mutex, &checked);
    ASSERT_EQ(0, pthread_mutex_lock(&ctrl().mutex));
    log_recorder().clear();
    EXPECT_EQ(kFailure, KovaAgentStartRegister());
    EXPECT_EQ(kFailure, KovaAgentRegTimerProc(nullptr));
    respond(1);
    kLost();
    std::vector<std::string> texts;
    for (const LoggedMessage& message : log_recorder().take()) texts.push_back(message.text);
    const std::vector<std::string> expected = {
        "KovaAgentStartRegister: lock unsuccessfully. ret = 35.",
        "KovaAgentRegTimerProc: lock unsuccessfully. ret = 35.",
        "KovaAgentRegInfoClientRspPro: lock unsuccessfully. ret = 35.",
        "Kova Agent link notification, event:0 service:kovad_server, addr:a.",
        "KovaAgentConnLinkClientNotify: lock unsuccessfully, ret = 35.",
    };
    EXPECT_EQ(expected, texts);
    EXPECT_EQ(kWaiting, text_of_state());
    pthread_mutex_unlock(&ctrl().mutex);
}

}  // namespace
}  // namespace kova::test
