/*
 * Identity of the node: chassis, slot, CPU.
 */
#ifndef KOVA_PLATFORM_NODE_H
#define KOVA_PLATFORM_NODE_H

#include <stdint.h>

#include "kova/export.h"

KOVA_BEGIN_DECLS

/** @return Chassis number of this node. */
KOVA_API uint32_t KovaGetSelfChassisId(void);

/** @param slotId Out: slot number of this board. @return 0, or an error code with the output untouched. */
KOVA_API uint32_t KovaDevmGetSelfSlotId(uint32_t *slotId);

/** @return Bit 0 set when chassis stacking is enabled. */
KOVA_API uint32_t KovaStackIsEnable(void);

/** @return Bit 0 set when the stack is of the kind whose slot numbers need no chassis prefix. */
KOVA_API uint32_t KovaIsBoxStack(void);

/** @param cpuId Out: CPU id. @return 0, or an error code. */
KOVA_API uint32_t KovaDrvGetSelfCpuId(uint32_t *cpuId);

/**
 * Writes the text by which reports name this board ("5", or "2/5" with the chassis in front).
 *
 * @param buffer Out: size bytes, terminated; empty when the board is not known or the text does not fit.
 */
KOVA_API void KOVA_GetSlotId(char *buffer, uint32_t size);

KOVA_END_DECLS

#endif /* KOVA_PLATFORM_NODE_H */
