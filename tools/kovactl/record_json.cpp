// Exception and assert records as JSON for programs; see record_json.h.
#include "record_json.h"

#include <string>

#include <fmt/format.h>

#include "record_text.h"

namespace kova::kovactl {
namespace {

std::string hex(std::uint64_t value) {
    return fmt::format("0x{:016x}", value);
}

Json registers_json(const KovaRegisterBlock& registers) {
    Json json;
    json["fault_address"] = hex(registers.faultAddress);
    for (std::size_t i = 0; i < std::size(registers.x); ++i) json[fmt::format("x{}", i)] = hex(registers.x[i]);
    json["sp"] = hex(registers.sp);
    json["pc"] = hex(registers.pc);
    json["pstate"] = hex(registers.pstate);
    return json;
}

Json call_stack_json(const CallStack& stack) {
    Json frames = Json::array();
    for (std::size_t i = 0; i < stack.addresses.size(); ++i) {
        frames.push_back({{"address", hex(stack.addresses[i])}, {"symbol", escape_text(stack.symbols[i])}});
    }
    return frames;
}

template <typename Record>
Json process_json(const Record& record) {
    return {{"id", record.processId}, {"name", escape_text(record.processName)}};
}

template <typename Record>
Json platform_json(const Record& record) {
    return {{"name", escape_text(record.platformName)}, {"version", escape_text(record.platformVersion)}};
}

Json dumps_json(const KovaExceptInfo& record) {
    Json dumps;
    const char* const names[kDumpCount] = {"sp", "pc", "lr", "fp"};
    for (std::uint32_t i = 0; i < kDumpCount; ++i) {
        const MemoryDump dump = memory_dump(record, i);
        dumps[names[i]] = {{"start", hex(dump.start)}, {"bytes", fmt::format("{:02x}", fmt::join(dump.bytes, ""))}};
    }
    return dumps;
}

}  // namespace

Json time_json(const struct tm& time) {
    const auto text = format_time(time, 'T');
    return text.has_value() ? Json(*text + "Z") : Json(nullptr);
}

Json summary_json(const KovaExceptInfo& record) {
    Json json;
    json["time"] = time_json(record.time);
    json["signal"] = {
        {"number", record.signalNumber}, {"name", escape_text(record.signalName)}, {"code", record.signalCode}};
    json["process"] = process_json(record);
    json["thread"] = record.threadId;
    if (has_sender(record)) {
        json["sender"] = {{"id", record.senderProcessId}, {"name", escape_text(record.senderProcessName)}};
    } else {
        json["sender"] = nullptr;
    }
    return json;
}

Json record_json(const KovaExceptInfo& record) {
    Json json = summary_json(record);
    json["platform"] = platform_json(record);
    json["registers"] = registers_json(record.machineContext.registers);
    json["call_stack"] = call_stack_json(call_stack(record));
    json["dumps"] = dumps_json(record);
    return json;
}

Json summary_json(const KovaAssertItem& record) {
    Json json;
    json["time"] = time_json(record.time);
    json["occurrences"] = record.occurrenceCount;
    json["file"] = escape_text(record.fileName);
    json["line"] = record.line;
    json["text"] = escape_text(record.withLog);
    json["process"] = process_json(record);
    json["thread"] = record.threadId;
    return json;
}

Json record_json(const KovaAssertItem& record) {
    Json json = summary_json(record);
    json["slot_text"] = escape_text(record.slotText);
    json["platform"] = platform_json(record);
    json["call_stack"] = call_stack_json(call_stack(record));
    return json;
}

}  // namespace kova::kovactl
