// Stacks for signal handlers, and the pthread_create that hands them out; see alternate_stack.h.
//
// The thread that creates another makes the stack too and passes it on with the start routine, so that nothing is
// allocated from the heap, and a failure is simply a thread without such a stack. It is released by the destructor of a
// thread-specific key, in the last round of destructors: what other keys' destructors do wrong is still caught.
//
// Signal context: nothing here.
#include "alternate_stack.h"

#include <dlfcn.h>
#include <pthread.h>
#include <sys/auxv.h>
#include <sys/mman.h>
#include <unistd.h>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstddef>

#include "kova/export.h"

#ifndef AT_MINSIGSTKSZ
#define AT_MINSIGSTKSZ 51
#endif

namespace kova::host {
namespace {

constexpr std::size_t kHandlerBytes = 64 * 1024;

// Stands at the upper end of its own mapping: a handler that uses its whole stack runs down into the guard page, not
// over this.
struct AlternateStack {
    void* mapping;
    std::size_t mapping_bytes;
    stack_t stack;
    int destructor_rounds;
    void* (*routine)(void*);
    void* argument;
};

constexpr std::size_t kAlignment = 64;
constexpr std::size_t kRecordBytes = (sizeof(AlternateStack) + kAlignment - 1) / kAlignment * kAlignment;

using CreateThread = int (*)(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);

constinit std::atomic<CreateThread> g_create_thread{nullptr};

// Set with release once the key exists; threads created before that get no stack.
constinit std::atomic<bool> g_key_made{false};
constinit pthread_key_t g_key;

std::size_t signal_frame_bytes() {
    const unsigned long told = ::getauxval(AT_MINSIGSTKSZ);  // 0 from kernels that do not say
    return told != 0 ? told : 2048;
}

AlternateStack* make_alternate_stack() {
    const auto page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
    const std::size_t wanted = kHandlerBytes + signal_frame_bytes() + kRecordBytes;
    const std::size_t usable = (wanted + page - 1) / page * page;
    void* const mapping = ::mmap(nullptr, page + usable, PROT_READ | PROT_WRITE,
                                 MAP_PRIVATE | MAP_ANONYMOUS | MAP_STACK | MAP_NORESERVE, -1, 0);
    if (mapping == MAP_FAILED) return nullptr;
    auto* const bottom = static_cast<std::byte*>(mapping) + page;
    if (::mprotect(mapping, page, PROT_NONE) != 0) {
        ::munmap(mapping, page + usable);
        return nullptr;
    }
    auto* const own = reinterpret_cast<AlternateStack*>(bottom + usable - kRecordBytes);
    *own = AlternateStack{.mapping = mapping,
                          .mapping_bytes = page + usable,
                          .stack = {.ss_sp = bottom, .ss_flags = 0, .ss_size = usable - kRecordBytes},
                          .destructor_rounds = 0,
                          .routine = nullptr,
                          .argument = nullptr};
    return own;
}

void release(AlternateStack* own) {
    ::munmap(own->mapping, own->mapping_bytes);
}

// False when the thread has an alternate stack already, or the kernel takes none.
bool use_for_this_thread(const AlternateStack& own) {
    stack_t current{};
    if (::sigaltstack(nullptr, &current) != 0 || (current.ss_flags & SS_DISABLE) == 0) return false;
    return ::sigaltstack(&own.stack, nullptr) == 0;
}

void at_thread_end(void* value) {
    auto* const own = static_cast<AlternateStack*>(value);
    if (++own->destructor_rounds < PTHREAD_DESTRUCTOR_ITERATIONS && ::pthread_setspecific(g_key, own) == 0) return;
    stack_t current{};
    const bool known = ::sigaltstack(nullptr, &current) == 0;
    const bool in_use = known && (current.ss_flags & SS_DISABLE) == 0 && current.ss_sp == own->stack.ss_sp;
    if (in_use) {
        stack_t none{};
        none.ss_flags = SS_DISABLE;
        // Refused while this very code runs on it. Then it stays: a leak is better than a stack that is gone.
        if (::sigaltstack(&none, nullptr) != 0) return;
    }
    if (known) release(own);
}

void* run_thread(void* value) {
    auto* const own = static_cast<AlternateStack*>(value);
    auto* const routine = own->routine;
    void* const argument = own->argument;
    // Without the key nobody would release it: then it stays with the process.
    if (!use_for_this_thread(*own)) {
        release(own);
    } else if (::pthread_setspecific(g_key, own) != 0) {
        own->destructor_rounds = PTHREAD_DESTRUCTOR_ITERATIONS;
    }
    return routine(argument);
}

CreateThread next_pthread_create() {
    CreateThread next = g_create_thread.load(std::memory_order_relaxed);
    if (next == nullptr) {
        next = reinterpret_cast<CreateThread>(::dlsym(RTLD_NEXT, "pthread_create"));
        g_create_thread.store(next, std::memory_order_relaxed);
    }
    return next;
}

}  // namespace

void set_up_alternate_stacks() {
    // Looked up here, while there is one thread: not every dlsym is kind to a caller that holds locks.
    static_cast<void>(next_pthread_create());
    if (AlternateStack* const own = make_alternate_stack(); own != nullptr && !use_for_this_thread(*own)) release(own);
    if (::pthread_key_create(&g_key, at_thread_end) == 0) g_key_made.store(true, std::memory_order_release);
}

}  // namespace kova::host

// In front of the C library's: every thread of the program comes through here.
extern "C" KOVA_API int pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*routine)(void*),
                                       void* argument) noexcept {
    using namespace kova::host;
    const CreateThread next = next_pthread_create();
    if (next == nullptr) return EAGAIN;
    AlternateStack* const own = g_key_made.load(std::memory_order_acquire) ? make_alternate_stack() : nullptr;
    if (own == nullptr) return next(thread, attributes, routine, argument);
    own->routine = routine;
    own->argument = argument;
    const int result = next(thread, attributes, run_thread, own);
    if (result != 0) release(own);
    return result;
}
