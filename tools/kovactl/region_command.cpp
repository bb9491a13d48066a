// kovactl region; see region_command.h.
#include "region_command.h"

#include <unistd.h>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <thread>

#include <fmt/core.h>
#include <CLI/CLI.hpp>

#include "region_report.h"
#include "region_snapshot.h"

namespace kova::kovactl {
namespace {

// What fits on a screen below the figures.
constexpr std::size_t kWatchedSamples = 60;

constexpr char kClearScreen[] = "\033[H\033[2J";

constexpr char kFooter[] =
    "Exit status: 0 kovad keeps the region; 1 nobody does, so that its figures are old; 2 there is none, or it cannot\n"
    "be read. With --watch it is that of the last look.";

struct RegionOptions {
    bool watch = false;
    std::uint32_t interval_ms = 1000;
    std::uint32_t looks = 0;  // 0: until interrupted
};

int look(const RegionOptions& options, bool json) {
    const RegionSnapshot snapshot = read_region();
    if (json) {
        fmt::print("{}\n", region_json(snapshot).dump(options.watch ? -1 : 2));
    } else {
        fmt::print("{}", region_text(snapshot, options.watch ? kWatchedSamples : KOVA_CPU_USAGE_SAMPLES));
    }
    if (snapshot.length < KOVA_RESOURCE_REGION_SIZE) {
        complain(fmt::format("warning: the region has {} bytes and should have {}; the rest is shown as 0",
                             snapshot.length, KOVA_RESOURCE_REGION_SIZE));
    }
    if (snapshot.daemon) return kExitOk;
    complain("warning: no daemon keeps the region, its figures are old; start kovad");
    return kExitDamaged;
}

int look_or_complain(const RegionOptions& options, bool json) {
    try {
        return look(options, json);
    } catch (const NoRegion& error) {
        complain(error.what());
        return kExitTrouble;
    }
}

int watch(const RegionOptions& options, bool json) {
    const bool is_screen = !json && ::isatty(STDOUT_FILENO) == 1;
    int status = kExitOk;
    for (std::uint32_t done = 0; options.looks == 0 || done < options.looks; ++done) {
        if (done != 0) std::this_thread::sleep_for(std::chrono::milliseconds(options.interval_ms));
        if (is_screen) fmt::print("{}", kClearScreen);
        if (!is_screen && !json && done != 0) fmt::print("\n");
        status = look_or_complain(options, json);
        // Whoever reads us has gone.
        if (std::fflush(stdout) != 0) break;
    }
    return status;
}

}  // namespace

void add_region_command(CLI::App& app, const CommonOptions& common, Action& action) {
    const auto options = std::make_shared<RegionOptions>();
    CLI::App* const region = app.add_subcommand("region", "Show the shared region of resource figures");
    region->footer(kFooter);
    CLI::Option* const watched = region->add_flag("--watch", options->watch, "Again and again, until interrupted");
    region->add_option("--interval", options->interval_ms, "Time between two looks")
        ->type_name("MS")
        ->check(CLI::Range(50, 3'600'000))
        ->needs(watched)
        ->capture_default_str();
    region->add_option("--count", options->looks, "Looks after which to stop")
        ->type_name("N")
        ->check(CLI::Range(1, 1'000'000'000))
        ->needs(watched);
    region->callback([&action, &common, options] {
        action = [&common, options] {
            return options->watch ? watch(*options, common.json) : look_or_complain(*options, common.json);
        };
    });
}

}  // namespace kova::kovactl
