/*
 * Log writers of the platform.
 */
#ifndef KOVA_PLATFORM_LOG_H
#define KOVA_PLATFORM_LOG_H

#include <stdint.h>

#include "kova/export.h"

KOVA_BEGIN_DECLS

/**
 * Writes one message to the platform's log.
 *
 * @param level     1 error, 3 information.
 * @param messageId The platform's message identifier.
 * @param moduleTag "Base", "Info", "Startup" or "Internal".
 * @return The writer's own result; the agent never looks at it.
 *
 * Threads: any. Signals: not safe.
 */
KOVA_API uint32_t KovaDLogWrite(uint32_t level, uint32_t messageId, const char *moduleTag, const char *format, ...)
    __attribute__((format(printf, 4, 5)));

/**
 * Writes a block of text, of many lines as a rule, to the diagnostic log, in slices of the size that the log takes.
 *
 * @param text   Need not be terminated.
 * @param length Bytes, a terminator not counted.
 *
 * Threads: any. May raise an assert itself. Signals: not safe.
 */
KOVA_API void KOVA_DiagLogInSlice(const char *text, uint32_t length, uint32_t messageId);

/**
 * Registers a diagnostic-log hook with the platform. The arguments are the platform's own; the agent passes six machine
 * words through.
 */
KOVA_API uintptr_t KOVA_SetDiagLogFun(uintptr_t a0, uintptr_t a1, uintptr_t a2, uintptr_t a3, uintptr_t a4,
                                      uintptr_t a5);

KOVA_END_DECLS

#endif /* KOVA_PLATFORM_LOG_H */
