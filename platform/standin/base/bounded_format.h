// The formatter under the bounded formatting functions, for those in this library who hold a va_list.
#pragma once

#include <cstdarg>
#include <cstddef>

namespace kova_standin {

// Formats, cuts the text to fit and terminates it.
//
// @return Characters written, or -1 with an empty text: size 0 (nothing is written), a NULL argument, a bad format.
//
// Signals: safe for integer, character, string and pointer conversions.
int format_truncated(char* dst, std::size_t size, const char* format, va_list arguments);

// The same with the arguments themselves. Unlike the exported function it is nobody's to replace.
int format_text(char* dst, std::size_t size, const char* format, ...) __attribute__((format(printf, 3, 4)));

}  // namespace kova_standin
