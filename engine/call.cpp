// The routine caller: every piece of player code runs as a subroutine call
// from the host. The processor is stepped until the routine's final RTS lands
// on the return sentinel, it faults, its PC leaves the areas code may run in,
// or the step budget is spent.
//
// This loop runs every instruction a player executes, so the per-step work
// is kept to: sentinel compare, one test of the debug controls, one range
// compare for the common case (PC in the player's hunks), the ring store,
// the step itself and the fault test.
#include <cstdio>
#include <cstring>

#include "cpu/cpu.h"
#include "engine/call.h"
#include "engine/engine.h"

namespace {

// Areas the PC may be in: player hunks, module and companion files, the
// AllocMem slab, and the library tables, trap stubs and player globals.
inline bool pc_allowed(uint32_t pc) {
    return pc - 0x200000u < 0x100000u || pc - 0x010000u < 0xF0000u || pc - 0x400000u < 0x400000u ||
           pc - 0xF7F000u < 0x21000u;
}

[[gnu::noinline, gnu::cold]] void report_range_fault(kelva *k, uint32_t routine, uint32_t i) {
    fprintf(stderr, "deli_call: PC=%08x out of range (routine=%08x i=%u)\n", k->pc, routine, i);
    fprintf(stderr, "  recent PCs:");
    uint32_t printed = 0;
    for (uint32_t j = 0; j < 256; j++) {
        uint32_t pc = k->recent_pc[uint8_t(k->recent_idx + j)];   // oldest first
        if (!pc) continue;
        if (printed % 8 == 0) fprintf(stderr, "\n    ");
        fprintf(stderr, " %08x", pc);
        printed++;
    }
    fprintf(stderr, "\n");
    fprintf(stderr, "  D0..D7: %08x %08x %08x %08x %08x %08x %08x %08x\n", k->d[0], k->d[1], k->d[2], k->d[3],
            k->d[4], k->d[5], k->d[6], k->d[7]);
    fprintf(stderr, "  A0..A7: %08x %08x %08x %08x %08x %08x %08x %08x SR=%04x\n", k->a[0], k->a[1], k->a[2],
            k->a[3], k->a[4], k->a[5], k->a[6], k->a[7], k->sr);
}

// The break address and the instruction trace. Returns 1 when the break
// address was hit (the call then ends as if the routine had returned).
[[gnu::noinline]] int debug_step(kelva *k, uint32_t routine, uint32_t i) {
    uint32_t pc = k->pc;
    if (k->break_addr && k->break_addr == pc) {
        k->break_hit = 1;
        fprintf(stderr, "trace-pc: break at %08x (routine=%08x i=%u)\n", pc, routine, i);
        trace_print_step(k);
        return 1;
    }
    if (k->trace_enable && (k->trace_hi == 0 || (k->trace_lo <= pc && pc < k->trace_hi)) &&
        (k->trace_limit == 0 || k->trace_steps < k->trace_limit)) {
        trace_print_step(k);
        k->trace_steps++;
    }
    return 0;
}

// Registers of the standard call (A5, A6, A7 with the sentinel as return
// address, SR, fault code); PC is set by the caller.
void setup_call(kelva *k) {
    k->a[5] = kGlobals;
    k->a[6] = kExecBase;
    k->a[7] = kStackTop;
    ram_put32(k, kStackTop, kReturnSentinel);
    k->sr = 0x2000;
    k->fault = 0;
}

}  // namespace

uint32_t deli_run_loop(kelva *k, uint32_t routine) {
    memset(k->recent_pc, 0, sizeof k->recent_pc);
    k->recent_idx = 0;
    for (uint32_t i = 0;;) {
        uint32_t pc = k->pc;
        if (pc == kReturnSentinel) return k->d[0];
        if (__builtin_expect((k->break_addr | k->trace_enable) != 0, 0) && debug_step(k, routine, i))
            return k->d[0];
        if (__builtin_expect(!pc_allowed(pc), 0)) {
            report_range_fault(k, routine, i);
            return kCallOutOfRange;
        }
        k->recent_pc[k->recent_idx] = pc;
        cpu_step(k);
        if (__builtin_expect(k->fault != 0, 0)) {
            fprintf(stderr, "deli_call: fault %u at PC=%08x (routine=%08x)\n", k->fault, k->pc, routine);
            return kCallFault;
        }
        k->recent_idx++;   // wraps at 256
        if (__builtin_expect(++i == kStepBudget, 0)) {
            fprintf(stderr, "deli_call: cycle budget exhausted (routine=%08x last PC=%08x)\n", routine, k->pc);
            return kCallFault;
        }
    }
}

uint32_t deli_run_handler(kelva *k, uint32_t is) {
    uint32_t code = ram_get32(k, is + 18);
    if (code == 0) return 0;
    k->a[1] = ram_get32(k, is + 14);
    k->a[0] = 0x00DFF000;
    setup_call(k);
    k->pc = code;
    return deli_run_loop(k, code);
}

uint32_t deli_call(kelva *k, uint32_t routine) {
    setup_call(k);
    k->pc = routine;
    return deli_run_loop(k, routine);
}
