/*
 * Smoothed CPU usage.
 *
 * On a node where the file "/usr/local/etc/kova_cpu_smooth.cfg" exists, whatever its contents, CPU figures go through a
 * convex curve that lowers moderate loads and keeps high ones high. The file is looked for on every call.
 *
 * Threads: any. Signals: not safe, but for KOVA_CpuSmoothAlgo.
 */
#ifndef KOVA_CPU_SMOOTHING_H
#define KOVA_CPU_SMOOTHING_H

#include <stdint.h>

#include "kova/export.h"

KOVA_BEGIN_DECLS

/** @return 1 when the file exists; 0. */
KOVA_API uint32_t KOVA_CpuSmoothIsEnable(void);

/**
 * The curve: (8x^2 + 100x) / 900, rounded down, from 7 to 99 percent; 1 below and 99 above.
 *
 * @param usage Percent.
 * @return Percent, 1 to 99. Signals: safe.
 */
KOVA_API uint32_t KOVA_CpuSmoothAlgo(uint32_t usage);

/**
 * Scales a CPU figure by what the curve makes of the node's usage at this moment.
 *
 * Where the file exists, attaches to the shared region if need be, and then goes on. A missing region is reported at
 * level 1, tag "Base".
 *
 * @return The scaled value, rounded down; the value itself when the file does not exist, there is no region, or the
 *         node's usage is 0.
 */
KOVA_API uint32_t KOVA_ChangeToSmoothCpu(uint32_t value);

/**
 * Reads the node's CPU usage, smoothed.
 *
 * @param usage Out: percent. 0 when the process was not attached.
 * @return 0; 1 a NULL argument, reported with tag "Base", or not attached.
 */
KOVA_API uint32_t KOVA_GetSysCpuUsageSmooth(uint32_t *usage);

/**
 * Like KOVA_GetCpuTimeSpanUsage, over the smoothed samples that the daemon keeps, with or without the file. The average
 * itself does not go through the curve.
 */
KOVA_API uint32_t KOVA_GetCpuTimeSpanUsageSmooth(uint32_t span, uint32_t *usage);

/** @return KOVA_GetProcessCpuUsage of the id, through KOVA_ChangeToSmoothCpu; 0 on every failure. */
KOVA_API uint32_t KOVA_GetProcessCpuUsageSmooth(uint32_t pid);

KOVA_END_DECLS

#endif /* KOVA_CPU_SMOOTHING_H */
