/*
 * Attaching a process to the daemon's shared region, and whether the region's memory figures may be used.
 *
 * Nobody needs to call this first: every accessor that finds the process detached attaches it, fails for that one call
 * and works from the next on. While the daemon's object is missing each such call tries four times, 5 ms apart. Once
 * attached a process stays so: the mapping lives as long as the process and the descriptor is closed at once.
 *
 * Messages go out at level 1, tag "Startup". A missing object is not reported.
 *
 * Threads: any. Signals: not safe, these lock, wait and log.
 */
#ifndef KOVA_RESOURCE_ATTACH_H
#define KOVA_RESOURCE_ATTACH_H

#include <stdint.h>

#include "kova/export.h"
#include "kova/resource_region.h"

KOVA_BEGIN_DECLS

/** Attaches the process unless it is attached; reports and gives up when the mutex for it cannot be locked. */
KOVA_API void KOVA_ResourceInfoInitAgent(void);

/**
 * Attaches the process, attached or not: opens, sizes and maps the object, points the process-wide pointers into it and
 * sets the flag g_KovaResourceInitAgentOK. A process that was attached keeps its earlier mapping as well.
 *
 * The caller holds g_kovaResourceAgentInitMutexLock.
 */
KOVA_API void KOVA_ResourceInfoInitAgentInner(void);

/** @return g_KovaResourceInitAgentOK: 1 attached, 0 detached. Signals: safe. */
KOVA_API uint32_t GetResourceInitAgentState(void);

/**
 * Stores the addresses of the data-plane parts of the mapped region. Nothing is stored when there is no mapping, which
 * is reported, or when an output is NULL.
 *
 * @param threadTicks  Out: table of 128 threads.
 * @param coreUsage    Out: usage of 128 cores.
 * @param sampleCycle  Out: the sample cycle.
 * @param processCycle Out: the process cycle.
 * @param processUsage Out: table of 8 processes.
 */
KOVA_API void ResourceInfoDataplaneInitAgent(KovaThreadTick **threadTicks, uint32_t **coreUsage, uint32_t **sampleCycle,
                                             uint32_t **processCycle, KovaProcessCpuUsage **processUsage);

/** Points the five process-wide data-plane pointers into the mapped region. */
KOVA_API void KOVA_DataPlaneCpuInitAgent(void);

/**
 * Tells whether the memory figures of the region may be used.
 *
 * They may at once on a node without the file "/usr/local/etc/kova_mem.cfg". With it they may once a process has set
 * its reserved memory (KOVA_SetReservedMem) or the node has been up for 720 seconds; the call that first sees that
 * uptime still answers by the file. An answer of 1 holds for the rest of the process, and costs no system call then.
 *
 * @return 1; 0, also while the process is detached and the file exists. Does not attach.
 */
KOVA_API uint32_t KovaIsMemReady(void);

KOVA_END_DECLS

#endif /* KOVA_RESOURCE_ATTACH_H */
