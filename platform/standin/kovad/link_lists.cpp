// The lists that the daemon shows of its books; see link_lists.h.
#include "link_lists.h"

#include <algorithm>
#include <cstring>
#include <span>

namespace kova::kovad {
namespace {

template <typename Item>
std::vector<std::byte> page_of(const std::vector<Item>& items) {
    const ListHead head{.result = 0, .count = static_cast<std::uint32_t>(items.size())};
    std::vector<std::byte> page(sizeof head + items.size() * sizeof(Item));
    std::memcpy(page.data(), &head, sizeof head);
    if (!items.empty()) std::memcpy(page.data() + sizeof head, items.data(), items.size() * sizeof(Item));
    return page;
}

// A process has one link at most that registered or subscribed.
std::vector<const LinkRecord*> processes_from(const LinkRecords& links, std::uint32_t pid) {
    std::vector<const LinkRecord*> found;
    for (const auto& [id, record] : links) {
        if ((record.registration || record.is_subscribed) && record.pid >= pid) found.push_back(&record);
    }
    std::ranges::sort(found, {}, &LinkRecord::pid);
    return found;
}

bool is_silent(const LinkRecord& record, std::uint64_t silent_since_ms) {
    return (record.update && record.update->since_ms <= silent_since_ms) ||
           (record.query && record.query->waiting.since_ms <= silent_since_ms);
}

ProcessItem process_item(const LinkRecord& record, std::uint64_t silent_since_ms) {
    ProcessItem item{};
    item.pid = record.pid;
    item.since_utc_s = record.since_utc_s;
    item.state = record.registration ? ProcessState::kRegistered : ProcessState::kConnected;
    if (is_silent(record, silent_since_ms)) item.state = ProcessState::kSilent;
    if (record.registration) {
        item.type = record.registration->type;
        item.since_utc_s = record.registration->since_utc_s;
        std::ranges::copy(record.registration->name, item.name);
    }
    item.publisher = record.is_subscribed || (record.registration && record.registration->publisher) ? 1 : 0;
    return item;
}

SubscriptionItem subscription_item(const LinkRecord& record, std::size_t index) {
    const SubscribeInfo& info = record.subscriptions[index];
    SubscriptionItem item{};
    item.pid = record.pid;
    item.index = static_cast<std::uint32_t>(index);
    item.is_fresh = record.subscriptions_fresh ? 1 : 0;
    item.overload = info.overload;
    item.recover = info.recover;
    if (record.registration) std::ranges::copy(record.registration->name, item.process_name);
    std::ranges::copy(info.module, item.module_name);
    std::ranges::copy(info.resource, item.resource);
    return item;
}

}  // namespace

std::vector<std::byte> process_page(const LinkRecords& links, const ListRequest& from, std::uint64_t silent_since_ms) {
    std::vector<ProcessItem> items;
    for (const LinkRecord* const record : processes_from(links, from.pid)) {
        if (items.size() == kListPageItems) break;
        items.push_back(process_item(*record, silent_since_ms));
    }
    return page_of(items);
}

std::vector<std::byte> subscription_page(const LinkRecords& links, const ListRequest& from) {
    std::vector<SubscriptionItem> items;
    for (const LinkRecord* const record : processes_from(links, from.pid)) {
        const std::size_t first = record->pid == from.pid ? from.index : 0;
        for (std::size_t i = first; i < record->subscriptions.size() && items.size() < kListPageItems; ++i) {
            items.push_back(subscription_item(*record, i));
        }
    }
    return page_of(items);
}

}  // namespace kova::kovad
