// What the daemon knows of one connection, and of the process at its other end.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <vector>

#include "wire.h"

namespace kova::kovad {

using LinkId = std::uint64_t;
using Name = std::array<char, 32>;  // terminated

// Two clocks: one that stands still for nobody, for waiting, and one for people.
struct Moment {
    std::uint64_t steady_ms = 0;
    std::int64_t utc_s = 0;
};

// One subscription, as the process answers when it is asked.
struct SubscribeInfo {
    Name module;
    Name resource;
    std::uint32_t overload;
    std::uint32_t recover;
};
static_assert(sizeof(SubscribeInfo) == wire::kSubscribeItemBytes);

struct Registration {
    Name name{};
    std::uint32_t type = 0;
    bool publisher = false;
    std::int64_t since_utc_s = 0;
};

// A request of ours that the process has yet to answer.
struct Waiting {
    std::uint32_t call_number = 0;
    std::uint64_t since_ms = 0;
};

// Asks a process for its subscriptions, page by page.
struct PageQuery {
    Waiting waiting;
    std::vector<SubscribeInfo> items;
};

struct LinkRecord {
    std::uint32_t pid = 0;  // as the kernel says
    std::int64_t since_utc_s = 0;
    wire::RequestOrder order;
    std::uint32_t last_call = 0;
    std::optional<Registration> registration;
    bool is_subscribed = false;

    // One update is under way at most. While the process does not answer it, later values replace each other, so that a
    // slow process costs one value and never hears of old ones.
    std::optional<Waiting> update;
    std::optional<std::uint32_t> next_value;

    std::optional<PageQuery> query;
    std::vector<SubscribeInfo> subscriptions;  // as last answered
    bool subscriptions_fresh = false;
};

using LinkRecords = std::map<LinkId, LinkRecord>;

}  // namespace kova::kovad
