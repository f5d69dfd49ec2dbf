// kelva's AHX and HivelyTracker players on synthetic songs. A voice plays note (playlist note + track note - 1),
// or the playlist's note alone when fixed (25 = 856, 37 = 428, 49 = 214); the envelope steps by (target -
// start) x 256 / frames a tick. The first tick reads row 0; rows have 6 ticks.
#include <cmath>

#include "ptk_support.h"

using namespace ptk_test;

namespace {

struct plist_entry { uint8_t wave = 0, note = 0, fixed = 0, fx1 = 0, p1 = 0, fx2 = 0, p2 = 0; };
struct instrument {
    uint8_t wl = 3, a_frames = 1, a_vol = 64, d_frames = 0, d_vol = 64, s_frames = 0, r_frames = 0, r_vol = 64;
    uint8_t vib_depth = 0, vib_speed = 0, hc_frames = 0, hc_release = 0, sq_lower = 0, sq_upper = 0, sq_speed = 0;
    uint8_t plist_speed = 1;
    std::vector<plist_entry> plist;
};
struct step { uint8_t note = 0, ins = 0, fx = 0, p = 0; };
// Channel 0 plays track 1 at position 0.
struct song {
    bool hvl = false;
    uint8_t channels = 4, speed_mult = 1, rows = 8;
    int sub = 0;                                             // the subsong to open
    std::vector<std::vector<uint8_t>> positions = {{1}};     // a track per channel (transpose 0)
    std::vector<uint16_t> subsongs = {};
    std::vector<std::vector<step>> tracks = {{}, {}};        // track 0 stays empty
    std::vector<instrument> ins = {};                        // instrument n at ins[n - 1]
    std::vector<std::pair<size_t, uint8_t>> patch = {};      // bytes changed after building
    int cut = 0;                                             // > 0: keep that many bytes, < 0: drop that many
};

uint8_t ahx_fx(uint8_t fx) { return fx == 12 ? 6 : fx == 15 ? 7 : fx; }   // AHX's codes of 12 and 15

std::vector<uint8_t> build(const song &s) {
    std::vector<uint8_t> m = {uint8_t(s.hvl ? 'H' : 'T'), uint8_t(s.hvl ? 'V' : 'H'), uint8_t(s.hvl ? 'L' : 'X'),
                              1, 0, 0, uint8_t((s.speed_mult - 1) << 5), uint8_t(s.positions.size()),
                              uint8_t(s.hvl ? (s.channels - 4) << 2 : 0), 0, s.rows, uint8_t(s.tracks.size() - 1),
                              uint8_t(s.ins.size()), uint8_t(s.subsongs.size())};
    if (s.hvl) m.insert(m.end(), {100, 4});   // mixing gain, stereo layout
    for (uint16_t p : s.subsongs) m.insert(m.end(), {uint8_t(p >> 8), uint8_t(p)});
    for (const auto &pos : s.positions)
        for (size_t c = 0; c < s.channels; c++) m.insert(m.end(), {c < pos.size() ? pos[c] : uint8_t(0), 0});
    for (const auto &t : s.tracks)
        for (size_t r = 0; r < s.rows; r++) {
            step x = r < t.size() ? t[r] : step{};
            if (s.hvl) m.insert(m.end(), {x.note, x.ins, uint8_t(x.fx << 4), x.p, 0});
            else m.insert(m.end(), {uint8_t(x.note << 2 | x.ins >> 4), uint8_t((x.ins & 15) << 4 | x.fx), x.p});
        }
    for (const instrument &i : s.ins) {
        m.insert(m.end(), {64, i.wl, i.a_frames, i.a_vol, i.d_frames, i.d_vol, i.s_frames, i.r_frames, i.r_vol, 0,
                           0, 0, 0, 0, uint8_t(i.hc_release << 7 | i.hc_frames << 4 | i.vib_depth), i.vib_speed,
                           i.sq_lower, i.sq_upper, i.sq_speed, 0, i.plist_speed, uint8_t(i.plist.size())});
        for (const plist_entry &e : i.plist)
            if (s.hvl)
                m.insert(m.end(), {e.fx1, uint8_t(e.fx2 << 3 | e.wave), uint8_t(e.fixed << 6 | e.note), e.p1, e.p2});
            else m.insert(m.end(), {uint8_t(ahx_fx(e.fx2) << 5 | ahx_fx(e.fx1) << 2 | e.wave >> 1),
                                    uint8_t((e.wave & 1) << 7 | e.fixed << 6 | e.note), e.p1, e.p2});
    }
    m[4] = uint8_t(m.size() >> 8), m[5] = uint8_t(m.size());   // the names: the title, no instrument names
    m.insert(m.end(), {'s', 'y', 'n', 't', 'h', 0});
    for (const auto &[at, v] : s.patch) m[at] = v;
    m.resize(s.cut > 0 ? size_t(s.cut) : m.size() - size_t(-s.cut));
    return m;
}

constexpr uint8_t kTriangle = 1, kSawtooth = 2, kSquare = 3, kNoise = 4;

instrument with_plist(std::vector<plist_entry> p, uint8_t speed = 1) { return {.plist_speed = speed, .plist = p}; }
// `wave` at once, full volume, the track's note; a square's width from `w`.
instrument tone(uint8_t wave, uint8_t wl = 3, uint8_t w = 0x20) { return {.wl = wl, .plist = {{wave, 1, 0, 3, w}}}; }

// A square of `len` bytes: low, then `high` bytes high.
std::vector<int8_t> square(size_t len, size_t high) {
    std::vector<int8_t> w(len, -128);
    std::fill(w.end() - long(high), w.end(), 127);
    return w;
}

// 'p' period, 'v' volume, 'w' bytes at 127 in the looped block, 'f' 1 when its bytes step by less than 64,
// 'r' 1 when its RMS is below 0.8 x 127.5, 'F' the song's end (its frame, in ticks), 'c' subsongs; of the mixed
// blocks (430 bytes) of HVL songs: 'm' (min + 128) x 256 + max + 128 of channel 0, 'M' of channel 1, 'z' zero
// bytes of channel 0, 'Z' of 1.
int observe(kelva *k, char what) {
    std::vector<int8_t> b = mixed(k, 0);
    const int8_t *x = reinterpret_cast<const int8_t *>(k->ch[what == 'M' || what == 'Z'].data);
    double rms = 0;
    int step = 0;
    for (size_t i = 0; i < b.size(); i++)
        rms += b[i] * b[i] / double(b.size()), step = std::max(step, i ? std::abs(b[i] - b[i - 1]) : 0);
    switch (what) {
    case 'p': case 'v': return int(trk::observe(k, 0, what, 0));
    case 'w': return int(std::count(b.begin(), b.end(), 127));
    case 'f': return step < 64;
    case 'r': return std::sqrt(rms) < 0.8 * 127.5;
    case 'F': return k->song_end_frame % 960 ? -1 : int(k->song_end_frame / 960);
    case 'c': return int(kelva_get_subsong_count(k));
    case 'm': case 'M': return (*std::min_element(x, x + 430) + 128) * 256 + *std::max_element(x, x + 430) + 128;
    case 'z': case 'Z': return int(std::count(x, x + 430, 0));
    }
    return -1;
}

// Channel 0 plays `steps` with instrument 1 `ins`, changed by `setup`; `obs`: what each expected value looks at
// ("!": refused).
struct ahx_case {
    const char *what;
    instrument ins;
    std::vector<step> steps;
    const char *obs;
    trace expect;
    void (*setup)(song &) = nullptr;
};

void run(const std::vector<ahx_case> &cases) {
    for (const ahx_case &c : cases) {
        SCOPED_TRACE(c.what);
        song s{.tracks = {{}, c.steps}, .ins = {c.ins}};
        if (c.setup) c.setup(s);
        engine_ptr k = open_player(s.hvl ? "HivelyTracker" : "AHX", build(s), nullptr, s.sub);
        expect_trace(k.get(), c.obs, c.expect, [&](char what) { return observe(k.get(), what); });
    }
}
#define SET(...) [](song &s) { __VA_ARGS__; }

// Positions 0-2 play C-2, C-3, C-1; subsongs start at positions 2 and 1.
void subsongs(song &s) {
    s.tracks = {{}, {{37, 1}}, {{49, 1}}, {{25, 1}}}, s.positions = {{1}, {3}, {2}}, s.subsongs = {2, 1};
}
void six_voices(song &s) { s.hvl = true, s.channels = 6; }

PTK_FIXTURE(Ahx, "AHX", "HivelyTracker");

}  // namespace

TEST_F(Ahx, WaveformsAreGeneratedByTheirRules) {
    const struct {
        const char *what;
        uint8_t wave, wl, width;
        std::vector<int8_t> period;   // one period of the wave
    } cases[] = {
        // A quarter rises from 0 in steps of 128 / (len / 4) to 127; the second half negates the first, 127
        // becoming -128.
        {"triangle 4", kTriangle, 0, 0, {0, 127, 0, -128}},
        {"triangle 8", kTriangle, 1, 0, {0, 64, 127, 64, 0, -64, -128, -64}},
        // From -128 in steps of 256 / (len - 1).
        {"sawtooth 4", kSawtooth, 0, 0, {-128, -43, 42, 127}},
        {"sawtooth 16", kSawtooth, 2, 0, {-128, -111, -94, -77, -60, -43, -26, -9, 8, 25, 42, 59, 76, 93, 110, 127}},
        // Width w of 64 (the parameter >> (5 - wl) << (5 - wl)): 2w of 128 bytes high, every (32 >> wl)th byte.
        {"square 128, half", kSquare, 5, 0x20, square(128, 64)},
        {"square 128, quarter", kSquare, 5, 0x10, square(128, 32)},
        {"square 32, half", kSquare, 3, 0x20, square(32, 16)},
        {"square 32, width above 32 mirrors", kSquare, 3, 0x30, square(32, 8)},
    };
    for (const auto &c : cases)
        for (bool hvl : {false, true}) {   // HVL with four voices plays on Paula directly
            SCOPED_TRACE(std::string(c.what) + (hvl ? " HVL" : ""));
            const song s{.hvl = hvl, .tracks = {{}, {{37, 1}}}, .ins = {tone(c.wave, c.wl, c.width)}};
            engine_ptr k = open_player(hvl ? "HivelyTracker" : "AHX", build(s));
            ASSERT_TRUE(k);
            trk::expect_probes(k.get(), "@1 p0=428 v0=64 d0=1");
            std::vector<int8_t> want(128);   // the period repeated
            for (size_t i = 0; i < 128; i++) want[i] = c.period[i % c.period.size()];
            EXPECT_EQ(mixed(k.get(), 0), want);
        }
    // Noise: a new stretch of 0x280 bytes of the table (3 x 0x280) every tick, bit 8 of the generator giving 127.
    engine_ptr k = open_player("AHX", build({.tracks = {{}, {{37, 1}}}, .ins = {tone(kNoise)}}));
    ASSERT_TRUE(k);
    for (uint32_t t = 0, first = 0, last = 0; t < 4; t++, last = k->aud[0].lc) {
        run_ticks(k.get(), 1);
        first = t ? first : k->aud[0].lc;
        EXPECT_EQ(k->aud[0].len, 0x140);
        EXPECT_TRUE(t == 0 || k->aud[0].lc != last);
        EXPECT_LT(std::abs(int32_t(k->aud[0].lc - first)), 0x500);
    }
    EXPECT_GT(observe(k.get(), 'w'), 0x280 / 4);
}

TEST_F(Ahx, EnvelopePlaylistTrackCommandsAndRefusals) {
    const std::vector<plist_entry> sq = {{kSquare, 1, 0, 3, 0x20}};
    const instrument adsr{.a_frames = 4, .d_frames = 4, .d_vol = 32, .s_frames = 4, .r_frames = 4, .r_vol = 0,
                          .plist = sq};
    const instrument hard{.s_frames = 255, .r_frames = 8, .r_vol = 0, .hc_frames = 2, .hc_release = 1, .plist = sq};
    // Square widths 2..6 at wave length 3; a vibrato of sine x 4 / 128: 0, +7, 0, -8.
    const instrument sweep{.sq_lower = 8, .sq_upper = 0x18, .sq_speed = 1, .plist = {{kSquare, 0, 0, 3, 0x10, 4, 1}}};
    const instrument vib{.vib_depth = 4, .vib_speed = 16, .plist = sq}, tsq = tone(kSquare);
    const int kSquareMix = (-32 + 128) * 256 + 31 + 128;
    run({
        // +4096 (16 volume steps) a tick to 64, -2048 to 32, hold, -2048 to 0.
        {"attack, decay, sustain, release", adsr, {{37, 1}}, "v",
         series({16, 32, 48, 64, 56, 48, 40, 32, 32, 32, 32, 32, 24, 16, 8, 0, 0})},
        {"hard cut: a release over 2 ticks before the next note", hard, {{37, 1}, {37, 1}}, "v",
         series({64, 64, 64, 64, 32, 0, 64})},
        // Notes relative to the track's (entry 13: an octave above 25) or fixed (49).
        {"relative and fixed notes, speed 2", with_plist({{kSquare, 13}, {0, 49, 1}, {0, 1}}, 2), {{25, 1}}, "p",
         series({428, 428, 214, 214, 856})},
        // A slide goes on while the ended playlist still waits (speed 4).
        {"1: slide up by 8 a tick", with_plist({{kSquare, 1, 0, 1, 8}}, 4), {{37, 1}}, "p",
         series({420, 412, 404, 396, 388, 388})},
        {"2: slide down by 8 a tick", with_plist({{kSquare, 1, 0, 2, 8}}, 4), {{37, 1}}, "p", series({436, 444, 452})},
        {"5: jump back to entry 0", with_plist({{kSquare, 37, 1}, {0, 49, 1, 5, 0}}), {{37, 1}}, "p",
         series({428, 214, 428, 214})},
        {"12: note volume; 15: speed", with_plist({{kSquare, 0, 0, 12, 0x20, 15, 3}, {0, 0, 0, 12, 0x10}}), {{37, 1}},
         "v", series({32, 32, 32, 16})},
        {"12: playlist volume 50-90", with_plist({{kSquare, 0, 0, 12, 0x70}}), {{37, 1}}, "v", {{0, 32}}},
        // Width from the parameter >> 2 at wave length 3 (4: 8 of 32 bytes high, 32 of the looped 128), then 4
        // starts the modulation: one step a tick, turning at the limits 2 and 6.
        {"3 and 4: square width and its modulation", sweep, {{37, 1}}, "w", series({40, 48, 40, 32, 24, 16, 24})},
        // 0: filter position 1 (the lowest low-pass) smooths the square's edges (a step of 255 plain); 63 (the
        // highest high-pass) leaves mostly the edges (RMS 127.5 plain).
        {"0: low-pass", with_plist({{kSquare, 1, 0, 0, 1, 3, 0x20}}), {{37, 1}}, "f", {{0, 1}}},
        {"0: high-pass", with_plist({{kSquare, 1, 0, 0, 63, 3, 0x20}}), {{37, 1}}, "r", {{0, 1}}},
        {"1xx portamento up from tick 0", tsq, {{37, 1, 0x1, 5}}, "p", series({423, 418, 413})},
        {"2xx portamento down", tsq, {{37, 1, 0x2, 5}}, "p", series({433, 438})},
        // From 428 towards 856 by 0x40 a tick; 300 goes on at the same speed and stops on the note.
        {"3xx tone portamento", tsq, {{37, 1}, {25, 0, 0x3, 0x40}, {0, 0, 0x3, 0}}, "p",
         {{5, 428}, {6, 492}, {7, 556}, {11, 812}, {12, 856}, {13, 856}}},
        {"Cxx volume", tsq, {{37, 1, 0xC, 0x20}}, "v", {{0, 32}}},
        {"Axy volume slide down", tsq, {{37, 1, 0xA, 0x04}}, "v", series({60, 56, 52})},
        {"E1x fine slide, once", tsq, {{37, 1, 0xE, 0x13}}, "p", series({425, 425})},
        {"EBx fine volume down", tsq, {{37, 1, 0xE, 0xB8}}, "v", series({56, 56})},
        {"ECx note cut after 2 ticks", tsq, {{37, 1, 0xE, 0xC2}}, "v", series({64, 64, 0, 0})},
        {"EDx note delay by 2 ticks", tsq, {{37, 1}, {25, 1, 0xE, 0xD2}}, "p", {{7, 428}, {8, 856}}},
        {"vibrato", vib, {{37, 1}}, "p", series({428, 435, 428, 420, 428})},
        // The song's end, reported by the tick after it, at the length (in ticks).
        {"two positions of 8 rows at speed 6", tsq, {{37, 1}}, "F", {{96, 96}}, SET(s.positions = {{1}, {0}})},
        {"F03: speed 3", tsq, {{37, 1, 0xF, 3}}, "F", {{48, 48}}, SET(s.positions = {{1}, {0}})},
        {"D04: row 4 of the next position", tsq, {{37, 1, 0xD, 4}}, "F", {{30, 30}}, SET(s.positions = {{1}, {0}})},
        {"B00 on position 1 jumps back: the end", tsq, {{37, 1}}, "F", {{49, 49}},
         SET(s.positions = {{1}, {2}}, s.tracks.push_back({{0, 0, 0xB, 0}}))},
        {"B01 on position 1 jumps to itself: the end", tsq, {{37, 1}}, "F", {{49, 49}},
         SET(s.positions = {{1}, {2}}, s.tracks.push_back({{0, 0, 0xB, 1}}))},
        {"F00 stops the song", tsq, {{37, 1}, {0, 0, 0xF, 0}}, "F", {{7, 7}}},
        // 100 ticks a second: 8 rows x 6 ticks end after 0.48 s (24 ticks of 50 Hz).
        {"speed multiplier 2", tsq, {{37, 1}}, "F", {{24, 24}}, SET(s.speed_mult = 2)},
        // Subsongs start at their positions: the main song at position 0.
        {"subsong 2 starts at position 2", tsq, {}, "pc", {{0, 214}, {0, 3}}, SET(s.sub = 2, subsongs(s))},
        {"subsong 3 at position 1", tsq, {}, "p", {{0, 856}}, SET(s.sub = 3, subsongs(s))},
        {"the main song", tsq, {}, "p", {{0, 428}}, SET(s.sub = 1, subsongs(s))},
        {"64 rows, the most", tsq, {{37, 1}}, "c", {{-1, 1}}, SET(s.rows = 64)},
        {"HVL: 16 channels, the most", tsq, {{37, 1}}, "c", {{-1, 1}}, SET(s.hvl = true, s.channels = 16)},
        // Six voices: mixed at period 165 into 430-byte blocks, each voice at a quarter of a channel's level (4
        // voices in the pair 0/1: shift 8): voice 0's square (127 / -128 -> 31 / -32) on channel 0, panned right on 1.
        {"square on the left", tsq, {{37, 1}}, "mZp", {{1, kSquareMix}, {1, 430}, {1, 165}}, six_voices},
        {"7xx pans it right", tsq, {{37, 1, 7, 0x7F}}, "Mz", {{1, kSquareMix}, {1, 430}}, six_voices},
        {"9xx in the playlist pans it right", with_plist({{kSquare, 1, 0, 9, 0x60, 3, 0x20}}), {{37, 1}}, "Mz",
         {{1, kSquareMix}, {1, 430}}, six_voices},
        {"refused: version 2", tsq, {{37, 1}}, "!", {}, SET(s.patch = {{3, 2}})},
        {"refused: no positions", tsq, {{37, 1}}, "!", {}, SET(s.patch = {{7, 0}})},
        {"refused: track length 0", tsq, {{37, 1}}, "!", {}, SET(s.patch = {{10, 0}})},
        {"refused: track length 65", tsq, {{37, 1}}, "!", {}, SET(s.rows = 65)},
        {"refused: more tracks than the file holds", tsq, {{37, 1}}, "!", {}, SET(s.patch = {{11, 40}})},
        {"refused: a playlist past the end", tsq, {{37, 1}}, "!", {}, SET(s.cut = -10)},
        {"refused: cut in the header", tsq, {{37, 1}}, "!", {}, SET(s.cut = 12)},
        {"refused: HVL with 17 channels", tsq, {{37, 1}}, "!", {}, SET(s.hvl = true, s.channels = 17)},
        {"refused: HVL cut in its tracks", tsq, {{37, 1}}, "!", {}, SET(s.hvl = true, s.cut = 30)},
    });
}

// Ring modulation by a triangle at fixed note 49, mixed: the square's byte x the triangle's / 128 (peaks 63).
TEST_F(Ahx, HivelyRingModulation) {
    const instrument ring = with_plist({{kSquare, 0, 0, 7, 49}});
    engine_ptr k = open_player("HivelyTracker", build({.hvl = true, .tracks = {{}, {{37, 1}}}, .ins = {ring}}));
    ASSERT_TRUE(k);
    trk::expect_probes(k.get(), "@2 p0=165 v0=64 l0=215 p1=165 v1=64 l1=215 p2=165 v2=64 l2=215 p3=165 v3=64 l3=215");
    const int8_t *b = reinterpret_cast<const int8_t *>(k->ch[0].data);
    EXPECT_GT(std::count_if(b, b + 430, [](int8_t v) { return std::abs(v) <= 8; }), 20);   // near the zeros
    EXPECT_GT(std::count_if(b, b + 430, [](int8_t v) { return std::abs(v) >= 56; }), 20);  // and the peaks
}
