// The daemon's socket and its connections; see link_server.h.
#include "link_server.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <stdexcept>
#include <system_error>
#include <utility>

#include <fmt/format.h>

#include "daemon_log.h"
#include "rpc_address.h"

namespace kova::kovad {
namespace {

constexpr mode_t kSocketMode = 0660;
constexpr mode_t kFolderMode = 0755;
constexpr int kBacklog = 512;  // all processes of a node may come at once when the daemon starts
constexpr std::chrono::seconds kAcceptPause{1};

using Wait = asio::posix::stream_descriptor::wait_type;

[[noreturn]] void fail(const std::string& path, const char* what) {
    throw std::system_error(errno, std::generic_category(), fmt::format("{}: {}", path, what));
}

Moment moment() {
    using std::chrono::duration_cast;
    const auto steady = std::chrono::steady_clock::now().time_since_epoch();
    const auto utc = std::chrono::system_clock::now().time_since_epoch();
    return {.steady_ms = static_cast<std::uint64_t>(duration_cast<std::chrono::milliseconds>(steady).count()),
            .utc_s = duration_cast<std::chrono::seconds>(utc).count()};
}

int new_socket() {
    return ::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
}

// Removes what a killed daemon left behind, and nothing else.
void make_place(const std::string& path, const sockaddr_un& address) {
    struct stat status {};
    if (::lstat(path.c_str(), &status) != 0) return;
    if (!S_ISSOCK(status.st_mode)) throw std::runtime_error(fmt::format("{}: is not a socket; remove it", path));
    const int probe = new_socket();
    const int connected = ::connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof address);
    // Everything else, a full queue of connections too, is the answer of somebody who lives.
    const bool is_left_behind = connected != 0 && errno == ECONNREFUSED;
    ::close(probe);
    if (!is_left_behind) throw std::runtime_error(fmt::format("{}: another daemon listens there", path));
    static_cast<void>(::unlink(path.c_str()));  // bind() tells when that failed
}

std::optional<ucred> credentials(int socket) {
    ucred peer{};
    socklen_t length = sizeof peer;
    if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &length) != 0 || peer.pid <= 0) return std::nullopt;
    return peer;
}

// The user's share of what epoll can watch may be used up, by another program even. Then the descriptor is closed.
bool take_descriptor(asio::posix::stream_descriptor& descriptor, int fd) {
    asio::error_code error;
    descriptor.assign(fd, error);
    if (!error) return true;
    ::close(fd);
    log(Level::kError, "a descriptor cannot be watched: {}", error.message());
    return false;
}

}  // namespace

LinkServer::LinkServer(asio::io_context& loop, std::optional<gid_t> group, RegionFeed& feed, Cycle& memory_cycle)
    : loop_(loop),
      feed_(feed),
      memory_cycle_(memory_cycle),
      listener_(loop),
      accept_pause_(loop),
      deadline_(loop),
      buffer_(wire::kMessageLimit + 1) {
    listen(group);
    wait_for_connection();
}

LinkServer::~LinkServer() {
    static_cast<void>(::unlink(path_.c_str()));
}

void LinkServer::listen(std::optional<gid_t> group) {
    sockaddr_un address{};
    if (!wire::socket_of_address(wire::kDaemonAddress, &address)) {
        throw std::runtime_error("KOVA_RUNTIME_DIR: is too long for a socket's path");
    }
    const std::string path = address.sun_path;
    const std::string folder = path.substr(0, path.rfind('/'));
    if (::mkdir(folder.c_str(), kFolderMode) == 0) {
        // Whatever the umask: the group could not reach its socket. A failure shows at bind().
        static_cast<void>(::chmod(folder.c_str(), kFolderMode));
    } else if (errno != EEXIST) {
        fail(folder, "cannot be made");
    }
    make_place(path, address);
    listener_.assign(new_socket());
    // There is no moment at which others could connect.
    const mode_t mask = ::umask(0777 & ~kSocketMode);
    const int bound = ::bind(listener_.native_handle(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    ::umask(mask);
    if (bound != 0) fail(path, "cannot be bound");
    path_ = path;
    if (group && ::chown(path.c_str(), static_cast<uid_t>(-1), *group) != 0) fail(path, "cannot be given to the group");
    if (::listen(listener_.native_handle(), kBacklog) != 0) fail(path, "cannot be listened on");
}

void LinkServer::wait_for_connection() {
    listener_.async_wait(Wait::wait_read, [this](const asio::error_code& error) {
        if (error) return;
        accept();
    });
}

void LinkServer::accept() {
    const int fd = ::accept4(listener_.native_handle(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    const int error = errno;
    const bool is_exhausted = fd < 0 && (error == EMFILE || error == ENFILE || error == ENOBUFS || error == ENOMEM);
    if (is_exhausted) {
        // The connection stays where it is: looking again at once would keep the processor busy.
        log(Level::kError, "no connection can be accepted now: {}", std::generic_category().message(error));
        accept_pause_.expires_after(kAcceptPause);
        accept_pause_.async_wait([this](const asio::error_code& stopped) {
            if (!stopped) wait_for_connection();
        });
        return;
    }
    wait_for_connection();
    if (fd < 0) return;
    const LinkPointer link = std::make_shared<Link>(loop_, ++last_id_);
    if (!take_descriptor(link->socket, fd)) return;
    const auto peer = credentials(fd);
    if (!peer) {
        log(Level::kWarning, "a connection of a process that cannot be seen from here is closed");
        return;
    }
    links_[link->id] = link;
    book_.opened(link->id, static_cast<std::uint32_t>(peer->pid), moment());
    if (!link->socket.is_open()) return;
    watch_process(link, peer->pid);
    wait_for_message(link);
}

// Where the kernel cannot tell of it, the connection's own end has to do.
void LinkServer::watch_process(const LinkPointer& link, pid_t pid) {
    const int fd = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
    if (fd < 0 || !take_descriptor(link->process, fd)) return;
    link->process.async_wait(Wait::wait_read, [this, link](const asio::error_code& error) {
        if (!error) end(link);
    });
}

void LinkServer::wait_for_message(const LinkPointer& link) {
    if (link->is_read_awaited || !link->unsent.empty()) return;
    link->is_read_awaited = true;
    link->socket.async_wait(Wait::wait_read, [this, link](const asio::error_code& error) {
        link->is_read_awaited = false;
        if (!error && link->socket.is_open() && link->unsent.empty()) receive(link);
    });
}

void LinkServer::receive(const LinkPointer& link) {
    // The length is the message's own, even where the buffer is shorter. One of 0 is the end of the connection.
    const ssize_t length =
        ::recv(link->socket.native_handle(), buffer_.data(), buffer_.size(), MSG_DONTWAIT | MSG_TRUNC);
    if (length < 0 && (errno == EAGAIN || errno == EINTR)) return wait_for_message(link);
    if (length <= 0) return end(link);
    const auto whole = std::min(static_cast<std::size_t>(length), buffer_.size());
    book_.received(link->id, std::span(buffer_).first(whole), moment());
    arm_deadline();
    if (link->socket.is_open()) wait_for_message(link);
}

void LinkServer::send(LinkId id, std::span<const std::byte> message) {
    const auto found = links_.find(id);
    if (found == links_.end()) return;
    const LinkPointer& link = found->second;
    link->unsent.emplace_back(message.begin(), message.end());
    if (link->unsent.size() == 1) send_unsent(link);
}

void LinkServer::send_unsent(const LinkPointer& link) {
    while (!link->unsent.empty()) {
        const std::vector<std::byte>& message = link->unsent.front();
        const ssize_t sent =
            ::send(link->socket.native_handle(), message.data(), message.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
        if (sent < 0 && (errno == EAGAIN || errno == EINTR)) return wait_for_room(link);
        if (sent < 0) {
            // The process would wait for ever for what is lost here. The end of the connection, which this makes sure
            // of, is met when it is read from, where the books may be told.
            ::shutdown(link->socket.native_handle(), SHUT_RDWR);
            link->unsent.clear();
            return;
        }
        link->unsent.pop_front();
    }
}

void LinkServer::wait_for_room(const LinkPointer& link) {
    link->socket.async_wait(Wait::wait_write, [this, link](const asio::error_code& error) {
        if (error || !link->socket.is_open()) return;
        send_unsent(link);
        wait_for_message(link);
    });
}

void LinkServer::end(const LinkPointer& link) {
    if (!link->socket.is_open()) return;
    drop(*link);
    book_.closed(link->id, moment());
    arm_deadline();
}

void LinkServer::close(LinkId id, std::uint32_t pid, std::string_view why) {
    log(Level::kWarning, "connection of process {} is closed: {}", pid, why);
    if (const auto found = links_.find(id); found != links_.end()) drop(*LinkPointer(found->second));
}

void LinkServer::drop(Link& link) {
    asio::error_code ignored;
    link.socket.close(ignored);
    link.process.close(ignored);
    link.unsent.clear();
    links_.erase(link.id);
}

void LinkServer::set_memory_cycle(std::uint32_t cycle_ms) {
    feed_.set_memory_cycle(cycle_ms);
    memory_cycle_.set_period(std::chrono::milliseconds(cycle_ms));
}

void LinkServer::set_monitored(bool monitored) {
    feed_.set_monitored(monitored);
}

void LinkServer::publish() {
    book_.publish(feed_.data_plane_percent(), moment());
}

void LinkServer::arm_deadline() {
    const auto deadline_ms = book_.deadline_ms();
    if (!deadline_ms) {
        deadline_.cancel();
        return;
    }
    deadline_.expires_at(std::chrono::steady_clock::time_point(std::chrono::milliseconds(*deadline_ms)));
    deadline_.async_wait([this](const asio::error_code& error) {
        if (error) return;
        book_.expire(moment());
        arm_deadline();
    });
}

}  // namespace kova::kovad
