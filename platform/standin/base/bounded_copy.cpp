// The bounded copying functions.
//
// Lengths are judged before anything is written, so a call that fails changes at most the first byte of a text
// destination. Overlapping blocks are copied as if through a third buffer: callers shift texts within one buffer.
//
// Signal context: all of it.
#include "kova_platform/bounded_string.h"

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>

namespace {

// A larger size is a negative number that somebody converted; nothing of ours is that large.
bool is_usable_size(size_t size) {
    return size != 0 && size <= INT_MAX;
}

int refuse(char* dst, int error) {
    *dst = '\0';
    return error;
}

// Copies `length` characters behind the first `used` ones of the destination, and terminates.
int append(char* dst, size_t size, size_t used, const char* src, size_t length) {
    if (length >= size - used) return refuse(dst, ERANGE);
    std::memmove(dst + used, src, length);
    dst[used + length] = '\0';
    return 0;
}

int copy(char* dst, size_t size, const char* src, size_t count) {
    if (dst == nullptr || !is_usable_size(size)) return EINVAL;
    if (src == nullptr) return refuse(dst, EINVAL);
    return append(dst, size, 0, src, ::strnlen(src, count < size ? count : size));
}

}  // namespace

int memcpy_s(void* dst, size_t dstSize, const void* src, size_t count) {
    if (count == 0 && dst != nullptr) return 0;
    if (dst == nullptr || src == nullptr) return EINVAL;
    if (!is_usable_size(dstSize) || count > dstSize) return ERANGE;
    std::memmove(dst, src, count);
    return 0;
}

int memset_s(void* dst, size_t dstSize, int value, size_t count) {
    if (dst == nullptr) return EINVAL;
    if (count == 0) return 0;
    if (!is_usable_size(dstSize) || count > dstSize) return ERANGE;
    std::memset(dst, value, count);
    // The compiler may know that nobody reads the block again; whoever clears a secret wants it cleared all the same.
    __asm__ volatile("" : : "r"(dst) : "memory");
    return 0;
}

int strcpy_s(char* dst, size_t dstSize, const char* src) {
    return copy(dst, dstSize, src, SIZE_MAX);
}

int strncpy_s(char* dst, size_t dstSize, const char* src, size_t count) {
    return copy(dst, dstSize, src, count);
}

int strcat_s(char* dst, size_t dstSize, const char* src) {
    if (dst == nullptr || !is_usable_size(dstSize)) return EINVAL;
    if (src == nullptr) return refuse(dst, EINVAL);
    const size_t used = ::strnlen(dst, dstSize);
    if (used == dstSize) return refuse(dst, ERANGE);
    return append(dst, dstSize, used, src, ::strnlen(src, dstSize - used));
}
