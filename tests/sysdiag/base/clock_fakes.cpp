#include "sysdiag/base/clock_fakes.h"

#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>
#include <cerrno>
#include <cstdlib>

using kova::test::g_clock;

namespace kova::test {

ClockAt::ClockAt(time_t seconds, long nanoseconds, const char* zone) {
    ::setenv("TZ", zone, 1);
    ::tzset();
    g_clock = FakeClock{.stands_still = true, .now = {seconds, nanoseconds}};
}

ClockAt::~ClockAt() {
    g_clock = FakeClock{};
    ::setenv("TZ", "UTC0", 1);
    ::tzset();
}

}  // namespace kova::test

extern "C" {

int clock_gettime(clockid_t clock, struct timespec* now) noexcept {
    if (clock != CLOCK_REALTIME || !g_clock.stands_still) {
        return static_cast<int>(::syscall(SYS_clock_gettime, clock, now));
    }
    if (g_clock.fails) {
        errno = EPERM;
        return -1;
    }
    *now = g_clock.now;
    return 0;
}

int gettimeofday(struct timeval* now, void*) noexcept {
    timespec precise{};
    const int result = ::clock_gettime(CLOCK_REALTIME, &precise);
    if (result == 0) *now = {precise.tv_sec, precise.tv_nsec / 1000};
    return result;
}

time_t time(time_t* now) noexcept {
    timespec precise{};
    static_cast<void>(::clock_gettime(CLOCK_REALTIME, &precise));
    if (now != nullptr) *now = precise.tv_sec;
    return precise.tv_sec;
}

}  // extern "C"
