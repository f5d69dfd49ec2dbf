// The routine caller: each outcome of the run loop with its exact message, the standard call's registers, interrupt
// structures and the debug hooks.
#include <gtest/gtest.h>

#include <cstdio>
#include <tuple>

#include "engine/call.h"
#include "support/services.h"
#include "support/test_support.h"

namespace {

struct Call : testing::Test {
    engine_ptr eng = make_engine();
    kelva *k = eng.get();
};

constexpr uint16_t NOP = 0x4E71, RTS = 0x4E75;

// The standard call: D0 in and out, D1-D7 and A0-A4 as the caller left them, A5 the globals, A6 exec, supervisor
// mode, a return sentinel on the stack; the routine returns by rts. An interrupt structure's code gets its data in A1
// and the custom base in A0; without code nothing runs.
TEST_F(Call, StandardCallAndInterruptRegisters) {
    put_code(k, 0x200000, {RTS});
    k->d[0] = 0xCAFEF00D;
    uint64_t before = k->cycles;
    EXPECT_EQ(deli_call(k, 0x200000), 0xCAFEF00Du);
    // One RTS (14 cycles: source field mode 6), then the sentinel.
    EXPECT_EQ(std::tuple(k->cycles - before, k->recent_pc[0], k->recent_pc[1], k->pc),
              std::tuple(14u, 0x200000u, 0u, kReturnSentinel));

    put_code(k, 0x200000, {0x200F, RTS});   // move.l a7,d0; rts
    for (int i = 1; i < 8; i++) k->d[i] = 0x100 + i;
    for (int i = 0; i < 5; i++) k->a[i] = 0x200 + i;
    k->fault = 9;
    k->sr = 0x0700;
    EXPECT_EQ(deli_call(k, 0x200000), kStackTop);
    EXPECT_EQ(std::tuple(k->a[5], k->a[6], k->a[7], ram_get32(k, kStackTop), k->sr & 0xFF00, k->fault),
              std::tuple(0x00F90000u, 0x00F80000u, kStackTop + 4, kReturnSentinel, 0x2000, 0));
    for (int i = 1; i < 8; i++) EXPECT_EQ(k->d[i], 0x100u + i);
    for (int i = 0; i < 5; i++) EXPECT_EQ(k->a[i], 0x200u + i);

    const uint32_t is = 0x200100;
    put_code(k, 0x200000, {0x2009, RTS});   // move.l a1,d0; rts
    ram_put32(k, is + 14, 0x00ABCDEF);      // data
    k->d[0] = 0x99;
    before = k->cycles;
    EXPECT_EQ(deli_run_handler(k, is), 0u);
    EXPECT_EQ(std::tuple(k->cycles, k->d[0]), std::tuple(before, 0x99u));
    ram_put32(k, is + 18, 0x200000);   // code
    EXPECT_EQ(deli_run_handler(k, is), 0x00ABCDEFu);
    EXPECT_EQ(std::tuple(k->a[0], k->a[5], k->a[7]), std::tuple(0x00DFF000u, 0x00F90000u, kStackTop + 4));
}

// Leaving the code areas prints the routine, the step count, the last 256 PCs oldest first (8 a line) and the
// registers. Ten NOPs then jmp $300000 fill 11 entries; 300 NOPs then the jump make 301 steps, of which the ring
// holds steps 45..300.
TEST_F(Call, LeavingTheCodeAreasPrintsTheRecentPcs) {
    for (int nops : {10, 300}) {
        for (int i = 0; i < nops; i++) put_code(k, 0x200000 + 2 * i, {NOP});
        put_code(k, 0x200000 + 2 * nops, {0x4EF9, 0x0030, 0x0000});
        k->d[0] = 0x11;
        k->d[7] = 0x77;
        k->a[0] = 0xA0;
        std::string want = "deli_call: PC=00300000 out of range (routine=00200000 i=" + std::to_string(nops + 1) +
                           ")\n  recent PCs:";
        const int first = std::max(0, nops + 1 - 256);
        for (int i = first; i <= nops; i++) {
            char pc[16];
            snprintf(pc, sizeof pc, "%08x", 0x200000 + 2 * i);
            want += ((i - first) % 8 ? " " : "\n     ") + std::string(pc);
        }
        want += "\n  D0..D7: 00000011 00000000 00000000 00000000 00000000 00000000 00000000 00000077\n";
        want += "  A0..A7: 000000a0 00000000 00000000 00000000 00000000 00f90000 00f80000 00eefffc SR=2000\n";
        EXPECT_EQ(stderr_of([&] { EXPECT_EQ(deli_call(k, 0x200000), kCallOutOfRange); }), want) << nops;
    }
}

// A bus fault stops the routine, and the next call runs normally; an endless loop ends after exactly 50 million steps
// (NOP costs 14, mode 6 in its low bits, each bra.s 8).
TEST_F(Call, BusFaultAndEndlessLoopStopTheRoutine) {
    put_code(k, 0x200000, {NOP, 0x2039, 0x00FF, 0xFFFE, RTS});   // nop; move.l $FFFFFE,d0
    EXPECT_EQ(stderr_of([&] { EXPECT_EQ(deli_call(k, 0x200000), kCallFault); }),
              "deli_call: fault 2 at PC=00200008 (routine=00200000)\n");
    put_code(k, 0x200100, {0x7005, RTS});   // moveq #5,d0
    EXPECT_EQ(deli_call(k, 0x200100), 5u);

    put_code(k, 0x200000, {NOP, 0x60FE});   // nop; bra.s *
    uint64_t before = k->cycles;
    EXPECT_EQ(stderr_of([&] { EXPECT_EQ(deli_call(k, 0x200000), kCallFault); }),
              "deli_call: cycle budget exhausted (routine=00200000 last PC=00200002)\n");
    EXPECT_EQ(k->cycles - before, 14u + uint64_t(kStepBudget - 1) * 8);
}

TEST_F(Call, AllowedCodeAreasAndTheirEdges) {
    const std::pair<uint32_t, bool> edges[] = {
        {0x00FFFE, false}, {0x010000, true},  {0x0FFFFE, true},  {0x100000, false}, {0x1FFFFE, false},
        {0x2FFFFE, true},  {0x300000, false}, {0x3FFFFE, false}, {0x400000, true},  {0x7FFFFE, true},
        {0x800000, false}, {0xF7EFFE, false}, {0xF7F000, true},  {0xF9FFFE, true},  {0xFA0000, false},
        {0x1200000, false},
    };
    for (auto [addr, allowed] : edges) {
        put_code(k, addr, {RTS});   // the sentinel is still on the stack: rts returns
        put_code(k, 0x200000, {0x4EF9, uint16_t(addr >> 16), uint16_t(addr)});
        k->d[0] = 3;
        uint32_t r = 0;
        EXPECT_EQ(stderr_of([&] { r = deli_call(k, 0x200000); }).empty(), allowed) << std::hex << addr;
        EXPECT_EQ(r, allowed ? 3u : kCallOutOfRange) << std::hex << addr;
    }
}

// The debug hooks: a break address ends the call and prints the processor state; tracing prints a line per step
// inside its range (none: all), at most trace_limit of them.
TEST_F(Call, BreakAddressAndTrace) {
    put_code(k, 0x200000, {0x7001, 0x7002, 0x7003, RTS});   // moveq #1/#2/#3,d0
    k->break_addr = 0x200004;
    testing::internal::CaptureStdout();
    EXPECT_EQ(stderr_of([&] { EXPECT_EQ(deli_call(k, 0x200000), 2u); }),
              "trace-pc: break at 00200004 (routine=00200000 i=2)\n");
    std::string out = testing::internal::GetCapturedStdout();
    EXPECT_TRUE(out.find("200004") != std::string::npos && k->break_hit == 1) << out;

    k->break_addr = 0;
    put_code(k, 0x200000, {NOP, NOP, NOP, NOP, RTS});
    k->trace_enable = 1;
    for (auto [hi, limit, steps] : {std::tuple{0x200006u, 0u, 2u}, {0u, 3u, 3u}}) {
        k->trace_steps = 0;
        k->trace_lo = 0x200002;
        k->trace_hi = hi;
        k->trace_limit = limit;
        testing::internal::CaptureStdout();
        deli_call(k, 0x200000);
        out = testing::internal::GetCapturedStdout();
        EXPECT_EQ(k->trace_steps, steps);
        EXPECT_EQ(uint32_t(std::count(out.begin(), out.end(), '\n')), steps) << out;
    }
}

}  // namespace
