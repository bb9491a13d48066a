/*
 * CPU and memory usage of the node, its memory thresholds, and the memory that processes reserve.
 *
 * All figures but the out-of-memory threshold come from the daemon's shared region and are passed on as they stand
 * there: they are as old as the daemon's last sample, and the units of the memory figures are the daemon's. Two outputs
 * of one call may come from different updates. A process that is not attached to the region is attached by the call,
 * which fails nevertheless; see resource_attach.h.
 *
 * Messages go out at level 1, tag "Startup".
 *
 * Threads: any. Signals: not safe.
 */
#ifndef KOVA_SYSTEM_USAGE_H
#define KOVA_SYSTEM_USAGE_H

#include <stdint.h>

#include "kova/export.h"

KOVA_BEGIN_DECLS

#define KOVA_MEM_BAD_ARGUMENT 0x00600100U /* of KOVA_GetSysMemThreshold */
#define KOVA_MEM_NOT_READY 0x00600101U    /* the memory figures may not be used yet, or are not published yet */

/**
 * Reads the node's CPU usage.
 *
 * @param usage Out: percent. 0 when the process was not attached.
 * @return 0; 1 a NULL argument, or not attached.
 */
KOVA_API uint32_t KOVA_GetSysCpuUsage(uint32_t *usage);

/**
 * Reads the node's memory usage.
 *
 * @param usage Out: 0 on every failure.
 * @return 0; 1 a NULL argument, or not attached; KOVA_MEM_NOT_READY as long as KovaIsMemReady answers 0.
 */
KOVA_API uint32_t KOVA_GetSysMemUsage(uint32_t *usage);

/**
 * Reads the node's two memory figures.
 *
 * @param first  Out: never 0 on success. 0 on every failure.
 * @param second Out: 0 on every failure.
 * @return 0; 1 a NULL argument, or not attached; KOVA_MEM_NOT_READY as long as KovaIsMemReady answers 0 or the daemon
 *         has published nothing.
 */
KOVA_API uint32_t KOVA_GetSysMemInfo(uint64_t *first, uint64_t *second);

/**
 * Reads the thresholds at which the node's memory is overloaded and has recovered.
 *
 * Does not ask KovaIsMemReady: the daemon leaves both at 0 until it knows them.
 *
 * @param threshold Out: never 0. Stored on success only.
 * @param restore   Out: never 0. Stored on success only.
 * @return 0; KOVA_MEM_BAD_ARGUMENT a NULL argument; KOVA_MEM_NOT_READY not attached, or one of the two is 0.
 */
KOVA_API uint32_t KOVA_GetSysMemThreshold(uint32_t *threshold, uint32_t *restore);

/** @return The memory overload state as the daemon published it, one byte; 0 when not attached. */
KOVA_API uint32_t KOVA_GetMemOvloadState(void);

/**
 * Reads the reserved virtual memory that a process set last.
 *
 * @param value Out: 0 when the process was not attached.
 * @return 0; 1 a NULL argument, or not attached.
 */
KOVA_API uint32_t KOVA_GetReservedVirtualMem(uint32_t *value);

/**
 * Publishes the reserved memory, which also makes the memory figures ready on this node. The last process wins.
 *
 * @return 0; 1 not attached: nothing is stored.
 */
KOVA_API uint32_t KOVA_SetReservedMem(uint32_t value);

/** Publishes the reserved virtual memory. The last process wins. @return 0; 1 not attached: nothing is stored. */
KOVA_API uint32_t KOVA_SetReservedVirtualMem(uint32_t value);

/**
 * Reads the out-of-memory threshold, which follows from the machine's memory: KovaGetOOMThreshold. Needs no region.
 *
 * @param value Out: 50, 100 or 160.
 * @return 0; 1 a NULL argument, reported with tag "Base".
 */
KOVA_API uint32_t KOVA_GetOOMThreshold(uint32_t *value);

KOVA_END_DECLS

#endif /* KOVA_SYSTEM_USAGE_H */
