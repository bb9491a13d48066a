/*
 * The platform's dead-loop monitor, which watches threads for endless loops.
 *
 * Parameters and results are the monitor's own; the agent passes eight machine words through and hands back one. A
 * target that takes fewer words ignores the rest.
 */
#ifndef KOVA_PLATFORM_DEAD_LOOP_H
#define KOVA_PLATFORM_DEAD_LOOP_H

#include <stdint.h>

#include "kova/dead_loop_monitor.h"
#include "kova/export.h"

KOVA_BEGIN_DECLS

KOVA_API uintptr_t KOVA_InitDeadloopMonInner(KOVA_MONITOR_WORDS);
KOVA_API uintptr_t KOVA_InitDeadloopMonitorInner(KOVA_MONITOR_WORDS);
KOVA_API uintptr_t KOVA_RegDeadloopMonInner(KOVA_MONITOR_WORDS);
KOVA_API uintptr_t KOVA_RegDeadloopMonCallbackInner(KOVA_MONITOR_WORDS);
KOVA_API uintptr_t KOVA_UnRegDeadloopMonInner(KOVA_MONITOR_WORDS);
KOVA_API uintptr_t KOVA_DmOpersInner(KOVA_MONITOR_WORDS);
KOVA_API uintptr_t KOVA_CheckAndRepairDeadloopInner(KOVA_MONITOR_WORDS);
KOVA_API uintptr_t KOVA_GetCallstackByPthreadIdInner(KOVA_MONITOR_WORDS);
KOVA_API uintptr_t RecordThreadDeadLoopInfo(KOVA_MONITOR_WORDS);
KOVA_API uintptr_t KovaRegDeadloopEventReport(KOVA_MONITOR_WORDS);
KOVA_API uintptr_t KovaGetDeadloopCfgCount(KOVA_MONITOR_WORDS);
KOVA_API uintptr_t KovaGetDeadloopCfg(KOVA_MONITOR_WORDS);

/** Records a dead loop that somebody else found. The agent never looks at the result. */
KOVA_API uintptr_t KovaRecordExternalThreadDeadLoopInfo(KOVA_MONITOR_WORDS);

KOVA_END_DECLS

#endif /* KOVA_PLATFORM_DEAD_LOOP_H */
