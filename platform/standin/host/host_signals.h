// The handlers that turn a fatal signal into a capture.
//
// Signal context: nothing here; the handler itself is all signal context.
#pragma once

#include <cstdint>

namespace kova::host {

// Installs the handler for every signal of g_kovaSignalList whose disposition is the default one: what the program was
// started with or has arranged itself stays, and what it installs later wins. A signal that it puts back to the default
// comes back here.
//
// capture_limit_ms: after this time a capture is cut off.
void install_handlers(std::int64_t capture_limit_ms);

}  // namespace kova::host
