/*
 * Running one shell command, and judging how one ended.
 */
#ifndef KOVA_SHELL_COMMAND_H
#define KOVA_SHELL_COMMAND_H

#include <stdint.h>

#include "kova/export.h"

KOVA_BEGIN_DECLS

/**
 * Runs a command line with /bin/sh and waits for its end. The caller's signal dispositions stay as they are; the shell
 * ignores SIGQUIT, SIGINT and SIGCHLD.
 *
 * @return The command's exit code, 0 to 255. 127 when the command is NULL, no process could be made or no shell be
 *         started, and as the shell's own code for a command that it cannot find. 0 also for a command that a signal
 *         ended, and when its end could not be waited for.
 *
 * Threads: any; blocks the calling thread only. Signals: safe.
 */
KOVA_API uint32_t KovaSystemCmd(const char *command);

/**
 * Checks a wait status, as system() returns it, of a boot-environment command. Anything but a normal end with code 0 is
 * logged at level 1, tag "Base", with the exit code.
 *
 * @return 0; 127. Threads: any. Signals: not safe.
 */
KOVA_API uint32_t KOVA_SystemRetCheck(int32_t status);

KOVA_END_DECLS

#endif /* KOVA_SHELL_COMMAND_H */
