// The dead-loop monitor of a platform that watches no threads.
//
// Signal context: safe.
#include "kova_platform/dead_loop.h"

uintptr_t KovaRecordExternalThreadDeadLoopInfo(uintptr_t, uintptr_t, uintptr_t, uintptr_t, uintptr_t, uintptr_t,
                                               uintptr_t, uintptr_t) {
    return 0;
}
