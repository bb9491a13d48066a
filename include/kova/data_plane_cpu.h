/*
 * CPU accounting of data-plane threads, whose cores poll and look busy to the kernel all the time.
 *
 * Each thread reports a tick of its own to its entry of the shared region, each process may report its usage, and the
 * daemon publishes what it makes of them. Cores are 0 to 127, threads 128 at most, processes 8 at most. Nothing here
 * frees an entry; the daemon does, some time after its process has ended. Units that are not given are the daemon's.
 *
 * When the process is not attached to the region, a call attaches it and fails, outputs untouched where nothing else is
 * said; what it reported is dropped. See resource_attach.h. Messages go out at level 1, tag "Startup" where nothing
 * else is said.
 *
 * Threads: any, of any process; no call takes a lock once the process is attached. Two that take an entry at once get
 * one each. Signals: not safe.
 */
#ifndef KOVA_DATA_PLANE_CPU_H
#define KOVA_DATA_PLANE_CPU_H

#include <stdint.h>

#include "kova/export.h"

KOVA_BEGIN_DECLS

/**
 * Reports the tick of a thread, into the thread's entry or the first free one. A full table is reported with tag
 * "Base". Core, pid and tid all 0 name nobody: such a report goes to the first free entry, which stays free.
 */
KOVA_API void KOVA_UpdateDataPlaneCpuUsage(uint32_t core, uint32_t pid, uint32_t tid, uint64_t tick);

/** Withdrawn: logs that KOVA_UpdateDataPlaneCpuUsage took its place. Old callers' arguments are ignored. */
KOVA_API void KOVA_UpdateDataPlaneCpuIdelTick(void);

/** @return 0 when a thread of a process has reported from this core; 1 when none has, and on every failure. */
KOVA_API uint32_t KOVA_JudgeDataPlaneCore(uint32_t core);

/** @return The thread's first entry, 0 to 127; 128 when it has none or the process is not attached. Never attaches. */
KOVA_API uint32_t KOVA_SearchIndexByThread(uint32_t core, uint32_t pid, uint32_t tid);

/** Logs all 128 entries, one message each; none when the process is not attached. Never attaches. */
KOVA_API void KOVA_SearchIndexByThreadAll(void);

/** @return Usage of a core as the daemon published it; 0 on failure. */
KOVA_API uint32_t KOVA_GetDataPlaneCpuUsageByCore(uint32_t core);

/** @return The daemon's sample cycle; 0 on failure. */
KOVA_API uint32_t KOVA_GetDataPlaneSampleCycle(void);

/** @return The daemon's process cycle; 0 on failure. */
KOVA_API uint32_t KOVA_GetDataPlaneProcessCycle(void);

/**
 * Reports the usage of a process, into the process's entry or the first free one. A full table is reported. A pid of 0
 * names nobody.
 *
 * @param usage Hundredths of a percent.
 */
KOVA_API void KOVA_UpdateDataPlaneProcessCpuUsage(uint32_t pid, uint32_t usage);

/**
 * Reads what the first process of the table that still exists reported; the others are not consulted. Looks at /proc
 * once for each entry up to that.
 *
 * @param usage Out: percent, rounded down, 100 at most. Stored on success only.
 * @return 0; 1 a NULL argument, not attached, or no such process.
 */
KOVA_API uint32_t KOVA_GetDataPlaneCpuUsage(uint32_t *usage);

/**
 * Reads the daemon's balanced figure.
 *
 * @param usage Out: 0 when the process was not attached.
 * @return 0; 1 a NULL argument, or not attached.
 */
KOVA_API uint32_t KOVA_GetDataPlaneCpuUsageBlance(uint32_t *usage);

/** Stores 0: there is no tick to read here. A NULL argument does nothing. Signals: safe. */
KOVA_API void KOVA_GetCputick(uint64_t *tick);

KOVA_END_DECLS

#endif /* KOVA_DATA_PLANE_CPU_H */
