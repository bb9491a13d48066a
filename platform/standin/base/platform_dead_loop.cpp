// The dead-loop monitor of a node that watches no thread: every call is accepted and does nothing.
//
// Signal context: all of it.
#include "kova_platform/dead_loop.h"

#define ACCEPT(name)                                                                                         \
    uintptr_t name(uintptr_t, uintptr_t, uintptr_t, uintptr_t, uintptr_t, uintptr_t, uintptr_t, uintptr_t) { \
        return 0;                                                                                            \
    }

ACCEPT(KOVA_InitDeadloopMonInner)
ACCEPT(KOVA_InitDeadloopMonitorInner)
ACCEPT(KOVA_RegDeadloopMonInner)
ACCEPT(KOVA_RegDeadloopMonCallbackInner)
ACCEPT(KOVA_UnRegDeadloopMonInner)
ACCEPT(KOVA_DmOpersInner)
ACCEPT(KOVA_CheckAndRepairDeadloopInner)
ACCEPT(KOVA_GetCallstackByPthreadIdInner)
ACCEPT(RecordThreadDeadLoopInfo)
ACCEPT(KovaRegDeadloopEventReport)
ACCEPT(KovaGetDeadloopCfgCount)
ACCEPT(KovaGetDeadloopCfg)
ACCEPT(KovaRecordExternalThreadDeadLoopInfo)
