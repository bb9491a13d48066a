// Timers of the stand-in. No test depends on how long anything takes: they wait for what must come, and judge by order.
#include "kova_platform/timer.h"

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>

#include <gtest/gtest.h>

#include "support/event_thread.h"

namespace {

using kova::test::let_event_thread_run;

class TimerService : public testing::Test {
  protected:
    void TearDown() override { ZIB_TimerDestroy(timer_); }

    // One that expires every millisecond.
    ZibTimer* make(std::function<void()> body) {
        body_ = std::move(body);
        ZibTimerAttr* const attributes = ZIB_TimerCreateAttr();
        const std::uint32_t repeated = 1, period_ms = 1;
        const ZibTimerHandler handler{[](void* self) { return static_cast<TimerService*>(self)->expired(); }, this};
        EXPECT_EQ(0U, ZIB_TimerSetAttr(attributes, ZIB_TIMER_ATTR_HANDLER, &handler, sizeof handler));
        EXPECT_EQ(0U, ZIB_TimerSetAttr(attributes, ZIB_TIMER_ATTR_MODE, &repeated, sizeof repeated));
        EXPECT_EQ(0U, ZIB_TimerSetAttr(attributes, ZIB_TIMER_ATTR_PERIOD, &period_ms, sizeof period_ms));
        EXPECT_EQ(0U, ZIB_TimerSetAttr(attributes, ZIB_TIMER_ATTR_NAME, "agent_reg_timer", 15));
        ZibTimer* const timer = ZIB_TimerCreate(KovaSchThreadCreate(2), attributes);
        ZIB_TimerDestroyAttr(attributes);
        return timer;
    }

    std::uint32_t expired() {
        body_();
        const std::lock_guard lock(mutex_);
        ++count_;
        changed_.notify_all();
        return 0;
    }
    bool wait_for(int count) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(20), [&] { return count_ >= count; });
    }
    int count() {
        const std::lock_guard lock(mutex_);
        return count_;
    }

    ZibTimer* timer_ = nullptr;
    std::function<void()> body_;
    std::mutex mutex_;
    std::condition_variable changed_;
    int count_ = 0;
};

TEST_F(TimerService, ObeysItsOwnHandler) {
    const struct {
        const char* name;
        std::function<void()> body;
        int expected;
    } cases[] = {
        {"stops", [this] { EXPECT_EQ(0U, ZIB_TimerStop(timer_)); }, 1},
        {"destroys", [this] { ZIB_TimerDestroy(std::exchange(timer_, nullptr)); }, 1},
        {"puts off", [this] { EXPECT_EQ(0U, ZIB_TimerResize(timer_, 3600000)); }, 1},
        {"stops, resizes and starts, then stops",
         [this] {
             EXPECT_EQ(0U, ZIB_TimerStop(timer_));
             EXPECT_EQ(0U, ZIB_TimerResize(timer_, 1));
             EXPECT_EQ(0U, count_ == 0 ? ZIB_TimerStart(timer_) : 0);
         },
         2},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ZIB_TimerDestroy(std::exchange(timer_, nullptr));
        let_event_thread_run();
        count_ = 0;
        timer_ = make(c.body);
        ASSERT_EQ(0U, ZIB_TimerStart(timer_));
        EXPECT_TRUE(wait_for(c.expected));
        let_event_thread_run();
        EXPECT_EQ(c.expected, count());
    }
}

// As the registration does it: under a lock that the handler takes, at the moment it expires.
TEST_F(TimerService, IsDestroyedUnderTheLockThatItsHandlerTakes) {
    for (int round = 0; round < 40; ++round) {
        std::mutex held;
        std::atomic<int> started = 0;
        {
            const std::lock_guard lock(held);
            timer_ = make([&] {
                ++started;
                const std::lock_guard inside(held);
            });
            ASSERT_EQ(0U, ZIB_TimerStart(timer_));
            while (round % 2 == 0 && started == 0) static_cast<void>(0);
            ZIB_TimerDestroy(std::exchange(timer_, nullptr));
        }
        let_event_thread_run();
        EXPECT_GE(1, started) << "one that has begun goes on, no further one begins";
    }
}

}  // namespace
