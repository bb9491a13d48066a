// Exception and assert records as text for people.
//
// Everything comes from a file and is hostile: texts are cut at their field, bytes that are not printable ASCII are
// written \xNN (a terminal must not be steered by a process name), counts and lengths are cut to what their fields
// hold.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "kova/assert_record.h"
#include "kova/exception_record.h"

namespace kova::kovactl {

// A text field up to its terminator or its end.
[[nodiscard]] std::string escape_text(std::span<const char> field);

// "2025-03-04 05:06:07" with the given character between date and time. None when a field is out of its range.
[[nodiscard]] std::optional<std::string> format_time(const struct tm& time, char separator);

// Of a fault the sender id is part of the fault address: nobody sent the signal.
[[nodiscard]] bool has_sender(const KovaExceptInfo& record);

// One of the four memory copies of a record, cut to its field.
struct MemoryDump {
    const char* name;  // "SP"
    std::uint64_t start;
    std::span<const std::uint8_t> bytes;
};
inline constexpr std::uint32_t kDumpCount = 4;
[[nodiscard]] MemoryDump memory_dump(const KovaExceptInfo& record, std::uint32_t index);

// The call stack of a record, cut to what its fields hold.
struct CallStack {
    std::uint32_t claimed_depth;
    std::span<const std::uint64_t> addresses;
    std::span<const char[KOVA_SYMBOL_TEXT_SIZE]> symbols;  // as many
};
[[nodiscard]] CallStack call_stack(const KovaExceptInfo& record);
[[nodiscard]] CallStack call_stack(const KovaAssertItem& record);

// "11 SIGSEGV", "route.c:211", "crasher[123]"
[[nodiscard]] std::string signal_text(const KovaExceptInfo& record);
[[nodiscard]] std::string place_text(const KovaAssertItem& record);
[[nodiscard]] std::string process_text(std::span<const char> name, std::int64_t id);

// The whole record: header, call stack, and of an exception registers and dumps. Many lines.
[[nodiscard]] std::string record_text(const KovaExceptInfo& record);
[[nodiscard]] std::string record_text(const KovaAssertItem& record);

}  // namespace kova::kovactl
