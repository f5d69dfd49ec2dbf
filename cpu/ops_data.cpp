// Generic data handlers: MOVEQ, CMPM, ADDX/SUBX, ABCD/SBCD, EXT/EXTB, SWAP,
// EXG, LEA, PEA, TAS.
#include "cpu/cpu.h"
#include "cpu/ops_impl.h"

using namespace m68k;

namespace {

inline uint32_t mask_of(uint32_t size) { return size == 1 ? 0xFF : size == 2 ? 0xFFFF : 0xFFFFFFFF; }
inline uint32_t msb_of(uint32_t size) { return size == 1 ? 0x80 : size == 2 ? 0x8000 : 0x80000000; }

inline uint32_t read_sized(kelva *k, uint32_t a, uint32_t size) {
    return size == 1 ? read8(k, a) : size == 2 ? read16(k, a) : read32(k, a);
}
inline void write_sized(kelva *k, uint32_t a, uint32_t v, uint32_t size) {
    if (size == 1) write8(k, a, v);
    else if (size == 2) write16(k, a, v);
    else write32(k, a, v);
}

}  // namespace

// Operands of ADDX/SUBX/ABCD/SBCD. Register form: source Dy (bits 2-0),
// destination Dx (bits 11-9). Memory form: -(Ay) is read first, then -(Ax);
// byte steps on A7 are 2. `addr` receives the destination address.
void addx_subx_operands(kelva *k, uint16_t op, uint32_t size, uint32_t *s, uint32_t *d, uint32_t *addr) {
    uint32_t ry = op & 7, rx = (op >> 9) & 7;
    if (op & 8) {
        k->a[ry] -= (size == 1 && ry == 7) ? 2 : size;
        *s = read_sized(k, k->a[ry], size);
        k->a[rx] -= (size == 1 && rx == 7) ? 2 : size;
        *addr = k->a[rx];
        *d = read_sized(k, *addr, size);
    } else {
        *s = k->d[ry] & mask_of(size);
        *d = k->d[rx] & mask_of(size);
        *addr = 0;
    }
}

void addx_subx_store(kelva *k, uint16_t op, uint32_t size, uint32_t addr, uint32_t r) {
    if (op & 8) {
        write_sized(k, addr, r, size);
    } else {
        uint32_t rx = (op >> 9) & 7, m = mask_of(size);
        k->d[rx] = (k->d[rx] & ~m) | (r & m);
    }
}

void op_moveq(kelva *k, uint16_t op) {
    uint32_t v = uint32_t(int32_t(int8_t(op & 0xFF)));
    k->d[(op >> 9) & 7] = v;
    set_logic_flags_l(k, v);
}

void op_cmpm(kelva *k, uint16_t op) {
    uint32_t size = 1u << ((op >> 6) & 3);
    uint32_t ry = op & 7, rx = (op >> 9) & 7;
    uint32_t s = read_sized(k, k->a[ry], size);
    k->a[ry] += (size == 1 && ry == 7) ? 2 : size;
    uint32_t d = read_sized(k, k->a[rx], size);
    k->a[rx] += (size == 1 && rx == 7) ? 2 : size;
    uint32_t r = d - s;
    if (size == 1) set_cmp_flags_b(k, d, s, r);
    else if (size == 2) set_cmp_flags_w(k, d, s, r);
    else set_cmp_flags_l(k, d, s, r);
}

// ADDX/SUBX: Z is only ever cleared, so it accumulates over a chain.
void op_addx(kelva *k, uint16_t op) {
    if ((op & 0x00C8) == 0x0080) {
        // ADDX.L Dy,Dx, the carry chain of 32-bit fixed-point arithmetic
        // in mixing loops: straight through, without the operand helpers.
        uint32_t rx = (op >> 9) & 7, s = k->d[op & 7], d = k->d[rx];
        uint64_t wide = uint64_t(d) + s + ((k->sr >> 4) & 1);
        uint32_t r = uint32_t(wide);
        uint32_t f = (r >> 28) & kSrN;
        if ((~(s ^ d) & (d ^ r)) & 0x80000000u) f |= kSrV;
        if (wide >> 32) f |= kSrC | kSrX;
        k->sr = uint16_t((k->sr & 0xFFE0) | f | (r ? 0 : (k->sr & kSrZ)));
        k->d[rx] = r;
        return;
    }
    uint32_t size = 1u << ((op >> 6) & 3);
    uint32_t s, d, addr;
    addx_subx_operands(k, op, size, &s, &d, &addr);
    uint32_t m = mask_of(size), msb = msb_of(size);
    uint64_t wide = uint64_t(d) + s + ((k->sr >> 4) & 1);
    uint32_t r = uint32_t(wide) & m;
    uint32_t f = (r & msb) ? kSrN : 0;
    if ((~(s ^ d) & (d ^ r)) & msb) f |= kSrV;
    if ((wide >> (size * 8)) & 1) f |= kSrC | kSrX;
    uint32_t z = r ? 0 : (k->sr & kSrZ);
    k->sr = uint16_t((k->sr & 0xFFE0) | f | z);
    addx_subx_store(k, op, size, addr, r);
}

void op_subx(kelva *k, uint16_t op) {
    uint32_t size = 1u << ((op >> 6) & 3);
    uint32_t s, d, addr;
    addx_subx_operands(k, op, size, &s, &d, &addr);
    uint32_t m = mask_of(size), msb = msb_of(size);
    uint32_t x = (k->sr >> 4) & 1;
    uint32_t r = (d - s - x) & m;
    uint32_t f = (r & msb) ? kSrN : 0;
    if (((s ^ d) & (d ^ r)) & msb) f |= kSrV;
    if (uint64_t(d) < uint64_t(s) + x) f |= kSrC | kSrX;
    uint32_t z = r ? 0 : (k->sr & kSrZ);
    k->sr = uint16_t((k->sr & 0xFFE0) | f | z);
    addx_subx_store(k, op, size, addr, r);
}

// ABCD/SBCD: this system's fixed algorithm. Z is always cleared and V kept:
// the update clears exactly X, N, Z and C.
void op_abcd(kelva *k, uint16_t op) {
    uint32_t s, d, addr;
    addx_subx_operands(k, op, 1, &s, &d, &addr);
    uint32_t x = (k->sr >> 4) & 1;
    uint32_t low = (s & 0x0F) + (d & 0x0F) + x;
    if (low > 9) low += 6;
    uint32_t sum = low + (s & 0xF0) + (d & 0xF0);
    uint32_t f = 0;
    if (sum > 0x99) {
        sum += 0x60;
        f = kSrC | kSrX;
    }
    uint32_t r = sum & 0xFF;
    if (r & 0x80) f |= kSrN;
    k->sr = uint16_t((k->sr & ~uint32_t(kSrX | kSrN | kSrZ | kSrC)) | f);
    addx_subx_store(k, op, 1, addr, r);
}

void op_sbcd(kelva *k, uint16_t op) {
    uint32_t s, d, addr;
    addx_subx_operands(k, op, 1, &s, &d, &addr);
    int32_t x = (k->sr >> 4) & 1;
    int32_t r = int32_t(d & 0xFF) - int32_t(s & 0xFF) - x;
    if (int32_t(d & 0x0F) - int32_t(s & 0x0F) < x) r -= 6;
    uint32_t f = 0;
    if (r < 0) {
        r -= 0x60;
        f = kSrC | kSrX;
    }
    uint32_t res = uint32_t(r) & 0xFF;
    if (res & 0x80) f |= kSrN;
    k->sr = uint16_t((k->sr & ~uint32_t(kSrX | kSrN | kSrZ | kSrC)) | f);
    addx_subx_store(k, op, 1, addr, res);
}

void op_ext_w(kelva *k, uint16_t op) {
    uint32_t r = op & 7;
    uint32_t v = uint32_t(int32_t(int8_t(k->d[r]))) & 0xFFFF;
    k->d[r] = (k->d[r] & 0xFFFF0000) | v;
    set_logic_flags_w(k, v);
}

void op_ext_l(kelva *k, uint16_t op) {
    uint32_t r = op & 7;
    k->d[r] = uint32_t(int32_t(int16_t(k->d[r])));
    set_logic_flags_l(k, k->d[r]);
}

void op_extb_l(kelva *k, uint16_t op) {
    uint32_t r = op & 7;
    k->d[r] = uint32_t(int32_t(int8_t(k->d[r])));
    set_logic_flags_l(k, k->d[r]);
}

void op_swap(kelva *k, uint16_t op) {
    uint32_t r = op & 7;
    uint32_t v = k->d[r];
    v = (v >> 16) | (v << 16);
    k->d[r] = v;
    set_logic_flags_l(k, v);
}

void op_exg_dn_dn(kelva *k, uint16_t op) {
    uint32_t x = (op >> 9) & 7, y = op & 7;
    uint32_t t = k->d[x];
    k->d[x] = k->d[y];
    k->d[y] = t;
}

void op_exg_an_an(kelva *k, uint16_t op) {
    uint32_t x = (op >> 9) & 7, y = op & 7;
    uint32_t t = k->a[x];
    k->a[x] = k->a[y];
    k->a[y] = t;
}

void op_exg_dn_an(kelva *k, uint16_t op) {
    uint32_t x = (op >> 9) & 7, y = op & 7;
    uint32_t t = k->d[x];
    k->d[x] = k->a[y];
    k->a[y] = t;
}

void op_lea(kelva *k, uint16_t op) {
    uint32_t a = ea_addr_control(k, op);
    k->a[(op >> 9) & 7] = a;
}

void op_pea(kelva *k, uint16_t op) {
    uint32_t a = ea_addr_control(k, op);
    k->a[7] -= 4;
    write32(k, k->a[7], a);
}

void op_tas(kelva *k, uint16_t op) {
    uint32_t mode = (op >> 3) & 7, reg = op & 7;
    if (mode == 0) {
        uint32_t v = k->d[reg] & 0xFF;
        set_logic_flags_b(k, v);
        k->d[reg] |= 0x80;
        return;
    }
    uint32_t a = ea_addr_data_byte(k, op);
    if (k->fault) return;
    uint32_t v = read8(k, a);
    set_logic_flags_b(k, v);
    write8(k, a, v | 0x80);
}
