/*
 * Exception capture: set-up, and the record handler that a host calls from its signal handler.
 *
 * A process calls KOVA_ExceptInit once at start-up, registers an unwinder of its own if it has one, and calls
 * KOVA_SignalInfoRecordHandler for each signal of g_kovaSignalList that it catches. A fatal signal then leaves a trace
 * line and a full report in the exception log and a record in box 0 of the black box. The library installs no handler,
 * blocks no signal, raises none and never ends the process: that is the host's.
 *
 * A report is made by one thread at a time; a signal that comes meanwhile leaves its trace line only. The buffers of
 * the capture are made at set-up and live as long as the process.
 *
 * Needs POSIX.1-2008 from <signal.h> (siginfo_t).
 */
#ifndef KOVA_EXCEPTION_CAPTURE_H
#define KOVA_EXCEPTION_CAPTURE_H

#include <pthread.h>
#include <signal.h>
#include <stdint.h>

#include "kova/exception_record.h"
#include "kova/export.h"

KOVA_BEGIN_DECLS

/* Platform name and version as reports show them. Empty until KOVA_GetVersionInit succeeds. */
#define KOVA_PLATFORM_TEXT_SIZE 64
extern KOVA_API char g_kovaPlatformName[KOVA_PLATFORM_TEXT_SIZE];
extern KOVA_API char g_kovaPlatformVersion[KOVA_PLATFORM_TEXT_SIZE];

/* Serialises KOVA_ExceptInit. Taken before g_exceptLogbufInitlock. */
extern KOVA_API pthread_mutex_t g_kovaExceptNativeInitMutexLock;

/* 1 once the set-up has succeeded. Guarded by g_kovaExceptNativeInitMutexLock. */
extern KOVA_API uint8_t g_kovaExceptNativeIsInit;

/**
 * Sets the capture up: node identity, platform name and version, the exception record and the text buffers, the
 * abnormal-exit query, and one warm-up call of backtrace().
 *
 * A second call after a success returns at once; after a failure it tries again. A missing "libyot_pkg.so" or
 * "libqavmlib.so" is no failure: the names stay empty, the query stays absent.
 *
 * @return 0 done, now or before; 1 the lock cannot be taken or no memory; else the code of KOVA_SelfCpuidAndSlotInit.
 *
 * Threads: any. Signals: not safe (allocates, loads libraries).
 */
KOVA_API uint32_t KOVA_ExceptInit(void);

/**
 * The set-up itself, without its lock and without the "done" flag. KOVA_ExceptInit is what a process calls.
 *
 * @return 0; the code of KOVA_SelfCpuidAndSlotInit, with nothing else set up; 1 no memory, with no record left behind.
 *
 * Threads: one at a time. Signals: not safe.
 */
KOVA_API uint32_t KOVA_ExceptNativeInit(void);

/**
 * Makes the text buffer (10240 bytes) and the register-memory buffer (1792 bytes) where they do not exist yet.
 *
 * @return 0, also when both existed; 1 the lock cannot be taken or no memory.
 *
 * Threads: any. Signals: not safe.
 */
KOVA_API uint32_t KOVA_GlobalExceptLogBufInit(void);

/**
 * Asks "libyot_pkg.so" for the platform's name and version and keeps them in g_kovaPlatformName and
 * g_kovaPlatformVersion.
 *
 * @return 0; 127 when the library or its function is missing, the query fails or a text does not fit.
 *
 * Threads: one at a time. Signals: not safe.
 */
KOVA_API uint32_t KOVA_GetVersionInit(void);

/**
 * Copies the platform's name and version. Texts are not cut: a buffer too small is left with an empty text.
 *
 * @param name        Out, nameSize bytes; 64 are always enough.
 * @param version     Out, versionSize bytes.
 * @return Sum of the results of the two bounded copies, 0 when both texts fitted.
 *
 * Threads: any, after set-up. Signals: not safe.
 */
KOVA_API uint32_t KOVA_GetVersion(char *name, uint32_t nameSize, char *version, uint32_t versionSize);

/**
 * Looks for QAV_IsProcessAbnormalExit in "libqavmlib.so" and stores it, found or NULL, in g_kovaIsProcessAbnormalExit.
 * A library in which it was found stays loaded for the life of the process.
 *
 * Threads: one at a time. Signals: not safe.
 */
KOVA_API void KOVA_InitProcAbnormalExitHook(void);

/**
 * @return What the abnormal-exit query answers (lowest bit set: the process is exiting abnormally); 0 without a query.
 *
 * Threads: any. Signals: as safe as the query.
 */
KOVA_API uint32_t KOVA_IsProcessAbnormalExit(void);

/**
 * Registers an unwinder that captures use instead of backtrace(). It runs in signal context.
 *
 * @param hook The unwinder, or NULL to go back to backtrace().
 * @return 0.
 *
 * Threads: any. Signals: not safe (logs when hook is NULL).
 */
KOVA_API uint32_t KOVA_RegExceptCallStackDumpHook(KovaExceptCallStackHook hook);

/**
 * Records a signal. Has the form of an SA_SIGINFO handler.
 *
 * Every call leaves a trace line in the exception log. After set-up, and when no other record is being made, a signal
 * other than SIGTERM gets the full report, a record in box 0, and the report's head once more with the call stack;
 * SIGTERM gets a call stack when the process is exiting abnormally, else nothing more. When a step of the capture
 * itself faults, this handler must be entered again for that fault, on the same thread: it goes on with the next step.
 *
 * Waits for the locks of the exception log and of the black box. How long: an interrupted wait gives up after 5 s in
 * all on the log and 15 s on the box, so a host that wants the bound lets a signal tick, without SA_RESTART.
 *
 * @param signal  Signal number.
 * @param info    What the kernel told the handler. NULL: the call does nothing.
 * @param context The user context (ucontext_t), or NULL: registers stay 0 and nothing around them is dumped.
 *
 * Threads: any. Signals: safe; that is what it is for. errno is kept. Needs about 12 KiB of stack, the kernel's signal
 * frame included.
 */
KOVA_API void KOVA_SignalInfoRecordHandler(int32_t signal, siginfo_t *info, void *context);

/**
 * Writes the call stack of a SIGTERM to the exception log, if the process is exiting abnormally.
 *
 * @param record    The record, for registers and call stack.
 * @param callStack Collects the call stack into the record, as KOVA_GetCallStack does.
 * @param context   The user context, or NULL.
 *
 * Threads: the capturing thread. Signals: safe.
 */
KOVA_API void KOVA_SigTermHandler(KovaExceptInfo *record, uint32_t (*callStack)(KovaExceptInfo *record, void *context),
                                  void *context);

/**
 * Writes one line to the exception log that tells who sent which signal to this process.
 *
 * @param senderPid Process id of the sender.
 * @param signal    Signal number.
 * @param where     Name of the caller, for the line.
 * @return 0; non-zero when formatting or writing fails.
 *
 * Threads: any. Signals: safe.
 */
KOVA_API uint32_t KOVA_WriteSigTrace2Log(int32_t senderPid, int32_t signal, const char *where);

KOVA_END_DECLS

#endif /* KOVA_EXCEPTION_CAPTURE_H */
