// The daemon's books, with processes that connect, say anything, and end in any order.
//
// Input: a row of steps, each a byte and what it takes. Messages are made whole, so that the search gets behind the
// decoder; one kind of step sends bytes as they are.
//
// Beyond what the sanitizers see: nothing goes to a connection that has ended; every message that the daemon sends is
// one that a process would take; no process has more than two requests to answer.
#include "link_book.h"

#include <array>
#include <map>
#include <string_view>
#include <vector>

#include "daemon_log.h"
#include "fuzz_input.h"

namespace kova::kovad {

// Quiet: the text was formatted, and that is what may go wrong.
void log_line(Level, std::string_view) {}

}  // namespace kova::kovad

namespace kova::fuzz {
namespace {

using kovad::LinkId;

constexpr std::array<std::string_view, 8> kServices = {
    "AgentRegInfo",     "KovaRestCycleTime",  "KovaAppSubscribe",       "KovaUpdateResourceInfo",
    "KovaGetSubscribe", "KovadListProcesses", "KovadListSubscriptions", "KovaNothing"};
constexpr std::uint32_t kPids = 4;

class Node final : kovad::LinkActions {
  public:
    void step(Input& input) {
        const auto choice = input.number<std::uint8_t>();
        const LinkId link = 1 + choice / 16 % kServices.size();
        switch (choice % 8) {
            case 0:
                connect();
                break;
            case 1:
                waiting_.erase(link);
                book_.closed(link, now_);
                break;
            case 2:
                book_.publish(input.number<std::uint8_t>(), now_);
                break;
            case 3:
                now_.steady_ms += input.number<std::uint16_t>();
                book_.expire(now_);
                break;
            case 4:
                receive(link, input.take(input.number<std::uint8_t>()));
                break;
            default:
                say(link, input, choice % 2 == 0 ? wire::Kind::kRequest : wire::Kind::kResponse);
        }
    }

  private:
    void connect() {
        ++last_link_;
        waiting_[last_link_] = 0;
        book_.opened(last_link_, 1 + static_cast<std::uint32_t>(last_link_ % kPids), now_);
    }
    void receive(LinkId link, Bytes bytes) {
        // A buffer of its own, so that a byte too much is seen.
        const std::vector<std::uint8_t> copy(bytes.begin(), bytes.end());
        book_.received(link, std::as_bytes(std::span(copy)), now_);
    }
    void say(LinkId link, Input& input, wire::Kind kind) {
        const std::string_view service = kServices[input.number<std::uint8_t>() % kServices.size()];
        const auto call_number = input.number<std::uint8_t>();
        const Bytes payload = input.take(input.number<std::uint16_t>() % 2048);
        std::vector<std::byte> bytes(sizeof(wire::Header) + payload.size());
        bytes.resize(wire::encode({.kind = kind,
                                   .call_number = call_number,
                                   .status = kind == wire::Kind::kResponse && payload.empty() ? 1U : 0U,
                                   .service = service,
                                   .payload = std::as_bytes(payload)},
                                  bytes));
        // An answer to what was asked last is one less to wait for, if it is taken.
        const auto open = waiting_.find(link);
        if (kind == wire::Kind::kResponse && open != waiting_.end() && open->second > 0) --open->second;
        book_.received(link, bytes, now_);
    }

    void send(LinkId link, std::span<const std::byte> bytes) override {
        KOVA_EXPECT(waiting_.contains(link));
        wire::Message message;
        KOVA_EXPECT(wire::decode(bytes, &message) == wire::Fault::kNone);
        KOVA_EXPECT(wire::check_service(message, wire::Server::kProcess) == wire::Fault::kNone);
        if (message.kind == wire::Kind::kRequest) KOVA_EXPECT(++waiting_[link] <= 2);
    }
    void close(LinkId link, std::uint32_t, std::string_view) override { KOVA_EXPECT(waiting_.erase(link) == 1); }
    void set_memory_cycle(std::uint32_t cycle_ms) override {
        KOVA_EXPECT(cycle_ms >= kovad::kLeastMemoryCycleMs && cycle_ms <= kovad::kMostMemoryCycleMs);
    }
    void set_monitored(bool monitored) override {
        KOVA_EXPECT(monitored != is_monitored_);
        is_monitored_ = monitored;
    }

    kovad::LinkBook book_{*this};
    kovad::Moment now_{.steady_ms = 1, .utc_s = 1};
    std::map<LinkId, int> waiting_;  // requests that the process has to answer, by open link
    LinkId last_link_ = 0;
    bool is_monitored_ = false;
};

}  // namespace

void run(Input& input) {
    Node node;
    while (!input.is_empty()) node.step(input);
}

}  // namespace kova::fuzz
