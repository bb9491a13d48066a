// CPU usage of one process or thread since its registration.
//
// g_gKovaProcessCpuUseAgent belongs to the process and has no lock: threads that register or query at once overwrite
// each other's fields. Each field is stored whole, and a query computes with what it has read itself.
#include "kova/process_cpu.h"

#include <fcntl.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "base/log_message.h"
#include "base/result.h"
#include "base/unique_fd.h"
#include "base/unique_file.h"
#include "kova_platform/bounded_string.h"
#include "resource/proc_stat.h"
#include "resource/region_access.h"

namespace kova {
namespace {

constexpr std::size_t kLineSize = 100;
constexpr std::size_t kPathSize = 128;
constexpr int kFewestNumbers = 4;  // of the "cpu" line, for a total that means something

// A path without links, which the caller frees.
struct ResolvedPath {
    explicit ResolvedPath(const char* path) : text(::realpath(path, nullptr)) {}
    ResolvedPath(const ResolvedPath&) = delete;
    ResolvedPath& operator=(const ResolvedPath&) = delete;
    ~ResolvedPath() { std::free(text); }
    char* text;
};

}  // namespace
}  // namespace kova

using kova::kFailed;
using kova::kIdRegion;
using kova::kOk;
using kova::load;
using kova::store;

int32_t KOVA_TaskCpuReadBuf(const char* path, char* buffer, [[maybe_unused]] uint32_t size) {
    if (path == nullptr || buffer == nullptr) {
        KovaDLogWrite(KOVA_LOG_STARTUP(kIdRegion), "Input parameters invalid.");
        return -1;
    }
    const kova::ResolvedPath resolved(path);
    if (resolved.text == nullptr) {
        KovaDLogWrite(KOVA_LOG_STARTUP(kIdRegion), "KOVATaskCpuReadBuf Get realpath unsuccessful. errno=%d.", errno);
        return -1;
    }
    const kova::UniqueFd file = kova::open_file(resolved.text, O_RDONLY | O_NOFOLLOW);
    const ssize_t count = file.is_open() ? kova::read_once(file.get(), buffer, KOVA_TASK_CPU_BUFFER_SIZE - 1) : -1;
    buffer[count > 0 ? count : 0] = '\0';
    return static_cast<int32_t>(count);
}

int32_t KOVA_ReadCpuJiffy(uint64_t* total) {
    if (total == nullptr) {
        KovaDLogWrite(KOVA_LOG_STARTUP(kIdRegion), "Input parameters invalid.");
        return 0;
    }
    const kova::UniqueFile file(std::fopen("/proc/stat", "re"));
    char line[kova::kLineSize];
    if (!file.is_open() || std::fgets(line, sizeof line, file.get()) == nullptr || line[0] != 'c') return 0;
    const kova::CpuLine cpu = kova::parse_cpu_line(line);
    if (cpu.numbers >= kova::kFewestNumbers) *total = cpu.total;
    return cpu.numbers;
}

uint32_t KOVA_ScanSpecificProcStatByID(uint32_t id, uint64_t* ticks) {
    if (ticks == nullptr) {
        KovaDLogWrite(KOVA_LOG_STARTUP(kIdRegion), "Input parameters invalid.");
        return kFailed;
    }
    char path[kova::kPathSize];
    if (snprintf_truncated_s(path, sizeof path, "/proc/%d/stat", static_cast<int>(id)) < 0) {
        KovaDLogWrite(KOVA_LOG_STARTUP(kIdRegion), "snprintf_truncated_s unsuccessful.");
        return kFailed;
    }
    char stat[KOVA_TASK_CPU_BUFFER_SIZE];
    if (KOVA_TaskCpuReadBuf(path, stat, sizeof stat) < 1) return kFailed;
    const auto used = kova::parse_task_ticks(stat);
    if (!used) return kFailed;
    *ticks = *used;
    return kOk;
}

uint32_t KOVA_RegProcessCpuUsageMon(uint32_t pid) {
    KovaProcessCpuUse& use = g_gKovaProcessCpuUseAgent;
    store(use.regPid, pid);
    uint64_t total_ticks = 0;
    if (KOVA_ReadCpuJiffy(&total_ticks) < kova::kFewestNumbers) return kFailed;
    store(use.regTotalTicks, total_ticks);
    uint64_t process_ticks = 0;
    if (KOVA_ScanSpecificProcStatByID(pid, &process_ticks) != kOk) return kFailed;
    store(use.regProcTicks, process_ticks);
    return kOk;
}

uint32_t KOVA_GetProcessCpuUsage(uint32_t pid) {
    KovaProcessCpuUse& use = g_gKovaProcessCpuUseAgent;
    store(use.curPid, pid);
    uint64_t total_ticks = 0;
    if (KOVA_ReadCpuJiffy(&total_ticks) < kova::kFewestNumbers) return 0;
    store(use.curTotalTicks, total_ticks);
    uint64_t process_ticks = 0;
    if (KOVA_ScanSpecificProcStatByID(pid, &process_ticks) != kOk) return 0;
    store(use.curProcTicks, process_ticks);
    return kova::usage_percent(load(use.regProcTicks), load(use.regTotalTicks), process_ticks, total_ticks);
}
