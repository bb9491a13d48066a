// The daemon's socket and the connections that processes make to it: bytes in and out of the books.
//
// Nothing here waits. A connection with messages that could not be sent yet is not read from until they are, so that
// what is kept for a slow process stays small. A connection ends with its process, even when a child has inherited it.
#pragma once

#include <sys/types.h>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/steady_timer.hpp>

#include "cycle.h"
#include "link_book.h"
#include "region_feed.h"

namespace kova::kovad {

class LinkServer final : private LinkActions {
  public:
    // Listens. Throws std::system_error or std::runtime_error with what a user needs to know. The memory cycle is that
    // which processes may change.
    LinkServer(asio::io_context& loop, std::optional<gid_t> group, RegionFeed& feed, Cycle& memory_cycle);
    LinkServer(const LinkServer&) = delete;
    LinkServer& operator=(const LinkServer&) = delete;
    ~LinkServer() override;

    void publish();

    [[nodiscard]] const std::string& path() const { return path_; }

  private:
    struct Link {
        Link(asio::io_context& loop, LinkId link_id) : id(link_id), socket(loop), process(loop) {}
        LinkId id;
        asio::posix::stream_descriptor socket;
        asio::posix::stream_descriptor process;  // a descriptor of the process, readable once it has ended
        std::deque<std::vector<std::byte>> unsent;
        bool is_read_awaited = false;
    };
    using LinkPointer = std::shared_ptr<Link>;

    void send(LinkId id, std::span<const std::byte> message) override;
    void close(LinkId id, std::uint32_t pid, std::string_view why) override;
    void set_memory_cycle(std::uint32_t cycle_ms) override;
    void set_monitored(bool monitored) override;

    void listen(std::optional<gid_t> group);
    void wait_for_connection();
    void accept();
    void watch_process(const LinkPointer& link, pid_t pid);
    void wait_for_message(const LinkPointer& link);
    void receive(const LinkPointer& link);
    void wait_for_room(const LinkPointer& link);
    void send_unsent(const LinkPointer& link);
    void end(const LinkPointer& link);
    void drop(Link& link);
    void arm_deadline();

    asio::io_context& loop_;
    RegionFeed& feed_;
    Cycle& memory_cycle_;
    std::string path_;
    asio::posix::stream_descriptor listener_;
    asio::steady_timer accept_pause_;
    asio::steady_timer deadline_;
    LinkBook book_{*this};
    std::map<LinkId, LinkPointer> links_;
    LinkId last_id_ = 0;
    std::vector<std::byte> buffer_;
};

}  // namespace kova::kovad
