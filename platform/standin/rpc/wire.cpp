#include "wire.h"

#include <algorithm>
#include <cstring>

namespace kova::wire {
namespace {

// AgentRegInfo is answered with a word, a name of 32 bytes and a pid; the other services of the daemon with a result.
constexpr Service kServices[] = {
    {"AgentRegInfo", Server::kDaemon, 44, 40, Marshalling::kPlain},
    {"KovaRestCycleTime", Server::kDaemon, 8, 4, Marshalling::kPlain},
    {"KovaAppSubscribe", Server::kDaemon, 8, 4, Marshalling::kPlain},
    {"KovadListProcesses", Server::kDaemon, 8, 8, Marshalling::kPlain},
    {"KovadListSubscriptions", Server::kDaemon, 8, 8, Marshalling::kPlain},
    {"KovaUpdateResourceInfo", Server::kProcess, 8, 4, Marshalling::kPlain},
    {"KovaGetSubscribe", Server::kProcess, 12, kSubscribePageHead, Marshalling::kSubscribePage},
};

constexpr Server other_side(Server side) {
    return side == Server::kDaemon ? Server::kProcess : Server::kDaemon;
}

bool is_name_character(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
}

bool is_service_name(std::string_view name) {
    return !name.empty() && name.size() < kServiceNameSize && std::ranges::all_of(name, is_name_character);
}

// Empty when the field is not a name with zeros behind it: what stands there must not travel on unseen.
std::string_view service_name(const char (&field)[kServiceNameSize]) {
    const std::string_view name(field, ::strnlen(field, kServiceNameSize));
    if (!is_service_name(name)) return {};
    const bool is_padded = std::all_of(field + name.size(), field + kServiceNameSize, [](char c) { return c == '\0'; });
    return is_padded ? name : std::string_view();
}

Fault check_fields(Kind kind, std::uint32_t call_number, std::uint32_t status) {
    if (kind != Kind::kRequest && kind != Kind::kResponse) return Fault::kKind;
    if (call_number == 0) return Fault::kCallNumber;
    return kind == Kind::kRequest && status != 0 ? Fault::kStatus : Fault::kNone;
}

}  // namespace

const char* text_of(Fault fault) {
    switch (fault) {
        case Fault::kNone:
            return "nothing wrong";
        case Fault::kTooShort:
            return "shorter than a header";
        case Fault::kTooLong:
            return "longer than a message may be";
        case Fault::kLength:
            return "payload not as long as the header says";
        case Fault::kKind:
            return "neither request nor response";
        case Fault::kCallNumber:
            return "call number out of order";
        case Fault::kStatus:
            return "request with a status";
        case Fault::kServiceName:
            return "no service name";
        case Fault::kNoSuchService:
            return "no such service";
        case Fault::kShortPayload:
            return "payload shorter than its service needs";
    }
    return "unknown fault";
}

Fault decode(std::span<const std::byte> bytes, Message* message) {
    if (bytes.size() < sizeof(Header)) return Fault::kTooShort;
    if (bytes.size() > kMessageLimit) return Fault::kTooLong;
    Header header;
    std::memcpy(&header, bytes.data(), sizeof header);
    if (header.payload_length != bytes.size() - sizeof header) return Fault::kLength;
    const auto kind = static_cast<Kind>(header.kind);
    if (const Fault fault = check_fields(kind, header.call_number, header.status); fault != Fault::kNone) return fault;
    const std::string_view copied_name = service_name(header.service);
    if (copied_name.empty()) return Fault::kServiceName;
    const auto* const name = reinterpret_cast<const char*>(bytes.data() + offsetof(Header, service));
    *message = {.kind = kind,
                .call_number = header.call_number,
                .status = header.status,
                .service = {name, copied_name.size()},
                .payload = bytes.subspan(sizeof header)};
    return Fault::kNone;
}

std::size_t encode(const Message& message, std::span<std::byte> out) {
    if (check_fields(message.kind, message.call_number, message.status) != Fault::kNone) return 0;
    if (!is_service_name(message.service) || message.payload.size() > kPayloadLimit) return 0;
    const std::size_t length = sizeof(Header) + message.payload.size();
    if (out.size() < length) return 0;
    Header header{.kind = static_cast<std::uint32_t>(message.kind),
                  .call_number = message.call_number,
                  .status = message.status,
                  .payload_length = static_cast<std::uint32_t>(message.payload.size()),
                  .service = {}};
    std::ranges::copy(message.service, header.service);
    std::memcpy(out.data(), &header, sizeof header);
    std::ranges::copy(message.payload, out.begin() + sizeof header);
    return length;
}

const Service* find_service(Server server, std::string_view name) {
    const auto* const found = std::ranges::find_if(
        kServices, [&](const Service& service) { return service.server == server && service.name == name; });
    return found != std::end(kServices) ? found : nullptr;
}

Fault check_service(const Message& message, Server receiver) {
    const bool is_request = message.kind == Kind::kRequest;
    const Service* const service = find_service(is_request ? receiver : other_side(receiver), message.service);
    if (service == nullptr) return Fault::kNoSuchService;
    // What failed may have nothing to say. Whatever it says is as long as it should be.
    if (!is_request && message.status != 0 && message.payload.empty()) return Fault::kNone;
    const std::uint32_t least = is_request ? service->least_request : service->least_response;
    return message.payload.size() < least ? Fault::kShortPayload : Fault::kNone;
}

std::size_t marshal_page(const SubscribePage& page, std::uint32_t wanted, std::span<std::byte> out) {
    if (page.count > std::min(wanted, kSubscribePageItems) || (page.count > 0 && page.items == nullptr)) return 0;
    const std::size_t item_bytes = page.count * kSubscribeItemBytes;
    if (out.size() < kSubscribePageHead + item_bytes) return 0;
    std::memcpy(out.data(), &page.result, sizeof page.result);
    std::memcpy(out.data() + sizeof page.result, &page.count, sizeof page.count);
    std::copy_n(page.items, item_bytes, out.data() + kSubscribePageHead);
    return kSubscribePageHead + item_bytes;
}

bool unmarshal_page(std::span<const std::byte> payload, PageView* page) {
    if (payload.size() < kSubscribePageHead) return false;
    PageView read;
    std::memcpy(&read.result, payload.data(), sizeof read.result);
    std::memcpy(&read.count, payload.data() + sizeof read.result, sizeof read.count);
    read.items = payload.subspan(kSubscribePageHead);
    if (read.count > kSubscribePageItems || read.items.size() != read.count * kSubscribeItemBytes) return false;
    *page = read;
    return true;
}

}  // namespace kova::wire
