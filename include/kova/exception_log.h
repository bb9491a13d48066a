/*
 * The exception log and the small helpers that the exception capture stands on.
 *
 * The log is plain text that all processes of the node append to: "/opt/norvel/var/log/kova_exception.log". Every piece
 * of text is one open, lock, write, unlock, close, so pieces of two processes may follow each other in any order but
 * never mix. Nobody truncates or rotates the file here.
 *
 * All functions are safe in signal context: they allocate nothing and take no lock but those of the log. Outside the
 * record handler a wait for the log lasts until it is free; inside, a thread waits 5 s in all and then drops what it
 * would have written.
 */
#ifndef KOVA_EXCEPTION_LOG_H
#define KOVA_EXCEPTION_LOG_H

#include <stdint.h>

#include "kova/export.h"

KOVA_BEGIN_DECLS

/* The signals that a host is asked to catch, and how many there are. A host may change both before it installs its
 * handlers; the library does not read them. */
#define KOVA_SIGNAL_LIST_SIZE 12
extern KOVA_API int32_t g_kovaSignalList[KOVA_SIGNAL_LIST_SIZE];
extern KOVA_API uint32_t g_kovaSignalNum;

/* Names by signal number. */
#define KOVA_SIGNAL_NAME_COUNT 65
extern KOVA_API const char *g_kovaSignalName[KOVA_SIGNAL_NAME_COUNT];

/* A signal name with its NUL fits. */
#define KOVA_SIGNAL_NAME_SIZE 16

/* 1: the host should leave a core file. Initially 1. For the host; the library only stores it. */
extern KOVA_API uint32_t g_coreDumpFlag;

/**
 * Appends a piece of text to the exception log. A missing file is made with mode 0660.
 *
 * @param text   Need not be terminated.
 * @param length Bytes. 0 writes nothing, but makes the file.
 * @return 0 when every byte was written; 1 for a NULL text, a failed open or lock, or a short write.
 *
 * Threads: any thread of any process. Signals: safe.
 */
KOVA_API uint32_t KOVA_WriteExceptInfo2Log(const char *text, uint32_t length);

/**
 * Appends a text and then, as a piece of its own, a line feed. What becomes of the writing is not told.
 *
 * @return 0; 1 when the text is NULL or the length 0.
 *
 * Threads: any. Signals: safe.
 */
KOVA_API uint32_t KOVA_PrintfExceptInfo2log(const char *text, uint32_t length);

/**
 * Takes the write lock over the whole of an open file, as writers of the exception log do, and waits for it.
 *
 * A record lock belongs to the process: it does not keep the threads of one process apart, and is gone as soon as the
 * process closes any descriptor of that file.
 *
 * @return 0; 1 when the lock was not granted.
 *
 * Threads: any. Signals: safe.
 */
KOVA_API uint32_t KOVA_ExceptFileLock(int32_t fd);

/** Releases it. @return 0; 1 when the call failed. Threads: any. Signals: safe. */
KOVA_API uint32_t KOVA_ExceptFileUnlock(int32_t fd);

/**
 * Reads the name of a process, at most 15 characters for an ordinary one, from /proc.
 *
 * @param buffer Out: the name without its line feed, cut to fit, terminated. Untouched on failure.
 * @param size   Bytes in buffer, 2 or more.
 * @return 0; 1 when there is no such process, nothing can be read, or the buffer is NULL or too small.
 *
 * Threads: any. Signals: safe.
 */
KOVA_API uint32_t KOVA_GetProcName(uint32_t pid, char *buffer, uint32_t size);

/**
 * Writes the decimal digits of a value.
 *
 * @param buffer Out: digits and NUL. Untouched on failure.
 * @return 0; 1 when they do not fit in size bytes (the largest value takes 11).
 *
 * Threads: any. Signals: safe.
 */
KOVA_API uint32_t KOVA_TranInt2Str(uint32_t value, char *buffer, uint32_t size);

/**
 * Names a signal: its entry in g_kovaSignalName, or "UNKNOWN" for a number outside 0 to the highest real-time signal.
 *
 * @param buffer Out: KOVA_SIGNAL_NAME_SIZE bytes, terminated.
 * @return 0; 1 when the buffer is NULL or a changed table holds a name that does not fit (the name is cut).
 *
 * Threads: any. Signals: safe.
 */
KOVA_API uint32_t KOVA_GetSignalName(int32_t signal, char *buffer);

/** Store 1 and 0 in g_coreDumpFlag, and read it. Threads: any. Signals: safe. */
KOVA_API void KOVA_SetCoreDumpFlag(void);
KOVA_API void KOVA_UnsetCoreDumpFlag(void);
KOVA_API uint32_t KOVA_GetCoreDumpFlag(void);

/** Stores 0 in both words; the record's tick words are always 0. Nothing is stored when a pointer is NULL. Signals:
 * safe. */
KOVA_API void KOVA_GetCpuTick(uint32_t *high, uint32_t *low);

KOVA_END_DECLS

#endif /* KOVA_EXCEPTION_LOG_H */
