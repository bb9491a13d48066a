// The texts of an exception report that come from the record alone: header, registers, call stack.
//
// Each function appends to the capture's text buffer (10240 bytes) and cuts what does not fit.
//
// Signal context: all of it.
#include <algorithm>
#include <cstring>

#include "base/result.h"
#include "base/text_buffer.h"
#include "kova/exception_report.h"
#include "kova/node_identity.h"
#include "kova_platform/bounded_string.h"

#include "base/signal_path.h"

namespace kova {
namespace {

constexpr std::uint32_t kIdentityTextSize = 50;

template <typename... Arguments>
void append_line(char* text, std::uint32_t* length, const char* format, Arguments... arguments) {
    if (*length >= KOVA_EXCEPT_TEXT_SIZE) return;
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
    const int count = snprintf_truncated_s(text + *length, KOVA_EXCEPT_TEXT_SIZE - *length, format, arguments...);
#pragma GCC diagnostic pop
    if (count > 0) *length += static_cast<std::uint32_t>(count);
}

// How much of a record's text may be printed: a record that a caller made need not be terminated.
template <std::size_t kSize>
int bounded(const char (&text)[kSize]) {
    return static_cast<int>(::strnlen(text, kSize));
}

// "Reg:%4s, Val = 0x%.16lx;"
void append_register(TextBuffer& out, std::string_view name, std::uint64_t value) {
    constexpr std::string_view kFour = "    ";
    out.append("Reg:");
    if (name.size() < kFour.size()) out.append(std::string_view(kFour.data(), kFour.size() - name.size()));
    out.append(name);
    out.append(", Val = 0x");
    out.append_hex(value, 16);
    out.append(';');
}

void append_general_register(TextBuffer& out, unsigned number, std::uint64_t value) {
    char text[8];
    TextBuffer name(text, sizeof text);
    name.append('X');
    name.append_decimal(number);
    append_register(out, std::string_view(text, name.length()), value);
    out.append("    ");
}

}  // namespace
}  // namespace kova

using namespace kova;

uint32_t KOVA_PrintfExceptBaseInfo(const KovaExceptInfo* record, char* text, uint32_t* length) {
    if (record == nullptr || text == nullptr || length == nullptr) return kFailed;
    char slot[kIdentityTextSize] = "";
    char cpu[kIdentityTextSize] = "";
    // A text that cannot be made is printed empty.
    static_cast<void>(KOVA_GetSlotIdStr(slot, sizeof slot));
    static_cast<void>(KOVA_GetCpuIdStr(cpu, sizeof cpu));

    append_line(text, length, "\n===================== Exception info (no:  0  idx:  0) =====================\n");
    const tm& time = record->time;
    append_line(text, length, "Exception Time:            %04d-%02d-%02d  %02d:%02d:%02d\n", time.tm_year + 1900,
                time.tm_mon + 1, time.tm_mday, time.tm_hour, time.tm_min, time.tm_sec);
    append_line(text, length, "Exception Slot/CPU:        %s/%s\n", slot, cpu);
    append_line(text, length, "Exception Number:          %d\n", record->signalNumber);
    append_line(text, length, "Exception Name:            %.*s\n", bounded(record->signalName), record->signalName);
    append_line(text, length, "Exception Code:            %d\n", record->signalCode);
    append_line(text, length, "Exception Thread ID:       %d\n", record->threadId);
    append_line(text, length, "Exception Process ID:      %d\n", record->processId);
    append_line(text, length, "Exception Process Name:    %.*s\n", bounded(record->processName), record->processName);
    append_line(text, length, "Exception Sender PID:      %u\n", record->senderProcessId);
    append_line(text, length, "Exception Sender NAME:     %.*s\n", bounded(record->senderProcessName),
                record->senderProcessName);
    append_line(text, length, "Exception Tick:            0x%08x%s0x%08x%s\n", record->cpuTickHigh, "(CPU Tick High) ",
                record->cpuTickLow, "(CPU Tick Low)");
    return kOk;
}

uint32_t KOVA_PrintRegInfo(const KovaRegisterBlock* registers, char* text, uint32_t* length) {
    if (registers == nullptr || text == nullptr || length == nullptr) return kFailed;
    if (*length >= KOVA_EXCEPT_TEXT_SIZE) return kOk;
    TextBuffer out(text, KOVA_EXCEPT_TEXT_SIZE, *length);
    out.append("Register Contents:\n");
    for (unsigned number = 0; number <= 30; ++number) {
        append_general_register(out, number, registers->x[number]);
        if (number % 2 == 1) out.append('\n');
    }
    append_register(out, "sp", registers->sp);
    out.append('\n');
    append_register(out, "pc", registers->pc);
    out.append("    ");
    append_register(out, "lr", registers->x[30]);
    out.append('\n');
    append_register(out, "pstate", registers->pstate);
    out.append("  ");
    append_register(out, "faultaddr", registers->faultAddress);
    out.append('\n');
    *length = static_cast<std::uint32_t>(out.length());
    return kOk;
}

uint32_t KOVA_PrintCallStackInfo(const KovaExceptInfo* record, char* text, uint32_t* length) {
    if (record == nullptr || text == nullptr || length == nullptr || *length >= KOVA_EXCEPT_TEXT_SIZE) return kOk;
    TextBuffer out(text, KOVA_EXCEPT_TEXT_SIZE, *length);
    out.append("Show CallStack:\n");
    const std::uint32_t depth = std::min<std::uint32_t>(record->callStackDepth, KOVA_CALL_STACK_MAX);
    // "#%u  Instruction Address: 0x%.16lx, Func:%s\n"
    for (std::uint32_t frame = 0; frame < depth; ++frame) {
        const char* const symbol = record->callStackSymbol[frame];
        out.append('#');
        out.append_decimal(frame);
        out.append("  Instruction Address: 0x");
        out.append_hex(record->callStackAddress[frame], 16);
        out.append(", Func:");
        out.append(std::string_view(symbol, ::strnlen(symbol, KOVA_SYMBOL_TEXT_SIZE)));
        out.append('\n');
    }
    *length = static_cast<std::uint32_t>(out.length());
    return kOk;
}
