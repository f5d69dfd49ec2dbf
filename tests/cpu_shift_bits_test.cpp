// Shifts against a bit-serial reference for every count, and the bit, divide
// and CHK cases where this processor deliberately differs from the plain
// 68000 (the rest of their semantics is checked by the single-step vectors,
// ctest cpu_vectors).
#include "cpu_fixture.h"

namespace {

using CpuShift = cpu_test;
using CpuBits = cpu_test;
using CpuMulDiv = cpu_test;

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

TEST_F(CpuBits, StaticBtstOfImmediateTakesTheIllegalPath) {
    vector(4, 0x4000);
    write8(k, 0, 0x00);
    run({0x083C, 0x0001, 0x00FF});   // BTST #1,#imm
    EXPECT_EQ(k->pc, 0x4000u);
    EXPECT_EQ(k->a[7], 0x8000u - 8);
    EXPECT_EQ(read32(k, 0x8000 - 4), 0x1004u);   // after the words fetched so far
    EXPECT_EQ(k->sr & Z, Z);                      // bit 1 of the byte at 0
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
    k->d[0] = uint32_t(-65536);
    run({0x81FC, 2});   // -32768 is the lowest quotient that fits
    EXPECT_EQ(k->d[0], 0x00008000u);
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

}  // namespace
