// Exception and assert records as text for people; see record_text.h.
#include "record_text.h"

#include <algorithm>
#include <csignal>
#include <ctime>
#include <iterator>

#include <fmt/format.h>

namespace kova::kovactl {
namespace {

constexpr std::size_t kDumpLineBytes = 16;

bool is_printable(unsigned char c) {
    return c >= 0x20 && c < 0x7F;
}

void append_registers(std::string& text, const KovaRegisterBlock& registers) {
    auto out = std::back_inserter(text);
    fmt::format_to(out, "\nRegisters\n");
    for (std::size_t i = 0; i < std::size(registers.x); ++i) {
        fmt::format_to(out, "{}{:>4} {:016x}",
                       i % 4 == 0 && i != 0 ? "\n"
                       : i == 0             ? ""
                                            : "  ",
                       fmt::format("x{}", i), registers.x[i]);
    }
    fmt::format_to(out, "\n  sp {:016x}    pc {:016x}  pstate {:016x}\n", registers.sp, registers.pc, registers.pstate);
    fmt::format_to(out, "  fault address {:016x}\n", registers.faultAddress);
}

void append_call_stack(std::string& text, const CallStack& stack) {
    auto out = std::back_inserter(text);
    const std::size_t depth = stack.addresses.size();
    fmt::format_to(out, "\nCall stack\n");
    if (depth < stack.claimed_depth) {
        fmt::format_to(out, "  (the record claims {} frames; it has room for {})\n", stack.claimed_depth, depth);
    }
    for (std::size_t i = 0; i < depth; ++i) {
        fmt::format_to(out, "  #{:<2} {:016x} {}\n", i, stack.addresses[i], escape_text(stack.symbols[i]));
    }
    if (depth == 0) fmt::format_to(out, "  (empty)\n");
}

CallStack cut_call_stack(std::uint32_t depth, std::span<const std::uint64_t, KOVA_CALL_STACK_MAX> addresses,
                         std::span<const char[KOVA_SYMBOL_TEXT_SIZE], KOVA_CALL_STACK_MAX> symbols) {
    const std::size_t count = std::min<std::size_t>(depth, KOVA_CALL_STACK_MAX);
    return {.claimed_depth = depth, .addresses = addresses.first(count), .symbols = symbols.first(count)};
}

template <typename Record>
void append_origin(std::string& text, const Record& record) {
    auto out = std::back_inserter(text);
    fmt::format_to(out, "  process   {}\n", process_text(record.processName, record.processId));
    fmt::format_to(out, "  thread    {}\n", record.threadId);
}

template <typename Record>
void append_platform(std::string& text, const Record& record) {
    fmt::format_to(std::back_inserter(text), "  platform  {} {}\n", escape_text(record.platformName),
                   escape_text(record.platformVersion));
}

void append_dump(std::string& text, const MemoryDump& dump) {
    auto out = std::back_inserter(text);
    if (dump.bytes.empty()) {
        fmt::format_to(out, "\nMemory around {}\n  (not readable)\n", dump.name);
        return;
    }
    fmt::format_to(out, "\nMemory around {}, {} bytes\n", dump.name, dump.bytes.size());
    for (std::size_t at = 0; at < dump.bytes.size(); at += kDumpLineBytes) {
        const auto line = dump.bytes.subspan(at, std::min(kDumpLineBytes, dump.bytes.size() - at));
        fmt::format_to(out, "  {:016x} ", dump.start + at);
        for (std::size_t i = 0; i < kDumpLineBytes; ++i) {
            if (i < line.size()) {
                fmt::format_to(out, " {:02x}", line[i]);
            } else {
                fmt::format_to(out, "   ");
            }
        }
        fmt::format_to(out, "  ");
        for (const std::uint8_t byte : line) text.push_back(is_printable(byte) ? static_cast<char>(byte) : '.');
        text.push_back('\n');
    }
}

}  // namespace

std::string escape_text(std::span<const char> field) {
    std::string text;
    for (const char c : field) {
        if (c == '\0') break;
        const auto byte = static_cast<unsigned char>(c);
        if (c == '\\') {
            text += "\\\\";
        } else if (is_printable(byte)) {
            text += c;
        } else {
            fmt::format_to(std::back_inserter(text), "\\x{:02x}", byte);
        }
    }
    return text;
}

std::optional<std::string> format_time(const struct tm& time, char separator) {
    const auto within = [](int value, int low, int high) { return value >= low && value <= high; };
    constexpr int kBaseYear = 1900;
    if (!within(time.tm_year, 0, 9999 - kBaseYear) || !within(time.tm_mon, 0, 11) || !within(time.tm_mday, 1, 31) ||
        !within(time.tm_hour, 0, 23) || !within(time.tm_min, 0, 59) || !within(time.tm_sec, 0, 60)) {
        return std::nullopt;
    }
    return fmt::format("{:04}-{:02}-{:02}{}{:02}:{:02}:{:02}", kBaseYear + time.tm_year, time.tm_mon + 1, time.tm_mday,
                       separator, time.tm_hour, time.tm_min, time.tm_sec);
}

bool has_sender(const KovaExceptInfo& record) {
    // Above 0 the kernel raised it, and what stands in the field is a part of something else, or 0.
    return record.signalCode <= 0;
}

MemoryDump memory_dump(const KovaExceptInfo& record, std::uint32_t index) {
    const auto cut = [](const auto& bytes, std::uint32_t length) {
        return std::span<const std::uint8_t>(bytes).first(std::min<std::size_t>(length, std::size(bytes)));
    };
    switch (index) {
        case 0:
            return {"SP", record.spDumpStart, cut(record.spDump, record.spDumpLength)};
        case 1:
            return {"PC", record.pcDumpStart, cut(record.pcDump, record.pcDumpLength)};
        case 2:
            return {"LR", record.lrDumpStart, cut(record.lrDump, record.lrDumpLength)};
        default:
            return {"FP", record.fpDumpStart, cut(record.fpDump, record.fpDumpLength)};
    }
}

CallStack call_stack(const KovaExceptInfo& record) {
    return cut_call_stack(record.callStackDepth, record.callStackAddress, record.callStackSymbol);
}

CallStack call_stack(const KovaAssertItem& record) {
    return cut_call_stack(record.callStack.depth, record.callStack.address, record.callStack.symbol);
}

std::string signal_text(const KovaExceptInfo& record) {
    return fmt::format("{} {}", record.signalNumber, escape_text(record.signalName));
}

std::string place_text(const KovaAssertItem& record) {
    return fmt::format("{}:{}", escape_text(record.fileName), record.line);
}

std::string process_text(std::span<const char> name, std::int64_t id) {
    return fmt::format("{}[{}]", escape_text(name), id);
}

std::string record_text(const KovaExceptInfo& record) {
    std::string text;
    auto out = std::back_inserter(text);
    fmt::format_to(out, "  time      {} UTC\n", format_time(record.time, ' ').value_or("(not a time)"));
    fmt::format_to(out, "  signal    {}, code {}\n", signal_text(record), record.signalCode);
    append_origin(text, record);
    fmt::format_to(out, "  sender    {}\n",
                   has_sender(record) ? process_text(record.senderProcessName, record.senderProcessId)
                                      : "- (raised by the kernel)");
    append_platform(text, record);
    append_registers(text, record.machineContext.registers);
    append_call_stack(text, call_stack(record));
    for (std::uint32_t i = 0; i < kDumpCount; ++i) append_dump(text, memory_dump(record, i));
    return text;
}

std::string record_text(const KovaAssertItem& record) {
    std::string text;
    auto out = std::back_inserter(text);
    fmt::format_to(out, "  assert    {}\n", place_text(record));
    fmt::format_to(out, "  text      {}\n", escape_text(record.withLog));
    fmt::format_to(out, "  raised    {} times, last at {} UTC\n", record.occurrenceCount,
                   format_time(record.time, ' ').value_or("(not a time)"));
    append_origin(text, record);
    fmt::format_to(out, "  slot      {}\n", escape_text(record.slotText));
    append_platform(text, record);
    append_call_stack(text, call_stack(record));
    return text;
}

}  // namespace kova::kovactl
