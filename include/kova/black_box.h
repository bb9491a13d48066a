/*
 * The black box: one file of fixed size per node that keeps the most recent exception and assert records of every
 * process that loads the library.
 *
 * The file, "/opt/norvel/var/log/kova_exception_assert", holds a file head and two boxes: box 0 for exception records
 * (20 of 9968 bytes), box 1 for assert records (100 of 1904 bytes). A box is a node head and a ring of record slots: an
 * append fills slot writeIndex, and overwrites the oldest record once the box is full.
 *
 * Every ring operation (write, refresh, read, reset) is complete in itself: it opens the file, creating it where it is
 * missing, waits for the lock over the whole file, checks both heads and rebuilds a damaged one (a rebuilt node head
 * means an empty box), does its work, unlocks and closes. Nothing needs preparing and nothing stays open. Threads of
 * one process exclude each other too, except against a caller of the building blocks below, who holds a descriptor
 * itself.
 *
 * Result codes: 0 for success. A code that comes from a failed callee is the callee's code x 10 + the number of the
 * failing step, so 53 is the lock, whose own code is 5, failed in step 3.
 *
 *                          create              write              read               reset
 *     open                 callee x 10 + 1     22                 22                 callee x 10 + 1
 *     set the length       0xFFFFFFF8          33                 -                  -
 *     lock                 53                  54                 53                 53
 *     file head            callee x 10 + 4     callee x 10 + 5    callee x 10 + 4    callee x 10 + 4
 *     node head            callee x 10 + 5     callee x 10 + 6    callee x 10 + 5    callee x 10 + 5
 *
 * "Signals: safe" means that a function may be called from the handler of a fatal signal; its messages go to the system
 * log as single datagrams there.
 */
#ifndef KOVA_BLACK_BOX_H
#define KOVA_BLACK_BOX_H

#include <stddef.h>
#include <stdint.h>

#include "kova/export.h"

KOVA_BEGIN_DECLS

#define KOVA_BOX_MAGIC 0x1A2B3C4DU
#define KOVA_BOX_COUNT 2U
#define KOVA_BOX_EXCEPTION 0U
#define KOVA_BOX_ASSERT 1U
#define KOVA_BOX_FILE_BYTES 389860U

/* Where a box lies in the file and what it holds. The record slots begin 32 bytes after nodeOffset. */
typedef struct KovaBoxSpec {
    uint32_t nodeOffset; /* bytes from the start of the file */
    uint32_t recordMax;  /* capacity, records */
    uint32_t recordLen;  /* bytes */
} KovaBoxSpec;

/* First 36 bytes of the file, little-endian. */
typedef struct boxHead {
    uint32_t magic; /* KOVA_BOX_MAGIC */
    uint32_t osVersion[2];
    uint32_t cpuType;
    uint32_t boxLen;
    uint32_t boxNum; /* KOVA_BOX_COUNT */
    uint32_t nodeOffset[KOVA_BOX_COUNT];
    uint16_t reserved; /* never set: a rebuilt head keeps what stood there */
    uint16_t checkSum; /* over bytes 0 to 33 */
} KovaBoxHead;

/* First 32 bytes of a box, little-endian. */
typedef struct KovaBoxNodeHead {
    uint32_t magic;       /* KOVA_BOX_MAGIC */
    uint32_t recordMax;   /* capacity; a head that differs from the layout table is used with its own */
    uint32_t writeIndex;  /* slot that the next append fills */
    uint32_t recordCount; /* records stored */
    uint32_t reserved16;  /* 0xFFFFFFFF */
    uint32_t reserved20;  /* 0 */
    uint32_t recordLen;   /* bytes */
    uint16_t reserved28;  /* 0 */
    uint16_t checkSum;    /* over bytes 0 to 29 */
} KovaBoxNodeHead;

KOVA_STATIC_ASSERT(sizeof(KovaBoxSpec) == 12, "layout table: row");
KOVA_STATIC_ASSERT(sizeof(KovaBoxHead) == 36, "file format: file head");
KOVA_STATIC_ASSERT(offsetof(KovaBoxHead, nodeOffset) == 24, "file format: nodeOffset");
KOVA_STATIC_ASSERT(offsetof(KovaBoxHead, checkSum) == 34, "file format: file head checkSum");
KOVA_STATIC_ASSERT(sizeof(KovaBoxNodeHead) == 32, "file format: node head");
KOVA_STATIC_ASSERT(offsetof(KovaBoxNodeHead, recordLen) == 24, "file format: recordLen");
KOVA_STATIC_ASSERT(offsetof(KovaBoxNodeHead, checkSum) == 30, "file format: node head checkSum");

/* Layout table, one row per box. The library only reads it. */
extern KOVA_API const KovaBoxSpec g_kovaBoxDefSpec[KOVA_BOX_COUNT];

/*
 * Ring operations
 */

/**
 * Appends a record to a box; the oldest one makes room when the box is full.
 *
 * The node head is written after the record: a process killed between the two leaves the record uncounted.
 *
 * @param data   The record.
 * @param length Bytes, at most the box's record length. What a shorter record leaves of its slot keeps its old bytes.
 * @param slot   Out: the slot that was filled. May be NULL. Set as soon as the record is written.
 * @return 0 stored; 1 boxId above 1; 22, 33, 54 open, set length, lock failed; head codes as told above; 17 the record
 *         is refused (NULL, too long, or its slot lies outside the box); 67, 87 writing it failed; 1, 6, 8 it is
 *         written but writing the node head failed, so it is not counted.
 *
 * Threads: any thread of any process. Blocks while another holds the file. Signals: safe; the wait is bounded there.
 */
KOVA_API uint32_t KOVA_BoxWrite(uint32_t boxId, const void *data, uint32_t length, uint32_t *slot);

/**
 * Advances a node head in memory by one stored record: next slot, count and checksum. NULL does nothing.
 *
 * Threads: the node head is the caller's. Signals: safe.
 */
KOVA_API void KovaFreshBoxNodeHead(KovaBoxNodeHead *node);

/**
 * Rewrites one slot in place. Neither the next slot nor the count changes.
 *
 * @param length Bytes, at most the box's record length.
 * @param slot   As KOVA_BoxWrite or a slot-order read gave it, below the box's capacity.
 * @return 0, or 1 on any failure.
 *
 * Threads: any thread of any process. Blocks while another holds the file. Signals: safe; the wait is bounded there.
 */
KOVA_API uint32_t KOVA_BoxRefresh(uint32_t boxId, const void *data, uint32_t length, uint32_t slot);

/**
 * Reads records of one box, newest first.
 *
 * @param skip    Newest records to pass over. At or beyond the number stored, 0 records are delivered.
 * @param count   In: records wanted, 1 or more. Out: records delivered; of no meaning after a failure.
 * @param records Out: one buffer, records back to back, 9968 bytes each in box 0, 1904 in box 1. Set when records were
 *                to be delivered, to NULL when there was no memory for them; start with NULL. Yours: release whatever
 *                is not NULL, whatever *count says, with KovaBaseFree and the handle g_kovaAgentMemHandle.
 * @return 0 done; 1 a null argument; 15 boxId above 1; 22 open failed; 53 lock failed; head codes as told above;
 *         6 record length 0; 127 no memory (also for 0 records wanted); 917 skip beyond what the ring can deliver.
 *
 * Threads: any thread of any process. Blocks while another holds the file. Signals: not safe (allocates).
 */
KOVA_API uint32_t KOVA_BoxRead(uint32_t boxId, uint32_t skip, uint32_t *count, void **records);

/**
 * Reads records of one box in the order of their slots: first, first + 1, ... In a box that has wrapped, slot 0 is not
 * the oldest record.
 *
 * @param first     First slot. Beyond the number stored, 0 records are delivered; equal to it, the call fails.
 * @param count     In: records wanted. Out: records delivered; of no meaning after a failure.
 * @param records   Out: as for KOVA_BoxRead. Yours: release it with KovaBaseFree and the handle memHandle.
 * @param memHandle Memory partition to allocate from.
 * @return 0, or 1 on any failure.
 *
 * Threads: any thread of any process. Blocks while another holds the file. Signals: not safe (allocates).
 */
KOVA_API uint32_t KOVA_BoxReadFromBegin(uint32_t boxId, uint32_t first, uint32_t *count, void **records,
                                        uint32_t memHandle);

/**
 * Empties a box and clears its used slots.
 *
 * @return 0 (an empty box stays as it is); 1 boxId above 1; open, lock and head codes as told above; callee x 10 + 6
 *         the emptied node head could not be written.
 *
 * Threads: any thread of any process. Blocks while another holds the file. Signals: not safe (allocates, may run a
 * shell command).
 */
KOVA_API uint32_t KOVA_BoxReset(uint32_t boxId);

/*
 * Building blocks. They work on a descriptor and heads that the caller provides; the file is to be locked meanwhile.
 */

/** Slots of a newest-first read. @param start Out: slot of the first record; the others lie before it, going round.
 * @param count In: records wanted. Out: records there are. @return 0; 1 a null argument; 9 skip beyond the records of
 * a box that is not full. Signals: safe. */
KOVA_API uint32_t KOVA_BoxReadGetStartAndNum(const KovaBoxNodeHead *node, uint32_t skip, uint32_t *start,
                                             uint32_t *count);

/** Slots of a slot-order read. @param first First slot. @param count In: records wanted. Out: records there are.
 * @return 0; 1 a null argument. Signals: safe. */
KOVA_API uint32_t KOVA_BoxReadGetStartAndNumFromBegin(const KovaBoxNodeHead *node, const uint32_t *first,
                                                      uint32_t *count);

/** The copying part of KOVA_BoxRead. @return 0; 11 a null argument or boxId above 1; 91 skip too large; 12 no memory.
 * Signals: not safe (allocates). */
KOVA_API uint32_t KOVA_BoxReadWithCondition(int fd, const KovaBoxHead *head, const KovaBoxNodeHead *node,
                                            uint32_t boxId, uint32_t skip, uint32_t *count, void **records);

/** Reads the file head and rebuilds it in head and file when it is damaged. @return 0; callee x 10 + 1 read failed;
 * callee x 10 + 2 write failed. Signals: safe. */
KOVA_API uint32_t KOVA_BoxGetHead(int fd, KovaBoxHead *head);

/** Reads the node head of a box and rebuilds it, which empties the box, in node and file when it is damaged.
 * @param head As KOVA_BoxGetHead gave it. @return 0; 1 bad argument; callee x 10 + 2 read failed; callee x 10 + 3
 * write failed. Signals: safe. */
KOVA_API uint32_t KOVA_BoxGetNodeHead(int fd, const KovaBoxHead *head, uint32_t boxId, KovaBoxNodeHead *node);

/** @return 1 when the file head is valid, else 0, and the system log is told why. Signals: safe. */
KOVA_API uint32_t KOVA_BoxHeadIsValid(const KovaBoxHead *head);

/** @return 1 when the node head is valid for this box, else 0, and the system log is told why. Signals: safe. */
KOVA_API uint32_t KOVA_BoxNodeHeadIsValid(const KovaBoxNodeHead *node, uint32_t boxId);

/** Writes at an offset from the start of the file. @return 0; 1 bad argument; 6 seek failed; 8 short or failed write.
 * Signals: safe. */
KOVA_API uint32_t KOVA_BoxWriteRecord(int fd, uint32_t offset, const void *data, int32_t length);

/** Reads at an offset from the start of the file; what lies beyond its end is zero. @return 0; 1 bad argument; 6 seek
 * failed; 7 read failed. Signals: safe. */
KOVA_API uint32_t KOVA_BoxReadRecord(int fd, uint32_t offset, void *buffer, uint32_t length);

/** Waits for the write lock over the whole file, any file. Keeps processes apart, not the threads of one. @return 0, or
 * 5 when it is not granted. Signals: safe; the wait is bounded there. */
KOVA_API uint32_t KOVA_BoxFileLock(int fd);

/** Releases that lock. @return 0, or 1 when the call fails. Signals: safe. */
KOVA_API uint32_t KOVA_BoxFileUnlock(int fd);

/**
 * Opens the file. A path that cannot be opened as a regular file (a link, a directory, a device) is removed, and a new
 * file is made there, owned by kova:tessal.
 *
 * @param fd Out: the descriptor, or -1. Yours to close, which drops the lock of every descriptor of this file.
 * @return 0; 4 the path could not be removed; 2 the second open failed; 1 fd is NULL.
 *
 * Threads: any. Signals: not safe (logs, runs a shell command).
 */
KOVA_API uint32_t KOVA_OpenBox(int *fd);

/**
 * Creates the file where it is missing, sets its length and makes both heads valid. An optional preparation: the ring
 * operations do without.
 *
 * @return 0, or a code as told above.
 *
 * Threads: any thread of any process. Blocks while another holds the file. Signals: not safe (logs).
 */
KOVA_API uint32_t KOVA_CreateBox(void);

/** The box checksum: one's complement of the folded sum of little-endian 16-bit words. @return 16 bits, widened.
 * Signals: safe. */
KOVA_API uint32_t KOVA_BoxCheckSum(const uint8_t *data, uint32_t length);

/** What a file head says of the system that wrote it. @return 1. Signals: safe. */
KOVA_API uint32_t KOVA_BoxGetOsVersion(void);
/** @return 1. Signals: safe. */
KOVA_API uint32_t KOVA_BoxGetCpuType(void);
/** @return 0. Signals: safe. */
KOVA_API uint32_t KOVA_BoxGetBoxLen(void);

KOVA_END_DECLS

#endif /* KOVA_BLACK_BOX_H */
