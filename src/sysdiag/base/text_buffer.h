// Appends text to a buffer of fixed size, cutting what does not fit. Always terminated; holds size - 1 characters.
//
// For what is printed thousands of times in a report (memory words, digits), where a general formatter is too slow, and
// for paths that are built in signal context.
//
// Signal context: safe.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace kova {

// Writes exactly `digits` lowercase digits, an even number of them, and answers the end; higher ones are left out.
// Nothing is terminated.
char* put_hex(char* out, std::uint64_t value, unsigned digits);

class TextBuffer {
  public:
    // Continues a text of `length` characters that stands in the buffer. size is 1 or more, length below it.
    TextBuffer(char* buffer, std::size_t size, std::size_t length = 0);

    void append(std::string_view text);
    void append(char c);
    void append_decimal(std::uint64_t value);
    // Lowercase, with leading zeros up to `digits` (1 to 16); a larger value keeps all its digits.
    void append_hex(std::uint64_t value, int digits);

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
