// A clock that stands still: time(), gettimeofday() and clock_gettime(CLOCK_REALTIME) as the agent sees them.
#pragma once

#include <ctime>

namespace kova::test {

struct FakeClock {
    bool stands_still = false;
    bool fails = false;  // gettimeofday and clock_gettime answer -1
    timespec now{};
};

inline FakeClock g_clock;

// Sets clock and time zone, and the real clock and UTC again at the end of the scope.
class ClockAt {
  public:
    explicit ClockAt(time_t seconds, long nanoseconds = 0, const char* zone = "UTC0");
    ClockAt(const ClockAt&) = delete;
    ClockAt& operator=(const ClockAt&) = delete;
    ~ClockAt();
};

}  // namespace kova::test
