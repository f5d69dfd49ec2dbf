// Line-A host calls: exec.library, the CIA resources, the option lookup and
// the condition codes every trap leaves behind. The traps are entered the
// way the processor enters them: op_line_a with the PC behind the word.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "amigaos/amigaos.h"
#include "cpu/cpu.h"
#include "engine/call.h"
#include "hardware/bus.h"
#include "support/services.h"
#include "support/test_support.h"

namespace {

using U = std::vector<uint32_t>;

struct LineA : testing::Test {
    engine_ptr e = make_engine();
    kelva *k = e.get();
    uint32_t trap(uint16_t word, uint32_t d0 = 0, uint32_t a1 = 0) {
        k->d[0] = d0, k->a[1] = a1;
        op_line_a(k, word);
        return k->d[0];
    }
};

TEST_F(LineA, AllocMemRoundsToLongsZeroesAndEndsAtTheSlabLimit) {
    memset(k->ram + kSlabStart, 0xEE, 16);
    EXPECT_EQ((U{trap(0xA000, 1), trap(0xA000, 6), k->alloc_ptr}), (U{kSlabStart, kSlabStart + 4, kSlabStart + 12}));
    for (uint32_t i = 0; i < 12; i++) EXPECT_EQ(k->ram[kSlabStart + i], 0) << i;
    EXPECT_EQ(k->ram[kSlabStart + 12], 0xEE);   // nothing beyond the block
    for (uint32_t size : {0xFFFFFFFFu, 0xFFFFFFFDu, 0x80000000u})   // fail instead of wrapping
        EXPECT_EQ(trap(0xA000, size), 0u) << std::hex << size;
    EXPECT_EQ(k->alloc_ptr, kSlabStart + 12);
    k->alloc_ptr = kSlabEnd - 0x20;
    EXPECT_EQ(trap(0xA000, 0x21), 0u);
    EXPECT_TRUE(k->sr & kSrZ);
    EXPECT_EQ((U{trap(0xA000, 0x20), k->alloc_ptr}), (U{kSlabEnd - 0x20, kSlabEnd}));
    EXPECT_FALSE(k->sr & kSrZ);
}

TEST_F(LineA, LibrariesResourcesAndMemoryTypes) {
    const struct { uint16_t trap; const char *name; uint32_t base; } cases[] = {
        // OpenLibrary: by the first two letters; groups 2, 3 and 9 up are exec too.
        {0xA002, "exec.library", kExecBase}, {0xA002, "exotic.library", kExecBase}, {0xA002, "dos.library", kDosBase},
        {0xA002, "intuition.library", kLib2Base}, {0xA002, "graphics.library", kLib3Base},
        {0xA002, "uaopts.library", kUaBase}, {0xA002, "mathffp.library", 0}, {0xA002, "e", 0}, {0xA002, "", 0},
        {0xA202, "dos.library", kDosBase}, {0xAF02, "graphics.library", kLib3Base},
        // OpenResource: the two CIA resources only.
        {0xA005, "ciaa.resource", kCiaAResource}, {0xA005, "ciab.resource", kCiaBResource},
        {0xA005, "ciab", kCiaBResource}, {0xA005, "ciac.resource", 0}, {0xA005, "cia", 0},
        {0xA005, "misc.resource", 0}, {0xA005, "CIAA.resource", 0},
    };
    for (auto c : cases) {
        put_string(k, 0x300000, c.name);
        EXPECT_EQ(trap(c.trap, 0x55, 0x300000), c.base) << c.name;
        EXPECT_EQ(bool(k->sr & kSrZ), c.base == 0) << c.name;
    }
    memset(k->ram + 0x300000, 'd', 0x1000);   // a name without a NUL is cut
    EXPECT_EQ(trap(0xA002, 0, 0x300000), 0u);
    k->ram[0x300001] = 'o';
    EXPECT_EQ(trap(0xA002, 0, 0x300000), kDosBase);
    EXPECT_EQ(trap(0xA300, 8), kSlabStart);
    // TypeOfMem, as a player calls it through exec's jump table (-534): chip
    // below the player base, fast below the libraries, nothing above.
    const std::pair<uint32_t, uint32_t> types[] = {{0, 3}, {0x1FFFFF, 3}, {0x200000, 5}, {0xF7FFFF, 5}, {0xF80000, 0},
                                                   {0xFFFFFF, 0}};
    const uint16_t type_of_mem = uint16_t(read16(k, kExecBase - 534));
    for (auto [addr, type] : types) EXPECT_EQ(trap(type_of_mem, 0, addr), type) << std::hex << addr;
}

TEST_F(LineA, InterruptsAndUnknownFunctions) {
    EXPECT_EQ(trap(0xA006, 0x15, 0x201000), 0u);   // AddIntServer: the low four bits
    EXPECT_EQ(trap(0xA007, 6, 0x202000), 0u);      // SetIntVector returns the previous handler
    EXPECT_TRUE(k->sr & kSrZ);
    EXPECT_EQ(trap(0xA007, 6, 0x203000), 0x202000u);
    EXPECT_EQ((U{k->int_vectors[5], k->int_vectors[6], k->int_vectors[7]}), (U{0x201000, 0x203000, 0}));
    // Cause jumps into the interrupt code with its data in A1; without code nothing happens.
    uint32_t is = 0x300000;
    ram_put32(k, is + 14, 0x12345678);   // is_Data
    for (uint32_t code : {0x204000u, 0u}) {
        ram_put32(k, is + 18, code);     // is_Code
        k->pc = kExecBase - 180 + 2;
        EXPECT_EQ(trap(0xA008, 9, is), 0u);
        EXPECT_EQ((U{k->pc, k->a[1]}), (code ? U{code, 0x12345678} : U{kExecBase - 180 + 2, is}));
    }
    k->a[0] = 0x10;
    EXPECT_EQ(stderr_of([&] { EXPECT_EQ(trap(0xA009, 0xCAFE, 0x20), 0u); }),
              "libs_exec_dispatch: unimplemented exec fn 9 (D0=0000cafe A0=00000010 A1=00000020)\n");
    EXPECT_TRUE(k->sr & kSrZ);
}

TEST_F(LineA, ConditionCodesFromD0WithXKept) {
    k->sr = 0x2000 | kSrX | kSrV | kSrC | kSrZ;
    trap(0xA007, 5, 0x80000000);   // SetIntVector hands back a negative "handler"
    EXPECT_EQ(trap(0xA007, 5), 0x80000000u);
    EXPECT_EQ(k->sr, 0x2000 | kSrX | kSrN);
    k->sr = 0x2000 | kSrN | kSrC;
    trap(0xA001);
    EXPECT_EQ(k->sr, 0x2000 | kSrZ);
}

TEST_F(LineA, CiaResourceVectorsAndMasks) {
    auto state = [&](int c) { return U{k->cia[c].handlers[1], k->cia[c].icr_mask}; };
    EXPECT_EQ(trap(0xA601, 1, 0x205000), 0u);   // AddICRVector on CIA-A bit 1
    EXPECT_EQ(trap(0xA601, 5, 0x206000), 0u);   // no handler slot for bit 5
    EXPECT_EQ(state(0), (U{0x205000, 0x02}));
    EXPECT_EQ(trap(0xA602, 0x09), 0x09u);       // RemICRVector: bit 1 after masking with 7; D0 kept
    EXPECT_EQ(state(0), (U{0, 0}));
    trap(0xA701, 1, 0x205000);                  // CIA-B
    EXPECT_EQ(trap(0xA703, 0x02), 0x02u);       // AbleICR off: the old mask
    EXPECT_EQ(state(1), (U{0x205000, 0}));
    EXPECT_EQ(trap(0xA703, 0x82), 0x00u);       // and on again
    EXPECT_EQ(state(1), (U{0x205000, 0x02}));
    EXPECT_EQ(state(0), (U{0, 0}));
    k->cia[0].icr_data = 0x03;
    EXPECT_EQ(trap(0xA604, 0x01), 0x01u);       // SetICR clears the flags and reports them
    EXPECT_EQ(k->cia[0].icr_data, 0x02);
    EXPECT_EQ(trap(0xA604, 0x01), 0x00u);
}

// A0 -> { count, count x { name, flag byte, result buffer } }: an entry
// matches when "name:" begins the type tag, which is then copied whole.
TEST_F(LineA, OptionLookup) {
    const uint32_t table = 0x300000;
    auto flag = [&](uint32_t i) { return k->ram[table + 0x800 + i]; };
    auto result = [&](uint32_t i) { return get_string(k, table + 0x1000 + 0x100 * i); };
    auto lookup = [&](const char *tag, std::vector<const char *> names, uint32_t count, uint16_t word = 0xA800) {
        strcpy(k->epopt, tag);
        ram_put32(k, table, count);
        for (uint32_t i = 0; i < names.size(); i++) {
            put_string(k, table + 0x100 + 0x40 * i, names[i]);
            ram_put32(k, table + 4 + 12 * i, table + 0x100 + 0x40 * i);
            ram_put32(k, table + 8 + 12 * i, table + 0x800 + i);
            ram_put32(k, table + 12 + 12 * i, table + 0x1000 + 0x100 * i);
            k->ram[table + 0x800 + i] = 0x77;
        }
        k->a[0] = table;
        return trap(word, 99);
    };
    EXPECT_EQ(lookup("type:pt30", {"type", "typ", "other", "type:"}, 4), 0u);
    EXPECT_EQ((U{flag(0), flag(1), flag(2), flag(3)}), (U{1, 0, 0, 0}));
    EXPECT_EQ(result(0) + result(1) + result(2) + result(3), "type:pt30");
    lookup("", {"type", ""}, 2);   // an empty tag clears every flag
    EXPECT_EQ(flag(0) + flag(1), 0);
    lookup(":", {""}, 1);   // the shortest match: an empty name and the tag ":"
    EXPECT_EQ((U{flag(0), uint32_t(result(0).size())}), (U{1, 1}));
    EXPECT_EQ(lookup("type:pt30", {"type"}, 0), 0u);   // count 0 touches nothing
    EXPECT_EQ(flag(0), 0x77);
    EXPECT_EQ(lookup("type:pt30", {"type"}, 1, 0xA801), 0u);   // the group's other functions do nothing
    EXPECT_EQ(flag(0), 0x77);
}

// Hand-assembled routines at the player base call the library vectors as player code does.
TEST_F(LineA, TrapsReachedFrom68kCode) {
    kelva_global_init();
    put_code(k, kPlayerBase, {0x2C78, 0x0004, 0x7005,   // movea.l 4.w,a6; moveq #5,d0
                              0x4EAE, 0xFF3A,           // jsr -198(a6)      AllocMem
                              0x6602, 0x7401, 0x4E75}); // bne.s +2; moveq #1,d2 (skipped: condition codes from D0); rts
    EXPECT_EQ(deli_call(k, kPlayerBase), kSlabStart);
    EXPECT_EQ((U{k->d[2], k->alloc_ptr}), (U{0, kSlabStart + 8}));
    uint32_t is = 0x300000, code = kPlayerBase + 0x100;
    ram_put32(k, is + 14, 0x00ABCDEF);
    ram_put32(k, is + 18, code);
    put_code(k, code, {0x2409, 0x4E75});   // move.l a1,d2; rts: the interrupt sees its data in A1
    put_code(k, kPlayerBase, {0x227C, 0x0030, 0x0000, 0x4EAE, 0xFF4C,   // movea.l #$300000,a1; jsr -180(a6) (Cause)
                              0x7207, 0x4E75});                       // moveq #7,d1 (after the interrupt); rts
    deli_call(k, kPlayerBase);
    EXPECT_EQ((U{k->d[2], k->d[1]}), (U{0x00ABCDEF, 7}));
}

}  // namespace
