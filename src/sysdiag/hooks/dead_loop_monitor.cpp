// The dead-loop monitor's public names. Several forward to the same function and must still stay functions of their
// own, so that a patch of one leaves the others alone.
//
// Signal context: nothing of ours but a jump.
#include "kova/dead_loop_monitor.h"

#include "base/landing_pad.h"
#include "kova_platform/dead_loop.h"

#define FORWARD(name, target)                           \
    KOVA_PATCHABLE uintptr_t name(KOVA_MONITOR_WORDS) { \
        KOVA_LANDING_PAD();                             \
        return target(a0, a1, a2, a3, a4, a5, a6, a7);  \
    }

FORWARD(KOVA_InitDeadloopMon, KOVA_InitDeadloopMonInner)
FORWARD(KOVA_InitDeadloopMonitor, KOVA_InitDeadloopMonitorInner)
FORWARD(KOVA_RegDeadloopMon, KOVA_RegDeadloopMonInner)
FORWARD(KOVA_RegDeadloopMonCallback, KOVA_RegDeadloopMonCallbackInner)
FORWARD(KOVA_UnRegDeadloopMon, KOVA_UnRegDeadloopMonInner)
FORWARD(KOVA_DmOpers, KOVA_DmOpersInner)
FORWARD(KOVA_CheckAndRepairDeadloop, KOVA_CheckAndRepairDeadloopInner)
FORWARD(KOVA_GetCallstackByPthreadId, KOVA_GetCallstackByPthreadIdInner)
FORWARD(InitDeadloopMon, KOVA_InitDeadloopMonInner)
FORWARD(regDeadloopMon, KOVA_RegDeadloopMonInner)
FORWARD(dm_opers, KOVA_DmOpersInner)
FORWARD(KOVA_InitDeadloopInfoRegion, KOVA_InitDeadloopMonInner)
FORWARD(KOVA_RecordDeadloopInfo, RecordThreadDeadLoopInfo)
FORWARD(KOVA_RegDeadloopEventReport, KovaRegDeadloopEventReport)
FORWARD(KOVA_GetDeadloopCfgCount, KovaGetDeadloopCfgCount)
FORWARD(KOVA_GetDeadloopCfg, KovaGetDeadloopCfg)
