// The registry's records, and the notifications of one target.
#include <map>
#include <random>

#include "registry_fixture.h"

namespace kova::test {
namespace {

std::mt19937 g_engine;

std::uint32_t below(std::uint32_t limit) {
    return static_cast<std::uint32_t>(g_engine() % limit);
}

TEST_F(RegistryTest, StateIsThatOfTheLastValueOutsideTheBand) {
    constexpr std::uint32_t kSeed = 4711;
    SCOPED_TRACE(kSeed);
    g_engine.seed(kSeed);
    for (int round = 0; round < 200; ++round) {
        // Now and then the wrong way round, where recover decides.
        const std::uint32_t overload = 1 + below(100);
        const std::uint32_t recover = round % 10 == 0 ? below(101) : below(overload);
        Events events;
        Subscription* const subscription = join(request("m", overload, recover, keep_event, &events));
        Target* const target = subscription->target;
        KOVA_Notify_Subscription(subscription, target);
        EXPECT_TRUE(events.empty()) << "no value yet";
        std::uint32_t state = 0;
        for (std::size_t i = 1; i <= 50; ++i) {
            const std::uint32_t edges[] = {overload, recover, below(120), below(120)};
            const std::uint32_t value = edges[below(4)];
            KOVA_Target_UpdateByValue(target, value);
            EXPECT_EQ(state, target->previousState);
            const bool is_between = value > recover && value < overload;
            if (!is_between) state = value > recover ? 1 : 0;
            ASSERT_EQ(i, events.size()) << "every update notifies";
            ASSERT_EQ(state, events.back().second) << value << " at " << overload << "/" << recover;
            ASSERT_EQ(value, target->value);
        }
        KOVA_Delete_Target(target);
    }
}

// {module, type} -> {overload threshold, hook argument}
using Joins = std::map<std::pair<std::string, std::uint32_t>, std::pair<std::uint32_t, void*>>;

template <typename Owner>
void add_joins(Joins* joins, const Owner* owner, Subscription* Subscription::*next) {
    for (; owner != nullptr; owner = owner->next) {
        for (const Subscription* s = owner->subscriptions; s != nullptr; s = s->*next) {
            const bool is_new =
                joins->insert({{s->subscriber->moduleName, s->subType}, {s->target->overload, s->hookArg}}).second;
            EXPECT_TRUE(is_new) << "twice in a list";
        }
    }
}

TEST_F(RegistryTest, ListsStayThoseOfAModelInAnyOrderOfCalls) {
    constexpr std::uint32_t kSeed = 815;
    SCOPED_TRACE(kSeed);
    g_engine.seed(kSeed);
    Joins model;
    for (std::uintptr_t step = 1; step <= 20'000; ++step) {
        const std::string name = "module" + std::to_string(below(6));
        SubscribeRequest wanted = request(name, 50 + below(4), 10, nullptr, reinterpret_cast<void*>(step));
        const std::uint32_t type = wanted.subType = below(3);
        Subscriber* const subscriber = KOVA_Publisher_GetSubsriber(publisher(), name.c_str());
        switch (below(8)) {
            case 0:
                KOVA_Delete_Subscriber(subscriber);
                std::erase_if(model, [&](const auto& j) { return j.first.first == name; });
                EXPECT_EQ(nullptr, KOVA_Publisher_GetSubsriber(publisher(), name.c_str()));
                break;
            case 1:
                KOVA_Delete_Target(KOVA_Publisher_GetTarget(publisher(), &wanted));
                std::erase_if(
                    model, [&](const auto& j) { return j.first.second == type && j.second.first == wanted.overload; });
                EXPECT_EQ(nullptr, KOVA_Publisher_GetTarget(publisher(), &wanted));
                break;
            case 2:
            case 3:
                KOVA_Delete_Subscription(KOVA_GetSubscription(subscriber, type));
                model.erase({name, type});
                break;
            default:
                Subscription* const joined = join(wanted);
                model.insert({{name, type}, {wanted.overload, wanted.hookArg}});
                // Once more, or in a list that it is not in: nothing changes.
                KOVA_Subscriber_Subscribe(joined->subscriber, joined);
                KOVA_Subscribe_Target(joined->target, joined);
                Target elsewhere{};
                KOVA_Unsubscribe_Target(&elsewhere, joined);
        }
        Joins of_subscribers, of_targets;
        add_joins(&of_subscribers, publisher()->subscribers, &Subscription::nextInSubscriber);
        add_joins(&of_targets, publisher()->targets, &Subscription::nextInTarget);
        ASSERT_EQ(model, of_subscribers) << "step " << step;
        ASSERT_EQ(model, of_targets) << "step " << step;
    }
}

}  // namespace
}  // namespace kova::test
