// A program in which one step of the capture faults or hangs.
//
//     faulty_step_helper FUNCTION fault|hang NUMBER
//
// It dies of SIGABRT; calls of FUNCTION go wrong from the NUMBER-th on. Its definitions stand in front of the
// agent's, which they forward to.
#include <dlfcn.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "host/crash_helper_modes.h"
#include "kova/exception_capture.h"
#include "kova/exception_log.h"
#include "kova/exception_report.h"
#include "kova/memory_map.h"
#include "kova/symbol.h"

namespace {

const char* g_faulty_function = "";
bool g_hangs = false;
int g_sound_calls = 0;

void go_wrong_when_asked(const char* function) {
    if (std::strcmp(g_faulty_function, function) != 0 || --g_sound_calls >= 0) return;
    while (g_hangs) ::pause();
    fault();
}

}  // namespace

// What is put together here are names, and lists that bring their parentheses along.
// NOLINTBEGIN(bugprone-macro-parentheses)
#define IN_FRONT_OF(result, name, parameters, arguments)                                          \
    static const auto next_##name = reinterpret_cast<decltype(&name)>(::dlsym(RTLD_NEXT, #name)); \
    result name parameters {                                                                      \
        go_wrong_when_asked(#name);                                                               \
        return next_##name arguments;                                                             \
    }
// NOLINTEND(bugprone-macro-parentheses)

IN_FRONT_OF(uint32_t, KOVA_WriteSigTrace2Log, (int32_t senderPid, int32_t signal, const char* where),
            (senderPid, signal, where))
IN_FRONT_OF(uint32_t, KOVA_WriteBaseInfoToLog, (const KovaExceptInfo* record), (record))
IN_FRONT_OF(void, KOVA_DumpMapsFile, (), ())
IN_FRONT_OF(KovaRegisterBlock*, KOVA_CopyRegisterInfo, (KovaRegisterBlock * registers, const void* context),
            (registers, context))
IN_FRONT_OF(uint32_t, KOVA_FillExceptBaseInfo,
            (KovaExceptInfo * record, int32_t signal, const siginfo_t* info, uint32_t mapSize, KovaSpDumpRange* range),
            (record, signal, info, mapSize, range))
IN_FRONT_OF(uint32_t, KOVA_DumpRegisterContext, (void* destination, uint32_t size, KovaDumpMemParam* param),
            (destination, size, param))
IN_FRONT_OF(void, KOVA_PrintExceptInfo2log,
            (const KovaExceptInfo* record, uint32_t mapSize, const KovaSpDumpRange* range), (record, mapSize, range))
IN_FRONT_OF(void, KOVA_PrintRegisterInfo2log, (const KovaExceptInfo* record, uint32_t mapSize, char* text),
            (record, mapSize, text))
IN_FRONT_OF(uint32_t, KOVA_PrintRegSpInfo,
            (const KovaSpDumpRange* range, const KovaDumpMemParam* param, char* text, uint32_t* currentLength),
            (range, param, text, currentLength))
IN_FRONT_OF(uint32_t, KOVA_GetCallStack, (KovaExceptInfo * record, void* context), (record, context))
IN_FRONT_OF(uint32_t, KOVA_GetFuncSymbol, (uint64_t address, char* buffer, uint32_t length), (address, buffer, length))
IN_FRONT_OF(uint32_t, KOVA_PrintfExceptBaseInfo2log, (const KovaExceptInfo* record, char* text), (record, text))

int main(int, char** argv) {
    g_faulty_function = argv[1];
    g_hangs = std::strcmp(argv[2], "hang") == 0;
    g_sound_calls = std::atoi(argv[3]) - 1;
    std::abort();
}
