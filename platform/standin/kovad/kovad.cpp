// kovad: the diagnosis daemon. Creates the shared region and keeps its figures up to date; processes register with it
// and are told the figures that they subscribed to.
//
// One thread and one loop: wait, then one small action. Nothing in it waits for anybody else.
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <exception>
#include <optional>

#include <asio/io_context.hpp>
#include <asio/signal_set.hpp>

#include "cycle.h"
#include "daemon_log.h"
#include "daemon_options.h"
#include "link_server.h"
#include "region_feed.h"
#include "region_owner.h"

namespace kova::kovad {
namespace {

constexpr int kExitTrouble = 1;

using std::chrono::milliseconds;

std::uint64_t now_ns() {
    const auto since_boot = std::chrono::steady_clock::now().time_since_epoch();
    return static_cast<std::uint64_t>(std::chrono::nanoseconds(since_boot).count());
}

// Otherwise the region could become descriptor 2, and log lines would be written into it.
void occupy_standard_descriptors() {
    int fd = 0;
    while (fd >= 0 && fd <= STDERR_FILENO) fd = ::open("/dev/null", O_RDWR);
    if (fd >= 0) ::close(fd);
}

// One descriptor for each connection and one for its process: the usual limit is soon too low.
void raise_descriptor_limit() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
    limit.rlim_cur = limit.rlim_max;
    static_cast<void>(::setrlimit(RLIMIT_NOFILE, &limit));
}

void run(const DaemonOptions& options) {
    RegionOwner owner(options.group);
    RegionFeed feed(owner.region(), options.feed);
    log(Level::kInfo, "region {}", owner.was_there() ? "taken over" : "created");

    asio::io_context loop;
    asio::signal_set stop(loop, SIGTERM, SIGINT);
    stop.async_wait([&loop](const asio::error_code&, int number) {
        log(Level::kInfo, "stopped by signal {}", number);
        loop.stop();
    });
    Cycle cpu(loop, milliseconds(options.feed.cpu_interval_ms), [&] {
        owner.ensure_length();
        feed.sample_cpu();
    });
    Cycle memory(loop, milliseconds(options.feed.memory_cycle_ms), [&] { feed.sample_memory(); });
    Cycle data_plane(loop, milliseconds(options.feed.data_plane_sample_cycle_ms),
                     [&] { feed.sample_data_plane(now_ns()); });
    LinkServer server(loop, options.group, feed, memory);
    Cycle data_plane_processes(loop, milliseconds(options.feed.data_plane_process_cycle_ms), [&] { server.publish(); });
    log(Level::kInfo, "ready, listens on {}", server.path());
    loop.run();
}

}  // namespace
}  // namespace kova::kovad

int main(int argc, char** argv) {
    using namespace kova::kovad;
    try {
        occupy_standard_descriptors();
        int exit_status = 0;
        const std::optional<DaemonOptions> options = parse_options(argc, argv, &exit_status);
        if (!options) return exit_status;
        set_log_target(options->log_target);
        // Whoever reads what we write may go away.
        static_cast<void>(std::signal(SIGPIPE, SIG_IGN));
        raise_descriptor_limit();
        run(*options);
        return 0;
    } catch (const std::exception& error) {
        log_line(Level::kError, error.what());
        return kExitTrouble;
    }
}
