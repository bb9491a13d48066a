// Allocation from the platform's partitions, or from the C heap where there is no partition.
#include <cstdlib>

#include "kova/memory.h"
#include "kova_platform/memory.h"

void* KovaBaseMalloc(uint32_t handle, uint32_t kind, uint32_t size, const char* tag, uint32_t line) {
    if (size == 0) return nullptr;
    if (handle == KOVA_MEM_HANDLE_C_HEAP) return std::malloc(size);
    return RUX_MemAlloc_F(handle, kind, size, tag, line);
}

void KovaBaseFree(uint32_t handle, void* block, const char* tag, uint32_t line) {
    if (block == nullptr) return;
    if (handle == KOVA_MEM_HANDLE_C_HEAP) {
        std::free(block);
    } else {
        RUX_MemFree_F(handle, block, tag, line);
    }
}
