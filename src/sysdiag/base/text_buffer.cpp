// Bounded appending; see text_buffer.h.
//
// Signal context: all of it.
#include "base/text_buffer.h"

#include <algorithm>
#include <cstring>

#include "base/signal_path.h"

namespace kova {

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
    put_hex(put_hex(text, static_cast<std::uint32_t>(value >> 32)), static_cast<std::uint32_t>(value));
    std::size_t leading = 0;
    const std::size_t droppable = sizeof text - static_cast<std::size_t>(digits);
    while (leading < droppable && text[leading] == '0') ++leading;
    append(std::string_view(text + leading, sizeof text - leading));
}

}  // namespace kova
