/*
 * The assert item: what is known of an assert, in 1904 bytes.
 *
 * It is stored byte for byte in box 1 of the black box, so this layout is a file format. All fields are little-endian;
 * reserved fields and what lies behind a text's terminator are 0. Texts are terminated within their field in items made
 * by the library; whoever reads one from a file must not rely on it.
 */
#ifndef KOVA_ASSERT_RECORD_H
#define KOVA_ASSERT_RECORD_H

#include <stddef.h>
#include <stdint.h>
#include <time.h>

#include "kova/exception_record.h"
#include "kova/export.h"

KOVA_BEGIN_DECLS

#define KOVA_ASSERT_MARKER 0xAEAEAEAEU
#define KOVA_ASSERT_FILE_NAME_SIZE 32

/* The same layout as the call-stack fields of an exception record. Entries beyond the depth are 0. */
typedef struct KovaCallStack {
    uint32_t depth; /* 0 to 20; an assert has at most 19 */
    uint32_t reserved4;
    uint64_t address[KOVA_CALL_STACK_MAX]; /* innermost first */
    char symbol[KOVA_CALL_STACK_MAX][KOVA_SYMBOL_TEXT_SIZE];
} KovaCallStack;

/* An assert is told from others by its file name and its line. */
typedef struct KovaAssertItem {
    uint32_t magic; /* KOVA_ASSERT_MARKER */
    uint32_t reserved4;
    struct tm time;           /* UTC, of the latest occurrence; tm_zone means nothing outside the process */
    uint32_t occurrenceCount; /* 1 for an assert that was raised once */
    uint32_t threadId;        /* thread, process and what follows: of the first occurrence */
    uint32_t processId;
    char processName[32];
    char slotText[50];                         /* of the board */
    char fileName[KOVA_ASSERT_FILE_NAME_SIZE]; /* of the asserting source, without its folders */
    uint8_t reserved190[2];
    uint32_t line;
    char platformName[64];
    char platformVersion[64];
    char withLog[128]; /* text of the asserting code, or empty */
    uint32_t reserved452;
    KovaCallStack callStack;
} KovaAssertItem;

#define KOVA_ASSERT_AT(field, offset) \
    KOVA_STATIC_ASSERT(offsetof(KovaAssertItem, field) == (offset), "file format: " #field)
KOVA_STATIC_ASSERT(sizeof(KovaCallStack) == 1448, "file format: call stack");
KOVA_STATIC_ASSERT(offsetof(KovaCallStack, address) == 8, "file format: addresses");
KOVA_STATIC_ASSERT(offsetof(KovaCallStack, symbol) == 168, "file format: symbols");
KOVA_STATIC_ASSERT(sizeof(KovaAssertItem) == 1904, "file format: item");
KOVA_ASSERT_AT(time, 8);
KOVA_ASSERT_AT(occurrenceCount, 64);
KOVA_ASSERT_AT(threadId, 68);
KOVA_ASSERT_AT(processId, 72);
KOVA_ASSERT_AT(processName, 76);
KOVA_ASSERT_AT(slotText, 108);
KOVA_ASSERT_AT(fileName, 158);
KOVA_ASSERT_AT(line, 192);
KOVA_ASSERT_AT(platformName, 196);
KOVA_ASSERT_AT(platformVersion, 260);
KOVA_ASSERT_AT(withLog, 324);
KOVA_ASSERT_AT(callStack, 456);
#undef KOVA_ASSERT_AT

KOVA_END_DECLS

#endif /* KOVA_ASSERT_RECORD_H */
