// kelva's AHX and HivelyTracker players on synthetic songs: the waveforms,
// the envelope, the playlist and track commands, the song's flow and the
// software mix of HVL songs, each pinned down by the Paula registers, the
// bytes Paula plays or the rendered pitch and level after a number of ticks.
// Expected values follow from the format's rules: a voice plays note
// (playlist note + track note - 1), or the playlist's note alone when it is
// fixed, at the period of the note table (37 = 428, 25 = 856, 49 = 214);
// volumes from the envelope's steps ((target - start) x 256 / frames per
// tick); waveforms from their definitions.
//
// Timing: a tick is 960 frames at 48 kHz and the first tick reads row 0, so
// after run_ticks(k, t + 1) the player has done tick t.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <string>
#include <vector>

#include "ptk_support.h"

using namespace ptk_test;

namespace {

// ---- Song images --------------------------------------------------------

struct plist_entry {
    uint8_t wave = 0, note = 0, fixed = 0, fx1 = 0, p1 = 0, fx2 = 0, p2 = 0;
};

struct instrument {
    uint8_t volume = 64, wl = 5;
    uint8_t a_frames = 1, a_vol = 64, d_frames = 0, d_vol = 64, s_frames = 0, r_frames = 0, r_vol = 64;
    uint8_t filter_lower = 0, filter_upper = 0, filter_speed = 0;
    uint8_t vib_delay = 0, vib_depth = 0, vib_speed = 0;
    uint8_t hc_frames = 0, hc_release = 0;
    uint8_t sq_lower = 0, sq_upper = 0, sq_speed = 0;
    uint8_t plist_speed = 1;
    std::vector<plist_entry> plist;
};

struct step {
    uint8_t note = 0, ins = 0, fx = 0, p = 0, fxb = 0, pb = 0;
};

struct song {
    bool hvl = false;
    uint8_t channels = 4, track_len = 8, speed_mult = 1, stereo = 4;
    uint16_t restart = 0;
    std::vector<std::vector<uint8_t>> positions;   // track per channel (transpose 0)
    std::vector<std::vector<step>> tracks;         // track 0 stays empty
    std::vector<instrument> ins;                   // instrument n at ins[n - 1]
    std::vector<uint16_t> subsongs;
};

// AHX codes playlist commands 12 and 15 as 6 and 7.
uint8_t ahx_fx(uint8_t fx) { return fx == 12 ? 6 : fx == 15 ? 7 : fx; }

std::vector<uint8_t> build(const song &s) {
    std::vector<uint8_t> m(s.hvl ? 16 : 14, 0);
    m[0] = s.hvl ? 'H' : 'T';
    m[1] = s.hvl ? 'V' : 'H';
    m[2] = s.hvl ? 'L' : 'X';
    m[3] = 1;
    uint16_t npos = uint16_t(s.positions.size());
    m[6] = uint8_t(((s.speed_mult - 1) << 5) | (npos >> 8));
    m[7] = uint8_t(npos);
    m[8] = s.hvl ? uint8_t(((s.channels - 4) << 2) | (s.restart >> 8)) : uint8_t(s.restart >> 8);
    m[9] = uint8_t(s.restart);
    m[10] = s.track_len;
    m[11] = uint8_t(s.tracks.size() - 1);
    m[12] = uint8_t(s.ins.size());
    m[13] = uint8_t(s.subsongs.size());
    if (s.hvl) {
        m[14] = 100;
        m[15] = s.stereo;
    }
    for (uint16_t p : s.subsongs) m.insert(m.end(), {uint8_t(p >> 8), uint8_t(p)});
    for (const auto &pos : s.positions)
        for (uint8_t c = 0; c < s.channels; c++) m.insert(m.end(), {c < pos.size() ? pos[c] : uint8_t(0), 0});
    for (const auto &t : s.tracks)
        for (uint8_t r = 0; r < s.track_len; r++) {
            step st = r < t.size() ? t[r] : step{};
            if (s.hvl)
                m.insert(m.end(), {st.note, st.ins, uint8_t(st.fx << 4 | st.fxb), st.p, st.pb});
            else
                m.insert(m.end(), {uint8_t(st.note << 2 | st.ins >> 4), uint8_t((st.ins & 15) << 4 | st.fx), st.p});
        }
    for (const instrument &i : s.ins) {
        uint8_t h[22] = {i.volume, uint8_t((i.filter_speed & 31) << 3 | i.wl), i.a_frames, i.a_vol, i.d_frames,
                         i.d_vol, i.s_frames, i.r_frames, i.r_vol, 0, 0, 0,
                         uint8_t((i.filter_speed & 32) << 2 | i.filter_lower), i.vib_delay,
                         uint8_t(i.hc_release << 7 | i.hc_frames << 4 | i.vib_depth), i.vib_speed, i.sq_lower,
                         i.sq_upper, i.sq_speed, i.filter_upper, i.plist_speed, uint8_t(i.plist.size())};
        m.insert(m.end(), h, h + 22);
        for (const plist_entry &e : i.plist) {
            if (s.hvl)
                m.insert(m.end(), {e.fx1, uint8_t(e.fx2 << 3 | e.wave), uint8_t(e.fixed << 6 | e.note), e.p1, e.p2});
            else
                m.insert(m.end(), {uint8_t(ahx_fx(e.fx2) << 5 | ahx_fx(e.fx1) << 2 | e.wave >> 1),
                                   uint8_t((e.wave & 1) << 7 | e.fixed << 6 | e.note), e.p1, e.p2});
        }
    }
    uint16_t names = uint16_t(m.size());
    m[4] = uint8_t(names >> 8);
    m[5] = uint8_t(names);
    for (char c : std::string("synthetic")) m.push_back(uint8_t(c));
    m.push_back(0);
    return m;
}

constexpr uint8_t kTriangle = 1, kSawtooth = 2, kSquare = 3, kNoise = 4;

// One position: channel 0 plays track 1, the others track 0 (empty).
song one_track(std::vector<step> steps, std::vector<instrument> ins) {
    song s;
    s.positions = {{1, 0, 0, 0}};
    s.tracks = {{}, std::move(steps)};
    s.ins = std::move(ins);
    return s;
}

// An instrument that plays `wave` at once, full volume, wave length wl.
instrument tone(uint8_t wave, uint8_t wl = 3, uint8_t width = 0x20) {
    instrument i;
    i.wl = wl;
    i.plist = {{wave, 1, 0, 3, width}};   // the track's note; square width from the parameter
    return i;
}

engine_ptr open_song(const std::vector<uint8_t> &mod, const char *player = "AHX", int subsong = 0) {
    kelva_global_init();
    engine_ptr k = make_engine(48000);
    std::vector<uint8_t> p = read_bytes(player_path(player));
    std::string pp = player_path(player);
    EXPECT_EQ(kelva_open(k.get(), p.data(), uint32_t(p.size()), mod.data(), uint32_t(mod.size()), pp.c_str(),
                         nullptr, subsong),
              0);
    return k;
}

// The bytes of the block Paula loops on channel c (queued behind the start).
std::vector<int8_t> looped(const engine_ptr &k, int c = 0) {
    const int8_t *p = reinterpret_cast<const int8_t *>(k->ram + (k->aud[c].lc & 0xFFFFFF));
    return std::vector<int8_t>(p, p + k->aud[c].len * 2);
}

std::vector<int8_t> repeat(const std::vector<int8_t> &w, size_t n) {
    std::vector<int8_t> out;
    while (out.size() < n) out.insert(out.end(), w.begin(), w.end());
    return out;
}

// A square of `len` bytes: the first half low, the second high.
std::vector<int8_t> square(size_t len, size_t high) {
    std::vector<int8_t> w(len - high, -128);
    w.insert(w.end(), high, 127);
    return w;
}

class Ahx : public ::testing::Test {
  protected:
    void SetUp() override {
        PTK_REQUIRE_PLAYER("AHX");
        PTK_REQUIRE_PLAYER("HivelyTracker");
    }
};

// ---- Waveforms -------------------------------------------------------------

TEST_F(Ahx, WaveformsAreGeneratedByTheirRules) {
    struct wave_case {
        const char *what;
        uint8_t wave, wl, width;
        std::vector<int8_t> period;   // one period of the wave
    };
    const wave_case cases[] = {
        // A quarter rises from 0 in steps of 128 / (len / 4) to 127; the
        // second half negates the first, 127 becoming -128.
        {"triangle 4", kTriangle, 0, 0, {0, 127, 0, -128}},
        {"triangle 8", kTriangle, 1, 0, {0, 64, 127, 64, 0, -64, -128, -64}},
        // From -128 in steps of 256 / (len - 1).
        {"sawtooth 4", kSawtooth, 0, 0, {-128, -43, 42, 127}},
        {"sawtooth 16", kSawtooth, 2, 0, {-128, -111, -94, -77, -60, -43, -26, -9, 8, 25, 42, 59, 76, 93, 110, 127}},
        // Width w of 64 (the parameter >> (5 - wl) << (5 - wl)): 2w of 128
        // bytes high, every (32 >> wl)th byte taken.
        {"square 128, half", kSquare, 5, 0x20, square(128, 64)},
        {"square 128, quarter", kSquare, 5, 0x10, square(128, 32)},
        {"square 32, half", kSquare, 3, 0x20, square(32, 16)},
        {"square 32, width above 32 mirrors", kSquare, 3, 0x30, square(32, 8)},
    };
    for (const wave_case &c : cases) {
        SCOPED_TRACE(c.what);
        engine_ptr k = open_song(build(one_track({{37, 1}}, {tone(c.wave, c.wl, c.width)})));
        run_ticks(k.get(), 1);
        EXPECT_EQ(k->aud[0].per, 428);
        EXPECT_EQ(k->aud[0].vol, 64);
        EXPECT_EQ(looped(k), repeat(c.period, 128));
    }
}

TEST_F(Ahx, NoiseIsANewStretchOfTheTableEveryTick) {
    engine_ptr k = open_song(build(one_track({{37, 1}}, {tone(kNoise)})));
    std::vector<uint32_t> starts;
    for (int t = 0; t < 4; t++) {
        run_ticks(k.get(), 1);
        EXPECT_EQ(k->aud[0].len, 0x140);
        starts.push_back(k->aud[0].lc);
    }
    for (int t = 1; t < 4; t++) {
        EXPECT_NE(starts[t], starts[t - 1]);
        EXPECT_LT(std::abs(int32_t(starts[t] - starts[0])), 0x500);   // inside the 3 x 0x280 bytes of noise
    }
    std::vector<int8_t> b = looped(k);
    EXPECT_GT(std::count(b.begin(), b.end(), 127), 0x280 / 4);   // samples with bit 8 of the generator set
}

// Rendered through Paula (A1200 filter): the pitch of a wave of 32 bytes at
// period 428 is 3546895 / (428 x 32) = 259 Hz, and the levels follow the
// waves' RMS: 127.5 for the square, 74.1 for the triangle (0, 16, .., 112,
// 127, 112, .., 16 and its negation), 74.0 for the sawtooth (-128, -120, ..,
// 120).
TEST_F(Ahx, RenderedPitchAndLevel) {
    struct render_case {
        uint8_t wave;
        double rms_of_square;
    };
    const render_case cases[] = {{kSquare, 1.0}, {kTriangle, 0.581}, {kSawtooth, 0.580}};
    double square_rms = 0;
    for (const render_case &c : cases) {
        SCOPED_TRACE(int(c.wave));
        engine_ptr k = open_song(build(one_track({{37, 1}}, {tone(c.wave, 3)})));
        kelva_set_model(k.get(), 1);
        kelva_set_separation(k.get(), 1.0f);
        std::vector<float> pcm(2 * 48000);
        kelva_render(k.get(), pcm.data(), 48000);
        int rising = 0;
        bool low = false;   // below -0.05 since the last count (a margin for the filters' ripple)
        double sum = 0;
        for (int f = 4800; f < 48000; f++) {   // from 0.1 s on
            float l = pcm[2 * f];
            if (l < -0.05f) low = true;
            if (low && l > 0.05f) {
                rising++;
                low = false;
            }
            sum += double(l) * l;
        }
        double rms = std::sqrt(sum / 43200);
        EXPECT_NEAR(rising, 259 * 0.9, 3);
        if (c.wave == kSquare) square_rms = rms;
        EXPECT_NEAR(rms / square_rms, c.rms_of_square, 0.03);
        EXPECT_EQ(pcm[1], 0.0f);   // channel 0 is on the left
    }
}

// ---- Envelope ----------------------------------------------------------------

TEST_F(Ahx, EnvelopeStepsThroughAttackDecaySustainRelease) {
    instrument i = tone(kSquare);
    i.a_frames = 4, i.a_vol = 64;   // +4096 (16 volume steps) per tick
    i.d_frames = 4, i.d_vol = 32;   // -2048 per tick
    i.s_frames = 4;
    i.r_frames = 4, i.r_vol = 0;    // -2048 per tick
    engine_ptr k = open_song(build(one_track({{37, 1}}, {i})));
    const uint8_t expect[] = {16, 32, 48, 64, 56, 48, 40, 32, 32, 32, 32, 32, 24, 16, 8, 0, 0};
    for (uint8_t v : expect) {
        run_ticks(k.get(), 1);
        EXPECT_EQ(k->aud[0].vol, v);
    }
}

TEST_F(Ahx, HardCutReleasesBeforeTheNextInstrument) {
    instrument i = tone(kSquare);
    i.s_frames = 255;
    i.r_frames = 8, i.r_vol = 0;
    i.hc_frames = 2, i.hc_release = 1;   // release over 2 ticks, ending where the next note starts
    engine_ptr k = open_song(build(one_track({{37, 1}, {37, 1}}, {i})));
    const uint8_t expect[] = {64, 64, 64, 64, 32, 0, 64};   // rows of 6 ticks: release on ticks 4 and 5
    for (uint8_t v : expect) {
        run_ticks(k.get(), 1);
        EXPECT_EQ(k->aud[0].vol, v);
    }
}

// ---- The playlist --------------------------------------------------------------

struct tick_case {
    const char *what;
    instrument ins;
    std::vector<step> steps;
    char reg;                     // 'p' period, 'v' volume, 'w' high bytes of the looped square
    std::vector<int> expect;      // after ticks 0, 1, ...
};

int observe(const engine_ptr &k, char reg) {
    if (reg == 'p') return k->aud[0].per;
    if (reg == 'v') return k->aud[0].vol;
    std::vector<int8_t> b = looped(k);
    return int(std::count(b.begin(), b.end(), 127));
}

void run_cases(const std::vector<tick_case> &cases) {
    for (const tick_case &c : cases) {
        SCOPED_TRACE(c.what);
        engine_ptr k = open_song(build(one_track(c.steps, {c.ins})));
        for (size_t t = 0; t < c.expect.size(); t++) {
            run_ticks(k.get(), 1);
            EXPECT_EQ(observe(k, c.reg), c.expect[t]) << "tick " << t;
        }
    }
}

instrument with_plist(std::vector<plist_entry> p, uint8_t speed = 1) {
    instrument i;
    i.wl = 3;
    i.plist_speed = speed;
    i.plist = std::move(p);
    return i;
}

TEST_F(Ahx, PlaylistCommands) {
    instrument sweep = with_plist({{kSquare, 0, 0, 3, 0x10, 4, 0x01}});
    sweep.sq_lower = 0x08, sweep.sq_upper = 0x18, sweep.sq_speed = 1;   // widths 2..6 at wave length 3
    std::vector<tick_case> cases = {
        // Notes: relative to the track's note (entry 13 = an octave up from
        // note 25), or fixed (note 49 whatever the track says).
        {"relative and fixed notes, speed 2", with_plist({{kSquare, 13}, {0, 49, 1}, {0, 1}}, 2), {{25, 1}}, 'p',
         {428, 428, 214, 214, 856}},
        // The slide goes on while the ended playlist still waits (speed 4).
        {"1: slide up by 8 a tick", with_plist({{kSquare, 1, 0, 1, 8}}, 4), {{37, 1}}, 'p',
         {420, 412, 404, 396, 388, 388}},
        {"2: slide down by 8 a tick", with_plist({{kSquare, 1, 0, 2, 8}}, 4), {{37, 1}}, 'p', {436, 444, 452}},
        {"5: jump back to entry 0", with_plist({{kSquare, 37, 1}, {0, 49, 1, 5, 0}}), {{37, 1}}, 'p',
         {428, 214, 428, 214}},
        {"12: note volume; 15: speed", with_plist({{kSquare, 0, 0, 12, 0x20, 15, 3}, {0, 0, 0, 12, 0x10}}),
         {{37, 1}}, 'v', {32, 32, 32, 16}},
        {"12: playlist volume 50-90", with_plist({{kSquare, 0, 0, 12, 0x70}}), {{37, 1}}, 'v', {32}},
        // Width from the parameter >> 2 at wave length 3 (4: 8 of 32 bytes
        // high, 32 of the looped 128), then 4 starts the modulation: one
        // step a tick, turning at the limits 2 and 6.
        {"3 and 4: square width and its modulation", sweep, {{37, 1}}, 'w', {40, 48, 40, 32, 24, 16, 24}},
    };
    run_cases(cases);
}

TEST_F(Ahx, PlaylistFilterPosition) {
    // 0: filter position 1 (the lowest low-pass) smooths the square's edges;
    // 63 (the highest high-pass) leaves mostly the edges.
    engine_ptr low = open_song(build(one_track({{37, 1}}, {with_plist({{kSquare, 1, 0, 0, 1, 3, 0x20}})})));
    engine_ptr high = open_song(build(one_track({{37, 1}}, {with_plist({{kSquare, 1, 0, 0, 63, 3, 0x20}})})));
    run_ticks(low.get(), 1);
    run_ticks(high.get(), 1);
    auto largest_step = [](const std::vector<int8_t> &w) {
        int m = 0;
        for (size_t i = 1; i < w.size(); i++) m = std::max(m, std::abs(w[i] - w[i - 1]));
        return m;
    };
    auto rms = [](const std::vector<int8_t> &w) {
        double s = 0;
        for (int8_t v : w) s += double(v) * v;
        return std::sqrt(s / double(w.size()));
    };
    std::vector<int8_t> l = looped(low), h = looped(high);
    EXPECT_LT(largest_step(l), 64);      // the plain square jumps by 255
    EXPECT_LT(rms(h), 0.8 * 127.5);     // the plain square's RMS is 127.5
}

// ---- Track commands ------------------------------------------------------------

TEST_F(Ahx, TrackCommands) {
    instrument sq = tone(kSquare);
    instrument vib = tone(kSquare);
    vib.vib_depth = 4, vib.vib_speed = 16;   // sine x 4 / 128: 0, +7, 0, -8
    std::vector<tick_case> cases = {
        {"1xx portamento up from tick 0", sq, {{37, 1, 0x1, 5}}, 'p', {423, 418, 413}},
        {"2xx portamento down", sq, {{37, 1, 0x2, 5}}, 'p', {433, 438}},
        // From 428 towards 856 by 0x40 a tick, stopping on the note.
        // From 428 towards 856 by 0x40 a tick; 300 goes on at the same
        // speed and stops on the note.
        {"3xx tone portamento", sq, {{37, 1}, {25, 0, 0x3, 0x40}, {0, 0, 0x3, 0}}, 'p',
         {428, 428, 428, 428, 428, 428, 492, 556, 620, 684, 748, 812, 856, 856}},
        {"Cxx volume", sq, {{37, 1, 0xC, 0x20}}, 'v', {32}},
        {"Axy volume slide down", sq, {{37, 1, 0xA, 0x04}}, 'v', {60, 56, 52}},
        {"E1x fine slide, once", sq, {{37, 1, 0xE, 0x13}}, 'p', {425, 425}},
        {"EBx fine volume down", sq, {{37, 1, 0xE, 0xB8}}, 'v', {56, 56}},
        {"ECx note cut after 2 ticks", sq, {{37, 1, 0xE, 0xC2}}, 'v', {64, 64, 0, 0}},
        {"EDx note delay by 2 ticks", sq, {{37, 1}, {25, 1, 0xE, 0xD2}}, 'p',
         {428, 428, 428, 428, 428, 428, 428, 428, 856}},
        {"vibrato", vib, {{37, 1}}, 'p', {428, 435, 428, 420, 428}},
    };
    run_cases(cases);
}

// ---- The song ------------------------------------------------------------------

TEST_F(Ahx, SongFlowAndItsEnd) {
    instrument sq = tone(kSquare);
    struct flow_case {
        const char *what;
        std::vector<std::vector<step>> tracks;   // tracks 1.. on channel 0, one per position
        int end_tick;   // the tick that reports the end (its start is the song's length)
    };
    const flow_case cases[] = {
        {"two positions of 8 rows at speed 6", {{{37, 1}}, {{25, 1}}}, 96},
        {"F03: speed 3", {{{37, 1, 0xF, 3}}, {}}, 48},
        {"D04 breaks to row 4 of the next position", {{{37, 1, 0xD, 0x04}}, {}}, 6 + 4 * 6},
        {"B00 on position 1 jumps back: the end", {{{37, 1}}, {{0, 0, 0xB, 0x00}}}, 8 * 6 + 1},
        {"F00 stops the song", {{{37, 1}, {0, 0, 0xF, 0}}}, 7},
    };
    for (const flow_case &c : cases) {
        SCOPED_TRACE(c.what);
        song s;
        s.tracks = {{}};
        for (size_t i = 0; i < c.tracks.size(); i++) {
            s.tracks.push_back(c.tracks[i]);
            s.positions.push_back({uint8_t(i + 1), 0, 0, 0});
        }
        s.ins = {sq};
        engine_ptr k = open_song(build(s));
        run_ticks(k.get(), c.end_tick);
        EXPECT_FALSE(kelva_song_ended(k.get()));
        run_ticks(k.get(), 1);
        EXPECT_TRUE(kelva_song_ended(k.get()));
        EXPECT_EQ(k->song_end_frame, uint64_t(c.end_tick) * 960);
    }
}

TEST_F(Ahx, SubsongsStartAtTheirPositions) {
    song s;
    s.tracks = {{}, {{37, 1}}, {{25, 1}}, {{49, 1}}};
    s.positions = {{1}, {2}, {3}};
    s.subsongs = {2, 1};
    s.ins = {tone(kSquare)};
    const uint16_t first_period[] = {428, 214, 856};   // main song from position 0, then 2 and 1
    for (int sub = 1; sub <= 3; sub++) {
        SCOPED_TRACE(sub);
        engine_ptr k = open_song(build(s), "AHX", sub);
        EXPECT_EQ(kelva_get_subsong_count(k.get()), 3);
        run_ticks(k.get(), 1);
        EXPECT_EQ(k->aud[0].per, first_period[sub - 1]);
    }
}

TEST_F(Ahx, SpeedMultiplierTicksFasterThanTheVerticalBlank) {
    song s = one_track({{37, 1}}, {tone(kSquare)});
    s.speed_mult = 2;   // 100 ticks a second: 8 rows x 6 ticks in 0.48 s
    engine_ptr k = open_song(build(s));
    std::vector<float> pcm(2 * 480);
    for (int i = 0; i < 48 && !kelva_song_ended(k.get()); i++) kelva_render(k.get(), pcm.data(), 480);
    EXPECT_FALSE(kelva_song_ended(k.get()));
    kelva_render(k.get(), pcm.data(), 480);
    EXPECT_TRUE(kelva_song_ended(k.get()));
    EXPECT_EQ(k->song_end_frame, 48u * 480);
}

// ---- HivelyTracker -----------------------------------------------------------

// Six voices: mixed at period 165 into buffers of 430 bytes (one tick),
// each voice at a quarter of a channel's level (4 voices of the pair 0/1 ->
// shift 8). Voice 0 plays a square (127 / -128 -> 31 / -32) on channel 0;
// a pan to the right moves it to channel 1; ring modulation by a triangle
// makes its level follow the triangle's.
TEST_F(Ahx, HivelyMixesMoreVoicesIntoThePaulaChannels) {
    struct mix_case {
        const char *what;
        plist_entry entry;
        step first;
        int channel;
        std::vector<int> values;   // the distinct bytes Paula plays
    };
    const mix_case cases[] = {
        {"square on the left", {kSquare, 0, 0, 3, 0x20}, {37, 1}, 0, {-32, 31}},
        {"7xx pans it right", {kSquare, 0, 0, 3, 0x20}, {37, 1, 0x7, 0x7F}, 1, {-32, 31}},
        {"9xx in the playlist pans it right", {kSquare, 0, 0, 9, 0x60, 3, 0x20}, {37, 1}, 1, {-32, 31}},
    };
    for (const mix_case &c : cases) {
        SCOPED_TRACE(c.what);
        song s = one_track({c.first}, {with_plist({c.entry})});
        s.hvl = true;
        s.channels = 6;
        s.positions = {{1, 0, 0, 0, 0, 0}};
        engine_ptr k = open_song(build(s), "HivelyTracker");
        run_ticks(k.get(), 2);
        for (int x = 0; x < 4; x++) {
            EXPECT_EQ(k->aud[x].per, 165);
            EXPECT_EQ(k->aud[x].vol, 64);
            EXPECT_EQ(k->aud[x].len, 215);
        }
        const int8_t *b = reinterpret_cast<const int8_t *>(k->ch[c.channel].data);
        std::vector<int> seen;
        for (int i = 0; i < 430; i++)
            if (std::find(seen.begin(), seen.end(), b[i]) == seen.end()) seen.push_back(b[i]);
        std::sort(seen.begin(), seen.end());
        EXPECT_EQ(seen, c.values);
        const int8_t *other = reinterpret_cast<const int8_t *>(k->ch[c.channel ^ 1].data);
        EXPECT_EQ(std::count(other, other + 430, 0), 430);
    }
}

TEST_F(Ahx, HivelyRingModulation) {
    // 7: ring-modulate with a triangle at fixed note 49 (period 214): each
    // sample is the square's x the triangle's / 128, so the level follows
    // the triangle and crosses zero where it does.
    song s = one_track({{37, 1}}, {with_plist({{kSquare, 0, 0, 7, 49}})});
    s.hvl = true;   // four voices, but ring modulation needs the mix
    engine_ptr k = open_song(build(s), "HivelyTracker");
    run_ticks(k.get(), 2);
    EXPECT_EQ(k->aud[0].per, 165);
    const int8_t *b = reinterpret_cast<const int8_t *>(k->ch[0].data);
    int small = 0, large = 0;
    for (int i = 0; i < 430; i++) {
        small += std::abs(b[i]) <= 8;
        large += std::abs(b[i]) >= 56;
    }
    EXPECT_GT(small, 20);   // the triangle near zero (2 voices in the pair: half level, peaks at 63)
    EXPECT_GT(large, 20);
}

TEST_F(Ahx, HivelyFourVoicesPlayOnPaulaDirectly) {
    song s = one_track({{37, 1}}, {tone(kSquare)});
    s.hvl = true;
    engine_ptr k = open_song(build(s), "HivelyTracker");
    run_ticks(k.get(), 1);
    EXPECT_EQ(k->aud[0].per, 428);
    EXPECT_EQ(looped(k), repeat(square(32, 16), 128));
}

// ---- Robustness ---------------------------------------------------------------

TEST_F(Ahx, RefusesWhatDoesNotFitTheFile) {
    std::vector<uint8_t> good = build(one_track({{37, 1}}, {tone(kSquare)}));
    song h = one_track({{37, 1}}, {tone(kSquare)});
    h.hvl = true;
    std::vector<uint8_t> good_hvl = build(h);
    auto patched = [](std::vector<uint8_t> m, size_t at, uint8_t v) {
        m[at] = v;
        return m;
    };
    struct bad_case {
        const char *what;
        std::vector<uint8_t> mod;
    };
    const bad_case cases[] = {
        {"version 2", patched(good, 3, 2)},
        {"no positions", patched(good, 7, 0)},
        {"track length 0", patched(good, 10, 0)},
        {"track length 65", patched(good, 10, 65)},
        {"more tracks than the file holds", patched(good, 11, 40)},
        {"a playlist past the end", std::vector<uint8_t>(good.begin(), good.end() - 14)},
        {"cut in the header", std::vector<uint8_t>(good.begin(), good.begin() + 12)},
        {"HVL with 17 channels", patched(good_hvl, 8, 13 << 2)},
        {"HVL cut in its tracks", std::vector<uint8_t>(good_hvl.begin(), good_hvl.begin() + 30)},
    };
    kelva_global_init();
    std::vector<uint8_t> p = read_bytes(player_path("AHX"));
    for (const bad_case &c : cases) {
        SCOPED_TRACE(c.what);
        engine_ptr k = make_engine(48000);
        EXPECT_EQ(kelva_open(k.get(), p.data(), uint32_t(p.size()), c.mod.data(), uint32_t(c.mod.size()), nullptr,
                             nullptr, 0),
                  1);
    }
}

}  // namespace
