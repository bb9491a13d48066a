/*
 * Facts about processes and the machine, read from /proc, and small helpers for files and numbers.
 *
 * Three kinds of results: functions that answer 0 or 0xFFFFFFFF, functions that answer 0 or 127, and predicates that
 * answer 1 or 0; each says which. KovaReadFile2Buf reports failures to the system log at priority 3, since the debug
 * log depends on it; all others log them at level 1, tag "Base".
 *
 * Threads: every function may be called from any thread; none keeps state. Signals: none of them is safe.
 */
#ifndef KOVA_PROCESS_INFO_H
#define KOVA_PROCESS_INFO_H

#include <stdint.h>

#include "kova/export.h"

KOVA_BEGIN_DECLS

/* As a pid: the calling process. For the functions that take a signed pid this is -1. */
#define KOVA_SELF_PID 0xFFFFFFFFU

/**
 * Reads the first line of a file, without its line break.
 *
 * @param buffer Out: at most length - 1 characters. Left as it was when nothing can be read, so clear it before.
 * @param length Size of the buffer in bytes.
 * @return 0; 0xFFFFFFFF when an argument is NULL, the file cannot be opened or nothing can be read.
 */
KOVA_API uint32_t KovaReadFile2Buf(const char *path, char *buffer, uint32_t length);

/**
 * Removes one CR LF, CR or LF from the end of a text. A text of one character keeps it.
 *
 * @param length Size of the text's buffer in bytes; a text that is not terminated within it is left alone.
 */
KOVA_API void KovaRemoveLastRn(char *text, uint32_t length);

/**
 * Reads the name of a process as the kernel keeps it (at most 15 characters).
 *
 * @param pid -1 for the calling process.
 * @return 0; 127.
 */
KOVA_API uint32_t KovaGetProcName(int32_t pid, char *buffer, uint32_t length);

/**
 * Reads the command line of a process. Its words are separated by NUL bytes: read as a text, it is the program's path.
 *
 * @param pid -1 for the calling process.
 * @return 0; 127, also for a process without a command line (a kernel thread).
 */
KOVA_API uint32_t KovaGetCmdLine(int32_t pid, char *buffer, uint32_t length);

/**
 * Tells the platform's monitor and location processes: a name that begins with "monitor", or a program path with
 * "location" anywhere in it.
 *
 * @param pid KOVA_SELF_PID for the calling process.
 * @return 1; 0.
 */
KOVA_API uint32_t IsNorvelProcess(uint32_t pid);

/**
 * Reads the size of a process's address space.
 *
 * @param vmSizeKb Out: kB. Stored on success only.
 * @return 0; 0xFFFFFFFF, also for a kernel thread, which has none.
 */
KOVA_API uint32_t KovaGetProcessVmSize(uint32_t pid, uint32_t *vmSizeKb);

/** @return 1 when the text is not empty and holds decimal digits only; 0. */
KOVA_API uint32_t KovaIsDigitString(const char *text);

/**
 * Computes part / total in percent, rounded down; for totals above 10000 with the total's last two digits dropped.
 *
 * @return 0; 127 when total is 0 or smaller than part.
 */
KOVA_API uint32_t KovaCalcVmUsePercent(uint32_t *percent, uint32_t total, uint32_t part);

/**
 * Converts a decimal text, with the rules of strtoul: leading white space and a sign are accepted.
 *
 * @return 0; 1 an argument is NULL; 127 no number, something behind it, or too large.
 */
KOVA_API uint32_t KovaParsesString2Number(const char *text, uint64_t *number);

/** @return 1 when the path is an existing directory; 0. */
KOVA_API uint32_t KovaCheckDirIsExist(const char *path);

/** @return 0 when the process exists; 0xFFFFFFFF. */
KOVA_API uint32_t KovaIsProcessIdExist(uint32_t pid);

/** @return 0 when the thread exists in the process; 0xFFFFFFFF. */
KOVA_API uint32_t KovaIsThreadExist(uint32_t pid, uint32_t tid);

/** @return 1 when the path exists, whatever kind of file it is; 0. */
KOVA_API uint32_t KOVA_IsFileExist(const char *path);

/** @return 1 for a kernel thread, which has no command line, and for a pid that does not exist; 0 else. */
KOVA_API uint32_t ProcIsKernel(uint32_t pid);

/** @return Total memory of the machine in kB; 0 when it cannot be read. */
KOVA_API uint32_t KovaGetSysMemTotal(void);

/** @return 50 on a machine with up to 1 GiB of memory, 100 with up to 2 GiB, 160 above that or when unknown. */
KOVA_API uint32_t KovaGetOOMThreshold(void);

KOVA_END_DECLS

#endif /* KOVA_PROCESS_INFO_H */
