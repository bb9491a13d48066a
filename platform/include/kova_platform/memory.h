/*
 * Memory-partition allocator of the platform.
 */
#ifndef KOVA_PLATFORM_MEMORY_H
#define KOVA_PLATFORM_MEMORY_H

#include <stdint.h>

#include "kova/export.h"

KOVA_BEGIN_DECLS

/* The handle that stands for the C heap instead of a partition. */
#define KOVA_MEM_HANDLE_C_HEAP 0xFFFFFFFFU

/**
 * Allocates from a partition. @param kind Always 1. @param tag Source area, for the platform's accounting.
 * @return The block, or NULL. Yours: release with RUX_MemFree_F and the same handle.
 */
KOVA_API void *RUX_MemAlloc_F(uint32_t handle, uint32_t kind, uint32_t size, const char *tag, uint32_t line);

/** Releases a block of RUX_MemAlloc_F. */
KOVA_API void RUX_MemFree_F(uint32_t handle, void *block, const char *tag, uint32_t line);

KOVA_END_DECLS

#endif /* KOVA_PLATFORM_MEMORY_H */
