// Shifts and rotates, bit operations, 16-bit multiply and divide, CHK and
// MOVEM.
#include "cpu/cpu.h"
#include "cpu/ops_impl.h"

using namespace m68k;

// Every count 0..63 gives the exact bit-serial result; the arithmetic below
// works in 64 bits so that counts at or past the width need no special
// shift behaviour of the host.
uint32_t shift_compute(kelva *k, uint32_t value, uint32_t count, int size, int type, int left) {
    const uint32_t width = 8u << size;
    const uint64_t mask = (uint64_t(1) << width) - 1;
    const uint64_t v = value & mask;
    const uint32_t x_in = (k->sr >> 4) & 1;
    uint64_t r = v;
    uint32_t c = 0, x = x_in, vflag = 0;

    if (count == 0) {
        if (type == 2) c = x_in;   // ROXL/ROXR with count 0: C = X
    } else {
        switch (type) {
        case 0:   // ASL, ASR
            if (left) {
                r = count >= width ? 0 : (v << count) & mask;
                c = count <= width ? uint32_t(v >> (width - count)) & 1 : 0;
                if (count >= width) {
                    vflag = v != 0;
                } else {
                    uint64_t top = v >> (width - 1 - count);   // the count + 1 top bits
                    uint64_t ones = (uint64_t(1) << (count + 1)) - 1;
                    vflag = top != 0 && top != ones;
                }
            } else {
                uint32_t sign = uint32_t(v >> (width - 1)) & 1;
                if (count >= width) {
                    r = sign ? mask : 0;
                    c = sign;
                } else {
                    uint64_t ext = sign ? (v | ~mask) : v;
                    r = (ext >> count) & mask;
                    c = uint32_t(v >> (count - 1)) & 1;
                }
            }
            x = c;
            break;
        case 1:   // LSL, LSR
            if (left) {
                r = count >= width ? 0 : (v << count) & mask;
                c = count <= width ? uint32_t(v >> (width - count)) & 1 : 0;
            } else {
                r = count >= width ? 0 : v >> count;
                c = count <= width ? uint32_t(v >> (count - 1)) & 1 : 0;
            }
            x = c;
            break;
        case 2: {   // ROXL, ROXR: a width + 1 bit rotation through X
            uint64_t full = v | uint64_t(x_in) << width;
            uint32_t n = count % (width + 1);
            if (!left) n = (width + 1 - n) % (width + 1);
            uint64_t fmask = (mask << 1) | 1;
            if (n) full = ((full << n) | (full >> (width + 1 - n))) & fmask;
            r = full & mask;
            x = c = uint32_t(full >> width) & 1;
            break;
        }
        default: {   // ROL, ROR
            uint32_t n = count % width;
            if (left) {
                if (n) r = ((v << n) | (v >> (width - n))) & mask;
                c = uint32_t(r) & 1;
            } else {
                if (n) r = ((v >> n) | (v << (width - n))) & mask;
                c = uint32_t(r >> (width - 1)) & 1;
            }
            break;
        }
        }
    }

    uint32_t f = c ? kSrC : 0;
    if (vflag) f |= kSrV;
    if (r == 0) f |= kSrZ;
    if ((r >> (width - 1)) & 1) f |= kSrN;
    if (x) f |= kSrX;
    k->sr = uint16_t((k->sr & 0xFFE0) | f);
    return uint32_t(r);
}

void op_shift_dn(kelva *k, uint16_t op) {
    int size = (op >> 6) & 3;
    int type = (op >> 3) & 3;
    int left = (op >> 8) & 1;
    uint32_t reg = op & 7;
    uint32_t cnt = (op >> 9) & 7;
    uint32_t count = (op & 0x20) ? (k->d[cnt] & 63) : (cnt ? cnt : 8);
    uint32_t m = size == 0 ? 0xFF : size == 1 ? 0xFFFF : 0xFFFFFFFF;
    uint32_t r = shift_compute(k, k->d[reg] & m, count, size, type, left);
    k->d[reg] = (k->d[reg] & ~m) | (r & m);
}

void op_shift_mem(kelva *k, uint16_t op) {
    uint32_t mode = (op >> 3) & 7, reg = op & 7;
    if (mode < 2 || (mode == 7 && reg > 1)) {
        exception(k, VEC_ILLEGAL);
        return;
    }
    uint32_t a = ea_mem_addr(k, mode, reg, 2);
    uint32_t v = read16(k, a);
    write16(k, a, shift_compute(k, v, 1, 1, (op >> 9) & 3, (op >> 8) & 1));
}

void op_bit(kelva *k, uint16_t op, uint32_t bit, int kind) {
    uint32_t mode = (op >> 3) & 7, reg = op & 7;
    if (mode == 0) {
        uint32_t m = 1u << (bit & 31);
        uint32_t v = k->d[reg];
        k->sr = uint16_t((k->sr & ~kSrZ) | ((v & m) ? 0 : kSrZ));
        if (kind == 1) k->d[reg] = v ^ m;
        else if (kind == 2) k->d[reg] = v & ~m;
        else if (kind == 3) k->d[reg] = v | m;
        return;
    }
    uint32_t a = ea_addr_data_byte(k, op);
    if (k->fault) return;
    uint32_t m = 1u << (bit & 7);
    uint32_t v = read8(k, a);
    k->sr = uint16_t((k->sr & ~kSrZ) | ((v & m) ? 0 : kSrZ));
    if (kind == 1) write8(k, a, v ^ m);
    else if (kind == 2) write8(k, a, v & ~m);
    else if (kind == 3) write8(k, a, v | m);
}

// BTST Dn,#data tests the immediate byte.
void op_btst_dyn(kelva *k, uint16_t op) {
    uint32_t bit = k->d[(op >> 9) & 7];
    if ((op & 0x3F) == 0x3C) {
        uint32_t v = fetch16(k) & 0xFF;
        k->sr = uint16_t((k->sr & ~kSrZ) | ((v >> (bit & 7)) & 1 ? 0 : kSrZ));
        return;
    }
    op_bit(k, op, bit, 0);
}
void op_bchg_dyn(kelva *k, uint16_t op) { op_bit(k, op, k->d[(op >> 9) & 7], 1); }
void op_bclr_dyn(kelva *k, uint16_t op) { op_bit(k, op, k->d[(op >> 9) & 7], 2); }
void op_bset_dyn(kelva *k, uint16_t op) { op_bit(k, op, k->d[(op >> 9) & 7], 3); }
void op_btst_stat(kelva *k, uint16_t op) { op_bit(k, op, fetch16(k) & 0xFF, 0); }
void op_bchg_stat(kelva *k, uint16_t op) { op_bit(k, op, fetch16(k) & 0xFF, 1); }
void op_bclr_stat(kelva *k, uint16_t op) { op_bit(k, op, fetch16(k) & 0xFF, 2); }
void op_bset_stat(kelva *k, uint16_t op) { op_bit(k, op, fetch16(k) & 0xFF, 3); }

void op_mulu_w(kelva *k, uint16_t op) {
    uint32_t s = ea_load_w(k, op);
    uint32_t r = (op >> 9) & 7;
    uint32_t p = s * (k->d[r] & 0xFFFF);
    k->d[r] = p;
    set_logic_flags_l(k, p);
}

void op_muls_w(kelva *k, uint16_t op) {
    int32_t s = int16_t(ea_load_w(k, op));
    uint32_t r = (op >> 9) & 7;
    uint32_t p = uint32_t(s * int32_t(int16_t(k->d[r])));
    k->d[r] = p;
    set_logic_flags_l(k, p);
}

void op_divu_w(kelva *k, uint16_t op) {
    uint32_t divisor = ea_load_w(k, op);
    if (divisor == 0) {
        exception(k, VEC_ZERO_DIVIDE);
        return;
    }
    uint32_t r = (op >> 9) & 7;
    uint32_t q = k->d[r] / divisor, rem = k->d[r] % divisor;
    if (q > 0xFFFF) {
        k->sr |= kSrV;
        return;
    }
    k->d[r] = rem << 16 | q;
    set_nzvc(k, ((q >> 12) & kSrN) | (q ? 0 : kSrZ));
}

// Division in 64 bits: 0x80000000 / -1 is an ordinary overflow here.
void op_divs_w(kelva *k, uint16_t op) {
    int64_t divisor = int16_t(ea_load_w(k, op));
    if (divisor == 0) {
        exception(k, VEC_ZERO_DIVIDE);
        return;
    }
    uint32_t r = (op >> 9) & 7;
    int64_t dividend = int32_t(k->d[r]);
    int64_t q = dividend / divisor, rem = dividend % divisor;
    if (q < -32768 || q > 32767) {
        k->sr |= kSrV;
        return;
    }
    uint32_t uq = uint32_t(q) & 0xFFFF;
    k->d[r] = (uint32_t(rem) & 0xFFFF) << 16 | uq;
    set_nzvc(k, ((uq >> 12) & kSrN) | (uq ? 0 : kSrZ));
}

void op_chk_w(kelva *k, uint16_t op) {
    int32_t bound = int16_t(ea_load_w(k, op));
    int32_t value = int16_t(k->d[(op >> 9) & 7]);
    if (value < 0) {
        k->sr |= kSrN;
        exception(k, VEC_CHK);
    } else if (value > bound) {
        k->sr &= ~kSrN;
        exception(k, VEC_CHK);
    }
}

namespace {

inline uint32_t &movem_reg(kelva *k, int i) { return i < 8 ? k->d[i] : k->a[i - 8]; }

}  // namespace

void op_movem_to_mem(kelva *k, uint16_t op, int is_long) {
    uint32_t mask = fetch16(k);
    uint32_t mode = (op >> 3) & 7, reg = op & 7;
    uint32_t size = is_long ? 4 : 2;
    if (mode == 4) {
        // Predecrement: bit 0 = A7 ... bit 15 = D0; An gets the final address.
        uint32_t addr = k->a[reg];
        for (int i = 0; i < 16; i++) {
            if (!(mask >> i & 1)) continue;
            addr -= size;
            uint32_t v = movem_reg(k, 15 - i);
            if (is_long) write32(k, addr, v);
            else write16(k, addr, v);
        }
        k->a[reg] = addr;
        return;
    }
    uint32_t addr = ea_mem_addr(k, mode, reg, size);
    for (int i = 0; i < 16; i++) {
        if (!(mask >> i & 1)) continue;
        uint32_t v = movem_reg(k, i);
        if (is_long) write32(k, addr, v);
        else write16(k, addr, v);
        addr += size;
    }
}

void op_movem_from_mem(kelva *k, uint16_t op, int is_long) {
    uint32_t mask = fetch16(k);
    uint32_t mode = (op >> 3) & 7, reg = op & 7;
    uint32_t size = is_long ? 4 : 2;
    uint32_t addr = mode == 3 ? k->a[reg] : ea_mem_addr(k, mode, reg, size);
    for (int i = 0; i < 16; i++) {
        if (!(mask >> i & 1)) continue;
        uint32_t v = is_long ? read32(k, addr) : uint32_t(int32_t(int16_t(read16(k, addr))));
        movem_reg(k, i) = v;
        addr += size;
    }
    if (mode == 3) k->a[reg] = addr;
}

void op_movem_to_mem_w(kelva *k, uint16_t op) { op_movem_to_mem(k, op, 0); }
void op_movem_to_mem_l(kelva *k, uint16_t op) { op_movem_to_mem(k, op, 1); }
void op_movem_from_mem_w(kelva *k, uint16_t op) { op_movem_from_mem(k, op, 0); }
void op_movem_from_mem_l(kelva *k, uint16_t op) { op_movem_from_mem(k, op, 1); }
