/*
 * The memory map of the process, and dumps of the memory around an address.
 *
 * Only memory that the map file shows as readable is dumped, and it is read through the kernel: a range that cannot be
 * read after all (a page beyond the end of its file, a mapping gone in the meantime) is a failed dump, not a fault.
 *
 * The map file is "/proc/PID/maps_merge" where the platform has it, else "/proc/PID/maps"; the choice is made at each
 * opening. An address is looked for by halving steps over byte positions, so a search reads a dozen lines; it may miss
 * a mapping near the end of the file, and a map line of 255 characters or more ends it.
 *
 * Printing functions append to a text buffer of 10240 bytes at the length given and advance it; what does not fit is
 * cut, so a text holds 10239 characters at most. A section is a header line and the memory as 32-bit words, four a
 * line.
 *
 * All functions are safe in signal context. Those that say "capture's buffers" use g_kovaExceptLogbuf (its first 256
 * bytes hold map lines) and g_mapsFileName: outside the record handler, one thread at a time.
 */
#ifndef KOVA_MEMORY_MAP_H
#define KOVA_MEMORY_MAP_H

#include <stddef.h>
#include <stdint.h>

#include "kova/exception_record.h"
#include "kova/export.h"

KOVA_BEGIN_DECLS

/* Sizes of the capture's buffers: the text that printing functions append to, and the range around a register. */
#define KOVA_EXCEPT_TEXT_SIZE 10240
#define KOVA_REG_MEMORY_SIZE 1792

/* One line of the map file. */
typedef struct KovaMapRecord {
    uint64_t start;       /* first address */
    uint64_t end;         /* just past the last address */
    char permissions[16]; /* "rw-p", terminated */
    int32_t mapSize;      /* in: size of the map file in bytes, the first step of a search */
} KovaMapRecord;

/* What to dump around an address, and what was dumped. */
typedef struct KovaDumpMemParam {
    uint64_t value;   /* the address, as a register held it */
    const char *name; /* label: "X0" to "X28", "SP", "PC", "FP", "LR" */
    uint32_t before;  /* bytes wanted below the value */
    uint32_t after;   /* bytes wanted from the value upwards */
    uint64_t start;   /* out: first address dumped, 0 when nothing was */
    uint64_t length;  /* out: bytes dumped, 0 when nothing was */
    int32_t mapSize;  /* size of the map file in bytes */
} KovaDumpMemParam;

/* The part of the live stack that is printed for sp. */
typedef struct KovaSpDumpRange {
    uint64_t start;
    uint64_t end;    /* just past the last address */
    uint32_t length; /* 0 when there is nothing to print */
} KovaSpDumpRange;

KOVA_STATIC_ASSERT(sizeof(KovaMapRecord) == 40, "record layout");
KOVA_STATIC_ASSERT(sizeof(KovaDumpMemParam) == 48, "record layout");
KOVA_STATIC_ASSERT(offsetof(KovaDumpMemParam, start) == 24, "record layout");
KOVA_STATIC_ASSERT(sizeof(KovaSpDumpRange) == 24, "record layout");

/* Heap sections printed by this process. Never reset; from 32 on no scan prints any more. */
extern KOVA_API uint32_t g_heapPrintMaxTime;

/**
 * Tells which map file a process has.
 *
 * @param path Out: the path. Untouched on failure. 28 bytes are always enough.
 * @return 0; 1 when the path is NULL, the size 0, or the text does not fit.
 */
KOVA_API uint32_t KOVA_GetProcessMapsFilePathByProcessID(char *path, uint32_t size, uint32_t pid);

/** @return Size of this process's map file in bytes, found by reading it; 0 when it cannot be read. */
KOVA_API uint32_t KovaGetProcMapsSize(void);

/**
 * Reads a line from the descriptor's position. It reads in pieces: what follows the line in its last piece is lost.
 *
 * @param buffer Out: the line without its line feed, terminated.
 * @return Length of the line, at the end of the file of what there was; -12 when the line has size - 1 characters or
 *         more; -1 when reading failed.
 */
KOVA_API int32_t KOVA_ReadLineFromFd(int32_t fd, char *buffer, uint32_t size);

/**
 * Reads the first map line that begins at a byte position or later. Moves the descriptor's position.
 *
 * @param record Out: start, end and permissions (cut at 15 characters). Untouched on failure.
 * @param line   Scratch for the line, lineSize bytes.
 * @return 0; -errno when seeking failed; -12 when the line has lineSize - 1 characters or more; -1 when reading failed,
 *         no line begins there, or the line is no map line.
 */
KOVA_API int32_t KOVA_GetOneMapRecord(int32_t fd, uint32_t position, KovaMapRecord *record, char *line,
                                      uint32_t lineSize);

/**
 * Looks for the mapping that holds an address; the address just past a mapping counts as held by it.
 *
 * @param record In: mapSize. Out: the mapping; when none was found, the line looked at last.
 * @return 1 found; 0 not found; else the negative code of KOVA_GetOneMapRecord.
 */
KOVA_API int32_t KOVA_CheckAddrIsValid(int32_t fd, uint64_t address, KovaMapRecord *record, char *line,
                                       uint32_t lineSize);

/**
 * Copies the memory around an address, clipped to the readable mapping that holds it. Uses the capture's buffers.
 *
 * @param destination Out: param->length bytes; of no meaning after a failure.
 * @param size        Bytes in destination. A longer range is not copied at all.
 * @param param       In: value, before, after, mapSize. Out: start and length, both 0 on failure.
 * @return 0; 22 when there is no text buffer yet (param untouched); errno when the map file cannot be opened; 1 when
 *         the address is in no readable mapping, the range is empty or too long, or it cannot be read.
 */
KOVA_API uint32_t KOVA_DumpRegisterContext(void *destination, uint32_t size, KovaDumpMemParam *param);

/**
 * Finds the stack around an address, as KOVA_DumpRegisterContext would clip it, and copies nothing. Uses the capture's
 * buffers.
 *
 * @param range Out: written only when the address is in a readable mapping.
 */
KOVA_API void KOVA_FillSpDumpInfo(KovaSpDumpRange *range, const KovaDumpMemParam *param);

/** Stores the four values; before, after and mapSize stay as they are. */
KOVA_API void KOVA_DumpMemParamSet(KovaDumpMemParam *param, uint64_t value, const char *name, uint64_t start,
                                   uint64_t length);

/**
 * Appends the process's map file, as it is, to the exception log, under the log's lock. When no map file can be opened,
 * no log is made.
 */
KOVA_API void KOVA_DumpMapsFile(void);

/** Leaves one space of each run of spaces, in place. @return The length before. */
KOVA_API uint32_t KOVA_RemoveExtraSpaces(char *text);

/**
 * Looks for the first mapping with a name, line by line.
 *
 * @param start, end Out: its bounds, set only when it was found.
 * @param name       "[heap]", for instance.
 * @return 1 found, 0 not found.
 */
KOVA_API uint32_t KOVA_GetHeapStartAndEndInfo(uint64_t *start, uint64_t *end, const char *name);

/**
 * Clips the block around a pointer: from 64 bytes below it, but not below the lower bound, up to the length wanted, but
 * not beyond the upper bound.
 *
 * @param start  Out: first address.
 * @param length In: bytes wanted. Out: bytes within the bounds.
 */
KOVA_API void KOVA_ProcGetDumpStartAddAndLen(uint64_t address, uint64_t lower, uint64_t upper, uint64_t *start,
                                             uint32_t *length);

/**
 * Writes a heap section for a value that is a heap address and a multiple of 4, at most 128 bytes from 64 below it, to
 * the exception log, and counts it in g_heapPrintMaxTime.
 *
 * @param text Scratch, 10240 bytes. NULL: nothing is written, but it counts.
 * @return 1 when the value qualifies, else 0.
 */
KOVA_API uint32_t KOVA_CheckAddrIsInHeapAndPrintText(uint64_t candidate, uint64_t heapStart, uint64_t heapEnd,
                                                     char *text);

/**
 * Looks at the 64-bit value at every fourth byte of dumped memory and writes a heap section for each heap pointer,
 * until this process has printed 32.
 *
 * @param length Bytes at `bytes`. Below 8 there is nothing to look at.
 * @param text   Scratch, 10240 bytes, or NULL.
 */
KOVA_API void KOVA_ProcRegContextInHeap(uint32_t length, const uint8_t *bytes, uint64_t heapStart, uint64_t heapEnd,
                                        char *text);

/** Prints a heap section, up to the first word that cannot be read. @return 0. */
KOVA_API uint32_t KOVA_PrintHeapMemInfo(uint64_t address, uint32_t length, char *text, uint32_t *currentLength);

/**
 * Prints a register section from bytes that were copied before.
 *
 * @param param     Label, value, start and length.
 * @param bytes     The memory at start.
 * @param bytesSize Bytes there; no more are printed, whatever param->length says.
 * @return 0.
 */
KOVA_API uint32_t KOVA_PrintRegMemInfo(const KovaDumpMemParam *param, const uint8_t *bytes, uint32_t bytesSize,
                                       char *text, uint32_t *currentLength);

/**
 * Prints a register section from the live stack, up to the first word that cannot be read; nothing for an empty range.
 *
 * @param param Label and value.
 * @return 0.
 */
KOVA_API uint32_t KOVA_PrintRegSpInfo(const KovaSpDumpRange *range, const KovaDumpMemParam *param, char *text,
                                      uint32_t *currentLength);

/**
 * Writes the sections of x0 to x28 to the exception log, each followed by those of the heap blocks it leads to. Does
 * nothing before g_kovaRegMemory exists. Uses the capture's buffers.
 *
 * @param mapSize Size of the map file in bytes.
 * @param text    Scratch, 10240 bytes. NULL: nothing is written.
 */
KOVA_API void KOVA_PrintRegisterInfo2log(const KovaExceptInfo *record, uint32_t mapSize, char *text);

KOVA_END_DECLS

#endif /* KOVA_MEMORY_MAP_H */
