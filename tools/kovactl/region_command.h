// kovactl region: the shared region of resource figures, once or live.
#pragma once

#include "command.h"

namespace kova::kovactl {

void add_region_command(CLI::App& app, const CommonOptions& common, Action& action);

}  // namespace kova::kovactl
