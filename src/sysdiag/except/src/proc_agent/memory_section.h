// The text of a dump section: a header, then the memory as 32-bit words in hexadecimal, four a line, each line with the
// address of its first word. Only whole words are printed.
//
// Signal context: all of it.
#pragma once

#include <cstdint>
#include <span>

#include "base/text_buffer.h"
#include "kova/memory_map.h"

namespace kova {

// Size of the text buffer that sections are printed into; a longer section is cut.
inline constexpr std::uint32_t kTextSize = KOVA_EXCEPT_TEXT_SIZE;

void append_register_header(TextBuffer& text, const char* label, std::uint64_t value, std::uint64_t start,
                            std::uint64_t end);
void append_heap_header(TextBuffer& text, std::uint64_t start, std::uint64_t end);

// Words from a copy of the memory at `start`.
void append_words(TextBuffer& text, std::uint64_t start, std::span<const std::uint8_t> bytes);

// Words from live memory, up to the first one that cannot be read.
void append_live_words(TextBuffer& text, std::uint64_t start, std::uint64_t length);

// Appends with `print` behind the *length characters that stand in the text, and advances *length. Quietly nothing
// without a text or when it is full.
template <typename Print>
void append_section(char* text, std::uint32_t* length, Print print) {
    if (text == nullptr || length == nullptr || *length >= kTextSize) return;
    TextBuffer out(text, kTextSize, *length);
    print(out);
    *length = static_cast<std::uint32_t>(out.length());
}

}  // namespace kova
