// The platform under the fuzzers: messages are expanded, so that a bad argument is found, and go nowhere; a memory
// partition is small, since a file may claim millions of records.
#include <syslog.h>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#include "kova_platform/log.h"
#include "kova_platform/memory.h"

namespace {

constexpr std::uint32_t kPartitionBytes = 1 << 20;

void expand(const char* format, va_list arguments) {
    char text[1024];
    if (std::vsnprintf(text, sizeof text, format, arguments) < 0) std::abort();
}

}  // namespace

uint32_t KovaDLogWrite(uint32_t, uint32_t, const char*, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    expand(format, arguments);
    va_end(arguments);
    return 0;
}

void KOVA_DiagLogInSlice(const char*, uint32_t, uint32_t) {}

uintptr_t KOVA_SetDiagLogFun(uintptr_t, uintptr_t, uintptr_t, uintptr_t, uintptr_t, uintptr_t) {
    return 0;
}

void* RUX_MemAlloc_F(uint32_t, uint32_t, uint32_t size, const char*, uint32_t) {
    return size <= kPartitionBytes ? std::malloc(size) : nullptr;
}

void RUX_MemFree_F(uint32_t, void* block, const char*, uint32_t) {
    std::free(block);
}

extern "C" void syslog(int, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    expand(format, arguments);
    va_end(arguments);
}
