// Sets a program up for capture before its own code runs.
//
// Preloaded into a program that knows nothing of the agent. It prints nothing and keeps errno, and starts no thread
// unless the program is to be registered.
//
// KOVA_HOST_TIMEOUT   seconds after which a capture is cut off, 1 to 3600; anything else counts as unset (30).
// KOVA_HOST_REGISTER  1 registers the program with the daemon; anything else counts as unset.
//
// Signal context: nothing here.
#include <sys/resource.h>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "alternate_stack.h"
#include "host_signals.h"
#include "kova/agent_registration.h"
#include "kova/exception_capture.h"

namespace kova::host {
namespace {

constexpr std::int64_t kDefaultTimeoutSeconds = 30;
constexpr std::int64_t kLongestTimeoutSeconds = 3600;

std::int64_t timeout_seconds() {
    const char* const text = std::getenv("KOVA_HOST_TIMEOUT");
    if (text == nullptr) return kDefaultTimeoutSeconds;
    std::int64_t seconds = 0;
    for (const char* digit = text; *digit != '\0'; ++digit) {
        if (*digit < '0' || *digit > '9') return kDefaultTimeoutSeconds;
        seconds = seconds * 10 + (*digit - '0');
        if (seconds > kLongestTimeoutSeconds) return kDefaultTimeoutSeconds;
    }
    return seconds > 0 ? seconds : kDefaultTimeoutSeconds;
}

// A capture needs a descriptor when the program has used up its own, and a log that may already be long.
void raise_to_hard_limit(__rlimit_resource_t resource) {
    rlimit limit{};
    if (::getrlimit(resource, &limit) != 0 || limit.rlim_cur == limit.rlim_max) return;
    limit.rlim_cur = limit.rlim_max;
    // Refused: the program keeps the limit that it was given.
    static_cast<void>(::setrlimit(resource, &limit));
}

// Type of programs that know nothing of the agent.
constexpr std::uint32_t kProcessType = 0;

// Last of all: its threads get their stacks for signal handlers like any other of the program.
void register_if_wanted() {
    const char* const wanted = std::getenv("KOVA_HOST_REGISTER");
    if (wanted == nullptr || std::strcmp(wanted, "1") != 0) return;
    // A daemon that is absent is no failure. Others are in the log, and the program runs unregistered.
    static_cast<void>(KovaAgentRegisterInit(kProcessType));
}

[[gnu::constructor]] void set_up_host() {
    const int saved_errno = errno;
    raise_to_hard_limit(RLIMIT_NOFILE);
    raise_to_hard_limit(RLIMIT_FSIZE);
    set_up_alternate_stacks();
    // After a failure signals still leave their trace lines.
    static_cast<void>(KOVA_ExceptInit());
    install_handlers(timeout_seconds() * 1000);
    register_if_wanted();
    errno = saved_errno;
}

}  // namespace
}  // namespace kova::host
