// Appends text to a buffer of fixed size, cutting what does not fit. Always terminated; holds size - 1 characters.
//
// For what is printed thousands of times in a report (memory words, digits), where a general formatter is too slow, and
// for paths that are built in signal context.
//
// Signal context: safe.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

namespace kova {

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
inline constexpr HexPairs kHexPairs;

// Writes eight lowercase digits and answers their end. Nothing is terminated.
inline char* put_hex(char* out, std::uint32_t value) {
    std::memcpy(out, kHexPairs.text[value >> 24], 2);
    std::memcpy(out + 2, kHexPairs.text[value >> 16 & 0xFF], 2);
    std::memcpy(out + 4, kHexPairs.text[value >> 8 & 0xFF], 2);
    std::memcpy(out + 6, kHexPairs.text[value & 0xFF], 2);
    return out + 8;
}

class TextBuffer {
  public:
    // Continues a text of `length` characters that stands in the buffer. size is 1 or more, length below it.
    TextBuffer(char* buffer, std::size_t size, std::size_t length = 0);

    void append(std::string_view text);
    void append(char c);
    void append_decimal(std::uint64_t value);
    // Lowercase, with leading zeros up to `digits` (1 to 16); a larger value keeps all its digits.
    void append_hex(std::uint64_t value, int digits);

    // For what is written in place: where `size` more characters and a terminator fit, null where they do not; then
    // how many it has become, at most `size`.
    [[nodiscard]] char* room(std::size_t size) { return size < size_ - length_ ? buffer_ + length_ : nullptr; }
    void advance(std::size_t count) {
        length_ += count;
        buffer_[length_] = '\0';
    }

    [[nodiscard]] std::size_t length() const { return length_; }
    [[nodiscard]] bool was_cut() const { return cut_; }
    [[nodiscard]] const char* c_str() const { return buffer_; }

  private:
    char* buffer_;
    std::size_t size_;
    std::size_t length_;
    bool cut_ = false;
};

}  // namespace kova
