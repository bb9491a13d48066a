// Room at the start of a function for the platform's hot-patch service to write a jump into.
//
//     uint32_t KovaGetOOMThreshold(void) {
//         KOVA_LANDING_PAD();
//
// Four one-instruction no-operations before the first statement of the body. On x86-64 each has five bytes, so that a
// direct jump replaces exactly one of them. A function with a pad is called through its exported name, so that a patch
// reaches every caller, and must be neither inlined nor folded with its like: define it KOVA_PATCHABLE.
#pragma once

#if defined(__x86_64__)
// The assembler would choose a shorter form by itself: nopl 0x0(%rax,%rax,1) byte by byte.
#define KOVA_ONE_NOP ".byte 0x0f, 0x1f, 0x44, 0x00, 0x00\n\t"
#else
#define KOVA_ONE_NOP "nop\n\t"
#endif

// The memory clobber keeps the pad in front of what the body loads, stores and calls.
#define KOVA_LANDING_PAD() __asm__ volatile(KOVA_ONE_NOP KOVA_ONE_NOP KOVA_ONE_NOP KOVA_ONE_NOP ::: "memory")

#if defined(__clang__)
#define KOVA_PATCHABLE __attribute__((noinline))
#else
#define KOVA_PATCHABLE __attribute__((noinline, noclone, no_icf))
#endif
