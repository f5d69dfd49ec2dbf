// Control flow where this processor goes beyond or deliberately differs from
// the plain 68000: 32-bit branch displacements, RTD, LINK.L, the SR bits kept
// at exception entry and by MOVE to SR, the RTE format check, NBCD as an
// illegal instruction, the fault code and STOP. Everything else (conditions,
// DBcc, Scc, BSR/JSR/RTS/RTR, TRAP/TRAPV/CHK frames, privilege violations and
// their stacked PC) is checked by the single-step vectors, ctest cpu_vectors.
#include "cpu_fixture.h"

namespace {

using CpuBranch = cpu_test;
using CpuException = cpu_test;
using CpuSystem = cpu_test;

TEST_F(CpuBranch, DisplacementForms) {
    run({0x6004});   // BRA.S +4
    EXPECT_EQ(k->pc, 0x1006u);
    k->pc = 0x1000;
    run({0x6000, 0xFFFE});   // BRA.W -2: base is after the opcode
    EXPECT_EQ(k->pc, 0x1000u);
    run({0x60FF, 0x0001, 0x0000});   // BRA.L +$10000
    EXPECT_EQ(k->pc, 0x11002u);
    k->pc = 0x1000;
    set_ccr_bits(Z);
    run({0x6600, 0x0100});   // BNE.W not taken: skips the extension word
    EXPECT_EQ(k->pc, 0x1004u);
    run({0x67FF, 0x0000, 0x0100});   // BEQ.L taken
    EXPECT_EQ(k->pc, 0x1006u + 0x100u);
}

TEST_F(CpuBranch, RtdPopsTheReturnAddressAndTheDisplacement) {
    k->a[7] = 0x7FFC;
    write32(k, 0x7FFC, 0x1234);
    run({0x4E74, 0x0008});   // RTD #8
    EXPECT_EQ(k->pc, 0x1234u);
    EXPECT_EQ(k->a[7], 0x8008u);
}

TEST_F(CpuBranch, LinkUnlk) {
    k->a[6] = 0x11111111;
    run({0x4E56, 0xFFF0});   // LINK A6,#-16
    EXPECT_EQ(read32(k, 0x7FFC), 0x11111111u);
    EXPECT_EQ(k->a[6], 0x7FFCu);
    EXPECT_EQ(k->a[7], 0x7FECu);
    run({0x4E5E});   // UNLK A6
    EXPECT_EQ(k->a[6], 0x11111111u);
    EXPECT_EQ(k->a[7], 0x8000u);
    run({0x480E, 0xFFFF, 0xFF00});   // LINK.L A6,#-256
    EXPECT_EQ(k->a[6], 0x7FFCu);
    EXPECT_EQ(k->a[7], 0x7FFCu - 256);
    // UNLK A7: the loaded value wins.
    k->a[7] = 0x6000;
    write32(k, 0x6000, 0x4444);
    run({0x4E5F});
    EXPECT_EQ(k->a[7], 0x4444u);
}

TEST_F(CpuException, EntrySrClearsTraceAndKeepsM) {
    k->sr = 0xD71F;   // T1, T0, M, IPL 7, all flags
    vector(32, 0x4000);
    run({0x4E40});
    EXPECT_EQ(k->sr, 0x371Fu);
    EXPECT_EQ(read16(k, k->a[7] + 2), 0xD71Fu);
}

TEST_F(CpuException, RteFormatErrorKeepsTheFrame) {
    k->a[7] = 0x3000;
    write16(k, 0x3000, 0x1000);
    write16(k, 0x3002, 0x2000);
    write32(k, 0x3004, 0x5555);
    vector(14, 0x4000);
    run({0x4E73});
    EXPECT_EQ(k->pc, 0x4000u);
    EXPECT_EQ(k->a[7], 0x3000u - 8);
    EXPECT_EQ(read16(k, 0x3000), 0x1000u);
    EXPECT_EQ(read32(k, 0x3004), 0x5555u);
    EXPECT_EQ(read16(k, 0x2FF8), 14u * 4);
    EXPECT_EQ(read32(k, 0x2FFC), 0x1002u);
}

TEST_F(CpuException, IllegalAndLineF) {
    vector(4, 0x4000);
    vector(11, 0x5000);
    run({0x4AFC});
    EXPECT_EQ(k->pc, 0x4000u);
    EXPECT_EQ(read32(k, k->a[7] + 4), 0x1002u);
    k->pc = 0x1000;
    run({0x4800});   // NBCD D0 is not implemented
    EXPECT_EQ(k->pc, 0x4000u);
    k->pc = 0x1000;
    run({0xF123});
    EXPECT_EQ(k->pc, 0x5000u);
    EXPECT_EQ(read16(k, k->a[7]), 11u * 4);
    EXPECT_EQ(read32(k, k->a[7] + 4), 0x1002u);
}

TEST_F(CpuException, FaultIsClearedByEntry) {
    vector(4, 0x4000);
    k->fault = 2;
    run({0x4AFC});
    EXPECT_EQ(k->fault, 0);
}

TEST_F(CpuSystem, MoveToSrMasksAndExchanges) {
    run({0x46FC, 0xFFFF});   // MOVE #$FFFF,SR
    EXPECT_EQ(k->sr, 0xF71Fu);
    k->a[7] = 0x8000;
    k->usp = 0x6000;
    run({0x46FC, 0x0000});   // to user mode
    EXPECT_EQ(k->ssp, 0x8000u);
    EXPECT_EQ(k->a[7], 0x6000u);
}

TEST_F(CpuSystem, StopSetsTheFlagAndExecutionGoesOn) {
    run({0x4E72, 0x2704, 0x7005});   // STOP #$2704; MOVEQ #5,D0
    EXPECT_EQ(k->stopped, 1);
    EXPECT_EQ(k->sr, 0x2704u);
    EXPECT_EQ(k->pc, 0x1004u);
    step();
    EXPECT_EQ(k->d[0], 5u);
}

}  // namespace
