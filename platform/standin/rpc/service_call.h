// Carries out what the daemon calls: finds the service in this process, runs it, turns its reply into bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "wire.h"

namespace kova::rpc {

struct ServiceResult {
    std::uint32_t status = 0;
    std::vector<std::byte> payload;
};

// The request is as long as the service needs. May block: it runs foreign code.
ServiceResult call_service(const wire::Service& service, std::span<const std::byte> request);

}  // namespace kova::rpc
