// kovactl box and kovactl asserts: list, show and verify the black box.
#pragma once

#include "command.h"

namespace kova::kovactl {

void add_box_commands(CLI::App& app, const CommonOptions& options, Action& action);

}  // namespace kova::kovactl
