#define BACKWARD_HAS_DW 1
#include <backward.hpp>

#include "crash_peers.h"

namespace kova::bench {

CrashHandler set_up_backward() {
    static const backward::SignalHandling kHandling;
    return [](int signal, siginfo_t* info, void* context) {
        backward::SignalHandling::handleSignal(signal, info, context);
    };
}

}  // namespace kova::bench
