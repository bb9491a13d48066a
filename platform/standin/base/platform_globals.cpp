// The variables that exist once per process, for a process without the platform's own libraries.
//
// Readers and writers find them by name: a definition in the program or in a library loaded earlier takes the place of
// these, and then these stay unused.
#include "kova_platform/process_globals.h"

constinit uint32_t g_kovaAgentMemHandle = 0xFFFFFFFFU;

constinit char g_kovaSelfSlotid[KOVA_SLOT_TEXT_SIZE] = {};
constinit uint32_t g_kovaSelfCpuid = 0;

constinit int32_t g_kovaExceptionMutex = 0;
constinit KovaExceptInfo* g_kovaBoxExceptInfo = nullptr;
constinit char* g_kovaExceptLogbuf = nullptr;
constinit uint8_t* g_kovaRegMemory = nullptr;
constinit pthread_rwlock_t g_exceptLogbufInitlock = PTHREAD_RWLOCK_INITIALIZER;
constinit KovaExceptCallStackHook g_kovaExceptCallback = nullptr;
constinit KovaAbnormalExitQuery g_kovaIsProcessAbnormalExit = nullptr;
constinit char g_mapsFileName[KOVA_MAPS_FILE_NAME_SIZE] = {};

constinit KovaResourceRegion* g_KovaResourceInfoAgent = nullptr;
constinit KovaThreadTick* g_CpuUsageIdelTickAgent = nullptr;
constinit uint32_t* g_DataPlaneCpuUsageAgent = nullptr;
constinit uint32_t* g_DataPlaneSampleCycleAgent = nullptr;
constinit uint32_t* g_DataPlaneProcessCycleAgent = nullptr;
constinit KovaProcessCpuUsage* g_DataPlaneProcessCpuUsageAgent = nullptr;
constinit uint32_t g_KovaResourceInitAgentOK = 0;
constinit pthread_mutex_t g_kovaResourceAgentInitMutexLock = PTHREAD_MUTEX_INITIALIZER;
constinit KovaProcessCpuUse g_gKovaProcessCpuUseAgent = {};

constinit struct Publisher* g_KovaPublisherAgent = nullptr;

constinit KovaAssertTableEntry g_assertItem[KOVA_ASSERT_TABLE_SIZE] = {};
constinit uint32_t g_assertCurIndex = 0;
