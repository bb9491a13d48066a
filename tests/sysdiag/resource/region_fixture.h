// The daemon's side of the shared region for tests: makes the object, fills it, takes it away. Needs a private node.
#pragma once

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>
#include <cstdlib>

#include <gtest/gtest.h>

#include "kova/resource_attach.h"
#include "kova_platform/process_globals.h"
#include "support/crash_traces.h"
#include "support/log_recorder.h"

namespace kova::test {

using Messages = std::vector<LoggedMessage>;
inline LoggedMessage region_error(std::string text) {
    return error_message(0x0E401060, "Startup", std::move(text));
}
inline LoggedMessage base_error(std::string text) {
    return error_message(0x0E40105B, "Base", std::move(text));
}

constexpr char kObject[] = "/dev/shm/kova_resource_info_sharemem";
constexpr char kMemoryMarker[] = "/usr/local/etc/kova_mem.cfg";
constexpr char kSmoothMarker[] = "/usr/local/etc/kova_cpu_smooth.cfg";

class RegionTest : public testing::Test {
  protected:
    ~RegionTest() override {
        detach();
        for (const char* path : {kObject, kMemoryMarker, kSmoothMarker}) ::unlink(path);
    }

    // An object like the daemon's, which the test writes through region().
    void make_object() {
        const int fd = ::open(kObject, O_RDWR | O_CREAT | O_CLOEXEC, 0660);
        ASSERT_EQ(0, ::ftruncate(fd, KOVA_RESOURCE_REGION_SIZE));
        void* const mapping = ::mmap(nullptr, KOVA_RESOURCE_REGION_SIZE, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        ASSERT_NE(MAP_FAILED, mapping);
        ::close(fd);
        region_ = static_cast<KovaResourceRegion*>(mapping);
    }
    void attach() {
        make_object();
        KOVA_ResourceInfoInitAgent();
        ASSERT_EQ(1U, GetResourceInitAgentState());
    }
    // Mappings stay until the process ends.
    static void detach() {
        g_KovaResourceInfoAgent = nullptr;
        g_CpuUsageIdelTickAgent = nullptr;
        g_DataPlaneCpuUsageAgent = g_DataPlaneSampleCycleAgent = g_DataPlaneProcessCycleAgent = nullptr;
        g_DataPlaneProcessCpuUsageAgent = nullptr;
        g_KovaResourceInitAgentOK = 0;
        log_recorder().clear();
    }
    [[nodiscard]] KovaResourceRegion& region() const { return *region_; }

  private:
    KovaResourceRegion* region_ = nullptr;
};

}  // namespace kova::test
