// Fills the exception record from what the kernel told the handler.
//
// Signal context: all of it.
#include <sys/syscall.h>
#include <unistd.h>
#include <cstring>

#include "base/result.h"
#include "except/src/proc_agent/registers.h"
#include "kova/exception_log.h"
#include "kova/exception_report.h"
#include "kova/memory_map.h"

#include "base/signal_path.h"

namespace kova {
namespace {

constexpr std::uint32_t kCapturedNameSize = 32;

// Bytes below and above sp that are printed live; the record keeps fewer.
constexpr std::uint32_t kStackBefore = 512;
constexpr std::uint32_t kStackAfter = 3072;

// Copies the memory around one register into the record. Start and length are 0 when there is nothing to copy.
template <std::size_t kSize>
void copy_around(std::uint64_t value, std::uint32_t before, std::uint32_t after, std::uint32_t map_size,
                 std::uint8_t (&bytes)[kSize], std::uint64_t* start, std::uint32_t* length) {
    KovaDumpMemParam range{};
    range.value = value;
    range.before = before;
    range.after = after;
    range.mapSize = static_cast<std::int32_t>(map_size);
    const bool copied = KOVA_DumpRegisterContext(bytes, kSize, &range) == kOk;
    *start = copied ? range.start : 0;
    *length = copied ? static_cast<std::uint32_t>(range.length) : 0;
}

}  // namespace
}  // namespace kova

using namespace kova;

KovaRegisterBlock* KOVA_CopyRegisterInfo(KovaRegisterBlock* registers, const void* context) {
    if (registers != nullptr && context != nullptr) {
        copy_registers(*static_cast<const ucontext_t*>(context), registers);
    }
    return registers;
}

uint32_t KOVA_FillExceptBaseInfo(KovaExceptInfo* record, int32_t signal, const siginfo_t* info, uint32_t mapSize,
                                 KovaSpDumpRange* range) {
    if (record == nullptr || info == nullptr) return kFailed;
    record->magic = KOVA_EXCEPT_MARKER;
    record->signalNumber = signal;
    // The name stays empty when it cannot be formatted.
    static_cast<void>(KOVA_GetSignalName(signal, record->signalName));
    record->threadId = static_cast<std::int32_t>(::syscall(SYS_gettid));
    record->processId = ::getpid();
    record->senderProcessId = static_cast<std::uint32_t>(info->si_pid);
    // A process that is gone, or that is none, leaves its name empty.
    static_cast<void>(KOVA_GetProcName(static_cast<std::uint32_t>(record->processId), record->processName,
                                       sizeof record->processName));
    static_cast<void>(KOVA_GetProcName(record->senderProcessId, record->senderProcessName, kCapturedNameSize));
    record->signalCode = info->si_code;

    const KovaRegisterBlock& registers = record->machineContext.registers;
    KovaDumpMemParam stack{};
    stack.value = registers.sp;
    stack.before = kStackBefore;
    stack.after = kStackAfter;
    stack.mapSize = static_cast<std::int32_t>(mapSize);
    KOVA_FillSpDumpInfo(range, &stack);

    copy_around(registers.sp, 512, 1024, mapSize, record->spDump, &record->spDumpStart, &record->spDumpLength);
    copy_around(registers.pc, 512, 512, mapSize, record->pcDump, &record->pcDumpStart, &record->pcDumpLength);
    copy_around(registers.x[30], 256, 256, mapSize, record->lrDump, &record->lrDumpStart, &record->lrDumpLength);
    copy_around(registers.x[29], 256, 256, mapSize, record->fpDump, &record->fpDumpStart, &record->fpDumpLength);
    return kOk;
}
