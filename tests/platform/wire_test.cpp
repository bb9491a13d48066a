// Messages between daemon and processes: what is taken, what is not. That no bytes do harm is fuzzed.
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

TEST(Wire, TakesWhatItSendsAndNoDamage) {
    const Bytes payload(44, std::byte{0x5A});
    Bytes good(kMessageLimit);
    good.resize(encode(
        {.kind = Kind::kRequest, .call_number = 7, .status = 0, .service = "AgentRegInfo", .payload = payload}, good));
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
