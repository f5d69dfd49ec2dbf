// The 68000 processor: the opcode table, the step, exception entry, the
// status-register rules, the condition tests and the flag routines.
//
// The processor state lives at the head of the engine record (d, a, usp,
// ssp, pc, vbr, sr, stopped, fault, cycles). Every opcode word maps straight
// to a handler in op_table; a handler receives the opcode word and fetches
// its own extension words from PC, which already points past the opcode.
#pragma once

#include <cstddef>
#include <cstdint>

#include "engine/engine.h"
#include "hardware/bus.h"

using op_handler = void (*)(kelva *k, uint16_t opcode);

// The process-wide table, filled once by kelva_global_init.
extern op_handler op_table[65536];

// Cycles added per step, by the low six bits of the opcode word read as an
// effective-address field. A coarse bound on work, not a timing model.
extern const uint8_t cpu_step_cost[64];

// Writes the specialised handlers (generated code). Called only by
// kelva_global_init.
void ops_register();

// Status-register bits.
constexpr uint16_t kSrC = 0x0001;
constexpr uint16_t kSrV = 0x0002;
constexpr uint16_t kSrZ = 0x0004;
constexpr uint16_t kSrN = 0x0008;
constexpr uint16_t kSrX = 0x0010;
constexpr uint16_t kSrS = 0x2000;
constexpr uint16_t kSrWriteMask = 0xF71F;   // bits a whole-SR write keeps

// Exception vectors the processor raises itself.
enum cpu_vector : int {
    VEC_ILLEGAL = 4,
    VEC_ZERO_DIVIDE = 5,
    VEC_CHK = 6,
    VEC_TRAPV = 7,
    VEC_PRIVILEGE = 8,
    VEC_LINE_F = 11,
    VEC_FORMAT = 14,
    VEC_TRAP0 = 32,
};

// One instruction: fetch at PC, step PC, run the handler, count the cost.
// The caller reads k->fault afterwards.
inline void cpu_step(kelva *k) {
    uint32_t opcode = read16(k, k->pc);
    k->pc += 2;
    op_table[opcode](k, uint16_t(opcode));
    k->cycles += cpu_step_cost[opcode & 63];
}

// Enters an exception: four-word frame (vector*4 lowest, then SR, then PC),
// supervisor mode, PC from the vector table; clears the fault code.
void exception(kelva *k, int vector);

// Whole-SR write: masks with 0xF71F and exchanges the stack pointers when S
// changes.
inline void set_sr(kelva *k, uint32_t value) {
    uint16_t v = uint16_t(value & kSrWriteMask);
    if ((v ^ k->sr) & kSrS) {
        if (v & kSrS) {
            k->usp = k->a[7];
            k->a[7] = k->ssp;
        } else {
            k->ssp = k->a[7];
            k->a[7] = k->usp;
        }
    }
    k->sr = v;
}

// Low byte of SR, all eight bits (the CCR forms are deliberately unmasked).
inline void set_ccr(kelva *k, uint32_t value) { k->sr = uint16_t((k->sr & 0xFF00) | (value & 0xFF)); }

// Condition numbers 0..15 (T, F, HI, LS, CC, CS, NE, EQ, VC, VS, PL, MI,
// GE, LT, GT, LE); 0 for anything above 15.
inline int test_cc(const kelva *k, int cc) {
    uint32_t sr = k->sr;
    uint32_t c = sr & 1, v = (sr >> 1) & 1, z = (sr >> 2) & 1, n = (sr >> 3) & 1;
    switch (cc) {
    case 0: return 1;
    case 1: return 0;
    case 2: return !c && !z;
    case 3: return c || z;
    case 4: return !c;
    case 5: return c;
    case 6: return !z;
    case 7: return z;
    case 8: return !v;
    case 9: return v;
    case 10: return !n;
    case 11: return n;
    case 12: return n == v;
    case 13: return n != v;
    case 14: return n == v && !z;
    case 15: return n != v || z;
    default: return 0;
    }
}

// Condition-code updates. X, N, Z, V, C live in SR bits 4..0.
inline void set_nzvc(kelva *k, uint32_t flags) { k->sr = uint16_t((k->sr & 0xFFF0) | flags); }
inline void set_xnzvc(kelva *k, uint32_t flags) { k->sr = uint16_t((k->sr & 0xFFE0) | flags); }

// Logical flags: N and Z from the value in the size, V = C = 0, X kept.
inline void set_logic_flags_b(kelva *k, uint32_t r) {
    set_nzvc(k, ((r >> 4) & kSrN) | ((r & 0xFF) ? 0 : kSrZ));
}
inline void set_logic_flags_w(kelva *k, uint32_t r) {
    set_nzvc(k, ((r >> 12) & kSrN) | ((r & 0xFFFF) ? 0 : kSrZ));
}
inline void set_logic_flags_l(kelva *k, uint32_t r) { set_nzvc(k, ((r >> 28) & kSrN) | (r ? 0 : kSrZ)); }

// The add/subtract/compare flag routines: d = destination, s = source
// (both already in the size), r = the raw result (sum or difference of the
// zero-extended operands, not truncated).
inline void set_add_flags_b(kelva *k, uint32_t d, uint32_t s, uint32_t r) {
    uint32_t rt = r & 0xFF;
    uint32_t f = ((rt >> 4) & kSrN) | (rt ? 0 : kSrZ) | ((((~(s ^ d)) & (d ^ rt)) >> 6) & kSrV);
    f |= ((r >> 8) & 1) * (kSrC | kSrX);
    set_xnzvc(k, f);
}
inline void set_add_flags_w(kelva *k, uint32_t d, uint32_t s, uint32_t r) {
    uint32_t rt = r & 0xFFFF;
    uint32_t f = ((rt >> 12) & kSrN) | (rt ? 0 : kSrZ) | ((((~(s ^ d)) & (d ^ rt)) >> 14) & kSrV);
    f |= ((r >> 16) & 1) * (kSrC | kSrX);
    set_xnzvc(k, f);
}
inline void set_sub_flags_b(kelva *k, uint32_t d, uint32_t s, uint32_t r) {
    uint32_t rt = r & 0xFF;
    uint32_t f = ((rt >> 4) & kSrN) | (rt ? 0 : kSrZ) | ((((s ^ d) & (d ^ rt)) >> 6) & kSrV);
    f |= uint32_t((d & 0xFF) < (s & 0xFF)) * (kSrC | kSrX);
    set_xnzvc(k, f);
}
inline void set_sub_flags_w(kelva *k, uint32_t d, uint32_t s, uint32_t r) {
    uint32_t rt = r & 0xFFFF;
    uint32_t f = ((rt >> 12) & kSrN) | (rt ? 0 : kSrZ) | ((((s ^ d) & (d ^ rt)) >> 14) & kSrV);
    f |= uint32_t((d & 0xFFFF) < (s & 0xFFFF)) * (kSrC | kSrX);
    set_xnzvc(k, f);
}
inline void set_cmp_flags_b(kelva *k, uint32_t d, uint32_t s, uint32_t r) {
    uint32_t rt = r & 0xFF;
    uint32_t f = ((rt >> 4) & kSrN) | (rt ? 0 : kSrZ) | ((((s ^ d) & (d ^ rt)) >> 6) & kSrV);
    f |= uint32_t((d & 0xFF) < (s & 0xFF)) * kSrC;
    set_nzvc(k, f);
}
inline void set_cmp_flags_w(kelva *k, uint32_t d, uint32_t s, uint32_t r) {
    uint32_t rt = r & 0xFFFF;
    uint32_t f = ((rt >> 12) & kSrN) | (rt ? 0 : kSrZ) | ((((s ^ d) & (d ^ rt)) >> 14) & kSrV);
    f |= uint32_t((d & 0xFFFF) < (s & 0xFFFF)) * kSrC;
    set_nzvc(k, f);
}
// Long forms, same formulas with sign bit 31 and a 33-bit carry.
inline void set_add_flags_l(kelva *k, uint32_t d, uint32_t s, uint32_t r) {
    uint32_t f = ((r >> 28) & kSrN) | (r ? 0 : kSrZ) | ((((~(s ^ d)) & (d ^ r)) >> 30) & kSrV);
    f |= uint32_t(r < d) * (kSrC | kSrX);
    set_xnzvc(k, f);
}
inline void set_sub_flags_l(kelva *k, uint32_t d, uint32_t s, uint32_t r) {
    uint32_t f = ((r >> 28) & kSrN) | (r ? 0 : kSrZ) | ((((s ^ d) & (d ^ r)) >> 30) & kSrV);
    f |= uint32_t(d < s) * (kSrC | kSrX);
    set_xnzvc(k, f);
}
inline void set_cmp_flags_l(kelva *k, uint32_t d, uint32_t s, uint32_t r) {
    uint32_t f = ((r >> 28) & kSrN) | (r ? 0 : kSrZ) | ((((s ^ d) & (d ^ r)) >> 30) & kSrV);
    f |= uint32_t(d < s) * kSrC;
    set_nzvc(k, f);
}

// Effective-address helpers for the generic handlers. Each advances PC past
// the extension words it consumes; a mode the helper does not accept raises
// vector 4 and yields 0.
uint32_t ea_full(kelva *k, uint32_t base, uint32_t ext);
uint32_t ea_an_idx(kelva *k, uint32_t reg);
uint32_t ea_pc_idx(kelva *k);
// Address of a memory operand of `size` bytes (1, 2, 4) for modes 2-6 and
// 7.0-7.3, stepping An for (An)+ and -(An).
uint32_t ea_mem_addr(kelva *k, uint32_t mode, uint32_t reg, uint32_t size);
uint32_t ea_addr_data_byte(kelva *k, uint16_t opcode);
uint32_t ea_load_w(kelva *k, uint16_t opcode);
uint32_t ea_addr_control(kelva *k, uint16_t opcode);

// Shift/rotate engine: size 0/1/2 = byte/word/long; type 0 arithmetic,
// 1 logical, 2 rotate through X, 3 rotate; left = 1 for left. Sets the
// condition codes and returns the result in the size.
uint32_t shift_compute(kelva *k, uint32_t value, uint32_t count, int size, int type, int left);

// Bit operation engine: op 0 test, 1 change, 2 clear, 3 set.
void op_bit(kelva *k, uint16_t opcode, uint32_t bit, int op);

// Operands of ADDX/SUBX/ABCD/SBCD (register or predecrement form) and the
// store of their result; `addr` is the destination address in memory form.
void addx_subx_operands(kelva *k, uint16_t opcode, uint32_t size, uint32_t *s, uint32_t *d, uint32_t *addr);
void addx_subx_store(kelva *k, uint16_t opcode, uint32_t size, uint32_t addr, uint32_t r);

// MOVEM engines.
void op_movem_to_mem(kelva *k, uint16_t opcode, int is_long);
void op_movem_from_mem(kelva *k, uint16_t opcode, int is_long);

// Host-call trap for line-A words (defined by the OS emulation).
void op_line_a(kelva *k, uint16_t opcode);

// Generic handlers.
void op_illegal(kelva *k, uint16_t opcode);
void op_line_f(kelva *k, uint16_t opcode);
void op_nop(kelva *k, uint16_t opcode);
void op_rte(kelva *k, uint16_t opcode);
void op_rtd(kelva *k, uint16_t opcode);
void op_rts(kelva *k, uint16_t opcode);
void op_rtr(kelva *k, uint16_t opcode);
void op_bcc(kelva *k, uint16_t opcode);
void op_cmpm(kelva *k, uint16_t opcode);
void op_addx(kelva *k, uint16_t opcode);
void op_subx(kelva *k, uint16_t opcode);
void op_abcd(kelva *k, uint16_t opcode);
void op_sbcd(kelva *k, uint16_t opcode);
void op_scc(kelva *k, uint16_t opcode);
void op_dbcc(kelva *k, uint16_t opcode);
void op_btst_dyn(kelva *k, uint16_t opcode);
void op_bchg_dyn(kelva *k, uint16_t opcode);
void op_bclr_dyn(kelva *k, uint16_t opcode);
void op_bset_dyn(kelva *k, uint16_t opcode);
void op_btst_stat(kelva *k, uint16_t opcode);
void op_bchg_stat(kelva *k, uint16_t opcode);
void op_bclr_stat(kelva *k, uint16_t opcode);
void op_bset_stat(kelva *k, uint16_t opcode);
void op_ext_w(kelva *k, uint16_t opcode);
void op_ext_l(kelva *k, uint16_t opcode);
void op_extb_l(kelva *k, uint16_t opcode);
void op_link_w(kelva *k, uint16_t opcode);
void op_link_l(kelva *k, uint16_t opcode);
void op_unlk(kelva *k, uint16_t opcode);
void op_pea(kelva *k, uint16_t opcode);
void op_jmp(kelva *k, uint16_t opcode);
void op_jsr(kelva *k, uint16_t opcode);
void op_swap(kelva *k, uint16_t opcode);
void op_lea(kelva *k, uint16_t opcode);
void op_exg_dn_dn(kelva *k, uint16_t opcode);
void op_exg_an_an(kelva *k, uint16_t opcode);
void op_exg_dn_an(kelva *k, uint16_t opcode);
void op_shift_dn(kelva *k, uint16_t opcode);
void op_shift_mem(kelva *k, uint16_t opcode);
void op_mulu_w(kelva *k, uint16_t opcode);
void op_muls_w(kelva *k, uint16_t opcode);
void op_divu_w(kelva *k, uint16_t opcode);
void op_divs_w(kelva *k, uint16_t opcode);
void op_movem_to_mem_w(kelva *k, uint16_t opcode);
void op_movem_to_mem_l(kelva *k, uint16_t opcode);
void op_movem_from_mem_w(kelva *k, uint16_t opcode);
void op_movem_from_mem_l(kelva *k, uint16_t opcode);
void op_move_to_sr(kelva *k, uint16_t opcode);
void op_move_from_sr(kelva *k, uint16_t opcode);
void op_move_to_ccr(kelva *k, uint16_t opcode);
void op_move_from_ccr(kelva *k, uint16_t opcode);
void op_move_an_to_usp(kelva *k, uint16_t opcode);
void op_move_usp_to_an(kelva *k, uint16_t opcode);
void op_trap(kelva *k, uint16_t opcode);
void op_trapv(kelva *k, uint16_t opcode);
void op_chk_w(kelva *k, uint16_t opcode);
void op_ori_to_ccr(kelva *k, uint16_t opcode);
void op_andi_to_ccr(kelva *k, uint16_t opcode);
void op_eori_to_ccr(kelva *k, uint16_t opcode);
void op_ori_to_sr(kelva *k, uint16_t opcode);
void op_andi_to_sr(kelva *k, uint16_t opcode);
void op_eori_to_sr(kelva *k, uint16_t opcode);
void op_tas(kelva *k, uint16_t opcode);
void op_reset(kelva *k, uint16_t opcode);
void op_stop(kelva *k, uint16_t opcode);
void op_moveq(kelva *k, uint16_t opcode);

// Instruction trace (disasm.cpp): one line for the instruction at PC on
// standard output; changes no processor state.
void trace_print_step(kelva *k);
// The same line into a buffer (at least 300 bytes for the whole line).
void trace_format_step(kelva *k, char *out, size_t capacity);
// Text of one instruction: "%s", "%-7s %s" or "%-7s %s,%s".
void da_emit(char *out, const char *mnemonic, const char *op1, const char *op2);
// Disassembles the instruction at `pc` into `out` (at least 96 bytes);
// returns its length in bytes (2 when nothing beyond the opcode was used).
uint32_t da_disassemble(kelva *k, uint32_t pc, char *out);
