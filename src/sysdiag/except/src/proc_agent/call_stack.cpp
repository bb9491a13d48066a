// Collects the call stack of a fatal signal and names its frames.
//
// The unwinder and the symbol look-up read a stack and tables that may be garbage: each runs under a recovery point.
//
// Signal context: all of it.
#include <execinfo.h>
#include <algorithm>
#include <cstring>

#include "base/result.h"
#include "base/shared_word.h"
#include "except/src/proc_agent/recovery.h"
#include "kova/exception_report.h"
#include "kova/symbol.h"
#include "kova_platform/process_globals.h"

#include "base/signal_path.h"

namespace kova {
namespace {

// The two innermost frames are the collector's own, when the pc is not among the frames.
constexpr int kOwnFrames = 2;

void set_frames(KovaExceptInfo* record, const std::uint64_t* frames, std::uint32_t count) {
    std::copy_n(frames, count, record->callStackAddress);
    std::fill(record->callStackAddress + count, std::end(record->callStackAddress), 0);
    record->callStackDepth = count;
}

void keep_pc_only(KovaExceptInfo* record) {
    set_frames(record, &record->machineContext.registers.pc, 1);
}

void collect_with_backtrace(KovaExceptInfo* record) {
    void* frames[KOVA_CALL_STACK_MAX];
    int count = 0;
    if (!run_recoverable([&] { count = ::backtrace(frames, KOVA_CALL_STACK_MAX); })) {
        keep_pc_only(record);
        return;
    }
    const auto is_pc = [record](const void* frame) {
        return reinterpret_cast<std::uint64_t>(frame) == record->machineContext.registers.pc;
    };
    void** const end = frames + std::max(count, 0);
    void** start = std::find_if(frames, end, is_pc);
    if (start == end) start = frames + std::min(kOwnFrames, std::max(count, 0));
    std::uint64_t addresses[KOVA_CALL_STACK_MAX];
    std::transform(start, end, addresses, [](const void* frame) { return reinterpret_cast<std::uint64_t>(frame); });
    set_frames(record, addresses, static_cast<std::uint32_t>(end - start));
}

void collect_with_hook(KovaExceptInfo* record, KovaExceptCallStackHook hook, void* context) {
    std::uint32_t rc = kFailed;
    const bool returned = run_recoverable(
        [&] { rc = hook(context, KOVA_CALL_STACK_MAX, 0, record->callStackAddress, &record->callStackDepth); });
    if (!returned || rc != kOk) {
        keep_pc_only(record);
        return;
    }
    record->callStackDepth = std::min<std::uint32_t>(record->callStackDepth, KOVA_CALL_STACK_MAX);
}

void name_frame(KovaExceptInfo* record, std::uint32_t frame) {
    char* const text = record->callStackSymbol[frame];
    const bool returned = run_recoverable([record, frame, text] {
        // An address that belongs to nothing known leaves the text empty.
        static_cast<void>(KOVA_GetFuncSymbol(record->callStackAddress[frame], text, KOVA_SYMBOL_TEXT_SIZE));
    });
    if (!returned) std::memset(text, 0, KOVA_SYMBOL_TEXT_SIZE);
}

}  // namespace
}  // namespace kova

using namespace kova;

uint32_t KOVA_GetCallStack(KovaExceptInfo* record, void* context) {
    if (record == nullptr) return kOk;
    const KovaExceptCallStackHook hook = load_acquire(g_kovaExceptCallback);
    if (hook == nullptr) {
        collect_with_backtrace(record);
    } else {
        collect_with_hook(record, hook, context);
    }
    for (std::uint32_t frame = 0; frame < record->callStackDepth; ++frame) name_frame(record, frame);
    return kOk;
}
