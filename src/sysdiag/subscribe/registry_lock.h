// The lock of the registry, and the process's one publisher.
//
// g_kovaSubscribeMutexLock guards everything below g_KovaPublisherAgent. The pointer itself is set once, under the
// lock, and never cleared, so that it may be looked at before: registration and the services do.
#pragma once

#include <cstdint>

#include "base/no_cancellation.h"
#include "base/shared_word.h"
#include "kova/subscription_registry.h"
#include "kova_platform/process_globals.h"

namespace kova {

// Holds the registry until it goes out of scope, if it could be locked at all.
class RegistryLock {
  public:
    RegistryLock() : error_(KOVA_Subscriber_Mutex_Lock()) {}
    ~RegistryLock() {
        // A lock that was taken here cannot fail to be released.
        if (is_held()) static_cast<void>(KOVA_Subscriber_Mutex_Unlock());
    }
    RegistryLock(const RegistryLock&) = delete;
    RegistryLock& operator=(const RegistryLock&) = delete;

    [[nodiscard]] bool is_held() const { return error_ == 0; }
    // Error number of the failed attempt, 0 when it is held.
    [[nodiscard]] std::int32_t error() const { return error_; }

  private:
    NoCancellation no_cancellation_;  // asking the daemon and a module's hook are full of cancellation points
    std::int32_t error_;
};

// Null until the first module has subscribed.
[[nodiscard]] inline Publisher* process_publisher() {
    return load_acquire(g_KovaPublisherAgent);
}

}  // namespace kova
