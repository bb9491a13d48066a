// kovactl ps and kovactl subscriptions: who is registered with the daemon, and who subscribed to what.
#pragma once

#include "command.h"

namespace kova::kovactl {

void add_process_commands(CLI::App& app, const CommonOptions& common, Action& action);

}  // namespace kova::kovactl
