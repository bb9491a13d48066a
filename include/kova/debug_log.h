/*
 * The private debug log and its time texts.
 *
 * The debug log is the file /opt/norvel/var/log/kova_debug.log: plain text, one line a call,
 *
 *     [2024-03-01 12:00:05:042][Process:monitor][Thread:main][ERROR] [SYSDIAG]open failed
 *
 * in local time. It is for diagnosis, not for the normal path: every line costs an open, a read in /proc and a close.
 * Nothing is cached, the file is never rotated and its folder never made. Whatever goes wrong on the way is reported
 * to the system log at priority 3 in a message that begins "[KOVA-LOG] ", never to the platform's log writer.
 *
 * Threads: every function here may be called from any thread at any time. Signals: none of them is safe.
 */
#ifndef KOVA_DEBUG_LOG_H
#define KOVA_DEBUG_LOG_H

#include <stdint.h>

#include "kova/export.h"

KOVA_BEGIN_DECLS

/* Levels of a debug line. Any other value is written as "UNKNOW" and reported to the system log. */
#define KOVA_DEBUG_INFO 0U
#define KOVA_DEBUG_WARNING 1U
#define KOVA_DEBUG_ERROR 2U

/* Smallest buffer that GetLogTime takes, and the most that it writes. */
#define KOVA_LOG_TIME_SIZE 64

/**
 * Appends one line to the debug log. Drops it in silence when the file cannot be opened.
 *
 * The line is one write, unless it is longer than 8 KiB. When head and format together reach 1024 bytes, the caller's
 * message is written alone: no head and no line break.
 *
 * @param level  KOVA_DEBUG_INFO, KOVA_DEBUG_WARNING or KOVA_DEBUG_ERROR.
 * @param format printf-style, with its arguments behind it. No line break at the end. NULL does nothing.
 */
KOVA_API void KovaDebugLog(uint32_t level, const char *format, ...) __attribute__((format(printf, 2, 3)));

/**
 * Makes the head of a debug line: time, process name, thread name and level name.
 *
 * @param buffer Out: the head; 128 bytes hold every head. Empty when it does not fit.
 * @param length Size of the buffer in bytes.
 * @param level  As in KovaDebugLog.
 * @return 0 done; 1 the process name or the local time is missing; else the failing call's result (negative, taken as
 *         unsigned). 0 with the buffer left as it was when the thread's name is empty.
 */
KOVA_API uint32_t KovaGetPrivateLogHead(char *buffer, uint32_t length, uint32_t level);

/**
 * Writes the local time to the millisecond, "2024-03-01 12:00:05:042".
 *
 * @param length Size of the buffer in bytes: 24 or more.
 * @return 0 done; 1 no local time; else the failing call's result (negative, taken as unsigned).
 */
KOVA_API uint32_t KovaGetLogTime(char *buffer, uint32_t length);

/**
 * Writes the local time with its zone offset, "2024-03-01 12:00:05 +0800".
 *
 * @param length Size of the buffer in bytes: KOVA_LOG_TIME_SIZE or more.
 * @return The buffer; NULL, with nothing written, when it is too small or there is no local time.
 */
KOVA_API char *GetLogTime(char *buffer, int32_t length);

/** Does nothing. Kept for those who link against it. @param first Ignored, like all that follows. */
KOVA_API void KovaDbgLog(uintptr_t first, ...);

/** Does nothing, like KovaDbgLog. */
KOVA_API void KOVA_Log(uintptr_t first, ...);

/**
 * Registers a diagnostic-log hook with the platform: passes six machine words on to KOVA_SetDiagLogFun.
 *
 * @return That function's result. The meaning of the arguments is the platform's.
 */
KOVA_API uintptr_t KOVA_DiagLogHookReg(uintptr_t a0, uintptr_t a1, uintptr_t a2, uintptr_t a3, uintptr_t a4,
                                       uintptr_t a5);

KOVA_END_DECLS

#endif /* KOVA_DEBUG_LOG_H */
