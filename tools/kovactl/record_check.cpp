// Can the bytes of a slot be a record that its writer finished? See record_check.h.
#include "record_check.h"

#include <algorithm>
#include <cstring>
#include <optional>

#include <fmt/format.h>

#include "record_text.h"

namespace kova::kovactl {
namespace {

// The time of a record is where it is in the other box.
constexpr std::size_t kTimeOffset = offsetof(KovaExceptInfo, time);
static_assert(kTimeOffset == offsetof(KovaAssertItem, time));

struct Field {
    const char* name;
    std::size_t at;
    std::uint32_t size;  // of a text, bytes; of a length, the most that fits
};

#define KOVA_TEXT(record, field) \
    { #field, offsetof(record, field), sizeof(record::field) }
#define KOVA_LENGTH(field, bytes) \
    { #field, offsetof(KovaExceptInfo, field), sizeof(KovaExceptInfo::bytes) }

constexpr Field kExceptionTexts[] = {
    KOVA_TEXT(KovaExceptInfo, signalName),   KOVA_TEXT(KovaExceptInfo, processName),
    KOVA_TEXT(KovaExceptInfo, text136),      KOVA_TEXT(KovaExceptInfo, senderProcessName),
    KOVA_TEXT(KovaExceptInfo, platformName), KOVA_TEXT(KovaExceptInfo, platformVersion),
    KOVA_TEXT(KovaExceptInfo, text9920),
};
constexpr Field kExceptionLengths[] = {
    KOVA_LENGTH(spDumpLength, spDump),
    KOVA_LENGTH(pcDumpLength, pcDump),
    KOVA_LENGTH(lrDumpLength, lrDump),
    KOVA_LENGTH(fpDumpLength, fpDump),
    {"callStackDepth", offsetof(KovaExceptInfo, callStackDepth), KOVA_CALL_STACK_MAX},
};
constexpr Field kAssertTexts[] = {
    KOVA_TEXT(KovaAssertItem, processName),     KOVA_TEXT(KovaAssertItem, slotText),
    KOVA_TEXT(KovaAssertItem, fileName),        KOVA_TEXT(KovaAssertItem, platformName),
    KOVA_TEXT(KovaAssertItem, platformVersion), KOVA_TEXT(KovaAssertItem, withLog),
};
constexpr Field kAssertLengths[] = {
    {"callStackDepth", offsetof(KovaAssertItem, callStack.depth), KOVA_CALL_STACK_MAX},
};

#undef KOVA_TEXT
#undef KOVA_LENGTH

constexpr struct {
    std::span<const Field> texts, lengths;
    std::size_t symbols;  // KOVA_CALL_STACK_MAX texts
} kLayouts[kBoxCount] = {
    {kExceptionTexts, kExceptionLengths, offsetof(KovaExceptInfo, callStackSymbol)},
    {kAssertTexts, kAssertLengths, offsetof(KovaAssertItem, callStack.symbol)},
};

template <typename T>
T number_at(SlotBytes slot, std::size_t offset) {
    T value;
    std::memcpy(&value, slot.data() + offset, sizeof value);
    return value;
}

// The name of the field is to stand before what is said.
std::optional<RecordFault> text_fault(SlotBytes slot, std::size_t at, std::size_t size) {
    const SlotBytes field = slot.subspan(at, size);
    const auto* const end = static_cast<const std::uint8_t*>(std::memchr(field.data(), 0, size));
    if (end == nullptr) return RecordFault{at, "is not terminated"};
    const SlotBytes remains = field.subspan(static_cast<std::size_t>(end - field.data()));
    if (is_zero(remains)) return std::nullopt;
    const auto first = std::ranges::find_if(remains, [](std::uint8_t byte) { return byte != 0; });
    return RecordFault{at + size - static_cast<std::size_t>(remains.end() - first),
                       fmt::format("goes on behind its end with 0x{:02x}, expected zeros", *first)};
}

void check_time(SlotBytes slot, std::vector<RecordFault>& faults) {
    // A writer without a time leaves it zero.
    const bool is_missing = std::ranges::all_of(time_key(slot), [](std::int32_t field) { return field == 0; });
    if (!is_missing && !format_time(time_of(slot), ' ').has_value()) {
        faults.push_back({kTimeOffset, "time is none that a calendar has"});
    }
}

}  // namespace

bool is_zero(std::span<const std::uint8_t> bytes) {
    // Equal to itself, moved by one. Whole boxes are looked at, byte by byte it takes a hundred times as long.
    return bytes.empty() || (bytes[0] == 0 && std::memcmp(bytes.data(), bytes.data() + 1, bytes.size() - 1) == 0);
}

std::uint32_t marker_of(SlotBytes slot) {
    return number_at<std::uint32_t>(slot, 0);
}

bool holds_record(std::uint32_t box, SlotBytes slot) {
    return marker_of(slot) == kMarkers[box];
}

struct tm time_of(SlotBytes slot) {
    return number_at<struct tm>(slot, kTimeOffset);
}

TimeKey time_key(SlotBytes slot) {
    const struct tm time = time_of(slot);
    return {time.tm_year, time.tm_mon, time.tm_mday, time.tm_hour, time.tm_min, time.tm_sec};
}

std::vector<RecordFault> record_faults(std::uint32_t box, SlotBytes slot) {
    const auto& layout = kLayouts[box];
    std::vector<RecordFault> faults;
    check_time(slot, faults);
    for (const Field& text : layout.texts) {
        if (const auto fault = text_fault(slot, text.at, text.size)) {
            faults.push_back({fault->at, fmt::format("{} {}", text.name, fault->what)});
        }
    }
    for (std::size_t i = 0; i < KOVA_CALL_STACK_MAX; ++i) {
        if (const auto fault = text_fault(slot, layout.symbols + i * KOVA_SYMBOL_TEXT_SIZE, KOVA_SYMBOL_TEXT_SIZE)) {
            faults.push_back({fault->at, fmt::format("callStackSymbol[{}] {}", i, fault->what)});
        }
    }
    for (const Field& length : layout.lengths) {
        const auto value = number_at<std::uint32_t>(slot, length.at);
        if (value > length.size) {
            faults.push_back({length.at, fmt::format("{} is {}, at most {} fit", length.name, value, length.size)});
        }
    }
    std::ranges::sort(faults, {}, &RecordFault::at);
    return faults;
}

}  // namespace kova::kovactl
