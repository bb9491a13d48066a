// Asks the daemon over its socket, as processes do.
#pragma once

#include <cstddef>
#include <cstring>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "daemon_services.h"

namespace kova::kovactl {

// The daemon cannot be asked, with what to do about it.
class NoAnswer : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

class DaemonQuery {
  public:
    DaemonQuery();
    DaemonQuery(const DaemonQuery&) = delete;
    DaemonQuery& operator=(const DaemonQuery&) = delete;
    ~DaemonQuery();

    // One page of a list. Waits for the answer, a few seconds at most.
    template <typename Item>
    std::vector<Item> page(std::string_view service, const kovad::ListRequest& from) {
        const std::vector<std::byte> payload = call(service, std::as_bytes(std::span(&from, 1)));
        kovad::ListHead head{};
        if (payload.size() >= sizeof head) std::memcpy(&head, payload.data(), sizeof head);
        // The product cannot wrap: both are 32 bits.
        if (payload.size() != sizeof head + std::size_t{head.count} * sizeof(Item)) fail_to_understand();
        std::vector<Item> items(head.count);
        if (!items.empty()) std::memcpy(items.data(), payload.data() + sizeof head, items.size() * sizeof(Item));
        return items;
    }

  private:
    std::vector<std::byte> call(std::string_view service, std::span<const std::byte> request);
    [[noreturn]] void fail_to_understand() const;

    std::string path_;
    int socket_ = -1;
    std::uint32_t last_call_ = 0;
};

}  // namespace kova::kovactl
