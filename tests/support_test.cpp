// Player support functions: group 4 through the globals table, the
// negative-offset entries found by PC, companion files and module patching.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "amigaos/amigaos.h"
#include "cpu/cpu.h"
#include "engine/call.h"
#include "engine/engine.h"
#include "hardware/bus.h"
#include "support/test_support.h"

namespace {

struct support_fixture : testing::Test {
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

// ---- path building ----

TEST_F(support_fixture, PathFunctionsAppendDirectoryFileAndString) {
    set_path("");
    fn(2);
    fn(3);
    put_string(k.get(), 0x300000, ".smp");
    k->a[0] = 0x300000;
    fn(4);
    EXPECT_EQ(get_string(k.get(), kPathFull), "mods/song.mod.smp");
}

TEST_F(support_fixture, AppendPastTheBufferOverwritesEmulatedMemoryOnly) {
    put_string(k.get(), 0xFFFFFC, "ab");
    put_string(k.get(), 0x300000, "cdefg");
    deli_str_append(k.get(), 0xFFFFFC, 0x300000);
    EXPECT_EQ(k->ram[0xFFFFFE], 'c');
    EXPECT_EQ(k->ram[0xFFFFFF], 'd');
    EXPECT_EQ(k->ram[0], 'e');   // wrapped round the 24-bit space
    EXPECT_EQ(k->ram[2], 'g');
    EXPECT_EQ(k->ram[3], 0);
}

TEST_F(support_fixture, AppendWithoutAnyNulEnds) {
    memset(k->ram, 'z', kRamSize);
    deli_str_append(k.get(), 0x300000, 0x400000);   // neither string ends
    EXPECT_EQ(k->fault, 0);
    EXPECT_EQ(k->ram[0x123456], 'z');
}

// ---- companion files ----

TEST_F(support_fixture, LoadFileAndGetListData) {
    mem.files["mods/smp.a"] = std::vector<uint8_t>(5, 0xAA);
    mem.files["mods/smp.b"] = std::vector<uint8_t>(8, 0xBB);
    k->comp_next = 0x010003;   // behind an odd-sized module
    EXPECT_EQ(load("mods/smp.a"), 0u);
    EXPECT_TRUE(k->sr & kSrZ);
    EXPECT_EQ(load("mods/smp.b"), 0u);
    EXPECT_EQ(k->comp_count, 2u);

    k->d[0] = 0;
    EXPECT_EQ(fn(0), 5u);
    EXPECT_EQ(k->a[0], 0x010004u);   // rounded up to even
    k->d[0] = 1;
    EXPECT_EQ(fn(0), 8u);
    EXPECT_EQ(k->a[0], 0x01000Au);   // 0x010009 rounded up
    EXPECT_EQ(k->ram[0x01000A], 0xBB);
    EXPECT_EQ(k->ram[0x010011], 0xBB);
    EXPECT_EQ(k->comp_next, 0x010012u);

    k->d[0] = 2;   // index == count
    EXPECT_EQ(fn(0), 0u);
    EXPECT_EQ(k->a[0], 0u);
    EXPECT_TRUE(k->sr & kSrZ);

    k->d[0] = 1;   // the negative-offset entry does the same
    EXPECT_EQ(neg(11), 8u);
    EXPECT_EQ(k->a[0], 0x01000Au);
}

TEST_F(support_fixture, LoadFileBuildsTheNameWithThePathFunctions) {
    mem.files["mods/song.mod.smp"] = {1, 2, 3, 4};
    set_path("");
    fn(2);
    fn(3);
    put_string(k.get(), 0x300000, ".smp");
    k->a[0] = 0x300000;
    fn(4);
    EXPECT_EQ(fn(1), 0u);
    EXPECT_EQ(k->comp_count, 1u);
}

TEST_F(support_fixture, MissingCompanionFailsWithItsMessage) {
    testing::internal::CaptureStderr();
    EXPECT_EQ(load("mods/nothing"), 1u);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "deli_load_companion: cannot open 'mods/nothing'\n");
    EXPECT_EQ(k->comp_count, 0u);
    EXPECT_FALSE(k->sr & kSrZ);
}

TEST_F(support_fixture, SeventeenthLoadFileFails) {
    mem.files["s"] = {1, 2};
    for (int i = 0; i < 16; i++) ASSERT_EQ(load("s"), 0u) << i;
    uint32_t next = k->comp_next;
    testing::internal::CaptureStderr();
    EXPECT_EQ(load("s"), 1u);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "deli_load_companion: list full (16 entries)\n");
    EXPECT_EQ(k->comp_count, 16u);
    EXPECT_EQ(k->comp_next, next);
}

TEST_F(support_fixture, CompanionMustEndInsideChipRam) {
    mem.files["fits"] = std::vector<uint8_t>(0x100, 0x11);
    mem.files["over"] = std::vector<uint8_t>(0x101, 0x22);
    k->comp_next = 0x100000 - 0x100;
    testing::internal::CaptureStderr();
    EXPECT_EQ(load("over"), 1u);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "deli_load_companion: 'over' (257 bytes) overflows chip RAM\n");
    EXPECT_EQ(k->comp_count, 0u);
    EXPECT_EQ(k->ram[0x0FFF00], 0);
    EXPECT_EQ(load("fits"), 0u);
    EXPECT_EQ(k->ram[0x0FFFFF], 0x11);
    EXPECT_EQ(k->ram[0x100000], 0);
    EXPECT_EQ(k->comp_next, 0x100000u);
}

// ---- SongEnd, CutSuffix, SetTimer ----

TEST_F(support_fixture, SongEndMarksOnce) {
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

TEST_F(support_fixture, CutSuffixCases) {
    struct {
        const char *in, *out;
    } cases[] = {{"song.xpk", "song"}, {"song.pp", "song"},   {"x.pp2", "x.pp2"}, {"pp", "pp"},
                 {".pp", ""},          {".xpk", ""},          {"xpk", "xpk"},     {"a.pp.xpk", "a.pp"},
                 {"SONG.XPK", "SONG.XPK"}, {"songxpk", "songxpk"}, {"song_pp", "song_pp"}};
    for (const auto &c : cases) {
        set_path(c.in);
        fn(10);
        EXPECT_EQ(get_string(k.get(), kPathFull), c.out) << c.in;
    }
}

TEST_F(support_fixture, SetTimerTurnsTheCiaValueIntoFrames) {
    ram_put16(k.get(), kGlobals + 54, 14188);
    fn(11);
    EXPECT_EQ(k->frames_per_tick, 960);
    ram_put16(k.get(), kGlobals + 54, 7093);
    EXPECT_EQ(neg(22), 0u);
    EXPECT_EQ(k->frames_per_tick, 480);
    ram_put16(k.get(), kGlobals + 54, 0);   // zero leaves the tick alone
    fn(11);
    EXPECT_EQ(k->frames_per_tick, 480);
    ram_put16(k.get(), kGlobals + 54, 100);   // 6.83 frames: rounded, not cut
    fn(11);
    EXPECT_EQ(k->frames_per_tick, 7);
    ram_put16(k.get(), kGlobals + 54, 155);   // the timer counts value + 1 E-clocks: 156 x 48000 / 709379 = 10.56
    fn(11);
    EXPECT_EQ(k->frames_per_tick, 11);
    ram_put16(k.get(), kGlobals + 54, 1);   // never below one frame
    fn(11);
    EXPECT_EQ(k->frames_per_tick, 1);
    ram_put16(k.get(), kGlobals + 54, 0xFFFF);
    neg(18);   // StartInterrupt starts the tick at the same value
    EXPECT_EQ(k->frames_per_tick, 4434);   // 65536 * 48000 / 709379 = 4434.48
}

TEST_F(support_fixture, SetTimerAtOtherRates) {
    k->rate = 44100;
    ram_put16(k.get(), kGlobals + 54, 14188);
    fn(11);
    EXPECT_EQ(k->frames_per_tick, 882);
}

// ---- the rest of group 4 ----

TEST_F(support_fixture, ReturnValuesOfTheOtherFunctions) {
    for (uint32_t n : {5u, 6u, 16u, 29u, 31u, 32u}) {
        k->d[0] = 0x1234;
        EXPECT_EQ(fn(n), 0u) << n;
    }
    for (uint32_t n : {7u, 8u, 12u, 15u}) {
        k->d[0] = 0x1234;
        EXPECT_EQ(fn(n), 0x1234u) << n;
    }
    k->d[0] = 0x87654321;
    testing::internal::CaptureStderr();
    EXPECT_EQ(fn(33), 0x87654321u);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "deli_dispatch: unknown fn 33\n");
    EXPECT_TRUE(k->sr & kSrN);
}

// ---- negative-offset entries ----

TEST_F(support_fixture, PokeFunctionsWriteTheChannelRegisters) {
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

TEST_F(support_fixture, AudioAllocationAndDmaMask) {
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

TEST_F(support_fixture, OtherEntriesAndForeignPcsReturnZero) {
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

TEST_F(support_fixture, TracePrintsTheFirstEightCallsOfAnEntry) {
    k->support_trace = 1;
    k->d[0] = 0x10;
    k->d[1] = 0x2;
    k->a[0] = 0x30;
    testing::internal::CaptureStderr();
    for (int i = 0; i < 10; i++) neg(45);
    neg(1);
    std::string out = testing::internal::GetCapturedStderr();
    std::string line = "neg PokeVol      d0=00000010 d1=00000002 a0=00000030\n";
    std::string expect;
    for (int i = 0; i < 8; i++) expect += line;
    expect += "neg AllocSampleStruct d0=00000010 d1=00000002 a0=00000030\n";
    EXPECT_EQ(out, expect);
    EXPECT_EQ(k->support_calls[45], 10u);

    k->support_trace = 0;
    testing::internal::CaptureStderr();
    neg(2);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(k->support_calls[2], 1u);
}

// ---- module patching ----

constexpr uint32_t kArea = 0x020000;
constexpr uint32_t kTable = 0x030000;
constexpr uint32_t kBlock = kGlobals + 290;

struct patch_fixture : support_fixture {
    void block(uint32_t start, uint32_t len, uint32_t flags = 0, uint32_t wild = 0xFFFE0000 | 0xFFFD) {
        ram_put32(k.get(), kBlock, 5);
        ram_put32(k.get(), kBlock + 4, start);
        ram_put32(k.get(), kBlock + 8, len);
        ram_put32(k.get(), kBlock + 12, kTable);
        ram_put32(k.get(), kBlock + 16, flags);
        ram_put32(k.get(), kBlock + 20, wild);
    }
    void words(uint32_t addr, std::initializer_list<uint16_t> w) {
        for (uint16_t v : w) {
            ram_put16(k.get(), addr, v);
            addr += 2;
        }
    }
    // Entry i: pattern and replacement at fixed places behind the table.
    void entry(uint32_t i, std::initializer_list<uint16_t> pat, std::initializer_list<uint16_t> rep) {
        uint32_t pat_off = 0x100 + 0x100 * i, rep_off = 0x180 + 0x100 * i;
        words(kTable + 6 * i, {uint16_t(pat_off), uint16_t(2 * pat.size()), uint16_t(rep_off)});
        words(kTable + pat_off, pat);
        words(kTable + rep_off, rep);
    }
    uint32_t result() { return ram_get32(k.get(), kBlock + 4); }
    uint32_t count() { return ram_get32(k.get(), kBlock + 8); }
};

TEST_F(patch_fixture, ReplacesEveryMatchAndCountsThem) {
    words(kArea, {0x4E71, 0x1234, 0x5678, 0x4E71, 0x1234, 0x5678, 0x1234});
    entry(0, {0x1234, 0x5678}, {0xAAAA, 0xBBBB});
    block(kArea, 14);
    k->d[0] = 0x77;
    EXPECT_EQ(fn(30), 0u);
    EXPECT_EQ(k->sr & (kSrN | kSrZ | kSrV | kSrC), kSrZ);
    EXPECT_EQ(result(), 0u);
    EXPECT_EQ(count(), 2u);
    EXPECT_EQ(ram_get16(k.get(), kArea + 2), 0xAAAAu);
    EXPECT_EQ(ram_get16(k.get(), kArea + 4), 0xBBBBu);
    EXPECT_EQ(ram_get16(k.get(), kArea + 8), 0xAAAAu);
    EXPECT_EQ(ram_get16(k.get(), kArea + 12), 0x1234u);   // pattern cut by the area's end
}

TEST_F(patch_fixture, LengthRoundsDownAndEntriesRunInOrder) {
    words(kArea, {0x1111, 0x2222, 0x3333});
    entry(0, {0x1111}, {0x2222});
    entry(1, {0x2222, 0x2222}, {0x4444, 0x4444});   // sees the first entry's patch
    entry(2, {0x3333}, {0x5555});                   // beyond the rounded length
    block(kArea, 5);
    fn(30);
    EXPECT_EQ(count(), 2u);
    EXPECT_EQ(ram_get16(k.get(), kArea), 0x4444u);
    EXPECT_EQ(ram_get16(k.get(), kArea + 2), 0x4444u);
    EXPECT_EQ(ram_get16(k.get(), kArea + 4), 0x3333u);
}

TEST_F(patch_fixture, OverlappingMatchesTakeTheLowerOne) {
    words(kArea, {0x7777, 0x7777, 0x7777, 0x7777, 0x7777});
    entry(0, {0x7777, 0x7777}, {0x1000, 0x2000});
    block(kArea, 10);
    fn(30);
    EXPECT_EQ(count(), 2u);
    EXPECT_EQ(ram_get16(k.get(), kArea), 0x1000u);
    EXPECT_EQ(ram_get16(k.get(), kArea + 2), 0x2000u);
    EXPECT_EQ(ram_get16(k.get(), kArea + 4), 0x1000u);
    EXPECT_EQ(ram_get16(k.get(), kArea + 6), 0x2000u);
    EXPECT_EQ(ram_get16(k.get(), kArea + 8), 0x7777u);
}

TEST_F(patch_fixture, WildcardsCaptureOperandsAndTargets) {
    // bsr.w +$40 at kArea+2; move.w #$1234,d0 with the immediate wildcarded.
    words(kArea, {0x6100, 0x0040, 0x303C, 0x1234});
    entry(0, {0x6100, 0xFFFE, 0x303C, 0xFFFD},
          // The replacement moves the branch down one word and keeps its target
          // and the immediate: move.w #imm,d0; bsr.w target
          {0x303C, 0xFFFD, 0x6100, 0xFFFE});
    block(kArea, 8);
    fn(30);
    EXPECT_EQ(result(), 0u);
    EXPECT_EQ(count(), 1u);
    EXPECT_EQ(ram_get16(k.get(), kArea), 0x303Cu);
    EXPECT_EQ(ram_get16(k.get(), kArea + 2), 0x1234u);
    EXPECT_EQ(ram_get16(k.get(), kArea + 4), 0x6100u);
    // Target was kArea+2+$40; from kArea+6 that is $3C.
    EXPECT_EQ(ram_get16(k.get(), kArea + 6), 0x003Cu);
}

TEST_F(patch_fixture, NegativeDisplacementsAndFlagsThatDisableWildcards) {
    words(kArea, {0x6100, 0xFFF0});
    entry(0, {0x6100, 0xFFFE}, {0x4EB9, 0xFFFE});
    block(kArea, 4, 0x01000000);   // relative wildcard off: 0xFFFE is literal
    fn(30);
    EXPECT_EQ(count(), 0u);
    EXPECT_EQ(ram_get16(k.get(), kArea), 0x6100u);

    block(kArea, 4, 0x00FF00FF);   // operand wildcard off, low byte ignored
    fn(30);
    EXPECT_EQ(count(), 1u);
    EXPECT_EQ(ram_get16(k.get(), kArea), 0x4EB9u);
    EXPECT_EQ(ram_get16(k.get(), kArea + 2), 0xFFF0u);   // same place, same displacement
}

TEST_F(patch_fixture, WildcardWithoutCaptureIsWrittenLiterally) {
    words(kArea, {0x4E75});
    entry(0, {0x4E75}, {0xFFFD});
    block(kArea, 2);
    fn(30);
    EXPECT_EQ(count(), 1u);
    EXPECT_EQ(ram_get16(k.get(), kArea), 0xFFFDu);
}

TEST_F(patch_fixture, BadMagicAndBadFlagsLeaveD0) {
    words(kArea, {0x1234});
    entry(0, {0x1234}, {0x9999});
    block(kArea, 2);
    ram_put32(k.get(), kBlock, 4);
    ram_put32(k.get(), kBlock + 8, 0xABCD);
    k->d[0] = 0x80000001;
    EXPECT_EQ(fn(30), 0x80000001u);
    EXPECT_EQ(result(), 39u);
    EXPECT_EQ(count(), 0xABCDu);   // untouched
    EXPECT_EQ(ram_get16(k.get(), kArea), 0x1234u);

    block(kArea, 2, 0x00000100);
    k->d[0] = 7;
    EXPECT_EQ(fn(30), 7u);
    EXPECT_EQ(result(), 40u);
    EXPECT_EQ(ram_get16(k.get(), kArea), 0x1234u);
}

TEST_F(patch_fixture, TooManyCapturesEndTheTable) {
    // 50 relative captures use 200 bytes; the 51st wildcard ends the table.
    std::vector<uint16_t> area(60, 0x0000);
    for (size_t i = 0; i < area.size(); i++) ram_put16(k.get(), kArea + 2 * uint32_t(i), area[i]);
    words(kTable, {0x0100, 0x0000, 0x0000});   // entry 0: pattern of 51 wildcards
    ram_put16(k.get(), kTable + 2, 2 * 51);
    ram_put16(k.get(), kTable + 4, 0x0400);
    for (uint32_t i = 0; i < 51; i++) ram_put16(k.get(), kTable + 0x100 + 2 * i, 0xFFFE);
    entry(1, {0x0000}, {0x1111});   // never reached
    block(kArea, 120);
    k->d[0] = 3;
    EXPECT_EQ(fn(30), 0u);
    EXPECT_EQ(result(), 34u);
    EXPECT_EQ(count(), 0u);
    EXPECT_EQ(ram_get16(k.get(), kArea), 0u);

    // 100 operand captures also fill the space: the 101st stops.
    ram_put16(k.get(), kTable + 2, 2 * 101);
    for (uint32_t i = 0; i < 101; i++) ram_put16(k.get(), kTable + 0x100 + 2 * i, 0xFFFD);
    std::vector<uint16_t> zeros(110, 0);
    for (uint32_t i = 0; i < 110; i++) ram_put16(k.get(), kArea + 2 * i, 0);
    block(kArea, 220);
    fn(30);
    EXPECT_EQ(result(), 34u);
    ram_put16(k.get(), kTable + 2, 2 * 100);   // 100 fit
    block(kArea, 220);
    fn(30);
    EXPECT_EQ(result(), 0u);
    EXPECT_GE(count(), 1u);
}

// Each match attempt starts with no captures: a hundred failed attempts
// that each captured an operand neither fill the capture space nor leave
// their captures for the match that follows.
TEST_F(patch_fixture, CapturesOfFailedAttemptsAreForgotten) {
    for (uint32_t i = 0; i < 110; i++) ram_put16(k.get(), kArea + 2 * i, 0);
    words(kArea + 220, {0x5555, 0x1234});
    entry(0, {0xFFFD, 0x1234}, {0x1234, 0xFFFD});
    block(kArea, 224);
    fn(30);
    EXPECT_EQ(result(), 0u);
    EXPECT_EQ(count(), 1u);
    EXPECT_EQ(ram_get16(k.get(), kArea + 220), 0x1234u);
    EXPECT_EQ(ram_get16(k.get(), kArea + 222), 0x5555u);
}

TEST_F(patch_fixture, AreaAtTheTopOfTheAddressSpaceStaysInside) {
    entry(0, {0x0000, 0x0000}, {0x1234, 0x5678});
    block(0xFFFFF8, 0x100);   // only 8 bytes remain
    fn(30);
    EXPECT_EQ(result(), 0u);
    EXPECT_EQ(count(), 2u);
    EXPECT_EQ(ram_get16(k.get(), 0xFFFFFC), 0x1234u);
    EXPECT_EQ(ram_get16(k.get(), 0x000000), 0x0000u);
    EXPECT_EQ(k->fault, 0);
}

// ---- support functions reached from 68k code ----

void put_code(kelva *k, uint32_t addr, std::initializer_list<uint16_t> words) {
    for (uint16_t w : words) {
        ram_put16(k, addr, w);
        addr += 2;
    }
}

TEST_F(support_fixture, SongEndThroughTheGlobalsTable) {
    kelva_global_init();
    put_code(k.get(), kPlayerBase, {
        0x206D, 0x005C,   // movea.l 92(a5),a0   the SongEnd pointer (56 + 4 * 9)
        0x4E90,           // jsr (a0)
        0x4E75,           // rts
    });
    k->played_frames = 1000;
    deli_call(k.get(), kPlayerBase);
    EXPECT_EQ(k->song_end_frame, 1000u);
}

TEST_F(support_fixture, PokeVolThroughTheNegativeOffsetTable) {
    kelva_global_init();
    put_code(k.get(), kPlayerBase, {
        0x7206,           // moveq #6,d1
        0x7030,           // moveq #48,d0
        0x4EAD, 0xFEF2,   // jsr -270(a5)   PokeVol
        0x4E75,           // rts
    });
    EXPECT_EQ(deli_call(k.get(), kPlayerBase), 48u);
    EXPECT_EQ(k->aud[2].vol, 48);
    EXPECT_EQ(k->support_calls[45], 1u);
}

}  // namespace
