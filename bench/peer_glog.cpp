#include <glog/logging.h>

#include "crash_peers.h"

namespace kova::bench {

// The handler has no name outside its library: it is found where it was installed.
CrashHandler set_up_glog() {
    google::InitGoogleLogging("kova_bench_peers");
    google::InstallFailureSignalHandler();
    struct sigaction action {};
    ::sigaction(SIGSEGV, nullptr, &action);
    return action.sa_sigaction;
}

}  // namespace kova::bench
