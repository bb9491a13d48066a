// Asks the daemon over its socket; see daemon_query.h.
#include "daemon_query.h"

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <cerrno>

#include <fmt/format.h>

#include "rpc_address.h"
#include "wire.h"

namespace kova::kovactl {
namespace {

constexpr int kPatienceMs = 5000;

std::string advice(int error) {
    if (error == ENOENT || error == ECONNREFUSED) return "; no daemon runs: start kovad";
    if (error == EACCES) return "; it is for the daemon's user and group";
    return "";
}

}  // namespace

DaemonQuery::DaemonQuery() {
    sockaddr_un address{};
    if (!wire::socket_of_address(wire::kDaemonAddress, &address)) {
        throw NoAnswer("KOVA_RUNTIME_DIR is too long for a socket's path");
    }
    path_ = address.sun_path;
    socket_ = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (::connect(socket_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0) return;
    const int error = errno;
    ::close(socket_);
    if (error == EAGAIN) throw NoAnswer(fmt::format("the daemon at '{}' does not take connections now", path_));
    throw NoAnswer(fmt::format("cannot connect to '{}': {}{}", path_, std::strerror(error), advice(error)));
}

DaemonQuery::~DaemonQuery() {
    ::close(socket_);
}

std::vector<std::byte> DaemonQuery::call(std::string_view service, std::span<const std::byte> request) {
    std::vector<std::byte> buffer(wire::kMessageLimit);
    const wire::Message message{
        .kind = wire::Kind::kRequest, .call_number = ++last_call_, .status = 0, .service = service, .payload = request};
    const std::size_t length = wire::encode(message, buffer);
    if (::send(socket_, buffer.data(), length, MSG_NOSIGNAL) < 0) {
        throw NoAnswer(fmt::format("the daemon at '{}' closed the connection: {}", path_, std::strerror(errno)));
    }
    pollfd answer{.fd = socket_, .events = POLLIN, .revents = 0};
    int ready = 0;
    while ((ready = ::poll(&answer, 1, kPatienceMs)) < 0 && errno == EINTR) continue;
    if (ready == 0) {
        throw NoAnswer(fmt::format("the daemon at '{}' did not answer for {} s", path_, kPatienceMs / 1000));
    }
    const ssize_t received = ::recv(socket_, buffer.data(), buffer.size(), 0);
    if (received <= 0) throw NoAnswer(fmt::format("the daemon at '{}' closed the connection", path_));
    wire::Message response;
    const auto bytes = std::span(buffer).first(static_cast<std::size_t>(received));
    const bool is_answer = wire::decode(bytes, &response) == wire::Fault::kNone &&
                           wire::check_service(response, wire::Server::kProcess) == wire::Fault::kNone &&
                           response.kind == wire::Kind::kResponse && response.service == service &&
                           response.call_number == last_call_ && response.status == 0;
    if (!is_answer) fail_to_understand();
    return {response.payload.begin(), response.payload.end()};
}

void DaemonQuery::fail_to_understand() const {
    throw NoAnswer(fmt::format("the daemon at '{}' answers what kovactl does not understand", path_));
}

}  // namespace kova::kovactl
