/*
 * Bounded memory and string functions of the platform.
 *
 * Every function takes the size of its destination. Copying ones return 0 or a non-zero error code; formatting ones
 * return the number of characters written, terminator not counted, or a negative value. On failure a text destination
 * of known size holds an empty text. The source is never read past the destination's size.
 *
 * Signals: the copying functions, and the formatting functions for integer, character, string and pointer conversions,
 * are async-signal-safe: no heap, no lock, no locale. The scanning functions are not.
 */
#ifndef KOVA_PLATFORM_BOUNDED_STRING_H
#define KOVA_PLATFORM_BOUNDED_STRING_H

#include <stddef.h>
#include <stdio.h>

#include "kova/export.h"

KOVA_BEGIN_DECLS

KOVA_API int memcpy_s(void *dst, size_t dstSize, const void *src, size_t count);
KOVA_API int memset_s(void *dst, size_t dstSize, int value, size_t count);
KOVA_API int strcpy_s(char *dst, size_t dstSize, const char *src);
/* Copies at most count characters and terminates; fails when they do not fit. */
KOVA_API int strncpy_s(char *dst, size_t dstSize, const char *src, size_t count);
KOVA_API int strcat_s(char *dst, size_t dstSize, const char *src);

KOVA_API int sprintf_s(char *dst, size_t dstSize, const char *format, ...) __attribute__((format(printf, 3, 4)));
/* At most count characters are written; -1 when the text is longer than count or does not fit. */
KOVA_API int snprintf_s(char *dst, size_t dstSize, size_t count, const char *format, ...)
    __attribute__((format(printf, 4, 5)));
/* Cuts the text to fit and returns the count written. Size 0 fails and writes nothing. */
KOVA_API int snprintf_truncated_s(char *dst, size_t dstSize, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

/* "%s" and "%c" take two arguments: the buffer and its size (size_t). */
KOVA_API int sscanf_s(const char *text, const char *format, ...);
KOVA_API int fscanf_s(FILE *stream, const char *format, ...);

KOVA_END_DECLS

#endif /* KOVA_PLATFORM_BOUNDED_STRING_H */
