// The opcode table: which words are illegal or trap, run-once initialisation,
// and the cost a step adds to the cycle counter.
#include <gtest/gtest.h>

#include <vector>

#include "cpu_fixture.h"

namespace {

size_t count_of(op_handler h) {
    size_t n = 0;
    for (op_handler e : op_table)
        if (e == h) n++;
    return n;
}

TEST(CpuTable, IllegalAndTrapWords) {
    kelva_global_init();
    for (op_handler e : op_table) ASSERT_NE(e, nullptr);
    // Any decoding change moves this count.
    EXPECT_EQ(count_of(op_illegal), 11713u);
    EXPECT_EQ(count_of(op_line_a), 4096u);
    EXPECT_EQ(count_of(op_line_f), 4096u);
    const std::pair<uint16_t, const char *> illegal[] = {
        {0x4AFC, "ILLEGAL"}, {0x4800, "NBCD D0"}, {0x1040, "MOVE.B to An"}, {0x4A3C, "TST.B #imm"},
        {0x0C3A, "CMPI.B to (d16,PC)"}, {0x7100, "MOVEQ with bit 8 set"}, {0x0108, "MOVEP"}, {0x4100, "CHK.L"},
        {0x4E7A, "MOVEC"}, {0x4E7B, "MOVEC"}, {0x4C00, "MULU.L"}, {0x4C7F, "DIVU.L"}, {0xE8C0, "BFTST"},
        {0xEFFF, "BFINS"}, {0xC048, "AND.W A0,D0"}, {0x8088, "OR.L A0,D0"},
    };
    for (auto [op, what] : illegal) EXPECT_EQ(op_table[op], op_illegal) << what;
    EXPECT_EQ(op_table[0xA123], op_line_a);
    EXPECT_EQ(op_table[0xF200], op_line_f);
    EXPECT_EQ(op_table[0x083C], op_btst_stat);   // static BTST with #imm (wider than the 68000)
    EXPECT_EQ(op_table[0x087A], op_bchg_stat);   // BCHG #n,(d16,PC) (wider)
}

TEST(CpuTable, SecondInitialisationChangesNothing) {
    kelva_global_init();
    std::vector<op_handler> before(op_table, op_table + 65536);
    op_table[0x4E71] = op_illegal;   // a second call must not rebuild
    kelva_global_init();
    EXPECT_EQ(op_table[0x4E71], op_illegal);
    op_table[0x4E71] = op_nop;
    EXPECT_TRUE(std::equal(before.begin(), before.end(), op_table));
}

using CpuStep = cpu_test;

TEST_F(CpuStep, StepAddsTheCostAndAdvancesPc) {
    run({0x4E71});   // NOP
    EXPECT_EQ(k->cycles, 14u);
    EXPECT_EQ(k->pc, 0x1002u);
    run({0x2200});   // MOVE.L D0,D1
    EXPECT_EQ(k->cycles, 18u);
    run({0x6000, 0x0010});   // BRA.W
    EXPECT_EQ(k->cycles, 22u);
    EXPECT_EQ(k->pc, 0x1006u + 0x10u);
}

}  // namespace
