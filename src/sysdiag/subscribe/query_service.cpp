// The daemon reads the list of this process's subscriptions, page by page.
//
// g_kovaQuerySubscribe keeps one list between the pages, so that they fit together whatever modules do meanwhile. It
// has no lock: the daemon asks for one page at a time.
#include "kova/subscription_services.h"

#include <cstdlib>

#include "base/log_message.h"
#include "base/result.h"
#include "kova_platform/bounded_string.h"
#include "kova_platform/rpc.h"
#include "subscribe/reply.h"

QuerySubscribe g_kovaQuerySubscribe = {};

namespace kova {
namespace {

constexpr char kService[] = "KovaGetSubscribe";
constexpr char kCompanion[] = "KovaGetSubscribe_free";

void copy_item(SubscribeInfo* item, const QuerySubscribeRecord& record) {
    const int errors = strcpy_s(item->moduleName, sizeof item->moduleName, record.moduleName) +
                       strcpy_s(item->subType, sizeof item->subType, record.subType);
    item->overload = record.overload;
    item->recover = record.recover;
    if (errors != 0) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral),
                      "[KovaGetSubscribeInner] strcpy unsuccessful, ret= %d moduleName=%s, subType=%s", errors,
                      record.moduleName, record.subType);
    }
}

// Zeroed items. Null without memory, and perhaps for none.
SubscribeInfo* make_items(std::uint32_t count) {
    const std::size_t size = count * sizeof(SubscribeInfo);
    auto* const items = static_cast<SubscribeInfo*>(std::malloc(size));
    // Result unlooked at: the size is the block's own.
    if (items != nullptr) static_cast<void>(memset_s(items, size, 0, size));
    return items;
}

// `reply` is zeroed, and its result stays what it is unless the page could be filled.
[[nodiscard]] Code fill_page(const GetSubscribeIn& query, GetSubscribeOut* reply) {
    if (query.queryNum > KOVA_QUERY_PAGE_MAX) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "[GetSubscribe] queryNum is invaild, queryNum=%u.", query.queryNum);
        return kMinusOne;
    }
    reply->items = make_items(query.queryNum);
    if (reply->items == nullptr && query.queryNum != 0) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "[GetSubscribe] mem is not enough subscribeInfo");
        return kNoReplyMemory;
    }
    std::uint32_t returned = 0;
    if (KovaGetSubscribeInner(query.start, reply->items, query.queryNum, &returned) != kOk) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "[GetSubscribe] get msg rule info, ret");
        return kMinusOne;
    }
    reply->count = returned;
    reply->result = kOk;
    return kOk;
}

}  // namespace
}  // namespace kova

using kova::kIdGeneral;
using kova::kMinusOne;
using kova::kNoReplyMemory;
using kova::kOk;

uint32_t KovaGetSubscribe(const GetSubscribeIn* inMsg, GetSubscribeOut** outMsg) {
    if (inMsg == nullptr) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "[GetSubscribe] inMsg is invaild.");
        return kMinusOne;
    }
    if (outMsg == nullptr) return kMinusOne;
    auto* const reply = kova::make_reply<GetSubscribeOut>(kova::kService);
    if (reply == nullptr) {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "[GetSubscribe]mem is not enough");
        return kNoReplyMemory;
    }
    *outMsg = reply;
    reply->result = kMinusOne;
    return kova::fill_page(*inMsg, reply);
}

void KovaGetSubscribe_free(GetSubscribeOut* outMsg) {
    if (outMsg != nullptr) {
        std::free(outMsg->items);
        outMsg->items = nullptr;
    }
    kova::destroy_reply(outMsg, kova::kCompanion);
}

uint32_t KovaGetSubscribeInner(uint32_t start, SubscribeInfo* items, uint32_t most, uint32_t* returned) {
    if (returned == nullptr || (items == nullptr && most != 0)) return kMinusOne;
    *returned = 0;
    QuerySubscribe& list = g_kovaQuerySubscribe;
    if (start == 0) {
        KovaFreeQuerySubscribe(&list);
        if (const uint32_t rc = KovaSaveQuerySubscribe(&list); rc != kOk) {
            KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "[KovaGetSubscribeInner] save query msg is unsuccessful, ret=%u.",
                          rc);
            return kMinusOne;
        }
    }
    if (list.records == nullptr) return kOk;
    if (list.count <= start) {
        KovaFreeQuerySubscribe(&list);
        return kOk;
    }
    const uint32_t left = list.count - start;
    const uint32_t page = most < left ? most : left;
    for (uint32_t i = 0; i < page; ++i) kova::copy_item(&items[i], list.records[start + i]);
    *returned = page;
    if (page < most) KovaFreeQuerySubscribe(&list);
    return kOk;
}
