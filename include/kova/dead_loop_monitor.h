/*
 * The platform's dead-loop monitor, reached through this library.
 *
 * Each function passes its arguments, unchanged and in order, to one function of the monitor, which is named beside it,
 * and returns what that returns. It checks nothing, logs nothing and keeps nothing. Parameters and results are the
 * monitor's own and are not interpreted here: they are eight machine words and one; pass 0 for those that the monitor's
 * function does not take. Every function can be redirected by a hot patch on its own.
 *
 * Threads, signals and result codes: as the monitor's function says.
 */
#ifndef KOVA_DEAD_LOOP_MONITOR_H
#define KOVA_DEAD_LOOP_MONITOR_H

#include <stdint.h>

#include "kova/export.h"

KOVA_BEGIN_DECLS

#define KOVA_MONITOR_WORDS \
    uintptr_t a0, uintptr_t a1, uintptr_t a2, uintptr_t a3, uintptr_t a4, uintptr_t a5, uintptr_t a6, uintptr_t a7

/** KOVA_InitDeadloopMonInner. */
KOVA_API uintptr_t KOVA_InitDeadloopMon(KOVA_MONITOR_WORDS);

/** KOVA_InitDeadloopMonitorInner. */
KOVA_API uintptr_t KOVA_InitDeadloopMonitor(KOVA_MONITOR_WORDS);

/** KOVA_RegDeadloopMonInner. */
KOVA_API uintptr_t KOVA_RegDeadloopMon(KOVA_MONITOR_WORDS);

/** KOVA_RegDeadloopMonCallbackInner. */
KOVA_API uintptr_t KOVA_RegDeadloopMonCallback(KOVA_MONITOR_WORDS);

/** KOVA_UnRegDeadloopMonInner. */
KOVA_API uintptr_t KOVA_UnRegDeadloopMon(KOVA_MONITOR_WORDS);

/** KOVA_DmOpersInner. */
KOVA_API uintptr_t KOVA_DmOpers(KOVA_MONITOR_WORDS);

/** KOVA_CheckAndRepairDeadloopInner. */
KOVA_API uintptr_t KOVA_CheckAndRepairDeadloop(KOVA_MONITOR_WORDS);

/** KOVA_GetCallstackByPthreadIdInner. */
KOVA_API uintptr_t KOVA_GetCallstackByPthreadId(KOVA_MONITOR_WORDS);

/** KOVA_InitDeadloopMonInner: another name of KOVA_InitDeadloopMon. */
KOVA_API uintptr_t InitDeadloopMon(KOVA_MONITOR_WORDS);

/** KOVA_RegDeadloopMonInner: another name of KOVA_RegDeadloopMon. */
KOVA_API uintptr_t regDeadloopMon(KOVA_MONITOR_WORDS);

/** KOVA_DmOpersInner: another name of KOVA_DmOpers. */
KOVA_API uintptr_t dm_opers(KOVA_MONITOR_WORDS);

/** KOVA_InitDeadloopMonInner: the region is made when the monitor is set up. */
KOVA_API uintptr_t KOVA_InitDeadloopInfoRegion(KOVA_MONITOR_WORDS);

/** RecordThreadDeadLoopInfo. */
KOVA_API uintptr_t KOVA_RecordDeadloopInfo(KOVA_MONITOR_WORDS);

/** KovaRegDeadloopEventReport. */
KOVA_API uintptr_t KOVA_RegDeadloopEventReport(KOVA_MONITOR_WORDS);

/** KovaGetDeadloopCfgCount. */
KOVA_API uintptr_t KOVA_GetDeadloopCfgCount(KOVA_MONITOR_WORDS);

/** KovaGetDeadloopCfg. */
KOVA_API uintptr_t KOVA_GetDeadloopCfg(KOVA_MONITOR_WORDS);

KOVA_END_DECLS

#endif /* KOVA_DEAD_LOOP_MONITOR_H */
