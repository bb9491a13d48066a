// RPC framework and timer service of the test program, in place of the platform's: nothing happens by itself, a test
// clock moves the timer, and any call can be made to fail.
#pragma once

#include <cstdint>
#include <cstring>
#include <map>
#include <string>

#include "kova_platform/rpc.h"
#include "kova_platform/timer.h"

struct KovaVellClient {};
struct KovaSchThread {};
struct ZibTimerAttr {
    std::map<std::uint32_t, std::string> values;
};
struct ZibTimer {
    ZibTimerHandler handler;
    std::uint32_t period_ms;
    bool is_running;
};

namespace kova::test {

struct PlatformFakes {
    // Calls are counted from 1 on; those from first_failure to last_failure fail.
    int calls = 0, first_failure = 0, last_failure = 0;
    std::string failed;                           // name of the first one that failed
    int clients = 0, timers = 0, attributes = 0;  // alive
    ZibTimer* timer = nullptr;                    // the last one made

    bool fails(const char* name) {
        ++calls;
        if (calls < first_failure || calls > last_failure) return false;
        if (failed.empty()) failed = name;
        return true;
    }

    void fail(int first, int last) { calls = 0, first_failure = first, last_failure = last, failed.clear(); }

    // Lets a period go by. Tests that the timer runs at all are their callers'.
    void expire() { static_cast<void>(timer->handler.proc(timer->handler.argument)); }
};

inline PlatformFakes g_platform;

}  // namespace kova::test
