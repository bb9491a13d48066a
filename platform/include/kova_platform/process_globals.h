/*
 * Variables that exist once per process and belong to the platform's libraries. The agent uses them by name; where no
 * platform library defines them, the stand-in does, with the initial values given here.
 */
#ifndef KOVA_PLATFORM_PROCESS_GLOBALS_H
#define KOVA_PLATFORM_PROCESS_GLOBALS_H

#include <pthread.h>
#include <stdint.h>

#include "kova/assert_record.h"
#include "kova/exception_record.h"
#include "kova/export.h"
#include "kova/process_cpu.h"
#include "kova/resource_region.h"

KOVA_BEGIN_DECLS

/* Handle that the agent passes to KovaBaseMalloc and KovaBaseFree. Initially 0xFFFFFFFF, the C heap. */
extern KOVA_API uint32_t g_kovaAgentMemHandle;

/* Slot text ("5", or "2/5" with the chassis in front). Written by KOVA_SelfSlotidInit. Initially empty. */
#define KOVA_SLOT_TEXT_SIZE 50
extern KOVA_API char g_kovaSelfSlotid[KOVA_SLOT_TEXT_SIZE];

/* CPU id. Filled by KovaDrvGetSelfCpuId. Initially 0. */
extern KOVA_API uint32_t g_kovaSelfCpuid;

/*
 * 1 while an exception record is being made, else 0. Claimed by one compare-and-swap from 0. It guards the record, the
 * two buffers, g_mapsFileName and g_heapPrintMaxTime.
 */
extern KOVA_API int32_t g_kovaExceptionMutex;

/* The exception record, text buffer (10240 bytes) and register-memory buffer (1792 bytes): NULL until the capture is
 * set up, then there for the life of the process. */
extern KOVA_API KovaExceptInfo *g_kovaBoxExceptInfo;
extern KOVA_API char *g_kovaExceptLogbuf;
extern KOVA_API uint8_t *g_kovaRegMemory;

/* Taken for writing while the two buffers are made. */
extern KOVA_API pthread_rwlock_t g_exceptLogbufInitlock;

/* Unwinder that a process registered instead of backtrace(), or NULL. */
extern KOVA_API KovaExceptCallStackHook g_kovaExceptCallback;

/* Tells whether the process is exiting abnormally (lowest bit), or NULL. */
extern KOVA_API KovaAbnormalExitQuery g_kovaIsProcessAbnormalExit;

/* Path of the map file that the last search opened. */
#define KOVA_MAPS_FILE_NAME_SIZE 64
extern KOVA_API char g_mapsFileName[KOVA_MAPS_FILE_NAME_SIZE];

/*
 * The daemon's shared region as this process has it mapped, and its data-plane parts. All NULL until the process is
 * attached, then there for its life. Stored with release before the flag.
 */
extern KOVA_API KovaResourceRegion *g_KovaResourceInfoAgent;
extern KOVA_API KovaThreadTick *g_CpuUsageIdelTickAgent;
extern KOVA_API uint32_t *g_DataPlaneCpuUsageAgent;
extern KOVA_API uint32_t *g_DataPlaneSampleCycleAgent;
extern KOVA_API uint32_t *g_DataPlaneProcessCycleAgent;
extern KOVA_API KovaProcessCpuUsage *g_DataPlaneProcessCpuUsageAgent;

/* 1 once the process is attached and the pointers are set, else 0. Stored with release, read with acquire. */
extern KOVA_API uint32_t g_KovaResourceInitAgentOK;

/* Held while the process is attached. */
extern KOVA_API pthread_mutex_t g_kovaResourceAgentInitMutexLock;

/* Baseline and latest figures of the process whose CPU usage is monitored. No lock: threads overwrite each other. */
extern KOVA_API KovaProcessCpuUse g_gKovaProcessCpuUseAgent;

/* Publisher of resource events of this process, or NULL while it has none. Read with acquire, stored with release. */
struct Publisher;
extern KOVA_API struct Publisher *g_KovaPublisherAgent;

/* The asserts that the process stored last. An entry of zeros is free. The agent changes it under a lock of its own;
 * what others read of it may be half changed. */
#define KOVA_ASSERT_TABLE_SIZE 5
typedef struct KovaAssertTableEntry {
    char fileName[KOVA_ASSERT_FILE_NAME_SIZE];
    uint32_t line;
    uint32_t slot;            /* of the stored item in box 1 */
    uint32_t occurrenceCount; /* as last stored */
} KovaAssertTableEntry;
KOVA_STATIC_ASSERT(sizeof(KovaAssertTableEntry) == 44, "interface: assert table entry");
extern KOVA_API KovaAssertTableEntry g_assertItem[KOVA_ASSERT_TABLE_SIZE];

/* Entry that the next new assert takes, going round. Initially 0. */
extern KOVA_API uint32_t g_assertCurIndex;

KOVA_END_DECLS

#endif /* KOVA_PLATFORM_PROCESS_GLOBALS_H */
