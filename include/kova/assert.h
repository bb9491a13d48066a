/*
 * Asserts: the first time one is raised in a process it is printed to the platform's diagnostic log and stored in box 1
 * of the black box; a repeat only gives the stored item a new time and a higher occurrence count.
 *
 * Modules raise asserts with the macros of kova/assert_macros.h.
 *
 * What is known already stands in a table of the process, the five asserts stored last. An entry is trusted only after
 * its item was read back: it may have been overwritten by 100 newer items or gone with the box. Such an assert is
 * forgotten, as is one whose entry a sixth assert took: when it is raised again it counts as new. An item of the same
 * assert that another process stored is not this process's, and never changed by it.
 *
 * Every function may be called by several threads at once: table and box are changed under one lock. The lock is held
 * while an item is printed, by its own thread any number of times, so that the printing code may raise asserts itself.
 * It must not wait there for another thread that may raise one.
 *
 * Result codes: 0 for success, where nothing else is said.
 */
#ifndef KOVA_ASSERT_H
#define KOVA_ASSERT_H

#include <stdint.h>
#include <time.h>

#include "kova/assert_record.h"
#include "kova/export.h"

KOVA_BEGIN_DECLS

/**
 * Records that an assert was raised. The caller goes on: nothing is ended, no failure is told, errno is kept.
 *
 * @param file    Path of the source, as __FILE__ gives it. What counts is the text behind the last backslash or else
 * the last slash; longer than 31 characters it is recorded as an empty name, and the log is told. NULL: the call does
 * nothing.
 * @param withLog Text to be stored and printed with it, at most 127 characters (a longer one is left out). May be NULL.
 *
 * Threads: any thread of any process. Blocks while another holds the black box. Signals: not safe (allocates).
 */
KOVA_API void KOVA_Assert(const char *file, uint32_t line, const char *withLog);

/** KOVA_Assert without a text, as the in-house runtime platform calls an assert pre-hook. @return 0. Signals: not
 * safe. */
KOVA_API uint32_t KOVA_LirraAssertPreHook(const char *file, uint32_t line);

/*
 * Building blocks
 */

/**
 * Looks an assert up, by its file name and line, in the process's table and then in the black box. What is found in the
 * table but not in the box is forgotten; what is found in both has its count in the table raised by one. Only name and
 * line are compared: the item may be one that another process stored in the slot since.
 *
 * @param slot  Out: its slot in box 1. Set, like count, only when it is found.
 * @param count Out: occurrences, this one included.
 * @return 1 found, 0 not.
 *
 * Threads: any. Blocks while another holds the black box. Signals: not safe (allocates).
 */
KOVA_API uint32_t KOVA_AssertExist(const KovaAssertItem *item, uint32_t *slot, uint32_t *count);

/** @return 1 when the item stored in this slot of box 1 has the same file name and line, else 0. Threads: any. Blocks
 * while another holds the black box. Signals: not safe (allocates). */
KOVA_API uint32_t KOVA_AssertExistInBox(const KovaAssertItem *item, uint32_t slot);

/** Enters an item that was stored in this slot of box 1 into the table, in place of the oldest entry. @return Result of
 * the bounded copy of the file name. Threads: any. Signals: not safe. */
KOVA_API uint32_t KOVA_SaveAssertInfo(const KovaAssertItem *item, uint32_t slot);

/**
 * Prints an item to the platform's diagnostic log, as one block with message id 0x0E40101D.
 *
 * Threads: any. Signals: not safe (allocates).
 */
KOVA_API void KOVA_PrintAssertInfo(const KovaAssertItem *item);

/**
 * Collects and names the calling thread's frames, the caller of this function first; at most 19.
 *
 * @param callStack Out. Not cleared first: only depth and the frames found are written.
 * @return 0; 1 for NULL or when there is no frame (depth is then 0).
 *
 * Threads: any. Signals: not safe (the first call loads the unwinder).
 */
KOVA_API uint32_t KOVA_AssertGetCallStack(KovaCallStack *callStack);

/** Copies a path's base name, as KOVA_Assert takes it. One that does not fit leaves an empty text, and the log is told.
 * Threads: any. Signals: not safe (logs). */
KOVA_API void KOVA_GetFileName(const char *path, char *buffer, uint32_t size);

/**
 * Fills what every new item has: count 1, marker, thread, process, board, platform, and the time given. File name,
 * line, text and call stack stay as they are.
 *
 * @return Result of the bounded copy of the time; 1 for a NULL item.
 *
 * Threads: any. Signals: not safe.
 */
KOVA_API uint32_t KOVA_AssertFillBaseInfo(KovaAssertItem *item, const struct tm *time);

KOVA_END_DECLS

#endif /* KOVA_ASSERT_H */
