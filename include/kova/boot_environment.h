/*
 * How the node is to start, kept in its boot environment.
 *
 * The boot environment is read and written by the platform's tool envmgr, which is looked for along PATH and run
 * through the shell. A call blocks its thread until the tool has ended, however long that takes; nothing is kept
 * between two calls. Failures are logged at level 1, tag "Base".
 *
 * Threads: any. Signals: not safe (a child process, streams).
 */
#ifndef KOVA_BOOT_ENVIRONMENT_H
#define KOVA_BOOT_ENVIRONMENT_H

#include <stdint.h>

#include "kova/export.h"

KOVA_BEGIN_DECLS

/* Startup mode of a node whose boot environment names none. What 1 to 3 mean is the boot loader's. */
#define STARTUP_MODE_NETWORK 0U

/**
 * Reads the startup mode, the digit of env_fastboot.
 *
 * @param mode Out: 0 to 3; 0, STARTUP_MODE_NETWORK, when there is no such variable, which is logged, and on every
 *             failure.
 * @return 0; 127 a null argument, a tool that could not be started, or a value that is not one digit up to 3.
 */
KOVA_API uint32_t KOVA_GetStartupMode(uint32_t *mode);

/**
 * Sets the startup mode and saves the boot environment.
 *
 * @param mode 0 to 3.
 * @return 0, also when the tool ran and could not save; 127 a mode above 3, or a tool that could not be started, that a
 *         signal ended or, when it set the mode, whose exit code is not 0. What was saved before is then unchanged.
 */
KOVA_API uint32_t KOVA_SetStartupMode(uint32_t mode);

/**
 * Reads the local-enable flag, the digit of env_localenable.
 *
 * @param enable Out: 0 or 1; 0 when there is no such variable, which is logged, and on every failure.
 * @return As KOVA_GetStartupMode, with digits up to 1.
 */
KOVA_API uint32_t KOVA_GetLocalEnable(uint32_t *enable);

/**
 * Writes the directory of the boot backup, "/opt/boot_backup".
 *
 * @param path Out: the path, terminated; untouched when the size is too small.
 * @param size Bytes of the buffer, 17 or more.
 * @return 0; 127 a null buffer or too small a size.
 */
KOVA_API uint32_t KOVA_GetBackUpPath(char *path, uint32_t size);

KOVA_END_DECLS

#endif /* KOVA_BOOT_ENVIRONMENT_H */
