// Name and version of the platform, as the process-wide variables hold them.
//
// Signal context: safe.
#pragma once

#include <cstddef>
#include <cstring>

#include "kova/exception_capture.h"
#include "kova_platform/bounded_string.h"

namespace kova {

// Everybody may write the variables: their terminators are not counted on. What does not fit leaves an empty text and
// an answer other than 0.
inline int copy_platform_text(char* to, std::size_t size, const char (&from)[KOVA_PLATFORM_TEXT_SIZE]) {
    return strncpy_s(to, size, from, ::strnlen(from, sizeof from));
}

}  // namespace kova
