// The engine end to end: kelva_open with real hunk players, kelva_render's event timing, and kelva_measure_length's
// four ways to end.
#include <gtest/gtest.h>

#include <cmath>
#include <tuple>
#if defined(__x86_64__) || defined(__i386__)
#include <xmmintrin.h>
#endif

#include "amigaos/amigaos.h"
#include "engine/render.h"
#include "hardware/bus.h"
#include "players/include/kelva_player.h"
#include "support/services.h"
#include "support/test_support.h"

namespace {

// A one-hunk player made by hand: the player header, a few routines at fixed offsets, then the tag list (routine
// values relocated) and routines of the test's own after it.
struct hp {
    static constexpr uint32_t kRet0 = 16;    // moveq #0,d0; rts
    static constexpr uint32_t kRet1 = 20;    // moveq #1,d0; rts
    static constexpr uint32_t kRange = 24;   // moveq #0,d0; moveq #4,d1; rts  (subsongs 0..4)
    static constexpr uint32_t kMark = 30;    // addq.w #1,$100.w; rts  (counts its calls at $100)
    static constexpr uint32_t kData = 36;    // a long the GlobalsPointer tag points at
    static constexpr uint32_t kExtra = 0x80000000u;   // marks an offset into the test's own routines

    std::vector<std::tuple<uint32_t, uint32_t, bool>> tags;   // tag, hunk offset or raw value, relocated
    std::vector<uint8_t> extra;

    hp &add(uint32_t tag, uint32_t offset, bool is_address = true) {
        tags.emplace_back(tag, offset, is_address);
        return *this;
    }
    hp &add_routine(uint32_t tag, const std::vector<uint8_t> &code) {
        add(tag, kExtra | uint32_t(extra.size()));
        extra.insert(extra.end(), code.begin(), code.end());
        return *this;
    }
    // A routine that appends `mark` to the byte log at $200 (count in the word at $104), keeps its D0 in the word at
    // $106 and returns D0 = D1 = 0.
    static std::vector<uint8_t> logging(uint8_t mark) {
        return {0x31, 0xC0, 0x01, 0x06, 0x41, 0xF8, 0x02, 0x00,     // move.w d0,$106.w; lea $200.w,a0
                0xD0, 0xF8, 0x01, 0x04, 0x10, 0xBC, 0x00, mark,     // adda.w $104.w,a0; move.b #mark,(a0)
                0x52, 0x78, 0x01, 0x04, 0x70, 0x00, 0x72, 0x00,     // addq.w #1,$104.w; moveq #0,d0/d1
                0x4E, 0x75};
    }

    std::vector<uint8_t> build() const {
        std::vector<uint8_t> code = {0x70, 0xFF, 0x4E, 0x75, 'D', 'E', 'L', 'I', 'R', 'I', 'U', 'M', 0, 0, 0, 40,
                                     0x70, 0x00, 0x4E, 0x75, 0x70, 0x01, 0x4E, 0x75, 0x70, 0x00, 0x72, 0x04,
                                     0x4E, 0x75, 0x52, 0x78, 0x01, 0x00, 0x4E, 0x75, 0, 0, 0, 0};
        std::vector<uint32_t> relocs = {12};
        const uint32_t extra_at = 40 + 8 * uint32_t(tags.size()) + 4;
        for (auto [tag, v, is_address] : tags) {
            put_be32(code, tag);
            if (is_address) relocs.push_back(uint32_t(code.size()));
            put_be32(code, is_address && (v & kExtra) ? extra_at + (v & ~kExtra) : v);
        }
        put_be32(code, 0);
        code.insert(code.end(), extra.begin(), extra.end());
        code.resize((code.size() + 3) & ~size_t(3));
        const uint32_t longs = uint32_t(code.size() / 4);
        std::vector<uint8_t> f;
        for (uint32_t v : {0x3F3u, 0u, 1u, 0u, 0u, longs, 0x3E9u, longs}) put_be32(f, v);
        f.insert(f.end(), code.begin(), code.end());
        relocs.insert(relocs.begin(), {0x3EC, uint32_t(relocs.size()), 0});   // HUNK_RELOC32: count, hunk 0
        relocs.insert(relocs.end(), {0, 0x3F2});                               // end of the list, HUNK_END
        for (uint32_t v : relocs) put_be32(f, v);
        return f;
    }
};

class Engine : public testing::Test {
protected:
    // Creates an engine at `rate` and opens `player` on `module`.
    int open(const std::vector<uint8_t> &player, const std::vector<uint8_t> &module, int32_t rate = 48000,
             int32_t subsong = 0, const char *path = "/music/tune.env") {
        eng = make_engine(rate);
        k = eng.get();
        if (loader_files) kelva_set_file_loader(k, memory_loader, loader_files);
        return kelva_open(k, player.data(), uint32_t(player.size()), module.data(), uint32_t(module.size()),
                          nullptr, path, subsong);
    }
    // The same with a test player of tests/players (-1 when it was not built).
    int open(const char *name, const std::vector<uint8_t> &module = std::vector<uint8_t>(8, 0),
             int32_t rate = 48000, int32_t subsong = 0, const char *path = "/music/tune.env") {
        std::vector<uint8_t> player = read_file_bytes(std::string(KELVA_TEST_PLAYERS) + "/" + name);
        EXPECT_FALSE(player.empty()) << "test player " << name << " not built";
        return open(player, module, rate, subsong, path);
    }
    void render(int32_t frames) {
        buf.assign(size_t(frames) * 2, 0.0f);
        kelva_render(k, buf.data(), frames);
    }
    std::string str(uint32_t a) const { return reinterpret_cast<const char *>(k->ram + a); }
    uint32_t data(uint32_t offset = 0) const { return ram_get32(k, k->hunk_addr[1] + offset); }

    engine_ptr eng;
    kelva *k = nullptr;
    std::vector<float> buf;
    memory_files *loader_files = nullptr;
};

}  // namespace

TEST_F(Engine, OpenCallsTheRoutinesAndFillsTheGlobals) {
    hp p = hp().add(DTP_InitPlayer, hp::kRet0).add(DTP_Config, hp::kMark);
    p.add(DTP_InitSound, hp::kMark).add(DTP_Interrupt, hp::kMark);
    std::vector<uint8_t> module(1000, 0x11);
    ASSERT_EQ(open(p.build(), module, 44100, 0, "/a/b/tune.x"), 0);

    // Config and InitSound ran, the tick not yet; the module and its size; its path, folder and name.
    EXPECT_EQ(std::tuple(ram_get16(k, 0x100), ram_get32(k, kGlobals + 36), ram_get32(k, kGlobals + 40),
                         k->ram[kModuleAddr + 999], k->comp_next, k->frames_per_tick, k->frames_per_vblank,
                         kelva_get_subsong_count(k)),
              std::tuple(2u, kModuleAddr, 1000u, 0x11, kModuleAddr + 1000, 882, 882, 1u));
    auto paths = [&] {
        return str(ram_get32(k, kGlobals + 32)) + "|" + str(ram_get32(k, kGlobals + 24)) + "|" +
               str(ram_get32(k, kGlobals + 28));
    };
    EXPECT_EQ(paths(), "/a/b/tune.x|/a/b/|tune.x");

    // The tick runs at once, then every 882 frames; one due at the end of a call waits for the next call.
    for (auto [frames, calls] : {std::pair{1, 3u}, {881, 3u}, {1, 4u}, {882 * 10, 14u}}) {
        render(frames);
        EXPECT_EQ(ram_get16(k, 0x100), calls) << frames;
    }

    // Without a folder the folder is empty; a path is cut to 1023 bytes.
    const std::string long_path = "/a/" + std::string(1100, 'x');
    for (auto [path, want] : {std::pair<std::string, std::string>{"tune.x", "tune.x||tune.x"},
                              {long_path, long_path.substr(0, 1023) + "|/a/|" + std::string(1020, 'x')}}) {
        ASSERT_EQ(open(p.build(), module, 44100, 0, path.c_str()), 0);
        EXPECT_EQ(paths(), want);
    }

    // Either globals-pointer tag has the globals' address written where it points.
    for (uint32_t tag : {DTP_GlobalsPointer, EP_EagleGlobalsPointer}) {
        ASSERT_EQ(open(hp().add(DTP_InitPlayer, hp::kRet0).add(tag, hp::kData).build(), module), 0);
        EXPECT_EQ(ram_get32(k, kPlayerBase + hp::kData), kGlobals) << std::hex << tag;
    }

    // The tag list is read up to 256 pairs: after 254 ignored tags, pair 256 is read, pair 257 never.
    hp many = hp().add(DTP_InitPlayer, hp::kRet0);
    for (int i = 0; i < 254; i++) many.add(0x12345678, 0, false);
    ASSERT_EQ(open(many.add(DTP_InitSound, hp::kMark).add(DTP_Interrupt, hp::kMark).build(), module), 0);
    EXPECT_EQ(std::tuple(k->routines[DELI_INITSOUND], k->routines[DELI_INTERRUPT]),
              std::tuple(kPlayerBase + hp::kMark, 0u));
}

TEST_F(Engine, OpenRefusesWhatItCannotDrive) {
    std::vector<uint8_t> module(64, 1), p = hp().add(DTP_InitPlayer, hp::kRet0).add(DTP_Config, hp::kMark).build();
    // Player, module, result, message. The chip-RAM window holds exactly 983,040 bytes.
    const std::tuple<std::vector<uint8_t>, std::vector<uint8_t>, int, const char *> cases[] = {
        {hp().add(DTP_InitSound, hp::kRet0).build(), module, 1,
         "deli_scan_tags: no Interrupt or InitPlayer tag, can't drive\n"},
        {std::vector<uint8_t>(16, 0), module, 1, "hunk: missing HUNK_HEADER\n"},
        {p, {}, 1, ""},   // an empty module
        {p, {7}, 0, ""},
        {p, std::vector<uint8_t>(983040, 7), 0, ""},
        {p, std::vector<uint8_t>(983041, 7), 1, "mod_install: 983041 bytes exceeds chip-RAM window (983040)\n"},
    };
    for (const auto &[player, mod, result, message] : cases)
        EXPECT_EQ(stderr_of([&] { EXPECT_EQ(open(player, mod), result); }), message);
    EXPECT_EQ(ram_get16(k, 0x100), 1u);   // Config ran before the module was refused

    // A failing InitPlayer stops the start only when Check2 failed too.
    for (uint32_t check : {hp::kRet1, hp::kRet0}) {
        hp q = hp().add(DTP_Check2, check).add(DTP_InitPlayer, hp::kRet1);
        EXPECT_EQ(open(q.build(), module), int(check == hp::kRet1));
    }
}

// Start-up and shut-down run the routines in the interface order, whatever the tags' order; Voices gets the voice
// mask in D0.
TEST_F(Engine, RoutinesRunInTheInterfaceOrder) {
    const std::pair<uint32_t, char> order[] = {
        {DTP_Config, 'C'},     {DTP_Check2, 'K'},  {DTP_ExtLoad, 'X'},  {DTP_InitPlayer, 'I'}, {DTP_SubSongRange, 'R'},
        {EP_InitHook, 'H'},    {DTP_InitSound, 'S'}, {DTP_StartInt, 'T'}, {DTP_Volume, 'V'},   {EP_Voices, 'W'},
        {DTP_StopInt, 's'},    {DTP_EndSound, 'e'}, {DTP_EndPlayer, 'p'}};
    hp p;
    for (int i = 12; i >= 0; i--) p.add_routine(order[i].first, hp::logging(uint8_t(order[i].second)));
    auto log = [&] { return std::string(reinterpret_cast<const char *>(k->ram + 0x200), ram_get16(k, 0x104)); };
    ASSERT_EQ(open(p.build(), std::vector<uint8_t>(8, 0)), 0);
    EXPECT_EQ(std::tuple(log(), ram_get16(k, 0x106)), std::tuple("CKXIRHSTVW", 0x000Fu));
    kelva_close(k);
    EXPECT_EQ(log(), "CKXIRHSTVWsep");
}

// Subsongs 0..4 clamp the request; a range 3..1 holds one subsong: the first. The Subsong test player sets a period
// per subsong (range 1..5).
TEST_F(Engine, SubsongRangeSelectsTheCurrentSubsong) {
    hp back = hp().add(DTP_InitPlayer, hp::kRet0);
    back.add_routine(DTP_SubSongRange, {0x70, 0x03, 0x72, 0x01, 0x4E, 0x75});   // moveq #3,d0; moveq #1,d1; rts
    const std::vector<uint8_t> range = hp().add(DTP_InitPlayer, hp::kRet0).add(DTP_SubSongRange, hp::kRange).build();
    // Player, requested, count, current.
    const std::tuple<std::vector<uint8_t>, int32_t, uint32_t, uint32_t> cases[] = {
        {range, 3, 5, 2},       {range, 9, 5, 0},       {range, 0, 5, 0},      {range, 1, 5, 0},
        {range, 5, 5, 4},       {back.build(), 0, 1, 3}, {back.build(), 1, 1, 3}, {back.build(), 2, 1, 3}};
    for (const auto &[player, requested, count, current] : cases) {
        ASSERT_EQ(open(player, std::vector<uint8_t>(8, 0), 48000, requested), 0);
        EXPECT_EQ(std::tuple(kelva_get_subsong_count(k), ram_get16(k, kGlobals + 44)), std::tuple(count, current));
    }
    ASSERT_EQ(open("Subsong", std::vector<uint8_t>(8, 0), 48000, 3), 0);
    EXPECT_EQ(std::tuple(kelva_get_subsong_count(k), ram_get16(k, kGlobals + 44), k->aud[0].per),
              std::tuple(5u, 3u, uint16_t(339)));
}

// SetTimer through the globals table: 7093 E-clock ticks make 480 frames; the tick due next keeps the old period.
// 9999 make 677 frames (10,000 ticks), off the vertical blank: a tick due one frame into a call runs in it.
TEST_F(Engine, SetTimerChangesTheTickPeriod) {
    ASSERT_EQ(open("Envelope", envelope_module(0, 0, 0)), 0);
    // Timer (0: unchanged), frames per tick, frames rendered, ticks by then.
    const std::tuple<uint16_t, int32_t, int32_t, uint32_t> steps[] = {
        {0, 960, 1, 1},    {0, 960, 959, 1}, {7093, 480, 1, 2}, {0, 480, 480 * 4 - 1, 5},
        {9999, 677, 1, 6}, {0, 677, 675, 6}, {0, 677, 2, 7}};
    for (auto [timer, frames_per_tick, frames, ticks_then] : steps) {
        if (timer) {
            ram_put16(k, kGlobals + DTG_Timer, timer);
            op_line_a(k, 0xA40B);
        }
        EXPECT_EQ(k->frames_per_tick, frames_per_tick);
        render(frames);
        EXPECT_EQ(ram_get32(k, kModuleAddr + 20), ticks_then) << timer << " " << frames;   // the module's count
    }
}

// Interrupts in the render loop, seen in the IrqOrder player's log, its vertical-blank count and its channel's level
// (measurement's output: no filters, so a change shows in its very frame).
TEST_F(Engine, InterruptHandlersRunAtTheirFramesInOrder) {
    auto log = [&] { return std::string(reinterpret_cast<const char *>(k->ram + k->hunk_addr[1] + 204), data(200)); };
    ASSERT_EQ(open("IrqOrder"), 0);
    k->measure_mode = 1;
    // CIA-A timer B underflows after 3001 E-clock ticks = 3001 x 48000 / 709379 = 203.06 frames: the channel is
    // silent from frame 204 on, in a single call as well.
    render(2100);
    for (int f = 0; f < 2100; f++) ASSERT_EQ(buf[2 * f], f < 204 ? 0.25f : 0.0f) << f;
    // CIA-B timer A (10,000 E-clock ticks) and the audio block (50,000 Paula clocks) end together every 676.63
    // frames, three times by now: the CIA handler first, each once although neither acknowledges.
    EXPECT_EQ(log(), std::string("\3\1\2\1\2\1\2"));

    // Frame by frame: those two after frames 677 and 1354 (frame f ends after f x 3546895 / 48000 Paula ticks), the
    // vertical blank every 960 frames (50 Hz).
    ASSERT_EQ(open("IrqOrder"), 0);
    for (int f = 1; f <= 1920; f++) {
        render(1);
        ASSERT_EQ(log().size(), f < 204 ? 0u : f < 677 ? 1u : f < 1354 ? 3u : 5u) << f;
        ASSERT_EQ(data(264), uint32_t(f / 960)) << f;
    }
    // CIA-A's time of day (50 Hz ticks) runs with the output: the second, give or take one.
    EXPECT_NEAR(double(read8(k, 0xBFE801)), 2.0, 1.0);
}

TEST_F(Engine, RenderingMixesWithSeparation) {
    ASSERT_EQ(open("Tone"), 0);
    render(4800);
    float left = 0, right = 0;
    for (int i = 2400; i < 4800; i++) {
        left = std::max(left, std::fabs(buf[2 * i]));
        right = std::max(right, std::fabs(buf[2 * i + 1]));
    }
    EXPECT_TRUE(left > 0.3f && right == 0.0f) << left << " " << right;   // channel 0 is on the left
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

// The ends of a measurement (1 song end, 2 one second of silence, 3 the limit, 4 a repetition, 5 cancelled). Envelope
// ticks every 882 frames at 44.1 kHz (960 at 48 kHz). Silence is below 1/1024 of full scale: Tone at volume 1 plays
// at 100 / 128 / 64 / 2 = 0.0061. A song with a repeated 45 s section ending at 180 s ends by its song end only if
// its player signals the end (EnvelopeSongEnd). Patterns of 2250 ticks (450 blocks of 100 ms) and 2315 (463 blocks):
// two repeats and the 30 s behind them are there after 1200 and 1226 blocks, found at the next 20th block (+ at most
// one 2048-frame chunk). Cancel is polled per 2048-frame chunk: at the 11th poll, or at the 2nd with a 40 ms limit,
// reached with the first chunk: too late.
TEST_F(Engine, MeasureEndsAtSongEndSilenceLimitRepetitionOrCancel) {
    const std::vector<uint8_t> none(8, 0);
    const struct {
        const char *player;
        std::vector<uint8_t> module;
        int32_t rate, limit_ms, silence_ms, volume, polls;
        uint64_t ms;
        int32_t reason;
        uint64_t frames;   // played by the end (0: not checked); + at most 2047 but for a cancel
    } cases[] = {
        {"Envelope", envelope_module(0, 0, 4161), 44100, 0, 30000, -1, -1, 83200, 1, 0},   // tick 4161: 4160 x 882
        {"Envelope", envelope_module(0, 501, 0), 44100, 0, 3000, -1, -1, 11000, 2, 0},     // stops at 500 x 882
        {"Envelope", envelope_module(0, 0, 0), 48000, 30000, 3000, -1, -1, 30000, 3, 0},
        {"EnvelopeSongEnd", envelope_module(2250, 0, 9001), 48000, 0, 30000, -1, -1, 180000, 1, 0},
        {"Envelope", envelope_module(2250, 0, 9001), 48000, 0, 30000, -1, -1, 45000, 4, 1200 * 4800},
        {"Envelope", envelope_module(2315, 0, 0), 48000, 0, 30000, -1, -1, 46300, 4, 1240 * 4800},
        {"EnvelopeSongEnd", envelope_module(2250, 501, 0), 44100, 0, 3000, -1, -1, 11000, 2, 0},
        {"EnvelopeSongEnd", envelope_module(2250, 0, 9001), 48000, 150000, 3000, -1, -1, 150000, 3, 0},
        {"Tone", none, 48000, 5000, 1000, 1, -1, 5000, 3, 0},
        {"Tone", none, 48000, 5000, 1000, 0, -1, 1000, 2, 0},
        {"Tone", none, 48000, 1, 1000, 1, -1, 1, 3, 0},   // the shortest limit is still one
        {"Envelope", envelope_module(0, 0, 0), 48000, 0, 3000, -1, 10, 0, 5, 10 * 2048},
        {"Envelope", envelope_module(0, 0, 0), 48000, 40, 3000, -1, 1, 40, 3, 0},
    };
    auto cancel_after = [](void *user) { return int(++static_cast<int *>(user)[0] > static_cast<int *>(user)[1]); };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.player) + " " + std::to_string(c.ms));
        ASSERT_EQ(open(c.player, c.module, c.rate), 0);
        EXPECT_EQ(kelva_get_player_flags(k), strcmp(c.player, "EnvelopeSongEnd") ? 0u : KELVA_PLAYER_SONGEND);
        if (c.volume >= 0) write16(k, 0xDFF0A8, uint32_t(c.volume));   // AUD0VOL
        int32_t reason = 0, polls[2] = {0, c.polls};
        EXPECT_EQ(kelva_measure_length(k, c.limit_ms, c.silence_ms, &reason, c.polls < 0 ? nullptr : +cancel_after,
                                       polls),
                  c.ms);
        EXPECT_EQ(std::tuple(reason, kelva_song_ended(k)), std::tuple(c.reason, int(c.reason == 1)));
        EXPECT_TRUE(!c.frames || k->played_frames - c.frames < (c.reason == 5 ? 1u : 2048u)) << k->played_frames;
    }
    int32_t reason = 0;
    eng = make_engine(0);   // an unusable rate: nothing to measure
    EXPECT_EQ(kelva_measure_length(eng.get(), 0, 0, &reason, nullptr, nullptr), 0u);
    EXPECT_EQ(reason, 3);
}

// A host thread in the power-up mode (no flush-to-zero): while rendering or measuring the engine flushes denormals,
// so the decaying filters never hold one, and the caller gets its own mode back after each call.
TEST_F(Engine, RendersWithDenormalsFlushedAndRestoresTheCallersMode) {
#if defined(__x86_64__) || defined(__i386__)
    constexpr uint32_t kDefaultMode = 0x1F80;   // all exceptions masked, round to nearest
    std::thread host([&] {
        // The tone stops at tick 10 (0.2 s); then 1.8 s of decaying filters.
        ASSERT_EQ(open("Envelope", envelope_module(0, 10, 0)), 0);
        for (int i = 0; i < 24; i++) {
            _mm_setcsr(kDefaultMode);
            render(4096);
            ASSERT_EQ(_mm_getcsr(), kDefaultMode) << "after block " << i;
        }
        const paula_mixer &m = k->mix;
        for (auto [st, n] : {std::pair{&m.rc_state[0], 2}, {&m.led_state[0][0], 4}, {&m.aa_state[0][0][0], 16}})
            for (int i = 0; i < n; i++) EXPECT_NE(std::fpclassify(st[i]), FP_SUBNORMAL) << i << " = " << st[i];

        // Measurement: the cancel callback runs inside the engine.
        ASSERT_EQ(open("Envelope", envelope_module(0, 10, 0)), 0);
        uint32_t inside = 0;
        auto cancel = [](void *user) {
            *static_cast<uint32_t *>(user) = _mm_getcsr();
            return 0;
        };
        _mm_setcsr(kDefaultMode);
        int32_t reason = 0;
        kelva_measure_length(k, 5000, 0, &reason, cancel, &inside);
        EXPECT_EQ(std::tuple(_mm_getcsr(), inside & 0x8040u, reason), std::tuple(kDefaultMode, 0x8040u, 3));
    });
    host.join();
#else
    GTEST_SKIP() << "the floating-point mode is switched on x86 only";
#endif
}

// Envelopes of random block levels. A lag counts only when the last 30 s (300 blocks) also match the 30 s two lags
// back; lags go up to 2400 blocks (240 s).
TEST_F(Engine, CorrelationAndRepetitionOfEnvelopes) {
    uint32_t x = 99;
    auto level = [&] { return float((x = x * 1103515245u + 12345u) >> 16 & 0x7FFF) / 32768.0f - 0.5f; };
    auto periodic = [&](uint32_t size, uint32_t period) {
        std::vector<float> first(period), env(size);
        for (float &v : first) v = level();
        for (uint32_t i = 0; i < size; i++) env[i] = first[i % period];
        return env;
    };
    std::vector<float> env = periodic(700, 101), zeros(700, 0.0f);
    double energy = 0;
    for (uint32_t i = 300; i < 600; i++) energy += double(env[i]) * env[i];
    EXPECT_NEAR(measure_corr_at(env.data(), 600, 101, energy), 1.0, 1e-9);
    EXPECT_LT(measure_corr_at(env.data(), 600, 150, energy), 0.5);
    EXPECT_EQ(measure_corr_at(env.data(), 299, 0, 1.0) + measure_corr_at(zeros.data(), 600, 100, 1.0), 0.0);

    // Blocks 400..549 replaced: the last 300 blocks repeat once at lag 150, not at 300. 1010 blocks: not a 20th
    // block.
    std::vector<float> broken = periodic(1010, 150);
    for (uint32_t i = 400; i < 550; i++) broken[i] = level();
    const std::tuple<std::vector<float>, uint32_t, uint32_t> cases[] = {
        {periodic(1010, 150), 1000, 150},   {periodic(1010, 150), 1010, 0}, {broken, 1000, 0},
        {periodic(5100, 2400), 5100, 2400}, {periodic(5200, 2401), 5200, 0}};
    for (const auto &[e, n, lag] : cases) EXPECT_EQ(measure_repetition_lag(e.data(), n), lag) << n << " " << lag;
}

TEST_F(Engine, FaultingPlayersDoNotStopPlayback) {
    // InitPlayer runs away, but without a failed format check the start goes on; InitSound (line-F) and StartInt
    // (divide by zero) enter exception vectors that hold 0 and leave the code areas.
    // The tick loops forever: the call ends by its budget and the frame is still produced.
    std::string err = stderr_of([&] { ASSERT_EQ(open("Misbehave"), 0); });
    err += stderr_of([&] { render(1); });
    EXPECT_NE(err.find("deli_call: PC=00300000 out of range"), std::string::npos) << err;
    EXPECT_NE(err.find("deli_call: PC=00000000 out of range"), std::string::npos) << err;
    EXPECT_NE(err.find("deli_call: cycle budget exhausted"), std::string::npos) << err;
    EXPECT_EQ(k->played_frames, 1u);
    kelva_close(k);   // EndSound still runs normally
    EXPECT_EQ(k->d[0], 7u);
}

// The Files player (tests/players/Files.S) loads "smp.set" beside the module, reads and seeks "data.bin" and runs
// "DosSegment" loaded by LoadSeg.
TEST_F(Engine, PlayersLoadFilesBesideTheModuleAndThroughDos) {
    memory_files files;
    loader_files = &files;
    const std::vector<uint8_t> module(99, 0);
    EXPECT_EQ(stderr_of([&] { ASSERT_EQ(open("Files", module, 48000, 0, "/mods/tune.x"), 0); }),
              "deli_load_companion: cannot open '/mods/smp.set'\n");
    EXPECT_EQ(std::tuple(k->comp_count, data(0), data(24)), std::tuple(1u, 0u, 0u));   // no handle, no samples

    std::vector<uint8_t> bytes(16);
    for (int i = 0; i < 16; i++) bytes[i] = uint8_t(0xA0 + i);
    files.files = {{"/mods/smp.set", bytes}, {"data.bin", bytes},
                   {"DosSegment", read_file_bytes(std::string(KELVA_TEST_PLAYERS) + "/DosSegment")}};
    ASSERT_EQ(open("Files", module, 48000, 0, "/mods/tune.x"), 0);
    EXPECT_EQ(k->comp_count, 2u);
    // Handle, bytes read, size by seeking, segment list at the slab start, its answer, the samples at the next even
    // address and their size.
    std::vector<uint32_t> results;
    for (uint32_t at = 0; at < 28; at += 4) results.push_back(data(at));
    EXPECT_EQ(results, (std::vector<uint32_t>{1, 8, 16, (0x400000 + 4) >> 2, 0x4B454C56, kModuleAddr + 100, 16}));
    EXPECT_EQ(memcmp(k->ram + data(20), bytes.data(), 16), 0);
    EXPECT_EQ(memcmp(k->ram + k->hunk_addr[1] + 28, bytes.data() + 4, 8), 0);
    EXPECT_EQ(k->files[0].data, nullptr);   // closed
}
