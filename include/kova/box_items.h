/*
 * Storing what other parts of the platform know of an exception, an assert or a dead loop.
 *
 * They hold the same information as the items of the black box, in records without the first words of an item. The
 * library's own captures and asserts do not come this way.
 *
 * Texts of a source record are terminated within their field; one that is not makes the copy fail, and nothing is
 * stored. Failures are logged at level 1, tag "Base".
 *
 * Threads: all functions may be called from several threads at once. Signals: not safe (they allocate and log).
 */
#ifndef KOVA_BOX_ITEMS_H
#define KOVA_BOX_ITEMS_H

#include <stddef.h>
#include <stdint.h>
#include <time.h>

#include "kova/assert_record.h"
#include "kova/exception_record.h"
#include "kova/export.h"

KOVA_BEGIN_DECLS

/* An exception. Fields and meanings are those of KovaExceptInfo; what is "not set" there is the caller's here. Reserved
 * words are not copied. */
typedef struct KovaExceptSourceRecord {
    struct tm time;
    uint32_t cpuTickHigh;
    uint32_t cpuTickLow;
    int32_t signalNumber;
    char signalName[16];
    int32_t signalCode;
    int32_t threadId;
    int32_t processId;
    char processName[32];
    char text136[50];
    uint8_t reserved178[2];
    uint32_t senderProcessId;
    char senderProcessName[50];
    uint8_t reserved234[6];
    KovaMachineContext machineContext;
    uint64_t spDumpStart;
    uint32_t spDumpLength;
    uint32_t reserved4636;
    uint64_t word4656;
    uint8_t spDump[1536];
    uint64_t pcDumpStart;
    uint32_t pcDumpLength;
    uint8_t pcDump[1024];
    uint32_t reserved7220;
    uint64_t lrDumpStart;
    uint32_t lrDumpLength;
    uint8_t lrDump[512];
    uint32_t reserved7748;
    uint64_t fpDumpStart;
    uint32_t fpDumpLength;
    uint8_t fpDump[512];
    uint32_t reserved8276;
    uint64_t word8296;
    uint32_t word8304;
    uint32_t reserved8292;
    KovaCallStack callStack;
    uint8_t bytes9760[32];
    char platformName[64];
    char platformVersion[64];
    char text9920[32];
} KovaExceptSourceRecord;

/* An assert: KovaAssertItem without its first 8 bytes. Reserved words are not copied. */
typedef struct KovaAssertSourceRecord {
    struct tm time;
    uint32_t occurrenceCount;
    uint32_t threadId;
    uint32_t processId;
    char processName[32];
    char slotText[50];
    char fileName[KOVA_ASSERT_FILE_NAME_SIZE];
    uint8_t reserved182[2];
    uint32_t line;
    char platformName[64];
    char platformVersion[64];
    char withLog[128];
    uint32_t reserved444;
    KovaCallStack callStack;
} KovaAssertSourceRecord;

#define KOVA_SOURCE_AT(record, item, field, distance)                                   \
    KOVA_STATIC_ASSERT(offsetof(record, field) + (distance) == offsetof(item, field) && \
                           sizeof(((record *)0)->field) == sizeof(((item *)0)->field),  \
                       "interface: " #field)
KOVA_STATIC_ASSERT(sizeof(KovaExceptSourceRecord) == 9936, "interface: exception record");
KOVA_SOURCE_AT(KovaExceptSourceRecord, KovaExceptInfo, time, 8);
KOVA_SOURCE_AT(KovaExceptSourceRecord, KovaExceptInfo, signalName, 8);
KOVA_SOURCE_AT(KovaExceptSourceRecord, KovaExceptInfo, processName, 8);
KOVA_SOURCE_AT(KovaExceptSourceRecord, KovaExceptInfo, senderProcessName, 8);
KOVA_SOURCE_AT(KovaExceptSourceRecord, KovaExceptInfo, machineContext, 16);
KOVA_SOURCE_AT(KovaExceptSourceRecord, KovaExceptInfo, spDumpStart, 16);
KOVA_SOURCE_AT(KovaExceptSourceRecord, KovaExceptInfo, pcDumpStart, 16);
KOVA_SOURCE_AT(KovaExceptSourceRecord, KovaExceptInfo, lrDumpStart, 16);
KOVA_SOURCE_AT(KovaExceptSourceRecord, KovaExceptInfo, fpDump, 16);
KOVA_SOURCE_AT(KovaExceptSourceRecord, KovaExceptInfo, word8304, 16);
KOVA_SOURCE_AT(KovaExceptSourceRecord, KovaExceptInfo, bytes9760, 16);
KOVA_SOURCE_AT(KovaExceptSourceRecord, KovaExceptInfo, text9920, 16);
KOVA_STATIC_ASSERT(sizeof(KovaAssertSourceRecord) == 1896, "interface: assert record");
KOVA_SOURCE_AT(KovaAssertSourceRecord, KovaAssertItem, time, 8);
KOVA_SOURCE_AT(KovaAssertSourceRecord, KovaAssertItem, fileName, 8);
KOVA_SOURCE_AT(KovaAssertSourceRecord, KovaAssertItem, withLog, 8);
KOVA_SOURCE_AT(KovaAssertSourceRecord, KovaAssertItem, callStack, 8);
#undef KOVA_SOURCE_AT

/** Copies a source record into an item, field by field, and writes the item's marker. @param item Cleared to 0.
 * @return Sum of the results of the bounded copies of the texts; 1 for a NULL argument. A text that does not fit is
 * left empty, and the others are copied all the same. */
KOVA_API uint32_t KOVABoxExcInfoCopyToItem(KovaExceptInfo *item, const KovaExceptSourceRecord *source);

/**
 * Stores an exception in box 0.
 *
 * @return 0; 1 no memory or source is NULL; the sum of the text copies, with nothing stored; a code of KOVA_BoxWrite.
 *
 * Blocks while another holds the black box.
 */
KOVA_API uint32_t KOVA_WriteExceptionBox(const KovaExceptSourceRecord *source);

/** As KOVABoxExcInfoCopyToItem, for an assert. */
KOVA_API uint32_t KOVABoxAssInfoCopyToItem(KovaAssertItem *item, const KovaAssertSourceRecord *source);

/**
 * Stores an assert in box 1. One that this process stored before, by file name and line, is not appended again: the new
 * item replaces the stored one, with that one's occurrence count plus one. Whether that could be written is not told.
 *
 * @return 0; 1 no memory or source is NULL; the sum of the text copies, with nothing stored; a code of KOVA_BoxWrite.
 *
 * Blocks while another holds the black box.
 */
KOVA_API uint32_t KOVA_WriteAssertBox(const KovaAssertSourceRecord *source);

/**
 * Hands a dead loop to the platform's monitor. The arguments are those of KovaRecordExternalThreadDeadLoopInfo; eight
 * machine words are passed through unchanged.
 *
 * @return 0, whatever the monitor answers.
 */
KOVA_API uint32_t KOVA_WriteDeadloopBox(uintptr_t a0, uintptr_t a1, uintptr_t a2, uintptr_t a3, uintptr_t a4,
                                        uintptr_t a5, uintptr_t a6, uintptr_t a7);

KOVA_END_DECLS

#endif /* KOVA_BOX_ITEMS_H */
