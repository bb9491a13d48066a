// The daemon's books: who is connected, registered and subscribed, what was asked and is still to be answered.
//
// A state machine without sockets, timers or clocks: what happened goes in, what is to be done comes out through
// LinkActions. Every byte that a process sent is hostile. A message that is malformed, unknown or out of order closes
// its connection and changes nothing else.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <set>
#include <span>
#include <string_view>
#include <vector>

#include "daemon_services.h"
#include "link_record.h"
#include "wire.h"

namespace kova::kovad {

// What the books ask of the rest of the daemon. None of these may call the books back.
class LinkActions {
  public:
    virtual ~LinkActions() = default;
    // Takes a copy. What cannot be sent at once is kept: the books never have more than two requests and the answers to
    // the last two of the process under way, as long as nothing more is read from a link that has messages waiting.
    virtual void send(LinkId link, std::span<const std::byte> message) = 0;
    // The books have forgotten the link already.
    virtual void close(LinkId link, std::uint32_t pid, std::string_view why) = 0;
    virtual void set_memory_cycle(std::uint32_t cycle_ms) = 0;
    virtual void set_monitored(bool monitored) = 0;
};

inline constexpr std::uint64_t kGatherPatienceMs = 1000;
inline constexpr std::uint64_t kSilentAfterMs = 3000;
inline constexpr std::uint32_t kLeastMemoryCycleMs = 100;
inline constexpr std::uint32_t kMostMemoryCycleMs = 3'600'000;
inline constexpr std::size_t kMostLinks = 2000;
inline constexpr std::size_t kMostLinksOfProcess = 8;

class LinkBook {
  public:
    explicit LinkBook(LinkActions& actions) : actions_(actions) {}

    // A new connection; `pid` is what the kernel says of it.
    void opened(LinkId link, std::uint32_t pid, Moment now);
    void received(LinkId link, std::span<const std::byte> bytes, Moment now);
    // The connection or its process ended.
    void closed(LinkId link, Moment now);

    // A new data-plane CPU figure, percent, for everybody who subscribed.
    void publish(std::uint32_t percent, Moment now);

    // When expire() has something to do, on the steady clock.
    [[nodiscard]] std::optional<std::uint64_t> deadline_ms() const;
    void expire(Moment now);

  private:
    // Somebody wants the list of subscriptions, and the processes are being asked for theirs.
    struct Asker {
        LinkId link;
        std::uint32_t call_number;
        std::set<LinkId> awaited;
        std::uint64_t deadline_ms;
    };
    using Entry = LinkRecords::iterator;

    void take_request(Entry entry, const wire::Message& message, Moment now);
    void take_response(Entry entry, const wire::Message& message, Moment now);
    void register_process(Entry entry, const wire::Message& message, Moment now);
    void change_cycle(Entry entry, const wire::Message& message);
    void subscribe(Entry entry, const wire::Message& message);
    void list_processes(Entry entry, const wire::Message& message, Moment now);
    void list_subscriptions(Entry entry, const wire::Message& message, Moment now);

    void send_update(Entry entry, std::uint32_t percent, Moment now);
    void ask_for_page(Entry entry, Moment now);
    void take_page(Entry entry, const wire::Message& message, Moment now);
    void end_query(Entry entry, bool is_complete);
    void answer_askers(Moment now);
    void answer_subscriptions(LinkId link, std::uint32_t call_number, const ListRequest& from);

    void request(Entry entry, std::string_view service, std::span<const std::byte> payload, Waiting& waiting,
                 Moment now);
    void respond(LinkId link, std::uint32_t call_number, std::string_view service, std::span<const std::byte> payload);
    void set_subscribed(LinkRecord& record);
    void close_older_links(Entry entry);
    void fail(Entry entry, std::string_view why);
    void forget(Entry entry);
    void update_monitored();

    LinkActions& actions_;
    LinkRecords links_;
    std::vector<Asker> askers_;
    bool is_monitored_ = false;
    std::uint32_t memory_cycle_ms_ = 0;  // as a process set it last
};

}  // namespace kova::kovad
