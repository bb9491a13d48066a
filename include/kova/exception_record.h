/*
 * The exception record: what is known of a fatal signal, in 9968 bytes.
 *
 * It is made in memory while a process dies and stored byte for byte in box 0 of the black box, so this layout is a
 * file format. All fields are little-endian. Texts are terminated within their field in records made by the capture;
 * whoever reads one from a file must not rely on it. Fields marked "not set" are 0 in records made by the capture.
 */
#ifndef KOVA_EXCEPTION_RECORD_H
#define KOVA_EXCEPTION_RECORD_H

#include <stddef.h>
#include <stdint.h>
#include <time.h>

#include "kova/export.h"

KOVA_BEGIN_DECLS

#define KOVA_EXCEPT_MARKER 0xECECECECU
#define KOVA_CALL_STACK_MAX 20
#define KOVA_SYMBOL_TEXT_SIZE 64

/* Registers as 35 words. On x86-64 the registers go by role, see docs/architecture.md. */
typedef struct KovaRegisterBlock {
    uint64_t faultAddress;
    uint64_t x[31]; /* x29 frame pointer, x30 link register */
    uint64_t sp;
    uint64_t pc;
    uint64_t pstate;
} KovaRegisterBlock;

/* A signal's machine context as 64-bit ARM Linux lays it out. The capture fills the registers, the rest stays 0. */
typedef struct KovaMachineContext {
    KovaRegisterBlock registers;
    uint64_t alignment;
    uint8_t reserved[4096];
} KovaMachineContext;

typedef struct KovaExceptInfo {
    uint32_t magic; /* KOVA_EXCEPT_MARKER */
    uint32_t reserved4;
    struct tm time; /* UTC; the zone fields are 0 */
    uint32_t cpuTickHigh;
    uint32_t cpuTickLow;
    int32_t signalNumber;
    char signalName[16];
    int32_t signalCode; /* si_code */
    int32_t threadId;
    int32_t processId;
    char processName[32];
    char text136[50]; /* not set */
    uint8_t reserved186[2];
    uint32_t senderProcessId; /* si_pid, whatever the signal: for a fault it is part of the fault address */
    char senderProcessName[50];
    uint8_t reserved242[14];
    KovaMachineContext machineContext;
    uint64_t spDumpStart;  /* address of the first byte; 0 when there is none */
    uint32_t spDumpLength; /* bytes copied; 0 when there are none */
    uint32_t reserved4652;
    uint64_t word4656; /* not set */
    uint8_t spDump[1536];
    uint64_t pcDumpStart;
    uint32_t pcDumpLength;
    uint8_t pcDump[1024];
    uint32_t reserved7236;
    uint64_t lrDumpStart;
    uint32_t lrDumpLength;
    uint8_t lrDump[512];
    uint32_t reserved7764;
    uint64_t fpDumpStart;
    uint32_t fpDumpLength;
    uint8_t fpDump[512];
    uint32_t reserved8292;
    uint64_t word8296; /* not set */
    uint32_t word8304; /* not set */
    uint32_t reserved8308;
    uint32_t callStackDepth; /* 0 to 20 */
    uint32_t reserved8316;
    uint64_t callStackAddress[KOVA_CALL_STACK_MAX]; /* innermost first */
    char callStackSymbol[KOVA_CALL_STACK_MAX][KOVA_SYMBOL_TEXT_SIZE];
    uint8_t bytes9760[32]; /* not set */
    char platformName[64];
    char platformVersion[64];
    char text9920[32]; /* not set */
    uint8_t reserved9952[16];
} KovaExceptInfo;

#define KOVA_EXCEPT_AT(field, offset) \
    KOVA_STATIC_ASSERT(offsetof(KovaExceptInfo, field) == (offset), "file format: " #field)
KOVA_STATIC_ASSERT(sizeof(KovaRegisterBlock) == 280, "file format: registers");
KOVA_STATIC_ASSERT(sizeof(KovaMachineContext) == 4384, "file format: machine context");
KOVA_STATIC_ASSERT(sizeof(KovaExceptInfo) == 9968, "file format: record");
KOVA_EXCEPT_AT(time, 8);
KOVA_EXCEPT_AT(cpuTickHigh, 64);
KOVA_EXCEPT_AT(signalNumber, 72);
KOVA_EXCEPT_AT(signalName, 76);
KOVA_EXCEPT_AT(signalCode, 92);
KOVA_EXCEPT_AT(processName, 104);
KOVA_EXCEPT_AT(senderProcessId, 188);
KOVA_EXCEPT_AT(senderProcessName, 192);
KOVA_EXCEPT_AT(machineContext, 256);
KOVA_EXCEPT_AT(spDumpStart, 4640);
KOVA_EXCEPT_AT(spDumpLength, 4648);
KOVA_EXCEPT_AT(spDump, 4664);
KOVA_EXCEPT_AT(pcDumpStart, 6200);
KOVA_EXCEPT_AT(pcDumpLength, 6208);
KOVA_EXCEPT_AT(pcDump, 6212);
KOVA_EXCEPT_AT(lrDumpStart, 7240);
KOVA_EXCEPT_AT(lrDumpLength, 7248);
KOVA_EXCEPT_AT(lrDump, 7252);
KOVA_EXCEPT_AT(fpDumpStart, 7768);
KOVA_EXCEPT_AT(fpDumpLength, 7776);
KOVA_EXCEPT_AT(fpDump, 7780);
KOVA_EXCEPT_AT(word8296, 8296);
KOVA_EXCEPT_AT(callStackDepth, 8312);
KOVA_EXCEPT_AT(callStackAddress, 8320);
KOVA_EXCEPT_AT(callStackSymbol, 8480);
KOVA_EXCEPT_AT(bytes9760, 9760);
KOVA_EXCEPT_AT(platformName, 9792);
KOVA_EXCEPT_AT(platformVersion, 9856);
KOVA_EXCEPT_AT(text9920, 9920);
#undef KOVA_EXCEPT_AT

/**
 * An unwinder that a process registers instead of backtrace().
 *
 * Called in signal context. Fills at most maxDepth return addresses, innermost first, and stores their count.
 *
 * @param context  The signal's user context (ucontext_t), may be NULL.
 * @param maxDepth 20.
 * @param reserved Always 0.
 * @return 0 on success; anything else leaves only the pc in the record.
 */
typedef uint32_t (*KovaExceptCallStackHook)(void *context, uint32_t maxDepth, uint32_t reserved, uint64_t *addresses,
                                            uint32_t *depth);

/** @return Lowest bit set: the process is exiting abnormally. Called in signal context. */
typedef uint32_t (*KovaAbnormalExitQuery)(void);

KOVA_END_DECLS

#endif /* KOVA_EXCEPTION_RECORD_H */
