// Requests to the daemon, each over a client of its own.
//
// The client belongs to the request: a request that was sent is always answered or given up by the RPC framework, and
// its callback releases the client; one that could not be sent gets no callback, so the sender releases it.
//
// Locks: none. Subscribing sends while it holds the registry's lock, so a callback must never need that.
#include "kova/resource_subscription.h"

#include <unistd.h>
#include <cstring>

#include "base/log_message.h"
#include "base/result.h"
#include "kova/agent_registration.h"
#include "kova_platform/rpc.h"

namespace kova {
namespace {

constexpr std::uint32_t kFastMemUsageCycleMs = 1000;
constexpr std::int32_t kFastMode = 1;

#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
struct RequestTexts {
    const char* no_client;
    const char* not_sent;
};

template <typename Message>
Code send_request(const char* service, const Message& message, KovaRpcResponse callback, const RequestTexts& texts) {
    auto* const client = KovaAgentRpcConn2Kovad();
    if (client == nullptr) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), texts.no_client);
        return kMinusOne;
    }
    const KovaRpcCallback on_answer = {.handler = callback, .context = client};
    const std::uint32_t rc = ZIB_ConnRpcCall(client, service, &message, sizeof message, &on_answer, nullptr);
    if (rc == kOk) return kOk;
    KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), texts.not_sent, rc);
    KovaDestroyVellClientHandle(client);
    return kMinusOne;
}

struct AnswerTexts {
    const char* not_completed;
    const char* refused;
};

void finish_request(std::uint64_t status, const void* response, void* client, const AnswerTexts& texts) {
    const auto completed = static_cast<std::uint32_t>(status);
    const auto error = static_cast<std::uint32_t>(status >> 32);
    if (response == nullptr || completed == 0 || error != 0) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), texts.not_completed, completed, error);
    } else {
        std::uint32_t result = 0;
        std::memcpy(&result, response, sizeof result);
        if (result != kOk) KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), texts.refused, result);
    }
    KovaDestroyVellClientHandle(static_cast<KovaVellClient*>(client));
}
#pragma GCC diagnostic pop

}  // namespace
}  // namespace kova

using kova::kFailed;
using kova::kIdGeneral;
using kova::kOk;

uint32_t KovaResourceNotify(uint32_t subType) {
    constexpr std::uint32_t kNativeLink = 1;
    if (const uint32_t rc = KovaAgentLinkInit(kNativeLink); rc != kOk) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral),
                      "[KOVA_SubscribeResource] KovaAgentLinkInit native unsuccessful. ret = %u", rc);
        return rc;
    }
    const uint32_t rc = KovaStartResourceMonitor(subType);
    if (rc != kOk) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral),
                      "[KOVA_SubscribeResource] KovaStartResourceMonitor unsuccessful. ret = %u", rc);
    }
    return rc;
}

uint32_t KovaStartResourceMonitor(uint32_t subType) {
    const AppSubscribeMsg message = {.subType = subType, .pid = static_cast<uint32_t>(::getpid())};
    return kova::send_request("KovaAppSubscribe", message, KovaAppSubscribeCallBack,
                              {.no_client = "[KovaStartResourceMonitor] KovaAgentRpcConn2Kovad unsuccessful.",
                               .not_sent = "[KovaStartResourceMonitor]send rpc unsuccessful, ret = %u."});
}

uint32_t KovaSetResourceCycle(uint32_t resourceType, uint32_t cycle) {
    const ResCycleMsg message = {.cycle = cycle, .resourceType = resourceType};
    return kova::send_request("KovaRestCycleTime", message, KovaSetResCycleCallBack,
                              {.no_client = "[KovaSetResourceCycle] KovaAgentRpcConn2Kovad unsuccessful.",
                               .not_sent = "[KovaSetResourceCycle]send rpc unsuccessful, ret = %u."});
}

uint32_t KOVA_SetMemUsageBaseCycle(int32_t mode) {
    const uint32_t cycle = mode == kova::kFastMode ? kova::kFastMemUsageCycleMs : KOVA_MEM_USAGE_CYCLE_DEFAULT;
    const uint32_t rc = KovaSetResourceCycle(KOVA_CYCLE_MEM_USAGE, cycle);
    if (rc == kOk) return kOk;
    KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "[KOVA_SetMemUsageBaseCycle]KovaSetResourceCycle unsuccessful, ret = %u.",
                  rc);
    return kFailed;
}

void KovaSetResCycleCallBack(uint64_t stStatus, uintptr_t /*unused*/, void* response, void* client) {
    kova::finish_request(stStatus, response, client,
                         {.not_completed = "[KovaSetResCycleCallBack] stStatus unsuccessful, bsuccess=%#x errNo=%#x.",
                          .refused = "[KovaSetResCycleCallBack] stStatus unsuccessful, (ret:%d)."});
}

void KovaAppSubscribeCallBack(uint64_t stStatus, uintptr_t /*unused*/, void* response, void* client) {
    kova::finish_request(stStatus, response, client,
                         {.not_completed = "[KovaAppSubscribeCallBack] stStatus unsuccessful, bsuccess=%#x errNo=%#x.",
                          .refused = "[KovaAppSubscribeCallBack] stStatus unsuccessful, (ret:%d)."});
}
