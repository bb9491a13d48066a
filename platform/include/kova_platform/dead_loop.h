/*
 * The platform's monitor of dead loops. Arguments and results are the platform's own: the agent passes machine words
 * through.
 */
#ifndef KOVA_PLATFORM_DEAD_LOOP_H
#define KOVA_PLATFORM_DEAD_LOOP_H

#include <stdint.h>

#include "kova/export.h"

KOVA_BEGIN_DECLS

/** Records a dead loop that somebody else found. The agent never looks at the result. */
KOVA_API uintptr_t KovaRecordExternalThreadDeadLoopInfo(uintptr_t a0, uintptr_t a1, uintptr_t a2, uintptr_t a3,
                                                        uintptr_t a4, uintptr_t a5, uintptr_t a6, uintptr_t a7);

KOVA_END_DECLS

#endif /* KOVA_PLATFORM_DEAD_LOOP_H */
