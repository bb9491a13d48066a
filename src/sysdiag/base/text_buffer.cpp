// Bounded appending; see text_buffer.h.
//
// Signal context: all of it.
#include "base/text_buffer.h"

#include <algorithm>
#include <cstring>

#include "base/signal_path.h"

namespace kova {
namespace {

// "00" to "ff".
struct HexPairs {
    char text[256][2];

    constexpr HexPairs() : text() {
        for (unsigned byte = 0; byte < 256; ++byte) {
            text[byte][0] = "0123456789abcdef"[byte >> 4];
            text[byte][1] = "0123456789abcdef"[byte & 0xF];
        }
    }
};

constexpr HexPairs kHexPairs;

}  // namespace

char* put_hex(char* out, std::uint64_t value, unsigned digits) {
    for (unsigned shift = 4 * digits; shift > 0; out += 2) {
        shift -= 8;
        std::memcpy(out, kHexPairs.text[(value >> shift) & 0xFF], 2);
    }
    return out;
}

TextBuffer::TextBuffer(char* buffer, std::size_t size, std::size_t length)
    : buffer_(buffer), size_(size), length_(length) {
    buffer_[length_] = '\0';
}

void TextBuffer::append(std::string_view text) {
    const std::size_t room = size_ - 1 - length_;
    const std::size_t count = std::min(room, text.size());
    if (count < text.size()) cut_ = true;
    std::memcpy(buffer_ + length_, text.data(), count);
    length_ += count;
    buffer_[length_] = '\0';
}

void TextBuffer::append(char c) {
    append(std::string_view(&c, 1));
}

void TextBuffer::append_decimal(std::uint64_t value) {
    char digits[20];
    std::size_t count = 0;
    do {
        digits[sizeof digits - ++count] = static_cast<char>('0' + value % 10);
        value /= 10;
    } while (value != 0);
    append(std::string_view(digits + sizeof digits - count, count));
}

void TextBuffer::append_hex(std::uint64_t value, int digits) {
    char text[16];
    put_hex(text, value, sizeof text);
    std::size_t leading = 0;
    const std::size_t droppable = sizeof text - static_cast<std::size_t>(digits);
    while (leading < droppable && text[leading] == '0') ++leading;
    append(std::string_view(text + leading, sizeof text - leading));
}

}  // namespace kova
