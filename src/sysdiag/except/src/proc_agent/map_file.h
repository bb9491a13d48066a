// The process's own memory-map file.
//
// Signal context: all of it.
#pragma once

#include "base/unique_fd.h"

namespace kova {

// Size of a buffer that the path of a map file fits, whatever the process id.
inline constexpr unsigned kMapPathSize = 28;

// Chooses the file anew and opens it for reading. Not open on failure, with errno. `path` is what was chosen.
[[nodiscard]] UniqueFd open_map_file(char (&path)[kMapPathSize]);

}  // namespace kova
