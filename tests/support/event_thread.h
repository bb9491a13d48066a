// Waits for the RPC framework's event thread.
#pragma once

#include <atomic>
#include <cstdint>

#include <gtest/gtest.h>

#include "kova_platform/timer.h"

namespace kova::test {

// Everything that was due on the event thread when this is called has had its turn when it returns.
inline void let_event_thread_run() {
    static std::atomic<bool> is_over;
    is_over = false;
    ZibTimerAttr* const attributes = ZIB_TimerCreateAttr();
    const ZibTimerHandler handler{[](void*) {
                                      is_over = true;
                                      is_over.notify_all();
                                      return 0U;
                                  },
                                  nullptr};
    const std::uint32_t period_ms = 20;
    ASSERT_EQ(0U, ZIB_TimerSetAttr(attributes, ZIB_TIMER_ATTR_HANDLER, &handler, sizeof handler));
    ASSERT_EQ(0U, ZIB_TimerSetAttr(attributes, ZIB_TIMER_ATTR_PERIOD, &period_ms, sizeof period_ms));
    ZibTimer* const timer = ZIB_TimerCreate(KovaSchThreadCreate(2), attributes);
    ASSERT_EQ(0U, ZIB_TimerStart(timer));
    is_over.wait(false);
    ZIB_TimerDestroy(timer);
    ZIB_TimerDestroyAttr(attributes);
}

}  // namespace kova::test
