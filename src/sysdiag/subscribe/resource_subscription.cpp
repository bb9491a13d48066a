// A module subscribes to a resource type, and ends that again.
//
// Locks: g_kovaSubscribeMutexLock, over the whole of either call. Subscribing asks the daemon under it, before anything
// is registered: a module is never in the registry without the daemon knowing, and what the daemon publishes in answer
// waits for the lock.
#include "kova/resource_subscription.h"

#include <cstring>

#include "base/log_message.h"
#include "base/result.h"
#include "kova_platform/bounded_string.h"
#include "subscribe/registry_lock.h"

namespace kova {
namespace {

constexpr std::uint32_t kMostPercent = 100;

constexpr char kInvalidText[] =
    "[KOVA_SubscribeResourceCheckPara] Input parameters invalid, module:%s, overload:%u, recover:%u, subType:%d.";

// The request's name, terminated whatever the module passed.
class ModuleName {
  public:
    explicit ModuleName(const SubscribeRequest& request)
        : length_(::strnlen(request.moduleName, sizeof request.moduleName)) {
        std::memcpy(text_, request.moduleName, length_);
    }
    [[nodiscard]] const char* c_str() const { return text_; }
    [[nodiscard]] bool is_usable() const { return length_ != 0 && length_ < KOVA_MODULE_NAME_SIZE; }

  private:
    std::size_t length_;
    char text_[KOVA_MODULE_NAME_SIZE + 1] = {};
};

[[nodiscard]] bool is_valid(const SubscribeRequest& request, const ModuleName& name) {
    return request.subType == KOVA_SUBSCRIBE_DATA_PLANE_CPU && name.is_usable() && request.overload <= kMostPercent &&
           request.recover < request.overload;
}

// The process's publisher, made on first use; null without memory.
[[nodiscard]] Publisher* make_publisher_locked() {
    if (Publisher* const publisher = process_publisher()) return publisher;
    Publisher* const publisher = KOVA_Create_Publisher();
    if (publisher != nullptr) store_release(g_KovaPublisherAgent, publisher);
    return publisher;
}

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
Code report_not_created(const char* text, const ModuleName& name) {
    KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), text, name.c_str());
    return kFailed;
}
#pragma GCC diagnostic pop

[[nodiscard]] Code subscribe_locked(const SubscribeRequest& request) {
    Publisher* const publisher = make_publisher_locked();
    if (publisher == nullptr) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "[KOVA_SubscribeResource] publisher create unsuccessful.");
        return kFailed;
    }
    if (const Code rc = KovaResourceNotify(request.subType); rc != kOk) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "[KOVA_SubscribeResource] KovaResourceNotify unsuccessful. ret = %u",
                      rc);
        return kFailed;
    }
    const ModuleName name(request);
    Subscriber* const subscriber = KOVA_Create_Subscriber(publisher, name.c_str());
    if (subscriber == nullptr) {
        return report_not_created("[KOVA_SubscribeResource] subscriber create unsuccessful, moduleName is %s", name);
    }
    Target* const target = KOVA_Create_Target(publisher, &request);
    if (target == nullptr) {
        return report_not_created("[KOVA_SubscribeResource] target create unsuccessful, moduleName is %s", name);
    }
    Subscription* const subscription = KOVA_Create_Subscription(subscriber, target, &request);
    if (subscription == nullptr) {
        return report_not_created("[KOVA_SubscribeResource] subscription create unsuccessful, moduleName is %s", name);
    }
    KOVA_Notify_Subscription(subscription, target);
    return kOk;
}

[[nodiscard]] Code unsubscribe_locked(Publisher* publisher, const SubscribeRequest& request) {
    const ModuleName name(request);
    Subscriber* const subscriber = KOVA_Publisher_GetSubsriber(publisher, name.c_str());
    if (subscriber == nullptr) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral),
                      "[KOVA_UnSubscribeResource] get subscriber unsuccessful, moduleName:%s.", name.c_str());
        return kFailed;
    }
    Subscription* const subscription = KOVA_GetSubscription(subscriber, request.subType);
    if (subscription == nullptr) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral),
                      "[KOVA_UnSubscribeResource] get subscription unsuccessful, moduleName:%s, subType:%d.",
                      name.c_str(), request.subType);
        return kFailed;
    }
    KOVA_Delete_Subscription(subscription);
    return kOk;
}

}  // namespace
}  // namespace kova

using kova::kFailed;
using kova::kIdGeneral;
using kova::kIdLock;
using kova::kOk;

uint32_t KOVA_SubscribeResource(const SubscribeRequest* request) {
    if (KOVA_SubscribeResourceCheckPara(request) != kOk) return kFailed;
    const kova::RegistryLock lock;
    if (!lock.is_held()) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdLock), "[KOVA_SubscribeResource] lock unsuccessful. ret = %d", lock.error());
        return kFailed;
    }
    return kova::subscribe_locked(*request);
}

uint32_t KOVA_UnSubscribeResource(const SubscribeRequest* request) {
    if (request == nullptr) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "[KOVA_UnSubscribeResource] Input parameters invalid.");
        return kFailed;
    }
    Publisher* const publisher = kova::process_publisher();
    if (publisher == nullptr) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "[KOVA_UnSubscribeResource] publisher not exist.");
        return kFailed;
    }
    const kova::RegistryLock lock;
    if (!lock.is_held()) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "[KOVA_UnSubscribeResource] lock unsuccessful. ret = %d",
                      lock.error());
        return kFailed;
    }
    return kova::unsubscribe_locked(publisher, *request);
}

uint32_t KOVA_SubscribeResourceCheckPara(const SubscribeRequest* request) {
    if (request == nullptr) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "[KOVA_SubscribeResourceCheckPara] Input parameters is NULL.");
        return kFailed;
    }
    const kova::ModuleName name(*request);
    if (kova::is_valid(*request, name)) return kOk;
    KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), kova::kInvalidText, name.c_str(), request->overload, request->recover,
                  request->subType);
    return kFailed;
}
