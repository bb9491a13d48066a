// A published value on its way from the target to the modules' hooks.
//
// Locks: the callers hold g_kovaSubscribeMutexLock, hooks run under it.
#include "kova/subscription_registry.h"

#include "base/log_message.h"
#include "kova_platform/bounded_string.h"
#include "subscribe/overload_state.h"

using kova::kIdGeneral;
using kova::kIdLock;

void KOVA_Target_UpdateByValue(Target* target, uint32_t value) {
    if (target == nullptr) return;
    target->previousState = target->state;
    target->value = value;
    target->state =
        kova::next_overload_state(target->state, value, {.overload = target->overload, .recover = target->recover});
    target->updated = 1;
    for (Subscription* subscription = target->subscriptions; subscription != nullptr;
         subscription = subscription->nextInTarget) {
        KOVA_Notify_Subscription(subscription, target);
    }
}

void KOVA_Notify_Subscription(Subscription* subscription, Target* target) {
    if (subscription == nullptr || target == nullptr || subscription->subscriber == nullptr) return;
    if (target->updated == 0) return;
    SubscribeEvent event{};
    event.pubType = target->subType;
    const char* const module = subscription->subscriber->moduleName;
    if (const int error = strcpy_s(event.moduleName, sizeof event.moduleName, module); error != 0) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral),
                      "KOVA_Notify_Subscription strcpy_s unsuccessful, ret = %d, module = %s", error, module);
        return;
    }
    event.state = target->state;
    event.value = target->value;
    if (subscription->publishHook == nullptr) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdLock),
                      "KOVA_Notify_Subscription: publishHook is NULL. module = %s, pubType = %u", module,
                      event.pubType);
        return;
    }
    subscription->publishHook(&event, subscription->hookArg);
}
