// The record of an assert as it lies in box 1.
#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>

#include "kova/exception_record.h"

namespace kova::kovactl {

inline constexpr std::uint32_t kAssertMarker = 0xAEAEAEAE;

struct AssertItem {
    std::uint32_t magic;
    std::uint32_t reserved4;
    struct tm time;             // UTC, of the latest occurrence
    std::uint32_t occurrences;  // 1 for an assert that was raised once
    std::int32_t threadId;
    std::int32_t processId;
    char processName[32];
    char slotText[50];
    char fileName[32];  // of the source, without its folders
    std::uint8_t reserved190[2];
    std::uint32_t line;
    char platformName[64];
    char platformVersion[64];
    char text[128];  // the asserting code's own
    std::uint32_t reserved452;
    std::uint32_t callStackDepth;
    std::uint32_t reserved460;
    std::uint64_t callStackAddress[KOVA_CALL_STACK_MAX];
    char callStackSymbol[KOVA_CALL_STACK_MAX][KOVA_SYMBOL_TEXT_SIZE];
};
static_assert(sizeof(AssertItem) == 1904);
static_assert(offsetof(AssertItem, occurrences) == 64);
static_assert(offsetof(AssertItem, fileName) == 158);
static_assert(offsetof(AssertItem, text) == 324);
static_assert(offsetof(AssertItem, callStackDepth) == 456);

}  // namespace kova::kovactl
