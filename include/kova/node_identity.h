/*
 * Who this node is: its slot text and CPU id.
 *
 * Both live in globals of the platform, g_kovaSelfSlotid and g_kovaSelfCpuid. The initialisers fill them once, without
 * a lock, while exception capture is set up; the getters only read them, from any thread, afterwards. The slot text is
 * the slot number ("5"), on a stack of several chassis with the chassis number in front ("2/5").
 *
 * Signals: KOVA_GetSlotIdStr and KOVA_GetCpuIdStr are safe, the others are not (they log).
 */
#ifndef KOVA_NODE_IDENTITY_H
#define KOVA_NODE_IDENTITY_H

#include <stdint.h>

#include "kova/export.h"

KOVA_BEGIN_DECLS

/** Fills the slot text. @return 0; else the error of the platform's slot query, with the text left as it was. */
KOVA_API uint32_t KOVA_SelfSlotidInit(void);

/** Fills the CPU id. @return 0; else the error of the platform's CPU query. */
KOVA_API uint32_t KOVA_SelfCpuidInit(void);

/** Fills both. @return The result of KOVA_SelfSlotidInit; a CPU id that cannot be had is only logged. */
KOVA_API uint32_t KOVA_SelfCpuidAndSlotInit(void);

/**
 * Copies the slot text.
 *
 * @param size Size of the buffer in bytes; a negative one counts as 0.
 * @return Characters written; negative when they do not fit.
 */
KOVA_API int32_t KOVA_GetSlotIdStr(char *buffer, int32_t size);

/**
 * Copies the slot text, or for the slots 21 to 29 the name of the switch-fabric unit there, "SFU1" to "SFU9". Only the
 * number at the start of the text counts.
 *
 * @return For a fabric name 0, or an error code when it does not fit; else like KOVA_GetSlotIdStr.
 */
KOVA_API int32_t KOVA_GetSlotIdStrWithSFU(char *buffer, int32_t size);

/** Writes the CPU id in decimal. @return Like KOVA_GetSlotIdStr. */
KOVA_API int32_t KOVA_GetCpuIdStr(char *buffer, int32_t size);

KOVA_END_DECLS

#endif /* KOVA_NODE_IDENTITY_H */
