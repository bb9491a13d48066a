// An empty registry for each test, and around it the RPC framework, the daemon's client factory and the platform's
// allocator as daemon_fakes.cpp replaces them.
#pragma once

#include <pthread.h>
#include <cstdint>
#include <cstdio>
#include <functional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "kova/subscription_registry.h"
#include "kova_platform/process_globals.h"
#include "kova_platform/rpc.h"
#include "support/log_recorder.h"

namespace kova::test {

constexpr std::uint32_t kMinusOneCode = 0xFFFFFFFF;

struct SentRequest {
    std::string service;
    std::vector<std::uint32_t> words;
    KovaRpcCallback callback;
};

struct DaemonFakes {
    std::uint32_t link_result = 0, call_result = 0;
    bool has_client = true, has_reply_memory = true;
    // Runs inside an allocation from a partition; false makes that fail.
    std::function<bool()> on_allocation = [] { return true; };

    std::vector<SentRequest> sent;
    std::set<void*> clients;      // made and not released
    int replies = 0, blocks = 0;  // likewise
};
inline DaemonFakes g_fakes;

class RegistryTest : public ::testing::Test {
  protected:
    RegistryTest() {
        g_fakes = {};
        g_kovaAgentMemHandle = 7;  // a partition
        log_recorder().clear();
    }
    ~RegistryTest() override {
        EXPECT_EQ(0, pthread_mutex_trylock(&g_kovaSubscribeMutexLock)) << "left locked";
        pthread_mutex_unlock(&g_kovaSubscribeMutexLock);
        KOVA_Delete_Publisher(std::exchange(g_KovaPublisherAgent, nullptr));
        EXPECT_TRUE(g_fakes.clients.empty()) << "a client was never released";
        EXPECT_EQ(0, g_fakes.replies);
        EXPECT_EQ(0, g_fakes.blocks);
        g_kovaAgentMemHandle = 0xFFFFFFFF;
    }

    static Publisher* publisher() {
        if (g_KovaPublisherAgent == nullptr) g_KovaPublisherAgent = KOVA_Create_Publisher();
        return g_KovaPublisherAgent;
    }
    static SubscribeRequest request(const std::string& module, std::uint32_t overload = 80, std::uint32_t recover = 60,
                                    KovaPublishHook hook = nullptr, void* hook_arg = nullptr) {
        SubscribeRequest made{0, {}, overload, recover, hook, hook_arg};
        std::snprintf(made.moduleName, sizeof made.moduleName, "%s", module.c_str());
        return made;
    }
    static Subscription* join(const SubscribeRequest& wanted) {
        return KOVA_Create_Subscription(KOVA_Create_Subscriber(publisher(), wanted.moduleName),
                                        KOVA_Create_Target(publisher(), &wanted), &wanted);
    }

    using Events = std::vector<std::pair<std::string, std::uint32_t>>;  // module and state
    static std::uint32_t keep_event(const SubscribeEvent* event, void* events) {
        static_cast<Events*>(events)->emplace_back(event->moduleName, event->state);
        return 1;  // means nothing
    }
};

}  // namespace kova::test
