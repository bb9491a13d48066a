// Looks up addresses in the text of a memory map.
//
// The text is what a descriptor holds: a map file, or a range of bytes in the exception log into which a capture has
// copied it. The kernel formats a map file line by line, and a seek in it formats everything up to the position again:
// milliseconds for a search there, seconds with thousands of mappings, against microseconds in a plain file.
//
// Signal context: all of it. Owns no descriptor.
#pragma once

#include <sys/types.h>
#include <cstdint>
#include <span>
#include <string_view>

#include "kova/memory_map.h"

namespace kova {

class MapText {
  public:
    // Everything that the descriptor holds.
    explicit MapText(int fd) : fd_(fd) {}
    // `length` bytes of a plain file from `first` on. Nothing beyond is ever read, whoever has appended to the file
    // since. What lies around a position that is read is kept in `window` for the next reads; it may be empty.
    MapText(int fd, off_t first, std::uint32_t length, std::span<char> window = {})
        : fd_(fd), first_(first), is_clipped_(true), length_(length), window_(window) {}

    // 0, or the negated errno.
    [[nodiscard]] int seek(std::uint64_t position);
    // From the position that seek or read left. 0 at the end, negative when reading failed.
    [[nodiscard]] ssize_t read(std::span<char> out);

  private:
    [[nodiscard]] ssize_t read_clipped(std::span<char> out);
    [[nodiscard]] ssize_t fill_window();

    int fd_;
    off_t first_ = 0;
    bool is_clipped_ = false;
    std::uint64_t length_ = 0;
    std::uint64_t position_ = 0;  // within a clipped text
    std::span<char> window_;
    std::uint64_t window_start_ = 0;  // within the text
    std::uint64_t window_end_ = 0;
    std::uint64_t last_filled_at_ = 0;
};

// Where a map line is gathered, terminated. In captures the head of the text buffer.
using LineBuffer = std::span<char>;

// These three answer as the exported functions of kova/memory_map.h do.
[[nodiscard]] std::int32_t read_line(MapText& text, LineBuffer line);
[[nodiscard]] std::int32_t read_map_record(MapText& text, std::uint32_t position, KovaMapRecord& record,
                                           LineBuffer line);
[[nodiscard]] std::int32_t find_mapping(MapText& text, std::uint64_t address, KovaMapRecord& record, LineBuffer line);

}  // namespace kova
