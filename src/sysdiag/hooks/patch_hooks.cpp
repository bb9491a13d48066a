// What the patch service calls when a patch is made active or inactive.
//
// The reserved functions of the two libraries do the same until a patch replaces one of them. They must stay four
// functions, each reached through its own name: hence KOVA_PATCHABLE.
#include "kova/patch_hooks.h"

#include <cstring>

#include "base/landing_pad.h"
#include "base/log_message.h"
#include "base/result.h"

namespace kova {
namespace {

constexpr int32_t kActivate = 0;
constexpr int32_t kDeactivate = 1;

struct Library {
    const char* file_name;
    void (*activate)();
    void (*deactivate)();
    const char* refused;
};

constexpr Library kAgent = {
    "libkova_sysdiag_agent_native.so",
    libkova_sysdiag_agent_native_ResPatchC2hActivefunc,
    libkova_sysdiag_agent_native_ResPatchC2hDeactivefunc,
    "Kova libkova_sysdiag_agent_native c2h active or deactive unsuccessful.",
};

constexpr Library kBase = {
    "libkova_base.so",
    libkova_base_ResPatchC2hActivefunc,
    libkova_base_ResPatchC2hDeactivefunc,
    "Kova base c2h active or deactive unsuccessful.",
};

Code synchronise(const Library& library, int32_t operation, const void* patch_record, uint32_t* handled) {
    if (handled == nullptr) return kOk;
    *handled = 0;
    if (patch_record == nullptr) return kOk;
    // How much room the record has for the name is not known here: nothing is read past the first difference.
    const char* const patched = static_cast<const char*>(patch_record) + KOVA_PATCH_RECORD_LIBRARY_NAME;
    if (std::strcmp(patched, library.file_name) != 0) return kOk;
    Code result = kOk;
    if (operation == kActivate) {
        library.activate();
    } else if (operation == kDeactivate) {
        library.deactivate();
    } else {
        KovaDLogWrite(KOVA_LOG_BASE(kIdGeneral), "%s", library.refused);
        result = kFailed;
    }
    *handled = 1;
    return result;
}

}  // namespace
}  // namespace kova

KOVA_PATCHABLE void libkova_sysdiag_agent_native_ResPatchC2hActivefunc(void) {
    KOVA_LANDING_PAD();
    KovaDLogWrite(KOVA_LOG_INFO, "Kova reserved patch c2h active");
}

KOVA_PATCHABLE void libkova_sysdiag_agent_native_ResPatchC2hDeactivefunc(void) {
    KOVA_LANDING_PAD();
    KovaDLogWrite(KOVA_LOG_INFO, "Kova reserved patch c2h deactive");
}

KOVA_PATCHABLE void libkova_base_ResPatchC2hActivefunc(void) {
    KOVA_LANDING_PAD();
    KovaDLogWrite(KOVA_LOG_INFO, "Kova reserved patch c2h active");
}

KOVA_PATCHABLE void libkova_base_ResPatchC2hDeactivefunc(void) {
    KOVA_LANDING_PAD();
    KovaDLogWrite(KOVA_LOG_INFO, "Kova reserved patch c2h deactive");
}

uint32_t libkova_sysdiag_agent_native_PAT_C2HSyncHookFunc(int32_t operation, uintptr_t /*unused*/,
                                                          const void* patchRecord, uint32_t* handled) {
    return kova::synchronise(kova::kAgent, operation, patchRecord, handled);
}

uint32_t libkova_base_PAT_C2HSyncHookFunc(int32_t operation, uintptr_t /*unused*/, const void* patchRecord,
                                          uint32_t* handled) {
    return kova::synchronise(kova::kBase, operation, patchRecord, handled);
}
