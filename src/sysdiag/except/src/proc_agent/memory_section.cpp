// Printing dump sections; see memory_section.h.
//
// Signal context: all of it.
#include "except/src/proc_agent/memory_section.h"

#include <algorithm>
#include <cstring>

#include "except/src/proc_agent/memory_reader.h"

#include "base/signal_path.h"

namespace kova {
namespace {

constexpr std::size_t kWordSize = sizeof(std::uint32_t);
constexpr std::size_t kLineSize = 4 * kWordSize;

// Read from live memory at a time: what is on the stack of a capture for it.
constexpr std::size_t kPieceSize = 8 * kLineSize;

void append_range(TextBuffer& text, std::uint64_t start, std::uint64_t end) {
    text.append(" in maps(");
    text.append_hex(start, 16);
    text.append(", ");
    text.append_hex(end, 16);
    text.append(')');
}

// Words at `offset` from the start of the section.
void append_words_at(TextBuffer& text, std::uint64_t start, std::uint64_t offset, std::span<const std::uint8_t> bytes) {
    for (std::size_t at = 0; at + kWordSize <= bytes.size() && !text.was_cut(); at += kWordSize) {
        const std::uint64_t from_start = offset + at;
        if (from_start % kLineSize == 0) {
            text.append("\n0x");
            text.append_hex(start + from_start, 16);
            text.append(":\t");
        }
        std::uint32_t word = 0;
        std::memcpy(&word, bytes.data() + at, kWordSize);
        text.append("0x");
        text.append_hex(word, 8);
        text.append(' ');
    }
}

}  // namespace

void append_register_header(TextBuffer& text, const char* label, std::uint64_t value, std::uint64_t start,
                            std::uint64_t end) {
    text.append("\n===Dump Register ");
    text.append(label != nullptr ? label : "");
    text.append('[');
    text.append_hex(value, 16);
    text.append(']');
    append_range(text, start, end);
}

void append_heap_header(TextBuffer& text, std::uint64_t start, std::uint64_t end) {
    text.append("\n===Dump Heap");
    append_range(text, start, end);
}

void append_words(TextBuffer& text, std::uint64_t start, std::span<const std::uint8_t> bytes) {
    append_words_at(text, start, 0, bytes);
}

void append_live_words(TextBuffer& text, std::uint64_t start, std::uint64_t length) {
    std::uint8_t piece[kPieceSize];
    const std::uint64_t whole_words = length - length % kWordSize;
    for (std::uint64_t offset = 0; offset < whole_words && !text.was_cut();) {
        const std::size_t wanted = std::min<std::uint64_t>(kPieceSize, whole_words - offset);
        const std::size_t got = read_memory(start + offset, {piece, wanted});
        append_words_at(text, start, offset, {piece, got});
        if (got < wanted) return;
        offset += got;
    }
}

}  // namespace kova
