// A list of the process's subscriptions as they were at one moment.
//
// Locks: g_kovaSubscribeMutexLock, once to count and once to copy. It is let go for the allocation in between, which
// the platform's allocator may take its time with, so the registry may have changed when the copying begins.
#include "kova/subscription_services.h"

#include "base/log_message.h"
#include "base/result.h"
#include "kova/memory.h"
#include "kova_platform/bounded_string.h"
#include "subscribe/registry_lock.h"

namespace kova {
namespace {

constexpr char kMemoryTag[] = "kova_subscribe";
constexpr std::uint32_t kMemoryKind = 1;

void release(QuerySubscribeRecord* records) {
    KovaBaseFree(g_kovaAgentMemHandle, records, kMemoryTag, __LINE__);
}

// Copies at most `room` subscriptions. False when there are more.
[[nodiscard]] bool copy_registry_locked(const Publisher& publisher, QuerySubscribeRecord* records, std::uint32_t room,
                                        std::uint32_t* filled) {
    std::uint32_t count = 0;
    for (const Target* target = publisher.targets; target != nullptr; target = target->next) {
        for (const Subscription* subscription = target->subscriptions; subscription != nullptr;
             subscription = subscription->nextInTarget) {
            if (count == room) return false;
            // A text that does not fit is logged; the record counts all the same.
            static_cast<void>(KovaCopyQuerySubscribeInfo(&records[count++], target, subscription->subscriber));
        }
    }
    *filled = count;
    return true;
}

[[nodiscard]] Code fill_snapshot(QuerySubscribeRecord* records, std::uint32_t room, std::uint32_t* filled) {
    const RegistryLock lock;
    if (!lock.is_held()) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "[SaveQuerySubscribe] lock unsuccessful. ret = %d", lock.error());
        return kMinusOne;
    }
    const Publisher* const publisher = process_publisher();
    if (publisher == nullptr) return kOk;
    return copy_registry_locked(*publisher, records, room, filled) ? kOk : kMinusOne;
}

}  // namespace
}  // namespace kova

using kova::kFailed;
using kova::kIdGeneral;
using kova::kMinusOne;
using kova::kOk;

uint32_t KovaSaveQuerySubscribe(QuerySubscribe* snapshot) {
    if (snapshot == nullptr) return kMinusOne;
    *snapshot = {};
    const uint32_t count = KovaGetSubscriptionCnt();
    if (count > KOVA_QUERY_SNAPSHOT_MAX) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "[KovaSaveQuerySubscribe] mem is not enough.");
        return kMinusOne;
    }
    if (count == 0) return kOk;

    const auto size = static_cast<uint32_t>(count * sizeof(QuerySubscribeRecord));
    auto* const records = static_cast<QuerySubscribeRecord*>(
        KovaBaseMalloc(g_kovaAgentMemHandle, kova::kMemoryKind, size, kova::kMemoryTag, __LINE__));
    if (records == nullptr) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "[SaveQuerySubscribe] malloc is invaild, cnt=%u.", count);
        return kMinusOne;
    }
    // Result unlooked at: the size is the block's own.
    static_cast<void>(memset_s(records, size, 0, size));

    uint32_t filled = 0;
    const uint32_t rc = kova::fill_snapshot(records, count, &filled);
    if (rc != kOk || filled == 0) {
        kova::release(records);
        return rc;
    }
    *snapshot = {.count = filled, .records = records};
    return kOk;
}

void KovaFreeQuerySubscribe(QuerySubscribe* snapshot) {
    if (snapshot == nullptr) return;
    kova::release(snapshot->records);
    *snapshot = {};
}

uint32_t KovaGetSubscriptionCnt(void) {
    const Publisher* const publisher = kova::process_publisher();
    if (publisher == nullptr) return 0;
    const kova::RegistryLock lock;
    if (!lock.is_held()) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "[KovaGetSubscriptionCnt] lock unsuccessful. ret = %d", lock.error());
        return 0;
    }
    uint32_t count = 0;
    for (const Target* target = publisher->targets; target != nullptr; target = target->next) {
        for (const Subscription* subscription = target->subscriptions; subscription != nullptr;
             subscription = subscription->nextInTarget) {
            ++count;
        }
    }
    return count;
}

uint32_t KovaCopyQuerySubscribeInfo(QuerySubscribeRecord* record, const Target* target, const Subscriber* subscriber) {
    if (record == nullptr || target == nullptr || subscriber == nullptr) return kFailed;
    record->overload = target->overload;
    record->recover = target->recover;
    if (target->subType == KOVA_SUBSCRIBE_DATA_PLANE_CPU) {
        if (const int error = strcpy_s(record->subType, sizeof record->subType, "dataPlaneCpu"); error != 0) {
            KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral),
                          "[KovaCopyQuerySubscribeInfo] strcpy_s subType unsuccessful, ret= %d.", error);
            return kFailed;
        }
    }
    if (const int error = strcpy_s(record->moduleName, sizeof record->moduleName, subscriber->moduleName); error != 0) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral),
                      "[KovaCopyQuerySubscribeInfo] strcpy_s moduleName unsuccessful, ret= %d.", error);
        return kFailed;
    }
    return kOk;
}
