#include "connection.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include <asio/post.hpp>

#include "open_sockets.h"
#include "service_call.h"

namespace kova::rpc {
namespace {

// What may be under way at once. A daemon that is stopped does not make its processes grow without end.
constexpr std::size_t kMostCalls = 4096;
constexpr std::size_t kMostUnsent = 4096;
constexpr std::uint32_t kMostRequestsWaiting = 64;

constexpr int kMessagesAtOnce = 32;  // then timers have their turn
constexpr std::int32_t kLinkLost = 0;
constexpr std::int32_t kLinkUp = 1;
constexpr std::uint64_t kGoodStatus = 1;

// Behind the header the payload is as aligned as a handler may expect. Event thread only; one byte more than a message,
// so that an oversized one shows.
struct alignas(16) ReceiveBuffer {
    std::byte bytes[wire::kMessageLimit + 1];
};
static_assert(sizeof(wire::Header) % alignof(ReceiveBuffer) == 0);
constinit ReceiveBuffer g_received{};

std::uint64_t failed_status(std::uint32_t error) {
    return std::uint64_t{error} << 32;
}

// Above the standard descriptors: whoever closed those still prints there.
int make_socket() {
    const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    if (fd < 0 || fd > STDERR_FILENO) return fd;
    const int moved = ::fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    ::close(fd);
    return moved;
}

std::uint32_t code_of_failed_connect(int error) {
    switch (error) {
        case ENOENT:
        case ECONNREFUSED:
        case ENOTDIR:
            return KOVA_RPC_NO_DAEMON;
        case EAGAIN:
            return KOVA_RPC_BUSY;  // its queue of new connections is full
        default:
            return KOVA_RPC_REFUSED;
    }
}

std::vector<std::byte> encoded(const wire::Message& message) {
    std::vector<std::byte> bytes(sizeof(wire::Header) + message.payload.size());
    bytes.resize(wire::encode(message, bytes));
    return bytes;
}

}  // namespace

std::uint32_t Connection::connect_locked(Runtime* runtime, const Client& client, std::shared_ptr<Connection>* made) {
    const int fd = make_socket();
    if (fd < 0) return KOVA_RPC_NO_RESOURCE;
    int result = 0;
    do {
        result = ::connect(fd, reinterpret_cast<const sockaddr*>(&client.socket), sizeof client.socket);
    } while (result != 0 && errno == EINTR);
    const std::uint32_t rc = result == 0 ? 0 : code_of_failed_connect(errno);
    if (rc != 0 || !add_open_socket(fd)) {
        ::close(fd);
        return rc != 0 ? rc : KOVA_RPC_NO_RESOURCE;
    }
    std::shared_ptr<Connection> connection;
    try {
        connection = std::make_shared<Connection>(runtime, client, fd);
    } catch (const std::exception&) {
        remove_open_socket(fd);
        ::close(fd);
        return KOVA_RPC_NO_RESOURCE;
    }
    connection->start_locked();
    *made = connection;
    return 0;
}

Connection::Connection(Runtime* runtime, const Client& client, int fd)
    : runtime_(runtime), address_(client.address), service_(client.service), socket_(runtime->events, fd) {}

Connection::~Connection() {
    if (socket_.is_open()) remove_open_socket(socket_.native_handle());
}

void Connection::start_locked() {
    asio::post(runtime_->events, [self = shared_from_this()] {
        std::vector<std::shared_ptr<Client>> clients;
        {
            const std::lock_guard lock(self->runtime_->mutex);
            clients = self->clients_;
        }
        self->tell_clients(kLinkUp, clients);
        self->wait_readable();
    });
    runtime_->connections.emplace(address_, shared_from_this());
}

std::uint32_t Connection::request_locked(const std::shared_ptr<Client>& client, const wire::Service& service,
                                         std::span<const std::byte> payload, const KovaRpcCallback& callback) {
    if (calls_.size() >= kMostCalls) return KOVA_RPC_BUSY;
    if (last_call_number_ == UINT32_MAX) return KOVA_RPC_LINK_LOST;  // numbers only rise: the next connection has more
    const std::uint32_t number = last_call_number_ + 1;
    std::vector<std::byte> message = encoded({.kind = wire::Kind::kRequest,
                                              .call_number = number,
                                              .status = 0,
                                              .service = service.name,
                                              .payload = payload});
    if (message.empty()) return KOVA_RPC_INVALID;
    clients_.reserve(clients_.size() + 1);
    calls_.emplace(number, Call{client, &service, callback});
    Sent sent = Sent::kTooMuch;
    try {
        sent = send_locked(std::move(message));
    } catch (const std::exception&) {
        calls_.erase(number);
        throw;
    }
    if (sent != Sent::kYes) {
        calls_.erase(number);
        return sent == Sent::kLost ? KOVA_RPC_LINK_LOST : KOVA_RPC_BUSY;
    }
    last_call_number_ = number;
    if (std::ranges::find(clients_, client) == clients_.end()) clients_.push_back(client);
    return 0;
}

void Connection::lose_locked() {
    if (!is_open_) return;
    is_open_ = false;
    // A child that was made without the C library's fork may hold a copy: the daemon sees the end all the same.
    ::shutdown(socket_.native_handle(), SHUT_RDWR);
    const auto found = runtime_->connections.find(address_);
    if (found != runtime_->connections.end() && found->second.get() == this) runtime_->connections.erase(found);
    asio::post(runtime_->events, [self = shared_from_this()] { self->finish(); });
}

void Connection::forget_client_locked(const Client& client) {
    std::erase_if(clients_, [&](const std::shared_ptr<Client>& known) { return known.get() == &client; });
}

void Connection::respond(const wire::Service& service, std::uint32_t call_number, std::uint32_t status,
                         std::span<const std::byte> payload) {
    std::vector<std::byte> message = encoded({.kind = wire::Kind::kResponse,
                                              .call_number = call_number,
                                              .status = status,
                                              .service = service.name,
                                              .payload = payload});
    const std::lock_guard lock(runtime_->mutex);
    if (!is_open_) return;
    // A daemon that asks and asks and does not listen.
    if (send_locked(std::move(message)) != Sent::kYes) lose_locked();
}

Connection::Sent Connection::send_locked(std::vector<std::byte> message) {
    if (!unsent_.empty()) {
        if (unsent_.size() >= kMostUnsent) return Sent::kTooMuch;
        unsent_.push_back(std::move(message));
        return Sent::kYes;
    }
    bool is_written = false;
    if (const Sent sent = write_locked(message, &is_written); sent != Sent::kYes || is_written) return sent;
    // In this order: without memory for the one or the other, nothing is left that nobody would ever send.
    asio::post(runtime_->events, [self = shared_from_this()] { self->wait_writable(); });
    unsent_.push_back(std::move(message));
    return Sent::kYes;
}

Connection::Sent Connection::write_locked(std::span<const std::byte> message, bool* is_written) {
    ssize_t written = 0;
    do {
        written = ::send(socket_.native_handle(), message.data(), message.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    } while (written < 0 && errno == EINTR);
    *is_written = written >= 0;
    return *is_written || errno == EAGAIN || errno == ENOBUFS ? Sent::kYes : Sent::kLost;
}

void Connection::wait_readable() {
    socket_.async_wait(asio::posix::stream_descriptor::wait_read, [self = shared_from_this()](asio::error_code error) {
        if (!error) self->do_or_lose([&] { self->read_some(); });
    });
}

void Connection::wait_writable() {
    socket_.async_wait(asio::posix::stream_descriptor::wait_write, [self = shared_from_this()](asio::error_code error) {
        if (!error) self->write_waiting();
    });
}

void Connection::read_some() {
    for (int i = 0; i < kMessagesAtOnce; ++i) {
        {
            // Lost by a sender meanwhile, perhaps by one of the handlers called here.
            const std::lock_guard lock(runtime_->mutex);
            if (!is_open_) return;
        }
        if (!read_one()) break;
    }
    if (socket_.is_open()) wait_readable();
}

// False when there is nothing more to read now.
bool Connection::read_one() {
    const ssize_t length =
        ::recv(socket_.native_handle(), g_received.bytes, sizeof g_received.bytes, MSG_DONTWAIT | MSG_TRUNC);
    if (length < 0 && errno == EINTR) return true;
    if (length < 0 && errno == EAGAIN) return false;
    if (length <= 0) {
        lose(nullptr);
        return false;
    }
    const auto kept = std::min(static_cast<std::size_t>(length), sizeof g_received.bytes);
    const wire::Fault fault = take({g_received.bytes, kept});
    if (fault != wire::Fault::kNone) lose(wire::text_of(fault));
    return fault == wire::Fault::kNone;
}

void Connection::write_waiting() {
    const std::lock_guard lock(runtime_->mutex);
    while (is_open_ && !unsent_.empty()) {
        bool is_written = false;
        if (write_locked(unsent_.front(), &is_written) == Sent::kLost) return lose_locked();
        if (!is_written) return wait_writable();
        unsent_.pop_front();
    }
}

void Connection::lose(const char* reason) {
    if (reason != nullptr) {
        KovaDLogWrite(kLogError, kLogId, "Base", "RPC message from %s: %s; connection closed", address_.c_str(),
                      reason);
    }
    const std::lock_guard lock(runtime_->mutex);
    lose_locked();
}

void Connection::finish() {
    std::map<std::uint32_t, Call> calls;
    std::vector<std::shared_ptr<Client>> clients;
    remove_open_socket(socket_.native_handle());
    {
        // Under the mutex: respond() looks at is_open_ there before it uses the descriptor.
        const std::lock_guard lock(runtime_->mutex);
        asio::error_code ignored;  // closed in any case
        socket_.close(ignored);
        calls.swap(calls_);
        clients.swap(clients_);
        unsent_.clear();
    }
    for (const auto& [number, call] : calls) {
        {
            const std::lock_guard lock(runtime_->mutex);
            if (call.client->is_destroyed) continue;
        }
        call.callback.handler(failed_status(KOVA_RPC_LINK_LOST), 0, nullptr, call.callback.context);
    }
    tell_clients(kLinkLost, clients);
}

wire::Fault Connection::take(std::span<std::byte> bytes) {
    wire::Message message;
    wire::Fault fault = wire::decode(bytes, &message);
    if (fault == wire::Fault::kNone) fault = wire::check_service(message, wire::Server::kProcess);
    if (fault != wire::Fault::kNone) return fault;
    if (message.kind == wire::Kind::kRequest) return take_request(message);
    return take_response(message, bytes.data() + sizeof(wire::Header));
}

wire::Fault Connection::take_request(const wire::Message& message) {
    if (const wire::Fault fault = order_.take(message.call_number); fault != wire::Fault::kNone) return fault;
    const wire::Service* const service = wire::find_service(wire::Server::kProcess, message.service);
    bool is_taken = false;
    {
        const std::lock_guard lock(runtime_->mutex);
        is_taken = requests_waiting_ < kMostRequestsWaiting;
        if (is_taken) ++requests_waiting_;
    }
    if (!is_taken) {
        respond(*service, message.call_number, KOVA_RPC_BUSY, {});
        return wire::Fault::kNone;
    }
    asio::post(runtime_->services, [self = shared_from_this(), service, number = message.call_number,
                                    request = std::vector<std::byte>(message.payload.begin(), message.payload.end())] {
        self->do_or_lose([&] { self->serve(*service, number, request); });
    });
    return wire::Fault::kNone;
}

void Connection::serve(const wire::Service& service, std::uint32_t call_number, std::span<const std::byte> request) {
    {
        const std::lock_guard lock(runtime_->mutex);
        --requests_waiting_;
        if (!is_open_) return;  // asked by a daemon that is gone
    }
    const auto result = or_else<ServiceResult>({.status = KOVA_RPC_NO_RESOURCE, .payload = {}},
                                               [&] { return call_service(service, request); });
    respond(service, call_number, result.status, result.payload);
}

wire::Fault Connection::take_response(const wire::Message& message, std::byte* payload) {
    Call call{};
    {
        const std::lock_guard lock(runtime_->mutex);
        const auto found = calls_.find(message.call_number);
        if (found == calls_.end() || found->second.service->name != message.service) return wire::Fault::kCallNumber;
        call = std::move(found->second);
        calls_.erase(found);
        if (call.client->is_destroyed) return wire::Fault::kNone;
    }
    const bool is_good = message.status == 0;
    call.callback.handler(is_good ? kGoodStatus : failed_status(message.status), 0, is_good ? payload : nullptr,
                          call.callback.context);
    return wire::Fault::kNone;
}

void Connection::tell_clients(std::int32_t event, const std::vector<std::shared_ptr<Client>>& clients) {
    for (const std::shared_ptr<Client>& client : clients) {
        {
            const std::lock_guard lock(runtime_->mutex);
            if (client->is_destroyed || client->notify == nullptr) continue;
        }
        client->notify(event, service_.c_str(), address_.c_str());
    }
}

}  // namespace kova::rpc
