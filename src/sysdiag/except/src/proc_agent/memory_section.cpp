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
constexpr std::size_t kLineTextSize =
    std::string_view("\n0x0123456789abcdef:\t").size() + 4 * std::string_view("0x01234567 ").size();

// Read from live memory at a time: what is on the stack of a capture for it.
constexpr std::size_t kPieceSize = 32 * kLineSize;

void append_range(TextBuffer& text, std::uint64_t start, std::uint64_t end) {
    text.append(" in maps(");
    text.append_hex(start, 16);
    text.append(", ");
    text.append_hex(end, 16);
    text.append(')');
}

char* put(char* out, std::string_view text) {
    std::memcpy(out, text.data(), text.size());
    return out + text.size();
}

// "\n0x%.16llx:\t" and up to four times "0x%.8x ". Answers the end.
char* put_line(char* line, std::uint64_t address, std::span<const std::uint8_t> bytes) {
    char* end = put_hex(put(line, "\n0x"), static_cast<std::uint32_t>(address >> 32));
    end = put_hex(end, static_cast<std::uint32_t>(address));
    end = put(end, ":\t");
    for (std::size_t at = 0; at + kWordSize <= bytes.size(); at += kWordSize) {
        std::uint32_t word = 0;
        std::memcpy(&word, bytes.data() + at, kWordSize);
        end = put(put_hex(put(end, "0x"), word), " ");
    }
    return end;
}

// Whole lines, and a last one that may be shorter.
void append_lines(TextBuffer& text, std::uint64_t address, std::span<const std::uint8_t> bytes) {
    const std::size_t size = bytes.size() - bytes.size() % kWordSize;
    char* const place = text.room((size + kLineSize - 1) / kLineSize * kLineTextSize);
    char* end = place;
    for (std::size_t at = 0; at < size && !text.was_cut(); at += kLineSize) {
        const auto words = bytes.subspan(at, std::min(kLineSize, size - at));
        if (place != nullptr) {
            end = put_line(end, address + at, words);
        } else {
            char line[kLineTextSize];
            text.append(std::string_view(line, static_cast<std::size_t>(put_line(line, address + at, words) - line)));
        }
    }
    if (place != nullptr) text.advance(static_cast<std::size_t>(end - place));
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
    append_lines(text, start, bytes);
}

void append_live_words(TextBuffer& text, std::uint64_t start, std::uint64_t length) {
    std::uint8_t piece[kPieceSize];
    const std::uint64_t whole_words = length - length % kWordSize;
    for (std::uint64_t offset = 0; offset < whole_words && !text.was_cut();) {
        const std::size_t wanted = std::min<std::uint64_t>(kPieceSize, whole_words - offset);
        const std::size_t got = read_memory(start + offset, {piece, wanted});
        append_lines(text, start + offset, {piece, got});
        if (got < wanted) return;
        offset += got;
    }
}

}  // namespace kova
