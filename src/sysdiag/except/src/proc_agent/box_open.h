// Opening the black box file against resistance: whatever else stands at its path is removed.
//
// Signal context: not safe (logs, runs a shell command).
#pragma once

#include "base/result.h"
#include "base/unique_fd.h"

namespace kova {

// Opens the file, replacing what cannot be opened. 0; 4 not removable; 2 the second open failed.
[[nodiscard]] Code open_or_replace_box(UniqueFd* fd);

// The same as an opening step for LockedBox::open. `code` is the Code that receives the result.
[[nodiscard]] UniqueFd open_or_replace_box_step(void* code);

}  // namespace kova
