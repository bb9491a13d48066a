// Deaths of processes that have run out of something or have given something up.
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cstdlib>

#include "host/crash_helper_modes.h"

namespace {

constexpr unsigned kNobody = 65534;

void without_descriptors(int) {
    while (::open("/dev/null", O_RDONLY) >= 0) continue;
    fault();
}

void without_memory(int) {
    const rlimit none{};
    ::setrlimit(RLIMIT_AS, &none);
    while (std::malloc(1024) != nullptr) continue;
    fault();
}

void in_another_root(int) {
    if (::chroot("/run/kova/root") != 0 || ::chdir("/") != 0) std::_Exit(kNotPossibleHere);
    fault();
}

void as_nobody(int) {
    if (::setgid(kNobody) != 0 || ::setuid(kNobody) != 0) std::_Exit(kNotPossibleHere);
    fault();
}

constexpr Mode kModes[] = {
    {"without-descriptors", without_descriptors},
    {"without-memory", without_memory},
    {"in-another-root", in_another_root},
    {"as-nobody", as_nobody},
};

}  // namespace

std::span<const Mode> resource_modes() {
    return kModes;
}
