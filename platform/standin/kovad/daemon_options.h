// What the daemon is told on its command line.
#pragma once

#include <sys/types.h>
#include <optional>

#include "daemon_log.h"
#include "region_feed.h"

namespace kova::kovad {

struct DaemonOptions {
    FeedSettings feed;
    std::optional<gid_t> group;  // who, besides the daemon's user, may use region and socket
    LogTarget log_target = LogTarget::kStandardError;
};

// Nothing when there is nothing to run: help was asked for and printed, or the line was wrong, which was said.
// `*exit_status` then is the program's.
[[nodiscard]] std::optional<DaemonOptions> parse_options(int argc, char** argv, int* exit_status);

}  // namespace kova::kovad
