/*
 * The exception report: filling the record of a fatal signal and printing it into the exception log.
 *
 * The record handler calls these in a fixed order. Printing functions that take a length append to a text buffer of
 * 10240 bytes at that position and advance it; what does not fit is cut, so a text holds 10239 characters at most.
 * Functions whose names end in 2log also write what they printed to the exception log.
 *
 * All of them are safe in signal context and use the capture's buffers: outside the record handler, one thread at a
 * time.
 */
#ifndef KOVA_EXCEPTION_REPORT_H
#define KOVA_EXCEPTION_REPORT_H

#include <signal.h>
#include <stdint.h>

#include "kova/exception_record.h"
#include "kova/export.h"
#include "kova/memory_map.h"

KOVA_BEGIN_DECLS

/**
 * Writes the two lines that a report starts with: the exception time, then the name and id of this process.
 *
 * @param record Its time is printed, UTC.
 * @return 0; 1 when the record is NULL, or formatting or writing fails (a failed first line leaves out the second).
 */
KOVA_API uint32_t KOVA_WriteBaseInfoToLog(const KovaExceptInfo *record);

/**
 * Fills the record: marker, signal, ids, names, and the memory around sp, pc, x30 and x29, whose registers must stand
 * in the record already. A name or a range that cannot be read stays empty.
 *
 * @param info    What the kernel told the handler.
 * @param mapSize Size of the process's map file in bytes.
 * @param range   Out: the live stack from 512 bytes below sp to 3072 above, clipped to its mapping. Written only when
 *                sp lies in a readable mapping. May be NULL.
 * @return 0; 1 when the record or info is NULL.
 */
KOVA_API uint32_t KOVA_FillExceptBaseInfo(KovaExceptInfo *record, int32_t signal, const siginfo_t *info,
                                          uint32_t mapSize, KovaSpDumpRange *range);

/**
 * Copies fault address, x0 to x30, sp, pc and pstate out of a user context. On x86-64 the registers go by role. Does
 * nothing when either pointer is NULL.
 *
 * @return registers.
 */
KOVA_API KovaRegisterBlock *KOVA_CopyRegisterInfo(KovaRegisterBlock *registers, const void *context);

/**
 * Collects the call stack into the record, at most 20 frames, and resolves each address to a text.
 *
 * With backtrace() the stack starts at the record's pc, or at the third frame found when the pc is not among them. A
 * registered hook that fails, and an unwinder that faults, leave the pc alone.
 *
 * @param context The user context, passed to the hook. May be NULL.
 * @return 0.
 */
KOVA_API uint32_t KOVA_GetCallStack(KovaExceptInfo *record, void *context);

/**
 * Prints the header block: time, node, signal, thread, process, sender.
 *
 * @param text   Buffer of KOVA_EXCEPT_TEXT_SIZE bytes.
 * @param length In/out: characters in the buffer.
 * @return 0; 1 when a pointer is NULL.
 */
KOVA_API uint32_t KOVA_PrintfExceptBaseInfo(const KovaExceptInfo *record, char *text, uint32_t *length);

/** Prints the register block, 18 lines and a heading. @return 0; 1 when a pointer is NULL. */
KOVA_API uint32_t KOVA_PrintRegInfo(const KovaRegisterBlock *registers, char *text, uint32_t *length);

/** Prints the call stack, a heading and one line a frame. @return 0. */
KOVA_API uint32_t KOVA_PrintCallStackInfo(const KovaExceptInfo *record, char *text, uint32_t *length);

/**
 * Prints header block, register block and call stack from the start of the buffer and writes them to the log, followed
 * by an empty line.
 *
 * @return 0, whatever became of the writing; 1 when a pointer is NULL.
 */
KOVA_API uint32_t KOVA_PrintfExceptBaseInfo2log(const KovaExceptInfo *record, char *text);

/**
 * Writes the full report of a record to the log: header, registers and call stack, then the memory around x0 to x28
 * with the heap blocks found there, then around sp, pc, x29 and x30. Without the capture's text buffer it does nothing.
 *
 * @param mapSize Size of the process's map file in bytes.
 * @param range   The live stack to print for sp, from KOVA_FillExceptBaseInfo.
 */
KOVA_API void KOVA_PrintExceptInfo2log(const KovaExceptInfo *record, uint32_t mapSize, const KovaSpDumpRange *range);

KOVA_END_DECLS

#endif /* KOVA_EXCEPTION_REPORT_H */
