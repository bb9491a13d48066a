// Reads the process's own memory at addresses that nobody vouches for.
//
// Signal context: all of it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace kova {

// Copies from `address` until `out` is full or a byte cannot be read. Answers the bytes copied; the rest of `out` is
// undefined.
[[nodiscard]] std::size_t read_memory(std::uint64_t address, std::span<std::uint8_t> out);

}  // namespace kova
