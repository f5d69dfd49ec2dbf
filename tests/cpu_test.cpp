// The processor beyond the 68000 the single-step vectors (ctest cpu_vectors) check: 68010/68020 forms, SR bits,
// exception frames, divide and CHK flags, the opcode table, step costs, the disassembler and the trace.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "cpu/cpu.h"
#include "support/services.h"
#include "support/test_support.h"

namespace {

constexpr uint16_t X = kSrX, N = kSrN, Z = kSrZ, V = kSrV, C = kSrC;
using U = std::vector<uint32_t>;
using W = std::vector<uint16_t>;

// A fresh engine (registers zero), code at $1000, supervisor mode with the stack at $8000.
struct Cpu : testing::Test {
    engine_ptr engine = make_engine();
    kelva *k = engine.get();
    void SetUp() override {
        k->a[7] = 0x8000;
        k->usp = 0x6000;
        k->sr = 0x2700;
        k->pc = 0x1000;
    }
    // Places words at PC (the next instruction).
    void code(const W &words) { put_code(k, k->pc, words); }
    // One instruction at $1000.
    void run(const W &words) {
        k->pc = 0x1000;
        code(words);
        cpu_step(k);
    }
    uint16_t ccr() const { return k->sr & 0x1F; }
    void set_ccr(uint16_t f) { k->sr = uint16_t((k->sr & 0xFF00) | f); }
    void vector(int v, uint32_t handler) { write32(k, k->vbr + uint32_t(v) * 4, handler); }
    // The exception frame at A7: format/vector word, SR, PC.
    void expect_frame(uint32_t vec, uint32_t sr_mask, uint32_t sr, uint32_t pc) {
        uint32_t sp = k->a[7];
        EXPECT_EQ((U{read16(k, sp), read16(k, sp + 2) & sr_mask, read32(k, sp + 4)}), (U{vec * 4, sr, pc}));
    }
};

TEST_F(Cpu, ScaledAndFullFormatIndexes) {
    k->a[0] = 0x1000;
    k->d[2] = 3;
    run({0x43F0, 0x2A04});   // LEA (4,A0,D2.L*2),A1
    EXPECT_EQ(k->a[1], 0x100Au);
    run({0x41F0, 0x01B0, 0x0012, 0x3456});   // base suppressed, long displacement
    EXPECT_EQ((U{k->a[0], k->pc}), (U{0x00123456, 0x1008}));
    k->d[0] = 5;
    run({0x43F0, 0x01F0, 0x0000, 0x4000});   // base and index suppressed
    EXPECT_EQ(k->a[1], 0x4000u);
    // Memory indirection (word outer displacement): pre-indexed [A2 + 4 + D1] + 2, post-indexed [A2 + 4] + D1 + 2.
    k->a[2] = 0x2000;
    k->d[1] = 4;
    put_code(k, 0x2004, {0, 0x6000, 0, 0x5000});
    run({0x47F2, 0x1122, 0x0004, 0x0002});   // LEA ([4,A2,D1.W],2),A3
    EXPECT_EQ(k->a[3], 0x5002u);
    run({0x49F2, 0x1126, 0x0004, 0x0002});   // LEA ([4,A2],D1.W,2),A4
    EXPECT_EQ(k->a[4], 0x6006u);
}

TEST_F(Cpu, CcrAndSrFormsKeepTheirBits) {
    const std::pair<std::vector<uint16_t>, uint16_t> steps[] = {
        {{0x44FC, 0x00FF}, 0x27FF},   // MOVE.W #$FF,CCR: all eight bits
        {{0x023C, 0x00E0}, 0x27E0},   // ANDI.B #$E0,CCR
        {{0x003C, 0x0001}, 0x27E1},   // ORI.B #1,CCR
        {{0x0A3C, 0x0021}, 0x27C0},   // EORI.B #$21,CCR
        {{0x46FC, 0xFFFF}, 0xF71F},   // MOVE #$FFFF,SR keeps T1, T0 and M
    };
    for (const auto &[words, sr] : steps) {
        run(words);
        EXPECT_EQ(k->sr, sr) << std::hex << words[0];
    }
    k->sr = 0x27C0;
    k->d[0] = 0xFFFFFFFF;
    run({0x42C0});   // MOVE CCR,D0
    run({0x46FC, 0x0000});   // to user mode: the stacks are exchanged
    EXPECT_EQ((U{k->d[0], k->ssp, k->a[7]}), (U{0xFFFF00C0, 0x8000, 0x6000}));
}

TEST_F(Cpu, LongBranchesRtdAndLinkLong) {
    run({0x60FF, 0x0001, 0x0000});   // BRA.L +$10000
    EXPECT_EQ(k->pc, 0x11002u);
    set_ccr(Z);
    run({0x67FF, 0x0000, 0x0100});   // BEQ.L taken
    EXPECT_EQ(k->pc, 0x1102u);
    run({0x66FF, 0x0000, 0x0100});   // BNE.L not taken: skips the long
    EXPECT_EQ(k->pc, 0x1006u);
    k->a[7] = 0x7FFC;
    write32(k, 0x7FFC, 0x1234);
    run({0x4E74, 0x0008});   // RTD #8 pops the return address and the displacement
    EXPECT_EQ((U{k->pc, k->a[7]}), (U{0x1234, 0x8008}));
    k->a[6] = 0x11111111;
    run({0x480E, 0xFFFF, 0xFF00});   // LINK.L A6,#-256
    EXPECT_EQ((U{read32(k, 0x8004), k->a[6], k->a[7]}), (U{0x11111111, 0x8004, 0x8004 - 256}));
}

TEST_F(Cpu, ExceptionEntryFrameAndFault) {
    k->sr = 0xD71F;   // T1, T0, M, IPL 7, all flags
    k->fault = 2;
    vector(32, 0x4000);
    run({0x4E40});   // TRAP #0: trace cleared, M kept, the fault cleared by the entry
    EXPECT_EQ(k->sr, 0x371Fu);
    expect_frame(32, 0xFFFF, 0xD71F, 0x1002);
    EXPECT_EQ(k->fault, 0);
    // ILLEGAL, NBCD (not implemented) and line F stack the PC behind the word.
    vector(4, 0x5000);
    vector(11, 0x6000);
    for (auto [op, vec, handler] : {std::tuple{0x4AFC, 4, 0x5000}, std::tuple{0x4800, 4, 0x5000},
                                    std::tuple{0xF123, 11, 0x6000}}) {
        k->a[7] = 0x8000;
        run({uint16_t(op)});
        EXPECT_EQ(k->pc, uint32_t(handler)) << std::hex << op;
        expect_frame(uint32_t(vec), 0, 0, 0x1002);
    }
}

TEST_F(Cpu, RteFormatErrorStopAndStaticBtstOfImmediate) {
    k->a[7] = 0x3000;
    put_code(k, 0x3000, {0x1000, 0x2000, 0, 0x5555});
    vector(14, 0x4000);
    run({0x4E73});
    EXPECT_EQ((U{k->pc, k->a[7], read16(k, 0x3000), read32(k, 0x3004)}), (U{0x4000, 0x3000 - 8, 0x1000, 0x5555}));
    expect_frame(14, 0, 0, 0x1002);
    k->a[7] = 0x8000;
    vector(4, 0x4000);
    run({0x083C, 0x0001, 0x00FF});   // BTST #1,#imm: Z from bit 1 of the byte at 0, the PC after the words fetched
    EXPECT_EQ((U{k->pc, k->a[7], read32(k, 0x8000 - 4), uint32_t(k->sr & Z)}), (U{0x4000, 0x8000 - 8, 0x1004, Z}));
    run({0x4E72, 0x2704, 0x7005});   // STOP #$2704 sets the flag; MOVEQ #5,D0 still runs
    EXPECT_EQ((U{uint32_t(k->stopped), k->sr, k->pc}), (U{1, 0x2704, 0x1004}));
    cpu_step(k);
    EXPECT_EQ(k->d[0], 5u);
}

// One instruction on D1: the result and the whole CCR.
TEST_F(Cpu, RegisterFormsDivideBoundariesAndCheckBounds) {
    const struct { W words; uint32_t d1; uint16_t ccr_in; uint32_t want; uint16_t want_ccr; } rows[] = {
        {{0x49C1}, 0x1234567F, N, 0x7F, 0}, {{0x49C1}, 0x00000080, 0, 0xFFFFFF80, N},   // EXTB.L D1
        // NEGX.B D1: a zero result sets Z even when it was clear, and clears X/C.
        {{0x4001}, 0, 0, 0, Z}, {{0x4001}, 0xFF, X, 0, Z},
        {{0x42C1}, 0xFFFFFFFF, X | C, 0xFFFF0011, X | C},   // MOVE CCR,D1 keeps the high word
        {{0x82FC, 1}, 0x00020000, N | Z | C | X, 0x00020000, X | N | Z | V | C},   // DIVU overflow: V set, others kept
        {{0x83FC, 2}, uint32_t(-65536), 0, 0x00008000, N},   // DIVS: -32768 is the lowest quotient that fits
        {{0x83FC, 0xFFFF}, 0x80000000, 0, 0x80000000, V},    // $80000000 / -1 must not trap the host
    };
    for (const auto &r : rows) {
        k->d[1] = r.d1;
        set_ccr(r.ccr_in);
        run(r.words);
        EXPECT_EQ((U{k->d[1], ccr()}), (U{r.want, r.want_ccr})) << std::hex << r.words[0] << " " << r.d1;
    }
    vector(5, 0x4000);
    for (uint16_t op : {0x80F9, 0x81F9}) {   // DIVU/DIVS.W $3000.L,D0 with a zero word there: traps after the words
        k->a[7] = 0x8000;
        k->d[0] = 1234;
        set_ccr(N | C);
        run({op, 0x0000, 0x3000});
        EXPECT_EQ((U{k->pc, k->d[0]}), (U{0x4000, 1234})) << std::hex << op;
        expect_frame(5, 0xFFFF, 0x2709, 0x1006);
    }
    k->d[0] = 5;   // CHK.W #5,D0 in bounds changes no flag
    set_ccr(Z | V | C);
    run({0x41BC, 5});
    EXPECT_EQ((U{k->pc, ccr()}), (U{0x1004, Z | V | C}));
}

TEST_F(Cpu, OpcodeTableCensusAndSpotEntries) {
    auto count_of = [](op_handler h) { return size_t(std::count(op_table, op_table + 65536, h)); };
    // Any decoding change moves these counts.
    EXPECT_EQ((std::vector<size_t>{count_of(nullptr), count_of(op_illegal), count_of(op_line_a), count_of(op_line_f)}),
              (std::vector<size_t>{0, 11713, 4096, 4096}));
    for (uint16_t op : {0x4AFC /* ILLEGAL */, 0x4800 /* NBCD D0 */, 0x1040 /* MOVE.B to An */, 0x4A3C /* TST.B #imm */,
                        0x0C3A /* CMPI.B to (d16,PC) */, 0x7100 /* MOVEQ with bit 8 set */, 0x0108 /* MOVEP */,
                        0x4100 /* CHK.L */, 0x4E7A, 0x4E7B /* MOVEC */, 0x4C00 /* MULU.L */, 0x4C7F /* DIVU.L */,
                        0xE8C0 /* BFTST */, 0xEFFF /* BFINS */, 0xC048 /* AND.W A0,D0 */, 0x8088 /* OR.L A0,D0 */})
        EXPECT_EQ(op_table[op], op_illegal) << std::hex << op;
    // Static BTST with #imm and BCHG #n,(d16,PC): wider than the 68000.
    EXPECT_TRUE(op_table[0xA123] == op_line_a && op_table[0xF200] == op_line_f && op_table[0x083C] == op_btst_stat &&
                op_table[0x087A] == op_bchg_stat);
    // A second initialisation does not rebuild the table.
    op_table[0x4E71] = op_illegal;
    kelva_global_init();
    EXPECT_EQ(op_table[0x4E71], op_illegal);
    op_table[0x4E71] = op_nop;
}

// A step costs 4 cycles plus the 68000's address time of a word operand in the opcode's low six bits.
TEST_F(Cpu, StepCost) {
    const uint32_t ea_time[] = {0, 0, 4, 4, 6, 8, 10};        // Dn An (An) (An)+ -(An) (d16,An) (d8,An,Xn)
    const uint32_t ea_time7[] = {8, 12, 8, 10, 4};            // abs.W abs.L (d16,PC) (d8,PC,Xn) #imm
    for (uint32_t ea = 0; ea < 61; ea++)
        EXPECT_EQ(cpu_step_cost[ea], 4 + (ea < 56 ? ea_time[ea >> 3] : ea_time7[ea & 7])) << ea;
    run({0x4E71});   // NOP: mode 6
    EXPECT_EQ((U{uint32_t(k->cycles), k->pc}), (U{14, 0x1002}));
    run({0x6000, 0x0010});   // BRA.W
    EXPECT_EQ((U{uint32_t(k->cycles), k->pc}), (U{18, 0x1012}));
}

struct CpuDisasm : Cpu {
    uint32_t len = 0;
    // Text of the instruction made of `words`, placed at $1000; its length in len.
    std::string text(const W &words) {
        code(words);
        char out[128];
        len = da_disassemble(k, 0x1000, out);
        return out;
    }
};

TEST_F(CpuDisasm, Texts) {
    const std::pair<std::vector<uint16_t>, const char *> cases[] = {
        // Every addressing mode.
        {{0x3001}, "move.w  d1,d0"}, {{0x3009}, "move.w  a1,d0"}, {{0x3012}, "move.w  (a2),d0"},
        {{0x301B}, "move.w  (a3)+,d0"}, {{0x3024}, "move.w  -(a4),d0"}, {{0x302D, 0xFFF0}, "move.w  -16(a5),d0"},
        {{0x3036, 0x30FE}, "move.w  (-2,a6,d3.w),d0"}, {{0x3036, 0xA804}, "move.w  (4,a6,a2.l),d0"},
        {{0x3036, 0x2C04}, "move.w  (4,a6,d2.l*4),d0"}, {{0x3036, 0x2E04}, "move.w  (4,a6,d2.l*8),d0"},
        {{0x3038, 0x8000}, "move.w  $ffff8000.w,d0"}, {{0x3039, 0x00DF, 0xF096}, "move.w  $dff096.l,d0"},
        {{0x303A, 0x0008}, "move.w  $100a(pc),d0"}, {{0x303B, 0x5004}, "move.w  (4,pc,d5.w),d0"},
        {{0x103C, 0x1234}, "move.b  #$34,d0"}, {{0x303C, 0x1234}, "move.w  #$1234,d0"},
        {{0x203C, 0x1234, 0x5678}, "move.l  #$12345678,d0"}, {{0x2D30, 0x0104}, "move.l  (0,a0,d0.w),-(a6)"},
        {{0x3040}, "movea.w d0,a0"}, {{0x41F0, 0x01B0, 0x0012, 0x3456}, "lea     (1193046,z,d0.w),a0"},
        {{0x41F0, 0x0160, 0x0010}, "lea     (16,a0),a0"},
        // Register lists.
        {{0x48E7, 0xC0F0}, "movem.l d0-d1/a0-a3,-(a7)"}, {{0x4CDF, 0x0F03}, "movem.l (a7)+,d0-d1/a0-a3"},
        {{0x48D0, 0x80FF}, "movem.l d0-d7/a7,(a0)"}, {{0x4C90, 0x0155}, "movem.w (a0),d0/d2/d4/d6/a0"},
        // Branch targets.
        {{0x6004}, "bra     $1006"}, {{0x61FE}, "bsr     $1000"}, {{0x6700, 0x0010}, "beq     $1012"},
        {{0x6EFF, 0x0001, 0x0000}, "bgt     $11002"}, {{0x51C8, 0xFFFE}, "dbf     d0,$1000"},
        {{0x56C9, 0x0004}, "dbne    d1,$1006"}, {{0x57C0}, "seq     d0"}, {{0x5FD0}, "sle     (a0)"},
        // Arithmetic, shift and system forms.
        {{0x5E8F}, "addq.l  #7,a7"}, {{0x5141}, "subq.w  #8,d1"}, {{0x7CFF}, "moveq   #-1,d6"},
        {{0xD101}, "addx.b  d1,d0"}, {{0x8308}, "sbcd    -(a0),-(a1)"}, {{0xB348}, "cmpm.w  (a0)+,(a1)+"},
        {{0xB340}, "eor.w   d1,d0"}, {{0xD1C8}, "adda.l  a0,a0"}, {{0x81C0}, "divs.w  d0,d0"},
        {{0xC0C1}, "mulu.w  d1,d0"}, {{0xC78C}, "exg     d3,a4"}, {{0xE3A8}, "lsl.l   d1,d0"},
        {{0xE200}, "asr.b   #1,d0"}, {{0xE050}, "roxr.w  #8,d0"}, {{0xE7D8}, "rol.w   (a0)+"},
        {{0x0C40, 0x1234}, "cmpi.w  #$1234,d0"}, {{0x0810, 0x0009}, "btst    #9,(a0)"}, {{0x03C2}, "bset    d1,d2"},
        {{0x4E56, 0xFFF0}, "link    a6,#-16"}, {{0x4E43}, "trap    #3"}, {{0x4E74, 0x0008}, "rtd     #8"},
        {{0x4E72, 0x2700}, "stop    #$2700"}, {{0x46FC, 0x2700}, "move    #$2700,sr"}, {{0x40C0}, "move    sr,d0"},
        {{0x4E60}, "move    a0,usp"}, {{0x003C, 0x001F}, "ori     #$1f,ccr"},
        {{0x4EB9, 0x0020, 0x0000}, "jsr     $200000.l"},
        {{0x4840}, "swap    d0"}, {{0x4850}, "pea     (a0)"}, {{0x57D0}, "seq     (a0)"}, {{0x49C0}, "extb.l  d0"},
        {{0x4E75}, "rts"}, {{0x4E71}, "nop"}, {{0x4240}, "clr.w   d0"}, {{0x4A90}, "tst.l   (a0)"},
        {{0x4AD0}, "tas     (a0)"}, {{0xD250}, "add.w   (a0),d1"},
        // Instructions the processor does not execute, and words that are none.
        {{0x4800}, "nbcd    d0"}, {{0x0188, 0x0010}, "movep.w d0,16(a0)"}, {{0xE8C0, 0x0105}, "bftst   d0{4:5}"},
        {{0xE9C0, 0x2105}, "bfextu  d0{4:5},d2"},
        {{0xF123}, "dc.w    $f123"}, {{0x7100}, "dc.w    $7100"}, {{0x4C00, 0x0000}, "dc.w    $4c00"},
    };
    for (const auto &[words, want] : cases) EXPECT_EQ(text(words), want) << std::hex << words[0];
    const char *const conditions = "hilscccsneeqvcvsplmigeltgtle";   // Bcc for condition 2 to 15
    for (uint16_t cc = 2; cc < 16; cc++)
        EXPECT_EQ(text({uint16_t(0x6002 | cc << 8)}), "b" + std::string(conditions + 2 * cc - 4, 2) + "     $1004");
    text({0x41F0, 0x0122, 0x0004, 0x0002});   // the outer displacement is consumed
    EXPECT_EQ(len, 8u);
    text({0xF123});
    EXPECT_EQ(len, 2u);
}

TEST_F(CpuDisasm, TraceLineLayout) {
    code({0xF123});
    for (uint32_t i = 0; i < 8; i++) k->d[i] = 0xD0000000 + i, k->a[i] = 0xA0000000 + i;
    k->a[7] = 0x00EEFFFC;
    char line[512];
    trace_format_step(k, line, sizeof line);
    EXPECT_EQ(std::string(line),
              "00001000: f123                      dc.w    $f123                | d d0000000 d0000001 "
              "d0000002 d0000003 d0000004 d0000005 d0000006 d0000007  a a0000000 a0000001 a0000002 "
              "a0000003 a0000004 a0000005 a0000006 00eefffc sr 2700\n");
    code({0x4EB9, 0x0020, 0x0000});   // three words: three slots and two blank ones
    trace_format_step(k, line, sizeof line);
    EXPECT_EQ(std::string(line).substr(0, 69), "00001000: 4eb9 0020 0000            jsr     $200000.l            | d ");
    EXPECT_EQ(k->pc, 0x1000u);   // the trace changes no state
}

}  // namespace
