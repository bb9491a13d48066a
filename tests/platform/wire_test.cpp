// Messages between daemon and processes: what is taken, what is not.
#include "wire.h"

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "rpc_address.h"

namespace kova::wire {
namespace {

using Bytes = std::vector<std::byte>;

Bytes message(Kind kind, std::string_view service, std::size_t payload_size, std::uint32_t status = 0) {
    const Bytes payload(payload_size, std::byte{0x5A});
    Bytes out(kMessageLimit);
    out.resize(encode({.kind = kind, .call_number = 7, .status = status, .service = service, .payload = payload}, out));
    return out;
}

Fault fault_of(std::span<const std::byte> bytes, Server receiver) {
    Message decoded;
    const Fault fault = decode(bytes, &decoded);
    return fault != Fault::kNone ? fault : check_service(decoded, receiver);
}

TEST(Wire, TakesWhatItSendsAndNoDamage) {
    const Bytes good = message(Kind::kRequest, "AgentRegInfo", 44);
    ASSERT_EQ(92U, good.size());
    Message decoded;
    ASSERT_EQ(Fault::kNone, decode(good, &decoded));
    EXPECT_EQ(Kind::kRequest, decoded.kind);
    EXPECT_EQ(7U, decoded.call_number);
    EXPECT_EQ("AgentRegInfo", decoded.service);
    EXPECT_EQ(44U, decoded.payload.size());

    const struct {
        const char* name;
        std::function<void(Bytes&)> damage;
        Fault expected;
    } cases[] = {
        {"cut in the header", [](Bytes& b) { b.resize(47); }, Fault::kTooShort},
        {"cut in the payload", [](Bytes& b) { b.pop_back(); }, Fault::kLength},
        {"longer than it says", [](Bytes& b) { b.emplace_back(); }, Fault::kLength},
        {"length beyond all", [](Bytes& b) { std::memset(&b[12], 0xFF, 4); }, Fault::kLength},
        {"one byte beyond the limit", [](Bytes& b) { b.resize(kMessageLimit + 1); }, Fault::kTooLong},
        {"kind 0", [](Bytes& b) { b[0] = {}; }, Fault::kKind},
        {"kind 3", [](Bytes& b) { b[0] = std::byte{3}; }, Fault::kKind},
        {"call 0", [](Bytes& b) { b[4] = {}; }, Fault::kCallNumber},
        {"status in a request", [](Bytes& b) { b[8] = std::byte{1}; }, Fault::kStatus},
        {"no name", [](Bytes& b) { b[16] = {}; }, Fault::kServiceName},
        {"a path", [](Bytes& b) { b[17] = std::byte{'/'}; }, Fault::kServiceName},
        {"not terminated", [](Bytes& b) { std::memset(&b[16], 'A', 32); }, Fault::kServiceName},
        {"something behind the name", [](Bytes& b) { b[47] = std::byte{'A'}; }, Fault::kServiceName},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Bytes damaged = good;
        c.damage(damaged);
        EXPECT_EQ(c.expected, decode(damaged, &decoded)) << text_of(decode(damaged, &decoded));
    }
}

TEST(Wire, FillsOneMessageToTheLimit) {
    Message decoded;
    const Bytes full = message(Kind::kRequest, "S", kPayloadLimit);
    EXPECT_EQ(kMessageLimit, full.size());
    EXPECT_EQ(Fault::kNone, decode(full, &decoded));
    EXPECT_TRUE(message(Kind::kRequest, "S", kPayloadLimit + 1).empty());
    EXPECT_TRUE(message(Kind::kRequest, std::string(32, 'S'), 1).empty());
    EXPECT_TRUE(message(Kind::kRequest, "S", 1, 5).empty());
    Bytes small(48);
    EXPECT_EQ(0U, encode({.call_number = 1, .service = "S", .payload = full}, small));
}

TEST(Wire, KnowsWhoServesWhat) {
    const struct {
        const char* name;
        Bytes bytes;
        Server receiver;
        Fault expected;
    } cases[] = {
        {"asks the daemon", message(Kind::kRequest, "AgentRegInfo", 44), Server::kDaemon, Fault::kNone},
        {"asks a process for the daemon's", message(Kind::kRequest, "AgentRegInfo", 44), Server::kProcess,
         Fault::kNoSuchService},
        {"short question", message(Kind::kRequest, "AgentRegInfo", 43), Server::kDaemon, Fault::kShortPayload},
        {"long answer", message(Kind::kResponse, "AgentRegInfo", 400), Server::kProcess, Fault::kNone},
        {"short answer", message(Kind::kResponse, "AgentRegInfo", 39), Server::kProcess, Fault::kShortPayload},
        {"failed, nothing to say", message(Kind::kResponse, "AgentRegInfo", 0, 9), Server::kProcess, Fault::kNone},
        {"failed, half an answer", message(Kind::kResponse, "AgentRegInfo", 39, 9), Server::kProcess,
         Fault::kShortPayload},
        {"answer from the wrong side", message(Kind::kResponse, "KovaUpdateResourceInfo", 4), Server::kProcess,
         Fault::kNoSuchService},
        {"update", message(Kind::kRequest, "KovaUpdateResourceInfo", 8), Server::kProcess, Fault::kNone},
        {"prefix of a name", message(Kind::kRequest, "KovaUpdate", 8), Server::kProcess, Fault::kNoSuchService},
    };
    for (const auto& c : cases) EXPECT_EQ(c.expected, fault_of(c.bytes, c.receiver)) << c.name;
    RequestOrder order;
    EXPECT_EQ(Fault::kNone, order.take(5));
    EXPECT_EQ(Fault::kCallNumber, order.take(5));
}

TEST(Wire, ReadsNoPageThatClaimsTooMuch) {
    const Bytes items(20 * kSubscribeItemBytes, std::byte{7});
    SubscribePage page{.count = 20, .padding = 0, .items = items.data(), .reserved = {}, .result = 9};
    Bytes out(kSubscribePageLimit);
    EXPECT_EQ(out.size(), marshal_page(page, 20, out));
    PageView view;
    EXPECT_TRUE(unmarshal_page(out, &view) && view.result == 9 && view.count == 20);
    EXPECT_EQ(0U, marshal_page(page, 19, out)) << "more than asked for";
    page.count = 21;
    EXPECT_EQ(0U, marshal_page(page, 0xFFFFFFFF, out)) << "more than a page";
    page = {.count = 1, .padding = 0, .items = nullptr, .reserved = {}, .result = 0};
    EXPECT_EQ(0U, marshal_page(page, 1, out)) << "no items";
}

TEST(RpcAddress, LeadsIntoTheRuntimeFolder) {
    EXPECT_EQ("kovad_server", service_of_address(kDaemonAddress));
    for (const char* wrong : {"", "domain://peer:kovad", "domain://peer::1", "domain://peer:a/b:1",
                              "domain://peer:..:1", "domain://peer:a:", "domain://peer:a:x", "x:domain://peer:a:1"}) {
        EXPECT_EQ("", service_of_address(wrong)) << wrong;
    }
    sockaddr_un socket{};
    ASSERT_EQ(0, ::unsetenv("KOVA_RUNTIME_DIR"));
    ASSERT_TRUE(socket_of_address(kDaemonAddress, &socket));
    EXPECT_STREQ("/run/kova/kovad_server", socket.sun_path);
    ASSERT_EQ(0, ::setenv("KOVA_RUNTIME_DIR", std::string(95, 'd').c_str(), 1));
    EXPECT_FALSE(socket_of_address(kDaemonAddress, &socket));
    ASSERT_EQ(0, ::setenv("KOVA_RUNTIME_DIR", std::string(94, 'd').c_str(), 1));
    EXPECT_TRUE(socket_of_address(kDaemonAddress, &socket));
}

}  // namespace
}  // namespace kova::wire
