// The formatter runs in a dying process: it must not touch the heap.
#include "kova_platform/bounded_string.h"

#include <atomic>
#include <cstdlib>
#include <cstring>

#include <gtest/gtest.h>

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
void __libc_free(void* block);
}

namespace {

constinit std::atomic<bool> g_trapped{false};
constinit std::atomic<int> g_heap_calls{0};

void count_call() {
    if (g_trapped.load()) ++g_heap_calls;
}

template <typename Function>
int heap_calls_of(Function function) {
    g_heap_calls = 0;
    g_trapped = true;
    function();
    g_trapped = false;
    return g_heap_calls;
}

}  // namespace

extern "C" {
void* malloc(std::size_t size) {
    count_call();
    return __libc_malloc(size);
}
void* calloc(std::size_t count, std::size_t size) {
    count_call();
    return __libc_calloc(count, size);
}
void* realloc(void* block, std::size_t size) {
    count_call();
    return __libc_realloc(block, size);
}
void free(void* block) {
    count_call();
    __libc_free(block);
}
}

TEST(HeaplessFormat, NoConversionOfTheFormatterUsesTheHeap) {
    char text[8192];
    // The trap works.
    ASSERT_EQ(2, heap_calls_of([&] { std::free(::strdup(std::strcpy(text, "text"))); }));
    EXPECT_EQ(0, heap_calls_of([&] {
                  snprintf_truncated_s(text, sizeof text, "%.5000d %-600s %*p %c %%", 1, "text", 40,
                                       static_cast<void*>(text), 'c');
                  snprintf_s(text, sizeof text, 4000, "%#llx %+hhd %zu %jo", 1ULL << 40, static_cast<signed char>(3),
                             sizeof text, INTMAX_C(8));
                  sprintf_s(text, 16, "%s", "a text that does not fit");
              }));
}
