/* kp_math.h - arithmetic for players on the plain 68000.
 *
 * The 68000 multiplies and divides only 16-bit values (mulu.w, muls.w,
 * divu.w), and kelva's players are linked without libgcc, whose m68k build
 * assumes a 68020. C code must therefore never multiply or divide two
 * 32-bit values; these helpers give the products and quotients the players
 * need in one or two instructions. */
#ifndef KP_MATH_H
#define KP_MATH_H

#include <stdint.h>

/* 16 x 16 -> 32 bit unsigned product (mulu.w). */
static inline uint32_t kp_mulu16(uint16_t a, uint16_t b) {
    uint32_t r = a;
    __asm__("mulu.w %1,%0" : "+d"(r) : "dmi"(b));
    return r;
}

/* 16 x 16 -> 32 bit signed product (muls.w). */
static inline int32_t kp_muls16(int16_t a, int16_t b) {
    int32_t r = a;
    __asm__("muls.w %1,%0" : "+d"(r) : "dmi"(b));
    return r;
}

/* 32 / 16 -> 16 bit unsigned quotient (divu.w). The caller keeps the
 * quotient below 65536 and b above 0. */
static inline uint16_t kp_divu16(uint32_t a, uint16_t b) {
    __asm__("divu.w %1,%0" : "+d"(a) : "dmi"(b));
    return (uint16_t)a;
}

/* 32 / 16 -> 32 bit unsigned quotient, by long division in two divu.w
 * steps: the high word first, then the remainder with the low word (whose
 * quotient always fits 16 bits because the remainder is below b). b = 0
 * gives 0xFFFFFFFF instead of a division-by-zero exception. */
static inline uint32_t kp_divu32(uint32_t a, uint16_t b) {
    if (b == 0) return 0xFFFFFFFFu;
    uint32_t hi = a >> 16;
    __asm__("divu.w %1,%0" : "+d"(hi) : "dmi"(b));   /* remainder:quotient */
    uint32_t q_hi = hi & 0xFFFF;
    uint32_t lo = (hi & 0xFFFF0000u) | (a & 0xFFFF);
    __asm__("divu.w %1,%0" : "+d"(lo) : "dmi"(b));
    return (q_hi << 16) | (lo & 0xFFFF);
}

#endif
