// The daemon publishes a value: it reaches every target of its type, and through them the modules' hooks.
//
// Locks: g_kovaSubscribeMutexLock, held over the whole walk and every hook.
#include "kova/subscription_services.h"

#include "base/log_message.h"
#include "base/result.h"
#include "kova_platform/rpc.h"
#include "subscribe/registry_lock.h"
#include "subscribe/reply.h"
#include "subscribe/target_update.h"

namespace kova {
namespace {

constexpr char kService[] = "KovaUpdateResourceInfo";
constexpr char kCompanion[] = "KovaUpdateResourceInfo_free";

void publish(std::uint32_t type, std::uint32_t value) {
    Publisher* const publisher = process_publisher();
    if (publisher == nullptr) {
        KovaDLogWrite(KOVA_LOG_INFO, "[KovaPublishEvent] publisher not exist.");
        return;
    }
    const RegistryLock lock;
    if (!lock.is_held()) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "[KovaPublishEvent] lock unsuccessful. ret = %d", lock.error());
        return;
    }
    for (Target* target = publisher->targets; target != nullptr; target = target->next) {
        if (target->subType == type) update_target_locked(*target, value);
    }
}

}  // namespace
}  // namespace kova

using kova::kFailed;
using kova::kIdGeneral;
using kova::kNoReplyMemory;
using kova::kOk;

uint32_t KovaUpdateResourceInfo(const UpdateResourceInfoIn* inMsg, UpdateResourceInfoOut** outMsg) {
    if (inMsg == nullptr) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "[KovaUpdateResourceInfo] inMsg is invalid.");
        return kFailed;
    }
    if (outMsg == nullptr) return kFailed;
    auto* const reply = kova::make_reply<UpdateResourceInfoOut>(kova::kService);
    if (reply == nullptr) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "[KovaUpdateResourceInfo] mem is not enough.");
        return kNoReplyMemory;
    }
    *outMsg = reply;
    kova::publish(inMsg->subType, inMsg->value);
    reply->result = kOk;
    return kOk;
}

void KovaUpdateResourceInfo_free(UpdateResourceInfoOut* outMsg) {
    kova::destroy_reply(outMsg, kova::kCompanion);
}

uint32_t KovaPublishEvent(const UpdateResourceInfoIn* inMsg) {
    if (inMsg != nullptr) kova::publish(inMsg->subType, inMsg->value);
    return kOk;
}
