// Moves, add/subtract/compare, logic and the one-operand instructions:
// results, operand sizes, flags and address-register stepping.
#include "cpu_fixture.h"

namespace {

using CpuMove = cpu_test;
using CpuArith = cpu_test;
using CpuLogic = cpu_test;
using CpuAddressing = cpu_test;

TEST_F(CpuMove, MoveSetsLogicalFlagsAndKeepsX) {
    k->d[0] = 0x80;
    set_ccr_bits(X | V | C);
    run({0x1200});   // MOVE.B D0,D1
    EXPECT_EQ(k->d[1], 0x80u);
    EXPECT_EQ(ccr(), X | N);
    k->d[2] = 0xFFFF0000;
    run({0x3602});   // MOVE.W D2,D3
    EXPECT_EQ(ccr(), X | Z);
}

TEST_F(CpuMove, ByteAndWordMovesReplaceOnlyTheLowPart) {
    k->d[0] = 0x12345678;
    k->d[1] = 0xAAAAAAAA;
    run({0x1200});   // MOVE.B D0,D1
    EXPECT_EQ(k->d[1], 0xAAAAAA78u);
    run({0x3200});   // MOVE.W D0,D1
    EXPECT_EQ(k->d[1], 0xAAAA5678u);
    run({0x2200});   // MOVE.L D0,D1
    EXPECT_EQ(k->d[1], 0x12345678u);
}

TEST_F(CpuMove, MoveaSignExtendsAndChangesNoFlags) {
    set_ccr_bits(Z | C);
    run({0x307C, 0x8000});   // MOVEA.W #$8000,A0
    EXPECT_EQ(k->a[0], 0xFFFF8000u);
    EXPECT_EQ(ccr(), Z | C);
    k->d[0] = 0x80000000;
    run({0x2040});   // MOVEA.L D0,A0
    EXPECT_EQ(k->a[0], 0x80000000u);
    EXPECT_EQ(ccr(), Z | C);
}

TEST_F(CpuMove, MoveFromAnUsesItsLowWord) {
    k->a[1] = 0x12348765;
    run({0x3009});   // MOVE.W A1,D0
    EXPECT_EQ(k->d[0], 0x8765u);
    EXPECT_EQ(ccr(), N);
}

TEST_F(CpuMove, MoveqSignExtends) {
    run({0x70FF});   // MOVEQ #-1,D0
    EXPECT_EQ(k->d[0], 0xFFFFFFFFu);
    EXPECT_EQ(ccr(), N);
    run({0x7200});   // MOVEQ #0,D1
    EXPECT_EQ(ccr(), Z);
}

TEST_F(CpuMove, MemoryToMemoryWithExtensionWordsInOrder) {
    // MOVE.L (8,A0),(16,A1): source displacement first, then destination.
    k->a[0] = 0x2000;
    k->a[1] = 0x3000;
    write32(k, 0x2008, 0xCAFEBABE);
    run({0x2368, 0x0008, 0x0010});
    EXPECT_EQ(read32(k, 0x3010), 0xCAFEBABEu);
    EXPECT_EQ(k->pc, 0x1006u);
    // MOVE.W #$1234,$4000.L
    run({0x33FC, 0x1234, 0x0000, 0x4000});
    EXPECT_EQ(read16(k, 0x4000), 0x1234u);
    EXPECT_EQ(k->pc, 0x100Eu);
}

TEST_F(CpuAddressing, ByteStepsOnA7AreTwo) {
    k->a[6] = 0x3000;
    run({0x101F});   // MOVE.B (A7)+,D0
    EXPECT_EQ(k->a[7], 0x8002u);
    run({0x101E});   // MOVE.B (A6)+,D0
    EXPECT_EQ(k->a[6], 0x3001u);
    run({0x1F00});   // MOVE.B D0,-(A7)
    EXPECT_EQ(k->a[7], 0x8000u);
    run({0x1D00});   // MOVE.B D0,-(A6)
    EXPECT_EQ(k->a[6], 0x3000u);
}

TEST_F(CpuAddressing, PcRelativeUsesTheExtensionWordAddress) {
    run({0x41FA, 0x0004});   // LEA (4,PC),A0
    EXPECT_EQ(k->a[0], 0x1006u);
    write16(k, 0x100E, 0x5A5A);
    run({0x303A, 0x0008});   // MOVE.W (8,PC),D0 at 0x1004: ext at 0x1006
    EXPECT_EQ(k->d[0] & 0xFFFF, 0x5A5Au);
}

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

TEST_F(CpuArith, AddByteOverflow) {
    k->d[0] = 0x12345601;
    set_ccr_bits(X | Z | C);
    run({0x0600, 0x007F});   // ADDI.B #$7F,D0
    EXPECT_EQ(k->d[0], 0x12345680u);
    EXPECT_EQ(ccr(), N | V);
}

TEST_F(CpuArith, AddCarryPerSize) {
    k->d[0] = 0x000000FF;
    k->d[1] = 0x00000001;
    run({0xD001});   // ADD.B D1,D0
    EXPECT_EQ(k->d[0], 0u);
    EXPECT_EQ(ccr(), X | Z | C);
    k->d[0] = 0x0000FFFF;
    run({0xD041});   // ADD.W D1,D0
    EXPECT_EQ(k->d[0], 0u);
    EXPECT_EQ(ccr(), X | Z | C);
    k->d[0] = 0xFFFFFFFF;
    run({0xD081});   // ADD.L D1,D0
    EXPECT_EQ(k->d[0], 0u);
    EXPECT_EQ(ccr(), X | Z | C);
    k->d[0] = 0x7FFFFFFF;
    run({0xD081});
    EXPECT_EQ(k->d[0], 0x80000000u);
    EXPECT_EQ(ccr(), N | V);
}

TEST_F(CpuArith, SubBorrow) {
    k->d[0] = 0;
    k->d[1] = 1;
    run({0x9041});   // SUB.W D1,D0
    EXPECT_EQ(k->d[0], 0xFFFFu);
    EXPECT_EQ(ccr(), X | N | C);
    k->d[0] = 0x80000000;
    run({0x9081});   // SUB.L D1,D0
    EXPECT_EQ(k->d[0], 0x7FFFFFFFu);
    EXPECT_EQ(ccr(), V);
}

TEST_F(CpuArith, AddToMemoryReadsModifiesWrites) {
    k->a[0] = 0x2000;
    k->d[0] = 0x01;
    write8(k, 0x2000, 0xFF);
    run({0xD118});   // ADD.B D0,(A0)+
    EXPECT_EQ(read8(k, 0x2000), 0u);
    EXPECT_EQ(k->a[0], 0x2001u);
    EXPECT_EQ(ccr(), X | Z | C);
}

TEST_F(CpuArith, CompareKeepsX) {
    k->d[0] = 5;
    k->d[1] = 3;
    set_ccr_bits(X);
    run({0xB081});   // CMP.L D1,D0
    EXPECT_EQ(ccr(), X);
    set_ccr_bits(0);
    run({0xB280});   // CMP.L D0,D1: 3 - 5 borrows
    EXPECT_EQ(ccr(), N | C);
    EXPECT_EQ(k->d[1], 3u);
}

TEST_F(CpuArith, CmpaWordSignExtendsTheSource) {
    k->a[0] = 0xFFFF8000;
    run({0xB0FC, 0x8000});   // CMPA.W #$8000,A0
    EXPECT_EQ(ccr(), Z);
}

TEST_F(CpuArith, AddaSubaWholeRegisterNoFlags) {
    k->a[0] = 0x00010000;
    set_ccr_bits(N);
    run({0xD0FC, 0xFFFF});   // ADDA.W #-1,A0
    EXPECT_EQ(k->a[0], 0x0000FFFFu);
    EXPECT_EQ(ccr(), N);
    run({0x91FC, 0x0001, 0x0000});   // SUBA.L #$10000,A0
    EXPECT_EQ(k->a[0], 0xFFFFFFFFu);
    EXPECT_EQ(ccr(), N);
}

TEST_F(CpuArith, QuickForms) {
    k->a[0] = 0x0000FFFF;
    run({0x5048});   // ADDQ.W #8,A0
    EXPECT_EQ(k->a[0], 0x00010007u);
    EXPECT_EQ(ccr(), 0);
    k->d[1] = 0x1200;
    run({0x5301});   // SUBQ.B #1,D1
    EXPECT_EQ(k->d[1], 0x12FFu);
    EXPECT_EQ(ccr(), X | N | C);
}

TEST_F(CpuArith, AddxZAccumulates) {
    set_ccr_bits(Z);
    run({0xD101});   // ADDX.B D1,D0 with both 0
    EXPECT_EQ(ccr(), Z);
    set_ccr_bits(0);
    run({0xD101});
    EXPECT_EQ(ccr(), 0);
    k->d[0] = 0xFFFFFFFF;
    set_ccr_bits(X | Z);
    run({0xD181});   // ADDX.L D1,D0: 0xFFFFFFFF + 0 + 1
    EXPECT_EQ(k->d[0], 0u);
    EXPECT_EQ(ccr(), X | Z | C);
}

TEST_F(CpuArith, SubxMemoryFormPredecrementsSourceFirst) {
    k->a[0] = 0x2002;
    k->a[1] = 0x3002;
    write16(k, 0x2000, 0x0001);
    write16(k, 0x3000, 0x0000);
    set_ccr_bits(X | Z);
    run({0x9348});   // SUBX.W -(A0),-(A1): 0 - 1 - 1
    EXPECT_EQ(read16(k, 0x3000), 0xFFFEu);
    EXPECT_EQ(k->a[0], 0x2000u);
    EXPECT_EQ(k->a[1], 0x3000u);
    EXPECT_EQ(ccr(), X | N | C);
    k->a[7] = 0x8002;
    k->a[0] = 0x2001;
    run({0x9F08});   // SUBX.B -(A0),-(A7): A7 steps by 2
    EXPECT_EQ(k->a[7], 0x8000u);
    EXPECT_EQ(k->a[0], 0x2000u);
}

TEST_F(CpuArith, CmpmPostincrementsBoth) {
    k->a[0] = 0x2000;
    k->a[1] = 0x3000;
    write16(k, 0x2000, 5);
    write16(k, 0x3000, 5);
    run({0xB348});   // CMPM.W (A0)+,(A1)+
    EXPECT_EQ(ccr(), Z);
    EXPECT_EQ(k->a[0], 0x2002u);
    EXPECT_EQ(k->a[1], 0x3002u);
}

TEST_F(CpuArith, NegAndNegx) {
    k->d[0] = 1;
    run({0x4440});   // NEG.W D0
    EXPECT_EQ(k->d[0], 0xFFFFu);
    EXPECT_EQ(ccr(), X | N | C);
    k->d[0] = 0;
    run({0x4480});   // NEG.L D0 of 0
    EXPECT_EQ(ccr(), Z);

    k->d[1] = 0xFF;
    set_ccr_bits(X);
    run({0x4001});   // NEGX.B D1: X + 0xFF wraps to 0
    EXPECT_EQ(k->d[1], 0u);
    EXPECT_EQ(ccr(), Z);
    k->d[1] = 0x7F;
    set_ccr_bits(X);
    run({0x4001});
    EXPECT_EQ(k->d[1], 0x80u);
    EXPECT_EQ(ccr(), X | N | V | C);
    k->d[1] = 0;
    set_ccr_bits(0);
    run({0x4001});   // zero result sets Z even when it was clear
    EXPECT_EQ(ccr(), Z);
    k->d[1] = 0x0005;
    set_ccr_bits(Z);
    run({0x4041});   // NEGX.W: -5
    EXPECT_EQ(k->d[1], 0xFFFBu);
    EXPECT_EQ(ccr(), X | N | C);
    k->d[1] = 0x8000;
    run({0x4041});   // NEGX.W of 0x8000 with X = 1 -> 0x7FFF
    EXPECT_EQ(k->d[1], 0x7FFFu);
    EXPECT_EQ(ccr(), X | C);
}

TEST_F(CpuLogic, LogicalOperationsKeepX) {
    k->d[0] = 0xF0F0;
    k->d[1] = 0x0FF0;
    set_ccr_bits(X | V | C);
    run({0xC041});   // AND.W D1,D0
    EXPECT_EQ(k->d[0], 0x00F0u);
    EXPECT_EQ(ccr(), X);
    run({0x8041});   // OR.W D1,D0
    EXPECT_EQ(k->d[0], 0x0FF0u);
    run({0xB340});   // EOR.W D1,D0
    EXPECT_EQ(k->d[0], 0u);
    EXPECT_EQ(ccr(), X | Z);
    run({0x0A40, 0x8000});   // EORI.W #$8000,D0
    EXPECT_EQ(ccr(), X | N);
    run({0x4640});   // NOT.W D0
    EXPECT_EQ(k->d[0], 0x7FFFu);
    EXPECT_EQ(ccr(), X);
}

TEST_F(CpuLogic, ClrReadsThenWritesZero) {
    k->d[0] = 0x12345678;
    set_ccr_bits(X | N | V | C);
    run({0x4240});   // CLR.W D0
    EXPECT_EQ(k->d[0], 0x12340000u);
    EXPECT_EQ(ccr(), X | Z);
    k->a[0] = 0x2000;
    write32(k, 0x2000, 0xFFFFFFFF);
    run({0x4298});   // CLR.L (A0)+
    EXPECT_EQ(read32(k, 0x2000), 0u);
    EXPECT_EQ(k->a[0], 0x2004u);
}

TEST_F(CpuLogic, TstAndImmediateCompare) {
    k->d[0] = 0x80;
    set_ccr_bits(V | C);
    run({0x4A00});   // TST.B D0
    EXPECT_EQ(ccr(), N);
    run({0x0C00, 0x0080});   // CMPI.B #$80,D0
    EXPECT_EQ(ccr(), Z);
    EXPECT_EQ(k->d[0], 0x80u);
}

TEST_F(CpuLogic, ExtSwapExg) {
    k->d[0] = 0x12345680;
    run({0x4880});   // EXT.W D0
    EXPECT_EQ(k->d[0], 0x1234FF80u);
    EXPECT_EQ(ccr(), N);
    run({0x48C0});   // EXT.L D0
    EXPECT_EQ(k->d[0], 0xFFFFFF80u);
    k->d[1] = 0x0000007F;
    run({0x49C1});   // EXTB.L D1
    EXPECT_EQ(k->d[1], 0x7Fu);
    EXPECT_EQ(ccr(), 0);
    k->d[2] = 0x00008000;
    run({0x4842});   // SWAP D2
    EXPECT_EQ(k->d[2], 0x80000000u);
    EXPECT_EQ(ccr(), N);
    k->d[3] = 1;
    k->a[4] = 2;
    run({0xC78C});   // EXG D3,A4
    EXPECT_EQ(k->d[3], 2u);
    EXPECT_EQ(k->a[4], 1u);
}

TEST_F(CpuLogic, TasSetsBit7) {
    k->d[0] = 0x00;
    run({0x4AC0});   // TAS D0
    EXPECT_EQ(k->d[0], 0x80u);
    EXPECT_EQ(ccr(), Z);
    k->a[0] = 0x2000;
    write8(k, 0x2000, 0x81);
    run({0x4AD0});   // TAS (A0)
    EXPECT_EQ(read8(k, 0x2000), 0x81u);
    EXPECT_EQ(ccr(), N);
}

TEST_F(CpuLogic, CcrFormsAreUnmasked) {
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

TEST_F(CpuLogic, PeaPushesTheAddress) {
    k->a[0] = 0x2000;
    run({0x4868, 0x0010});   // PEA (16,A0)
    EXPECT_EQ(k->a[7], 0x7FFCu);
    EXPECT_EQ(read32(k, 0x7FFC), 0x2010u);
}

}  // namespace
