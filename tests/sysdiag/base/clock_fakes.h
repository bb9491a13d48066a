// A clock that stands still: time(), gettimeofday() and clock_gettime(CLOCK_REALTIME) as the agent sees them.
//
// Including this header defines the three in the test program.
#pragma once

#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>
#include <cstdlib>
#include <ctime>
#include <optional>

namespace kova::test {

inline std::optional<timespec> g_standing_clock;

// Sets clock and time zone, and the real clock and UTC again at the end of the scope.
class ClockAt {
  public:
    explicit ClockAt(time_t seconds, long nanoseconds = 0, const char* zone = "UTC0") {
        set_zone(zone);
        g_standing_clock = {seconds, nanoseconds};
    }
    ClockAt(const ClockAt&) = delete;
    ~ClockAt() {
        g_standing_clock.reset();
        set_zone("UTC0");
    }

  private:
    static void set_zone(const char* zone) {
        ::setenv("TZ", zone, 1);
        ::tzset();
    }
};

}  // namespace kova::test

// Inline, so that several files of one program may include this; `used`, so that they exist without a call here.
extern "C" {

__attribute__((used)) inline int clock_gettime(clockid_t clock, struct timespec* now) noexcept {
    const auto& standing = kova::test::g_standing_clock;
    if (clock != CLOCK_REALTIME || !standing) return static_cast<int>(::syscall(SYS_clock_gettime, clock, now));
    *now = *standing;
    return 0;
}

__attribute__((used)) inline int gettimeofday(struct timeval* now, void*) noexcept {
    timespec precise{};
    static_cast<void>(::clock_gettime(CLOCK_REALTIME, &precise));
    *now = {precise.tv_sec, precise.tv_nsec / 1000};
    return 0;
}

__attribute__((used)) inline time_t time(time_t* now) noexcept {
    timespec precise{};
    static_cast<void>(::clock_gettime(CLOCK_REALTIME, &precise));
    if (now != nullptr) *now = precise.tv_sec;
    return precise.tv_sec;
}

}  // extern "C"
