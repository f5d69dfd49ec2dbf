// Data instructions where this processor goes beyond or deliberately differs
// from the plain 68000 (the 68000 semantics themselves are checked case by
// case by the single-step vectors, ctest cpu_vectors): scaled and full-format
// index words, EXTB.L, MOVE from CCR, the unmasked CCR byte and the NEGX rule.
#include "cpu_fixture.h"

namespace {

using CpuAddressing = cpu_test;
using CpuData = cpu_test;

TEST_F(CpuAddressing, BriefIndexWithScale) {
    k->a[0] = 0x1000;
    k->d[2] = 3;
    run({0x43F0, 0x2A04});   // LEA (4,A0,D2.L*2),A1
    EXPECT_EQ(k->a[1], 0x100Au);
    k->d[3] = 0x0001FFFE;   // word index: -2
    run({0x45F0, 0x30FE});   // LEA (-2,A0,D3.W),A2
    EXPECT_EQ(k->a[2], 0x1000u - 4);
    k->a[4] = 0x10;
    run({0x47F0, 0xC010});   // LEA (16,A0,A4.W),A3
    EXPECT_EQ(k->a[3], 0x1020u);
}

TEST_F(CpuAddressing, FullFormatIndex) {
    k->d[0] = 0;
    run({0x41F0, 0x01B0, 0x0012, 0x3456});   // base suppressed, long displacement
    EXPECT_EQ(k->a[0], 0x00123456u);
    EXPECT_EQ(k->pc, 0x1008u);
    k->d[0] = 5;
    run({0x43F0, 0x01F0, 0x0000, 0x4000});   // base and index suppressed
    EXPECT_EQ(k->a[1], 0x4000u);
    // Pre-indexed memory indirection with a word outer displacement:
    // read32(A2 + 4 + D1) + 2.
    k->a[2] = 0x2000;
    k->d[1] = 4;
    write32(k, 0x2008, 0x5000);
    run({0x47F2, 0x1122, 0x0004, 0x0002});   // LEA ([4,A2,D1.W],2),A3
    EXPECT_EQ(k->a[3], 0x5002u);
    // Post-indexed: read32(A2 + 4) + D1 + 2.
    write32(k, 0x2004, 0x6000);
    run({0x49F2, 0x1126, 0x0004, 0x0002});
    EXPECT_EQ(k->a[4], 0x6006u);
}

// One instruction on D1 (and D0): the result and the whole CCR.
TEST_F(CpuData, RegisterFormsBeyondThe68000) {
    struct row {
        const char *what;
        uint16_t op;
        uint32_t d1;
        uint16_t ccr_in;
        uint32_t want_d1;
        uint16_t want_ccr;
    } rows[] = {
        {"EXTB.L D1 positive", 0x49C1, 0x1234567F, N, 0x7F, 0},
        {"EXTB.L D1 negative", 0x49C1, 0x00000080, 0, 0xFFFFFF80, N},
        // NEGX: a zero result sets Z even when it was clear, and clears X/C.
        {"NEGX.B 0 without X", 0x4001, 0, 0, 0, Z},
        {"NEGX.B $FF with X", 0x4001, 0xFF, X, 0, Z},
        {"NEGX.B $7F with X", 0x4001, 0x7F, X, 0x80, X | N | V | C},
        {"NEGX.W $8000 with X", 0x4041, 0x8000, X | Z, 0x7FFF, X | C},
        {"MOVE CCR,D1 keeps the high word", 0x42C1, 0xFFFFFFFF, X | C, 0xFFFF0011, X | C},
    };
    for (const row &r : rows) {
        SetUp();
        k->d[1] = r.d1;
        set_ccr_bits(r.ccr_in);
        run({r.op});
        EXPECT_EQ(k->d[1], r.want_d1) << r.what;
        EXPECT_EQ(ccr(), r.want_ccr) << r.what;
    }
}

TEST_F(CpuData, CcrFormsKeepAllEightBits) {
    run({0x44FC, 0x00FF});   // MOVE.W #$FF,CCR
    EXPECT_EQ(k->sr, 0x27FFu);
    run({0x023C, 0x00E0});   // ANDI.B #$E0,CCR
    EXPECT_EQ(k->sr, 0x27E0u);
    run({0x003C, 0x0001});   // ORI.B #1,CCR
    EXPECT_EQ(k->sr, 0x27E1u);
    run({0x0A3C, 0x0021});   // EORI.B #$21,CCR
    EXPECT_EQ(k->sr, 0x27C0u);
    k->d[0] = 0xFFFFFFFF;
    run({0x42C0});   // MOVE CCR,D0
    EXPECT_EQ(k->d[0], 0xFFFF00C0u);
}

}  // namespace
