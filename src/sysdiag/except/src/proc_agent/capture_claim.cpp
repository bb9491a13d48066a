// Claiming the capture; see capture_claim.h.
//
// Signal context: all of it.
#include "except/src/proc_agent/capture_claim.h"

#include <atomic>
#include <cstdint>

#include "base/signal_scope.h"
#include "kova_platform/process_globals.h"

#include "base/signal_path.h"

namespace kova {
namespace {

// 0 while the flag is free, and for the instant between the claim of the flag and the store here.
constinit std::atomic<ThreadKey> g_capture_holder{0};

}  // namespace

bool claim_capture() {
    const ThreadKey self = this_thread_key();
    std::int32_t expected = 0;
    if (std::atomic_ref<std::int32_t>(g_kovaExceptionMutex).compare_exchange_strong(expected, 1)) {
        g_capture_holder.store(self);
        return true;
    }
    ThreadKey holder = g_capture_holder.load();
    if (holder == 0 || key_pid(holder) == key_pid(self)) return false;
    return g_capture_holder.compare_exchange_strong(holder, self);
}

void release_capture() {
    g_capture_holder.store(0);
    std::atomic_ref<std::int32_t>(g_kovaExceptionMutex).store(0);
}

}  // namespace kova
