// The registry's records, and the notifications of one target.
#include <algorithm>
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

// What the registry should hold, newest first.
struct Model {
    struct Joined {
        std::string module;
        std::uint32_t type;
        std::string target;
        void* argument;
    };
    std::vector<std::string> subscribers, targets;
    std::vector<Joined> joined;

    [[nodiscard]] std::string text() const {
        std::string all;
        for (const auto& [key, names] : {std::pair{&Joined::module, &subscribers}, {&Joined::target, &targets}}) {
            for (const std::string& name : *names) {
                all += "\n" + name + ":";
                for (const Joined& j : joined) {
                    if (j.*key == name) all += " " + j.module + ">" + j.target + "=" + number(j.argument);
                }
            }
        }
        return all;
    }
    static std::string number(void* argument) { return std::to_string(reinterpret_cast<std::uintptr_t>(argument)); }
};

std::string target_name(std::uint32_t type, std::uint32_t overload) {
    return std::to_string(type) + "/" + std::to_string(overload);
}

std::string text(const Publisher* publisher) {
    std::string all;
    const auto add = [&all](const Subscription& s) {
        all += std::string(" ") + s.subscriber->moduleName + ">" + target_name(s.subType, s.target->overload) + "=" +
               Model::number(s.hookArg);
    };
    for (const Subscriber* s = publisher->subscribers; s != nullptr; s = s->next) {
        all += "\n" + std::string(s->moduleName) + ":";
        for (const Subscription* m = s->subscriptions; m != nullptr; m = m->nextInSubscriber) add(*m);
    }
    for (const Target* t = publisher->targets; t != nullptr; t = t->next) {
        all += "\n" + target_name(t->subType, t->overload) + ":";
        for (const Subscription* m = t->subscriptions; m != nullptr; m = m->nextInTarget) add(*m);
    }
    return all;
}

TEST_F(RegistryTest, ListsStayThoseOfAModelInAnyOrderOfCalls) {
    constexpr std::uint32_t kSeed = 815;
    SCOPED_TRACE(kSeed);
    g_engine.seed(kSeed);
    Model model;
    for (std::uintptr_t step = 1; step <= 20'000; ++step) {
        const std::string name = "module" + std::to_string(below(6));
        SubscribeRequest wanted = request(name, 50 + below(4), 10, nullptr, reinterpret_cast<void*>(step));
        wanted.subType = below(3);
        const std::string key = target_name(wanted.subType, wanted.overload);
        Subscriber* const subscriber = KOVA_Publisher_GetSubsriber(publisher(), name.c_str());
        Target* const target = KOVA_Publisher_GetTarget(publisher(), &wanted);
        const auto is_same = [&](const Model::Joined& j) { return j.module == name && j.type == wanted.subType; };
        switch (below(8)) {
            case 0:
                KOVA_Delete_Subscriber(subscriber);
                std::erase(model.subscribers, name);
                std::erase_if(model.joined, [&](const Model::Joined& j) { return j.module == name; });
                break;
            case 1:
                KOVA_Delete_Target(target);
                std::erase(model.targets, key);
                std::erase_if(model.joined, [&](const Model::Joined& j) { return j.target == key; });
                break;
            case 2:
            case 3:
                KOVA_Delete_Subscription(KOVA_GetSubscription(subscriber, wanted.subType));
                std::erase_if(model.joined, is_same);
                break;
            default: {
                if (subscriber == nullptr) model.subscribers.insert(model.subscribers.begin(), name);
                if (target == nullptr) model.targets.insert(model.targets.begin(), key);
                if (std::ranges::none_of(model.joined, is_same)) {
                    model.joined.insert(model.joined.begin(), {name, wanted.subType, key, wanted.hookArg});
                }
                Subscription* const joined = join(wanted);
                ASSERT_NE(nullptr, joined);
                // Once more, or in a list that it is not in: nothing changes.
                KOVA_Subscriber_Subscribe(joined->subscriber, joined);
                KOVA_Subscribe_Target(joined->target, joined);
                Target elsewhere{};
                KOVA_Unsubscribe_Target(&elsewhere, joined);
            }
        }
        ASSERT_EQ(model.text(), text(publisher())) << "step " << step;
    }
}

TEST_F(RegistryTest, NamesThatDoNotFitAndMissingHooksAreReported) {
    const std::string longest(KOVA_SUBSCRIBER_NAME_SIZE - 1, 'x');
    EXPECT_EQ(nullptr, KOVA_Create_Subscriber(publisher(), (longest + "x").c_str()));
    EXPECT_EQ(nullptr, publisher()->subscribers);
    Events events;
    join(request("no hook"));
    const SubscribeRequest wanted = request(std::string(31, 'y'), 80, 60, keep_event, &events);
    Target* const target = join(wanted)->target;
    KOVA_Create_Subscription(KOVA_Create_Subscriber(publisher(), longest.c_str()), target, &wanted);
    KOVA_Target_UpdateByValue(target, 80);
    EXPECT_EQ((Events{{std::string(31, 'y'), 1}}), events);
    expect_logged({"[KOVA_Create_Subscriber] subscriber-module strcpy unsuccessful, ret is 34",
                   "KOVA_Notify_Subscription strcpy_s unsuccessful, ret = 34, module = " + longest},
                  "KOVA_Notify_Subscription: publishHook is NULL. module = no hook, pubType = 0");
}

}  // namespace
}  // namespace kova::test
