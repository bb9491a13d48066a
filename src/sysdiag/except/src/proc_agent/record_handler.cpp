// The record handler: the road of a fatal signal from the host's handler to the log and the black box.
//
// What is known is written before anything that may fault: the trace line first, then the marker and the ids of the
// record. Steps that may fault run under recovery points, steps that may wait have a bound, and no failed step keeps
// the later ones from running.
//
// Signal context: all of it. Record, text buffer and register-memory buffer belong to the thread that holds the claim.
#include <sys/syscall.h>
#include <unistd.h>
#include <cstring>
#include <ctime>

#include "base/own_fault.h"
#include "base/result.h"
#include "base/shared_word.h"
#include "base/signal_scope.h"
#include "except/src/proc_agent/box_ring.h"
#include "except/src/proc_agent/capture_claim.h"
#include "except/src/proc_agent/capture_map.h"
#include "except/src/proc_agent/exception_log_file.h"
#include "except/src/proc_agent/platform_text.h"
#include "except/src/proc_agent/recovery.h"
#include "kova/calendar_time.h"
#include "kova/exception_capture.h"
#include "kova/exception_log.h"
#include "kova/exception_report.h"
#include "kova/memory_map.h"
#include "kova_platform/bounded_string.h"
#include "kova_platform/process_globals.h"

#include "base/signal_path.h"

namespace kova {
namespace {

constexpr std::uint32_t kExceptionBox = 0;
constexpr std::size_t kBoxErrorLineSize = 126;

// Marker and ids, which cost nothing: whatever step hangs or faults later, a record that is stored by then says what it
// is and whose.
void start_record(KovaExceptInfo* record, std::int32_t signal, const siginfo_t& info) {
    record->magic = KOVA_EXCEPT_MARKER;
    record->signalNumber = signal;
    record->signalCode = info.si_code;
    record->threadId = static_cast<std::int32_t>(::syscall(SYS_gettid));
    record->processId = ::getpid();
    record->senderProcessId = static_cast<std::uint32_t>(info.si_pid);
    KOVA_GetCpuTick(&record->cpuTickHigh, &record->cpuTickLow);
    // Answers the seconds that it converted.
    static_cast<void>(KovaGetGMTTimeNoLocks(&record->time));
    // One that does not fit stays empty.
    static_cast<void>(copy_platform_text(record->platformName, sizeof record->platformName, g_kovaPlatformName));
    static_cast<void>(
        copy_platform_text(record->platformVersion, sizeof record->platformVersion, g_kovaPlatformVersion));
}

void store_record(const KovaExceptInfo& record) {
    const Code rc = append_to_box(kExceptionBox, &record, sizeof record, nullptr);
    if (rc == kOk) return;
    char line[kBoxErrorLineSize];
    const int length = snprintf_truncated_s(line, sizeof line, "KOVA Box Write unsuccessful.(ret=%u)\n", rc);
    // Nobody is left to tell when the log fails too.
    if (length > 0) static_cast<void>(write_to_log(std::string_view(line, static_cast<std::size_t>(length))));
}

void record_fatal_signal(KovaExceptInfo* record, std::int32_t signal, const siginfo_t& info, void* context) {
    start_record(record, signal, info);
    // Every step below does what it can; a failed one has its place in the report left empty.
    static_cast<void>(KOVA_WriteBaseInfoToLog(record));
    begin_capture_map();
    KOVA_DumpMapsFile();
    KOVA_CopyRegisterInfo(&record->machineContext.registers, context);
    const std::uint32_t map_size = capture_map_size();
    KovaSpDumpRange live_stack{};
    static_cast<void>(KOVA_FillExceptBaseInfo(record, signal, &info, map_size, &live_stack));
    KOVA_PrintExceptInfo2log(record, map_size, &live_stack);
    end_capture_map();
    static_cast<void>(KOVA_GetCallStack(record, context));
    store_record(*record);
    char* const text = load_acquire(g_kovaExceptLogbuf);
    if (text != nullptr) static_cast<void>(KOVA_PrintfExceptBaseInfo2log(record, text));
}

void record_termination(KovaExceptInfo* record, const siginfo_t& info, void* context) {
    record->signalNumber = SIGTERM;
    record->senderProcessId = static_cast<std::uint32_t>(info.si_pid);
    KOVA_SigTermHandler(record, KOVA_GetCallStack, context);
}

}  // namespace
}  // namespace kova

using namespace kova;

void KOVA_SignalInfoRecordHandler(int32_t signal, siginfo_t* info, void* context) {
    if (info == nullptr) return;
    const SignalScope scope;
    if (!scope.is_nested()) drop_recovery_points();
    // A trace line that cannot be written is lost.
    static_cast<void>(KOVA_WriteSigTrace2Log(info->si_pid, signal, "[Native]KOVA_SignalInfoRecordHandler"));
    if (scope.is_nested() && is_own_fault(signal, *info)) recover_if_armed();

    KovaExceptInfo* const record = load_acquire(g_kovaBoxExceptInfo);
    if (record == nullptr || !claim_capture()) return;
    std::memset(record, 0, sizeof *record);
    if (signal == SIGTERM) {
        record_termination(record, *info, context);
    } else {
        record_fatal_signal(record, signal, *info, context);
    }
    release_capture();
}
