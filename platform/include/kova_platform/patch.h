/*
 * Symbol services of the platform's hot-patch mechanism. Names belong to the platform and are never freed.
 *
 * Signals: all four are safe.
 */
#ifndef KOVA_PLATFORM_PATCH_H
#define KOVA_PLATFORM_PATCH_H

#include <stdint.h>

#include "kova/export.h"

KOVA_BEGIN_DECLS

/** @return 1 when the address lies in a hot-patch code segment of a shared library. */
KOVA_API uint32_t RUX_DLLPatchSegAddrCheck(uint64_t address);

/** @return Symbol name of such an address, or NULL. */
KOVA_API const char *RUX_DLLPatchSymNameGet_Safe(uint64_t address);

/** @return 1 when the address lies in a hot-patch code segment of the main program. */
KOVA_API uint32_t RUX_PatchSegAddrCheck(uint64_t address);

/** @return Symbol name of such an address, or NULL. */
KOVA_API const char *RUX_PatchSymNameGet_Safe(uint64_t address);

KOVA_END_DECLS

#endif /* KOVA_PLATFORM_PATCH_H */
