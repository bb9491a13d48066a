// One connection of this process to a daemon: sends, receives, and knows what is under way on it.
//
// Requests are sent by whoever makes them, straight into the socket; what the socket does not take at once waits here
// for the event thread. Only that thread reads and closes. A connection that is lost, for whatever reason, is first
// detached under the mutex, so that nobody sends on it any more, and then finished on the event thread: every call
// under way is answered with KOVA_RPC_LINK_LOST, after that its clients are told. In this order a client that lives for
// one call is gone before it could be told.
#pragma once

#include <sys/un.h>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include <asio/posix/stream_descriptor.hpp>

#include "kova_platform/rpc.h"
#include "runtime.h"
#include "wire.h"

namespace kova::rpc {

// A user of an address. Constant but for the flag, which the Runtime's mutex guards.
struct Client {
    std::string address;
    sockaddr_un socket{};  // where the address leads; the environment is not read again, least of all by our threads
    std::string service;   // the daemon's name in the address
    KovaLinkNotify notify = nullptr;
    bool is_destroyed = false;
};

class Connection : public std::enable_shared_from_this<Connection> {
  public:
    // Connects without waiting and starts to read. The mutex is held. 0, and the connection; else KOVA_RPC_*.
    static std::uint32_t connect_locked(Runtime* runtime, const Client& client, std::shared_ptr<Connection>* made);

    Connection(Runtime* runtime, const Client& client, int fd);
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    ~Connection();

    // KOVA_RPC_LINK_LOST when the other side is gone: lose the connection then.
    std::uint32_t request_locked(const std::shared_ptr<Client>& client, const wire::Service& service,
                                 std::span<const std::byte> payload, const KovaRpcCallback& callback);

    // Nothing is sent or received after this; the rest happens on the event thread.
    void lose_locked();

    void forget_client_locked(const Client& client);

  private:
    struct Call {
        std::shared_ptr<Client> client;
        const wire::Service* service;
        KovaRpcCallback callback;
    };
    enum class Sent { kYes, kLost, kTooMuch };

    // Service thread: carries a request of the daemon out.
    void serve(const wire::Service& service, std::uint32_t call_number, std::span<const std::byte> request);
    // Either thread. A daemon that is gone, or asks and does not listen, gets nothing.
    void respond(const wire::Service& service, std::uint32_t call_number, std::uint32_t status,
                 std::span<const std::byte> payload);
    void lose(const char* reason);  // null: nothing to log

    // What cannot be done for want of memory costs the connection: one that is open and deaf would be worse.
    template <typename Action>
    void do_or_lose(Action action) {
        try {
            action();
        } catch (const std::exception& error) {
            lose(error.what());
        }
    }

    void start_locked();
    Sent send_locked(std::vector<std::byte> message);
    Sent write_locked(std::span<const std::byte> message, bool* is_written);

    // Event thread.
    void wait_readable();
    void wait_writable();
    void read_some();
    void write_waiting();
    bool read_one();
    void finish();
    wire::Fault take(std::span<std::byte> bytes);
    wire::Fault take_request(const wire::Message& message);
    wire::Fault take_response(const wire::Message& message, std::byte* payload);
    void tell_clients(std::int32_t event, const std::vector<std::shared_ptr<Client>>& clients);

    Runtime* const runtime_;
    const std::string address_;
    const std::string service_;
    asio::posix::stream_descriptor socket_;  // the object is the event thread's, the descriptor anybody's while open
    wire::RequestOrder order_;               // event thread

    // Guarded by the mutex.
    bool is_open_ = true;
    std::uint32_t last_call_number_ = 0;
    std::uint32_t requests_waiting_ = 0;  // for the service thread
    std::map<std::uint32_t, Call> calls_;
    std::deque<std::vector<std::byte>> unsent_;
    std::vector<std::shared_ptr<Client>> clients_;  // those with an accepted request
};

}  // namespace kova::rpc
