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

struct Support : testing::Test {
    engine_ptr k = make_engine();
    memory_files mem;

    void SetUp() override {
        kelva_set_file_loader(k.get(), memory_loader, &mem);
        // What kelva_open leaves behind: the three path strings.
        ram_put32(k.get(), kGlobals + 24, kPathDir);
        ram_put32(k.get(), kGlobals + 28, kPathFile);
        ram_put32(k.get(), kGlobals + 32, kPathFull);
        put_string(k.get(), kPathDir, "mods/");
        put_string(k.get(), kPathFile, "song.mod");
    }
    uint32_t fn(uint32_t n) {
        op_line_a(k.get(), uint16_t(0xA400 + n));
        return k->d[0];
    }
    // Calls negative-offset entry `entry` as the stub at $F90000 - 6*entry does.
    uint32_t neg(uint32_t entry) {
        k->pc = kGlobals - 6 * entry + 2;
        op_line_a(k.get(), 0xA500);
        return k->d[0];
    }
    void set_path(const char *s) { put_string(k.get(), kPathFull, s); }
    uint32_t load(const char *name) {
        set_path(name);
        return fn(1);
    }
};

TEST_F(Support, PathFunctionsBuildTheNameLoadFileOpens) {
    mem.files["mods/song.mod.smp"] = {1, 2, 3, 4};
    set_path("");
    fn(2);   // directory
    fn(3);   // file
    put_string(k.get(), 0x300000, ".smp");
    k->a[0] = 0x300000;
    fn(4);   // any string
    EXPECT_EQ(get_string(k.get(), kPathFull), "mods/song.mod.smp");
    EXPECT_EQ(fn(1), 0u);
    EXPECT_EQ(k->comp_count, 1u);
}

TEST_F(Support, AppendWrapsAtTheTopOfTheAddressSpaceAndStopsWithoutNul) {
    memset(k->ram, 'z', 8);
    put_string(k.get(), 0xFFFFFC, "ab");
    put_string(k.get(), 0x300000, "cdefg");
    deli_str_append(k.get(), 0xFFFFFC, 0x300000);
    EXPECT_EQ(get_string(k.get(), 0xFFFFFC), "abcdefg");   // "efg" and the NUL at $000000

    memset(k->ram, 'z', kRamSize);
    deli_str_append(k.get(), 0x300000, 0x400000);   // neither string ends
    EXPECT_EQ(k->fault, 0);
    EXPECT_EQ(k->ram[0x123456], 'z');
}

TEST_F(Support, LoadFileAndGetListData) {
    mem.files["mods/smp.a"] = std::vector<uint8_t>(5, 0xAA);
    mem.files["mods/smp.b"] = std::vector<uint8_t>(8, 0xBB);
    k->comp_next = 0x010003;   // behind an odd-sized module
    EXPECT_EQ(load("mods/smp.a"), 0u);
    EXPECT_TRUE(k->sr & kSrZ);
    EXPECT_EQ(load("mods/smp.b"), 0u);
    EXPECT_EQ(k->comp_count, 2u);
    struct {
        uint32_t index, size, addr;
    } list[] = {{0, 5, 0x010004}, {1, 8, 0x01000A}, {2, 0, 0}};   // even addresses; index == count: nothing
    for (auto c : list) {
        k->d[0] = c.index;
        EXPECT_EQ(fn(0), c.size) << c.index;
        EXPECT_EQ(k->a[0], c.addr) << c.index;
    }
    EXPECT_TRUE(k->sr & kSrZ);
    EXPECT_EQ(k->ram[0x01000A], 0xBB);
    EXPECT_EQ(k->ram[0x010011], 0xBB);
    EXPECT_EQ(k->comp_next, 0x010012u);
    k->d[0] = 1;   // the negative-offset entry does the same
    EXPECT_EQ(neg(11), 8u);
    EXPECT_EQ(k->a[0], 0x01000Au);
}

TEST_F(Support, CompanionFailuresPrintTheirMessageAndChangeNothing) {
    EXPECT_EQ(stderr_of([&] { EXPECT_EQ(load("mods/nothing"), 1u); }),
              "deli_load_companion: cannot open 'mods/nothing'\n");
    EXPECT_FALSE(k->sr & kSrZ);
    // A companion must end inside chip RAM.
    mem.files["fits"] = std::vector<uint8_t>(0x100, 0x11);
    mem.files["over"] = std::vector<uint8_t>(0x101, 0x22);
    mem.files["empty"] = {};
    k->comp_next = 0x100000 - 0x100;
    EXPECT_EQ(stderr_of([&] { EXPECT_EQ(load("over"), 1u); }),
              "deli_load_companion: 'over' (257 bytes) overflows chip RAM\n");
    EXPECT_EQ(k->comp_count, 0u);
    EXPECT_EQ(k->ram[0x0FFF00], 0);
    EXPECT_EQ(load("fits"), 0u);
    EXPECT_EQ(k->ram[0x0FFFFF], 0x11);
    EXPECT_EQ(k->ram[0x100000], 0);
    EXPECT_EQ(k->comp_next, 0x100000u);
    // The list holds sixteen.
    for (int i = 1; i < 16; i++) ASSERT_EQ(load("empty"), 0u) << i;
    EXPECT_EQ(stderr_of([&] { EXPECT_EQ(load("empty"), 1u); }), "deli_load_companion: list full (16 entries)\n");
    EXPECT_EQ(k->comp_count, 16u);
}

TEST_F(Support, SongEndMarksOnce) {
    fn(9);
    EXPECT_EQ(k->song_end_frame, 1u);   // nothing played yet
    k->song_end_frame = 0;
    k->played_frames = 4800;
    fn(9);
    EXPECT_EQ(k->song_end_frame, 4800u);
    k->played_frames = 9600;
    fn(9);
    EXPECT_EQ(neg(20), 0u);
    EXPECT_EQ(k->song_end_frame, 4800u);
}

TEST_F(Support, CutSuffix) {
    const std::pair<const char *, const char *> cases[] = {
        {"song.xpk", "song"}, {"song.pp", "song"}, {"x.pp2", "x.pp2"},       {"pp", "pp"},
        {".pp", ""},          {".xpk", ""},        {"xpk", "xpk"},           {"a.pp.xpk", "a.pp"},
        {"SONG.XPK", "SONG.XPK"}, {"songxpk", "songxpk"}, {"song_pp", "song_pp"}};
    for (auto [in, out] : cases) {
        set_path(in);
        fn(10);
        EXPECT_EQ(get_string(k.get(), kPathFull), out) << in;
    }
}

// The CIA timer counts value + 1 E-clocks (709379 Hz): frames = (value + 1) x rate / 709379, rounded.
TEST_F(Support, SetTimerTurnsTheCiaValueIntoFrames) {
    struct {
        uint16_t value;
        int32_t rate, frames;
    } cases[] = {{14188, 48000, 960}, {0, 48000, 960} /* zero leaves the tick alone */, {7093, 48000, 480},
                 {100, 48000, 7} /* 6.83: rounded, not cut */, {155, 48000, 11} /* 10.56 */,
                 {1, 48000, 1} /* never below one frame */, {14188, 44100, 882}};
    for (auto c : cases) {
        k->rate = c.rate;
        ram_put16(k.get(), kGlobals + 54, c.value);
        fn(11);
        EXPECT_EQ(k->frames_per_tick, c.frames) << c.value << " at " << c.rate;
    }
    k->rate = 48000;
    ram_put16(k.get(), kGlobals + 54, 7093);
    EXPECT_EQ(neg(22), 0u);   // SetTimer
    EXPECT_EQ(k->frames_per_tick, 480);
    ram_put16(k.get(), kGlobals + 54, 0xFFFF);
    neg(18);   // StartInterrupt starts the tick at the same value
    EXPECT_EQ(k->frames_per_tick, 4434);   // 65536 x 48000 / 709379 = 4434.48
}

TEST_F(Support, ReturnValuesOfTheOtherFunctions) {
    for (uint32_t n : {5u, 6u, 16u, 29u, 31u, 32u, 7u, 8u, 12u, 15u}) {
        k->d[0] = 0x1234;
        EXPECT_EQ(fn(n), (n >= 7 && n <= 15) ? 0x1234u : 0u) << n;
    }
    k->d[0] = 0x87654321;
    EXPECT_EQ(stderr_of([&] { EXPECT_EQ(fn(33), 0x87654321u); }), "deli_dispatch: unknown fn 33\n");
    EXPECT_TRUE(k->sr & kSrN);
}

TEST_F(Support, PokeFunctionsWriteTheChannelRegisters) {
    k->d[0] = 40;
    k->d[1] = 6;   // channel 6 & 3 = 2
    neg(45);       // PokeVol
    EXPECT_EQ(k->aud[2].vol, 40);
    EXPECT_EQ(k->aud[0].vol, 0);
    k->d[1] = 1;
    k->d[0] = 0x00012346;
    neg(42);   // PokeAdr
    EXPECT_EQ(k->aud[1].lc, 0x00012346u);
    k->d[0] = 0xFFFF0100;
    neg(43);   // PokeLen: low word only
    EXPECT_EQ(k->aud[1].len, 0x0100);
    k->d[0] = 428;
    EXPECT_EQ(neg(44), 428u);   // PokePer leaves D0 alone
    EXPECT_EQ(k->aud[1].per, 428);
}

TEST_F(Support, AudioAllocationAndDmaMask) {
    EXPECT_EQ(neg(17), 0u);   // FreeAudio: master off
    EXPECT_EQ(k->dmacon & 0x0200, 0);
    EXPECT_EQ(neg(16), 0u);   // AllocAudio: master on
    EXPECT_EQ(k->dmacon & 0x0200, 0x0200);
    k->d[0] = 0x8000;
    k->d[1] = 0xFFF5;   // channels 0 and 2
    neg(41);
    EXPECT_EQ(k->dmacon & 0x000F, 0x0005);
    k->d[0] = 0;
    k->d[1] = 0x0001;
    neg(41);
    EXPECT_EQ(k->dmacon & 0x000F, 0x0004);
}

TEST_F(Support, OtherEntriesAndForeignPcsReturnZero) {
    for (uint32_t entry : {1u, 7u, 12u, 21u, 65u, 66u, 400u}) {
        k->d[0] = 0x55;
        EXPECT_EQ(neg(entry), 0u) << entry;
        EXPECT_TRUE(k->sr & kSrZ);
    }
    for (uint32_t pc : {0xF90004u, 0xF8F402u, 0x200000u}) {
        k->pc = pc;
        k->d[0] = 0x55;
        op_line_a(k.get(), 0xA500);
        EXPECT_EQ(k->d[0], 0u) << std::hex << pc;
    }
}

TEST_F(Support, TracePrintsTheFirstEightCallsOfAnEntry) {
    k->support_trace = 1;
    k->d[0] = 0x10;
    k->d[1] = 0x2;
    k->a[0] = 0x30;
    std::string out = stderr_of([&] {
        for (int i = 0; i < 10; i++) neg(45);
        neg(1);
    });
    std::string expect;
    for (int i = 0; i < 8; i++) expect += "neg PokeVol      d0=00000010 d1=00000002 a0=00000030\n";
    EXPECT_EQ(out, expect + "neg AllocSampleStruct d0=00000010 d1=00000002 a0=00000030\n");
    EXPECT_EQ(k->support_calls[45], 10u);
    k->support_trace = 0;
    EXPECT_EQ(stderr_of([&] { neg(2); }), "");
    EXPECT_EQ(k->support_calls[2], 1u);
}

TEST_F(Support, ReachedFrom68kCode) {
    kelva_global_init();
    put_code(k.get(), kPlayerBase, {0x206D, 0x005C,    // movea.l 92(a5),a0   the SongEnd pointer (56 + 4 * 9)
                                    0x4E90, 0x4E75});  // jsr (a0); rts
    k->played_frames = 1000;
    deli_call(k.get(), kPlayerBase);
    EXPECT_EQ(k->song_end_frame, 1000u);
    put_code(k.get(), kPlayerBase, {0x7206, 0x7030,            // moveq #6,d1; moveq #48,d0
                                    0x4EAD, 0xFEF2, 0x4E75});  // jsr -270(a5) (PokeVol); rts
    EXPECT_EQ(deli_call(k.get(), kPlayerBase), 48u);
    EXPECT_EQ(k->aud[2].vol, 48);
    EXPECT_EQ(k->support_calls[45], 1u);
}

// ---- module patching (group-4 function 30) ----

constexpr uint32_t kArea = 0x020000, kTable = 0x030000, kBlock = kGlobals + 290;

struct SupportPatch : Support {
    void block(uint32_t start, uint32_t len, uint32_t flags = 0) {
        const uint32_t longs[] = {5, start, len, kTable, flags, 0xFFFEFFFD};   // wildcards: relative, operand
        for (uint32_t i = 0; i < 6; i++) ram_put32(k.get(), kBlock + 4 * i, longs[i]);
    }
    void area(const W &w, uint32_t at = kArea) {
        for (uint16_t v : w) ram_put16(k.get(), (at += 2) - 2, v);
    }
    W area_now(uint32_t n, uint32_t at = kArea) {
        W w;
        for (uint32_t i = 0; i < n; i++) w.push_back(uint16_t(ram_get16(k.get(), at + 2 * i)));
        return w;
    }
    // Entry i: pattern and replacement at fixed places behind the table.
    void entry(uint32_t i, const W &pat, const W &rep) {
        uint32_t pat_off = 0x100 + 0x400 * i, rep_off = 0x300 + 0x400 * i;
        area({uint16_t(pat_off), uint16_t(2 * pat.size()), uint16_t(rep_off)}, kTable + 6 * i);
        area(pat, kTable + pat_off);
        area(rep, kTable + rep_off);
    }
    uint32_t result() { return ram_get32(k.get(), kBlock + 4); }
    uint32_t count() { return ram_get32(k.get(), kBlock + 8); }
};

TEST_F(SupportPatch, MatchesWildcardsAndReplacements) {
    struct {
        const char *what;
        W before, pat, rep;
        uint32_t len, flags, count;
        W after;
    } cases[] = {
        {"every match; one cut by the area's end", {0x4E71, 0x1234, 0x5678, 0x4E71, 0x1234, 0x5678, 0x1234},
         {0x1234, 0x5678}, {0xAAAA, 0xBBBB}, 14, 0, 2, {0x4E71, 0xAAAA, 0xBBBB, 0x4E71, 0xAAAA, 0xBBBB, 0x1234}},
        {"overlapping matches: the lower one", {0x7777, 0x7777, 0x7777, 0x7777, 0x7777}, {0x7777, 0x7777},
         {0x1000, 0x2000}, 10, 0, 2, {0x1000, 0x2000, 0x1000, 0x2000, 0x7777}},
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
        EXPECT_EQ(result(), 0u) << c.what;
        EXPECT_EQ(count(), c.count) << c.what;
        EXPECT_EQ(area_now(uint32_t(c.after.size())), c.after) << c.what;
    }
}

TEST_F(SupportPatch, LengthRoundsDownAndEntriesRunInOrder) {
    area({0x1111, 0x2222, 0x3333});
    entry(0, {0x1111}, {0x2222});
    entry(1, {0x2222, 0x2222}, {0x4444, 0x4444});   // sees the first entry's patch
    entry(2, {0x3333}, {0x5555});                   // beyond the rounded length
    block(kArea, 5);
    fn(30);
    EXPECT_EQ(count(), 2u);
    EXPECT_EQ(area_now(3), (W{0x4444, 0x4444, 0x3333}));
}

TEST_F(SupportPatch, BadMagicAndBadFlagsOnlyStoreTheResult) {
    area({0x1234});
    entry(0, {0x1234}, {0x9999});
    block(kArea, 2);
    ram_put32(k.get(), kBlock, 4);
    ram_put32(k.get(), kBlock + 8, 0xABCD);
    k->d[0] = 0x80000001;
    EXPECT_EQ(fn(30), 0x80000001u);
    EXPECT_EQ(result(), 39u);
    EXPECT_EQ(count(), 0xABCDu);
    block(kArea, 2, 0x00000100);
    k->d[0] = 7;
    EXPECT_EQ(fn(30), 7u);
    EXPECT_EQ(result(), 40u);
    EXPECT_EQ(area_now(1), W{0x1234});
}

// 200 bytes of captures per attempt: 50 relative (4 bytes) or 100 operand (2 bytes) ones.
TEST_F(SupportPatch, TooManyCapturesEndTheTable) {
    area(W(110, 0));
    struct {
        uint16_t wild;
        uint32_t n, result;
    } cases[] = {{0xFFFE, 51, 34}, {0xFFFD, 101, 34}, {0xFFFD, 100, 0}};
    for (auto c : cases) {
        entry(0, W(c.n, c.wild), W(c.n, 0x4E71));
        entry(1, {0x0000}, {0x1111});   // reached only when the first ends normally
        block(kArea, 220);
        k->d[0] = 3;
        EXPECT_EQ(fn(30), 0u);
        EXPECT_EQ(result(), c.result) << c.n;
        EXPECT_EQ(ram_get16(k.get(), kArea), c.result ? 0u : 0x4E71u) << c.n;
    }
}

// Each attempt starts with no captures: a hundred failed attempts that each
// captured an operand neither fill the space nor leave their captures behind.
TEST_F(SupportPatch, CapturesOfFailedAttemptsAreForgotten) {
    area(W(110, 0));
    area({0x5555, 0x1234}, kArea + 220);
    entry(0, {0xFFFD, 0x1234}, {0x1234, 0xFFFD});
    block(kArea, 224);
    fn(30);
    EXPECT_EQ(result(), 0u);
    EXPECT_EQ(count(), 1u);
    EXPECT_EQ(area_now(2, kArea + 220), (W{0x1234, 0x5555}));
}

TEST_F(SupportPatch, AreaAtTheTopOfTheAddressSpaceStaysInside) {
    entry(0, {0x0000, 0x0000}, {0x1234, 0x5678});
    block(0xFFFFF8, 0x100);   // only 8 bytes remain
    fn(30);
    EXPECT_EQ(count(), 2u);
    EXPECT_EQ(ram_get16(k.get(), 0xFFFFFC), 0x1234u);
    EXPECT_EQ(ram_get16(k.get(), 0x000000), 0x0000u);
    EXPECT_EQ(k->fault, 0);
}

}  // namespace
