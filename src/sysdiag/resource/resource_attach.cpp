// Maps the daemon's shared region into the process.
//
// Locks: g_kovaResourceAgentInitMutexLock, held while the object is waited for, opened and mapped. Accessors read the
// flag without it.
#include "kova/resource_attach.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>
#include <cerrno>

#include "base/log_message.h"
#include "base/no_cancellation.h"
#include "base/unique_fd.h"
#include "resource/region_access.h"

namespace kova {
namespace {

constexpr int kAttempts = 4;
constexpr useconds_t kPauseUs = 5000;
constexpr mode_t kMode = 0777;  // only has a meaning where an object is created, which we never do

// The daemon may be about to create the object: three short pauses, then the next accessor tries again.
UniqueFd open_object() {
    for (int attempt = 1;; ++attempt) {
        UniqueFd object = above_standard(::shm_open(KOVA_RESOURCE_REGION_NAME, O_RDWR, kMode), O_CLOEXEC);
        if (object.is_open() || attempt == kAttempts) return object;
        static_cast<void>(::usleep(kPauseUs));  // a pause that a signal cuts short is one attempt sooner
    }
}

}  // namespace
}  // namespace kova

using kova::kIdRegion;

void KOVA_ResourceInfoInitAgent(void) {
    const kova::NoCancellation no_cancellation;  // the mutex would stay locked
    if (const int error = ::pthread_mutex_lock(&g_kovaResourceAgentInitMutexLock); error != 0) {
        KovaDLogWrite(KOVA_LOG_STARTUP(kIdRegion), "[KOVA_ResourceInfoInitAgent] pthread lock unsuccessful. ret = %d",
                      error);
        return;
    }
    if (kova::load_acquire(g_KovaResourceInitAgentOK) != 1) KOVA_ResourceInfoInitAgentInner();
    static_cast<void>(::pthread_mutex_unlock(&g_kovaResourceAgentInitMutexLock));  // ours: cannot fail
}

void KOVA_ResourceInfoInitAgentInner(void) {
    kova::store_release(g_KovaResourceInitAgentOK, 0U);
    const kova::UniqueFd object = kova::open_object();
    if (!object.is_open()) return;
    // A daemon that died between creating and sizing the object leaves it empty: reading it would be a SIGBUS.
    if (::ftruncate(object.get(), KOVA_RESOURCE_REGION_SIZE) != 0) {
        KovaDLogWrite(KOVA_LOG_STARTUP(kIdRegion), "KOVA_ResourceInfoInitAgent ftruncate unsuccessful, %d", errno);
        return;
    }
    void* const mapping =
        ::mmap(nullptr, KOVA_RESOURCE_REGION_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, object.get(), 0);
    if (mapping == MAP_FAILED) {
        KovaDLogWrite(KOVA_LOG_STARTUP(kIdRegion), "KOVA_ResourceInfoInitAgent mmap unsuccessful, %d", errno);
        return;
    }
    kova::store_release(g_KovaResourceInfoAgent, static_cast<KovaResourceRegion*>(mapping));
    if (mapping == nullptr) {
        KovaDLogWrite(KOVA_LOG_STARTUP(kIdRegion), "g_KovaResourceInfoAgent is NULL!!");
        return;
    }
    KOVA_DataPlaneCpuInitAgent();
    kova::store_release(g_KovaResourceInitAgentOK, 1U);
}

uint32_t GetResourceInitAgentState(void) {
    return kova::load_acquire(g_KovaResourceInitAgentOK);
}

void ResourceInfoDataplaneInitAgent(KovaThreadTick** threadTicks, uint32_t** coreUsage, uint32_t** sampleCycle,
                                    uint32_t** processCycle, KovaProcessCpuUsage** processUsage) {
    KovaResourceRegion* const region = kova::load_acquire(g_KovaResourceInfoAgent);
    if (region == nullptr) {
        KovaDLogWrite(KOVA_LOG_STARTUP(kIdRegion), "input parameter unavailable");
        return;
    }
    if (threadTicks == nullptr || coreUsage == nullptr || sampleCycle == nullptr || processCycle == nullptr ||
        processUsage == nullptr) {
        return;
    }
    kova::store_release(*threadTicks, &region->threadTickTable[0]);
    kova::store_release(*coreUsage, &region->coreCpuUsage[0]);
    kova::store_release(*sampleCycle, &region->dataPlaneSampleCycle);
    kova::store_release(*processCycle, &region->dataPlaneProcessCycle);
    kova::store_release(*processUsage, &region->processCpuUsageTable[0]);
}

void KOVA_DataPlaneCpuInitAgent(void) {
    ResourceInfoDataplaneInitAgent(&g_CpuUsageIdelTickAgent, &g_DataPlaneCpuUsageAgent, &g_DataPlaneSampleCycleAgent,
                                   &g_DataPlaneProcessCycleAgent, &g_DataPlaneProcessCpuUsageAgent);
}
