// The shared region of resource figures as it is at one moment, read without taking part in it.
//
// The object is opened read-only and copied, never mapped: one that somebody makes shorter meanwhile cannot end
// kovactl. Every byte is hostile: any process of the node may write them.
#pragma once

#include <sys/types.h>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "kova/resource_region.h"

namespace kova::kovactl {

class NoRegion : public std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct RegionSnapshot {
    KovaResourceRegion region{};  // zeros where the object is too short
    std::uint64_t length = 0;     // of the object, bytes
    std::optional<pid_t> daemon;  // who keeps it; 0 for a process that cannot be seen from here
};

// Throws NoRegion when there is nothing to be read, and says why.
[[nodiscard]] RegionSnapshot read_region();

// What is in use of a history, newest first, percent.
[[nodiscard]] std::vector<std::uint32_t> newest_first(const KovaResourceRegion& region,
                                                      const std::uint8_t (&history)[KOVA_CPU_USAGE_SAMPLES]);

[[nodiscard]] bool is_used(const KovaThreadTick& entry);

}  // namespace kova::kovactl
