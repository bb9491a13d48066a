// Crash handlers of other projects, made callable like the record handler so that the same wrapper can time them.
#pragma once

#include <csignal>

namespace kova::bench {

using CrashHandler = void (*)(int signal, siginfo_t* info, void* context);

// Each sets its handler up in the calling process and answers it. It writes to standard error and may leave the default
// action for the signal behind; it comes back as long as the signal is blocked.
[[nodiscard]] CrashHandler set_up_glog();
[[nodiscard]] CrashHandler set_up_backward();

}  // namespace kova::bench
