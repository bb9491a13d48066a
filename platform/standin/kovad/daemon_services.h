// The services that the daemon offers to those who look at it (kovactl), as they go over the socket.
//
// Both answer in pages: the request says where to go on, beginning with zeros, and an empty page is the end. Lists are
// ordered by process id, so that what comes and goes between two pages leaves everything else where it was.
#pragma once

#include <cstdint>

namespace kova::kovad {

inline constexpr char kListProcesses[] = "KovadListProcesses";
inline constexpr char kListSubscriptions[] = "KovadListSubscriptions";

struct ListRequest {
    std::uint32_t pid;    // first that is wanted
    std::uint32_t index;  // first subscription of that process that is wanted; of a list of processes 0
};
static_assert(sizeof(ListRequest) == 8);

struct ListHead {
    std::uint32_t result;  // 0
    std::uint32_t count;   // items behind this head
};
static_assert(sizeof(ListHead) == 8);

enum class ProcessState : std::uint32_t {
    kConnected = 0,  // subscribed, and did not register
    kRegistered = 1,
    kSilent = 2,  // did not answer the daemon for kSilentAfterMs: stopped, or a hook of its blocks
};

// Texts are terminated, and are what the process said of itself: print them with care.
struct ProcessItem {
    std::uint32_t pid;
    std::uint32_t type;  // as the process registered, 0 when it did not
    std::uint32_t publisher;
    ProcessState state;
    std::int64_t since_utc_s;  // of the registration, or the connection where there is none
    char name[32];
};
static_assert(sizeof(ProcessItem) == 56);

struct SubscriptionItem {
    std::uint32_t pid;
    std::uint32_t index;     // among those of the process
    std::uint32_t is_fresh;  // 0: the process does not answer, and this is what it said before
    std::uint32_t overload;
    std::uint32_t recover;
    char process_name[32];
    char module_name[32];
    char resource[32];
};
static_assert(sizeof(SubscriptionItem) == 116);

inline constexpr std::uint32_t kListPageItems = 256;
static_assert(sizeof(ListHead) + kListPageItems * sizeof(SubscriptionItem) < 60'000, "fits into one message");

}  // namespace kova::kovad
