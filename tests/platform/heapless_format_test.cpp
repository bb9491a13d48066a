// The formatter runs in a dying process: it must not touch the heap.
#include "kova_platform/bounded_string.h"

#include <cstdlib>
#include <cstring>
#include <utility>

#include <gtest/gtest.h>

extern "C" {
void* __libc_malloc(std::size_t size);
void* __libc_calloc(std::size_t count, std::size_t size);
void* __libc_realloc(void* block, std::size_t size);
}

namespace {

constinit int g_heap_calls = 0;

}  // namespace

extern "C" {
void* malloc(std::size_t size) {
    ++g_heap_calls;
    return __libc_malloc(size);
}
void* calloc(std::size_t count, std::size_t size) {
    ++g_heap_calls;
    return __libc_calloc(count, size);
}
void* realloc(void* block, std::size_t size) {
    ++g_heap_calls;
    return __libc_realloc(block, size);
}
}

TEST(HeaplessFormat, NoConversionOfTheFormatterUsesTheHeap) {
    char text[8192];
    std::free(::strdup(std::strcpy(text, "text")));
    ASSERT_NE(0, std::exchange(g_heap_calls, 0)) << "the trap does not work";
    snprintf_truncated_s(text, sizeof text, "%.5000d %-600s %*p %c %%", 1, "text", 40, static_cast<void*>(text), 'c');
    snprintf_s(text, sizeof text, 4000, "%#llx %+hhd %zu %jo", 1ULL << 40, static_cast<signed char>(3), sizeof text,
               INTMAX_C(8));
    sprintf_s(text, 16, "%s", "a text that does not fit");
    EXPECT_EQ(0, g_heap_calls);
}
