// Timers of the event thread.
//
// A timer that runs is known to the Runtime by an id of its own, new with each start. What expires looks under the
// mutex whether its id is still the timer's; stopping takes the id away. So a stopped timer makes no further call,
// wherever its expiry has got to, and nobody waits for anybody.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>

#include "kova_platform/timer.h"
#include "runtime.h"

namespace kova::rpc {
namespace {

constexpr std::uint64_t kStopped = 0;

struct Timer {
    ZibTimerHandler handler{};
    bool repeats = false;
    std::uint32_t period_ms = 0;
    std::uint64_t running_id = kStopped;  // with the Runtime's mutex
};

// Never the same twice, in forked children neither.
constinit std::atomic<std::uint64_t> g_last_id{kStopped};

void wait_locked(Runtime* runtime, asio::steady_timer* waiting, const std::shared_ptr<Timer>& timer);

void expire(Runtime* runtime, const std::shared_ptr<Timer>& timer, std::uint64_t id) {
    {
        const std::lock_guard lock(runtime->mutex);
        if (timer->running_id != id) return;
        if (!timer->repeats) {
            timer->running_id = kStopped;
            runtime->running_timers.erase(id);
        }
    }
    timer->handler.proc(timer->handler.argument);
    const std::lock_guard lock(runtime->mutex);
    if (timer->running_id == id) wait_locked(runtime, runtime->running_timers.at(id).get(), timer);
}

void wait_locked(Runtime* runtime, asio::steady_timer* waiting, const std::shared_ptr<Timer>& timer) {
    waiting->expires_after(std::chrono::milliseconds(std::max(timer->period_ms, 1U)));
    waiting->async_wait([runtime, timer, id = timer->running_id](asio::error_code error) {
        if (!error) expire(runtime, timer, id);
    });
}

// A timer inherited from a parent process has an id that this process does not know: it is stopped here.
void stop_locked(Runtime* runtime, Timer* timer) {
    runtime->running_timers.erase(timer->running_id);
    timer->running_id = kStopped;
}

void start_locked(Runtime* runtime, const std::shared_ptr<Timer>& timer) {
    stop_locked(runtime, timer.get());
    auto waiting = std::make_unique<asio::steady_timer>(runtime->events);
    timer->running_id = ++g_last_id;
    const auto made = runtime->running_timers.emplace(timer->running_id, std::move(waiting)).first;
    wait_locked(runtime, made->second.get(), timer);
}

bool is_running_locked(const Runtime& runtime, const Timer& timer) {
    return runtime.running_timers.contains(timer.running_id);
}

}  // namespace
}  // namespace kova::rpc

struct KovaSchThread {};

struct ZibTimerAttr {
    kova::rpc::Timer timer;
};

struct ZibTimer {
    std::shared_ptr<kova::rpc::Timer> timer;
};

using kova::rpc::or_else;
using kova::rpc::Runtime;
using kova::rpc::Timer;

namespace {

// One for all who ask; it stands for the event thread of whatever process asks.
constinit KovaSchThread g_event_thread;

constexpr uint32_t kLongestName = 31;

bool copy_attribute(void* attribute, size_t size, const void* value, uint32_t length) {
    if (length != size) return false;
    std::memcpy(attribute, value, size);
    return true;
}

bool set_attribute(Timer* timer, uint32_t id, const void* value, uint32_t length) {
    uint32_t mode = 0;
    switch (id) {
        case ZIB_TIMER_ATTR_HANDLER:
            return copy_attribute(&timer->handler, sizeof timer->handler, value, length);
        case ZIB_TIMER_ATTR_MODE:
            if (!copy_attribute(&mode, sizeof mode, value, length) || mode > 1) return false;
            timer->repeats = mode == 1;
            return true;
        case ZIB_TIMER_ATTR_PERIOD:
            return copy_attribute(&timer->period_ms, sizeof timer->period_ms, value, length);
        case ZIB_TIMER_ATTR_NAME:
            return length >= 1 && length <= kLongestName;
        default:
            return false;
    }
}

}  // namespace

KovaSchThread* KovaSchThreadCreate(uint32_t /*kind*/) {
    return Runtime::current() != nullptr ? &g_event_thread : nullptr;
}

ZibTimerAttr* ZIB_TimerCreateAttr(void) {
    return new (std::nothrow) ZibTimerAttr;
}

uint32_t ZIB_TimerSetAttr(ZibTimerAttr* attr, uint32_t id, const void* value, uint32_t length) {
    if (attr == nullptr || value == nullptr) return KOVA_TIMER_INVALID;
    return set_attribute(&attr->timer, id, value, length) ? 0 : KOVA_TIMER_INVALID;
}

void ZIB_TimerDestroyAttr(ZibTimerAttr* attr) {
    delete attr;
}

ZibTimer* ZIB_TimerCreate(KovaSchThread* thread, const ZibTimerAttr* attr) {
    if (thread == nullptr || attr == nullptr || attr->timer.handler.proc == nullptr) return nullptr;
    return or_else<ZibTimer*>(nullptr, [&] { return new ZibTimer{std::make_shared<Timer>(attr->timer)}; });
}

uint32_t ZIB_TimerStart(ZibTimer* timer) {
    if (timer == nullptr) return KOVA_TIMER_INVALID;
    Runtime* const runtime = Runtime::current();
    if (runtime == nullptr) return KOVA_TIMER_NO_RESOURCE;
    return or_else<uint32_t>(KOVA_TIMER_NO_RESOURCE, [&] {
        const std::lock_guard lock(runtime->mutex);
        kova::rpc::start_locked(runtime, timer->timer);
        return 0U;
    });
}

uint32_t ZIB_TimerStop(ZibTimer* timer) {
    if (timer == nullptr) return KOVA_TIMER_INVALID;
    // Without a Runtime of this process nothing runs.
    if (Runtime* const runtime = Runtime::existing(); runtime != nullptr) {
        const std::lock_guard lock(runtime->mutex);
        kova::rpc::stop_locked(runtime, timer->timer.get());
    }
    return 0;
}

uint32_t ZIB_TimerResize(ZibTimer* timer, uint32_t periodMs) {
    if (timer == nullptr) return KOVA_TIMER_INVALID;
    Runtime* const runtime = Runtime::current();
    if (runtime == nullptr) return KOVA_TIMER_NO_RESOURCE;
    return or_else<uint32_t>(KOVA_TIMER_NO_RESOURCE, [&] {
        const std::lock_guard lock(runtime->mutex);
        timer->timer->period_ms = periodMs;
        if (kova::rpc::is_running_locked(*runtime, *timer->timer)) kova::rpc::start_locked(runtime, timer->timer);
        return 0U;
    });
}

void ZIB_TimerDestroy(ZibTimer* timer) {
    if (timer == nullptr) return;
    static_cast<void>(ZIB_TimerStop(timer));
    delete timer;
}
