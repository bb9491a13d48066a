// The records of the registry: making, finding, joining and deleting them.
//
// A subscription is in exactly two lists, its subscriber's and its target's, from its making to its deletion. Deleting
// either owner deletes its subscriptions one by one, each of which leaves the other owner's list too.
//
// Locks: the callers hold g_kovaSubscribeMutexLock; only the first two functions touch it.
#include "kova/subscription_registry.h"

#include <cstdlib>
#include <cstring>

#include "base/log_message.h"
#include "kova_platform/bounded_string.h"
#include "subscribe/linked_list.h"

pthread_mutex_t g_kovaSubscribeMutexLock = PTHREAD_MUTEX_INITIALIZER;

namespace kova {
namespace {

// A zeroed record, or null without memory.
template <typename Record>
Record* make_record() {
    void* const memory = std::malloc(sizeof(Record));
    if (memory == nullptr) return nullptr;
    auto* const record = static_cast<Record*>(memory);
    *record = Record{};
    return record;
}

}  // namespace
}  // namespace kova

using kova::contains;
using kova::find_if;
using kova::kIdGeneral;
using kova::make_record;
using kova::push_front;
using kova::unlink;

int32_t KOVA_Subscriber_Mutex_Lock(void) {
    return pthread_mutex_lock(&g_kovaSubscribeMutexLock);
}

int32_t KOVA_Subscriber_Mutex_Unlock(void) {
    return pthread_mutex_unlock(&g_kovaSubscribeMutexLock);
}

Publisher* KOVA_Create_Publisher(void) {
    return make_record<Publisher>();
}

void KOVA_Delete_Publisher(Publisher* publisher) {
    if (publisher == nullptr) return;
    // Taken out here, so that this ends even when a record names another publisher as its own.
    while (Subscriber* const subscriber = publisher->subscribers) {
        unlink<&Subscriber::next>(publisher->subscribers, subscriber);
        KOVA_Delete_Subscriber(subscriber);
    }
    while (Target* const target = publisher->targets) {
        unlink<&Target::next>(publisher->targets, target);
        KOVA_Delete_Target(target);
    }
    std::free(publisher);
}

Subscriber* KOVA_Publisher_GetSubsriber(Publisher* publisher, const char* moduleName) {
    if (publisher == nullptr || moduleName == nullptr) return nullptr;
    return find_if<&Subscriber::next>(publisher->subscribers, [moduleName](const Subscriber& subscriber) {
        return std::strcmp(subscriber.moduleName, moduleName) == 0;
    });
}

Target* KOVA_Publisher_GetTarget(Publisher* publisher, const SubscribeRequest* request) {
    if (publisher == nullptr || request == nullptr) return nullptr;
    return find_if<&Target::next>(publisher->targets, [request](const Target& target) {
        return target.subType == request->subType && target.recover == request->recover &&
               target.overload == request->overload;
    });
}

Subscriber* KOVA_Create_Subscriber(Publisher* publisher, const char* moduleName) {
    if (publisher == nullptr || moduleName == nullptr) return nullptr;
    if (Subscriber* const found = KOVA_Publisher_GetSubsriber(publisher, moduleName)) return found;
    auto* const subscriber = make_record<Subscriber>();
    if (subscriber == nullptr) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "[KOVA_Create_Subscriber] subscriber malloc unsuccessful");
        return nullptr;
    }
    if (const int error = strcpy_s(subscriber->moduleName, sizeof subscriber->moduleName, moduleName); error != 0) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral),
                      "[KOVA_Create_Subscriber] subscriber-module strcpy unsuccessful, ret is %d", error);
        std::free(subscriber);
        return nullptr;
    }
    subscriber->publisher = publisher;
    push_front<&Subscriber::next>(publisher->subscribers, subscriber);
    return subscriber;
}

void KOVA_Delete_Subscriber(Subscriber* subscriber) {
    if (subscriber == nullptr) return;
    if (subscriber->publisher != nullptr) unlink<&Subscriber::next>(subscriber->publisher->subscribers, subscriber);
    // Taken out here, so that this ends even when a subscription names another subscriber as its own.
    while (Subscription* const subscription = subscriber->subscriptions) {
        KOVA_Unsubscribe_Subscriber(subscriber, subscription);
        KOVA_Delete_Subscription(subscription);
    }
    std::free(subscriber);
}

void KOVA_Subscriber_Subscribe(Subscriber* subscriber, Subscription* subscription) {
    if (subscriber == nullptr || subscription == nullptr) return;
    if (contains<&Subscription::nextInSubscriber>(subscriber->subscriptions, subscription)) return;
    push_front<&Subscription::nextInSubscriber>(subscriber->subscriptions, subscription);
    subscription->subscriber = subscriber;
}

void KOVA_Unsubscribe_Subscriber(Subscriber* subscriber, Subscription* subscription) {
    if (subscriber == nullptr || subscription == nullptr) return;
    unlink<&Subscription::nextInSubscriber>(subscriber->subscriptions, subscription);
}

Subscription* KOVA_GetSubscription(Subscriber* subscriber, uint32_t subType) {
    if (subscriber == nullptr) return nullptr;
    return find_if<&Subscription::nextInSubscriber>(
        subscriber->subscriptions,
        [subType](const Subscription& subscription) { return subscription.subType == subType; });
}

Subscription* KOVA_Create_Subscription(Subscriber* subscriber, Target* target, const SubscribeRequest* request) {
    if (subscriber == nullptr || target == nullptr || request == nullptr) return nullptr;
    if (Subscription* const found = KOVA_GetSubscription(subscriber, request->subType)) return found;
    auto* const subscription = make_record<Subscription>();
    if (subscription == nullptr) return nullptr;
    subscription->subType = request->subType;
    subscription->publishHook = request->publishHook;
    subscription->hookArg = request->hookArg;
    KOVA_Subscriber_Subscribe(subscriber, subscription);
    KOVA_Subscribe_Target(target, subscription);
    return subscription;
}

void KOVA_Delete_Subscription(Subscription* subscription) {
    if (subscription == nullptr) return;
    KOVA_Unsubscribe_Target(subscription->target, subscription);
    KOVA_Unsubscribe_Subscriber(subscription->subscriber, subscription);
    std::free(subscription);
}

Target* KOVA_Create_Target(Publisher* publisher, const SubscribeRequest* request) {
    if (publisher == nullptr || request == nullptr) return nullptr;
    if (Target* const found = KOVA_Publisher_GetTarget(publisher, request)) return found;
    auto* const target = make_record<Target>();
    if (target == nullptr) return nullptr;
    target->subType = request->subType;
    target->recover = request->recover;
    target->overload = request->overload;
    target->publisher = publisher;
    push_front<&Target::next>(publisher->targets, target);
    return target;
}

void KOVA_Delete_Target(Target* target) {
    if (target == nullptr) return;
    if (target->publisher != nullptr) unlink<&Target::next>(target->publisher->targets, target);
    while (Subscription* const subscription = target->subscriptions) {
        KOVA_Unsubscribe_Target(target, subscription);
        KOVA_Delete_Subscription(subscription);
    }
    std::free(target);
}

void KOVA_Subscribe_Target(Target* target, Subscription* subscription) {
    if (target == nullptr || subscription == nullptr) return;
    if (contains<&Subscription::nextInTarget>(target->subscriptions, subscription)) return;
    push_front<&Subscription::nextInTarget>(target->subscriptions, subscription);
    subscription->target = target;
}

void KOVA_Unsubscribe_Target(Target* target, Subscription* subscription) {
    if (target == nullptr || subscription == nullptr) return;
    unlink<&Subscription::nextInTarget>(target->subscriptions, subscription);
}
