// The partition allocator, without partitions: every handle is served from the C heap, so a block survives whatever
// handle it is released with.
#include "kova_platform/memory.h"

#include <cstdlib>

void* RUX_MemAlloc_F(uint32_t, uint32_t, uint32_t size, const char*, uint32_t) {
    return std::malloc(size);
}

void RUX_MemFree_F(uint32_t, void* block, const char*, uint32_t) {
    std::free(block);
}
