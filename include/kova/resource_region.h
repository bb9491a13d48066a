/*
 * The shared region in which the diagnosis daemon publishes the node's resource figures.
 *
 * One POSIX shared-memory object of 8192 bytes. The daemon creates it; clients set its size and map it, and never
 * create or unlink it: it outlives them all. There is no header, no version, no checksum and no lock: each field is
 * loaded and stored whole, relaxed and in its own width, and two fields that are read one after the other may come from
 * different updates. Every process that may open the object can write all of it, so a reader takes each value as
 * hostile: read once into a local, check, use the local.
 *
 * All fields are naturally aligned and little-endian. A shrunk object kills its readers with SIGBUS: nobody shrinks it.
 */
#ifndef KOVA_RESOURCE_REGION_H
#define KOVA_RESOURCE_REGION_H

#include <stddef.h>
#include <stdint.h>

#include "kova/export.h"

/* Name for shm_open(), without a slash in front, and the object's size in bytes. */
#define KOVA_RESOURCE_REGION_NAME "kova_resource_info_sharemem"
#define KOVA_RESOURCE_REGION_SIZE 8192U

#define KOVA_DATA_PLANE_CORES 128U        /* cores 0 to 127 */
#define KOVA_THREAD_TICK_ENTRIES 128U     /* data-plane threads of the node */
#define KOVA_PROCESS_CPU_USAGE_ENTRIES 8U /* data-plane processes of the node */
#define KOVA_CPU_USAGE_SAMPLES 360U       /* in each history */

/*
 * Tick of one data-plane thread. Free while coreId, pid and tid are all 0. Clients take entries and never free them;
 * the daemon does, some time after the process has ended.
 */
typedef struct KovaThreadTick {
    uint32_t coreId; /* as the thread reported it */
    uint32_t pid;
    uint32_t tid;
    uint32_t reserved; /* never written */
    uint64_t cpuTick;  /* the reporting thread's own count */
} KovaThreadTick;

KOVA_STATIC_ASSERT(sizeof(KovaThreadTick) == 24, "region: KovaThreadTick");
KOVA_STATIC_ASSERT(offsetof(KovaThreadTick, pid) == 4, "region: KovaThreadTick");
KOVA_STATIC_ASSERT(offsetof(KovaThreadTick, tid) == 8, "region: KovaThreadTick");
KOVA_STATIC_ASSERT(offsetof(KovaThreadTick, reserved) == 12, "region: KovaThreadTick");
KOVA_STATIC_ASSERT(offsetof(KovaThreadTick, cpuTick) == 16, "region: KovaThreadTick");

/* CPU usage of one data-plane process, as it reports it. Free while pid is 0; taken and freed like the former. */
typedef struct KovaProcessCpuUsage {
    uint32_t pid;
    uint32_t usage; /* hundredths of a percent */
} KovaProcessCpuUsage;

KOVA_STATIC_ASSERT(sizeof(KovaProcessCpuUsage) == 8, "region: KovaProcessCpuUsage");
KOVA_STATIC_ASSERT(offsetof(KovaProcessCpuUsage, usage) == 4, "region: KovaProcessCpuUsage");

/*
 * The region. Written by the daemon, but for the fields marked "clients". Units that are not given are the daemon's;
 * clients pass those figures on unchanged.
 */
typedef struct KovaResourceRegion {
    KovaThreadTick threadTickTable[KOVA_THREAD_TICK_ENTRIES]; /* clients */
    uint32_t coreCpuUsage[KOVA_DATA_PLANE_CORES];             /* data-plane usage of each core */
    uint32_t dataPlaneSampleCycle;
    uint32_t cpuSampleCount;    /* samples taken so far; sample k stands in slot k mod 360 of both histories */
    uint32_t cpuSampleInterval; /* ms between two samples; 0: not known yet */
    uint8_t cpuUsageHistory[KOVA_CPU_USAGE_SAMPLES]; /* percent */
    uint32_t sysCpuUsage;                            /* percent, now */
    uint32_t sysMemUsage;
    uint32_t memInfoFirst; /* 0: neither memory figure is published yet */
    uint32_t reservedBetweenFigures;
    uint32_t memInfoSecond;
    uint32_t dataPlaneProcessCycle;
    uint32_t dataPlaneCpuUsageBalance;
    uint32_t memUsageCycle;                                                   /* ms; 0: the default of 10000 */
    KovaProcessCpuUsage processCpuUsageTable[KOVA_PROCESS_CPU_USAGE_ENTRIES]; /* clients */
    uint8_t memOverloadState;
    uint8_t resourceMonitorStatus; /* of subscription type 0; not 0: active */
    uint8_t reservedMemSet;        /* clients: 1 once reservedMem has been set, after it; never cleared */
    uint8_t reservedBeforeMem;
    uint32_t reservedMem;                                  /* clients */
    uint32_t memThreshold;                                 /* 0: not published yet */
    uint32_t memRestore;                                   /* 0: not published yet */
    uint32_t reservedVirtualMem;                           /* clients */
    uint8_t cpuUsageSmoothHistory[KOVA_CPU_USAGE_SAMPLES]; /* percent */
    uint8_t reservedTail[3760];
} KovaResourceRegion;

/* The layout, which every process of the node relies on. */
#define KOVA_REGION_FIELD_AT(field, offset) \
    KOVA_STATIC_ASSERT(offsetof(KovaResourceRegion, field) == (offset), "region: " #field)
KOVA_STATIC_ASSERT(sizeof(KovaResourceRegion) == KOVA_RESOURCE_REGION_SIZE, "region: KovaResourceRegion");
KOVA_REGION_FIELD_AT(threadTickTable, 0);
KOVA_REGION_FIELD_AT(coreCpuUsage, 3072);
KOVA_REGION_FIELD_AT(dataPlaneSampleCycle, 3584);
KOVA_REGION_FIELD_AT(cpuSampleCount, 3588);
KOVA_REGION_FIELD_AT(cpuSampleInterval, 3592);
KOVA_REGION_FIELD_AT(cpuUsageHistory, 3596);
KOVA_REGION_FIELD_AT(sysCpuUsage, 3956);
KOVA_REGION_FIELD_AT(sysMemUsage, 3960);
KOVA_REGION_FIELD_AT(memInfoFirst, 3964);
KOVA_REGION_FIELD_AT(memInfoSecond, 3972);
KOVA_REGION_FIELD_AT(dataPlaneProcessCycle, 3976);
KOVA_REGION_FIELD_AT(dataPlaneCpuUsageBalance, 3980);
KOVA_REGION_FIELD_AT(memUsageCycle, 3984);
KOVA_REGION_FIELD_AT(processCpuUsageTable, 3988);
KOVA_REGION_FIELD_AT(memOverloadState, 4052);
KOVA_REGION_FIELD_AT(resourceMonitorStatus, 4053);
KOVA_REGION_FIELD_AT(reservedMemSet, 4054);
KOVA_REGION_FIELD_AT(reservedMem, 4056);
KOVA_REGION_FIELD_AT(memThreshold, 4060);
KOVA_REGION_FIELD_AT(memRestore, 4064);
KOVA_REGION_FIELD_AT(reservedVirtualMem, 4068);
KOVA_REGION_FIELD_AT(cpuUsageSmoothHistory, 4072);
KOVA_REGION_FIELD_AT(reservedTail, 4432);
#undef KOVA_REGION_FIELD_AT

#endif /* KOVA_RESOURCE_REGION_H */
