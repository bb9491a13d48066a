// A daemon in the hands of a test: it listens, accepts and exchanges messages when it is told to. Waits have a limit.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cstring>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "rpc_address.h"
#include "wire.h"

namespace kova::test {

constexpr int kLimitMs = 20000;

// One connected process.
class Peer {
  public:
    explicit Peer(int fd = -1) : fd_(fd) {}
    Peer(Peer&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Peer& operator=(Peer&& other) noexcept {
        std::swap(fd_, other.fd_);
        return *this;
    }
    ~Peer() { close(); }

    void close() {
        if (fd_ >= 0) ::close(std::exchange(fd_, -1));
    }

    pid_t pid() const {
        ucred credentials{};
        socklen_t length = sizeof credentials;
        EXPECT_EQ(0, ::getsockopt(fd_, SOL_SOCKET, SO_PEERCRED, &credentials, &length));
        return credentials.pid;
    }

    void send_bytes(const std::string& bytes) {
        ASSERT_EQ(static_cast<ssize_t>(bytes.size()), ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL));
    }

    static std::string bytes_of(wire::Kind kind, std::uint32_t number, std::string_view service,
                                const std::string& payload, std::uint32_t status = 0) {
        std::string bytes(wire::kMessageLimit, '\0');
        bytes.resize(wire::encode({.kind = kind,
                                   .call_number = number,
                                   .status = status,
                                   .service = service,
                                   .payload = std::as_bytes(std::span(payload))},
                                  std::as_writable_bytes(std::span(bytes))));
        return bytes;
    }
    void send(wire::Kind kind, std::uint32_t number, std::string_view service, const std::string& payload,
              std::uint32_t status = 0) {
        send_bytes(bytes_of(kind, number, service, payload, status));
    }

    // The next message's bytes are kept until the one after it. False at the end of the connection.
    bool receive(wire::Message* message) {
        pollfd wanted{.fd = fd_, .events = POLLIN, .revents = 0};
        if (::poll(&wanted, 1, kLimitMs) != 1) {
            ADD_FAILURE() << "nothing came";
            return false;
        }
        received_.resize(wire::kMessageLimit + 1);
        const ssize_t length = ::recv(fd_, received_.data(), received_.size(), 0);
        if (length <= 0) return false;
        received_.resize(static_cast<std::size_t>(length));
        EXPECT_EQ(wire::Fault::kNone, wire::decode(std::as_bytes(std::span(received_)), message));
        return true;
    }

    // Answers whatever comes next with a payload of 40 bytes.
    void answer() {
        wire::Message asked;
        ASSERT_TRUE(receive(&asked));
        send(wire::Kind::kResponse, asked.call_number, asked.service, std::string(40, 'r'));
    }

  private:
    int fd_;
    std::string received_;
};

class TestDaemon {
  public:
    TestDaemon() { start(); }
    TestDaemon(const TestDaemon&) = delete;
    TestDaemon& operator=(const TestDaemon&) = delete;
    ~TestDaemon() { stop(); }

    void start() {
        ::mkdir("/run/kova", 0755);
        sockaddr_un where{};
        ASSERT_TRUE(wire::socket_of_address(wire::kDaemonAddress, &where));
        ::unlink(where.sun_path);
        fd_ = ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0);
        ASSERT_EQ(0, ::bind(fd_, reinterpret_cast<const sockaddr*>(&where), sizeof where));
        ASSERT_EQ(0, ::listen(fd_, 16));
    }
    void stop() {
        if (fd_ >= 0) ::close(std::exchange(fd_, -1));
    }

    Peer accept() {
        pollfd wanted{.fd = fd_, .events = POLLIN, .revents = 0};
        if (::poll(&wanted, 1, kLimitMs) == 1) return Peer(::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC));
        ADD_FAILURE() << "nobody connected";
        return Peer();
    }

  private:
    int fd_ = -1;
};

}  // namespace kova::test
