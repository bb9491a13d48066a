// A published value on its way from the target to the modules' hooks.
//
// A value reaches a thousand modules one after the other under one lock, so what each costs besides its hook counts:
// the calls here are direct ones, and the exported functions are only the way in from outside.
//
// Locks: the callers hold g_kovaSubscribeMutexLock, hooks run under it.
#include "subscribe/target_update.h"

#include "base/log_message.h"
#include "kova_platform/bounded_string.h"
#include "subscribe/overload_state.h"

namespace kova {
namespace {

[[gnu::cold]] void report_long_name(const char* module, int error) {
    KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "KOVA_Notify_Subscription strcpy_s unsuccessful, ret = %d, module = %s",
                  error, module);
}

[[gnu::cold]] void report_no_hook(const char* module, std::uint32_t type) {
    KovaDLogWrite(KOVA_LOG_BASE(kIdLock), "KOVA_Notify_Subscription: publishHook is NULL. module = %s, pubType = %u",
                  module, type);
}

inline void notify_locked(const Subscription& subscription, const Target& target) {
    SubscribeEvent event{};
    event.pubType = target.subType;
    event.state = target.state;
    event.value = target.value;
    const char* const module = subscription.subscriber->moduleName;
    if (const int error = strcpy_s(event.moduleName, sizeof event.moduleName, module); error != 0) {
        report_long_name(module, error);
    } else if (subscription.publishHook == nullptr) {
        report_no_hook(module, target.subType);
    } else {
        subscription.publishHook(&event, subscription.hookArg);
    }
}

}  // namespace

void update_target_locked(Target& target, std::uint32_t value) {
    target.previousState = target.state;
    target.value = value;
    target.state = next_overload_state(target.state, value, {.overload = target.overload, .recover = target.recover});
    target.updated = 1;
    for (const Subscription* subscription = target.subscriptions; subscription != nullptr;
         subscription = subscription->nextInTarget) {
        notify_locked(*subscription, target);
    }
}

}  // namespace kova

void KOVA_Target_UpdateByValue(Target* target, uint32_t value) {
    if (target != nullptr) kova::update_target_locked(*target, value);
}

void KOVA_Notify_Subscription(Subscription* subscription, Target* target) {
    if (subscription == nullptr || target == nullptr || subscription->subscriber == nullptr) return;
    if (target->updated != 0) kova::notify_locked(*subscription, *target);
}
