// A capture gets by with what was made at set-up: no heap, and no more stack than an alternate stack of 16 KiB has.
//
// Natively only: sanitizers bring an allocator and stack frames of their own.
#include <pthread.h>

#include <atomic>

#include "sysdiag/except/capture_fixture.h"

namespace {

// What the C library's allocators are called behind the names that this program takes over.
extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void* __libc_memalign(std::size_t alignment, std::size_t size);
void __libc_free(void* block);
}

constexpr int kAllocated = 98;
std::atomic<bool> g_trapped{false};

void trap() {
    if (g_trapped.load()) ::_exit(kAllocated);
}

}  // namespace

// Trapped, every one of them ends the process.
extern "C" {
void* malloc(std::size_t size) {
    trap();
    return __libc_malloc(size);
}
void* calloc(std::size_t count, std::size_t size) {
    trap();
    return __libc_calloc(count, size);
}
void* realloc(void* block, std::size_t size) {
    trap();
    return __libc_realloc(block, size);
}
void free(void* block) {
    trap();
    __libc_free(block);
}
void* memalign(std::size_t alignment, std::size_t size) {
    trap();
    return __libc_memalign(alignment, size);
}
void* aligned_alloc(std::size_t alignment, std::size_t size) {
    return memalign(alignment, size);
}
int posix_memalign(void** block, std::size_t alignment, std::size_t size) {
    *block = memalign(alignment, size);
    return *block == nullptr ? ENOMEM : 0;
}
}

namespace kova::test {
namespace {

[[gnu::noinline]] void fault() {
    volatile int* nothing = nullptr;
    asm volatile("" : "+r"(nothing));
    *nothing = 1;
}

void expect_one_whole_capture() {
    EXPECT_EQ(1U, stored_records().size());
    EXPECT_EQ(2U, count_of(log_text(), "===== Exception info (no:"));
}

TEST_F(Capture, TheFirstCaptureOfANodeAllocatesNothing) {
    const int status = in_child([] {
        KOVA_ExceptInit();
        install_host([](int signal, siginfo_t* info, void* context) {
            g_trapped = true;
            host_handler(signal, info, context);
        });
        const PaintedStack stack(65536);
        fault();
    });
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGSEGV) << status;
    expect_one_whole_capture();
}

// Deep in malloc, with the lock of the main heap held: the free list leads to nowhere.
void fault_inside_malloc() {
    constexpr std::size_t kBeyondCaches = 4096;
    void** const block = static_cast<void**>(__libc_malloc(kBeyondCaches));
    static_cast<void>(!__libc_malloc(kBeyondCaches));  // keeps the block from merging with the top of the heap
    __libc_free(block);
    block[0] = block[1] = reinterpret_cast<void*>(0x1000);
    static_cast<void>(!__libc_malloc(2 * kBeyondCaches));
}

TEST_F(Capture, AHeapLockHeldByAnotherThreadDoesNotMatter) {
    const int status = in_child([] {
        KOVA_ExceptInit();
        static std::atomic<int> g_parked{0};
        install_host([](int signal, siginfo_t* info, void* context) {
            if (g_parked.fetch_add(1) == 0) {
                for (;;) ::pause();  // the first thread keeps the heap's lock for ever
            }
            host_handler(signal, info, context);
        });
        pthread_t thread;
        ::pthread_create(
            &thread, nullptr,
            [](void*) -> void* {
                while (g_parked.load() == 0) continue;
                const PaintedStack stack(65536);
                fault();
                return nullptr;
            },
            nullptr);
        fault_inside_malloc();
    });
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGSEGV) << status;
    expect_one_whole_capture();
}

TEST_F(Capture, AStackOverflowIsCapturedOnAnAlternateStackOf16KiB) {
    constexpr std::size_t kStackBytes = 16 * 1024;
    static std::size_t* const deepest = static_cast<std::size_t*>(
        ::mmap(nullptr, sizeof(std::size_t), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    const int status = in_child([] {
        KOVA_ExceptInit();
        static const PaintedStack* g_stack;
        install_host([](int signal, siginfo_t* info, void* context) {
            KOVA_SignalInfoRecordHandler(signal, info, context);
            *deepest = g_stack->deepest_use();
            ::signal(signal, SIG_DFL);
        });
        const PaintedStack stack(kStackBytes);
        g_stack = &stack;
        overflow_the_stack();
    });
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGSEGV) << status;
    expect_one_whole_capture();
    printf("alternate stack: %zu of %zu bytes used, %zu left\n", *deepest, kStackBytes, kStackBytes - *deepest);
    EXPECT_GT(*deepest, 0U);
    EXPECT_LT(*deepest, kStackBytes);
}

}  // namespace
}  // namespace kova::test
