// The lock between the threads of one process, as those see it who must not wait for ever.
#include <gtest/gtest.h>
#include <pthread.h>

#include <latch>
#include <optional>
#include <thread>

#include "base/process_lock.h"

namespace kova {
namespace {

constinit ProcessLock g_lock;

// A thread that holds the lock until the object goes.
class Holder {
  public:
    Holder() : thread_([this] { hold(); }) { held_.wait(); }
    ~Holder() {
        let_go_.count_down();
        thread_.join();
    }

  private:
    void hold() {
        const ScopedProcessLock lock(g_lock, log_wait_budget());
        held_.count_down();
        let_go_.wait();
    }

    std::latch held_{1};
    std::latch let_go_{1};
    std::thread thread_;
};

TEST(ProcessLock, AHandlerPassesAThreadThatDoesNotLetGoAndWaitsForItOnce) {
    const Holder holder;
    const SignalScope scope;
    { const ScopedProcessLock lock(g_lock, log_wait_budget()); }
    const std::int64_t left_ms = log_wait_budget().left_ms;
    EXPECT_LT(0, left_ms);
    EXPECT_GT(kLogWaitMs, left_ms);
    // A report has a hundred pieces: none of them may wait again.
    for (int piece = 0; piece < 100; ++piece) const ScopedProcessLock lock(g_lock, log_wait_budget());
    EXPECT_LT(left_ms - 1000, log_wait_budget().left_ms);
}

TEST(ProcessLock, AThreadIsNotCancelledWhileItHoldsTheLock) {
    static std::optional<ScopedProcessLock> lock;
    pthread_t thread{};
    ASSERT_EQ(0, ::pthread_create(
                     &thread, nullptr,
                     [](void*) -> void* {
                         lock.emplace(g_lock, log_wait_budget());
                         ::pthread_cancel(::pthread_self());
                         ::pthread_testcancel();  // would leave the lock taken for the life of the process
                         lock.reset();
                         ::pthread_testcancel();
                         return &lock;
                     },
                     nullptr));
    void* result = nullptr;
    ASSERT_EQ(0, ::pthread_join(thread, &result));
    EXPECT_EQ(PTHREAD_CANCELED, result);
    EXPECT_FALSE(lock.has_value());
}

}  // namespace
}  // namespace kova
