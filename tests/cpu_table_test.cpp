// The opcode table: census, spot entries by handler identity, run-once
// behaviour and the per-step cost.
#include <gtest/gtest.h>

#include <map>
#include <vector>

#include "cpu_fixture.h"

void op_move_l_dn_an(kelva *, uint16_t);
void op_move_l_aidx_adec(kelva *, uint16_t);
void op_move_b_ad16_ainc(kelva *, uint16_t);
void op_add_w_ad16_dn(kelva *, uint16_t);
void op_add_b_dn_ainc(kelva *, uint16_t);
void op_adda_w_imm_an(kelva *, uint16_t);
void op_clr_w_adec(kelva *, uint16_t);
void op_addq_l_an(kelva *, uint16_t);
void op_add_w_an_dn(kelva *, uint16_t);
void op_cmpi_b_absl(kelva *, uint16_t);
void op_tst_b_dn(kelva *, uint16_t);
void op_eor_l_dn_dn(kelva *, uint16_t);

namespace {

size_t count_of(op_handler h) {
    size_t n = 0;
    for (op_handler e : op_table)
        if (e == h) n++;
    return n;
}

TEST(CpuTable, CensusMatchesTheInstructionSet) {
    kelva_global_init();
    size_t illegal = count_of(op_illegal);
    EXPECT_EQ(illegal, 11713u);
    EXPECT_EQ(65536u - illegal, 53823u);
    EXPECT_EQ(count_of(op_line_a), 4096u);
    EXPECT_EQ(count_of(op_line_f), 4096u);
    for (op_handler e : op_table) ASSERT_NE(e, nullptr);

    // Generic groups with their entry counts.
    const std::pair<op_handler, size_t> groups[] = {
        {op_bcc, 4096},        {op_cmpm, 192},        {op_addx, 384},       {op_subx, 384},
        {op_abcd, 128},        {op_sbcd, 128},        {op_scc, 800},        {op_dbcc, 128},
        {op_btst_dyn, 424},    {op_bchg_dyn, 416},    {op_bclr_dyn, 416},   {op_bset_dyn, 416},
        {op_btst_stat, 53},    {op_bchg_stat, 52},    {op_bclr_stat, 52},   {op_bset_stat, 52},
        {op_lea, 224},         {op_pea, 28},          {op_jmp, 28},         {op_jsr, 28},
        {op_chk_w, 424},       {op_shift_dn, 3072},   {op_shift_mem, 336},  {op_divu_w, 424},
        {op_divs_w, 424},      {op_mulu_w, 424},      {op_muls_w, 424},     {op_movem_to_mem_w, 34},
        {op_movem_to_mem_l, 34}, {op_movem_from_mem_w, 36}, {op_movem_from_mem_l, 36},
        {op_move_from_sr, 50}, {op_move_from_ccr, 50}, {op_move_to_ccr, 53}, {op_move_to_sr, 53},
        {op_tas, 50},          {op_trap, 16},         {op_moveq, 2048},     {op_exg_dn_an, 64},
        {op_swap, 8},          {op_ext_w, 8},         {op_extb_l, 8},       {op_link_l, 8},
    };
    for (const auto &g : groups) EXPECT_EQ(count_of(g.first), g.second);
}

TEST(CpuTable, OpsRegisterWritesItsEntriesOnly) {
    kelva_global_init();
    std::vector<op_handler> saved(op_table, op_table + 65536);
    for (op_handler &e : op_table) e = nullptr;
    ops_register();
    size_t written = 0;
    std::map<op_handler, size_t> per_handler;
    for (op_handler e : op_table)
        if (e) {
            written++;
            per_handler[e]++;
        }
    std::copy(saved.begin(), saved.end(), op_table);
    EXPECT_EQ(written, 30984u);
    // One MOVEQ handler and many specialised ones, each over its registers.
    EXPECT_EQ(per_handler[op_moveq], 2048u);
    EXPECT_EQ(per_handler[op_move_l_aidx_adec], 64u);
    EXPECT_EQ(per_handler[op_cmpi_b_absl], 1u);
    EXPECT_GT(per_handler.size(), 900u);
}

TEST(CpuTable, SpotEntries) {
    kelva_global_init();
    EXPECT_EQ(op_table[0x4E71], op_nop);
    EXPECT_EQ(op_table[0x4E73], op_rte);
    EXPECT_EQ(op_table[0x4E74], op_rtd);
    EXPECT_EQ(op_table[0x4E75], op_rts);
    EXPECT_EQ(op_table[0x4E77], op_rtr);
    EXPECT_EQ(op_table[0x4AFC], op_illegal);   // ILLEGAL
    EXPECT_EQ(op_table[0x4800], op_illegal);   // NBCD D0
    EXPECT_EQ(op_table[0x1040], op_illegal);   // MOVE.B to An
    EXPECT_EQ(op_table[0x4A3C], op_illegal);   // TST.B #imm
    EXPECT_EQ(op_table[0x0C3A], op_illegal);   // CMPI.B to (d16,PC)
    EXPECT_EQ(op_table[0x7100], op_illegal);   // MOVEQ with bit 8 set
    EXPECT_EQ(op_table[0x0108], op_illegal);   // MOVEP
    EXPECT_EQ(op_table[0x4100], op_illegal);   // CHK.L
    EXPECT_EQ(op_table[0x4E7A], op_illegal);   // MOVEC
    EXPECT_EQ(op_table[0x4E7B], op_illegal);
    EXPECT_EQ(op_table[0x4C00], op_illegal);   // MULU.L
    EXPECT_EQ(op_table[0x4C7F], op_illegal);
    EXPECT_EQ(op_table[0xE8C0], op_illegal);   // BFTST
    EXPECT_EQ(op_table[0xEFFF], op_illegal);
    EXPECT_EQ(op_table[0xC048], op_illegal);   // AND.W A0,D0
    EXPECT_EQ(op_table[0x8088], op_illegal);   // OR.L A0,D0
    EXPECT_EQ(op_table[0xA123], op_line_a);
    EXPECT_EQ(op_table[0xF200], op_line_f);
    EXPECT_EQ(op_table[0x6100], op_bcc);       // BSR
    EXPECT_EQ(op_table[0x51C8], op_dbcc);      // DBF D0
    EXPECT_EQ(op_table[0x2040], op_move_l_dn_an);
    EXPECT_EQ(op_table[0xD0FC], op_adda_w_imm_an);
    EXPECT_EQ(op_table[0x2D30], op_move_l_aidx_adec);   // MOVE.L (d8,A0,Xn),-(A6)
    EXPECT_EQ(op_table[0x1CE8], op_move_b_ad16_ainc);   // MOVE.B (d16,A0),(A6)+
    EXPECT_EQ(op_table[0xD06F], op_add_w_ad16_dn);      // ADD.W (d16,A7),D0
    EXPECT_EQ(op_table[0xD11F], op_add_b_dn_ainc);      // ADD.B D0,(A7)+
    EXPECT_EQ(op_table[0x4267], op_clr_w_adec);
    EXPECT_EQ(op_table[0x5E8F], op_addq_l_an);          // ADDQ.L #7,A7
    EXPECT_EQ(op_table[0xD048], op_add_w_an_dn);
    EXPECT_EQ(op_table[0x0C39], op_cmpi_b_absl);
    EXPECT_EQ(op_table[0x4A07], op_tst_b_dn);
    EXPECT_EQ(op_table[0xB381], op_eor_l_dn_dn);
    EXPECT_EQ(op_table[0x013C], op_btst_dyn);   // BTST D0,#imm
    EXPECT_EQ(op_table[0x083C], op_btst_stat);  // static BTST with #imm (wider)
    EXPECT_EQ(op_table[0x087A], op_bchg_stat);  // BCHG #n,(d16,PC) (wider)
    EXPECT_EQ(op_table[0x4808], op_link_l);
    EXPECT_EQ(op_table[0x49C0], op_extb_l);
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

TEST(CpuTable, StepCostByLowSixBits) {
    EXPECT_EQ(cpu_step_cost[0x4E71 & 63], 14);
    EXPECT_EQ(cpu_step_cost[0x2200 & 63], 4);
    EXPECT_EQ(cpu_step_cost[0x4EB9 & 63], 16);
    EXPECT_EQ(cpu_step_cost[0x6000 & 63], 4);
    EXPECT_EQ(cpu_step_cost[0x20], 10);
    EXPECT_EQ(cpu_step_cost[0x3A], 12);
    EXPECT_EQ(cpu_step_cost[0x3B], 14);
    EXPECT_EQ(cpu_step_cost[0x3F], 8);
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
