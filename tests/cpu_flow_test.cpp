// Branches, subroutines, exception entry and return, privilege rules, the
// SR moves and the stack-pointer exchange.
#include "cpu_fixture.h"

namespace {

using CpuBranch = cpu_test;
using CpuException = cpu_test;
using CpuSystem = cpu_test;

TEST(CpuConditions, TestCcTable) {
    engine_ptr e = make_engine();
    kelva &k = *e;
    struct row {
        int cc;
        uint16_t ccr;
        int want;
    } rows[] = {
        {0, 0, 1}, {1, 0x1F, 0}, {2, 0, 1}, {2, C, 0}, {2, Z, 0}, {3, Z, 1}, {3, 0, 0}, {4, C, 0}, {5, C, 1},
        {6, Z, 0}, {7, Z, 1}, {8, V, 0}, {9, V, 1}, {10, N, 0}, {11, N, 1}, {12, N | V, 1}, {12, N, 0},
        {13, V, 1}, {13, N | V, 0}, {14, 0, 1}, {14, Z, 0}, {14, N, 0}, {15, Z, 1}, {15, N, 1}, {15, N | V, 0},
        {16, 0, 0}, {99, 0x1F, 0},
    };
    for (const row &r : rows) {
        k.sr = r.ccr;
        EXPECT_EQ(test_cc(&k, r.cc), r.want) << "cc " << r.cc << " ccr " << r.ccr;
    }
}

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

TEST_F(CpuBranch, BsrPushesTheAddressAfterItsWords) {
    run({0x6100, 0x0010});   // BSR.W
    EXPECT_EQ(k->pc, 0x1012u);
    EXPECT_EQ(k->a[7], 0x7FFCu);
    EXPECT_EQ(read32(k, 0x7FFC), 0x1004u);
    code({0x4E75});   // RTS
    step();
    EXPECT_EQ(k->pc, 0x1004u);
    EXPECT_EQ(k->a[7], 0x8000u);
}

TEST_F(CpuBranch, Dbcc) {
    k->d[0] = 0xABCD0001;
    run({0x51C8, 0xFFFE});   // DBF D0: 1 -> 0, branches to itself
    EXPECT_EQ(k->d[0], 0xABCD0000u);
    EXPECT_EQ(k->pc, 0x1000u);
    run({0x51C8, 0xFFFE});   // 0 -> 0xFFFF, falls through
    EXPECT_EQ(k->d[0], 0xABCDFFFFu);
    EXPECT_EQ(k->pc, 0x1004u);
    k->d[1] = 5;
    set_ccr_bits(Z);
    run({0x57C9, 0x0010});   // DBEQ D1: condition true, nothing decremented
    EXPECT_EQ(k->d[1], 5u);
    EXPECT_EQ(k->pc, 0x1008u);
}

TEST_F(CpuBranch, SccWritesWithoutReading) {
    k->d[0] = 0x12345678;
    set_ccr_bits(C);
    run({0x55C0});   // SCS D0
    EXPECT_EQ(k->d[0], 0x123456FFu);
    run({0x54C0});   // SCC D0
    EXPECT_EQ(k->d[0], 0x12345600u);
    EXPECT_EQ(ccr(), C);
    k->a[0] = 0x2000;
    run({0x50D8});   // ST (A0)+
    EXPECT_EQ(read8(k, 0x2000), 0xFFu);
    EXPECT_EQ(k->a[0], 0x2001u);
}

TEST_F(CpuBranch, JsrJmpRtdRtr) {
    k->a[0] = 0x3000;
    run({0x4EA8, 0x0010});   // JSR (16,A0)
    EXPECT_EQ(k->pc, 0x3010u);
    EXPECT_EQ(read32(k, k->a[7]), 0x1004u);
    run({0x4E74, 0x0008});   // RTD #8
    EXPECT_EQ(k->pc, 0x1004u);
    EXPECT_EQ(k->a[7], 0x8008u);
    k->a[7] = 0x7000;
    write16(k, 0x7000, 0x00FF);
    write32(k, 0x7002, 0x2222);
    run({0x4E77});   // RTR: all eight CCR bits
    EXPECT_EQ(k->sr, 0x27FFu);
    EXPECT_EQ(k->pc, 0x2222u);
    EXPECT_EQ(k->a[7], 0x7006u);
    run({0x4EF9, 0x0000, 0x5000});   // JMP $5000.L
    EXPECT_EQ(k->pc, 0x5000u);
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

TEST_F(CpuException, TrapFrame) {
    k->a[7] = 0x2000;
    k->sr = 0x2715;
    vector(35, 0x00ABCDEF);
    run({0x4E43});   // TRAP #3
    EXPECT_EQ(k->a[7], 0x1FF8u);
    EXPECT_EQ(read16(k, 0x1FF8), 0x008Cu);
    EXPECT_EQ(read16(k, 0x1FFA), 0x2715u);
    EXPECT_EQ(read32(k, 0x1FFC), 0x1002u);
    EXPECT_EQ(k->pc, 0x00ABCDEFu);
    EXPECT_EQ(k->sr, 0x2715u);
}

TEST_F(CpuException, EntrySrClearsTraceAndKeepsM) {
    k->sr = 0xD71F;   // T1, T0, M, IPL 7, all flags
    vector(32, 0x4000);
    run({0x4E40});
    EXPECT_EQ(k->sr, 0x371Fu);
    EXPECT_EQ(read16(k, k->a[7] + 2), 0xD71Fu);
}

TEST_F(CpuException, UserModeSwitchesStacksAndRteSwapsBack) {
    k->sr = 0x0004;   // user mode, Z
    k->a[7] = 0x6000;   // user stack live
    k->ssp = 0x9000;
    vector(32, 0x4000);
    run({0x4E40});   // TRAP #0
    EXPECT_EQ(k->usp, 0x6000u);
    EXPECT_EQ(k->a[7], 0x9000u - 8);
    EXPECT_EQ(k->sr, 0x2004u);
    code({0x4E73});   // RTE at the handler
    step();
    EXPECT_EQ(k->pc, 0x1002u);
    EXPECT_EQ(k->sr, 0x0004u);
    EXPECT_EQ(k->a[7], 0x6000u);
    EXPECT_EQ(k->ssp, 0x9000u);
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

TEST_F(CpuException, TrapvOnlyWithV) {
    vector(7, 0x4000);
    run({0x4E76});
    EXPECT_EQ(k->pc, 0x1002u);
    set_ccr_bits(V);
    run({0x4E76});
    EXPECT_EQ(k->pc, 0x4000u);
    EXPECT_EQ(read32(k, k->a[7] + 4), 0x1004u);
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

TEST_F(CpuSystem, EveryWholeSrWriteExchangesStacks) {
    const std::initializer_list<uint16_t> programs[] = {
        {0x027C, 0xDFFF},   // ANDI #$DFFF,SR
        {0x0A7C, 0x2000},   // EORI #$2000,SR
        {0x4E72, 0x0000},   // STOP #0
    };
    for (const auto &p : programs) {
        SetUp();
        run(p);
        EXPECT_EQ(k->sr & kSrS, 0);
        EXPECT_EQ(k->ssp, 0x8000u);
        EXPECT_EQ(k->a[7], 0x6000u);
    }
    SetUp();
    run({0x007C, 0x0700});   // ORI leaves S set: no exchange
    EXPECT_EQ(k->a[7], 0x8000u);
}

TEST_F(CpuSystem, StopSetsTheFlagAndExecutionGoesOn) {
    run({0x4E72, 0x2704, 0x7005});   // STOP #$2704; MOVEQ #5,D0
    EXPECT_EQ(k->stopped, 1);
    EXPECT_EQ(k->sr, 0x2704u);
    EXPECT_EQ(k->pc, 0x1004u);
    step();
    EXPECT_EQ(k->d[0], 5u);
}

TEST_F(CpuSystem, PrivilegeViolationsStackedPc) {
    vector(8, 0x4000);
    const std::initializer_list<uint16_t> programs[] = {
        {0x4E72, 0x2700},   // STOP
        {0x46FC, 0x2700},   // MOVE to SR
        {0x40C0},           // MOVE from SR
        {0x007C, 0x0700},   // ORI to SR
        {0x4E60},           // MOVE A0,USP
        {0x4E68},           // MOVE USP,A0
        {0x4E70},           // RESET
    };
    for (const auto &p : programs) {
        SetUp();
        vector(8, 0x4000);
        k->sr = 0x0000;
        k->ssp = 0x9000;
        run(p);
        EXPECT_EQ(k->pc, 0x4000u);
        EXPECT_EQ(read32(k, k->a[7] + 4), 0x1002u);   // after the opcode word
        EXPECT_EQ(read16(k, k->a[7]), 8u * 4);
    }
    SetUp();
    vector(8, 0x4000);
    k->sr = 0x0000;
    k->ssp = 0x9000;
    run({0x4E73});   // RTE stacks its own address
    EXPECT_EQ(read32(k, k->a[7] + 4), 0x1000u);
}

TEST_F(CpuSystem, MoveUsp) {
    k->a[3] = 0x12345678;
    run({0x4E63});   // MOVE A3,USP
    EXPECT_EQ(k->usp, 0x12345678u);
    run({0x4E6C});   // MOVE USP,A4
    EXPECT_EQ(k->a[4], 0x12345678u);
}

TEST_F(CpuSystem, MoveFromSrWritesTheWholeSr) {
    k->d[0] = 0xFFFFFFFF;
    run({0x40C0});
    EXPECT_EQ(k->d[0], 0xFFFF2700u);
}

}  // namespace
