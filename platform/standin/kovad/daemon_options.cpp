// What the daemon is told on its command line; see daemon_options.h.
#include "daemon_options.h"

#include <grp.h>
#include <cstdint>
#include <string>

#include <fmt/format.h>
#include <CLI/CLI.hpp>

namespace kova::kovad {
namespace {

constexpr int kExitUsage = 2;

constexpr char kFooter[] =
    "Runs in the foreground until SIGTERM or SIGINT. The region is the shared-memory object\n"
    "kova_resource_info_sharemem; one that is there is taken over as it is.\n"
    "Exit status: 0 stopped cleanly; 1 it cannot run, and says why; 2 the command line is wrong.";

void add_cycle(CLI::App& app, const char* name, std::uint32_t& ms, const char* text) {
    app.add_option(name, ms, text)->type_name("MS")->check(CLI::Range(10, 3'600'000))->capture_default_str();
}

void add_percent(CLI::App& app, const char* name, std::uint32_t& percent, const char* text) {
    app.add_option(name, percent, text)->type_name("PERCENT")->check(CLI::Range(1, 100))->capture_default_str();
}

gid_t group_of(const std::string& name) {
    const struct group* const found = ::getgrnam(name.c_str());
    if (found == nullptr) throw CLI::ValidationError("--group", fmt::format("there is no group '{}'", name));
    return found->gr_gid;
}

}  // namespace

std::optional<DaemonOptions> parse_options(int argc, char** argv, int* exit_status) {
    DaemonOptions options;
    FeedSettings& feed = options.feed;
    std::string group;
    bool to_system_log = false;

    CLI::App app("Feeds the shared region with the node's resource figures.", "kovad");
    app.footer(kFooter);
    add_cycle(app, "--cpu-interval", feed.cpu_interval_ms, "Time between two samples of system CPU usage");
    add_cycle(app, "--memory-cycle", feed.memory_cycle_ms, "Time between two samples of memory");
    add_cycle(app, "--data-plane-sample-cycle", feed.data_plane_sample_cycle_ms,
              "Time between two samples of the data-plane cores");
    add_cycle(app, "--data-plane-process-cycle", feed.data_plane_process_cycle_ms,
              "How often data-plane processes report, and subscribers hear of it");
    add_percent(app, "--memory-overload", feed.memory.overload_percent, "Memory is overloaded from this usage on");
    add_percent(app, "--memory-restore", feed.memory.restore_percent, "Memory has recovered from this usage down");
    app.add_option("--release-after", feed.release_after_s, "Keep what an ended data-plane process reported this long")
        ->type_name("SECONDS")
        ->check(CLI::Range(1, 86'400))
        ->capture_default_str();
    app.add_option("--group", group, "Group that may use region and socket, by default the daemon's own");
    app.add_flag("--syslog", to_system_log, "Log to the system log instead of standard error");
    try {
        app.parse(argc, argv);
        if (feed.memory.restore_percent >= feed.memory.overload_percent) {
            throw CLI::ValidationError("--memory-restore", "must be below --memory-overload");
        }
        if (!group.empty()) options.group = group_of(group);
    } catch (const CLI::ParseError& error) {
        *exit_status = app.exit(error) == 0 ? 0 : kExitUsage;
        return std::nullopt;
    }
    if (to_system_log) options.log_target = LogTarget::kSystemLog;
    return options;
}

}  // namespace kova::kovad
