// The exception report as it goes into the exception log, piece by piece. Other processes' pieces may fall between two
// of ours, never inside one.
//
// A piece that cannot be written is lost; the next ones are still tried.
//
// Signal context: all of it.
#include <unistd.h>
#include <cstring>

#include "base/result.h"
#include "base/shared_word.h"
#include "except/src/proc_agent/exception_log_file.h"
#include "kova/exception_log.h"
#include "kova/exception_report.h"
#include "kova_platform/bounded_string.h"
#include "kova_platform/process_globals.h"

#include "base/signal_path.h"

namespace kova {
namespace {

constexpr std::size_t kLineSize = 256;

Code write_formatted(const char* line, int length) {
    if (length < 0) return kFailed;
    return write_to_log(std::string_view(line, static_cast<std::size_t>(length)));
}

Code write_time_line(const KovaExceptInfo& record) {
    char line[kLineSize];
    const tm& time = record.time;
    return write_formatted(
        line, snprintf_truncated_s(line, sizeof line, "Exception Time:%d-%d-%d  %d:%d:%d\n", time.tm_year + 1900,
                                   time.tm_mon + 1, time.tm_mday, time.tm_hour, time.tm_min, time.tm_sec));
}

Code write_process_line() {
    char name[32] = "";
    const pid_t pid = ::getpid();
    // A name that cannot be read is printed empty.
    static_cast<void>(KOVA_GetProcName(static_cast<std::uint32_t>(pid), name, sizeof name));
    char line[kLineSize];
    return write_formatted(
        line, snprintf_truncated_s(line, sizeof line, "Exception Info(ProcessName=%s,ProcessID=%d)\n", name, pid));
}

// Bytes of the record around one register.
struct RecordSection {
    const char* label;
    std::uint64_t value;
    std::uint64_t start;
    std::uint32_t length;
    const std::uint8_t* bytes;
    std::uint32_t size;
};

void write_record_section(const RecordSection& section, char* text) {
    if (section.length == 0) return;
    KovaDumpMemParam range{};
    KOVA_DumpMemParamSet(&range, section.value, section.label, section.start, section.length);
    std::uint32_t length = 0;
    static_cast<void>(KOVA_PrintRegMemInfo(&range, section.bytes, section.size, text, &length));
    write_section_to_log(std::string_view(text, length));
}

void write_stack_section(const KovaExceptInfo& record, const KovaSpDumpRange* live, char* text) {
    if (record.spDumpLength == 0 || live == nullptr) return;
    KovaDumpMemParam range{};
    KOVA_DumpMemParamSet(&range, record.machineContext.registers.sp, "SP", record.spDumpStart, record.spDumpLength);
    std::uint32_t length = 0;
    static_cast<void>(KOVA_PrintRegSpInfo(live, &range, text, &length));
    write_section_to_log(std::string_view(text, length));
}

}  // namespace
}  // namespace kova

using namespace kova;

uint32_t KOVA_WriteBaseInfoToLog(const KovaExceptInfo* record) {
    if (record == nullptr || write_time_line(*record) != kOk) return kFailed;
    return write_process_line();
}

uint32_t KOVA_PrintfExceptBaseInfo2log(const KovaExceptInfo* record, char* text) {
    if (record == nullptr || text == nullptr) return kFailed;
    std::uint32_t length = 0;
    // The pointers are checked: these cannot fail.
    static_cast<void>(KOVA_PrintfExceptBaseInfo(record, text, &length));
    static_cast<void>(KOVA_PrintRegInfo(&record->machineContext.registers, text, &length));
    static_cast<void>(KOVA_PrintCallStackInfo(record, text, &length));
    write_section_to_log(std::string_view(text, length));
    return kOk;
}

void KOVA_PrintExceptInfo2log(const KovaExceptInfo* record, uint32_t mapSize, const KovaSpDumpRange* range) {
    char* const text = load_acquire(g_kovaExceptLogbuf);
    if (record == nullptr || text == nullptr) return;
    std::memset(text, 0, KOVA_EXCEPT_TEXT_SIZE);
    // The pointers are checked: it cannot fail. The call stack is not collected yet and prints as its heading.
    static_cast<void>(KOVA_PrintfExceptBaseInfo2log(record, text));
    KOVA_PrintRegisterInfo2log(record, mapSize, text);

    const KovaRegisterBlock& registers = record->machineContext.registers;
    write_stack_section(*record, range, text);
    write_record_section(
        {"PC", registers.pc, record->pcDumpStart, record->pcDumpLength, record->pcDump, sizeof record->pcDump}, text);
    write_record_section(
        {"FP", registers.x[29], record->fpDumpStart, record->fpDumpLength, record->fpDump, sizeof record->fpDump},
        text);
    write_record_section(
        {"LR", registers.x[30], record->lrDumpStart, record->lrDumpLength, record->lrDump, sizeof record->lrDump},
        text);
}
