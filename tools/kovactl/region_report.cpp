// What kovactl says of the shared region; see region_report.h.
#include "region_report.h"

#include <algorithm>
#include <iterator>
#include <set>
#include <span>

#include <fmt/format.h>

namespace kova::kovactl {
namespace {

constexpr std::size_t kSamplesInLine = 20;

std::string daemon_text(const RegionSnapshot& snapshot) {
    if (!snapshot.daemon) return "no daemon keeps it: the figures are old";
    return *snapshot.daemon == 0 ? "kept by kovad" : fmt::format("kept by kovad, process {}", *snapshot.daemon);
}

void append_figures(std::string& text, const KovaResourceRegion& region) {
    auto out = std::back_inserter(text);
    fmt::format_to(out, "\nSystem CPU\n  usage {} %   {} samples, one every {} ms\n", region.sysCpuUsage,
                   region.cpuSampleCount, region.cpuSampleInterval);
    fmt::format_to(out, "\nMemory\n  usage {} %   {} of {} KiB available   {}, looked at every {} ms\n",
                   region.sysMemUsage, region.memInfoSecond, region.memInfoFirst,
                   region.memOverloadState == 1   ? "overloaded"
                   : region.memOverloadState == 0 ? "not overloaded"
                                                  : "state unknown",
                   region.memUsageCycle);
    fmt::format_to(out, "  overload from {} %, recovered from {} % down\n", region.memThreshold, region.memRestore);
    fmt::format_to(out, "  reserved {} KiB{}   reserved virtual {} KiB\n", region.reservedMem,
                   region.reservedMemSet == 0 ? " (not set)" : "", region.reservedVirtualMem);
    fmt::format_to(out, "\nData plane\n  balanced usage {} %   cores looked at every {} ms, processes every {} ms\n",
                   region.dataPlaneCpuUsageBalance, region.dataPlaneSampleCycle, region.dataPlaneProcessCycle);
    fmt::format_to(out, "  {}\n", region.resourceMonitorStatus != 0 ? "somebody subscribes" : "nobody subscribes");
}

void append_cores(std::string& text, const KovaResourceRegion& region) {
    std::set<std::uint32_t> cores;
    for (std::uint32_t core = 0; core < KOVA_DATA_PLANE_CORES; ++core) {
        if (region.coreCpuUsage[core] != 0) cores.insert(core);
    }
    for (const KovaThreadTick& entry : region.threadTickTable) {
        if (is_used(entry) && entry.coreId < KOVA_DATA_PLANE_CORES) cores.insert(entry.coreId);
    }
    if (cores.empty()) return;
    fmt::format_to(std::back_inserter(text), "\n  Core  Usage\n");
    for (const std::uint32_t core : cores) {
        fmt::format_to(std::back_inserter(text), "  {:<4}  {} %\n", core, region.coreCpuUsage[core]);
    }
}

void append_tables(std::string& text, const KovaResourceRegion& region) {
    auto out = std::back_inserter(text);
    const auto threads = std::ranges::count_if(region.threadTickTable, is_used);
    if (threads != 0) fmt::format_to(out, "\n  Core  Process     Thread      Busy ns\n");
    for (const KovaThreadTick& entry : region.threadTickTable) {
        if (!is_used(entry)) continue;
        fmt::format_to(out, "  {:<4}  {:<10}  {:<10}  {}\n", entry.coreId, entry.pid, entry.tid, entry.cpuTick);
    }
    std::size_t processes = 0;
    for (const KovaProcessCpuUsage& entry : region.processCpuUsageTable) {
        if (entry.pid == 0) continue;
        if (processes++ == 0) fmt::format_to(out, "\n  Process     Usage\n");
        fmt::format_to(out, "  {:<10}  {}.{:02} %\n", entry.pid, entry.usage / 100, entry.usage % 100);
    }
    fmt::format_to(out, "  {} of {} thread entries used, {} of {} process entries\n", threads, KOVA_THREAD_TICK_ENTRIES,
                   processes, KOVA_PROCESS_CPU_USAGE_ENTRIES);
}

void append_history(std::string& text, std::string_view name, std::span<const std::uint32_t> samples) {
    auto out = std::back_inserter(text);
    fmt::format_to(out, "\n{} system CPU usage, %, the newest {} samples first\n", name, samples.size());
    for (std::size_t at = 0; at < samples.size(); at += kSamplesInLine) {
        const auto line = samples.subspan(at, std::min(kSamplesInLine, samples.size() - at));
        fmt::format_to(out, "  {:>3}\n", fmt::join(line, " "));
    }
}

Json threads_json(const KovaResourceRegion& region) {
    Json threads = Json::array();
    for (std::size_t i = 0; i < std::size(region.threadTickTable); ++i) {
        const KovaThreadTick& entry = region.threadTickTable[i];
        if (!is_used(entry)) continue;
        threads.push_back({{"entry", i},
                           {"core", entry.coreId},
                           {"process", entry.pid},
                           {"thread", entry.tid},
                           {"busy_ns", entry.cpuTick}});
    }
    return threads;
}

Json processes_json(const KovaResourceRegion& region) {
    Json processes = Json::array();
    for (std::size_t i = 0; i < std::size(region.processCpuUsageTable); ++i) {
        const KovaProcessCpuUsage& entry = region.processCpuUsageTable[i];
        if (entry.pid == 0) continue;
        processes.push_back({{"entry", i}, {"process", entry.pid}, {"usage_x100", entry.usage}});
    }
    return processes;
}

}  // namespace

std::string region_text(const RegionSnapshot& snapshot, std::size_t history) {
    const KovaResourceRegion& region = snapshot.region;
    std::string text = fmt::format("Shared region {}, {} bytes, {}\n", KOVA_RESOURCE_REGION_NAME, snapshot.length,
                                   daemon_text(snapshot));
    append_figures(text, region);
    append_cores(text, region);
    append_tables(text, region);
    auto raw = newest_first(region, region.cpuUsageHistory);
    auto smooth = newest_first(region, region.cpuUsageSmoothHistory);
    raw.resize(std::min(raw.size(), history));
    smooth.resize(std::min(smooth.size(), history));
    append_history(text, "Raw", raw);
    append_history(text, "Smoothed", smooth);
    return text;
}

Json region_json(const RegionSnapshot& snapshot) {
    const KovaResourceRegion& region = snapshot.region;
    Json json;
    json["object"] = KOVA_RESOURCE_REGION_NAME;
    json["length"] = snapshot.length;
    json["daemon"] = snapshot.daemon ? Json(*snapshot.daemon) : Json(nullptr);
    json["cpu"] = {{"usage_percent", region.sysCpuUsage},
                   {"sample_count", region.cpuSampleCount},
                   {"sample_interval_ms", region.cpuSampleInterval},
                   {"history_percent", newest_first(region, region.cpuUsageHistory)},
                   {"smooth_history_percent", newest_first(region, region.cpuUsageSmoothHistory)}};
    json["memory"] = {{"usage_percent", region.sysMemUsage},       {"total_kib", region.memInfoFirst},
                      {"available_kib", region.memInfoSecond},     {"cycle_ms", region.memUsageCycle},
                      {"overload_state", region.memOverloadState}, {"overload_percent", region.memThreshold},
                      {"restore_percent", region.memRestore},      {"reserved_set", region.reservedMemSet},
                      {"reserved_kib", region.reservedMem},        {"reserved_virtual_kib", region.reservedVirtualMem}};
    json["data_plane"] = {{"balanced_percent", region.dataPlaneCpuUsageBalance},
                          {"sample_cycle_ms", region.dataPlaneSampleCycle},
                          {"process_cycle_ms", region.dataPlaneProcessCycle},
                          {"monitor_status", region.resourceMonitorStatus},
                          {"core_usage_percent", region.coreCpuUsage},
                          {"threads", threads_json(region)},
                          {"processes", processes_json(region)}};
    return json;
}

}  // namespace kova::kovactl
