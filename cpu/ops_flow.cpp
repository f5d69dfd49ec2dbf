// Program control, exception entry and return, and the system instructions:
// branches, subroutine calls, RTE/RTS/RTR/RTD, LINK/UNLK, TRAP, the SR and
// USP moves, STOP, RESET, the illegal and line-F words.
#include "cpu/cpu.h"
#include "cpu/ops_impl.h"

using namespace m68k;

namespace {

// Privileged instructions test S first; in user mode the stacked PC is the
// address after the opcode word.
inline bool privileged(kelva *k) {
    if (k->sr & kSrS) return true;
    exception(k, VEC_PRIVILEGE);
    return false;
}

inline void push32(kelva *k, uint32_t v) {
    k->a[7] -= 4;
    write32(k, k->a[7], v);
}

}  // namespace

// The frame is this system's own four-word layout, lowest first: the
// format/vector word (format 0, vector * 4), the old SR, the return PC.
void exception(kelva *k, int vector) {
    uint16_t old_sr = k->sr;
    if (!(old_sr & kSrS)) {
        k->usp = k->a[7];
        k->a[7] = k->ssp;
    }
    k->sr = uint16_t((old_sr & 0x171F) | kSrS);
    k->a[7] -= 4;
    write32(k, k->a[7], k->pc);
    k->a[7] -= 2;
    write16(k, k->a[7], old_sr);
    k->a[7] -= 2;
    write16(k, k->a[7], uint32_t(vector * 4) & 0xFFFF);
    k->pc = read32(k, k->vbr + uint32_t(vector) * 4);
    k->fault = 0;
}

void op_illegal(kelva *k, uint16_t) { exception(k, VEC_ILLEGAL); }

void op_line_f(kelva *k, uint16_t) { exception(k, VEC_LINE_F); }

void op_nop(kelva *, uint16_t) {}

void op_reset(kelva *k, uint16_t) { privileged(k); }

void op_stop(kelva *k, uint16_t) {
    if (!privileged(k)) return;
    set_sr(k, fetch16(k));
    k->stopped = 1;
}

void op_bcc(kelva *k, uint16_t op) {
    uint32_t base = k->pc;
    uint32_t disp = uint32_t(int32_t(int8_t(op & 0xFF)));
    if ((op & 0xFF) == 0) disp = uint32_t(int32_t(int16_t(fetch16(k))));
    else if ((op & 0xFF) == 0xFF) disp = fetch32(k);
    int cc = (op >> 8) & 15;
    if (cc == 1) {
        push32(k, k->pc);
        k->pc = base + disp;
    } else if (cc == 0 || test_cc(k, cc)) {
        k->pc = base + disp;
    }
}

void op_dbcc(kelva *k, uint16_t op) {
    uint32_t base = k->pc;
    uint32_t disp = uint32_t(int32_t(int16_t(fetch16(k))));
    if (test_cc(k, (op >> 8) & 15)) return;
    uint32_t r = op & 7;
    uint32_t low = (k->d[r] - 1) & 0xFFFF;
    k->d[r] = (k->d[r] & 0xFFFF0000) | low;
    if (low != 0xFFFF) k->pc = base + disp;
}

void op_scc(kelva *k, uint16_t op) {
    uint32_t v = test_cc(k, (op >> 8) & 15) ? 0xFF : 0x00;
    uint32_t mode = (op >> 3) & 7, reg = op & 7;
    if (mode == 0) {
        k->d[reg] = (k->d[reg] & 0xFFFFFF00) | v;
        return;
    }
    uint32_t a = ea_mem_addr(k, mode, reg, 1);
    write8(k, a, v);   // no read first
}

void op_jmp(kelva *k, uint16_t op) { k->pc = ea_addr_control(k, op); }

void op_jsr(kelva *k, uint16_t op) {
    uint32_t target = ea_addr_control(k, op);
    push32(k, k->pc);
    k->pc = target;
}

void op_rts(kelva *k, uint16_t) {
    k->pc = read32(k, k->a[7]);
    k->a[7] += 4;
}

void op_rtr(kelva *k, uint16_t) {
    set_ccr(k, read16(k, k->a[7]));
    k->a[7] += 2;
    k->pc = read32(k, k->a[7]);
    k->a[7] += 4;
}

void op_rtd(kelva *k, uint16_t) {
    uint32_t disp = uint32_t(int32_t(int16_t(fetch16(k))));
    k->pc = read32(k, k->a[7]);
    k->a[7] += 4;
    k->a[7] += disp;
}

void op_rte(kelva *k, uint16_t) {
    if (!(k->sr & kSrS)) {
        k->pc -= 2;   // RTE's privilege violation stacks the RTE itself
        exception(k, VEC_PRIVILEGE);
        return;
    }
    uint32_t sp = k->a[7];
    uint32_t format = read16(k, sp);
    uint32_t sr = read16(k, sp + 2);
    uint32_t pc = read32(k, sp + 4);
    k->a[7] = sp + 8;
    if (format & 0xF000) {
        write16(k, sp, format);
        write16(k, sp + 2, sr);
        write32(k, sp + 4, pc);
        k->a[7] = sp;
        exception(k, VEC_FORMAT);
        return;
    }
    set_sr(k, sr);
    k->pc = pc;
}

void op_link_w(kelva *k, uint16_t op) {
    uint32_t disp = uint32_t(int32_t(int16_t(fetch16(k))));
    uint32_t r = op & 7;
    push32(k, k->a[r]);
    k->a[r] = k->a[7];
    k->a[7] += disp;
}

void op_link_l(kelva *k, uint16_t op) {
    uint32_t disp = fetch32(k);
    uint32_t r = op & 7;
    push32(k, k->a[r]);
    k->a[r] = k->a[7];
    k->a[7] += disp;
}

void op_unlk(kelva *k, uint16_t op) {
    uint32_t r = op & 7;
    uint32_t frame = k->a[r];
    uint32_t v = read32(k, frame);
    k->a[7] = frame + 4;
    k->a[r] = v;   // for UNLK A7 the loaded value wins
}

void op_trap(kelva *k, uint16_t op) { exception(k, VEC_TRAP0 + (op & 15)); }

void op_trapv(kelva *k, uint16_t) {
    if (k->sr & kSrV) exception(k, VEC_TRAPV);
}

void op_move_to_sr(kelva *k, uint16_t op) {
    if (!privileged(k)) return;
    uint32_t v = ea_load_w(k, op);
    set_sr(k, v);
}

void op_move_from_sr(kelva *k, uint16_t op) {
    if (!privileged(k)) return;
    uint32_t mode = (op >> 3) & 7, reg = op & 7;
    if (mode == 0) {
        k->d[reg] = (k->d[reg] & 0xFFFF0000) | k->sr;
        return;
    }
    uint32_t a = ea_mem_addr(k, mode, reg, 2);
    write16(k, a, k->sr);   // no read first
}

void op_move_to_ccr(kelva *k, uint16_t op) { set_ccr(k, ea_load_w(k, op)); }

void op_move_from_ccr(kelva *k, uint16_t op) {
    uint32_t mode = (op >> 3) & 7, reg = op & 7;
    uint32_t v = k->sr & 0xFF;
    if (mode == 0) {
        k->d[reg] = (k->d[reg] & 0xFFFF0000) | v;
        return;
    }
    write16(k, ea_mem_addr(k, mode, reg, 2), v);
}

void op_ori_to_ccr(kelva *k, uint16_t) { set_ccr(k, (k->sr | fetch16(k)) & 0xFF); }
void op_andi_to_ccr(kelva *k, uint16_t) { set_ccr(k, (k->sr & fetch16(k)) & 0xFF); }
void op_eori_to_ccr(kelva *k, uint16_t) { set_ccr(k, (k->sr ^ fetch16(k)) & 0xFF); }

void op_ori_to_sr(kelva *k, uint16_t) {
    if (privileged(k)) set_sr(k, k->sr | fetch16(k));
}
void op_andi_to_sr(kelva *k, uint16_t) {
    if (privileged(k)) set_sr(k, k->sr & fetch16(k));
}
void op_eori_to_sr(kelva *k, uint16_t) {
    if (privileged(k)) set_sr(k, k->sr ^ fetch16(k));
}

void op_move_an_to_usp(kelva *k, uint16_t op) {
    if (privileged(k)) k->usp = k->a[op & 7];
}

void op_move_usp_to_an(kelva *k, uint16_t op) {
    if (privileged(k)) k->a[op & 7] = k->usp;
}
