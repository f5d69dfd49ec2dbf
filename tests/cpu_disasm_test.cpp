// Disassembler texts and the trace line layout.
#include <string>
#include <vector>

#include "cpu_fixture.h"

namespace {

struct CpuDisasm : cpu_test {
    // Text of the instruction made of `words`, placed at 0x1000.
    std::string text(std::initializer_list<uint16_t> words, uint32_t *length = nullptr) {
        k->pc = 0x1000;
        code(words);
        char out[128];
        uint32_t len = da_disassemble(k, 0x1000, out);
        if (length) *length = len;
        return out;
    }
};

TEST_F(CpuDisasm, EveryAddressingMode) {
    EXPECT_EQ(text({0x3001}), "move.w  d1,d0");
    EXPECT_EQ(text({0x3009}), "move.w  a1,d0");
    EXPECT_EQ(text({0x3012}), "move.w  (a2),d0");
    EXPECT_EQ(text({0x301B}), "move.w  (a3)+,d0");
    EXPECT_EQ(text({0x3024}), "move.w  -(a4),d0");
    EXPECT_EQ(text({0x302D, 0xFFF0}), "move.w  -16(a5),d0");
    EXPECT_EQ(text({0x3036, 0x30FE}), "move.w  (-2,a6,d3.w),d0");
    EXPECT_EQ(text({0x3036, 0xA804}), "move.w  (4,a6,a2.l),d0");
    EXPECT_EQ(text({0x3036, 0x2C04}), "move.w  (4,a6,d2.l*4),d0");
    EXPECT_EQ(text({0x3036, 0x2E04}), "move.w  (4,a6,d2.l*8),d0");
    EXPECT_EQ(text({0x3038, 0x8000}), "move.w  $ffff8000.w,d0");
    EXPECT_EQ(text({0x3039, 0x00DF, 0xF096}), "move.w  $dff096.l,d0");
    EXPECT_EQ(text({0x303A, 0x0008}), "move.w  $100a(pc),d0");
    EXPECT_EQ(text({0x303B, 0x5004}), "move.w  (4,pc,d5.w),d0");
    EXPECT_EQ(text({0x103C, 0x1234}), "move.b  #$34,d0");
    EXPECT_EQ(text({0x303C, 0x1234}), "move.w  #$1234,d0");
    EXPECT_EQ(text({0x203C, 0x1234, 0x5678}), "move.l  #$12345678,d0");
    EXPECT_EQ(text({0x2D30, 0x0104}), "move.l  (0,a0,d0.w),-(a6)");
    EXPECT_EQ(text({0x3040}), "movea.w d0,a0");
}

TEST_F(CpuDisasm, FullFormatIndex) {
    EXPECT_EQ(text({0x41F0, 0x01B0, 0x0012, 0x3456}), "lea     (1193046,z,d0.w),a0");
    EXPECT_EQ(text({0x41F0, 0x0160, 0x0010}), "lea     (16,a0),a0");
    uint32_t len = 0;
    text({0x41F0, 0x0122, 0x0004, 0x0002}, &len);   // outer displacement is consumed
    EXPECT_EQ(len, 8u);
}

TEST_F(CpuDisasm, MovemRegisterLists) {
    EXPECT_EQ(text({0x48E7, 0xC0F0}), "movem.l d0-d1/a0-a3,-(a7)");
    EXPECT_EQ(text({0x4CDF, 0x0F03}), "movem.l (a7)+,d0-d1/a0-a3");
    EXPECT_EQ(text({0x48D0, 0x80FF}), "movem.l d0-d7/a7,(a0)");
    EXPECT_EQ(text({0x4C90, 0x0155}), "movem.w (a0),d0/d2/d4/d6/a0");
}

TEST_F(CpuDisasm, BranchTargetsAndConditionNames) {
    EXPECT_EQ(text({0x6004}), "bra     $1006");
    EXPECT_EQ(text({0x61FE}), "bsr     $1000");
    EXPECT_EQ(text({0x6700, 0x0010}), "beq     $1012");
    EXPECT_EQ(text({0x6EFF, 0x0001, 0x0000}), "bgt     $11002");
    EXPECT_EQ(text({0x51C8, 0xFFFE}), "dbf     d0,$1000");
    EXPECT_EQ(text({0x56C9, 0x0004}), "dbne    d1,$1006");
    EXPECT_EQ(text({0x57C0}), "seq     d0");
    EXPECT_EQ(text({0x5FD0}), "sle     (a0)");
    const char *const names[16] = {"t", "f", "hi", "ls", "cc", "cs", "ne", "eq",
                                   "vc", "vs", "pl", "mi", "ge", "lt", "gt", "le"};
    for (uint16_t cc = 2; cc < 16; cc++) {
        std::string want = std::string("b") + names[cc];
        want.resize(7, ' ');
        EXPECT_EQ(text({uint16_t(0x6002 | cc << 8)}), want + " $1004");
    }
}

TEST_F(CpuDisasm, ArithmeticShiftAndSystemForms) {
    EXPECT_EQ(text({0x5E8F}), "addq.l  #7,a7");
    EXPECT_EQ(text({0x5141}), "subq.w  #8,d1");
    EXPECT_EQ(text({0x7CFF}), "moveq   #-1,d6");
    EXPECT_EQ(text({0xD101}), "addx.b  d1,d0");
    EXPECT_EQ(text({0x8308}), "sbcd    -(a0),-(a1)");
    EXPECT_EQ(text({0xB348}), "cmpm.w  (a0)+,(a1)+");
    EXPECT_EQ(text({0xB340}), "eor.w   d1,d0");
    EXPECT_EQ(text({0xD1C8}), "adda.l  a0,a0");
    EXPECT_EQ(text({0x81C0}), "divs.w  d0,d0");
    EXPECT_EQ(text({0xC0C1}), "mulu.w  d1,d0");
    EXPECT_EQ(text({0xC78C}), "exg     d3,a4");
    EXPECT_EQ(text({0xE3A8}), "lsl.l   d1,d0");
    EXPECT_EQ(text({0xE200}), "asr.b   #1,d0");
    EXPECT_EQ(text({0xE050}), "roxr.w  #8,d0");
    EXPECT_EQ(text({0xE7D8}), "rol.w   (a0)+");
    EXPECT_EQ(text({0x0C40, 0x1234}), "cmpi.w  #$1234,d0");
    EXPECT_EQ(text({0x0810, 0x0009}), "btst    #9,(a0)");
    EXPECT_EQ(text({0x03C2}), "bset    d1,d2");
    EXPECT_EQ(text({0x4E56, 0xFFF0}), "link    a6,#-16");
    EXPECT_EQ(text({0x4E43}), "trap    #3");
    EXPECT_EQ(text({0x4E74, 0x0008}), "rtd     #8");
    EXPECT_EQ(text({0x4E72, 0x2700}), "stop    #$2700");
    EXPECT_EQ(text({0x46FC, 0x2700}), "move    #$2700,sr");
    EXPECT_EQ(text({0x40C0}), "move    sr,d0");
    EXPECT_EQ(text({0x4E60}), "move    a0,usp");
    EXPECT_EQ(text({0x003C, 0x001F}), "ori     #$1f,ccr");
    EXPECT_EQ(text({0x4EB9, 0x0020, 0x0000}), "jsr     $200000.l");
    EXPECT_EQ(text({0x4840}), "swap    d0");
    EXPECT_EQ(text({0x4850}), "pea     (a0)");
    EXPECT_EQ(text({0x57D0}), "seq     (a0)");
    EXPECT_EQ(text({0x49C0}), "extb.l  d0");
    EXPECT_EQ(text({0x4E75}), "rts");
    EXPECT_EQ(text({0x4E71}), "nop");
}

TEST_F(CpuDisasm, InstructionsTheProcessorDoesNotExecute) {
    EXPECT_EQ(text({0x4800}), "nbcd    d0");
    EXPECT_EQ(text({0x0188, 0x0010}), "movep.w d0,16(a0)");
    EXPECT_EQ(text({0xE8C0, 0x0105}), "bftst   d0{4:5}");
}

TEST_F(CpuDisasm, UnrecognisedWordsPrintAsData) {
    uint32_t len = 0;
    EXPECT_EQ(text({0xF123}, &len), "dc.w    $f123");
    EXPECT_EQ(len, 2u);
    EXPECT_EQ(text({0x7100}), "dc.w    $7100");   // MOVEQ with bit 8 set
    EXPECT_EQ(text({0x4C00, 0x0000}), "dc.w    $4c00");
}

TEST_F(CpuDisasm, TraceLineLayout) {
    k->pc = 0x1000;
    code({0xF123});
    k->d[0] = 0x11111111;
    k->a[7] = 0x00EEFFFC;
    char line[512];
    trace_format_step(k, line, sizeof line);
    std::string want = "00001000: f123                      dc.w    $f123                | d 11111111 00000000 "
                       "00000000 00000000 00000000 00000000 00000000 00000000  a 00000000 00000000 00000000 "
                       "00000000 00000000 00000000 00000000 00eefffc sr 2700\n";
    EXPECT_EQ(std::string(line), want);

    code({0x4EB9, 0x0020, 0x0000});   // three words: three slots and two blank ones
    trace_format_step(k, line, sizeof line);
    EXPECT_EQ(std::string(line).substr(0, 69),
              "00001000: 4eb9 0020 0000            jsr     $200000.l            | d ");
    EXPECT_EQ(k->pc, 0x1000u);   // the trace changes no state
}

}  // namespace
