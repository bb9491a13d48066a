// The daemon's books; see link_book.h.
#include "link_book.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <iterator>
#include <utility>

#include "daemon_log.h"
#include "link_lists.h"

namespace kova::kovad {
namespace {

constexpr std::string_view kRegister = "AgentRegInfo";
constexpr std::string_view kSetCycle = "KovaRestCycleTime";
constexpr std::string_view kSubscribe = "KovaAppSubscribe";
constexpr std::string_view kUpdate = "KovaUpdateResourceInfo";
constexpr std::string_view kGetSubscriptions = "KovaGetSubscribe";

constexpr std::uint32_t kDataPlaneCpu = 0;  // the one resource that can be subscribed to, and whose cycle can be set
constexpr std::uint32_t kAccepted = 0;
constexpr std::uint32_t kRefused = 1;

// What a process answers at most; one that says more than that is not believed.
constexpr std::size_t kMostSubscriptions = 1000;

constexpr char kForeignPid[] = "claims another process id than its own";

struct RegisterRequest {
    Name name;
    std::uint32_t pid;
    std::uint32_t type;
    std::uint8_t publisher;
    std::uint8_t zero[3];
};
static_assert(sizeof(RegisterRequest) == 44);

struct RegisterResponse {
    std::uint32_t reserved;
    Name name;
    std::uint32_t pid;
};
static_assert(sizeof(RegisterResponse) == 40);

// Both of the agent's requests about resources are two words.
struct TwoWords {
    std::uint32_t first;
    std::uint32_t second;
};

// The length was checked against the service before.
template <typename T>
T read(const wire::Message& message) {
    T value{};
    std::memcpy(&value, message.payload.data(), std::min(sizeof value, message.payload.size()));
    return value;
}

template <typename T>
std::span<const std::byte> bytes_of(const T& value) {
    return std::as_bytes(std::span(&value, 1));
}

std::string_view text_of(const Name& name) {
    return {name.data(), ::strnlen(name.data(), name.size())};
}

}  // namespace

void LinkBook::opened(LinkId link, std::uint32_t pid, Moment now) {
    const auto of_process = static_cast<std::size_t>(
        std::ranges::count_if(links_, [pid](const auto& entry) { return entry.second.pid == pid; }));
    if (links_.size() >= kMostLinks || of_process >= kMostLinksOfProcess) {
        actions_.close(link, pid, "is one connection too many");
        return;
    }
    LinkRecord& record = links_[link];
    record.pid = pid;
    record.since_utc_s = now.utc_s;
}

void LinkBook::received(LinkId link, std::span<const std::byte> bytes, Moment now) {
    const Entry entry = links_.find(link);
    if (entry == links_.end()) return;
    wire::Message message;
    wire::Fault fault = wire::decode(bytes, &message);
    if (fault == wire::Fault::kNone) fault = wire::check_service(message, wire::Server::kDaemon);
    const bool is_request = message.kind == wire::Kind::kRequest;
    if (fault == wire::Fault::kNone && is_request) fault = entry->second.order.take(message.call_number);
    if (fault != wire::Fault::kNone) {
        fail(entry, wire::text_of(fault));
    } else if (is_request) {
        take_request(entry, message, now);
    } else {
        take_response(entry, message, now);
    }
    answer_askers(now);
}

void LinkBook::closed(LinkId link, Moment now) {
    const Entry entry = links_.find(link);
    if (entry == links_.end()) return;
    if (entry->second.registration) {
        log(Level::kInfo, "{} [{}] has ended", text_of(entry->second.registration->name), entry->second.pid);
    }
    forget(entry);
    answer_askers(now);
}

void LinkBook::take_request(Entry entry, const wire::Message& message, Moment now) {
    if (message.service == kRegister) return register_process(entry, message, now);
    if (message.service == kSetCycle) return change_cycle(entry, message);
    if (message.service == kSubscribe) return subscribe(entry, message);
    if (message.service == kListProcesses) return list_processes(entry, message, now);
    if (message.service == kListSubscriptions) return list_subscriptions(entry, message, now);
    fail(entry, wire::text_of(wire::Fault::kNoSuchService));
}

void LinkBook::take_response(Entry entry, const wire::Message& message, Moment now) {
    LinkRecord& record = entry->second;
    if (record.update && record.update->call_number == message.call_number && message.service == kUpdate) {
        record.update.reset();
        if (const auto next = std::exchange(record.next_value, std::nullopt)) send_update(entry, *next, now);
        return;
    }
    if (record.query && record.query->waiting.call_number == message.call_number &&
        message.service == kGetSubscriptions) {
        return take_page(entry, message, now);
    }
    fail(entry, "answers what it was not asked");
}

void LinkBook::register_process(Entry entry, const wire::Message& message, Moment now) {
    auto request = read<RegisterRequest>(message);
    LinkRecord& record = entry->second;
    if (request.pid != record.pid) return fail(entry, kForeignPid);
    request.name.back() = '\0';
    close_older_links(entry);
    record.registration = Registration{
        .name = request.name, .type = request.type, .publisher = request.publisher != 0, .since_utc_s = now.utc_s};
    log(Level::kInfo, "{} [{}] registers, type {}{}", text_of(request.name), request.pid, request.type,
        request.publisher != 0 ? ", with subscribers" : "");
    const RegisterResponse response{.reserved = 0, .name = request.name, .pid = request.pid};
    respond(entry->first, message.call_number, kRegister, bytes_of(response));
    // It subscribed when another daemon ran, and will not say so again: ask.
    if (request.publisher != 0 && !record.query) ask_for_page(entry, now);
}

void LinkBook::change_cycle(Entry entry, const wire::Message& message) {
    const auto [cycle_ms, resource] = read<TwoWords>(message);
    const bool is_sane = resource == kDataPlaneCpu && cycle_ms >= kLeastMemoryCycleMs && cycle_ms <= kMostMemoryCycleMs;
    if (is_sane) actions_.set_memory_cycle(cycle_ms);
    // A change is told, not every request: nobody may fill the log by asking again and again.
    if (is_sane && std::exchange(memory_cycle_ms_, cycle_ms) != cycle_ms) {
        log(Level::kInfo, "process {} sets the memory cycle to {} ms", entry->second.pid, cycle_ms);
    }
    const std::uint32_t result = is_sane ? kAccepted : kRefused;
    respond(entry->first, message.call_number, kSetCycle, bytes_of(result));
}

void LinkBook::subscribe(Entry entry, const wire::Message& message) {
    const auto [resource, pid] = read<TwoWords>(message);
    if (pid != entry->second.pid) return fail(entry, kForeignPid);
    const std::uint32_t result = resource == kDataPlaneCpu ? kAccepted : kRefused;
    if (result == kAccepted) {
        close_older_links(entry);
        set_subscribed(entry->second);
    }
    respond(entry->first, message.call_number, kSubscribe, bytes_of(result));
}

void LinkBook::list_processes(Entry entry, const wire::Message& message, Moment now) {
    const std::uint64_t silent_since_ms = now.steady_ms - std::min(now.steady_ms, kSilentAfterMs);
    respond(entry->first, message.call_number, kListProcesses,
            process_page(links_, read<ListRequest>(message), silent_since_ms));
}

// The first page waits until every process has told its subscriptions, or for a moment; later pages are of that.
void LinkBook::list_subscriptions(Entry entry, const wire::Message& message, Moment now) {
    const auto from = read<ListRequest>(message);
    if (from.pid != 0) return answer_subscriptions(entry->first, message.call_number, from);
    // Who asks again while it waits has what is known by now: what is to be answered later must not pile up.
    for (Asker& asker : askers_) {
        if (asker.link == entry->first) asker.awaited.clear();
    }
    answer_askers(now);
    Asker asker{.link = entry->first,
                .call_number = message.call_number,
                .awaited = {},
                .deadline_ms = now.steady_ms + kGatherPatienceMs};
    for (Entry other = links_.begin(); other != links_.end(); ++other) {
        const LinkRecord& record = other->second;
        const bool has_subscribers = record.is_subscribed || (record.registration && record.registration->publisher);
        if (!has_subscribers) continue;
        asker.awaited.insert(other->first);
        if (!record.query) ask_for_page(other, now);
    }
    askers_.push_back(std::move(asker));
}

void LinkBook::publish(std::uint32_t percent, Moment now) {
    for (Entry entry = links_.begin(); entry != links_.end(); ++entry) {
        if (!entry->second.is_subscribed) continue;
        if (entry->second.update) {
            entry->second.next_value = percent;
        } else {
            send_update(entry, percent, now);
        }
    }
}

void LinkBook::send_update(Entry entry, std::uint32_t percent, Moment now) {
    const TwoWords update{.first = kDataPlaneCpu, .second = percent};
    request(entry, kUpdate, bytes_of(update), entry->second.update.emplace(), now);
}

void LinkBook::ask_for_page(Entry entry, Moment now) {
    LinkRecord& record = entry->second;
    if (!record.query) record.query.emplace();
    record.subscriptions_fresh = false;
    const std::uint32_t page[] = {0, static_cast<std::uint32_t>(record.query->items.size()), wire::kSubscribePageItems};
    request(entry, kGetSubscriptions, std::as_bytes(std::span(page)), record.query->waiting, now);
}

void LinkBook::take_page(Entry entry, const wire::Message& message, Moment now) {
    wire::PageView page;
    if (message.status != 0) return end_query(entry, false);
    if (!wire::unmarshal_page(message.payload, &page)) return fail(entry, "answers with a page that is none");
    if (page.result != 0) return end_query(entry, false);
    std::vector<SubscribeInfo>& items = entry->second.query->items;
    for (std::uint32_t i = 0; i < page.count; ++i) {
        SubscribeInfo& item = items.emplace_back();
        std::memcpy(&item, page.items.data() + i * sizeof item, sizeof item);
        item.module.back() = item.resource.back() = '\0';
    }
    if (page.count == wire::kSubscribePageItems && items.size() < kMostSubscriptions) return ask_for_page(entry, now);
    end_query(entry, true);
}

// A process that cannot tell its subscriptions may have some: an update that nobody wants does no harm there.
void LinkBook::end_query(Entry entry, bool is_complete) {
    LinkRecord& record = entry->second;
    if (is_complete) {
        record.subscriptions = std::move(record.query->items);
        record.subscriptions_fresh = true;
    }
    record.query.reset();
    if (!is_complete || !record.subscriptions.empty()) set_subscribed(record);
    for (Asker& asker : askers_) asker.awaited.erase(entry->first);
}

std::optional<std::uint64_t> LinkBook::deadline_ms() const {
    if (askers_.empty()) return std::nullopt;
    return std::ranges::min_element(askers_, {}, &Asker::deadline_ms)->deadline_ms;
}

void LinkBook::expire(Moment now) {
    answer_askers(now);
}

void LinkBook::answer_askers(Moment now) {
    std::erase_if(askers_, [&](const Asker& asker) {
        if (!asker.awaited.empty() && asker.deadline_ms > now.steady_ms) return false;
        answer_subscriptions(asker.link, asker.call_number, {.pid = 0, .index = 0});
        return true;
    });
}

void LinkBook::answer_subscriptions(LinkId link, std::uint32_t call_number, const ListRequest& from) {
    respond(link, call_number, kListSubscriptions, subscription_page(links_, from));
}

void LinkBook::request(Entry entry, std::string_view service, std::span<const std::byte> payload, Waiting& waiting,
                       Moment now) {
    waiting = {.call_number = ++entry->second.last_call, .since_ms = now.steady_ms};
    std::array<std::byte, 128> bytes{};
    const wire::Message message{.kind = wire::Kind::kRequest,
                                .call_number = waiting.call_number,
                                .status = 0,
                                .service = service,
                                .payload = payload};
    const std::size_t length = wire::encode(message, bytes);
    actions_.send(entry->first, std::span(bytes).first(length));
}

void LinkBook::respond(LinkId link, std::uint32_t call_number, std::string_view service,
                       std::span<const std::byte> payload) {
    std::vector<std::byte> bytes(sizeof(wire::Header) + payload.size());
    const wire::Message message{
        .kind = wire::Kind::kResponse, .call_number = call_number, .status = 0, .service = service, .payload = payload};
    bytes.resize(wire::encode(message, bytes));
    actions_.send(link, bytes);
}

void LinkBook::set_subscribed(LinkRecord& record) {
    if (!record.is_subscribed) log(Level::kInfo, "process {} subscribes", record.pid);
    record.is_subscribed = true;
    update_monitored();
}

// A process speaks over one connection. An older one is what it left behind, and would bring everything twice.
void LinkBook::close_older_links(Entry entry) {
    for (Entry other = links_.begin(); other != links_.end();) {
        const Entry at = other++;
        const bool is_in_use = at->second.registration || at->second.is_subscribed;
        if (at != entry && at->second.pid == entry->second.pid && is_in_use) fail(at, "is replaced by a newer one");
    }
}

void LinkBook::fail(Entry entry, std::string_view why) {
    actions_.close(entry->first, entry->second.pid, why);
    forget(entry);
}

void LinkBook::forget(Entry entry) {
    const LinkId link = entry->first;
    links_.erase(entry);
    std::erase_if(askers_, [link](const Asker& asker) { return asker.link == link; });
    for (Asker& asker : askers_) asker.awaited.erase(link);
    update_monitored();
}

void LinkBook::update_monitored() {
    const bool monitored = std::ranges::any_of(links_, [](const auto& entry) { return entry.second.is_subscribed; });
    if (monitored != is_monitored_) actions_.set_monitored(monitored);
    is_monitored_ = monitored;
}

}  // namespace kova::kovad
