/*
 * Fixed places for the platform's hot-patch service.
 *
 * The synchronisation hook of a library is called when a patch is made active or inactive. Where the patch concerns its
 * library, it calls that library's reserved activation or deactivation function, which a patch replaces with what has
 * to happen then. The stubs are ten more functions that a patch may replace. Unpatched, reserved functions and stubs
 * only log that they ran, at level 3 with tag "Info".
 *
 * Nothing here has any state. The patch service decides on which thread and when it is called. Signals: not safe
 * (logs).
 */
#ifndef KOVA_PATCH_HOOKS_H
#define KOVA_PATCH_HOOKS_H

#include <stdint.h>

#include "kova/export.h"

KOVA_BEGIN_DECLS

/** Stubs. @return 0. */
KOVA_API uint32_t KovaPatchStubfunc11(void);
KOVA_API uint32_t KovaPatchStubfunc12(void);
KOVA_API uint32_t KovaPatchStubfunc13(void);
KOVA_API uint32_t KovaPatchStubfunc14(void);
KOVA_API uint32_t KovaPatchStubfunc15(void);
KOVA_API uint32_t KovaPatchStubfunc16(void);
KOVA_API uint32_t KovaPatchStubfunc17(void);
KOVA_API uint32_t KovaPatchStubfunc18(void);
KOVA_API uint32_t KovaPatchStubfunc19(void);
KOVA_API uint32_t KovaPatchStubfunc20(void);

/** Reserved for a patch of "libkova_sysdiag_agent_native.so" that is made active. */
KOVA_API void libkova_sysdiag_agent_native_ResPatchC2hActivefunc(void);

/** Reserved for a patch of "libkova_sysdiag_agent_native.so" that is made inactive. */
KOVA_API void libkova_sysdiag_agent_native_ResPatchC2hDeactivefunc(void);

/** Reserved for a patch of "libkova_base.so" that is made active. */
KOVA_API void libkova_base_ResPatchC2hActivefunc(void);

/** Reserved for a patch of "libkova_base.so" that is made inactive. */
KOVA_API void libkova_base_ResPatchC2hDeactivefunc(void);

/* Where the file name of the patched library, a terminated text, begins in a patch record. All else in the record is
 * the patch service's own. */
#define KOVA_PATCH_RECORD_LIBRARY_NAME 397

/**
 * Synchronisation hook of "libkova_sysdiag_agent_native.so".
 *
 * @param operation   0: calls the reserved activation function; 1: the deactivation function.
 * @param unused      Not looked at.
 * @param patchRecord The patch service's record; only read.
 * @param handled     Out: 1 when the record names this library, whatever the operation; else 0.
 * @return 0, also for another library's patch, as which a null record counts; 1 when the operation is neither 0 nor 1,
 *         which is logged. With a null output 0, and nothing is done.
 */
KOVA_API uint32_t libkova_sysdiag_agent_native_PAT_C2HSyncHookFunc(int32_t operation, uintptr_t unused,
                                                                   const void *patchRecord, uint32_t *handled);

/** Synchronisation hook of "libkova_base.so". Parameters and result are those of the hook above. */
KOVA_API uint32_t libkova_base_PAT_C2HSyncHookFunc(int32_t operation, uintptr_t unused, const void *patchRecord,
                                                   uint32_t *handled);

KOVA_END_DECLS

#endif /* KOVA_PATCH_HOOKS_H */
