// Keeps the figures of the shared region up to date; see region_feed.h.
#include "region_feed.h"

#include <fcntl.h>
#include <unistd.h>
#include <algorithm>
#include <cstddef>
#include <span>
#include <string>

#include <fmt/format.h>

#include "base/shared_word.h"
#include "base/unique_fd.h"
#include "daemon_log.h"
#include "resource/cpu_curve.h"
#include "resource/region_field.h"
#include "subscribe/overload_state.h"

namespace kova::kovad {
namespace {

constexpr char kStat[] = "/proc/stat";
constexpr char kMeminfo[] = "/proc/meminfo";
constexpr std::size_t kProcTextBytes = 4096;

// Far from the end of 32 bits, where a counter that wraps would jump to another slot of the ring.
constexpr std::uint32_t kMostSamples = 1U << 31;

// The beginning of the file, which is all that is needed. Empty when it cannot be read.
std::string read_proc(const char* path) {
    std::string text(kProcTextBytes, '\0');
    const UniqueFd file = open_file(path, O_RDONLY | O_CLOEXEC);
    const ssize_t length = file.is_open() ? read_once(file.get(), text.data(), text.size()) : -1;
    text.resize(length > 0 ? static_cast<std::size_t>(length) : 0);
    return text;
}

// Tells when a file becomes unreadable and when it is readable again, not in every cycle.
void note_failure(const char* path, bool failed, bool& failed_before) {
    if (failed != failed_before) {
        log(failed ? Level::kError : Level::kInfo, "{}: {}", path,
            failed ? "cannot be read; its figures stand still" : "can be read again");
    }
    failed_before = failed;
}

bool is_process(std::uint32_t pid) {
    return pid != 0 && ::access(fmt::format("/proc/{}", pid).c_str(), F_OK) == 0;
}

void drop_impossible_percent(std::uint32_t& field) {
    if (load(field) > 100) store<std::uint32_t>(field, 0);
}

bool are_percent(std::span<std::uint8_t> samples) {
    return std::all_of(samples.begin(), samples.end(), [](std::uint8_t& sample) { return load(sample) <= 100; });
}

// Which is free only when all three are 0: nobody takes a half-cleared entry. Newcomers take it by the thread id, which
// is cleared last and with release: a zero of ours that came late would wipe out what they write.
void release(KovaThreadTick& entry) {
    store<std::uint32_t>(entry.coreId, 0);
    store<std::uint32_t>(entry.pid, 0);
    store_release(entry.tid, 0U);
}

// Before the flag is set, whatever stands there was reserved by nobody. Acquire: the value is stored before it.
std::uint32_t reserved_kib(KovaResourceRegion& region) {
    return load_acquire(region.reservedMemSet) != 0 ? load(region.reservedMem) : 0;
}

KovaThreadTick load_entry(KovaThreadTick& entry) {
    return {.coreId = load(entry.coreId),
            .pid = load(entry.pid),
            .tid = load(entry.tid),
            .reserved = 0,
            .cpuTick = load(entry.cpuTick)};
}

}  // namespace

RegionFeed::RegionFeed(KovaResourceRegion& region, const FeedSettings& settings)
    : region_(region), memory_(settings.memory), release_after_ns_(settings.release_after_s * 1'000'000'000ULL) {
    keep_history(settings.cpu_interval_ms);
    drop_impossible_percent(region_.sysCpuUsage);
    for (std::uint32_t& usage : region_.coreCpuUsage) drop_impossible_percent(usage);
    drop_impossible_percent(region_.dataPlaneCpuUsageBalance);
    store(region_.dataPlaneSampleCycle, settings.data_plane_sample_cycle_ms);
    store(region_.dataPlaneProcessCycle, settings.data_plane_process_cycle_ms);
    set_memory_cycle(settings.memory_cycle_ms);
    set_monitored(false);
    sample_cpu();
    sample_memory();
    store(region_.memThreshold, memory_.overload_percent);
    store(region_.memRestore, memory_.restore_percent);
}

// A restarted daemon goes on with the history of the one before, so that averages over minutes are there at once. What
// another interval or anything but a daemon left is forgotten: readers say that they have too few samples.
void RegionFeed::keep_history(std::uint32_t interval_ms) {
    const bool is_ours = load(region_.cpuSampleInterval) == interval_ms &&
                         load(region_.cpuSampleCount) < kMostSamples && are_percent(region_.cpuUsageHistory) &&
                         are_percent(region_.cpuUsageSmoothHistory);
    if (!is_ours) store<std::uint32_t>(region_.cpuSampleCount, 0);
    store(region_.cpuSampleInterval, interval_ms);
}

void RegionFeed::sample_cpu() {
    const auto now = parse_cpu_times(read_proc(kStat));
    note_failure(kStat, !now, cpu_failed_);
    if (!now) return;
    const auto before = std::exchange(cpu_before_, now);
    if (!before) return;
    // No tick passed when the interval is shorter than one: the last figure still is the best there is.
    const std::uint32_t percent = cpu_usage_percent(*before, *now).value_or(load(region_.sysCpuUsage));
    const std::uint32_t smooth = ::access(kSmoothMarkerFile, F_OK) == 0 ? smoothed_usage(percent) : percent;
    const std::uint32_t count = load(region_.cpuSampleCount) % kMostSamples;
    const std::uint32_t slot = count % KOVA_CPU_USAGE_SAMPLES;
    store(region_.cpuUsageHistory[slot], static_cast<std::uint8_t>(percent));
    store(region_.cpuUsageSmoothHistory[slot], static_cast<std::uint8_t>(smooth));
    store(region_.cpuSampleCount, count + 1);
    store(region_.sysCpuUsage, percent);
}

void RegionFeed::sample_memory() {
    const auto sample = parse_meminfo(read_proc(kMeminfo));
    note_failure(kMeminfo, !sample, memory_failed_);
    if (!sample) return;
    const MemoryFigures figures = memory_figures(*sample, reserved_kib(region_));
    const std::uint32_t before = load(region_.memOverloadState) == 1 ? 1 : 0;
    const std::uint32_t state = next_overload_state(
        before, figures.usage_percent, {.overload = memory_.overload_percent, .recover = memory_.restore_percent});
    if (state != before) {
        log(Level::kWarning, "memory: {} at {} %", state == 1 ? "overloaded" : "recovered", figures.usage_percent);
    }
    store(region_.sysMemUsage, figures.usage_percent);
    store(region_.memInfoSecond, figures.available_kib);
    store(region_.memInfoFirst, figures.total_kib);
    store(region_.memOverloadState, static_cast<std::uint8_t>(state));
}

void RegionFeed::sample_data_plane(std::uint64_t now_ns) {
    const TickTable table = living_threads(now_ns);
    watch_processes(now_ns);
    const CoreFigures figures = cores_.sample(table, now_ns - data_plane_before_ns_.value_or(now_ns));
    data_plane_before_ns_ = now_ns;
    for (std::size_t core = 0; core < figures.usage_percent.size(); ++core) {
        store(region_.coreCpuUsage[core], figures.usage_percent[core]);
    }
    store(region_.dataPlaneCpuUsageBalance, figures.balanced_percent);
}

// The clients' functions never free an entry: without this, both tables would be full of the dead after some restarts.
bool RegionFeed::is_due(std::size_t entry, bool is_alive, std::uint64_t now_ns) {
    std::uint64_t& dead_since_ns = dead_since_ns_[entry];
    if (is_alive || dead_since_ns == 0) dead_since_ns = is_alive ? 0 : now_ns;
    if (is_alive || now_ns - dead_since_ns < release_after_ns_) return false;
    dead_since_ns = 0;
    return true;
}

TickTable RegionFeed::living_threads(std::uint64_t now_ns) {
    TickTable table{};
    for (std::size_t i = 0; i < table.size(); ++i) {
        KovaThreadTick& shared = region_.threadTickTable[i];
        const KovaThreadTick entry = load_entry(shared);
        const bool is_free = entry.coreId == 0 && entry.pid == 0 && entry.tid == 0;
        const bool is_alive = !is_free && is_process(entry.pid);
        if (is_alive) table[i] = entry;
        if (is_due(i, is_free || is_alive, now_ns)) release(shared);
    }
    return table;
}

void RegionFeed::watch_processes(std::uint64_t now_ns) {
    for (std::size_t i = 0; i < std::size(region_.processCpuUsageTable); ++i) {
        KovaProcessCpuUsage& shared = region_.processCpuUsageTable[i];
        const std::uint32_t pid = load(shared.pid);
        if (is_due(KOVA_THREAD_TICK_ENTRIES + i, pid == 0 || is_process(pid), now_ns)) {
            store<std::uint32_t>(shared.pid, 0);
        }
    }
}

void RegionFeed::set_memory_cycle(std::uint32_t cycle_ms) {
    store(region_.memUsageCycle, cycle_ms);
}

void RegionFeed::set_monitored(bool monitored) {
    store<std::uint8_t>(region_.resourceMonitorStatus, monitored ? 1 : 0);
}

std::uint32_t RegionFeed::data_plane_percent() {
    for (KovaProcessCpuUsage& entry : region_.processCpuUsageTable) {
        if (is_process(load(entry.pid))) return whole_percent(load(entry.usage));
    }
    return load(region_.dataPlaneCpuUsageBalance);
}

}  // namespace kova::kovad
