// The hot-patch symbol services of a process that is never patched.
//
// Signal context: all of it.
#include "kova_platform/patch.h"

uint32_t RUX_DLLPatchSegAddrCheck(uint64_t) {
    return 0;
}

const char* RUX_DLLPatchSymNameGet_Safe(uint64_t) {
    return nullptr;
}

uint32_t RUX_PatchSegAddrCheck(uint64_t) {
    return 0;
}

const char* RUX_PatchSymNameGet_Safe(uint64_t) {
    return nullptr;
}
