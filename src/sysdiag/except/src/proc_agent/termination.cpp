// What SIGTERM leaves: a call stack, when the process is exiting abnormally. No time, registers or record.
//
// Signal context: all of it.
#include "base/result.h"
#include "base/shared_word.h"
#include "except/src/proc_agent/exception_log_file.h"
#include "kova/exception_capture.h"
#include "kova/exception_report.h"
#include "kova_platform/process_globals.h"

#include "base/signal_path.h"

using namespace kova;

uint32_t KOVA_IsProcessAbnormalExit(void) {
    const KovaAbnormalExitQuery query = load_acquire(g_kovaIsProcessAbnormalExit);
    return query != nullptr ? query() : 0;
}

void KOVA_SigTermHandler(KovaExceptInfo* record, uint32_t (*callStack)(KovaExceptInfo* record, void* context),
                         void* context) {
    if ((KOVA_IsProcessAbnormalExit() & 1) == 0) return;
    char* const text = load_acquire(g_kovaExceptLogbuf);
    if (text == nullptr || record == nullptr || callStack == nullptr) return;
    KOVA_CopyRegisterInfo(&record->machineContext.registers, context);
    // Its failure leaves a stack of no frames, which is printed as such.
    static_cast<void>(callStack(record, context));
    std::uint32_t length = 0;
    static_cast<void>(KOVA_PrintCallStackInfo(record, text, &length));
    write_section_to_log(std::string_view(text, length));
}
