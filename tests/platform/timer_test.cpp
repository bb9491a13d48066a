// Timers against the locks of those who own them. That they expire, once or again and again, is what registration with
// a real daemon stands on.
#include "kova_platform/timer.h"

#include <atomic>
#include <mutex>

#include <gtest/gtest.h>

#include "support/event_thread.h"

namespace {

struct Owner {
    std::mutex mutex;
    std::atomic<int> expired = 0;
};

// Expires every millisecond.
ZibTimer* make_timer(Owner* owner) {
    const ZibTimerHandler handler{[](void* argument) {
                                      auto* const self = static_cast<Owner*>(argument);
                                      ++self->expired;
                                      const std::lock_guard lock(self->mutex);
                                      return 0U;
                                  },
                                  owner};
    const std::uint32_t repeated = 1, period_ms = 1;
    ZibTimerAttr* const attributes = ZIB_TimerCreateAttr();
    EXPECT_EQ(0U, ZIB_TimerSetAttr(attributes, ZIB_TIMER_ATTR_HANDLER, &handler, sizeof handler));
    EXPECT_EQ(0U, ZIB_TimerSetAttr(attributes, ZIB_TIMER_ATTR_MODE, &repeated, sizeof repeated));
    EXPECT_EQ(0U, ZIB_TimerSetAttr(attributes, ZIB_TIMER_ATTR_PERIOD, &period_ms, sizeof period_ms));
    ZibTimer* const timer = ZIB_TimerCreate(KovaSchThreadCreate(2), attributes);
    ZIB_TimerDestroyAttr(attributes);
    return timer;
}

// As the registration does it: under a lock that the handler takes, at the moment it expires.
TEST(TimerService, ATimerIsDestroyedUnderTheLockThatItsHandlerTakes) {
    for (int round = 0; round < 40; ++round) {
        Owner owner;
        {
            const std::lock_guard lock(owner.mutex);
            ZibTimer* const timer = make_timer(&owner);
            ASSERT_EQ(0U, ZIB_TimerStart(timer));
            while (round % 2 == 0 && owner.expired == 0) static_cast<void>(0);
            ZIB_TimerDestroy(timer);
        }
        kova::test::let_event_thread_run();
        EXPECT_GE(1, owner.expired) << "one that has begun goes on, no further one begins";
    }
}

}  // namespace
