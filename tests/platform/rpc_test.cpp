// The RPC framework against a daemon in the hands of the test.
#include <fcntl.h>
#include <sys/wait.h>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <filesystem>
#include <functional>
#include <mutex>
#include <sstream>

#include <gtest/gtest.h>

#include "kova_platform/rpc.h"
#include "support/covered_file.h"
#include "support/event_thread.h"
#include "support/log_recorder.h"
#include "support/test_daemon.h"

namespace kova::test {
namespace {

using wire::Kind;

// What handlers were told, in order: "1 rrrr", "event 0".
class Events {
  public:
    void add(const std::string& event) {
        const std::lock_guard lock(mutex_);
        events_.push_back(event);
        changed_.notify_all();
    }
    std::string next() {
        std::unique_lock lock(mutex_);
        if (!changed_.wait_for(lock, std::chrono::milliseconds(kLimitMs), [&] { return !events_.empty(); })) {
            return "nothing";
        }
        std::string event = events_.front();
        events_.pop_front();
        return event;
    }
    std::size_t count() {
        const std::lock_guard lock(mutex_);
        return events_.size();
    }
    void clear() {
        const std::lock_guard lock(mutex_);
        events_.clear();
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<std::string> events_;
};

Events g_events;
std::function<void()> g_in_handler;  // called on the event thread, before the response is noted
std::function<void()> g_in_service;  // called on the service thread

std::string hex(std::uint64_t number) {
    std::ostringstream text;
    text << std::hex << number;
    return text.str();
}

void on_response(std::uint64_t status, std::uintptr_t, void* response, void*) {
    if (g_in_handler) g_in_handler();
    const char* const text = static_cast<const char*>(response);
    g_events.add(hex(status) + (text != nullptr ? " " + std::string(text, 4) : ""));
}

void on_link(std::int32_t event, const char* service, const char* address) {
    EXPECT_STREQ("kovad_server", service);
    EXPECT_STREQ(wire::kDaemonAddress, address);
    g_events.add("event " + std::to_string(event));
}

KovaVellClient* make_client() {
    return KovaCreateVellClient("tester", wire::kDaemonAddress, {2, 30}, on_link);
}

std::uint32_t call(KovaVellClient* client) {
    const std::string request(44, 'q');
    const KovaRpcCallback callback{on_response, nullptr};
    return ZIB_ConnRpcCall(client, "AgentRegInfo", request.data(), 44, &callback, nullptr);
}

constexpr char kGood[] = "1 rrrr";
const std::string kLost = hex(std::uint64_t{KOVA_RPC_LINK_LOST} << 32);

class Rpc : public testing::Test {
  protected:
    void SetUp() override {
        log_recorder().clear();
        client_ = make_client();
    }
    // The next test finds no connection, and no handler that is still to come.
    void TearDown() override {
        g_in_handler = nullptr;
        daemon_.stop();
        peer_.close();
        KovaVellClient* const last = make_client();
        EXPECT_EQ(KOVA_RPC_NO_DAEMON, call(last));
        KovaDestroyVellClientHandle(last);
        KovaDestroyVellClientHandle(client_);
        let_event_thread_run();
        g_events.clear();
    }

    void connect() {
        ASSERT_EQ(0U, call(client_));
        peer_ = daemon_.accept();
        peer_.answer();
        EXPECT_EQ("event 1", g_events.next());
        EXPECT_EQ(kGood, g_events.next());
    }

    TestDaemon daemon_;
    Peer peer_;
    KovaVellClient* client_ = nullptr;
};

TEST_F(Rpc, ClosesTheConnectionOnWhatIsNoMessage) {
    const std::string answer(40, 'r');
    const struct {
        const char* name;
        std::string bytes;
    } cases[] = {
        {"noise", "noise"},
        {"oversized", std::string(wire::kMessageLimit + 1, 'x')},
        {"cut", Peer::bytes_of(Kind::kResponse, 2, "AgentRegInfo", answer).substr(0, 60)},
        {"short answer", Peer::bytes_of(Kind::kResponse, 2, "AgentRegInfo", std::string(39, 'r'))},
        {"answer to another service", Peer::bytes_of(Kind::kResponse, 2, "KovaAppSubscribe", answer)},
        {"answer to nothing", Peer::bytes_of(Kind::kResponse, 3, "AgentRegInfo", answer)},
        {"answer a second time", Peer::bytes_of(Kind::kResponse, 1, "AgentRegInfo", answer)},
        {"unknown service", Peer::bytes_of(Kind::kRequest, 1, "RPC_IdlMsgDestroy", answer)},
        {"short request", Peer::bytes_of(Kind::kRequest, 1, "KovaUpdateResourceInfo", "1234567")},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        log_recorder().clear();
        connect();
        ASSERT_EQ(0U, call(client_));
        wire::Message asked;
        ASSERT_TRUE(peer_.receive(&asked));
        peer_.send_bytes(c.bytes);
        EXPECT_EQ(kLost, g_events.next());
        EXPECT_EQ("event 0", g_events.next());
        EXPECT_FALSE(peer_.receive(&asked));
        EXPECT_EQ(1U, log_recorder().messages().size());
    }
}

TEST_F(Rpc, DestroysClientsAnywhere) {
    connect();
    // Inside their own handler.
    g_in_handler = [this] { KovaDestroyVellClientHandle(std::exchange(client_, nullptr)); };
    ASSERT_EQ(0U, call(client_));
    peer_.answer();
    EXPECT_EQ(kGood, g_events.next());

    // By a caller that holds the lock which the handler waits for, while another response is under way.
    client_ = make_client();
    std::mutex held;
    Events entered;
    g_in_handler = [&] {
        entered.add("in");
        const std::lock_guard lock(held);
    };
    {
        const std::lock_guard lock(held);
        ASSERT_EQ(0U, call(client_));
        ASSERT_EQ(0U, call(client_));
        peer_.answer();
        peer_.answer();
        EXPECT_EQ("in", entered.next());
        KovaDestroyVellClientHandle(std::exchange(client_, nullptr));
    }
    EXPECT_EQ(kGood, g_events.next());
    g_in_handler = nullptr;
    client_ = make_client();
    ASSERT_EQ(0U, call(client_));
    peer_.answer();
    EXPECT_EQ(kGood, g_events.next());
    EXPECT_EQ(0U, entered.count());
}

TEST_F(Rpc, CarriesOutWhatTheDaemonAsks) {
    connect();
    // While a module's hook blocks, responses come all the same.
    Events proceed;
    g_in_service = [&] { EXPECT_EQ("go", proceed.next()); };
    peer_.send(Kind::kRequest, 1, "KovaUpdateResourceInfo", "typeVALU");
    ASSERT_EQ(0U, call(client_));
    peer_.answer();
    EXPECT_EQ(kGood, g_events.next());
    proceed.add("go");
    wire::Message reply;
    ASSERT_TRUE(peer_.receive(&reply));
    EXPECT_EQ(Kind::kResponse, reply.kind);
    EXPECT_EQ(1U, reply.call_number);
    EXPECT_EQ(0, std::memcmp("VALU", reply.payload.data(), 4));
    g_in_service = nullptr;

    const struct {
        std::uint32_t wanted;
        std::uint32_t status;
        std::size_t bytes;
    } pages[] = {{3, 0, 8 + 3 * 72}, {0, 0, 8}, {21, 0xFFFFFFFF, 8}, {99, KOVA_RPC_INVALID, 0}};
    std::uint32_t number = 1;
    for (const auto& page : pages) {
        SCOPED_TRACE(page.wanted);
        std::string request(12, '\0');
        std::memcpy(&request[8], &page.wanted, 4);
        peer_.send(Kind::kRequest, ++number, "KovaGetSubscribe", request);
        ASSERT_TRUE(peer_.receive(&reply));
        EXPECT_EQ(page.status, reply.status);
        EXPECT_EQ(page.bytes, reply.payload.size());
    }
}

TEST_F(Rpc, NeitherWaitsNorGrowsWhileTheDaemonIsStopped) {
    ASSERT_EQ(0U, call(client_));
    peer_ = daemon_.accept();
    std::size_t accepted = 1;
    while (call(client_) == 0 && accepted < 100000) ++accepted;
    EXPECT_EQ(4096U, accepted);
    EXPECT_EQ(KOVA_RPC_BUSY, call(client_));
    EXPECT_EQ("event 1", g_events.next());
    for (std::size_t i = 0; i < accepted; ++i) {
        ASSERT_NO_FATAL_FAILURE(peer_.answer());
        ASSERT_EQ(kGood, g_events.next());
    }
    EXPECT_EQ(0U, call(client_));
}

TEST_F(Rpc, StartsAfreshInAForkedChild) {
#if defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "ThreadSanitizer ends a forked child that makes threads";
#endif
    connect();
    const pid_t child = ::fork();
    if (child == 0) {
        for (const int fd : {0, 1, 2}) ::close(fd);
        if (call(client_) != 0 || g_events.next() != "event 1" || g_events.next() != kGood) ::_exit(1);
        for (const int fd : {0, 1, 2}) {
            if (::fcntl(fd, F_GETFD) != -1) ::_exit(2);
        }
        ::_exit(0);
    }
    Peer of_child = daemon_.accept();
    EXPECT_EQ(child, of_child.pid());
    of_child.answer();
    int status = -1;
    ASSERT_EQ(child, ::waitpid(child, &status, 0));
    EXPECT_EQ(0, status);
    ASSERT_EQ(0U, call(client_));
    peer_.answer();
    EXPECT_EQ(kGood, g_events.next());
}

TEST_F(Rpc, LeavesSignalsToTheProgram) {
    ASSERT_EQ(0U, KovaAgentLinkInit(1));
    int found = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        const std::string status = read_file(task.path() / "status");
        if (status.find("Name:\tkova_") != 0) continue;
        ++found;
        const std::uint64_t blocked = std::stoull(status.substr(status.find("SigBlk:") + 7), nullptr, 16);
        for (const int number : {SIGTERM, SIGALRM, SIGCHLD, SIGPROF}) EXPECT_NE(0U, blocked >> (number - 1) & 1);
        for (const int number : {SIGSEGV, SIGBUS, SIGFPE, SIGSYS}) EXPECT_EQ(0U, blocked >> (number - 1) & 1);
    }
    EXPECT_EQ(2, found);
}

}  // namespace
}  // namespace kova::test

// The services of this program, found by their names.
extern "C" {

KOVA_API std::uint32_t KovaUpdateResourceInfo(const char* in, void** out) {
    if (kova::test::g_in_service) kova::test::g_in_service();
    *out = RPC_IdlMsgCreate(4, 0, "KovaUpdateResourceInfo");
    std::memcpy(*out, in + 4, 4);
    return 0;
}

KOVA_API void KovaUpdateResourceInfo_free(void* reply) {
    RPC_IdlMsgDestroy(reply, g_uiVellModuleId, "KovaUpdateResourceInfo_free");
}

KOVA_API std::uint32_t KovaGetSubscribe(const std::uint32_t* in, void** out) {
    auto* const page = new kova::wire::SubscribePage{};
    *out = page;
    page->result = 0xFFFFFFFF;
    const std::uint32_t wanted = in[2];
    if (wanted == 21) return 0xFFFFFFFF;
    page->items = new std::byte[20 * 72]{};
    page->count = wanted;  // asked for 99 it claims more than it has
    page->result = 0;
    return 0;
}

KOVA_API void KovaGetSubscribe_free(void* reply) {
    auto* const page = static_cast<kova::wire::SubscribePage*>(reply);
    delete[] page->items;
    delete page;
}

}  // extern "C"
