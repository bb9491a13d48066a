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

// Writes eight lowercase digits and answers their end. Nothing is terminated.
inline char* put_hex(char* out, std::uint32_t value) {
    // All digits at once: each gets a byte of its own, the lowest first, and then what makes it a character.
    std::uint64_t digits = value;
    digits = (digits & 0xFFFF'0000) << 16 | (digits & 0x0000'FFFF);
    digits = (digits & 0x0000'FF00'0000'FF00) << 8 | (digits & 0x0000'00FF'0000'00FF);
    digits = (digits & 0x00F0'00F0'00F0'00F0) << 4 | (digits & 0x000F'000F'000F'000F);
    constexpr std::uint64_t kEach = 0x0101'0101'0101'0101;
    const std::uint64_t is_letter = (digits + 6 * kEach) >> 4 & kEach;
    digits += '0' * kEach + ('a' - '9' - 1) * is_letter;
    digits = __builtin_bswap64(digits);
    std::memcpy(out, &digits, sizeof digits);
    return out + sizeof digits;
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
