// Disassembler and instruction trace. The decoder works from the opcode word
// alone, independent of the opcode table, so it also names instructions the
// processor does not execute (MOVEP, NBCD, the bit-field group). It reads
// through the bus with a private PC and changes no processor state.
#include <cstdio>
#include <cstring>

#include "cpu/cpu.h"

namespace {

const char *const da_size_sfx[3] = {"b", "w", "l"};
const char *const da_cc[16] = {"t", "f", "hi", "ls", "cc", "cs", "ne", "eq",
                               "vc", "vs", "pl", "mi", "ge", "lt", "gt", "le"};

// Operation names shared by the immediate group, the static bit group, the
// shift types and the bit-field group.
enum da_name { N_ANDI, N_ORI, N_ADDI, N_SUBI, N_EORI, N_BCLR, N_BTST, N_ROX, N_AS, N_BFCHG, N_BFTST, N_BFSET,
               N_BFCLR };
const char *const da_names[13] = {"andi", "ori", "addi", "subi", "eori", "bclr", "btst",
                                  "rox", "as", "bfchg", "bftst", "bfset", "bfclr"};
const char *const da_ls = "ls";
const char *const da_ro = "ro";
const char *const da_bfextu = "bfextu";
const char *const da_bfexts = "bfexts";
const char *const da_bfffo = "bfffo";
const char *const da_bfins = "bfins";

constexpr size_t kTextMax = 96;   // instruction text: at most 95 characters
constexpr size_t kOperandMax = 64;  // one operand: at most 63

uint32_t da_fetch16(kelva *k, uint32_t *pc) {
    uint32_t v = read16(k, *pc);
    *pc += 2;
    return v;
}
uint32_t da_fetch32(kelva *k, uint32_t *pc) {
    uint32_t v = read32(k, *pc);
    *pc += 4;
    return v;
}

}  // namespace

// "%s" with no operands, "%-7s %s" with one, "%-7s %s,%s" with two.
// Longer texts are cut at kTextMax - 1 characters.
void da_emit(char *out, const char *mnemonic, const char *op1, const char *op2) {
    int n;
    if (!op1 || !*op1) n = snprintf(out, kTextMax, "%s", mnemonic);
    else if (!op2 || !*op2) n = snprintf(out, kTextMax, "%-7s %s", mnemonic, op1);
    else n = snprintf(out, kTextMax, "%-7s %s,%s", mnemonic, op1, op2);
    if (n < 0) out[0] = 0;
}

// Indexed operand: brief "(d8,base,Xn.s*scale)" or the full format with its
// base displacement; suppressed base prints "z", a suppressed index is left
// out; memory indirection is not shown.
void da_index(kelva *k, uint32_t *pc, const char *base, char *out) {
    uint32_t ext = da_fetch16(k, pc);
    char idx[24];
    unsigned scale = (ext >> 9) & 3;
    char type = (ext & 0x8000) ? 'a' : 'd';
    char size = (ext & 0x0800) ? 'l' : 'w';
    if (scale) snprintf(idx, sizeof idx, "%c%u.%c*%u", type, (ext >> 12) & 7, size, 1u << scale);
    else snprintf(idx, sizeof idx, "%c%u.%c", type, (ext >> 12) & 7, size);
    if (!(ext & 0x0100)) {
        snprintf(out, kOperandMax, "(%d,%s,%s)", int(int8_t(ext & 0xFF)), base, idx);
        return;
    }
    int32_t bd = 0;
    switch ((ext >> 4) & 3) {
    case 2: bd = int16_t(da_fetch16(k, pc)); break;
    case 3: bd = int32_t(da_fetch32(k, pc)); break;
    default: break;
    }
    if (ext & 7) {
        if ((ext & 3) == 2) da_fetch16(k, pc);
        else if ((ext & 3) == 3) da_fetch32(k, pc);
    }
    const char *b = (ext & 0x80) ? "z" : base;
    if (ext & 0x40) snprintf(out, kOperandMax, "(%d,%s)", bd, b);
    else snprintf(out, kOperandMax, "(%d,%s,%s)", bd, b, idx);
}

// One effective address; size 0/1/2 selects the immediate's width.
void da_ea(kelva *k, uint32_t *pc, uint32_t mode, uint32_t reg, uint32_t size, char *out) {
    char base[8];
    switch (mode & 7) {
    case 0: snprintf(out, kOperandMax, "d%u", reg); return;
    case 1: snprintf(out, kOperandMax, "a%u", reg); return;
    case 2: snprintf(out, kOperandMax, "(a%u)", reg); return;
    case 3: snprintf(out, kOperandMax, "(a%u)+", reg); return;
    case 4: snprintf(out, kOperandMax, "-(a%u)", reg); return;
    case 5: snprintf(out, kOperandMax, "%d(a%u)", int(int16_t(da_fetch16(k, pc))), reg); return;
    case 6:
        snprintf(base, sizeof base, "a%u", reg);
        da_index(k, pc, base, out);
        return;
    default: break;
    }
    switch (reg) {
    case 0: snprintf(out, kOperandMax, "$%x.w", uint32_t(int32_t(int16_t(da_fetch16(k, pc))))); return;
    case 1: snprintf(out, kOperandMax, "$%x.l", da_fetch32(k, pc)); return;
    case 2: {
        uint32_t at = *pc;
        snprintf(out, kOperandMax, "$%x(pc)", at + uint32_t(int32_t(int16_t(da_fetch16(k, pc)))));
        return;
    }
    case 3: da_index(k, pc, "pc", out); return;
    case 4:
        if (size == 2) snprintf(out, kOperandMax, "#$%x", da_fetch32(k, pc));
        else if (size == 1) snprintf(out, kOperandMax, "#$%x", da_fetch16(k, pc));
        else snprintf(out, kOperandMax, "#$%x", da_fetch16(k, pc) & 0xFF);
        return;
    default: snprintf(out, kOperandMax, "?"); return;
    }
}

namespace {

bool ea_valid(uint32_t mode, uint32_t reg) { return mode < 7 || reg <= 4; }

// MOVEM register list from a mask with bit 0 = D0 ... bit 15 = A7.
void da_reglist(uint32_t mask, char *out) {
    out[0] = 0;
    size_t len = 0;
    for (int i = 0; i < 16;) {
        if (!(mask >> i & 1)) {
            i++;
            continue;
        }
        int j = i;
        while (j + 1 < 16 && (j + 1) % 8 != 0 && (mask >> (j + 1) & 1)) j++;
        char first[4], last[4], part[12];
        snprintf(first, sizeof first, "%c%u", i < 8 ? 'd' : 'a', unsigned(i & 7));
        snprintf(last, sizeof last, "%c%u", j < 8 ? 'd' : 'a', unsigned(j & 7));
        if (j > i) snprintf(part, sizeof part, "%s-%s", first, last);
        else snprintf(part, sizeof part, "%s", first);
        len += size_t(snprintf(out + len, kOperandMax - len, "%s%s", len ? "/" : "", part));
        i = j + 1;
    }
}

uint32_t reverse16(uint32_t m) {
    uint32_t r = 0;
    for (int i = 0; i < 16; i++)
        if (m >> i & 1) r |= 1u << (15 - i);
    return r;
}

// Decodes the instruction at *pc (already past the opcode word) into text;
// false for a word it does not recognise.
bool da_decode(kelva *k, uint32_t *pc, uint32_t op, char *text) {
    char a[kOperandMax], b[kOperandMax], mn[32];
    a[0] = b[0] = 0;
    uint32_t mode = (op >> 3) & 7, reg = op & 7, rx = (op >> 9) & 7, size = (op >> 6) & 3;
    switch (op >> 12) {
    case 0x0: {
        static const struct { uint16_t word; int name; bool sr; } kCcrSr[] = {
            {0x003C, N_ORI, false}, {0x007C, N_ORI, true}, {0x023C, N_ANDI, false},
            {0x027C, N_ANDI, true}, {0x0A3C, N_EORI, false}, {0x0A7C, N_EORI, true}};
        for (const auto &c : kCcrSr) {
            if (op != c.word) continue;
            snprintf(a, sizeof a, "#$%x", c.sr ? da_fetch16(k, pc) : da_fetch16(k, pc) & 0xFF);
            da_emit(text, da_names[c.name], a, c.sr ? "sr" : "ccr");
            return true;
        }
        if (op & 0x0100) {
            if (mode == 1) {   // MOVEP
                snprintf(mn, sizeof mn, "movep.%s", (op & 0x40) ? "l" : "w");
                char mem[kOperandMax], dn[8];
                snprintf(mem, sizeof mem, "%d(a%u)", int(int16_t(da_fetch16(k, pc))), reg);
                snprintf(dn, sizeof dn, "d%u", rx);
                if (op & 0x80) da_emit(text, mn, dn, mem);
                else da_emit(text, mn, mem, dn);
                return true;
            }
            static const char *const kDyn[4] = {"btst", "bchg", "bclr", "bset"};
            if (!ea_valid(mode, reg)) return false;
            snprintf(a, sizeof a, "d%u", rx);
            da_ea(k, pc, mode, reg, 0, b);
            da_emit(text, kDyn[size], a, b);
            return true;
        }
        if (rx == 4) {   // static bit operations
            static const char *const kStat[4] = {da_names[N_BTST], "bchg", da_names[N_BCLR], "bset"};
            if (!ea_valid(mode, reg)) return false;
            snprintf(a, sizeof a, "#%u", da_fetch16(k, pc) & 0xFF);
            da_ea(k, pc, mode, reg, 0, b);
            da_emit(text, kStat[size], a, b);
            return true;
        }
        static const int kImm[8] = {N_ORI, N_ANDI, N_SUBI, N_ADDI, -1, N_EORI, -2, -1};
        int name = kImm[rx];
        if (name == -1 || size == 3 || !ea_valid(mode, reg)) return false;
        snprintf(mn, sizeof mn, "%s.%s", name == -2 ? "cmpi" : da_names[name], da_size_sfx[size]);
        da_ea(k, pc, 7, 4, size, a);
        da_ea(k, pc, mode, reg, size, b);
        da_emit(text, mn, a, b);
        return true;
    }
    case 0x1:
    case 0x2:
    case 0x3: {
        static const uint32_t kMoveSize[4] = {0, 0, 2, 1};
        uint32_t sz = kMoveSize[op >> 12];
        uint32_t dmode = (op >> 6) & 7;
        if (!ea_valid(mode, reg) || !ea_valid(dmode, rx)) return false;
        snprintf(mn, sizeof mn, dmode == 1 ? "movea.%s" : "move.%s", da_size_sfx[sz]);
        da_ea(k, pc, mode, reg, sz, a);
        da_ea(k, pc, dmode, rx, sz, b);
        da_emit(text, mn, a, b);
        return true;
    }
    case 0x4: {
        static const struct { uint16_t word; const char *name; } kFixed[] = {
            {0x4AFC, "illegal"}, {0x4E70, "reset"}, {0x4E71, "nop"}, {0x4E73, "rte"},
            {0x4E75, "rts"}, {0x4E76, "trapv"}, {0x4E77, "rtr"}};
        for (const auto &f : kFixed) {
            if (op != f.word) continue;
            da_emit(text, f.name, "", "");
            return true;
        }
        if (op == 0x4E72) {
            snprintf(a, sizeof a, "#$%x", da_fetch16(k, pc));
            da_emit(text, "stop", a, "");
            return true;
        }
        if (op == 0x4E74) {
            snprintf(a, sizeof a, "#%d", int(int16_t(da_fetch16(k, pc))));
            da_emit(text, "rtd", a, "");
            return true;
        }
        if ((op & 0xFFF0) == 0x4E40) {
            snprintf(a, sizeof a, "#%u", op & 15);
            da_emit(text, "trap", a, "");
            return true;
        }
        if ((op & 0xFFF8) == 0x4E50 || (op & 0xFFF8) == 0x4808) {
            int32_t d = (op & 0xFFF8) == 0x4E50 ? int16_t(da_fetch16(k, pc)) : int32_t(da_fetch32(k, pc));
            snprintf(a, sizeof a, "a%u", reg);
            snprintf(b, sizeof b, "#%d", d);
            da_emit(text, "link", a, b);
            return true;
        }
        if ((op & 0xFFF8) == 0x4E58) {
            snprintf(a, sizeof a, "a%u", reg);
            da_emit(text, "unlk", a, "");
            return true;
        }
        if ((op & 0xFFF0) == 0x4E60) {
            snprintf(a, sizeof a, "a%u", reg);
            if (op & 8) da_emit(text, "move", "usp", a);
            else da_emit(text, "move", a, "usp");
            return true;
        }
        if ((op & 0xFF80) == 0x4E80) {
            if (!ea_valid(mode, reg) || mode < 2) return false;
            da_ea(k, pc, mode, reg, 2, a);
            da_emit(text, (op & 0x40) ? "jmp" : "jsr", a, "");
            return true;
        }
        if ((op & 0xFFF8) == 0x4840) {
            snprintf(a, sizeof a, "d%u", reg);
            da_emit(text, "swap", a, "");
            return true;
        }
        if ((op & 0xFFB8) == 0x4880 || (op & 0xFFF8) == 0x49C0) {
            snprintf(a, sizeof a, "d%u", reg);
            da_emit(text, (op & 0xFFF8) == 0x49C0 ? "extb.l" : (op & 0x40) ? "ext.l" : "ext.w", a, "");
            return true;
        }
        if ((op & 0xFB80) == 0x4880) {   // MOVEM
            uint32_t mask = da_fetch16(k, pc);
            if (!ea_valid(mode, reg)) return false;
            snprintf(mn, sizeof mn, "movem.%s", (op & 0x40) ? "l" : "w");
            if (op & 0x0400) {
                da_ea(k, pc, mode, reg, 1, a);
                da_reglist(mask, b);
            } else {
                da_reglist(mode == 4 ? reverse16(mask) : mask, a);
                da_ea(k, pc, mode, reg, 1, b);
            }
            da_emit(text, mn, a, b);
            return true;
        }
        if (!ea_valid(mode, reg)) return false;
        if ((op & 0xFFC0) == 0x4840) {
            da_ea(k, pc, mode, reg, 2, a);
            da_emit(text, "pea", a, "");
            return true;
        }
        if ((op & 0xFFC0) == 0x4800) {
            da_ea(k, pc, mode, reg, 0, a);
            da_emit(text, "nbcd", a, "");
            return true;
        }
        if ((op & 0xFFC0) == 0x4AC0) {
            da_ea(k, pc, mode, reg, 0, a);
            da_emit(text, "tas", a, "");
            return true;
        }
        if ((op & 0xF1C0) == 0x41C0) {
            da_ea(k, pc, mode, reg, 2, a);
            snprintf(b, sizeof b, "a%u", rx);
            da_emit(text, "lea", a, b);
            return true;
        }
        if ((op & 0xF1C0) == 0x4180) {
            da_ea(k, pc, mode, reg, 1, a);
            snprintf(b, sizeof b, "d%u", rx);
            da_emit(text, "chk", a, b);
            return true;
        }
        static const char *const kSrMoves[4] = {"sr", "ccr", "ccr", "sr"};
        if ((op & 0xF9C0) == 0x40C0) {   // MOVE from SR/CCR, to CCR/SR
            uint32_t which = (op >> 9) & 3;
            da_ea(k, pc, mode, reg, 1, a);
            if (which < 2) da_emit(text, "move", kSrMoves[which], a);
            else da_emit(text, "move", a, kSrMoves[which]);
            return true;
        }
        static const char *const kUnary[8] = {"negx", "clr", "neg", "not", nullptr, "tst", nullptr, nullptr};
        const char *u = kUnary[(op >> 9) & 7];
        if (!u || size == 3 || (op & 0x0100)) return false;
        snprintf(mn, sizeof mn, "%s.%s", u, da_size_sfx[size]);
        da_ea(k, pc, mode, reg, size, a);
        da_emit(text, mn, a, "");
        return true;
    }
    case 0x5: {
        if (size == 3) {
            uint32_t cc = (op >> 8) & 15;
            if (mode == 1) {
                uint32_t at = *pc;
                uint32_t target = at + uint32_t(int32_t(int16_t(da_fetch16(k, pc))));
                snprintf(mn, sizeof mn, "db%s", da_cc[cc]);
                snprintf(a, sizeof a, "d%u", reg);
                snprintf(b, sizeof b, "$%x", target);
                da_emit(text, mn, a, b);
                return true;
            }
            if (!ea_valid(mode, reg)) return false;
            snprintf(mn, sizeof mn, "s%s", da_cc[cc]);
            da_ea(k, pc, mode, reg, 0, a);
            da_emit(text, mn, a, "");
            return true;
        }
        if (!ea_valid(mode, reg)) return false;
        snprintf(mn, sizeof mn, "%s.%s", (op & 0x0100) ? "subq" : "addq", da_size_sfx[size]);
        snprintf(a, sizeof a, "#%u", rx ? rx : 8);
        da_ea(k, pc, mode, reg, size, b);
        da_emit(text, mn, a, b);
        return true;
    }
    case 0x6: {
        uint32_t base = *pc;
        uint32_t disp = uint32_t(int32_t(int8_t(op & 0xFF)));
        if ((op & 0xFF) == 0) disp = uint32_t(int32_t(int16_t(da_fetch16(k, pc))));
        else if ((op & 0xFF) == 0xFF) disp = da_fetch32(k, pc);
        uint32_t cc = (op >> 8) & 15;
        if (cc == 0) snprintf(mn, sizeof mn, "bra");
        else if (cc == 1) snprintf(mn, sizeof mn, "bsr");
        else snprintf(mn, sizeof mn, "b%s", da_cc[cc]);
        snprintf(a, sizeof a, "$%x", base + disp);
        da_emit(text, mn, a, "");
        return true;
    }
    case 0x7:
        if (op & 0x0100) return false;
        snprintf(a, sizeof a, "#%d", int(int8_t(op & 0xFF)));
        snprintf(b, sizeof b, "d%u", rx);
        da_emit(text, "moveq", a, b);
        return true;
    case 0x8:
    case 0xC: {
        bool is_and = (op >> 12) == 0xC;
        if (size == 3) {
            if (!ea_valid(mode, reg)) return false;
            static const char *const kMulDiv[4] = {"divu.w", "divs.w", "mulu.w", "muls.w"};
            da_ea(k, pc, mode, reg, 1, a);
            snprintf(b, sizeof b, "d%u", rx);
            da_emit(text, kMulDiv[(is_and ? 2 : 0) + ((op >> 8) & 1)], a, b);
            return true;
        }
        if ((op & 0x01F0) == 0x0100) {   // ABCD, SBCD
            if (mode & 1) {
                snprintf(a, sizeof a, "-(a%u)", reg);
                snprintf(b, sizeof b, "-(a%u)", rx);
            } else {
                snprintf(a, sizeof a, "d%u", reg);
                snprintf(b, sizeof b, "d%u", rx);
            }
            da_emit(text, is_and ? "abcd" : "sbcd", a, b);
            return true;
        }
        if (is_and && (op & 0x0130) == 0x0100 && (size == 1 || size == 2)) {   // EXG
            uint32_t opmode = (op >> 3) & 0x1F;
            if (opmode == 0x08) snprintf(a, sizeof a, "d%u", rx), snprintf(b, sizeof b, "d%u", reg);
            else if (opmode == 0x09) snprintf(a, sizeof a, "a%u", rx), snprintf(b, sizeof b, "a%u", reg);
            else if (opmode == 0x11) snprintf(a, sizeof a, "d%u", rx), snprintf(b, sizeof b, "a%u", reg);
            else return false;
            da_emit(text, "exg", a, b);
            return true;
        }
        [[fallthrough]];
    }
    case 0x9:
    case 0xB:
    case 0xD: {
        uint32_t line = op >> 12;
        const char *name = line == 0x8 ? "or" : line == 0x9 ? "sub" : line == 0xB ? "cmp" : line == 0xC ? "and" : "add";
        if (!ea_valid(mode, reg)) return false;
        if (size == 3) {   // SUBA, CMPA, ADDA
            uint32_t sz = (op & 0x0100) ? 2 : 1;
            snprintf(mn, sizeof mn, "%sa.%s", name, da_size_sfx[sz]);
            da_ea(k, pc, mode, reg, sz, a);
            snprintf(b, sizeof b, "a%u", rx);
            da_emit(text, mn, a, b);
            return true;
        }
        if (op & 0x0100) {
            if (line == 0xB && mode == 1) {   // CMPM
                snprintf(mn, sizeof mn, "cmpm.%s", da_size_sfx[size]);
                snprintf(a, sizeof a, "(a%u)+", reg);
                snprintf(b, sizeof b, "(a%u)+", rx);
                da_emit(text, mn, a, b);
                return true;
            }
            if ((line == 0x8 || line == 0xC) && mode < 2) return false;
            if ((line == 0x9 || line == 0xD) && mode < 2) {   // ADDX, SUBX
                snprintf(mn, sizeof mn, "%sx.%s", name, da_size_sfx[size]);
                if (mode) {
                    snprintf(a, sizeof a, "-(a%u)", reg);
                    snprintf(b, sizeof b, "-(a%u)", rx);
                } else {
                    snprintf(a, sizeof a, "d%u", reg);
                    snprintf(b, sizeof b, "d%u", rx);
                }
                da_emit(text, mn, a, b);
                return true;
            }
            snprintf(mn, sizeof mn, "%s.%s", line == 0xB ? "eor" : name, da_size_sfx[size]);
            snprintf(a, sizeof a, "d%u", rx);
            da_ea(k, pc, mode, reg, size, b);
            da_emit(text, mn, a, b);
            return true;
        }
        snprintf(mn, sizeof mn, "%s.%s", name, da_size_sfx[size]);
        da_ea(k, pc, mode, reg, size, a);
        snprintf(b, sizeof b, "d%u", rx);
        da_emit(text, mn, a, b);
        return true;
    }
    case 0xE: {
        static const char *const kShift[4] = {da_names[N_AS], da_ls, da_names[N_ROX], da_ro};
        char dir = (op & 0x0100) ? 'l' : 'r';
        if (size == 3) {
            if (op & 0x0800) {   // bit-field group
                static const char *const kBf[8] = {da_names[N_BFTST], da_bfextu, da_names[N_BFCHG], da_bfexts,
                                                   da_names[N_BFCLR], da_bfffo, da_names[N_BFSET], da_bfins};
                uint32_t ext = da_fetch16(k, pc);
                if (!ea_valid(mode, reg)) return false;
                char ea[kOperandMax], off[12], wid[12];
                da_ea(k, pc, mode, reg, 0, ea);
                if (ext & 0x0800) snprintf(off, sizeof off, "d%u", (ext >> 6) & 7);
                else snprintf(off, sizeof off, "%u", (ext >> 6) & 31);
                if (ext & 0x0020) snprintf(wid, sizeof wid, "d%u", ext & 7);
                else snprintf(wid, sizeof wid, "%u", (ext & 31) ? (ext & 31) : 32);
                if (snprintf(a, sizeof a, "%s{%s:%s}", ea, off, wid) < 0) return false;
                uint32_t kind = (op >> 8) & 7;
                if (kind == 1 || kind == 3 || kind == 5) {
                    snprintf(b, sizeof b, "d%u", (ext >> 12) & 7);
                    da_emit(text, kBf[kind], a, b);
                } else if (kind == 7) {
                    snprintf(b, sizeof b, "d%u", (ext >> 12) & 7);
                    da_emit(text, kBf[kind], b, a);
                } else {
                    da_emit(text, kBf[kind], a, "");
                }
                return true;
            }
            if (!ea_valid(mode, reg) || mode < 2) return false;
            snprintf(mn, sizeof mn, "%s%c.w", kShift[(op >> 9) & 3], dir);
            da_ea(k, pc, mode, reg, 1, a);
            da_emit(text, mn, a, "");
            return true;
        }
        snprintf(mn, sizeof mn, "%s%c.%s", kShift[(op >> 3) & 3], dir, da_size_sfx[size]);
        if (op & 0x20) snprintf(a, sizeof a, "d%u", rx);
        else snprintf(a, sizeof a, "#%u", rx ? rx : 8);
        snprintf(b, sizeof b, "d%u", reg);
        da_emit(text, mn, a, b);
        return true;
    }
    default:
        return false;
    }
}

}  // namespace

uint32_t da_disassemble(kelva *k, uint32_t pc, char *out) {
    uint32_t p = pc;
    uint32_t op = da_fetch16(k, &p);
    if (op >= 0xF000 || !da_decode(k, &p, op, out)) {
        snprintf(out, kTextMax, "dc.w    $%04x", op);
        return 2;
    }
    return p - pc;
}

void trace_format_step(kelva *k, char *out, size_t capacity) {
    char text[kTextMax];
    uint8_t fault = k->fault;   // the decode's reads must not leave a trace
    uint32_t len = da_disassemble(k, k->pc, text);
    size_t n = size_t(snprintf(out, capacity, "%08x: ", k->pc));
    for (uint32_t off = 0; off < 10 && n < capacity; off += 2) {
        if (off < len) n += size_t(snprintf(out + n, capacity - n, "%04x ", read16(k, k->pc + off)));
        else n += size_t(snprintf(out + n, capacity - n, "     "));
    }
    if (n < capacity)
        snprintf(out + n, capacity - n,
                 " %-28s | d %08x %08x %08x %08x %08x %08x %08x %08x  a %08x %08x %08x %08x %08x %08x %08x "
                 "%08x sr %04x\n",
                 text, k->d[0], k->d[1], k->d[2], k->d[3], k->d[4], k->d[5], k->d[6], k->d[7], k->a[0], k->a[1],
                 k->a[2], k->a[3], k->a[4], k->a[5], k->a[6], k->a[7], k->sr);
    k->fault = fault;
}

void trace_print_step(kelva *k) {
    char line[512];
    trace_format_step(k, line, sizeof line);
    fputs(line, stdout);
}
