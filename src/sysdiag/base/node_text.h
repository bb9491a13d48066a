// What the writers of node identity texts share.
//
// Signal context: safe.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace kova {

// Sizes come signed from the callers; a negative one has room for nothing.
[[nodiscard]] inline std::size_t usable_size(std::int32_t size) {
    return static_cast<std::size_t>(std::max(size, 0));
}

}  // namespace kova
