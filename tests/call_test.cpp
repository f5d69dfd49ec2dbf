// The routine caller: each outcome of the run loop with its exact message,
// the standard call's registers, interrupt structures and the debug hooks.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <initializer_list>
#include <string>

#include "engine/call.h"
#include "support/test_support.h"

namespace {

class Call : public testing::Test {
protected:
    void SetUp() override {
        kelva_global_init();
        eng = make_engine();
        k = eng.get();
    }
    // Writes 68k code words at `at`.
    void code(uint32_t at, std::initializer_list<uint16_t> words) {
        for (uint16_t w : words) {
            ram_put16(k, at, w);
            at += 2;
        }
    }
    engine_ptr eng;
    kelva *k = nullptr;
};

constexpr uint16_t NOP = 0x4E71, RTS = 0x4E75;

std::string hex8(uint32_t v) {
    char b[16];
    snprintf(b, sizeof b, "%08x", v);
    return b;
}

// The standard call: D0 in and out, D1-D7 and A0-A4 as the caller left
// them, A5 the globals, A6 exec, supervisor mode, a return sentinel on the
// stack; the routine returns by rts.
TEST_F(Call, StandardCallRegisters) {
    code(0x200000, {RTS});
    k->d[0] = 0xCAFEF00D;
    uint64_t before = k->cycles;
    EXPECT_EQ(deli_call(k, 0x200000), 0xCAFEF00Du);
    EXPECT_EQ(k->cycles - before, 14u);   // one RTS: source field mode 6
    EXPECT_EQ(k->recent_pc[0], 0x200000u);
    EXPECT_EQ(k->recent_pc[1], 0u);
    EXPECT_EQ(k->pc, kReturnSentinel);

    code(0x200000, {0x200F, RTS});   // move.l a7,d0; rts
    for (int i = 1; i < 8; i++) k->d[i] = 0x100 + i;
    for (int i = 0; i < 5; i++) k->a[i] = 0x200 + i;
    k->fault = 9;
    k->sr = 0x0700;
    EXPECT_EQ(deli_call(k, 0x200000), kStackTop);
    EXPECT_EQ(k->a[5], 0x00F90000u);
    EXPECT_EQ(k->a[6], 0x00F80000u);
    EXPECT_EQ(k->a[7], kStackTop + 4);
    EXPECT_EQ(ram_get32(k, kStackTop), kReturnSentinel);
    EXPECT_EQ(k->sr & 0xFF00, 0x2000);
    EXPECT_EQ(k->fault, 0);
    for (int i = 1; i < 8; i++) EXPECT_EQ(k->d[i], 0x100u + i);
    for (int i = 0; i < 5; i++) EXPECT_EQ(k->a[i], 0x200u + i);
}

// Leaving the code areas prints the routine, the step count, the last 256
// PCs oldest first (8 a line) and the registers. Ten NOPs then jmp $300000
// fill 11 entries; 300 NOPs then the jump make 301 steps, of which the ring
// holds steps 45..300.
TEST_F(Call, LeavingTheCodeAreasPrintsTheRecentPcs) {
    for (int nops : {10, 300}) {
        for (int i = 0; i < nops; i++) code(0x200000 + 2 * i, {NOP});
        code(0x200000 + 2 * nops, {0x4EF9, 0x0030, 0x0000});
        k->d[0] = 0x11;
        k->d[7] = 0x77;
        k->a[0] = 0xA0;
        testing::internal::CaptureStderr();
        EXPECT_EQ(deli_call(k, 0x200000), kCallOutOfRange);
        std::string want = "deli_call: PC=00300000 out of range (routine=00200000 i=" + std::to_string(nops + 1) +
                           ")\n  recent PCs:";
        for (int i = std::max(0, nops + 1 - 256); i <= nops; i++)
            want += ((i - std::max(0, nops + 1 - 256)) % 8 ? " " : "\n     ") + hex8(0x200000 + 2 * i);
        want += "\n  D0..D7: 00000011 00000000 00000000 00000000 00000000 00000000 00000000 00000077\n";
        want += "  A0..A7: 000000a0 00000000 00000000 00000000 00000000 00f90000 00f80000 00eefffc SR=2000\n";
        EXPECT_EQ(testing::internal::GetCapturedStderr(), want) << nops;
    }
}

TEST_F(Call, BusFaultStopsTheRoutine) {
    // nop; move.l $FFFFFE,d0 -- a long read past the end of the space.
    code(0x200000, {NOP, 0x2039, 0x00FF, 0xFFFE, RTS});
    testing::internal::CaptureStderr();
    EXPECT_EQ(deli_call(k, 0x200000), kCallFault);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "deli_call: fault 2 at PC=00200008 (routine=00200000)\n");
    // The next call runs normally.
    code(0x200100, {0x7005, RTS});   // moveq #5,d0
    EXPECT_EQ(deli_call(k, 0x200100), 5u);
}

TEST_F(Call, EndlessLoopExhaustsTheBudgetAfterExactly50MillionSteps) {
    code(0x200000, {NOP, 0x60FE});   // nop; bra.s *
    uint64_t before = k->cycles;
    testing::internal::CaptureStderr();
    EXPECT_EQ(deli_call(k, 0x200000), kCallFault);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "deli_call: cycle budget exhausted (routine=00200000 last PC=00200002)\n");
    // NOP costs 14 (mode 6 in its low bits), each bra.s 8.
    EXPECT_EQ(k->cycles - before, 14u + uint64_t(kStepBudget - 1) * 8);
}

TEST_F(Call, AllowedCodeAreasAndTheirEdges) {
    struct edge {
        uint32_t addr;
        bool allowed;
    } edges[] = {
        {0x00FFFE, false}, {0x010000, true},  {0x0FFFFE, true},  {0x100000, false}, {0x1FFFFE, false},
        {0x2FFFFE, true},  {0x300000, false}, {0x3FFFFE, false}, {0x400000, true},  {0x7FFFFE, true},
        {0x800000, false}, {0xF7EFFE, false}, {0xF7F000, true},  {0xF9FFFE, true},  {0xFA0000, false},
        {0x1200000, false},
    };
    for (const edge &e : edges) {
        code(e.addr, {RTS});   // the sentinel is still on the stack: rts returns
        code(0x200000, {0x4EF9, uint16_t(e.addr >> 16), uint16_t(e.addr)});
        k->d[0] = 3;
        testing::internal::CaptureStderr();
        uint32_t r = deli_call(k, 0x200000);
        std::string err = testing::internal::GetCapturedStderr();
        EXPECT_EQ(r, e.allowed ? 3u : kCallOutOfRange) << std::hex << e.addr;
        EXPECT_EQ(err.empty(), e.allowed) << std::hex << e.addr;
    }
}

TEST_F(Call, InterruptStructures) {
    const uint32_t is = 0x200100;
    code(0x200000, {0x2009, RTS});   // move.l a1,d0; rts
    ram_put32(k, is + 14, 0x00ABCDEF);   // data
    ram_put32(k, is + 18, 0);            // no code: nothing runs
    k->d[0] = 0x99;
    uint64_t before = k->cycles;
    EXPECT_EQ(deli_run_handler(k, is), 0u);
    EXPECT_EQ(k->cycles, before);
    EXPECT_EQ(k->d[0], 0x99u);

    ram_put32(k, is + 18, 0x200000);
    EXPECT_EQ(deli_run_handler(k, is), 0x00ABCDEFu);
    EXPECT_EQ(k->a[0], 0x00DFF000u);
    EXPECT_EQ(k->a[5], 0x00F90000u);
    EXPECT_EQ(k->a[7], kStackTop + 4);
}

TEST_F(Call, BreakAddressEndsTheCall) {
    code(0x200000, {0x7001, 0x7002, 0x7003, RTS});   // moveq #1/#2/#3,d0
    k->break_addr = 0x200004;
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    EXPECT_EQ(deli_call(k, 0x200000), 2u);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "trace-pc: break at 00200004 (routine=00200000 i=2)\n");
    EXPECT_NE(out.find("200004"), std::string::npos) << out;   // the processor state at the break
    EXPECT_EQ(k->break_hit, 1u);
}

TEST_F(Call, TraceRangeAndLimit) {
    code(0x200000, {NOP, NOP, NOP, NOP, RTS});
    k->trace_enable = 1;
    k->trace_lo = 0x200002;
    k->trace_hi = 0x200006;
    testing::internal::CaptureStdout();
    deli_call(k, 0x200000);
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(k->trace_steps, 2u);
    EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 2) << out;

    k->trace_steps = 0;
    k->trace_hi = 0;   // whole address space
    k->trace_limit = 3;
    testing::internal::CaptureStdout();
    deli_call(k, 0x200000);
    out = testing::internal::GetCapturedStdout();
    EXPECT_EQ(k->trace_steps, 3u);
    EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 3) << out;
}

}  // namespace
