// Subscribing, and the requests that go to the daemon for it.
#include <unistd.h>
#include <cstring>

#include "kova/resource_subscription.h"
#include "registry_fixture.h"

namespace kova::test {
namespace {

class SubscribeTest : public RegistryTest {
  protected:
    // The framework's part: every accepted request is called back once.
    static void answer_all(std::uint64_t status, std::uint32_t result, bool has_response = true) {
        for (const SentRequest& request : std::exchange(g_fakes.sent, {})) {
            request.callback.handler(status, 0, has_response ? &result : nullptr, request.callback.context);
        }
    }
};

TEST_F(SubscribeTest, RequestsAreCheckedBeforeAnythingIsTouched) {
    const struct {
        std::string module;
        std::uint32_t overload, recover, type;
        bool is_refused;
    } cases[] = {
        {std::string(31, 'm'), 100, 99, 0, false},
        {"m", 1, 0, 0, false},
        {"m", 101, 99, 0, true},
        {"m", 50, 50, 0, true},
        {"m", 80, 60, 1, true},
        {"", 80, 60, 0, true},
        {std::string(32, 'u'), 80, 60, 0, true},
    };
    for (const auto& c : cases) {
        SubscribeRequest wanted = request("", c.overload, c.recover);
        std::memcpy(wanted.moduleName, c.module.data(), c.module.size());  // 32 characters have no end
        wanted.subType = c.type;
        EXPECT_EQ(c.is_refused, KOVA_SubscribeResourceCheckPara(&wanted)) << c.module << c.overload;
        if (c.is_refused) {
            EXPECT_EQ(1U, KOVA_SubscribeResource(&wanted));
        }
    }
    EXPECT_EQ(1U, KOVA_SubscribeResource(nullptr));
    EXPECT_EQ(1U, KOVA_UnSubscribeResource(nullptr));
    EXPECT_TRUE(g_fakes.sent.empty());
}

TEST_F(SubscribeTest, ModuleIsAnnouncedRegisteredAndToldWhatIsKnown) {
    Events events;
    const SubscribeRequest one = request("one", 80, 60, keep_event, &events);
    EXPECT_EQ(0U, KOVA_SubscribeResource(&one));
    Target* const target = KOVA_Publisher_GetTarget(g_KovaPublisherAgent, &one);
    ASSERT_NE(nullptr, target);
    KOVA_Target_UpdateByValue(target, 90);
    const SubscribeRequest two = request("two", 80, 60, keep_event, &events);
    EXPECT_EQ(0U, KOVA_SubscribeResource(&two));
    EXPECT_EQ((Events{{"one", 1}, {"two", 1}}), events) << "known already, so told at once";
    // Again, with other thresholds: the first subscription stays, and the new target knows nothing to tell.
    const SubscribeRequest again = request("one", 90, 70, nullptr, nullptr);
    EXPECT_EQ(0U, KOVA_SubscribeResource(&again));
    events.clear();
    KOVA_Target_UpdateByValue(target, 60);
    EXPECT_EQ((Events{{"two", 0}, {"one", 0}}), events);

    ASSERT_EQ(3U, g_fakes.sent.size()) << "one request for every call";
    EXPECT_EQ("KovaAppSubscribe", g_fakes.sent[2].service);
    EXPECT_EQ((std::vector{0U, static_cast<std::uint32_t>(::getpid())}), g_fakes.sent[2].words);
    answer_all(1, 0);
    EXPECT_EQ(0U, KOVA_UnSubscribeResource(&one));
    EXPECT_TRUE(g_fakes.sent.empty());
    KOVA_Target_UpdateByValue(target, 99);
    EXPECT_EQ(3U, events.size()) << "called after it had unsubscribed";
    EXPECT_EQ(1U, KOVA_UnSubscribeResource(&one));
    const SubscribeRequest stranger = request("stranger");
    EXPECT_EQ(1U, KOVA_UnSubscribeResource(&stranger));
}

TEST_F(SubscribeTest, DaemonThatCannotBeAskedLeavesNoSubscriber) {
    const SubscribeRequest wanted = request("m");
    const auto expect_failure = [&] {
        EXPECT_EQ(1U, KOVA_SubscribeResource(&wanted));
        ASSERT_NE(nullptr, g_KovaPublisherAgent);
        EXPECT_EQ(nullptr, g_KovaPublisherAgent->subscribers);
        EXPECT_EQ(nullptr, g_KovaPublisherAgent->targets);
    };
    g_fakes.link_result = 66;
    expect_failure();
    g_fakes.link_result = 0;
    g_fakes.has_client = false;
    expect_failure();
    g_fakes.has_client = true;
    g_fakes.call_result = 5;
    expect_failure();
}

TEST_F(SubscribeTest, EveryOutcomeOfARequestReleasesItsClientOnce) {
    for (const auto& [mode, cycle] : {std::pair{1, 1000U}, {2, 10000U}, {-1, 10000U}}) {
        EXPECT_EQ(0U, KOVA_SetMemUsageBaseCycle(mode));
        EXPECT_EQ("KovaRestCycleTime", g_fakes.sent.back().service);
        EXPECT_EQ((std::vector{cycle, 0U}), g_fakes.sent.back().words);
    }
    answer_all(1, 0);
    log_recorder().clear();
    const struct {
        std::uint64_t status;
        std::uint32_t result;
        bool has_response;
        std::size_t complaints;
    } outcomes[] = {
        {1, 0, false, 2}, {0, 0, true, 2},          {0x0301800500000001, 0, true, 2},
        {1, 44, true, 2}, {0xFFFFFFFF, 0, true, 0},  // any low word but 0 means completed
    };
    for (const auto& outcome : outcomes) {
        EXPECT_EQ(0U, KovaSetResourceCycle(3, 500));
        EXPECT_EQ((std::vector{500U, 3U}), g_fakes.sent.back().words);
        EXPECT_EQ(0U, KovaResourceNotify(0));
        answer_all(outcome.status, outcome.result, outcome.has_response);
        EXPECT_TRUE(g_fakes.clients.empty());
        EXPECT_EQ(outcome.complaints, log_recorder().take().size());
    }
    g_fakes.call_result = 9;
    EXPECT_EQ(1U, KOVA_SetMemUsageBaseCycle(1));
    g_fakes.has_client = false;
    EXPECT_EQ(kMinusOneCode, KovaSetResourceCycle(0, 1));
}

}  // namespace
}  // namespace kova::test
