// Player support functions: group 4 through the globals table, the
// negative-offset entries found by PC, companion files and module patching.
#include <gtest/gtest.h>

#include <cstring>

#include "amigaos/amigaos.h"
#include "cpu/cpu.h"
#include "engine/call.h"
#include "hardware/bus.h"
#include "support/services.h"
#include "support/test_support.h"

namespace {

using W = std::vector<uint16_t>;
using U = std::vector<uint32_t>;

struct Support : testing::Test {
    engine_ptr e = make_engine();
    kelva *k = e.get();
    memory_files mem;

    void SetUp() override {   // what kelva_open leaves behind: the three path strings
        kelva_set_file_loader(k, memory_loader, &mem);
        for (uint32_t i = 0; i < 3; i++) ram_put32(k, kGlobals + 24 + 4 * i, U{kPathDir, kPathFile, kPathFull}[i]);
        put_string(k, kPathDir, "mods/");
        put_string(k, kPathFile, "song.mod");
    }
    uint32_t fn(uint32_t n) { return op_line_a(k, uint16_t(0xA400 + n)), k->d[0]; }
    // Calls negative-offset entry `entry` as the stub at $F90000 - 6 x entry does.
    uint32_t neg(uint32_t entry) { return k->pc = kGlobals - 6 * entry + 2, op_line_a(k, 0xA500), k->d[0]; }
    uint32_t load(const char *name) { return put_string(k, kPathFull, name), fn(1); }
    std::string fails(const char *name) { return stderr_of([&] { EXPECT_EQ(load(name), 1u) << name; }); }
    void timer(uint16_t value) { ram_put16(k, kGlobals + 54, value); }
};

TEST_F(Support, PathFunctionsBuildTheNameLoadFileOpensAndAppendStaysInTheSpace) {
    mem.files["mods/song.mod.smp"] = {1, 2, 3, 4};
    put_string(k, kPathFull, "");
    put_string(k, 0x300000, ".smp");
    k->a[0] = 0x300000;
    fn(2), fn(3), fn(4);   // directory, file, any string
    EXPECT_EQ(get_string(k, kPathFull), "mods/song.mod.smp");
    EXPECT_EQ(fn(1), 0u);
    EXPECT_EQ(k->comp_count, 1u);

    memset(k->ram, 'z', 8);
    put_string(k, 0xFFFFFC, "ab");
    put_string(k, 0x300000, "cdefg");
    deli_str_append(k, 0xFFFFFC, 0x300000);
    EXPECT_EQ(get_string(k, 0xFFFFFC), "abcdefg");   // "efg" and the NUL wrapped to $000000
    memset(k->ram, 'z', kRamSize);
    deli_str_append(k, 0x300000, 0x400000);   // neither string ends
    EXPECT_EQ(k->fault, 0);
    EXPECT_EQ(k->ram[0x123456], 'z');
}

TEST_F(Support, LoadFileAndGetListData) {
    mem.files["mods/smp.a"] = std::vector<uint8_t>(5, 0xAA);
    mem.files["mods/smp.b"] = std::vector<uint8_t>(8, 0xBB);
    k->comp_next = 0x010003;   // behind an odd-sized module
    EXPECT_EQ(load("mods/smp.a") + load("mods/smp.b"), 0u);
    EXPECT_TRUE(k->sr & kSrZ);
    EXPECT_EQ((U{k->comp_count, k->comp_next, k->ram[0x01000A], k->ram[0x010011]}), (U{2, 0x010012, 0xBB, 0xBB}));
    // Index 0 and 1 at even addresses; index == count: nothing.
    for (auto [index, size, addr] :
         {std::tuple{0u, 5u, 0x010004u}, std::tuple{1u, 8u, 0x01000Au}, std::tuple{2u, 0u, 0u}}) {
        k->d[0] = index;
        EXPECT_EQ((U{fn(0), k->a[0]}), (U{size, addr})) << index;
    }
    EXPECT_TRUE(k->sr & kSrZ);
    k->d[0] = 1;   // the negative-offset entry does the same
    EXPECT_EQ((U{neg(11), k->a[0]}), (U{8, 0x01000A}));
}

TEST_F(Support, CompanionFailuresPrintTheirMessageAndChangeNothing) {
    EXPECT_EQ(fails("mods/nothing"), "deli_load_companion: cannot open 'mods/nothing'\n");
    EXPECT_FALSE(k->sr & kSrZ);
    mem.files["fits"] = std::vector<uint8_t>(0x100, 0x11);   // a companion must end inside chip RAM
    mem.files["over"] = std::vector<uint8_t>(0x101, 0x22);
    mem.files["empty"] = {};
    k->comp_next = 0x100000 - 0x100;
    EXPECT_EQ(fails("over"), "deli_load_companion: 'over' (257 bytes) overflows chip RAM\n");
    EXPECT_EQ((U{k->comp_count, k->ram[0x0FFF00]}), (U{0, 0}));
    EXPECT_EQ(load("fits"), 0u);
    EXPECT_EQ((U{k->ram[0x0FFFFF], k->ram[0x100000], k->comp_next}), (U{0x11, 0, 0x100000}));
    for (int i = 1; i < 16; i++) ASSERT_EQ(load("empty"), 0u) << i;   // the list holds sixteen
    EXPECT_EQ(fails("empty"), "deli_load_companion: list full (16 entries)\n");
    EXPECT_EQ(k->comp_count, 16u);
}

TEST_F(Support, SongEndMarksOnceAndCutSuffix) {
    fn(9);
    EXPECT_EQ(k->song_end_frame, 1u);   // nothing played yet
    k->song_end_frame = 0;
    k->played_frames = 4800;
    fn(9);
    k->played_frames = 9600;
    fn(9);
    EXPECT_EQ(neg(20), 0u);
    EXPECT_EQ(k->song_end_frame, 4800u);

    const std::pair<const char *, const char *> cases[] = {
        {"song.xpk", "song"}, {"song.pp", "song"}, {"x.pp2", "x.pp2"}, {"pp", "pp"}, {".pp", ""}, {".xpk", ""},
        {"xpk", "xpk"}, {"a.pp.xpk", "a.pp"}, {"SONG.XPK", "SONG.XPK"}, {"songxpk", "songxpk"}, {"song_pp", "song_pp"}};
    for (auto [in, out] : cases) {
        put_string(k, kPathFull, in);
        fn(10);
        EXPECT_EQ(get_string(k, kPathFull), out) << in;
    }
}

// The CIA timer counts value + 1 E-clocks (709379 Hz): frames = (value + 1) x rate / 709379, rounded.
TEST_F(Support, SetTimerTurnsTheCiaValueIntoFrames) {
    const struct {
        uint16_t value;
        int32_t rate, frames;
    } cases[] = {{14188, 48000, 960}, {0, 48000, 960} /* zero leaves the tick alone */, {7093, 48000, 480},
                 {100, 48000, 7} /* 6.83: rounded, not cut */, {155, 48000, 11} /* 10.56 */,
                 {1, 48000, 1} /* never below one frame */, {14188, 44100, 882}};
    for (auto c : cases) {
        k->rate = c.rate;
        timer(c.value);
        fn(11);
        EXPECT_EQ(k->frames_per_tick, c.frames) << c.value << " at " << c.rate;
    }
    k->rate = 48000;
    timer(7093);
    EXPECT_EQ(neg(22), 0u);   // SetTimer
    EXPECT_EQ(k->frames_per_tick, 480);
    timer(0xFFFF);
    neg(18);   // StartInterrupt starts the tick at the same value: 65536 x 48000 / 709379 = 4434.48
    EXPECT_EQ(k->frames_per_tick, 4434);
}

TEST_F(Support, ReturnValuesOfTheOtherEntries) {
    for (uint32_t n : {5u, 6u, 16u, 29u, 31u, 32u, 7u, 8u, 12u, 15u}) {
        k->d[0] = 0x1234;
        EXPECT_EQ(fn(n), (n >= 7 && n <= 15) ? 0x1234u : 0u) << n;
    }
    k->d[0] = 0x87654321;
    EXPECT_EQ(stderr_of([&] { EXPECT_EQ(fn(33), 0x87654321u); }), "deli_dispatch: unknown fn 33\n");
    EXPECT_TRUE(k->sr & kSrN);
    for (uint32_t entry : {1u, 7u, 12u, 21u, 65u, 66u, 400u}) {
        k->d[0] = 0x55;
        EXPECT_EQ(neg(entry), 0u) << entry;
        EXPECT_TRUE(k->sr & kSrZ);
    }
    for (uint32_t pc : {0xF90004u, 0xF8F402u, 0x200000u}) {   // PCs outside the table
        k->pc = pc;
        k->d[0] = 0x55;
        op_line_a(k, 0xA500);
        EXPECT_EQ(k->d[0], 0u) << std::hex << pc;
    }
}

TEST_F(Support, AudioEntriesWriteTheChipRegisters) {
    k->d[0] = 40, k->d[1] = 6;   // channel 6 & 3 = 2
    neg(45);                    // PokeVol
    EXPECT_EQ((U{k->aud[2].vol, k->aud[0].vol}), (U{40, 0}));
    k->d[1] = 1, k->d[0] = 0x00012346;
    neg(42);   // PokeAdr
    k->d[0] = 0xFFFF0100;
    neg(43);   // PokeLen: low word only
    k->d[0] = 428;
    EXPECT_EQ(neg(44), 428u);   // PokePer leaves D0 alone
    EXPECT_EQ((U{k->aud[1].lc, k->aud[1].len, k->aud[1].per}), (U{0x00012346, 0x0100, 428}));

    EXPECT_EQ(neg(17), 0u);   // FreeAudio: master off
    EXPECT_EQ(k->dmacon & 0x0200, 0);
    EXPECT_EQ(neg(16), 0u);   // AllocAudio: master on
    EXPECT_EQ(k->dmacon & 0x0200, 0x0200);
    k->d[0] = 0x8000, k->d[1] = 0xFFF5;   // DMAMask: set channels 0 and 2
    neg(41);
    EXPECT_EQ(k->dmacon & 0x000F, 0x0005);
    k->d[0] = 0, k->d[1] = 0x0001;   // clear channel 0
    neg(41);
    EXPECT_EQ(k->dmacon & 0x000F, 0x0004);
}

TEST_F(Support, ReachedFrom68kCode) {
    kelva_global_init();
    // movea.l 92(a5),a0 (SongEnd: 56 + 4 x 9); jsr (a0); rts
    put_code(k, kPlayerBase, {0x206D, 0x005C, 0x4E90, 0x4E75});
    k->played_frames = 1000;
    deli_call(k, kPlayerBase);
    EXPECT_EQ(k->song_end_frame, 1000u);
    // moveq #6,d1; moveq #48,d0; jsr -270(a5); rts
    put_code(k, kPlayerBase, {0x7206, 0x7030, 0x4EAD, 0xFEF2, 0x4E75});
    EXPECT_EQ(deli_call(k, kPlayerBase), 48u);
    EXPECT_EQ((U{k->aud[2].vol, k->support_calls[45]}), (U{48, 1}));   // PokeVol
}

// ---- module patching (group-4 function 30) ----

constexpr uint32_t kArea = 0x020000, kTable = 0x030000, kBlock = kGlobals + 290;

struct SupportPatch : Support {
    // The parameter block: magic 5, area, length, table, flags, wildcards (relative $FFFE, operand $FFFD).
    void block(uint32_t start, uint32_t len, uint32_t flags = 0) {
        const U longs = {5, start, len, kTable, flags, 0xFFFEFFFD};
        for (uint32_t i = 0; i < 6; i++) ram_put32(k, kBlock + 4 * i, longs[i]);
    }
    void area(const W &w, uint32_t at = kArea) {
        for (uint16_t v : w) ram_put16(k, (at += 2) - 2, v);
    }
    W area_now(uint32_t n, uint32_t at = kArea) {
        W w;
        for (uint32_t i = 0; i < n; i++) w.push_back(uint16_t(ram_get16(k, at + 2 * i)));
        return w;
    }
    // Entry i: pattern and replacement at fixed places behind the table.
    void entry(uint32_t i, const W &pat, const W &rep) {
        uint32_t pat_off = 0x100 + 0x400 * i, rep_off = 0x300 + 0x400 * i;
        area({uint16_t(pat_off), uint16_t(2 * pat.size()), uint16_t(rep_off)}, kTable + 6 * i);
        area(pat, kTable + pat_off);
        area(rep, kTable + rep_off);
    }
    U result() { return {ram_get32(k, kBlock + 4), ram_get32(k, kBlock + 8)}; }   // result code, patches
};

TEST_F(SupportPatch, MatchesWildcardsAndReplacements) {
    const struct { const char *what; W before, pat, rep; uint32_t len, flags, count; W after; } cases[] = {
        {"every match; one cut by the area's end", {0x4E71, 0x1234, 0x5678, 0x4E71, 0x1234, 0x5678, 0x1234},
         {0x1234, 0x5678}, {0xAAAA, 0xBBBB}, 14, 0, 2, {0x4E71, 0xAAAA, 0xBBBB, 0x4E71, 0xAAAA, 0xBBBB, 0x1234}},
        {"overlapping matches: the lower one", W(5, 0x7777), {0x7777, 0x7777}, {0x1000, 0x2000}, 10, 0, 2,
         {0x1000, 0x2000, 0x1000, 0x2000, 0x7777}},
        {"wildcard without a capture is written literally", {0x4E75}, {0x4E75}, {0xFFFD}, 2, 0, 1, {0xFFFD}},
        // bsr.w +$40; move.w #$1234,d0 -> move.w #imm,d0; bsr.w to the same target ($42 from kArea = $3C from +6)
        {"captures: branch target and operand", {0x6100, 0x0040, 0x303C, 0x1234}, {0x6100, 0xFFFE, 0x303C, 0xFFFD},
         {0x303C, 0xFFFD, 0x6100, 0xFFFE}, 8, 0, 1, {0x303C, 0x1234, 0x6100, 0x003C}},
        {"relative wildcard off: $FFFE is literal", {0x6100, 0xFFF0}, {0x6100, 0xFFFE}, {0x4EB9, 0xFFFE}, 4,
         0x01000000, 0, {0x6100, 0xFFF0}},
        {"operand wildcard off, low byte ignored: negative displacement", {0x6100, 0xFFF0}, {0x6100, 0xFFFE},
         {0x4EB9, 0xFFFE}, 4, 0x00FF00FF, 1, {0x4EB9, 0xFFF0}},
    };
    for (const auto &c : cases) {
        area(c.before);
        entry(0, c.pat, c.rep);
        block(kArea, c.len, c.flags);
        k->d[0] = 0x77;
        EXPECT_EQ(fn(30), 0u) << c.what;
        EXPECT_EQ(k->sr & (kSrN | kSrZ | kSrV | kSrC), kSrZ) << c.what;
        EXPECT_EQ(result(), (U{0, c.count})) << c.what;
        EXPECT_EQ(area_now(uint32_t(c.after.size())), c.after) << c.what;
    }
}

TEST_F(SupportPatch, LengthRoundsDownEntriesRunInOrderAndTheAreaStaysInTheSpace) {
    area({0x1111, 0x2222, 0x3333});
    entry(0, {0x1111}, {0x2222});
    entry(1, {0x2222, 0x2222}, {0x4444, 0x4444});   // sees the first entry's patch
    entry(2, {0x3333}, {0x5555});                   // beyond the rounded length
    block(kArea, 5);
    fn(30);
    EXPECT_EQ(result(), (U{0, 2}));
    EXPECT_EQ(area_now(3), (W{0x4444, 0x4444, 0x3333}));

    entry(0, {0x0000, 0x0000}, {0x1234, 0x5678});
    area({0}, kTable + 6);   // the table ends after entry 0
    block(0xFFFFF8, 0x100);   // only 8 bytes remain
    fn(30);
    EXPECT_EQ(result(), (U{0, 2}));
    EXPECT_EQ((U{ram_get16(k, 0xFFFFFC), ram_get16(k, 0), uint32_t(k->fault)}), (U{0x1234, 0, 0}));
}

TEST_F(SupportPatch, BadMagicAndBadFlagsOnlyStoreTheResult) {
    area({0x1234});
    entry(0, {0x1234}, {0x9999});
    block(kArea, 0xABCD);
    ram_put32(k, kBlock, 4);
    k->d[0] = 0x80000001;
    EXPECT_EQ(fn(30), 0x80000001u);
    EXPECT_EQ(result(), (U{39, 0xABCD}));
    block(kArea, 2, 0x00000100);
    k->d[0] = 7;
    EXPECT_EQ(fn(30), 7u);
    EXPECT_EQ(result(), (U{40, 2}));
    EXPECT_EQ(area_now(1), W{0x1234});
}

// The search gives up after 2^28 word comparisons: 81 per position from $100000
// on reach that before $800000. What was patched stays; no further entry runs.
TEST_F(SupportPatch, SearchBudgetEndsTheSearch) {
    W pat(80, 0);
    pat.push_back(0x1234);
    area({0x1234}, 0x100000 + 160);
    entry(0, pat, W(81, 0x4E71));
    entry(1, {0x4E71}, {0x1111});
    block(0x100000, 0x700000);
    EXPECT_EQ(stderr_of([&] { fn(30); }), "deli_patch: search budget exhausted after 1 patches\n");
    EXPECT_EQ(result(), (U{0, 1}));
    EXPECT_EQ(area_now(1, 0x100000), W{0x4E71});
}

// 200 bytes of captures per attempt: 50 relative (4 bytes) or 100 operand (2 bytes) ones. Each
// attempt starts with none: a hundred failed attempts that each captured an operand neither fill
// the space nor leave their captures behind.
TEST_F(SupportPatch, CaptureSpace) {
    area(W(110, 0));
    for (auto [wild, n, code] :
         {std::tuple{0xFFFE, 51u, 34u}, std::tuple{0xFFFD, 101u, 34u}, std::tuple{0xFFFD, 100u, 0u}}) {
        entry(0, W(n, uint16_t(wild)), W(n, 0x4E71));
        entry(1, {0x0000}, {0x1111});   // reached only when the first ends normally
        block(kArea, 220);
        k->d[0] = 3;
        EXPECT_EQ(fn(30), 0u);
        EXPECT_EQ(result()[0], code) << n;
        EXPECT_EQ(ram_get16(k, kArea), code ? 0u : 0x4E71u) << n;
    }
    area(W(110, 0));
    area({0x5555, 0x1234}, kArea + 220);
    entry(0, {0xFFFD, 0x1234}, {0x1234, 0xFFFD});
    area({0}, kTable + 6);   // the table ends after entry 0
    block(kArea, 224);
    fn(30);
    EXPECT_EQ(result(), (U{0, 1}));
    EXPECT_EQ(area_now(2, kArea + 220), (W{0x1234, 0x5555}));
}

}  // namespace
