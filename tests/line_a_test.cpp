// Line-A host calls: exec.library, the CIA resources, the option lookup and
// the condition codes every trap leaves behind. The traps are entered the
// way the processor enters them: op_line_a with the PC behind the word.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "amigaos/amigaos.h"
#include "cpu/cpu.h"
#include "engine/call.h"
#include "engine/engine.h"
#include "hardware/bus.h"
#include "support/test_support.h"

namespace {

uint32_t trap(kelva *k, uint16_t word) {
    op_line_a(k, word);
    return k->d[0];
}

// ---- exec.library: AllocMem and the slab ----

TEST(ExecAllocMem, RoundsToLongsAndZeroesTheBlock) {
    auto k = make_engine();
    memset(k->ram + kSlabStart, 0xEE, 16);
    k->d[0] = 1;
    EXPECT_EQ(trap(k.get(), 0xA000), kSlabStart);
    EXPECT_EQ(k->alloc_ptr, kSlabStart + 4);
    k->d[0] = 6;
    EXPECT_EQ(trap(k.get(), 0xA000), kSlabStart + 4);
    EXPECT_EQ(k->alloc_ptr, kSlabStart + 12);
    for (uint32_t i = 0; i < 12; i++) EXPECT_EQ(k->ram[kSlabStart + i], 0) << i;
    EXPECT_EQ(k->ram[kSlabStart + 12], 0xEE);   // nothing beyond the block
}

TEST(ExecAllocMem, EndsExactlyAtTheSlabLimit) {
    auto k = make_engine();
    k->alloc_ptr = kSlabEnd - 0x20;
    k->d[0] = 0x20;
    EXPECT_EQ(trap(k.get(), 0xA000), kSlabEnd - 0x20);
    EXPECT_EQ(k->alloc_ptr, kSlabEnd);
    EXPECT_FALSE(k->sr & kSrZ);

    k->alloc_ptr = kSlabEnd - 0x20;
    k->d[0] = 0x21;
    EXPECT_EQ(trap(k.get(), 0xA000), 0u);
    EXPECT_TRUE(k->sr & kSrZ);
    EXPECT_EQ(k->alloc_ptr, kSlabEnd - 0x20);
}

TEST(ExecAllocMem, HugeRequestsFailInsteadOfWrapping) {
    auto k = make_engine();
    for (uint32_t size : {0xFFFFFFFFu, 0xFFFFFFFDu, 0x80000000u}) {
        k->d[0] = size;
        EXPECT_EQ(trap(k.get(), 0xA000), 0u) << std::hex << size;
        EXPECT_EQ(k->alloc_ptr, kSlabStart);
    }
}

// ---- exec.library: libraries, resources, memory types ----

TEST(ExecOpenLibrary, ChoosesTheBaseByTheFirstTwoLetters) {
    auto k = make_engine();
    struct {
        const char *name;
        uint32_t base;
    } cases[] = {
        {"exec.library", kExecBase},      {"exotic.library", kExecBase}, {"dos.library", kDosBase},
        {"intuition.library", kLib2Base}, {"graphics.library", kLib3Base}, {"uaopts.library", kUaBase},
        {"mathffp.library", 0},           {"e", 0},                      {"", 0},
    };
    for (const auto &c : cases) {
        put_string(k.get(), 0x300000, c.name);
        k->a[1] = 0x300000;
        k->d[0] = 0x55;
        EXPECT_EQ(trap(k.get(), 0xA002), c.base) << c.name;
        EXPECT_EQ(bool(k->sr & kSrZ), c.base == 0) << c.name;
    }
}

TEST(ExecOpenLibrary, LibraryNameWithoutNulIsCut) {
    auto k = make_engine();
    memset(k->ram + 0x300000, 'd', 0x1000);
    k->a[1] = 0x300000;
    EXPECT_EQ(trap(k.get(), 0xA002), 0u);   // "dd..." is not "do"
    k->ram[0x300001] = 'o';
    EXPECT_EQ(trap(k.get(), 0xA002), kDosBase);
}

TEST(ExecTypeOfMem, ChipFastAndNothingAtTheBoundaries) {
    auto k = make_engine();
    struct {
        uint32_t addr, type;
    } cases[] = {{0, 3}, {0x1FFFFF, 3}, {0x200000, 5}, {0xF7FFFF, 5}, {0xF80000, 0}, {0xFFFFFF, 0}};
    for (const auto &c : cases) {
        k->a[1] = c.addr;
        EXPECT_EQ(trap(k.get(), 0xA004), c.type) << std::hex << c.addr;
    }
}

TEST(ExecOpenResource, OnlyTheTwoCiaResources) {
    auto k = make_engine();
    struct {
        const char *name;
        uint32_t base;
    } cases[] = {{"ciaa.resource", kCiaAResource}, {"ciab.resource", kCiaBResource}, {"ciab", kCiaBResource},
                 {"ciac.resource", 0},             {"cia", 0},                      {"misc.resource", 0},
                 {"CIAA.resource", 0}};
    for (const auto &c : cases) {
        put_string(k.get(), 0x300000, c.name);
        k->a[1] = 0x300000;
        EXPECT_EQ(trap(k.get(), 0xA005), c.base) << c.name;
    }
}

// ---- exec.library: interrupts ----

TEST(ExecInterrupts, AddIntServerUsesTheLowFourBits) {
    auto k = make_engine();
    k->d[0] = 0x15;
    k->a[1] = 0x201000;
    EXPECT_EQ(trap(k.get(), 0xA006), 0u);
    EXPECT_EQ(k->int_vectors[5], 0x201000u);
}

TEST(ExecInterrupts, SetIntVectorReturnsThePreviousHandler) {
    auto k = make_engine();
    k->d[0] = 5;
    k->a[1] = 0x201000;
    EXPECT_EQ(trap(k.get(), 0xA007), 0u);
    EXPECT_TRUE(k->sr & kSrZ);
    k->d[0] = 5;
    k->a[1] = 0x202000;
    EXPECT_EQ(trap(k.get(), 0xA007), 0x201000u);
    EXPECT_EQ(k->int_vectors[5], 0x202000u);
    EXPECT_EQ(k->int_vectors[7], 0u);
}

TEST(ExecInterrupts, CauseJumpsIntoTheInterruptCode) {
    auto k = make_engine();
    uint32_t is = 0x300000;
    ram_put32(k.get(), is + 14, 0x12345678);   // is_Data
    ram_put32(k.get(), is + 18, 0x204000);     // is_Code
    k->a[1] = is;
    k->pc = kExecBase - 180 + 2;
    k->d[0] = 9;
    EXPECT_EQ(trap(k.get(), 0xA008), 0u);
    EXPECT_EQ(k->pc, 0x204000u);
    EXPECT_EQ(k->a[1], 0x12345678u);

    ram_put32(k.get(), is + 18, 0);   // no code: nothing happens
    k->a[1] = is;
    k->pc = kExecBase - 180 + 2;
    EXPECT_EQ(trap(k.get(), 0xA008), 0u);
    EXPECT_EQ(k->pc, kExecBase - 180 + 2);
    EXPECT_EQ(k->a[1], is);
}

TEST(ExecDispatch, UnknownFunctionsPrintAndReturnZero) {
    auto k = make_engine();
    k->d[0] = 0xCAFE;
    k->a[0] = 0x10;
    k->a[1] = 0x20;
    testing::internal::CaptureStderr();
    EXPECT_EQ(trap(k.get(), 0xA009), 0u);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "libs_exec_dispatch: unimplemented exec fn 9 (D0=0000cafe A0=00000010 A1=00000020)\n");
    EXPECT_TRUE(k->sr & kSrZ);
}

TEST(ExecDispatch, GroupsTwoThreeAndNineUpAreExecToo) {
    auto k = make_engine();
    put_string(k.get(), 0x300000, "dos.library");
    k->a[1] = 0x300000;
    EXPECT_EQ(trap(k.get(), 0xA202), kDosBase);
    k->d[0] = 8;
    EXPECT_EQ(trap(k.get(), 0xA300), kSlabStart);
    k->a[1] = 0x100;
    EXPECT_EQ(trap(k.get(), 0xAF04), 3u);
}

// ---- condition codes ----

TEST(TrapConditionCodes, SetFromD0WithXKept) {
    auto k = make_engine();
    k->sr = 0x2000 | kSrX | kSrV | kSrC | kSrZ;
    k->d[0] = 5;
    k->a[1] = 0x80000000;   // SetIntVector hands back a negative "handler"
    trap(k.get(), 0xA007);
    k->d[0] = 5;
    EXPECT_EQ(trap(k.get(), 0xA007), 0x80000000u);
    EXPECT_EQ(k->sr, 0x2000 | kSrX | kSrN);

    k->sr = 0x2000 | kSrN | kSrC;
    k->d[0] = 0;
    trap(k.get(), 0xA001);
    EXPECT_EQ(k->sr, 0x2000 | kSrZ);
}

// ---- CIA resources ----

TEST(CiaResource, AddAndRemoveIcrVector) {
    auto k = make_engine();
    k->d[0] = 1;
    k->a[1] = 0x205000;
    EXPECT_EQ(trap(k.get(), 0xA601), 0u);
    EXPECT_EQ(k->cia[0].handlers[1], 0x205000u);
    EXPECT_EQ(k->cia[0].icr_mask, 0x02);
    EXPECT_EQ(k->cia[1].icr_mask, 0x00);

    k->d[0] = 5;   // no handler slot for bit 5
    k->a[1] = 0x206000;
    EXPECT_EQ(trap(k.get(), 0xA601), 0u);
    EXPECT_EQ(k->cia[0].icr_mask, 0x02);

    k->d[0] = 0x09;   // bit 1 after masking with 7; D0 is kept
    EXPECT_EQ(trap(k.get(), 0xA602), 0x09u);
    EXPECT_EQ(k->cia[0].handlers[1], 0u);
    EXPECT_EQ(k->cia[0].icr_mask, 0x00);
}

TEST(CiaResource, AbleIcrOnCiaBSetsAndClearsTheMask) {
    auto k = make_engine();
    k->d[0] = 1;
    k->a[1] = 0x205000;
    trap(k.get(), 0xA701);
    k->d[0] = 0x02;   // disable timer B's handler
    EXPECT_EQ(trap(k.get(), 0xA703), 0x02u);
    EXPECT_EQ(k->cia[1].icr_mask, 0x00);
    k->d[0] = 0x82;   // enable it again
    EXPECT_EQ(trap(k.get(), 0xA703), 0x00u);
    EXPECT_EQ(k->cia[1].icr_mask, 0x02);
    EXPECT_EQ(k->cia[0].icr_mask, 0x00);
    EXPECT_EQ(k->cia[1].handlers[1], 0x205000u);
}

TEST(CiaResource, SetIcrClearsFlagsAndReportsThem) {
    auto k = make_engine();
    k->cia[0].icr_data = 0x03;
    k->d[0] = 0x01;
    EXPECT_EQ(trap(k.get(), 0xA604), 0x01u);
    EXPECT_EQ(k->cia[0].icr_data, 0x02);
    k->d[0] = 0x01;
    EXPECT_EQ(trap(k.get(), 0xA604), 0x00u);
}

// ---- option lookup ----

struct option_table {
    uint32_t table = 0x300000;
    void write(kelva *k, const char *const *names, uint32_t count) {
        ram_put32(k, table, count);
        for (uint32_t i = 0; i < count; i++) {
            uint32_t name = table + 0x100 + 0x40 * i;
            put_string(k, name, names[i]);
            ram_put32(k, table + 4 + 12 * i, name);
            ram_put32(k, table + 8 + 12 * i, flag(i));
            ram_put32(k, table + 12 + 12 * i, result(i));
            k->ram[flag(i)] = 0x77;
        }
    }
    uint32_t flag(uint32_t i) const { return table + 0x800 + i; }
    uint32_t result(uint32_t i) const { return table + 0x1000 + 0x100 * i; }
};

TEST(OptionLookup, CopiesTheTypeTagForMatchingNames) {
    auto k = make_engine();
    strcpy(k->epopt, "type:pt30");
    const char *names[] = {"type", "typ", "other", "type:"};
    option_table t;
    t.write(k.get(), names, 4);
    k->a[0] = t.table;
    k->d[0] = 99;
    EXPECT_EQ(trap(k.get(), 0xA800), 0u);
    EXPECT_EQ(k->ram[t.flag(0)], 1);
    EXPECT_EQ(get_string(k.get(), t.result(0)), "type:pt30");
    for (uint32_t i = 1; i < 4; i++) {
        EXPECT_EQ(k->ram[t.flag(i)], 0) << names[i];
        EXPECT_EQ(k->ram[t.result(i)], 0) << names[i];
    }
}

TEST(OptionLookup, EmptyTagClearsEveryFlag) {
    auto k = make_engine();
    const char *names[] = {"type", ""};
    option_table t;
    t.write(k.get(), names, 2);
    k->a[0] = t.table;
    EXPECT_EQ(trap(k.get(), 0xA800), 0u);
    EXPECT_EQ(k->ram[t.flag(0)], 0);
    EXPECT_EQ(k->ram[t.flag(1)], 0);
}

TEST(OptionLookup, ZeroCountTouchesNothingAndOtherFunctionsReturnZero) {
    auto k = make_engine();
    strcpy(k->epopt, "type:pt30");
    const char *names[] = {"type"};
    option_table t;
    t.write(k.get(), names, 1);
    ram_put32(k.get(), t.table, 0);
    k->a[0] = t.table;
    k->d[0] = 5;
    EXPECT_EQ(trap(k.get(), 0xA800), 0u);
    EXPECT_EQ(k->ram[t.flag(0)], 0x77);
    k->d[0] = 5;
    EXPECT_EQ(trap(k.get(), 0xA801), 0u);
    EXPECT_EQ(k->ram[t.flag(0)], 0x77);
}

// ---- strings from emulated memory ----

TEST(AmigaReadString, BoundedAndWrapsAtTheEndOfTheAddressSpace) {
    auto k = make_engine();
    memset(k->ram, 'A', kRamSize);
    char buf[16];
    memset(buf, 'x', sizeof buf);
    amiga_read_string(k.get(), 0xFFFFFA, buf, 8);
    EXPECT_EQ(std::string(buf), "AAAAAAA");
    EXPECT_EQ(buf[8], 'x');   // nothing written past the bound

    k->ram[2] = 0;   // wraps past $FFFFFF to $000000
    amiga_read_string(k.get(), 0xFFFFFE, buf, sizeof buf);
    EXPECT_EQ(std::string(buf), "AAAA");
}

// ---- traps reached from 68k code ----
// Small hand-assembled routines at the player base, run by the routine
// caller: they call the library vectors the way player code does.

void put_code(kelva *k, uint32_t addr, std::initializer_list<uint16_t> words) {
    for (uint16_t w : words) {
        ram_put16(k, addr, w);
        addr += 2;
    }
}

TEST(TrapsFromCode, AllocMemThroughTheExecVector) {
    kelva_global_init();
    auto k = make_engine();
    put_code(k.get(), kPlayerBase, {
        0x2C78, 0x0004,   // movea.l 4.w,a6
        0x7005,           // moveq #5,d0
        0x4EAE, 0xFF3A,   // jsr -198(a6)      AllocMem
        0x6602,           // bne.s +2          condition codes from D0
        0x7401,           // moveq #1,d2       (skipped)
        0x4E75,           // rts
    });
    EXPECT_EQ(deli_call(k.get(), kPlayerBase), kSlabStart);
    EXPECT_EQ(k->d[2], 0u);
    EXPECT_EQ(k->alloc_ptr, kSlabStart + 8);
}

TEST(TrapsFromCode, CauseRunsTheInterruptAndReturnsToTheCaller) {
    kelva_global_init();
    auto k = make_engine();
    uint32_t is = 0x300000, code = kPlayerBase + 0x100;
    ram_put32(k.get(), is + 14, 0x00ABCDEF);
    ram_put32(k.get(), is + 18, code);
    put_code(k.get(), code, {
        0x2409,   // move.l a1,d2     the interrupt sees its data in A1
        0x4E75,   // rts
    });
    put_code(k.get(), kPlayerBase, {
        0x227C, 0x0030, 0x0000,   // movea.l #$300000,a1
        0x4EAE, 0xFF4C,           // jsr -180(a6)   Cause
        0x7207,                   // moveq #7,d1    runs after the interrupt
        0x4E75,                   // rts
    });
    deli_call(k.get(), kPlayerBase);
    EXPECT_EQ(k->d[2], 0x00ABCDEFu);
    EXPECT_EQ(k->d[1], 7u);
}

}  // namespace
