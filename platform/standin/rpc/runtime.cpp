#include "runtime.h"

#include <fcntl.h>
#include <unistd.h>
#include <csignal>

#include "open_sockets.h"

namespace kova::rpc {
namespace {

constinit std::atomic<Runtime*> g_runtime{nullptr};

void* run(void* context) {
    for (;;) {
        try {
            static_cast<asio::io_context*>(context)->run();
            return nullptr;
        } catch (const std::exception& error) {
            KovaDLogWrite(kLogError, kLogId, "Base", "RPC thread goes on after: %s", error.what());
        }
    }
}

// The program's signals are for the program's threads. A fault cannot be put off: it comes to whoever makes it.
class SignalsBlocked {
  public:
    SignalsBlocked() {
        sigset_t blocked;
        ::sigfillset(&blocked);
        for (const int fault : {SIGSEGV, SIGBUS, SIGILL, SIGFPE, SIGSYS, SIGTRAP}) ::sigdelset(&blocked, fault);
        ::pthread_sigmask(SIG_SETMASK, &blocked, &before_);
    }
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;
    ~SignalsBlocked() { ::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

  private:
    sigset_t before_;
};

// Keeps the standard descriptors taken where the program has closed them: what is opened meanwhile lies above, and
// nobody's error message gets into it.
class StandardDescriptorsTaken {
  public:
    StandardDescriptorsTaken() {
        for (int& taken : taken_) {
            taken = ::open("/dev/null", O_RDWR | O_CLOEXEC);
            if (taken <= STDERR_FILENO) continue;
            ::close(taken);
            taken = -1;
            return;
        }
    }
    StandardDescriptorsTaken(const StandardDescriptorsTaken&) = delete;
    StandardDescriptorsTaken& operator=(const StandardDescriptorsTaken&) = delete;
    ~StandardDescriptorsTaken() {
        for (const int taken : taken_) {
            if (taken >= 0) ::close(taken);
        }
    }

  private:
    int taken_[3] = {-1, -1, -1};
};

}  // namespace

Runtime::Runtime()
    : pid_(::getpid()),
      inherited_(g_runtime.load(std::memory_order_acquire)),
      events_work_(events.get_executor()),
      services_work_(services.get_executor()) {
    // Asio opens its descriptors for the first timer; later ones find them.
    const asio::steady_timer first(events);
}

Runtime* Runtime::existing() noexcept {
    Runtime* const found = g_runtime.load(std::memory_order_acquire);
    return found != nullptr && found->pid_ == ::getpid() ? found : nullptr;
}

Runtime* Runtime::current() noexcept {
    return or_else<Runtime*>(nullptr, []() -> Runtime* {
        Runtime* found = existing();
        while (found == nullptr) {
            close_in_forked_children();
            const StandardDescriptorsTaken taken;
            auto made = std::make_unique<Runtime>();
            Runtime* before = made->inherited_;
            if (g_runtime.compare_exchange_strong(before, made.get(), std::memory_order_acq_rel)) {
                found = made.release();
            } else {
                found = existing();
            }
        }
        return found->start_threads() ? found : nullptr;
    });
}

bool Runtime::start_threads() {
    const std::lock_guard lock(mutex);
    return start_thread(&events, "kova_rpc", &events_run_) && start_thread(&services, "kova_service", &services_run_);
}

bool Runtime::start_thread(asio::io_context* context, const char* name, bool* is_running) {
    if (*is_running) return true;
    const SignalsBlocked blocked;
    // Through the name pthread_create: a host that gives threads a stack for signal handlers stands in front of it.
    pthread_t thread;
    if (::pthread_create(&thread, nullptr, run, context) != 0) return false;
    ::pthread_setname_np(thread, name);
    ::pthread_detach(thread);
    *is_running = true;
    return true;
}

}  // namespace kova::rpc
