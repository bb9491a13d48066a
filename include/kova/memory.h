/*
 * Allocation from the platform's memory partitions.
 *
 * The handle says from where; 0xFFFFFFFF is the C heap. A block is released with the handle that it was allocated with.
 * Callers pass the process-wide handle g_kovaAgentMemHandle.
 *
 * Threads: any. Signals: not safe.
 */
#ifndef KOVA_MEMORY_H
#define KOVA_MEMORY_H

#include <stdint.h>

#include "kova/export.h"

KOVA_BEGIN_DECLS

/**
 * @param kind Allocation kind of the platform, always 1.
 * @param size Bytes; 0 gives NULL.
 * @param tag  Short name of the source area and, with line, what the platform accounts the memory to.
 * @return The block, or NULL. Yours: release it with KovaBaseFree.
 */
KOVA_API void *KovaBaseMalloc(uint32_t handle, uint32_t kind, uint32_t size, const char *tag, uint32_t line);

/** Releases a block of KovaBaseMalloc. NULL does nothing. */
KOVA_API void KovaBaseFree(uint32_t handle, void *block, const char *tag, uint32_t line);

KOVA_END_DECLS

#endif /* KOVA_MEMORY_H */
