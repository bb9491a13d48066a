// The exception log as the capture's own code uses it: one function through which every piece of report text goes.
//
// Signal context: all of it.
#pragma once

#include <string_view>

#include "base/result.h"
#include "base/shared_file.h"

namespace kova {

extern const SharedFileKind kExceptionLog;

// Appends one piece: open, lock, one write, unlock, close. kFailed loses this piece only; callers go on with the next.
Code write_to_log(std::string_view text, const CallingThread& thread = calling_thread());

// The piece and then, as a second one, a line feed. Nothing at all for an empty text.
void write_section_to_log(std::string_view text);

}  // namespace kova
