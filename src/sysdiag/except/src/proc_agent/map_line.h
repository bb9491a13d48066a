// Lines of a memory-map file, as text: "start-end permissions offset device inode [name]", addresses in hexadecimal.
//
// Parsing takes what the C library's scanf would take for the patterns named below, and never looks past the line.
//
// Signal context: all of it.
#pragma once

#include <cstdint>
#include <string_view>

namespace kova {

struct AddressRange {
    std::uint64_t start = 0;
    std::uint64_t end = 0;  // just past the last address
};

inline constexpr std::size_t kPermissionsSize = 16;

// The first three fields, "%lx-%lx %15s". False, with the outputs untouched, when they are not all there. Permissions
// beyond 15 characters are cut.
[[nodiscard]] bool parse_map_line(std::string_view line, AddressRange* range, char (&permissions)[kPermissionsSize]);

// Bounds and name, "%lx-%lx %*s %*s %*s %*s %s". The name is one word of `line`. False, with the outputs untouched, for
// a line without a name.
[[nodiscard]] bool parse_named_line(std::string_view line, AddressRange* range, std::string_view* name);

}  // namespace kova
