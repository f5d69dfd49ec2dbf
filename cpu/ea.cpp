// Effective-address helpers for the generic handlers. The specialised
// handlers compute the same addresses inline (cpu/ops_impl.h).
#include "cpu/cpu.h"
#include "cpu/ops_impl.h"

using namespace m68k;

// Full-format extension word: base and index suppression, base and outer
// displacements, memory indirection before or after indexing.
uint32_t ea_full(kelva *k, uint32_t base, uint32_t ext) {
    uint32_t b = (ext & 0x80) ? 0 : base;
    uint32_t bd = 0;
    switch ((ext >> 4) & 3) {
    case 2: bd = uint32_t(int32_t(int16_t(fetch16(k)))); break;
    case 3: bd = fetch32(k); break;
    default: break;
    }
    uint32_t idx = (ext & 0x40) ? 0 : index_value(k, ext);
    if ((ext & 7) == 0) return b + bd + idx;
    uint32_t od = 0;
    switch (ext & 3) {
    case 2: od = uint32_t(int32_t(int16_t(fetch16(k)))); break;
    case 3: od = fetch32(k); break;
    default: break;
    }
    if (ext & 4) return read32(k, b + bd) + idx + od;   // post-indexed
    return read32(k, b + bd + idx) + od;                // pre-indexed
}

uint32_t ea_an_idx(kelva *k, uint32_t reg) { return indexed(k, k->a[reg & 7]); }

uint32_t ea_pc_idx(kelva *k) { return indexed(k, k->pc); }

uint32_t ea_mem_addr(kelva *k, uint32_t mode, uint32_t reg, uint32_t size) {
    uint32_t step = (size == 1 && reg == 7) ? 2 : size;
    switch (mode) {
    case 2: return k->a[reg];
    case 3: {
        uint32_t a = k->a[reg];
        k->a[reg] = a + step;
        return a;
    }
    case 4: k->a[reg] -= step; return k->a[reg];
    case 5: return k->a[reg] + uint32_t(int32_t(int16_t(fetch16(k))));
    case 6: return ea_an_idx(k, reg);
    case 7:
        switch (reg) {
        case 0: return uint32_t(int32_t(int16_t(fetch16(k))));
        case 1: return fetch32(k);
        case 2: {
            uint32_t base = k->pc;
            return base + uint32_t(int32_t(int16_t(fetch16(k))));
        }
        case 3: return ea_pc_idx(k);
        default: break;
        }
        break;
    default: break;
    }
    exception(k, VEC_ILLEGAL);
    return 0;
}

uint32_t ea_addr_data_byte(kelva *k, uint16_t opcode) {
    uint32_t mode = (opcode >> 3) & 7, reg = opcode & 7;
    if (mode < 2 || (mode == 7 && reg > 3)) {
        exception(k, VEC_ILLEGAL);
        return 0;
    }
    return ea_mem_addr(k, mode, reg, 1);
}

uint32_t ea_load_w(kelva *k, uint16_t opcode) {
    uint32_t mode = (opcode >> 3) & 7, reg = opcode & 7;
    if (mode == 0) return k->d[reg] & 0xFFFF;
    if (mode == 1) return k->a[reg] & 0xFFFF;
    if (mode == 7 && reg == 4) return fetch16(k);
    if (mode == 7 && reg > 4) {
        exception(k, VEC_ILLEGAL);
        return 0;
    }
    return read16(k, ea_mem_addr(k, mode, reg, 2));
}

uint32_t ea_addr_control(kelva *k, uint16_t opcode) {
    uint32_t mode = (opcode >> 3) & 7, reg = opcode & 7;
    bool control = mode == 2 || mode == 5 || mode == 6 || (mode == 7 && reg <= 3);
    if (!control) {
        exception(k, VEC_ILLEGAL);
        return 0;
    }
    return ea_mem_addr(k, mode, reg, 4);
}
