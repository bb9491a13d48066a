/*
 * From a code address to the module and function that it belongs to.
 *
 * Texts look like
 *
 *     [libfoo.so+0x1a2c](bar_init+0x24)    module and nearest symbol, each with the address's offset in it
 *     [libfoo.so+0x1a2c](0x7f12345a2c)     a module without a symbol there: the address
 *     name                                 code that a hot patch brought: the platform's name for it
 *
 * Threads: any. Signals: safe, as far as dladdr() is: it takes the loader's lock, and faults on a damaged link map.
 */
#ifndef KOVA_SYMBOL_H
#define KOVA_SYMBOL_H

#include <stdint.h>

#include "kova/export.h"

KOVA_BEGIN_DECLS

/**
 * Writes the text for an address, cut to fit.
 *
 * @param length Size of the buffer in bytes. With 0 nothing is written, and that is reported to the system log.
 * @return 0; 1, with nothing written, when the buffer is NULL or the address belongs to nothing that is known.
 */
KOVA_API uint32_t KOVA_GetFuncSymbol(uint64_t address, char *buffer, uint32_t length);

/**
 * Looks an address up in hot-patched code. Where the platform has only an address for it (a name with "0x" in it), the
 * name is that of the instruction before.
 *
 * @param name Out: belongs to the platform, never freed. May be NULL even with result 0: no name for the instruction
 *             before.
 * @return 0; 127 when no patch or no name is known for the address.
 */
KOVA_API uint32_t KovaGetPatchFuncName(uint64_t address, const char **name);

KOVA_END_DECLS

#endif /* KOVA_SYMBOL_H */
