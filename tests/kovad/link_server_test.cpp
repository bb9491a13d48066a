// The daemon's socket: processes that register, subscribe, stop, lie and die.
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>

#include <optional>

#include "kovad/daemon_process.h"
#include "kovad/wire_peer.h"

namespace kova::test {
namespace {

constexpr char kSocket[] = "/run/kova/kovad_server";
constexpr char kFast[] = "--data-plane-process-cycle 10";

// A connection of this process, as its framework would have one.
class Peer {
  public:
    Peer() : socket_(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
        std::ranges::copy(kSocket, address.sun_path);
        EXPECT_EQ(0, ::connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address));
    }
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;
    ~Peer() { ::close(socket_); }

    [[nodiscard]] bool send(const Bytes& bytes) const {
        return ::send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
    }
    void request(std::string_view service, const Bytes& payload) {
        EXPECT_TRUE(send(message(wire::Kind::kRequest, ++calls_, service, payload)));
    }
    // The next message of that service, which `buffer_` then holds; nothing when the connection ends before.
    std::optional<wire::Message> next(std::string_view service) {
        for (ssize_t length = 0; (length = receive()) > 0;) {
            wire::Message found;
            const auto bytes = std::span(buffer_).first(static_cast<std::size_t>(length));
            EXPECT_EQ(wire::Fault::kNone, wire::decode(bytes, &found));
            if (found.service == service) return found;
        }
        return std::nullopt;
    }
    void enroll(std::string_view name) {
        const auto pid = static_cast<std::uint32_t>(::getpid());
        request("AgentRegInfo", registration(name, pid));
        EXPECT_TRUE(next("AgentRegInfo"));
        request("KovaAppSubscribe", words(0, pid));
        EXPECT_TRUE(next("KovaAppSubscribe"));
    }
    // Hears of new figures until it has heard of `count`.
    [[nodiscard]] bool hears(int count) {
        for (int heard = 0; heard < count; ++heard) {
            const auto update = next("KovaUpdateResourceInfo");
            if (!update || !send(message(wire::Kind::kResponse, update->call_number, update->service, words(0)))) {
                return false;
            }
        }
        return true;
    }
    [[nodiscard]] bool is_closed() { return !next("nothing of this name"); }

  private:
    ssize_t receive() {
        pollfd wait{.fd = socket_, .events = POLLIN, .revents = 0};
        EXPECT_EQ(1, ::poll(&wait, 1, 30'000)) << "the daemon says nothing";
        return ::recv(socket_, buffer_.data(), buffer_.size(), MSG_DONTWAIT);
    }

    int socket_;
    std::uint32_t calls_ = 0;
    Bytes buffer_ = Bytes(wire::kMessageLimit);
};

// A process of its own that does what it is told over a connection of its own.
template <typename Action>
pid_t start_process(Action action) {
    const pid_t pid = ::fork();
    if (pid < 0) std::abort();  // kill(-1) would be everybody
    if (pid == 0) {
        action();
        ::_exit(0);
    }
    return pid;
}

std::string ps() {
    const CommandResult result = run_command(KOVACTL " ps");
    EXPECT_EQ(0, result.status) << result.output;
    return result.output;
}

bool lists(const std::string& list, std::string_view text) {
    return list.find(text) != std::string::npos;
}

TEST(LinkServer, ServesProcessesUntilTheyEnd) {
    const CommandResult none = run_command(KOVACTL " ps");
    EXPECT_EQ(2, none.status);
    EXPECT_TRUE(lists(none.output, "start kovad")) << none.output;
    DaemonProcess daemon(kFast);
    ASSERT_TRUE(daemon.wait_for("ready"));
    struct stat status {};
    ASSERT_EQ(0, ::stat(kSocket, &status));
    EXPECT_EQ(0660U, status.st_mode & 07777);
    {
        Peer peer;
        peer.enroll("rou\x1bted");
        EXPECT_TRUE(peer.hears(3));
        EXPECT_TRUE(lists(ps(), "rou\\x1bted")) << "a terminal must not obey it";
        EXPECT_TRUE(lists(run_command(KOVACTL " region --json").output, "\"monitor_status\": 1"));
    }
    // A child keeps the connection of its parent open, which has ended.
    int ends[2];
    ASSERT_EQ(0, ::pipe(ends));
    const pid_t parent = start_process([&] {
        Peer peer;
        peer.enroll("parent");
        if (::fork() == 0) {
            char byte = 0;
            ::close(ends[1]);
            ::_exit(static_cast<int>(::read(ends[0], &byte, 1)));  // until the test is over
        }
        ::_exit(0);
    });
    ::waitpid(parent, nullptr, 0);
    EXPECT_TRUE(daemon.wait_for("parent [" + std::to_string(parent) + "] has ended"));
    EXPECT_FALSE(lists(ps(), "parent"));
    ::close(ends[0]);
    ::close(ends[1]);
    daemon.stop(SIGTERM);
    EXPECT_NE(0, ::access(kSocket, F_OK)) << "removed at the end";
}

TEST(LinkServer, StoppedAndLyingProcessesHarmNobodyElse) {
    DaemonProcess daemon(kFast);
    ASSERT_TRUE(daemon.wait_for("ready"));
    const pid_t stopped = start_process([] {
        Peer peer;
        peer.enroll("stopped");
        ::raise(SIGSTOP);
    });
    ::waitpid(stopped, nullptr, WUNTRACED);
    // Asks and asks, and reads no answer.
    const pid_t deaf = start_process([] {
        Peer peer;
        peer.enroll("deaf");
        for (int i = 0; i < 100'000; ++i) peer.request("KovaRestCycleTime", words(1000, 0));
    });
    ASSERT_TRUE(daemon.wait_for("deaf [" + std::to_string(deaf) + "] registers"));
    Peer peer;
    peer.enroll("good");
    EXPECT_TRUE(peer.hears(50));
    const Bytes bad[] = {Bytes(1), Bytes(wire::kMessageLimit + 1),
                         message(wire::Kind::kRequest, 1, "AgentRegInfo", registration("liar", 1))};
    for (const Bytes& bytes : bad) {
        Peer liar;
        EXPECT_TRUE(liar.send(bytes));
        EXPECT_TRUE(liar.is_closed());
    }
    EXPECT_TRUE(peer.hears(50));
    const std::string list = ps();
    EXPECT_TRUE(lists(list, "good") && lists(list, "stopped") && lists(list, "deaf") && !lists(list, "liar")) << list;
    ::kill(stopped, SIGKILL);
    ::kill(deaf, SIGKILL);
    ::waitpid(stopped, nullptr, 0);
    ::waitpid(deaf, nullptr, 0);
    EXPECT_TRUE(daemon.wait_for("stopped [" + std::to_string(stopped) + "] has ended"));
}

}  // namespace
}  // namespace kova::test
