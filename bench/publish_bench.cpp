// A value on its way to a thousand targets, against a walk over the same lists that does nothing but call the hooks.
#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

#include "kova/subscription_services.h"
#include "kova_platform/bounded_string.h"
#include "kova_platform/process_globals.h"
#include "side_by_side.h"

namespace kova::bench {
namespace {

constexpr std::uint32_t kTargets = 1000;
constexpr std::uint32_t kPublications = 50;  // a single one is shorter than the clock can tell

// What a module keeps to act on changes alone.
struct Module {
    std::uint32_t state = 0;
    std::uint32_t changes = 0;
};

std::uint32_t on_event(const SubscribeEvent* event, void* argument) {
    auto* const module = static_cast<Module*>(argument);
    if (event->state != module->state) {
        module->state = event->state;
        ++module->changes;
    }
    return 0;
}

// The same hooks with the same events over the same lists: no lock, nothing kept in the targets, nothing checked. The
// names are copied by the platform's function, as the agent's are: that is most of what either side costs.
void bare_walk(std::uint32_t value) {
    for (const Target* target = g_KovaPublisherAgent->targets; target != nullptr; target = target->next) {
        for (const Subscription* s = target->subscriptions; s != nullptr; s = s->nextInTarget) {
            SubscribeEvent event{};
            static_cast<void>(strcpy_s(event.moduleName, sizeof event.moduleName, s->subscriber->moduleName));
            event.state = value >= target->overload ? 1 : 0;
            event.value = value;
            s->publishHook(&event, s->hookArg);
        }
    }
}

// Every pair of thresholds is a target of its own, every module has one subscription.
SubscribeRequest request_of(std::uint32_t index, Module* module) {
    SubscribeRequest request{};
    std::strcpy(request.moduleName, ("module" + std::to_string(index)).c_str());
    request.overload = 100 - index / 50;
    request.recover = index % 50;
    request.publishHook = on_event;
    request.hookArg = module;
    return request;
}

void publish(benchmark::State& state) {
    g_KovaPublisherAgent = KOVA_Create_Publisher();
    static std::array<Module, kTargets> modules;
    for (std::uint32_t i = 0; i < kTargets; ++i) {
        const SubscribeRequest request = request_of(i, &modules.at(i));
        KOVA_Create_Subscription(KOVA_Create_Subscriber(g_KovaPublisherAgent, request.moduleName),
                                 KOVA_Create_Target(g_KovaPublisherAgent, &request), &request);
    }
    if (KovaGetSubscriptionCnt() != kTargets) std::abort();
    const auto publish_all = [](auto deliver) {
        for (std::uint32_t i = 0; i < kPublications; ++i) deliver(i * 7 % 101);
    };
    const auto ours = [](std::uint32_t value) {
        const UpdateResourceInfoIn update{KOVA_SUBSCRIBE_DATA_PLANE_CPU, value};
        KovaPublishEvent(&update);
    };
    compare(state, {.ours = [&] { publish_all(ours); }, .theirs = [&] { publish_all(&bare_walk); }, .goal = 2.0});
    KOVA_Delete_Publisher(std::exchange(g_KovaPublisherAgent, nullptr));
}

BENCHMARK(publish)->Name("value to 1,000 targets/a bare walk that calls the hooks")->UseManualTime()->Iterations(300);

}  // namespace
}  // namespace kova::bench
