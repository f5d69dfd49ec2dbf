// The engine's floating-point mode. The mixer's filters decay towards zero
// through denormal numbers once a channel falls silent, and x86 processors
// take a slow path for every operation on a denormal: a render on a thread
// in the default mode runs many times slower. So every exported entry point
// that mixes or measures switches the calling thread to flush-to-zero and
// denormals-are-zero for its own duration and puts the caller's mode back
// on return, whatever the host did or did not set.
#pragma once

#include <cstdint>
#if defined(__x86_64__) || defined(__i386__)
#include <xmmintrin.h>
#define KELVA_FP_MXCSR 1
#endif

// MXCSR bits: FTZ (15) flushes denormal results to zero, DAZ (6) reads
// denormal operands as zero.
constexpr uint32_t kMxcsrFtzDaz = 0x8040;

// Switches the calling thread to flush-to-zero and denormals-are-zero and
// returns the mode it had, for fp_mode_leave.
inline uint32_t fp_mode_enter() {
#ifdef KELVA_FP_MXCSR
    uint32_t saved = _mm_getcsr();
    _mm_setcsr(saved | kMxcsrFtzDaz);
    return saved;
#else
    return 0;
#endif
}

// Puts back the whole control and status register as fp_mode_enter found
// it: the caller sees neither the engine's mode nor flags raised under it.
inline void fp_mode_leave(uint32_t saved) {
#ifdef KELVA_FP_MXCSR
    _mm_setcsr(saved);
#else
    (void)saved;
#endif
}
