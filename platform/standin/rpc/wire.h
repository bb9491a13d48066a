// What goes over the sockets between the daemon and the processes of a node, as bytes. No I/O here.
//
// A Unix socket of the kind SOCK_SEQPACKET carries messages whole and in order: each is one header and its payload, at
// most 64 KiB together, in host byte order. Both sides send requests over the one connection that the process makes,
// and answer the other's:
//
//     process                                         daemon
//        | connect ------------------------------------> |  reads pid, user and group from SO_PEERCRED
//        | request  1 AgentRegInfo --------------------> |  the pid in it must be the connection's own
//        | <--------------------------------- response 1 |
//        | request  2 KovaAppSubscribe ----------------> |
//        | <--------------------------------- response 2 |
//        | <------------ request  1 KovaUpdateResourceInfo |  as often as there is a new value
//        | response 1 ---------------------------------> |
//        | <------------------ request  2 KovaGetSubscribe |
//        | response 2 ---------------------------------> |
//
// Each side numbers its own requests from 1 on, upward; a response carries its request's number and service. Requests
// may be answered late and in another order. status is 0 in a request. In a response it is 0 when the service was
// carried out; else it says what became of it, and the payload may be empty.
//
// A message is checked in two steps: decode() for what every message must be, check_service() for what its service
// asks. Whoever gets one that fails, or a response to nothing it asked, or a request out of order
// (RequestOrder), closes the connection and does nothing else with it. There is no resynchronisation.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

namespace kova::wire {

enum class Kind : std::uint32_t { kRequest = 1, kResponse = 2 };

// With its terminator.
inline constexpr std::size_t kServiceNameSize = 32;

struct Header {
    std::uint32_t kind;
    std::uint32_t call_number;
    std::uint32_t status;
    std::uint32_t payload_length;
    char service[kServiceNameSize];  // zeros behind the name
};
static_assert(sizeof(Header) == 48);

inline constexpr std::size_t kMessageLimit = 64 * 1024;
inline constexpr std::size_t kPayloadLimit = kMessageLimit - sizeof(Header);

// A message taken apart. service and payload point into the bytes that it was decoded from.
struct Message {
    Kind kind = Kind::kRequest;
    std::uint32_t call_number = 0;
    std::uint32_t status = 0;
    std::string_view service;
    std::span<const std::byte> payload;
};

enum class Fault {
    kNone,
    kTooShort,       // no whole header
    kTooLong,        // beyond the limit
    kLength,         // the payload is not as long as the header says
    kKind,           // neither request nor response
    kCallNumber,     // 0, of a response nobody asked for, of a request out of order
    kStatus,         // a request with a status
    kServiceName,    // empty, not terminated, not a name, with something behind it
    kNoSuchService,  // not one that the receiver serves, or that it asked
    kShortPayload,   // shorter than the service needs
};
// For log lines: "payload shorter than its service needs".
[[nodiscard]] const char* text_of(Fault fault);

// Checks everything that does not depend on the service. The bytes are one message as it was received, whole.
[[nodiscard]] Fault decode(std::span<const std::byte> bytes, Message* message);

// Returns the number of bytes written, 0 when the message is none that decode() would take, or `out` is too small.
[[nodiscard]] std::size_t encode(const Message& message, std::span<std::byte> out);

// Who carries a service out.
enum class Server { kDaemon, kProcess };

// What a reply looks like on the wire.
enum class Marshalling {
    kPlain,          // as it stands in memory
    kSubscribePage,  // with the items that it points to, see below
};

struct Service {
    std::string_view name;
    Server server;
    std::uint32_t least_request;   // bytes of payload
    std::uint32_t least_response;  // likewise, when the status is 0
    Marshalling response_marshalling;
};

// Null for a name that is none of the server's.
[[nodiscard]] const Service* find_service(Server server, std::string_view name);

// Checks a decoded message against its service. `receiver` is the side that got it: it serves what it is asked and is
// answered what the other side serves.
[[nodiscard]] Fault check_service(const Message& message, Server receiver);

// Watches the numbers of one sender's requests.
class RequestOrder {
  public:
    [[nodiscard]] Fault take(std::uint32_t call_number) {
        if (call_number <= last_) return Fault::kCallNumber;
        last_ = call_number;
        return Fault::kNone;
    }

  private:
    std::uint32_t last_ = 0;
};

// The reply of KovaGetSubscribe as the service leaves it in memory.
struct SubscribePage {
    std::uint32_t count;
    std::uint32_t padding;
    const std::byte* items;  // count items one behind the other
    std::byte reserved[12];
    std::uint32_t result;
};
static_assert(sizeof(SubscribePage) == 32 && offsetof(SubscribePage, items) == 8 &&
              offsetof(SubscribePage, result) == 28);

// On the wire: result, count and that many items.
inline constexpr std::size_t kSubscribeItemBytes = 72;
inline constexpr std::uint32_t kSubscribePageItems = 20;
inline constexpr std::size_t kSubscribePageHead = 8;
inline constexpr std::size_t kSubscribePageLimit = kSubscribePageHead + kSubscribePageItems * kSubscribeItemBytes;

// `wanted` is how many items the request asked for: a page that claims more is not read. Returns the bytes written; 0
// when the page is wrong or `out` too small.
[[nodiscard]] std::size_t marshal_page(const SubscribePage& page, std::uint32_t wanted, std::span<std::byte> out);

struct PageView {
    std::uint32_t result = 0;
    std::uint32_t count = 0;
    std::span<const std::byte> items;
};
// False unless the payload is exactly a page.
[[nodiscard]] bool unmarshal_page(std::span<const std::byte> payload, PageView* page);

}  // namespace kova::wire
