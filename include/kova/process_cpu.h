/*
 * CPU usage of one process or thread, from /proc, and of the node over a span of time, from the daemon's samples.
 *
 * The usage of a process is an average since its registration, in percent of the CPU time of the whole node: a process
 * that keeps one of two CPUs busy shows 50. There is one registration per process, in g_gKovaProcessCpuUseAgent;
 * several threads that register or query at once overwrite each other's fields of it.
 *
 * Messages go out at level 1, tag "Startup", where nothing else is said.
 *
 * Threads: any. Signals: not safe.
 */
#ifndef KOVA_PROCESS_CPU_H
#define KOVA_PROCESS_CPU_H

#include <stddef.h>
#include <stdint.h>

#include "kova/export.h"

KOVA_BEGIN_DECLS

/* What was registered and what the latest query saw. Ticks are those of the kernel's clock, usually 100 a second. */
typedef struct KovaProcessCpuUse {
    uint32_t regPid;
    uint64_t regProcTicks;  /* of the registered id, user and system */
    uint64_t regTotalTicks; /* of all CPUs, idle time included */
    uint32_t curPid;
    uint64_t curProcTicks;
    uint64_t curTotalTicks;
} KovaProcessCpuUse;

KOVA_STATIC_ASSERT(sizeof(KovaProcessCpuUse) == 48, "interface: KovaProcessCpuUse");
KOVA_STATIC_ASSERT(offsetof(KovaProcessCpuUse, regProcTicks) == 8, "interface: KovaProcessCpuUse");
KOVA_STATIC_ASSERT(offsetof(KovaProcessCpuUse, regTotalTicks) == 16, "interface: KovaProcessCpuUse");
KOVA_STATIC_ASSERT(offsetof(KovaProcessCpuUse, curPid) == 24, "interface: KovaProcessCpuUse");
KOVA_STATIC_ASSERT(offsetof(KovaProcessCpuUse, curProcTicks) == 32, "interface: KovaProcessCpuUse");
KOVA_STATIC_ASSERT(offsetof(KovaProcessCpuUse, curTotalTicks) == 40, "interface: KovaProcessCpuUse");

/* What the buffer of KOVA_TaskCpuReadBuf must hold, in bytes. */
#define KOVA_TASK_CPU_BUFFER_SIZE 1020U

/**
 * Reads the beginning of a small file of /proc.
 *
 * @param buffer Out: at most 1019 bytes and a NUL, whatever the size says. Empty when the file cannot be opened or
 *               read; left alone when there is no such path.
 * @param size   Size of the buffer in bytes, KOVA_TASK_CPU_BUFFER_SIZE or more. Not looked at.
 * @return Bytes read; -1.
 */
KOVA_API int32_t KOVA_TaskCpuReadBuf(const char *path, char *buffer, uint32_t size);

/**
 * Reads the node's CPU time since boot: all CPUs, all kinds, idle time included.
 *
 * @param total Out: ticks. Stored when the result is 4 or more.
 * @return Numbers found in the line, up to 8, of which 4 or more are a success; 0 when the argument is NULL or the line
 *         cannot be read; negative when it ends before the first number.
 */
KOVA_API int32_t KOVA_ReadCpuJiffy(uint64_t *total);

/**
 * Reads the CPU time of a process or thread since its start, user and system.
 *
 * @param id    A process id, or a thread id.
 * @param ticks Out: ticks. Stored on success only.
 * @return 0; 1, also when there is no such id.
 */
KOVA_API uint32_t KOVA_ScanSpecificProcStatByID(uint32_t id, uint64_t *ticks);

/**
 * Registers a process or thread: what it has used until now is the baseline of later queries. Registering again moves
 * the baseline; nothing else does.
 *
 * @return 0; 1 /proc gave no figures. The id is registered in both cases.
 */
KOVA_API uint32_t KOVA_RegProcessCpuUsageMon(uint32_t pid);

/**
 * Computes the average usage of an id since the registration. Meant for the registered id: another one is measured
 * against a baseline that is not its own.
 *
 * @return Percent of the node's CPU time, rounded down; 0 on every failure, and when a counter went backwards.
 */
KOVA_API uint32_t KOVA_GetProcessCpuUsage(uint32_t pid);

/**
 * Averages the node's CPU usage over the last seconds, from the samples in the shared region. When the process is not
 * attached, it is attached and this call fails; see resource_attach.h.
 *
 * @param span  Seconds, 1 to 360. Shorter than the interval between two samples: the newest sample alone.
 * @param usage Out: percent, rounded down. 0 on failure; left alone when an argument is wrong.
 * @return 0; 1 a wrong argument, not attached, or no sample interval published yet; 1, reported at level 3 with tag
 *         "Info", when the daemon has not taken that many samples yet.
 */
KOVA_API uint32_t KOVA_GetCpuTimeSpanUsage(uint32_t span, uint32_t *usage);

/** The same over one of the two histories. @param smooth 0 the samples as measured; anything else the smoothed ones. */
KOVA_API uint32_t KOVA_GetCpuTimeSpanUsageInner(uint32_t span, uint32_t *usage, uint32_t smooth);

KOVA_END_DECLS

#endif /* KOVA_PROCESS_CPU_H */
