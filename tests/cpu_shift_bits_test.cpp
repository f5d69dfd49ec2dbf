// Shifts and rotates, bit operations, BCD, multiply/divide, CHK and MOVEM.
#include "cpu_fixture.h"

namespace {

using CpuShift = cpu_test;
using CpuBits = cpu_test;
using CpuBcd = cpu_test;
using CpuMulDiv = cpu_test;
using CpuMovem = cpu_test;

// Bit-serial reference for every count 0..63, written independently of the
// arithmetic version in the processor.
uint32_t ref_shift(uint32_t v, uint32_t count, int size, int type, int left, uint32_t *ccr_io) {
    uint32_t width = 8u << size;
    uint32_t mask = width == 32 ? 0xFFFFFFFFu : (1u << width) - 1;
    uint32_t msb = 1u << (width - 1);
    v &= mask;
    uint32_t x = (*ccr_io >> 4) & 1, c = 0, vf = 0;
    if (count == 0 && type == 2) c = x;
    for (uint32_t i = 0; i < count; i++) {
        if (left) {
            uint32_t out = (v & msb) ? 1 : 0;
            uint32_t in = type == 2 ? x : type == 3 ? out : 0;
            uint32_t nv = ((v << 1) | in) & mask;
            if (type == 0 && ((nv ^ v) & msb)) vf = 1;
            v = nv;
            c = out;
        } else {
            uint32_t out = v & 1;
            uint32_t in = type == 0 ? ((v & msb) ? 1 : 0) : type == 2 ? x : type == 3 ? out : 0;
            v = (v >> 1) | (in ? msb : 0);
            c = out;
        }
        if (type != 3) x = c;
    }
    uint32_t f = (c ? C : 0) | (vf ? V : 0) | (v == 0 ? Z : 0) | ((v & msb) ? N : 0) | (x ? X : 0);
    *ccr_io = f;
    return v;
}

TEST_F(CpuShift, EveryCountMatchesTheBitSerialRule) {
    const uint32_t values[] = {0x00000000, 0x00000001, 0x80000000, 0xFFFFFFFF, 0x40000081,
                               0x12345678, 0x87654321, 0x00007F80, 0x0000C001, 0xAAAA5555};
    for (int size = 0; size < 3; size++)
        for (int type = 0; type < 4; type++)
            for (int left = 0; left < 2; left++)
                for (uint32_t v : values)
                    for (uint32_t count = 0; count < 64; count++)
                        for (uint32_t xin = 0; xin < 2; xin++) {
                            k->sr = uint16_t(0x2700 | (xin ? X : 0) | V);
                            uint32_t got = shift_compute(k, v, count, size, type, left);
                            uint32_t ref_ccr = xin ? X : 0;
                            uint32_t want = ref_shift(v, count, size, type, left, &ref_ccr);
                            ASSERT_EQ(got, want) << "size " << size << " type " << type << " left " << left
                                                 << " v " << std::hex << v << " count " << std::dec << count;
                            ASSERT_EQ(k->sr & 0x1F, ref_ccr)
                                << "size " << size << " type " << type << " left " << left << " v " << std::hex
                                << v << " count " << std::dec << count << " x " << xin;
                        }
}

TEST_F(CpuShift, RegisterCountsModulo64) {
    k->d[0] = 0xFFFFFFFF;
    k->d[1] = 40;
    run({0xE3A8});   // LSL.L D1,D0
    EXPECT_EQ(k->d[0], 0u);
    EXPECT_EQ(ccr(), Z);
    k->d[0] = 0x00000001;
    k->d[1] = 32 + 64;   // modulo 64: 32
    run({0xE3A8});
    EXPECT_EQ(k->d[0], 0u);
    EXPECT_EQ(ccr(), X | Z | C);
}

TEST_F(CpuShift, ImmediateCountsAndSizes) {
    k->d[0] = 0xFFFFFF40;
    run({0xE300});   // ASL.B #1,D0
    EXPECT_EQ(k->d[0], 0xFFFFFF80u);
    EXPECT_EQ(ccr(), N | V);
    k->d[0] = 0x81;
    run({0xE200});   // ASR.B #1,D0
    EXPECT_EQ(k->d[0], 0xC0u);
    EXPECT_EQ(ccr(), X | N | C);
    k->d[0] = 0x12340001;
    run({0xE048});   // LSR.W #8,D0 (count field 0 = 8)
    EXPECT_EQ(k->d[0], 0x12340000u);
    EXPECT_EQ(ccr(), Z);
}

TEST_F(CpuShift, RoxrWithCountZeroCopiesX) {
    k->d[0] = 0x1234;
    k->d[1] = 0;
    set_ccr_bits(X);
    run({0xE270});   // ROXR.W D1,D0
    EXPECT_EQ(k->d[0], 0x1234u);
    EXPECT_EQ(ccr(), X | C);
}

TEST_F(CpuShift, MemoryShiftIsOneWordBitOne) {
    k->a[0] = 0x2000;
    write16(k, 0x2000, 0x8001);
    run({0xE7D8});   // ROL.W (A0)+
    EXPECT_EQ(read16(k, 0x2000), 0x0003u);
    EXPECT_EQ(k->a[0], 0x2002u);
    EXPECT_EQ(ccr(), C);
}

TEST_F(CpuBits, RegisterModulo32MemoryModulo8) {
    k->d[0] = 0x2;
    run({0x0800, 33});   // BTST #33,D0 tests bit 1
    EXPECT_EQ(ccr(), 0);
    k->a[0] = 0x2000;
    write8(k, 0x2000, 0x02);
    run({0x0810, 9});   // BTST #9,(A0) tests bit 1
    EXPECT_EQ(ccr(), 0);
    run({0x0890, 9});   // BCLR #9,(A0)
    EXPECT_EQ(read8(k, 0x2000), 0u);
    EXPECT_EQ(ccr(), 0);
    run({0x0890, 9});
    EXPECT_EQ(ccr(), Z);
}

TEST_F(CpuBits, DynamicForms) {
    k->d[1] = 31;
    k->d[2] = 0;
    set_ccr_bits(X | N | V | C);
    run({0x03C2});   // BSET D1,D2
    EXPECT_EQ(k->d[2], 0x80000000u);
    EXPECT_EQ(ccr(), X | N | Z | V | C);
    run({0x0342});   // BCHG D1,D2
    EXPECT_EQ(k->d[2], 0u);
    EXPECT_EQ(ccr(), X | N | V | C);
    run({0x033C, 0x0080});   // BTST D1,#$80: bit 31 mod 8 = 7
    EXPECT_EQ(ccr(), X | N | V | C);
    EXPECT_EQ(k->pc, 0x1008u);
}

TEST_F(CpuBits, StaticBtstOfImmediateTakesTheIllegalPath) {
    vector(4, 0x4000);
    write8(k, 0, 0x00);
    run({0x083C, 0x0001, 0x00FF});   // BTST #1,#imm
    EXPECT_EQ(k->pc, 0x4000u);
    EXPECT_EQ(k->a[7], 0x8000u - 8);
    EXPECT_EQ(read32(k, 0x8000 - 4), 0x1004u);   // after the words fetched so far
    EXPECT_EQ(k->sr & Z, Z);                      // bit 1 of the byte at 0
}

TEST_F(CpuBcd, AbcdRules) {
    k->d[0] = 0x45;
    k->d[1] = 0x55;
    set_ccr_bits(Z | V);
    run({0xC101});   // ABCD D1,D0
    EXPECT_EQ(k->d[0] & 0xFF, 0x00u);
    EXPECT_EQ(ccr(), X | V | C);   // Z cleared, V kept
    k->d[0] = 0x19;
    k->d[1] = 0x01;
    set_ccr_bits(X);
    run({0xC101});   // 19 + 01 + 1 = 21
    EXPECT_EQ(k->d[0] & 0xFF, 0x21u);
    EXPECT_EQ(ccr(), 0);
}

TEST_F(CpuBcd, SbcdRules) {
    k->d[0] = 0x10;
    k->d[1] = 0x01;
    run({0x8101});   // SBCD D1,D0
    EXPECT_EQ(k->d[0] & 0xFF, 0x09u);
    EXPECT_EQ(ccr(), 0);
    k->d[0] = 0x00;
    k->d[1] = 0x01;
    set_ccr_bits(Z);
    run({0x8101});   // 00 - 01 = 99, borrow
    EXPECT_EQ(k->d[0] & 0xFF, 0x99u);
    EXPECT_EQ(ccr(), X | N | C);
    k->a[0] = 0x2001;
    k->a[1] = 0x3001;
    write8(k, 0x2000, 0x05);
    write8(k, 0x3000, 0x12);
    set_ccr_bits(0);
    run({0x8308});   // SBCD -(A0),-(A1)
    EXPECT_EQ(read8(k, 0x3000), 0x07u);
    EXPECT_EQ(k->a[0], 0x2000u);
    EXPECT_EQ(k->a[1], 0x3000u);
}

TEST_F(CpuMulDiv, Multiply) {
    k->d[0] = 0xFFFF;
    k->d[1] = 0x12340002;
    set_ccr_bits(X | V | C);
    run({0xC0C1});   // MULU.W D1,D0
    EXPECT_EQ(k->d[0], 0x1FFFEu);
    EXPECT_EQ(ccr(), X);
    k->d[0] = 0xFFFF;   // -1
    run({0xC1C1});      // MULS.W D1,D0: -1 * 2
    EXPECT_EQ(k->d[0], 0xFFFFFFFEu);
    EXPECT_EQ(ccr(), X | N);
}

TEST_F(CpuMulDiv, DivideUnsigned) {
    k->d[0] = 7;
    run({0x80FC, 2});   // DIVU.W #2,D0
    EXPECT_EQ(k->d[0], 0x00010003u);
    EXPECT_EQ(ccr(), 0);
    k->d[0] = 0x00020000;
    set_ccr_bits(N | Z | C | X);
    run({0x80FC, 1});   // overflow: only V set
    EXPECT_EQ(k->d[0], 0x00020000u);
    EXPECT_EQ(ccr(), X | N | Z | V | C);
}

TEST_F(CpuMulDiv, DivideSigned) {
    k->d[0] = uint32_t(-7);
    run({0x81FC, 2});   // DIVS.W #2,D0: -3 remainder -1
    EXPECT_EQ(k->d[0], 0xFFFFFFFDu);
    EXPECT_EQ(ccr(), N);
    k->d[0] = 0x80000000;
    set_ccr_bits(0);
    run({0x81FC, 0xFFFF});   // 0x80000000 / -1 must not trap the host
    EXPECT_EQ(k->d[0], 0x80000000u);
    EXPECT_EQ(ccr(), V);
}

TEST_F(CpuMulDiv, DivideByZeroTrapsAfterTheDivisorWords) {
    vector(5, 0x4000);
    k->d[0] = 1234;
    set_ccr_bits(N | C);
    run({0x80F9, 0x0000, 0x3000});   // DIVU.W $3000.L,D0 with a zero word there
    EXPECT_EQ(k->pc, 0x4000u);
    EXPECT_EQ(k->d[0], 1234u);
    EXPECT_EQ(read16(k, k->a[7]), 5u * 4);
    EXPECT_EQ(read16(k, k->a[7] + 2), 0x2709u);
    EXPECT_EQ(read32(k, k->a[7] + 4), 0x1006u);
}

TEST_F(CpuMulDiv, ChkBounds) {
    vector(6, 0x4000);
    k->d[0] = 5;
    set_ccr_bits(Z | V | C);
    run({0x41BC, 5});   // CHK.W #5,D0: in bounds
    EXPECT_EQ(k->pc, 0x1004u);
    EXPECT_EQ(ccr(), Z | V | C);
    k->d[0] = 6;
    run({0x41BC, 5});
    EXPECT_EQ(k->pc, 0x4000u);
    EXPECT_EQ(read16(k, k->a[7] + 2) & 0x1F, uint32_t(Z | V | C));   // N = 0, others kept
    k->pc = 0x1000;
    k->d[0] = 0xFFFF;
    run({0x41BC, 5});
    EXPECT_EQ(read16(k, k->a[7] + 2) & 0x1F, uint32_t(N | Z | V | C));
}

TEST_F(CpuMovem, PredecrementOrderAndFinalAddress) {
    k->d[0] = 0xD0;
    k->d[1] = 0xD1;
    k->a[0] = 0xA0;
    k->a[7] = 0x5000;
    run({0x48E7, 0xC080});   // MOVEM.L D0-D1/A0,-(A7)
    EXPECT_EQ(read32(k, 0x4FFC), 0xA0u);
    EXPECT_EQ(read32(k, 0x4FF8), 0xD1u);
    EXPECT_EQ(read32(k, 0x4FF4), 0xD0u);
    EXPECT_EQ(k->a[7], 0x4FF4u);
}

TEST_F(CpuMovem, PredecrementStoresTheBaseRegistersOldValue) {
    k->a[2] = 0x3000;
    run({0x48A2, 0x0020});   // MOVEM.W A2,-(A2)
    EXPECT_EQ(read16(k, 0x2FFE), 0x3000u);
    EXPECT_EQ(k->a[2], 0x2FFEu);
}

TEST_F(CpuMovem, LoadsSignExtendWordsAndPostincrementWins) {
    k->a[0] = 0x2000;
    write16(k, 0x2000, 0x8001);
    write16(k, 0x2002, 0x1234);
    write16(k, 0x2004, 0x7777);
    run({0x4C98, 0x0101});   // MOVEM.W (A0)+,D0/A0
    EXPECT_EQ(k->d[0], 0xFFFF8001u);
    EXPECT_EQ(k->a[0], 0x2004u);   // final address overrides the loaded value
    k->a[1] = 0x2000;
    run({0x4CD1, 0x0006});   // MOVEM.L (A1),D1-D2
    EXPECT_EQ(k->d[1], 0x80011234u);
    EXPECT_EQ(k->d[2], 0x77770000u);
    EXPECT_EQ(k->a[1], 0x2000u);
}

TEST_F(CpuMovem, ControlModeStoresAscending) {
    k->a[3] = 0x2000;
    k->d[7] = 0x77;
    k->a[6] = 0x66;
    run({0x48EB, 0x4080, 0x0010});   // MOVEM.L D7/A6,(16,A3)
    EXPECT_EQ(read32(k, 0x2010), 0x77u);
    EXPECT_EQ(read32(k, 0x2014), 0x66u);
    EXPECT_EQ(k->pc, 0x1006u);
}

}  // namespace
