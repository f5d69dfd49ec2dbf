// Operand access and the semantics of the specialised instruction families,
// written once as templates over size and addressing mode. The generated
// handler files instantiate them into named functions
// (op_<mnemonic>_<size>_<source>_<destination>), so no mode field is decoded
// at run time: register numbers come from the opcode word, everything else
// is fixed at compile time.
#pragma once

#include <cstdint>

#include "cpu/cpu.h"

namespace m68k {

// Addressing modes, in the order of the handler-name words.
enum ea_mode : int { DN, AN, AI, AINC, ADEC, AD16, AIDX, ABSW, ABSL, PCD16, PCIDX, IMM };

// Operation kinds shared by the binary families.
enum alu_op : int { OP_ADD, OP_SUB, OP_AND, OP_OR, OP_EOR, OP_CMP };
enum unary_op : int { OP_NEGX, OP_CLR, OP_NEG, OP_NOT, OP_TST };

template <int SZ>
constexpr uint32_t size_mask = SZ == 1 ? 0xFFu : SZ == 2 ? 0xFFFFu : 0xFFFFFFFFu;
template <int SZ>
constexpr uint32_t sign_bit = SZ == 1 ? 0x80u : SZ == 2 ? 0x8000u : 0x80000000u;

inline uint32_t fetch16(kelva *k) {
    uint32_t v = read16(k, k->pc);
    k->pc += 2;
    return v;
}
inline uint32_t fetch32(kelva *k) {
    uint32_t v = read32(k, k->pc);
    k->pc += 4;
    return v;
}

template <int SZ>
inline uint32_t mem_read(kelva *k, uint32_t a) {
    if constexpr (SZ == 1) return read8(k, a);
    else if constexpr (SZ == 2) return read16(k, a);
    else return read32(k, a);
}
template <int SZ>
inline void mem_write(kelva *k, uint32_t a, uint32_t v) {
    if constexpr (SZ == 1) write8(k, a, v);
    else if constexpr (SZ == 2) write16(k, a, v);
    else write32(k, a, v);
}

// Immediate operand: a byte or word takes one word, a long two.
template <int SZ>
inline uint32_t fetch_imm(kelva *k) {
    if constexpr (SZ == 4) return fetch32(k);
    else return fetch16(k) & size_mask<SZ>;
}

// Address-register step for (An)+ and -(An): byte steps on A7 are 2.
template <int SZ>
inline uint32_t an_step(uint32_t reg) {
    if constexpr (SZ == 1) return reg == 7 ? 2 : 1;
    else return SZ;
}

// Brief index extension word (with scale); full format out of line.
inline uint32_t index_value(const kelva *k, uint32_t ext) {
    uint32_t reg = (ext >> 12) & 15;   // 0-7 = Dn, 8-15 = An
    uint32_t x = reg < 8 ? k->d[reg] : k->a[reg - 8];
    if (!(ext & 0x0800)) x = uint32_t(int32_t(int16_t(x)));
    return x << ((ext >> 9) & 3);
}
inline uint32_t indexed(kelva *k, uint32_t base) {
    uint32_t ext = fetch16(k);
    if (__builtin_expect(ext & 0x0100, 0)) return ea_full(k, base, ext);
    return base + uint32_t(int32_t(int8_t(ext))) + index_value(k, ext);
}

// Address of a memory operand. Steps An for (An)+ and -(An).
template <int M, int SZ>
inline uint32_t ea_addr(kelva *k, uint32_t reg) {
    if constexpr (M == AI) {
        return k->a[reg];
    } else if constexpr (M == AINC) {
        uint32_t a = k->a[reg];
        k->a[reg] = a + an_step<SZ>(reg);
        return a;
    } else if constexpr (M == ADEC) {
        uint32_t a = k->a[reg] - an_step<SZ>(reg);
        k->a[reg] = a;
        return a;
    } else if constexpr (M == AD16) {
        uint32_t d = uint32_t(int32_t(int16_t(fetch16(k))));
        return k->a[reg] + d;
    } else if constexpr (M == AIDX) {
        return indexed(k, k->a[reg]);
    } else if constexpr (M == ABSW) {
        return uint32_t(int32_t(int16_t(fetch16(k))));
    } else if constexpr (M == ABSL) {
        return fetch32(k);
    } else if constexpr (M == PCD16) {
        uint32_t base = k->pc;
        return base + uint32_t(int32_t(int16_t(fetch16(k))));
    } else if constexpr (M == PCIDX) {
        return indexed(k, k->pc);
    } else {
        static_assert(M == AI, "not a memory mode");
        return 0;
    }
}

// Reads an operand of any mode (An gives its low part, #data the immediate).
template <int M, int SZ>
inline uint32_t ea_get(kelva *k, uint32_t reg) {
    if constexpr (M == DN) return k->d[reg] & size_mask<SZ>;
    else if constexpr (M == AN) return k->a[reg] & size_mask<SZ>;
    else if constexpr (M == IMM) return fetch_imm<SZ>(k);
    else return mem_read<SZ>(k, ea_addr<M, SZ>(k, reg));
}

// Replaces the low byte, low word or whole data register.
template <int SZ>
inline void dn_set(kelva *k, uint32_t reg, uint32_t v) {
    if constexpr (SZ == 4) k->d[reg] = v;
    else k->d[reg] = (k->d[reg] & ~size_mask<SZ>) | (v & size_mask<SZ>);
}

template <int SZ>
inline void logic_flags(kelva *k, uint32_t r) {
    if constexpr (SZ == 1) set_logic_flags_b(k, r);
    else if constexpr (SZ == 2) set_logic_flags_w(k, r);
    else set_logic_flags_l(k, r);
}

// One binary operation with its flags: d op s. Returns the result in the size.
template <int OP, int SZ>
inline uint32_t alu(kelva *k, uint32_t d, uint32_t s) {
    if constexpr (OP == OP_ADD) {
        uint32_t r = d + s;
        if constexpr (SZ == 1) set_add_flags_b(k, d, s, r);
        else if constexpr (SZ == 2) set_add_flags_w(k, d, s, r);
        else set_add_flags_l(k, d, s, r);
        return r & size_mask<SZ>;
    } else if constexpr (OP == OP_SUB || OP == OP_CMP) {
        uint32_t r = d - s;
        if constexpr (OP == OP_SUB) {
            if constexpr (SZ == 1) set_sub_flags_b(k, d, s, r);
            else if constexpr (SZ == 2) set_sub_flags_w(k, d, s, r);
            else set_sub_flags_l(k, d, s, r);
        } else {
            if constexpr (SZ == 1) set_cmp_flags_b(k, d, s, r);
            else if constexpr (SZ == 2) set_cmp_flags_w(k, d, s, r);
            else set_cmp_flags_l(k, d, s, r);
        }
        return r & size_mask<SZ>;
    } else {
        uint32_t r = OP == OP_AND ? (d & s) : OP == OP_OR ? (d | s) : (d ^ s);
        logic_flags<SZ>(k, r);
        return r;
    }
}

// MOVE and MOVEA: source first, then the destination's extension words.
template <int SZ, int S, int D>
inline void h_move(kelva *k, uint16_t op) {
    uint32_t v = ea_get<S, SZ>(k, op & 7);
    uint32_t dr = (op >> 9) & 7;
    if constexpr (D == AN) {
        k->a[dr] = SZ == 2 ? uint32_t(int32_t(int16_t(v))) : v;
    } else {
        if constexpr (D == DN) dn_set<SZ>(k, dr, v);
        else mem_write<SZ>(k, ea_addr<D, SZ>(k, dr), v);
        logic_flags<SZ>(k, v);
    }
}

// ADD/SUB/AND/OR/CMP <ea>,Dn.
template <int OP, int SZ, int S>
inline void h_alu_to_dn(kelva *k, uint16_t op) {
    uint32_t s = ea_get<S, SZ>(k, op & 7);
    uint32_t dr = (op >> 9) & 7;
    uint32_t r = alu<OP, SZ>(k, k->d[dr] & size_mask<SZ>, s);
    if constexpr (OP != OP_CMP) dn_set<SZ>(k, dr, r);
}

// ADD/SUB/AND/OR/EOR Dn,<ea>.
template <int OP, int SZ, int D>
inline void h_alu_from_dn(kelva *k, uint16_t op) {
    uint32_t s = k->d[(op >> 9) & 7] & size_mask<SZ>;
    if constexpr (D == DN) {
        uint32_t dr = op & 7;
        dn_set<SZ>(k, dr, alu<OP, SZ>(k, k->d[dr] & size_mask<SZ>, s));
    } else {
        uint32_t a = ea_addr<D, SZ>(k, op & 7);
        uint32_t d = mem_read<SZ>(k, a);
        mem_write<SZ>(k, a, alu<OP, SZ>(k, d, s));
    }
}

// ORI/ANDI/SUBI/ADDI/EORI/CMPI #data,<ea>: the immediate comes first.
template <int OP, int SZ, int D>
inline void h_alu_imm(kelva *k, uint16_t op) {
    uint32_t s = fetch_imm<SZ>(k);
    if constexpr (D == DN) {
        uint32_t dr = op & 7;
        uint32_t r = alu<OP, SZ>(k, k->d[dr] & size_mask<SZ>, s);
        if constexpr (OP != OP_CMP) dn_set<SZ>(k, dr, r);
    } else {
        uint32_t a = ea_addr<D, SZ>(k, op & 7);
        uint32_t d = mem_read<SZ>(k, a);
        uint32_t r = alu<OP, SZ>(k, d, s);
        if constexpr (OP != OP_CMP) mem_write<SZ>(k, a, r);
    }
}

// ADDQ/SUBQ #1-8,<ea>; on An the whole register changes and no flag.
template <int OP, int SZ, int D>
inline void h_quick(kelva *k, uint16_t op) {
    uint32_t s = ((op >> 9) - 1) & 7;
    s += 1;
    if constexpr (D == AN) {
        uint32_t r = op & 7;
        k->a[r] = OP == OP_ADD ? k->a[r] + s : k->a[r] - s;
    } else if constexpr (D == DN) {
        uint32_t dr = op & 7;
        dn_set<SZ>(k, dr, alu<OP, SZ>(k, k->d[dr] & size_mask<SZ>, s));
    } else {
        uint32_t a = ea_addr<D, SZ>(k, op & 7);
        uint32_t d = mem_read<SZ>(k, a);
        mem_write<SZ>(k, a, alu<OP, SZ>(k, d, s));
    }
}

// ADDA/SUBA/CMPA <ea>,An: a word source is sign-extended; whole register.
template <int OP, int SZ, int S>
inline void h_addr(kelva *k, uint16_t op) {
    uint32_t s = ea_get<S, SZ>(k, op & 7);
    if constexpr (SZ == 2) s = uint32_t(int32_t(int16_t(s)));
    uint32_t ar = (op >> 9) & 7;
    if constexpr (OP == OP_ADD) k->a[ar] += s;
    else if constexpr (OP == OP_SUB) k->a[ar] -= s;
    else {
        uint32_t d = k->a[ar];
        set_cmp_flags_l(k, d, s, d - s);
    }
}

// NEGX with this system's fixed flag rule (see the handler comment).
template <int SZ>
inline uint32_t negx_value(kelva *k, uint32_t v) {
    uint32_t t = v + ((k->sr >> 4) & 1);
    uint32_t r = (0u - t) & size_mask<SZ>;
    uint32_t f;
    if (r & sign_bit<SZ>) {
        f = kSrN | kSrC | kSrX;
        if (t & r & sign_bit<SZ>) f |= kSrV;
    } else if (r == 0) {
        f = kSrZ;
    } else {
        f = kSrC | kSrX;
    }
    set_xnzvc(k, f);
    return r;
}

// NEGX/CLR/NEG/NOT/TST <ea>.
template <int OP, int SZ>
inline uint32_t unary(kelva *k, uint32_t v) {
    if constexpr (OP == OP_NEGX) {
        return negx_value<SZ>(k, v);
    } else if constexpr (OP == OP_CLR) {
        set_nzvc(k, kSrZ);
        return 0;
    } else if constexpr (OP == OP_NEG) {
        uint32_t r = 0u - v;
        if constexpr (SZ == 1) set_sub_flags_b(k, 0, v, r);
        else if constexpr (SZ == 2) set_sub_flags_w(k, 0, v, r);
        else set_sub_flags_l(k, 0, v, r);
        return r & size_mask<SZ>;
    } else if constexpr (OP == OP_NOT) {
        uint32_t r = ~v & size_mask<SZ>;
        logic_flags<SZ>(k, r);
        return r;
    } else {
        logic_flags<SZ>(k, v);
        return v;
    }
}

template <int OP, int SZ, int D>
inline void h_unary(kelva *k, uint16_t op) {
    uint32_t reg = op & 7;
    if constexpr (D == DN) {
        uint32_t r = unary<OP, SZ>(k, k->d[reg] & size_mask<SZ>);
        if constexpr (OP != OP_TST) dn_set<SZ>(k, reg, r);
    } else {
        uint32_t a = ea_addr<D, SZ>(k, reg);
        uint32_t v = mem_read<SZ>(k, a);   // CLR reads too, for register side effects
        uint32_t r = unary<OP, SZ>(k, v);
        if constexpr (OP != OP_TST) mem_write<SZ>(k, a, r);
    }
}

}  // namespace m68k
