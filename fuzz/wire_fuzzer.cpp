// Messages between daemon and processes, with anything in them.
//
// Input: one message as it comes from a socket. Both sides look at it, and its payload is taken for a page too.
//
// Beyond what the sanitizers see: what is taken can be sent again and is the same bytes, so nothing in a message goes
// unread; a service is a row of the table and has the payload that it needs.
#include <algorithm>
#include <string>
#include <vector>

#include "fuzz_input.h"
#include "rpc_address.h"
#include "wire.h"

namespace kova::fuzz {
namespace {

using wire::Fault;
using wire::Server;

void expect_same_when_sent_again(const wire::Message& message, std::span<const std::byte> bytes) {
    std::vector<std::byte> again(bytes.size());
    KOVA_EXPECT(wire::encode(message, again) == bytes.size());
    KOVA_EXPECT(std::ranges::equal(again, bytes));
    again.pop_back();
    KOVA_EXPECT(wire::encode(message, again) == 0);
}

void expect_row_of_table(const wire::Message& message, Server receiver) {
    if (wire::check_service(message, receiver) != Fault::kNone) return;
    const bool is_request = message.kind == wire::Kind::kRequest;
    const Server other = receiver == Server::kDaemon ? Server::kProcess : Server::kDaemon;
    const wire::Service* const service = wire::find_service(is_request ? receiver : other, message.service);
    KOVA_EXPECT(service != nullptr);
    const std::size_t least = is_request ? service->least_request : service->least_response;
    const bool may_be_empty = !is_request && message.status != 0;
    KOVA_EXPECT(message.payload.size() >= least || (may_be_empty && message.payload.empty()));
}

void expect_whole_page(std::span<const std::byte> payload) {
    wire::PageView view;
    if (!wire::unmarshal_page(payload, &view)) return;
    KOVA_EXPECT(view.items.size() == view.count * wire::kSubscribeItemBytes);
    const wire::SubscribePage page{
        .count = view.count, .padding = 0, .items = view.items.data(), .reserved = {}, .result = view.result};
    std::vector<std::byte> again(payload.size());
    KOVA_EXPECT(wire::marshal_page(page, view.count, again) == payload.size());
    KOVA_EXPECT(std::ranges::equal(again, payload));
}

void look_at_message(std::span<const std::byte> bytes) {
    expect_whole_page(bytes);
    wire::Message message;
    if (wire::decode(bytes, &message) != Fault::kNone) return;
    expect_same_when_sent_again(message, bytes);
    for (const Server receiver : {Server::kDaemon, Server::kProcess}) expect_row_of_table(message, receiver);
    expect_whole_page(message.payload);
}

void look_at_address(const std::string& address) {
    sockaddr_un socket;
    if (!wire::socket_of_address(address, &socket)) return;
    KOVA_EXPECT(std::string(socket.sun_path) == "/run/kova/" + std::string(wire::service_of_address(address)));
}

}  // namespace

void run(Input& input) {
    // A buffer of its own, so that a byte too much is seen.
    const std::vector<std::uint8_t> bytes(input.rest().begin(), input.rest().end());
    look_at_message(std::as_bytes(std::span(bytes)));
    look_at_address({bytes.begin(), bytes.end()});
}

}  // namespace kova::fuzz
