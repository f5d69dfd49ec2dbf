// The engine end to end: kelva_open with real hunk players, kelva_render's
// event timing, and kelva_measure_length's four ways to end.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <thread>
#include <vector>
#if defined(__x86_64__) || defined(__i386__)
#include <xmmintrin.h>
#endif

#include "amigaos/amigaos.h"
#include "engine/render.h"
#include "hardware/bus.h"
#include "players/include/kelva_player.h"
#include "support/test_support.h"

namespace {

std::vector<uint8_t> read_player(const char *name) {
    return read_file_bytes(std::string(KELVA_TEST_PLAYERS) + "/" + name);
}

// A one-hunk player made by hand: the player header, a few routines and a
// tag list whose routine values are relocated. Each tag names a routine by
// its offset in the hunk.
struct handmade_player {
    // Routines, at fixed offsets in the hunk.
    static constexpr uint32_t kRet0 = 16;     // moveq #0,d0; rts
    static constexpr uint32_t kRet1 = 20;     // moveq #1,d0; rts
    static constexpr uint32_t kRange = 24;    // moveq #0,d0; moveq #4,d1; rts  (subsongs 0..4)
    static constexpr uint32_t kMark = 30;     // addq.w #1,$100.w; rts  (counts its calls at $100)
    static constexpr uint32_t kData = 36;     // a long the GlobalsPointer tag points at
    static constexpr uint32_t kTags = 40;

    std::vector<std::pair<uint32_t, uint32_t>> tags;   // tag, hunk offset (or raw value)
    std::vector<bool> relocate;
    std::vector<uint8_t> extra;   // routines placed after the tag list; offsets count from its end

    void add(uint32_t tag, uint32_t offset, bool is_address = true) {
        tags.emplace_back(tag, offset);
        relocate.push_back(is_address);
    }
    // A routine of its own, placed after the tag list.
    void add_routine(uint32_t tag, const std::vector<uint8_t> &code) {
        add(tag, 0x80000000u | uint32_t(extra.size()));
        extra.insert(extra.end(), code.begin(), code.end());
    }
    // A routine that appends `mark` to the byte log at $200 (count in the
    // word at $104), keeps its D0 in the word at $106 and returns D0 = D1 = 0.
    static std::vector<uint8_t> logging(uint8_t mark) {
        return {0x31, 0xC0, 0x01, 0x06,     // move.w d0,$106.w
                0x41, 0xF8, 0x02, 0x00,     // lea $200.w,a0
                0xD0, 0xF8, 0x01, 0x04,     // adda.w $104.w,a0
                0x10, 0xBC, 0x00, mark,     // move.b #mark,(a0)
                0x52, 0x78, 0x01, 0x04,     // addq.w #1,$104.w
                0x70, 0x00, 0x72, 0x00,     // moveq #0,d0; moveq #0,d1
                0x4E, 0x75};                // rts
    }

    std::vector<uint8_t> build() const {
        std::vector<uint8_t> code = {0x70, 0xFF, 0x4E, 0x75, 'D', 'E', 'L', 'I', 'R', 'I', 'U', 'M'};
        put_be32(code, kTags);
        code.insert(code.end(), {0x70, 0x00, 0x4E, 0x75, 0x70, 0x01, 0x4E, 0x75, 0x70, 0x00, 0x72, 0x04,
                                 0x4E, 0x75, 0x52, 0x78, 0x01, 0x00, 0x4E, 0x75});
        put_be32(code, 0);   // kData
        std::vector<uint32_t> relocs = {12};
        const uint32_t extra_at = kTags + 8 * uint32_t(tags.size()) + 4;
        for (size_t i = 0; i < tags.size(); i++) {
            put_be32(code, tags[i].first);
            if (relocate[i]) relocs.push_back(uint32_t(code.size()));
            uint32_t v = tags[i].second;
            put_be32(code, relocate[i] && (v & 0x80000000u) ? extra_at + (v & 0x7FFFFFFFu) : v);
        }
        put_be32(code, 0);
        code.insert(code.end(), extra.begin(), extra.end());
        while (code.size() % 4) code.push_back(0);
        std::vector<uint8_t> f;
        for (uint32_t v : {0x3F3u, 0u, 1u, 0u, 0u, uint32_t(code.size() / 4)}) put_be32(f, v);
        put_be32(f, 0x3E9);
        put_be32(f, uint32_t(code.size() / 4));
        f.insert(f.end(), code.begin(), code.end());
        put_be32(f, 0x3EC);
        put_be32(f, uint32_t(relocs.size()));
        put_be32(f, 0);
        for (uint32_t r : relocs) put_be32(f, r);
        put_be32(f, 0);
        put_be32(f, 0x3F2);
        return f;
    }
};

class Engine : public testing::Test {
protected:
    void SetUp() override { kelva_global_init(); }

    // Creates an engine at `rate` and opens `player` on `module`.
    int open(const std::vector<uint8_t> &player, const std::vector<uint8_t> &module, int32_t rate = 48000,
             int32_t subsong = 0, const char *path = "/music/tune.env") {
        eng = make_engine(rate);
        k = eng.get();
        return kelva_open(k, player.data(), uint32_t(player.size()), module.data(), uint32_t(module.size()),
                          nullptr, path, subsong);
    }
    void render(int32_t frames) {
        buf.assign(size_t(frames) * 2, 0.0f);
        kelva_render(k, buf.data(), frames);
    }
    uint32_t ticks() const { return ram_get32(k, kModuleAddr + 20); }

    engine_ptr eng;
    kelva *k = nullptr;
    std::vector<float> buf;
};

}  // namespace

TEST_F(Engine, OpenCallsTheRoutinesAndFillsTheGlobals) {
    handmade_player p;
    p.add(DTP_InitPlayer, handmade_player::kRet0);
    p.add(DTP_Config, handmade_player::kMark);
    p.add(DTP_InitSound, handmade_player::kMark);
    p.add(DTP_Interrupt, handmade_player::kMark);
    p.add(DTP_GlobalsPointer, handmade_player::kData);
    std::vector<uint8_t> module(1000, 0x11);
    ASSERT_EQ(open(p.build(), module, 44100, 0, "/a/b/tune.x"), 0);

    EXPECT_EQ(ram_get16(k, 0x100), 2u);   // Config and InitSound ran, the tick not yet
    EXPECT_EQ(ram_get32(k, kPlayerBase + handmade_player::kData), kGlobals);
    EXPECT_EQ(ram_get32(k, kGlobals + 36), kModuleAddr);
    EXPECT_EQ(ram_get32(k, kGlobals + 40), 1000u);
    EXPECT_EQ(k->ram[kModuleAddr + 999], 0x11);
    EXPECT_EQ(k->comp_next, kModuleAddr + 1000);
    auto str = [&](uint32_t a) { return std::string(reinterpret_cast<const char *>(k->ram + a)); };
    EXPECT_EQ(str(ram_get32(k, kGlobals + 32)), "/a/b/tune.x");
    EXPECT_EQ(str(ram_get32(k, kGlobals + 24)), "/a/b/");
    EXPECT_EQ(str(ram_get32(k, kGlobals + 28)), "tune.x");
    EXPECT_EQ(k->frames_per_tick, 882);
    EXPECT_EQ(k->frames_per_vblank, 882);
    EXPECT_EQ(kelva_get_subsong_count(k), 1u);

    // The tick runs at once, then every 882 frames; one due at the end of
    // a call waits for the next call.
    render(1);
    EXPECT_EQ(ram_get16(k, 0x100), 3u);
    render(881);
    EXPECT_EQ(ram_get16(k, 0x100), 3u);
    render(1);
    EXPECT_EQ(ram_get16(k, 0x100), 4u);
    render(882 * 10);
    EXPECT_EQ(ram_get16(k, 0x100), 14u);

    // A path without a directory gives an empty directory string.
    ASSERT_EQ(open(p.build(), module, 44100, 0, "tune.x"), 0);
    EXPECT_EQ(str(ram_get32(k, kGlobals + 24)), "");
    EXPECT_EQ(str(ram_get32(k, kGlobals + 28)), "tune.x");
}

TEST_F(Engine, OpenRefusesWhatItCannotDrive) {
    std::vector<uint8_t> module(64, 1);

    handmade_player nothing;   // a tag list without Interrupt or InitPlayer
    nothing.add(DTP_InitSound, handmade_player::kRet0);
    testing::internal::CaptureStderr();
    EXPECT_EQ(open(nothing.build(), module), 1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "deli_scan_tags: no Interrupt or InitPlayer tag, can't drive\n");

    handmade_player p;
    p.add(DTP_InitPlayer, handmade_player::kRet0);
    p.add(DTP_Config, handmade_player::kMark);

    // An empty module fails after Config ran.
    EXPECT_EQ(open(p.build(), {}), 1);
    EXPECT_EQ(ram_get16(k, 0x100), 1u);

    // The chip-RAM window holds exactly 983,040 bytes.
    EXPECT_EQ(open(p.build(), std::vector<uint8_t>(983040, 7)), 0);
    testing::internal::CaptureStderr();
    EXPECT_EQ(open(p.build(), std::vector<uint8_t>(983041, 7)), 1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "mod_install: 983041 bytes exceeds chip-RAM window (983040)\n");

    // Not a hunk file at all.
    testing::internal::CaptureStderr();
    EXPECT_EQ(open(std::vector<uint8_t>(16, 0), module), 1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "hunk: missing HUNK_HEADER\n");

    // A failing InitPlayer stops the start only when Check2 failed too.
    handmade_player strict;
    strict.add(DTP_Check2, handmade_player::kRet1);
    strict.add(DTP_InitPlayer, handmade_player::kRet1);
    EXPECT_EQ(open(strict.build(), module), 1);
    handmade_player lenient;
    lenient.add(DTP_Check2, handmade_player::kRet0);
    lenient.add(DTP_InitPlayer, handmade_player::kRet1);
    EXPECT_EQ(open(lenient.build(), module), 0);
}

TEST_F(Engine, TagListIsReadUpTo256Pairs) {
    handmade_player p;
    p.add(DTP_InitPlayer, handmade_player::kRet0);
    for (int i = 0; i < 254; i++) p.add(0x12345678, 0, false);   // ignored tags
    p.add(DTP_InitSound, handmade_player::kMark);                 // pair 256: read
    p.add(DTP_Interrupt, handmade_player::kMark);                 // pair 257: never read
    ASSERT_EQ(open(p.build(), std::vector<uint8_t>(8, 0)), 0);
    EXPECT_EQ(k->routines[DELI_INITSOUND], kPlayerBase + handmade_player::kMark);
    EXPECT_EQ(k->routines[DELI_INTERRUPT], 0u);
}

// Start-up and shut-down run the routines in the player-interface order,
// whatever the order of the tags; Voices gets the voice mask in D0.
TEST_F(Engine, RoutinesRunInTheInterfaceOrder) {
    const std::pair<uint32_t, char> start[] = {{DTP_Config, 'C'},  {DTP_Check2, 'K'},       {DTP_ExtLoad, 'X'},
                                               {DTP_InitPlayer, 'I'}, {DTP_SubSongRange, 'R'}, {EP_InitHook, 'H'},
                                               {DTP_InitSound, 'S'}, {DTP_StartInt, 'T'},   {DTP_Volume, 'V'},
                                               {EP_Voices, 'W'}};
    const std::pair<uint32_t, char> stop[] = {{DTP_StopInt, 's'}, {DTP_EndSound, 'e'}, {DTP_EndPlayer, 'p'}};
    handmade_player p;
    for (int i = 2; i >= 0; i--) p.add_routine(stop[i].first, handmade_player::logging(uint8_t(stop[i].second)));
    for (int i = 9; i >= 0; i--) p.add_routine(start[i].first, handmade_player::logging(uint8_t(start[i].second)));
    auto log = [&] { return std::string(reinterpret_cast<const char *>(k->ram + 0x200), ram_get16(k, 0x104)); };

    ASSERT_EQ(open(p.build(), std::vector<uint8_t>(8, 0)), 0);
    EXPECT_EQ(log(), "CKXIRHSTVW");
    EXPECT_EQ(ram_get16(k, 0x106), 0x000Fu);
    kelva_close(k);
    EXPECT_EQ(log(), "CKXIRHSTVWsep");
}

TEST_F(Engine, SubsongRangeSelectsTheCurrentSubsong) {
    handmade_player p;
    p.add(DTP_InitPlayer, handmade_player::kRet0);
    p.add(DTP_SubSongRange, handmade_player::kRange);   // 0..4
    const std::vector<uint8_t> module(8, 0);
    for (auto [requested, expected] : {std::pair{3, 2}, {9, 0}, {0, 0}, {1, 0}, {5, 4}}) {
        ASSERT_EQ(open(p.build(), module, 48000, requested), 0);
        EXPECT_EQ(kelva_get_subsong_count(k), 5u);
        EXPECT_EQ(ram_get16(k, kGlobals + 44), uint32_t(expected)) << requested;
    }
    // A range that ends before it starts (3..1) holds one subsong: the first.
    handmade_player back;
    back.add(DTP_InitPlayer, handmade_player::kRet0);
    back.add_routine(DTP_SubSongRange, {0x70, 0x03, 0x72, 0x01, 0x4E, 0x75});   // moveq #3,d0; moveq #1,d1; rts
    for (int requested : {0, 1, 2}) {
        ASSERT_EQ(open(back.build(), module, 48000, requested), 0);
        EXPECT_EQ(kelva_get_subsong_count(k), 1u);
        EXPECT_EQ(ram_get16(k, kGlobals + 44), 3u) << requested;
    }

    // The test player plays a different pitch per subsong (range 1..5).
    std::vector<uint8_t> player = read_player("Subsong");
    ASSERT_FALSE(player.empty());
    ASSERT_EQ(open(player, module, 48000, 3), 0);
    EXPECT_EQ(kelva_get_subsong_count(k), 5u);
    EXPECT_EQ(ram_get16(k, kGlobals + 44), 3u);
    EXPECT_EQ(k->aud[0].per, 339u);
}

TEST_F(Engine, SetTimerChangesTheTickPeriod) {
    std::vector<uint8_t> player = read_player("Envelope");
    ASSERT_FALSE(player.empty());
    ASSERT_EQ(open(player, envelope_module(0, 0, 0)), 0);
    render(1);
    EXPECT_EQ(ticks(), 1u);
    render(959);
    ram_put16(k, kGlobals + DTG_Timer, 7093);
    k->d[0] = 0;
    op_line_a(k, 0xA40B);   // SetTimer through the globals table
    EXPECT_EQ(k->frames_per_tick, 480);
    render(1);   // the tick due now was planned with the old period
    EXPECT_EQ(ticks(), 2u);
    render(480 * 4 - 1);
    EXPECT_EQ(ticks(), 5u);
}

TEST_F(Engine, CiaTimersTickTheirHandlersAtTheirPeriods) {
    std::vector<uint8_t> player = read_player("CiaTimer");
    ASSERT_FALSE(player.empty());
    ASSERT_EQ(open(player, std::vector<uint8_t>(8, 0)), 0);
    // CIA-B timer A at latch 14188: 14189 x 48000 / 709379 = 960.10 frames;
    // CIA-A timer B at four times that latch: 3840.15 frames.
    render(48000);
    const uint32_t data = k->hunk_addr[1];
    EXPECT_EQ(ram_get32(k, data), 49u);
    EXPECT_EQ(ram_get32(k, data + 4), 12u);
    render(960 * 50);
    EXPECT_EQ(ram_get32(k, data), uint32_t(96000 / (14189.0 * 48000 / 709379)));
}

// Interrupts in the render loop, watched through the IrqOrder player's log
// and through the level its channel plays (measurement's level output: no
// filters, so a change shows in the very frame it happens).
TEST_F(Engine, InterruptHandlersRunAtTheirFramesInOrder) {
    std::vector<uint8_t> player = read_player("IrqOrder");
    ASSERT_FALSE(player.empty());
    ASSERT_EQ(open(player, std::vector<uint8_t>(8, 0)), 0);
    k->measure_mode = 1;
    const uint32_t marks = k->hunk_addr[1] + 200;
    auto log = [&] {
        return std::string(reinterpret_cast<const char *>(k->ram + marks + 4), ram_get32(k, marks));
    };
    // CIA-A timer B underflows after 3001 E-clock ticks = 3001 x 48000 /
    // 709379 = 203.06 frames, so its handler runs after frame 203 and the
    // channel is silent from frame 204 on, in a single call as well.
    render(2100);
    for (int f = 0; f < 2100; f++) ASSERT_EQ(buf[2 * f], f < 204 ? 0.25f : 0.0f) << f;
    // CIA-B timer A (10,000 E-clock ticks) and the audio block (50,000
    // Paula clocks) end together every 676.6 frames: three times by now.
    // The CIA handler runs first; each runs once per event although
    // neither acknowledges its interrupt.
    EXPECT_EQ(log(), std::string("\3\1\2\1\2\1\2"));
}

TEST_F(Engine, VerticalBlankRunsEvery50thOfASecond) {
    std::vector<uint8_t> player = read_player("VBlank");
    ASSERT_FALSE(player.empty());
    ASSERT_EQ(open(player, std::vector<uint8_t>(8, 0), 44100), 0);
    render(882 * 7 - 1);
    EXPECT_EQ(ram_get32(k, k->hunk_addr[1]), 6u);
    render(1);
    EXPECT_EQ(ram_get32(k, k->hunk_addr[1]), 7u);
    // The machine's clock runs with the output: CIA-A's time of day, which
    // counts 50 Hz ticks, has reached the seventh (give or take the one in
    // progress).
    EXPECT_NEAR(double(read8(k, 0xBFE801)), 7.0, 1.0);
}

TEST_F(Engine, AudioInterruptsSwitchBlocksAtExactFrames) {
    std::vector<uint8_t> player = read_player("AudioIrq");
    ASSERT_FALSE(player.empty());
    ASSERT_EQ(open(player, std::vector<uint8_t>(8, 0)), 0);
    const uint32_t blocks = k->hunk_addr[1] + 8;
    // A block of 128 bytes at period 300 lasts 38,400 Paula ticks; frame f
    // ends after (f x ticks_per_frame) >> 16 ticks.
    const uint64_t tpf = (uint64_t(3546895) << 16) / 48000;
    auto ticks_after = [&](uint64_t f) { return (f * tpf) >> 16; };
    uint64_t first = 1;
    while (ticks_after(first) < 38400) first++;
    for (uint64_t f = 1; f < first; f++) {
        render(1);
        ASSERT_EQ(ram_get32(k, blocks), 0u) << f;
    }
    render(1);
    EXPECT_EQ(ram_get32(k, blocks), 1u);
    render(48000 - int32_t(first));
    EXPECT_EQ(ram_get32(k, blocks), uint32_t(ticks_after(48000) / 38400));
    // The handler keeps the stream going: the channel still plays.
    EXPECT_TRUE(k->ch[0].active);
    float peak = 0;
    for (float v : buf) peak = std::max(peak, std::fabs(v));
    EXPECT_GT(peak, 0.1f);
}

TEST_F(Engine, RenderingMixesWithSeparation) {
    std::vector<uint8_t> player = read_player("Tone");
    ASSERT_FALSE(player.empty());
    ASSERT_EQ(open(player, std::vector<uint8_t>(8, 0)), 0);
    render(4800);
    float left = 0, right = 0;
    for (int i = 2400; i < 4800; i++) left = std::max(left, std::fabs(buf[2 * i])), right = std::max(right, std::fabs(buf[2 * i + 1]));
    EXPECT_GT(left, 0.3f);   // channel 0 is on the left
    EXPECT_EQ(right, 0.0f);

    kelva_set_separation(k, 0.0f);
    render(4800);
    for (int i = 0; i < 4800; i++) ASSERT_EQ(buf[2 * i], buf[2 * i + 1]) << i;

    // Nothing opened: silence, and zero frames do nothing at all.
    eng = make_engine(48000);
    k = eng.get();
    render(1000);
    for (float v : buf) ASSERT_EQ(v, 0.0f);
    kelva_render(k, nullptr, 0);
    EXPECT_EQ(k->played_frames, 1000u);
}

TEST_F(Engine, MeasureEndsAtTheSongEnd) {
    std::vector<uint8_t> player = read_player("Envelope");
    ASSERT_FALSE(player.empty());
    // Ticks every 882 frames at 44.1 kHz; tick 4161 runs at frame 4160 x 882
    // = 83.2 s.
    ASSERT_EQ(open(player, envelope_module(0, 0, 4161), 44100), 0);
    int32_t reason = 0;
    EXPECT_EQ(kelva_measure_length(k, 0, 30000, &reason, nullptr, nullptr), 83200u);
    EXPECT_EQ(reason, 1);
    EXPECT_TRUE(kelva_song_ended(k));
}

TEST_F(Engine, MeasureEndsOneSecondIntoSilence) {
    std::vector<uint8_t> player = read_player("Envelope");
    ASSERT_FALSE(player.empty());
    // Tick 501 stops the tone at frame 500 x 882 = 441,000.
    ASSERT_EQ(open(player, envelope_module(0, 501, 0), 44100), 0);
    int32_t reason = 0;
    EXPECT_EQ(kelva_measure_length(k, 0, 3000, &reason, nullptr, nullptr), 11000u);
    EXPECT_EQ(reason, 2);
}

TEST_F(Engine, MeasureFindsARepetitionAtTheFirstTestThatCanSeeIt) {
    std::vector<uint8_t> player = read_player("Envelope");
    ASSERT_FALSE(player.empty());
    // Loudness patterns that restart every 2250 ticks (45 s = 450 blocks of
    // 100 ms) and every 2315 ticks (46.3 s = 463 blocks). Two repeats and
    // the 30 s span behind them are there after 1200 and 1226 blocks; the
    // test runs every 20 blocks, so it finds them after blocks 1200 and 1240.
    for (auto [ticks, found_block] : {std::pair{2250u, 1200u}, {2315u, 1240u}}) {
        ASSERT_EQ(open(player, envelope_module(ticks, 0, 0)), 0);
        int32_t reason = 0;
        EXPECT_EQ(kelva_measure_length(k, 0, 30000, &reason, nullptr, nullptr), ticks * 20);
        EXPECT_EQ(reason, 4);
        EXPECT_GE(k->played_frames, uint64_t(found_block) * 4800) << ticks;
        EXPECT_LT(k->played_frames, uint64_t(found_block) * 4800 + 2048) << ticks;
    }
}

// A song that repeats one 45 s section for three minutes and then ends: a
// player that signals its end (flags tag) is measured by its SongEnd, one
// that does not by the repetition.
TEST_F(Engine, MeasureTrustsTheSongEndOfAPlayerThatSignalsIt) {
    std::vector<uint8_t> plain = read_player("Envelope");
    std::vector<uint8_t> flagged = read_player("EnvelopeSongEnd");
    ASSERT_FALSE(plain.empty());
    ASSERT_FALSE(flagged.empty());
    std::vector<uint8_t> module = envelope_module(2250, 0, 9001);   // SongEnd at 180 s
    int32_t reason = 0;

    ASSERT_EQ(open(flagged, module), 0);
    EXPECT_EQ(kelva_get_player_flags(k), KELVA_PLAYER_SONGEND);
    EXPECT_EQ(kelva_measure_length(k, 0, 30000, &reason, nullptr, nullptr), 180000u);
    EXPECT_EQ(reason, 1);

    ASSERT_EQ(open(plain, module), 0);
    EXPECT_EQ(kelva_get_player_flags(k), 0u);
    EXPECT_EQ(kelva_measure_length(k, 0, 30000, &reason, nullptr, nullptr), 45000u);
    EXPECT_EQ(reason, 4);

    // Silence and the limit still end a flagged player's measurement.
    ASSERT_EQ(open(flagged, envelope_module(2250, 501, 0), 44100), 0);
    EXPECT_EQ(kelva_measure_length(k, 0, 3000, &reason, nullptr, nullptr), 11000u);
    EXPECT_EQ(reason, 2);
    ASSERT_EQ(open(flagged, module), 0);
    EXPECT_EQ(kelva_measure_length(k, 150000, 3000, &reason, nullptr, nullptr), 150000u);
    EXPECT_EQ(reason, 3);
}

TEST_F(Engine, MeasureStopsAtTheLimitOrWhenCancelled) {
    std::vector<uint8_t> player = read_player("Envelope");
    ASSERT_FALSE(player.empty());
    ASSERT_EQ(open(player, envelope_module(0, 0, 0)), 0);
    int32_t reason = 0;
    EXPECT_EQ(kelva_measure_length(k, 30000, 3000, &reason, nullptr, nullptr), 30000u);
    EXPECT_EQ(reason, 3);

    ASSERT_EQ(open(player, envelope_module(0, 0, 0)), 0);
    int polls = 0;
    auto cancel = [](void *user) { return int(++*static_cast<int *>(user) > 10); };
    EXPECT_EQ(kelva_measure_length(k, 0, 3000, &reason, cancel, &polls), 0u);
    EXPECT_EQ(reason, 5);
    EXPECT_EQ(k->played_frames, 10u * 2048);

    // The limit is looked at before a cancel request: 40 ms are reached
    // with the first 2048-frame chunk, and the request that comes with the
    // second poll is too late.
    ASSERT_EQ(open(player, envelope_module(0, 0, 0)), 0);
    polls = 0;
    auto cancel_second = [](void *user) { return int(++*static_cast<int *>(user) > 1); };
    EXPECT_EQ(kelva_measure_length(k, 40, 3000, &reason, cancel_second, &polls), 40u);
    EXPECT_EQ(reason, 3);

    eng = make_engine(0);
    EXPECT_EQ(kelva_measure_length(eng.get(), 0, 0, &reason, nullptr, nullptr), 0u);
    EXPECT_EQ(reason, 3);
}

// Silence is a level below 1/1024 of full scale: the Tone player's square
// wave of +-100 at volume 1 plays at 100 / 128 / 64 / 2 = 0.0061 of full
// scale and is music; at volume 0 it is silence.
TEST_F(Engine, MeasureSilenceIsBelowOneIn1024) {
    std::vector<uint8_t> player = read_player("Tone");
    ASSERT_FALSE(player.empty());
    for (auto [volume, expected_reason] : {std::pair{1u, 3}, {0u, 2}}) {
        ASSERT_EQ(open(player, std::vector<uint8_t>(8, 0)), 0);
        write16(k, 0xDFF0A8, volume);   // AUD0VOL
        int32_t reason = 0;
        kelva_measure_length(k, 5000, 1000, &reason, nullptr, nullptr);
        EXPECT_EQ(reason, expected_reason) << volume;
    }
}

// A host thread in the processor's power-up mode (no flush-to-zero): the
// engine switches to flush-to-zero and denormals-are-zero while it renders
// or measures, so the filters that decay after the tone stops never hold a
// denormal, and the caller gets its own mode back after every call.
TEST_F(Engine, RendersWithDenormalsFlushedAndRestoresTheCallersMode) {
#if defined(__x86_64__) || defined(__i386__)
    std::vector<uint8_t> player = read_player("Envelope");
    ASSERT_FALSE(player.empty());
    constexpr uint32_t kDefaultMode = 0x1F80;   // all exceptions masked, round to nearest
    std::thread host([&] {
        // The tone stops at tick 10 (0.2 s); then 1.8 s of decaying filters.
        ASSERT_EQ(open(player, envelope_module(0, 10, 0)), 0);
        std::vector<float> out(2 * 4096);
        for (int i = 0; i < 24; i++) {
            _mm_setcsr(kDefaultMode);
            kelva_render(k, out.data(), 4096);
            ASSERT_EQ(_mm_getcsr(), kDefaultMode) << "after block " << i;
        }
        const paula_mixer &m = k->mix;
        std::vector<double> state = {m.rc_state[0], m.rc_state[1]};
        for (int side = 0; side < 2; side++) {
            state.insert(state.end(), {m.led_state[side][0], m.led_state[side][1]});
            for (int i = 0; i < 4; i++) state.insert(state.end(), {m.aa_state[i][side][0], m.aa_state[i][side][1]});
        }
        for (size_t i = 0; i < state.size(); i++)
            EXPECT_NE(std::fpclassify(state[i]), FP_SUBNORMAL) << "filter state " << i << " = " << state[i];

        // Measurement: the cancel callback runs inside the engine.
        ASSERT_EQ(open(player, envelope_module(0, 10, 0)), 0);
        uint32_t inside = 0;
        auto cancel = [](void *user) {
            *static_cast<uint32_t *>(user) = _mm_getcsr();
            return 0;
        };
        _mm_setcsr(kDefaultMode);
        int32_t reason = 0;
        kelva_measure_length(k, 5000, 0, &reason, cancel, &inside);
        EXPECT_EQ(_mm_getcsr(), kDefaultMode);
        EXPECT_EQ(inside & 0x8040u, 0x8040u);
        EXPECT_EQ(reason, 3);
    });
    host.join();
#else
    GTEST_SKIP() << "the floating-point mode is switched on x86 only";
#endif
}

TEST_F(Engine, CorrelationOfEnvelopeSpans) {
    std::vector<float> env(700);
    // A random block of 101 values repeated: a lag of 101 matches exactly,
    // any other lag compares unrelated values.
    std::vector<float> block(101);
    uint32_t x = 12345;
    for (float &v : block) v = float((x = x * 1103515245u + 12345u) >> 16 & 0x7FFF) / 32768.0f - 0.5f;
    for (size_t i = 0; i < env.size(); i++) env[i] = block[i % 101];
    auto energy = [&](uint32_t n) {
        double e = 0;
        for (uint32_t i = n - 300; i < n; i++) e += double(env[i]) * env[i];
        return e;
    };
    EXPECT_NEAR(measure_corr_at(env.data(), 600, 101, energy(600)), 1.0, 1e-9);   // period 101
    EXPECT_LT(measure_corr_at(env.data(), 600, 150, energy(600)), 0.5);
    EXPECT_EQ(measure_corr_at(env.data(), 299, 0, 1.0), 0.0);
    std::vector<float> zeros(700, 0.0f);
    EXPECT_EQ(measure_corr_at(zeros.data(), 600, 100, 1.0), 0.0);
}

// The repetition test on envelopes of random block levels: a lag counts
// only when the last 30 s also match the 30 s two lags back; the test runs
// on every 20th block; lags go up to 2400 blocks (240 s).
TEST_F(Engine, RepetitionNeedsTwoRepeatsWithinTheLagRange) {
    uint32_t x = 99;
    auto level = [&] { return float((x = x * 1103515245u + 12345u) >> 16 & 0x7FFF) / 32768.0f; };
    auto periodic = [&](uint32_t size, uint32_t period) {
        std::vector<float> first(period), env(size);
        for (float &v : first) v = level();
        for (uint32_t i = 0; i < size; i++) env[i] = first[i % period];
        return env;
    };
    std::vector<float> env = periodic(1010, 150);
    EXPECT_EQ(measure_repetition_lag(env.data(), 1000), 150u);
    EXPECT_EQ(measure_repetition_lag(env.data(), 1010), 0u);
    // Blocks 400..549 replaced: the last 300 blocks repeat once at lag 150,
    // but not at lag 300.
    for (uint32_t i = 400; i < 550; i++) env[i] = level();
    EXPECT_EQ(measure_repetition_lag(env.data(), 1000), 0u);

    EXPECT_EQ(measure_repetition_lag(periodic(5100, 2400).data(), 5100), 2400u);
    EXPECT_EQ(measure_repetition_lag(periodic(5200, 2401).data(), 5200), 0u);
}

TEST_F(Engine, FaultingPlayersDoNotStopPlayback) {
    std::vector<uint8_t> player = read_player("Misbehave");
    ASSERT_FALSE(player.empty());
    // InitPlayer runs away, but without a failed format check the start
    // goes on; InitSound (line-F) and StartInt (divide by zero) enter
    // exception vectors that hold 0 and leave the code areas.
    testing::internal::CaptureStderr();
    ASSERT_EQ(open(player, std::vector<uint8_t>(8, 0)), 0);
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("deli_call: PC=00300000 out of range"), std::string::npos) << err;
    EXPECT_NE(err.find("deli_call: PC=00000000 out of range"), std::string::npos) << err;

    // The tick loops forever: the call ends by its budget and the frame is
    // still produced.
    testing::internal::CaptureStderr();
    render(1);
    err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("deli_call: cycle budget exhausted"), std::string::npos) << err;
    EXPECT_EQ(k->played_frames, 1u);
    kelva_close(k);   // EndSound still runs normally
    EXPECT_EQ(k->d[0], 7u);
}
