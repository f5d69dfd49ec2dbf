// kelva's SoundFX, GMC, IMS, PolyTracker, Oktalyzer and DIGI Booster players on synthetic modules. After tick
// 1 + r x speed + t a player has just done tick t of row r.
#include <array>
#include <cmath>

#include "ptk_support.h"

using namespace trk;

namespace {

bytes put(bytes m, size_t at, std::initializer_list<uint8_t> v) { return std::copy(v.begin(), v.end(), &m[at]), m; }
bytes cut(bytes m, size_t size) { return m.resize(size), m; }
bytes set32(bytes m, size_t at, uint32_t v) { return be32(m, at, v), m; }

// SoundFX 1.3 ("SONG", 15 samples) or 2.0 ("SO31", 31), one pattern: sample 1 = 4000 bytes, volume 40, no
// loop; 2 = 200 bytes, volume 64, looping from byte 100 for 50 words; 17 (2.0) = 2000 bytes, volume 30.
bytes sfx(const std::vector<cell> &cells, uint16_t delay = 14187, bool v20 = false) {
    const size_t n = v20 ? 31 : 15, infos = 4 * n + 20, pattern = infos + 30 * n + 130 + (v20 ? 4 : 0);
    bytes m(pattern + 1024 + 6200, 0);
    be32(m, 0, 4000), be32(m, 4, 200), be32(m, 64, v20 ? 2000 : 0), be16(m, 4 * n + 4, delay);
    memcpy(&m[4 * n], v20 ? "SO31" : "SONG", 4);
    const uint16_t info[12] = {2000, 40, 0, 1, 100, 64, 100, 50, 1000, 30, 0, 1};
    for (int i = 0; i < 12; i++) be16(m, infos + 30 * (i < 8 ? i / 4 : 16) + 22 + 2 * (i % 4), info[i]);
    m[infos + 30 * n] = 1;   // song length
    for (const cell &c : cells) put_cell(m, pattern + size_t(c.row * 16 + c.ch * 4), c);
    return m;
}
constexpr uint32_t kSfxData = kModule + 80 + 450 + 130 + 1024, kSfx20Data = kModule + 144 + 930 + 134 + 1024;

// Game Music Creator: positions 0, 1 = patterns 0, 1; sample 1 = 2000 bytes, volume 40, its loop 1000 bytes
// in for 200 words; 2 = 100 bytes, volume 64, a loop of two words (none).
bytes gmc(const std::vector<cell> &cells) {
    bytes m(444 + 2048 + 2100, 0);
    be32(m, 0, 0x30000), be16(m, 4, 1000), be16(m, 6, 40), be32(m, 8, 0x30000 + 1000), be16(m, 12, 200);
    be32(m, 16, 0x40000), be16(m, 20, 50), be16(m, 22, 64), be16(m, 28, 2), be32(m, 240, 2), be16(m, 246, 1024);
    for (const cell &c : cells) put_cell(m, 444 + size_t(c.pat * 1024 + c.row * 16 + c.ch * 4), c);
    return m;
}

// Images Music System: two stored patterns of 3-byte cells, the song plays 1 then 0; sample 1 = 400 bytes,
// volume 48, looping from word 100 for 50.
constexpr uint32_t kImsSamples = 1084 + 2 * 768;
bytes ims(const std::vector<cell> &cells) {
    bytes m(kImsSamples + 400, 0);
    memcpy(&m[0], "ims test", 8);
    be16(m, 42, 200), m[45] = 48, be16(m, 46, 100), be16(m, 48, 50), be32(m, 1080, kImsSamples), m[950] = 2, m[952] = 1;
    for (const cell &c : cells) {
        size_t at = 1084 + size_t(c.pat * 768 + c.row * 12 + c.ch * 3);
        m[at] = uint8_t(c.note | (c.smp & 0x10) << 2), m[at + 1] = uint8_t((c.smp & 15) << 4 | c.fx);
        m[at + 2] = c.param;
    }
    return m;
}

// An Oktalyzer (loop in words), DIGI Booster (in bytes) or PolyTracker (looping whole, at `rate` for C-4) sample.
struct tsample {
    std::vector<int8_t> data;
    uint16_t mode = 2;   // 0: split channels only, 1: own channels only, 2: both
    uint8_t volume = 64;
    uint32_t loop_start = 0, loop_len = 0;
    uint16_t rate = 8363;
};

// PolyTracker: channels at their pans, instruments, orders, packed patterns.
tsample level(int8_t v, uint8_t volume = 64) { return {std::vector<int8_t>(64, v), 2, volume}; }
bytes ptm(const bytes &pans, const std::vector<tsample> &ins, const bytes &orders, int patterns,
          const std::vector<cell> &cells) {
    bytes m(608 + 80 * ins.size(), 0);
    memcpy(&m[0], "ptm test", 8), memcpy(&m[44], "PTMF", 4), m[28] = 0x1A;
    le16(m, 32, uint16_t(orders.size())), le16(m, 34, uint16_t(ins.size()));
    le16(m, 36, uint16_t(patterns)), le16(m, 38, uint16_t(pans.size()));
    std::copy(pans.begin(), pans.end(), &m[64]);
    for (size_t i = 0; i < 256; i++) m[96 + i] = i < orders.size() ? orders[i] : 255;
    for (int p = 0; p < patterns; p++) {
        m.resize((m.size() + 15) & ~size_t(15)), le16(m, 352 + 2 * size_t(p), uint16_t(m.size() / 16));
        for (int r = 0; r < 64; r++, m.push_back(0))
            for (const cell &c : cells) {
                if (c.pat != p || c.row != r) continue;
                uint8_t f = uint8_t(c.ch | (c.note || c.smp ? 0x20 : 0) | (c.fx || c.param ? 0x40 : 0));
                m.push_back(f |= c.vol >= 0 ? 0x80 : 0);
                if (f & 0x20) m.insert(m.end(), {c.note ? uint8_t(c.note) : uint8_t(255), c.smp});
                if (f & 0x40) m.insert(m.end(), {c.fx, c.param});
                if (f & 0x80) m.push_back(uint8_t(c.vol));
            }
    }
    for (size_t i = 0, h = 608; i < ins.size(); i++, h += 80) {
        m[h] = 1 | 4, m[h + 13] = ins[i].volume;   // a looping sample
        le16(m, h + 14, ins[i].rate), le32(m, h + 18, uint32_t(m.size()));
        le32(m, h + 22, uint32_t(ins[i].data.size())), le32(m, h + 30, uint32_t(ins[i].data.size()));
        for (size_t j = 0; j < ins[i].data.size(); j++)
            m.push_back(uint8_t(ins[i].data[j] - (j ? ins[i].data[j - 1] : 0)));
    }
    return m;
}

// Oktalyzer: CMOD flags (a split channel pair each), samples, orders, one pattern of `rows` rows; speed 6.
tsample okt_level(int8_t v, uint16_t mode, uint8_t volume = 64, size_t n = 16384) {
    return {std::vector<int8_t>(n, v), mode, volume};
}
bytes okt(const std::array<uint16_t, 4> &cmod, const std::vector<tsample> &samples, const bytes &orders,
          const std::vector<cell> &cells, int rows = 64, const char *magic = "OKTASONG") {
    size_t channels = 4 + size_t(std::count_if(cmod.begin(), cmod.end(), [](uint16_t f) { return f != 0; })), at;
    bytes m(magic, magic + 8);
    auto chunk = [&m](const char *id, size_t len) {
        size_t o = m.size();
        m.resize(o + 8 + len, 0);
        memcpy(&m[o], id, 4);
        be32(m, o + 4, uint32_t(len));
        return o + 8;
    };
    at = chunk("CMOD", 8);
    for (int i = 0; i < 4; i++) be16(m, at + 2 * i, cmod[i]);
    at = chunk("SAMP", 36 * 32);
    for (const tsample &s : samples) {
        be32(m, at + 20, uint32_t(s.data.size())), be16(m, at + 24, uint16_t(s.loop_start));
        be16(m, at + 26, uint16_t(s.loop_len)), m[at + 29] = s.volume, be16(m, at + 30, s.mode), at += 32;
    }
    be16(m, chunk("SPEE", 2), 6), be16(m, chunk("SLEN", 2), 1), be16(m, chunk("PLEN", 2), uint16_t(orders.size()));
    std::copy(orders.begin(), orders.end(), &m[chunk("PATT", 128)]);
    at = chunk("PBOD", 2 + size_t(rows) * channels * 4);
    be16(m, at, uint16_t(rows));
    for (const cell &c : cells) {
        uint8_t *x = &m[at + 2 + (size_t(c.row) * channels + size_t(c.ch)) * 4];
        x[0] = uint8_t(c.note), x[1] = c.smp, x[2] = c.fx, x[3] = c.param;
    }
    for (const tsample &s : samples) memcpy(&m[chunk("SBOD", s.data.size())], s.data.data(), s.data.size());
    return m;
}

// DIGI Booster (packed): samples at volume 64, patterns.
tsample digi_level(int8_t v, size_t n = 4096) { return {std::vector<int8_t>(n, v), 2, 64, 0, uint32_t(n)}; }
bytes digi(int channels, const std::vector<tsample> &samples, const bytes &orders, int patterns,
           const std::vector<cell> &cells) {
    bytes m(1572, 0);
    memcpy(&m[0], "DIGI Booster module\0V1.6", 24);
    m[24] = 0x16, m[25] = uint8_t(channels), m[26] = 1, m[46] = uint8_t(patterns - 1);
    m[47] = uint8_t(orders.size() - 1);
    std::copy(orders.begin(), orders.end(), &m[48]);
    for (size_t i = 0; i < samples.size(); i++) {
        be32(m, 176 + 4 * i, uint32_t(samples[i].data.size())), be32(m, 300 + 4 * i, samples[i].loop_start);
        be32(m, 424 + 4 * i, samples[i].loop_len), m[548 + i] = 64;
    }
    for (int p = 0; p < patterns; p++) {
        bytes masks(64, 0), body;
        for (int r = 0; r < 64; r++)
            for (int ch = 0; ch < 8; ch++)
                for (const cell &x : cells)
                    if (x.pat == p && x.row == r && x.ch == ch) {
                        masks[size_t(r)] |= uint8_t(0x80 >> ch);
                        body.resize(body.size() + 4);
                        put_cell(body, body.size() - 4, x);
                    }
        m.insert(m.end(), {uint8_t((64 + body.size()) >> 8), uint8_t(64 + body.size())});
        m.insert(m.end(), masks.begin(), masks.end());
        m.insert(m.end(), body.begin(), body.end());
    }
    for (const tsample &s : samples) m.insert(m.end(), s.data.begin(), s.data.end());
    return m;
}

PTK_FIXTURE(Trackers, "SoundFX", "GameMusicCreator", "ImagesMusicSystem", "PolyTracker", "Oktalyzer",
            "DIGIBooster");

}  // namespace

TEST_F(Trackers, NotesEffectsTemposMixesAndDamage) {
    tsample rel{ramp(1000), 2, 64, 100, 100};   // words 100-199 loop
    const bytes own =
        okt({0, 0, 0, 0}, {rel, okt_level(30, 0)}, {0}, {{0, 0, 0, 13, 0}, {0, 0, 1, 13, 1}, {0, 1, 0, 0, 0, 27}});
    const uint32_t own_data = kModule + uint32_t(own.size() - 16384 - 8 - 1000);
    const std::vector<cell> jump = {{0, 0, 0, 13, 0, 28, 0x13}, {0, 1, 1, 0, 0, 25, 0x10}};
    auto d = [](bytes orders, std::vector<cell> cells) {   // speed 1 (F01 on row 0): a row is a tick of 20 ms
        cells.push_back({0, 0, 1, 0, 0, 0xF, 1});
        return digi(2, {digi_level(50)}, orders, 2, cells);
    };
    tsample steps{std::vector<int8_t>(65536 + 8192, 0)};   // 4 KB of 100 from 4 KB and from 64 KB + 4 KB
    for (long at : {4096, 65536 + 4096}) std::fill_n(steps.data.begin() + at, 4096, int8_t(100));
    auto dl = [&steps](cell a, cell b) { return digi(2, {steps, {ramp(128)}, digi_level(100)}, {0}, 1, {a, b}); };
    tsample s = okt_level(50, 1, 40, 64);
    s.loop_len = 32;
    auto o = [&s](uint8_t fx, uint8_t param) { return okt({0, 0, 0, 0}, {s}, {0}, {{0, 0, 0, 13, 0, fx, param}}); };
    const char *const SFX = "SoundFX", *const GMC = "GameMusicCreator", *const IMS = "ImagesMusicSystem";
    const char *const PTM = "PolyTracker", *const OKT = "Oktalyzer", *const DIGI = "DIGIBooster";
    const bytes im = ims({}), pt = ptm({0, 15}, {level(50)}, {0}, 1, {{0, 0, 0, 49, 1}});
    const bytes ok = okt({0, 1, 0, 0}, {okt_level(50, 2)}, {0}, {{0, 0, 0, 13, 0}});
    const bytes dg = digi(4, {digi_level(50)}, {0, 1}, 2, {{0, 0, 0, 428, 1}});
    const tcase kCases[] = {
        // 5/6: volume up/down (to 0); STP stops; PIC does not even read the sample; BRK makes row 2 the
        // pattern's last, then the song ends.
        {"SoundFX commands", SFX,
         sfx({{0, 0, 0, 428, 1, 5, 10}, {0, 0, 1, 856, 2, 6, 80}, {0, 0, 2, 428, 2}, {0, 1, 2, 0xFFFE, 0},
              {0, 1, 0, 0xFFFD, 2}, {0, 2, 1, 0xFFFC, 0}, {0, 3, 0, 320, 0}}),
         kSfxData, "@1 p0=428 v0=50 a0=0 l0=1 v1=0 c2=4100 l2=50 @7 d2=0 v0=50 @19 p0=428 x0=1"},
        // On the ticks between rows: arpeggio 1 (+3, +7 semitones), bend 2 (+3 / -2 a tick), 7: towards two
        // semitones lower (480) by 5.
        {"SoundFX effects", SFX,
         sfx({{0, 0, 0, 428, 1, 1, 0x37}, {0, 0, 1, 428, 1, 2, 0x30}, {0, 0, 2, 428, 1, 2, 2},
              {0, 0, 3, 428, 1, 7, 0x25}}),
         kSfxData, "@2 p0=360 p3=428 @3 p0=285 p3=433 @4 p0=428 @5 p0=285 @6 p0=360 p1=443 p2=418 p3=448"},
        // Delay 28374: 709379 / 28375 = 25 Hz, 1920 frames a tick: row 1 (tick 7) after 10560 frames at the earliest.
        {"SoundFX delay", SFX, sfx({{0, 0, 0, 428, 1}, {0, 1, 0, 381, 1}}, 28374), kSfxData, "@11 p0=428 @13 p0=381"},
        // 2.0: sample bit 4 in the note word; 17's data after 1's and 2's.
        {"SoundFX 2.0", SFX, sfx({{0, 0, 0, 428, 17}, {0, 0, 1, 428, 2}}, 14187, true), kSfx20Data,
         "@1 a0=4200 v0=30 a1=4000", "SoundFX 2.0"},
        // 1 slides on every tick; the volume is set a tick after the note; loops by address; 8 speed, 4 break, 5 jump.
        {"Game Music Creator", GMC,
         gmc({{0, 0, 0, 428, 1, 1, 3}, {0, 0, 1, 428, 2, 3, 20}, {0, 1, 0, 0, 0, 8, 2}, {0, 1, 2, 856, 2, 4, 0},
              {1, 0, 3, 320, 2, 5, 0}}),
         kModule + 444 + 2048,
         "@1 p0=428 v0=0 a0=0 c0=1000 l0=200 l1=1 @2 p0=425 v0=40 v1=20 @7 p0=410 @9 p3=320 x0=0 @11 x0=1"},
        // Notes are semitones, 16 = 856; 63 is none; D10: row 16 (decimal) of the next position; A02 slides.
        {"Images Music System", IMS,
         ims({{1, 0, 0, 16, 1}, {1, 0, 1, 13, 1}, {1, 0, 2, 4, 1}, {1, 0, 3, 40, 1}, {1, 1, 0, 63, 0, 0xD, 0x10},
              {0, 16, 1, 28, 1, 0xA, 2}}),
         kModule + kImsSamples, "@1 p0=856 p1=1017 p2=1712 p3=214 a0=0 c0=200 e0=300 v0=48 @7 p0=856 @15 p1=428 v1=44"},
        // Six channels: pans 0-7 left (Paula 0 gets channels 0 and 2, Paula 3 channel 1), 8-15 right (Paula 1:
        // 3 and 5, Paula 2: 4); every channel gets the busiest Paula channel's share, each voice rounded down on
        // its own (a volume table per voice): level x heard volume >> 7. Volume 32 is heard as 42 (64 x
        // 0.5^0.6), 16 as 28; G32 on row 1 halves every volume: (127 x 64 >> 7) + (127 x 42 >> 7) = 104, ...
        {"PolyTracker levels", PTM,
         ptm({0, 3, 7, 8, 12, 15}, {level(127), level(127, 32)}, {0}, 1,
             {{0, 0, 0, 49, 1}, {0, 0, 1, 49, 2}, {0, 0, 2, 49, 1, 0, 0, 32}, {0, 0, 3, 49, 1}, {0, 0, 4, 49, 1},
              {0, 0, 5, 49, 1, 0, 0, 64}, {0, 1, 4, 0, 0, 16, 32}}),
         0, "@1 q0=104 q3=41 q1=126 q2=63 @7 q2=41 q3=27"},
        // One loop for the whole song at speed 1: pattern 0 plays rows 0 1 2 1 2 3 .. 63 (66), pattern 1
        // returns to row 1 (the loop's target): 0..5, 1..63 (69); then position 0 row 0 comes again.
        {"PolyTracker pattern loop", PTM,
         ptm({0, 15}, {level(50)}, {0, 1}, 2,
             {{0, 0, 0, 49, 1, 0xF, 1}, {0, 1, 1, 0, 0, 0xE, 0x60}, {0, 2, 0, 0, 0, 0xE, 0x61},
              {1, 5, 0, 0, 0, 0xE, 0x61}}),
         0, "@0 L0=2700"},
        // F80: 128 BPM, a tick of 2.5 / 128 s = 13855.06 E-clock cycles; the CIA counts its value plus one.
        {"PolyTracker tempo", PTM, ptm({0}, {level(50)}, {0}, 1, {{0, 0, 0, 49, 1, 0xF, 0x80}}), 0, "@1 t0=13854"},
        // An own channel plays to the loop's end (byte 400), queues the loop. On release (27, row 1, 120 ms) the
        // pass under way (200 bytes at 428: 24.1 ms each from 48.3 ms) ends at 120.7 ms, bytes 400-999 play
        // (72.4 ms), silence queued. Mode 0 samples are for split channels only.
        {"OKT own channels", OKT, own, own_data, "@1 e0=400 c0=200 l0=100 d1=0 @7 a0=400 e0=600 l0=1 @12 e0=2 q0=0"},
        // CMOD 0 1 0 0: channels 1 and 2 mixed on Paula 1 at full level (7-bit samples), 550 samples at period
        // 129 a tick (70950 Paula clocks, the tick 70938); the pair's volume is Paula's, set by either channel
        // and kept by notes; mode 1 samples do not play there; 100 + 100 holds at the limit.
        {"Oktalyzer split channels", OKT,
         okt({0, 1, 0, 0}, {okt_level(40, 2, 48), okt_level(20, 0), okt_level(100, 1), okt_level(100, 2)}, {0},
             {{0, 0, 1, 13, 0}, {0, 0, 2, 25, 1}, {0, 1, 2, 0, 0, 31, 32}, {0, 2, 1, 13, 2}, {0, 3, 1, 13, 3},
              {0, 3, 2, 13, 3}}),
         0, "@1 p1=129 v1=64 q1=60 l1=275 @7 v1=32 q1=60 @13 q1=60 @22 q1=127 v1=32"},
        // Effects on an own channel, note 13 = C-2 (428), volume 40, from the row's first tick (n - 2 = 480).
        {"OKT 1: period down", OKT, o(1, 5), 0, "@1 p0=423 @2 p0=418 @3 p0=413 @4 p0=408 v0=40"},
        {"OKT 2: period up", OKT, o(2, 16), 0, "@1 p0=444 @2 p0=460 @3 p0=476 @4 p0=492 v0=40"},
        {"OKT 10: n - 2, n, n + 3", OKT, o(10, 0x23), 0, "@1 p0=480 @2 p0=428 @3 p0=360 @4 p0=480 v0=40"},
        {"OKT 11: n, n + 3, n, n - 2", OKT, o(11, 0x23), 0, "@1 p0=428 @2 p0=360 @3 p0=428 @4 p0=480 v0=40"},
        {"OKT 12: -, n + 2, n + 3, n", OKT, o(12, 0x23), 0, "@1 p0=428 @2 p0=381 @3 p0=360 @4 p0=428 v0=40"},
        {"OKT 13: note down every tick", OKT, o(13, 2), 0, "@1 p0=480 @2 p0=538 @3 p0=604 @4 p0=678 v0=40"},
        {"OKT 30: note up every tick", OKT, o(30, 1), 0, "@1 p0=404 @2 p0=381 @3 p0=360 @4 p0=339 v0=40"},
        {"OKT 17: note up once", OKT, o(17, 3), 0, "@1 p0=360 @4 p0=360 v0=40"},
        {"OKT 21: note down once", OKT, o(21, 3), 0, "@1 p0=508 @4 p0=508 v0=40"},
        {"OKT 31: volume", OKT, o(31, 0x20), 0, "@1 v0=32 @4 v0=32 p0=428"},
        {"OKT 31: down 2 every tick", OKT, o(31, 0x42), 0, "@1 v0=38 @2 v0=36 @3 v0=34 @4 p0=428 v0=32"},
        {"OKT 31: up 1 every tick", OKT, o(31, 0x51), 0, "@1 v0=41 @2 v0=42 @3 v0=43 @4 p0=428 v0=44"},
        {"OKT 31: down 3 once", OKT, o(31, 0x63), 0, "@1 v0=37 @4 p0=428 v0=37"},
        {"OKT 31: up 4 once", OKT, o(31, 0x74), 0, "@1 v0=44 @4 p0=428 v0=44"},
        // Speed $13 on row 0, a jump to position "10" (decimal) on row 1: positions 0 and 10 play two rows
        // each, then 10 comes again. OKTASONG keeps 4 bits of the speed (3), OKTASNG2 5 (19).
        {"OKTASONG", OKT, okt({0, 0, 0, 0}, {okt_level(50, 1)}, bytes(12, 0), jump, 4), 0, "@0 L0=240"},
        {"OKTASNG2", OKT, okt({0, 0, 0, 0}, {okt_level(50, 1)}, bytes(12, 0), jump, 4, "OKTASNG2"), 0, "@0 L0=1520"},
        // Channels 0 and 1 on Paula 0, 2 (and 3) on 1, 4 and 5 (C20) on 2, 6 and 7 on 3, each at half level:
        // (100 x 64 + 60 x 64) >> 7 = 80, ... F20 on row 1: 32 BPM, a tick of 2.5 / 32 s = 55420.2 cycles.
        {"DIGI Booster pairs", DIGI,
         digi(8, {digi_level(100), digi_level(60)}, {0}, 1,
              {{0, 0, 0, 428, 1}, {0, 0, 1, 428, 2}, {0, 0, 2, 428, 1}, {0, 0, 5, 428, 2, 0xC, 32}, {0, 0, 6, 428, 1},
               {0, 0, 7, 428, 1}, {0, 1, 0, 0, 0, 0xF, 32}}),
         0, "@1 q0=80 q1=50 q2=15 q3=100 @7 t0=55419"},
        // Song lengths in rows of 20 ms.
        {"break to row 10 (decimal): 2 + 54", DIGI, d({0}, {{0, 1, 0, 0, 0, 0xD, 0x10}}), 0, "@0 L0=1120"},
        {"loop rows 2..4 twice more: 64 + 6", DIGI,
         d({0}, {{0, 2, 0, 0, 0, 0xE, 0x60}, {0, 4, 0, 0, 0, 0xE, 0x62}}), 0, "@0 L0=1400"},
        {"pattern delay of two rows: 64 + 2", DIGI, d({0}, {{0, 1, 0, 0, 0, 0xE, 0xE2}}), 0, "@0 L0=1320"},
        {"F00 starts the song again: 4", DIGI, d({0}, {{0, 3, 0, 0, 0, 0xF, 0}}), 0, "@0 L0=80"},
        {"jump back to position 0: 64 + 1", DIGI, d({0, 1}, {{1, 0, 0, 0, 0, 0xB, 0}}), 0, "@0 L0=1300"},
        // A jump held by a pattern delay: the delay's row is position 1's first, then its row 1: 2 + 1 + 63.
        {"jump and delay", DIGI, d({0, 1}, {{0, 1, 0, 0, 0, 0xB, 1}, {0, 1, 1, 0, 0, 0xE, 0xE1}}), 0, "@0 L0=1320"},
        // Channel 0 alone: sample x volume / 128 at ticks 0..5 of row 1. Offsets 9xx x 256, + 65536 after E81.
        {"9 offset 4096", DIGI, dl({0, 0, 0, 0, 0}, {0, 1, 0, 856, 1, 9, 0x10}), 0, "@7-12 Q0=50"},
        {"E81: + 65536", DIGI, dl({0, 0, 0, 0, 0, 0xE, 0x81}, {0, 1, 0, 856, 1, 9, 0x10}), 0, "@7-12 Q0=50"},
        {"E81: 65536 only", DIGI, dl({0, 0, 0, 0, 0, 0xE, 0x81}, {0, 1, 0, 856, 1, 9, 0}), 0, "@7-12 Q0=0"},
        // A04 slides on row 0's ticks but the last (64 -> 44); A00 goes on with 4: volumes 40, 36, .., 24, 24.
        {"A00 goes on", DIGI, dl({0, 0, 0, 856, 3, 0xA, 0x04}, {0, 1, 0, 0, 0, 0xA, 0}), 0,
         "@7 Q0=31 @8 Q0=28 @9 Q0=25 @10 Q0=21 @11-12 Q0=18"},
        {"EC2 cuts at tick 2", DIGI, dl({0, 0, 0, 856, 3}, {0, 1, 0, 0, 0, 0xE, 0xC2}), 0, "@7-8 Q0=50 @9-12 Q0=0"},
        {"E40 stops", DIGI, dl({0, 0, 0, 856, 3}, {0, 1, 0, 0, 0, 0xE, 0x40}), 0, "@7-12 Q0=0"},
        {"E50: channel off", DIGI, dl({0, 0, 0, 0, 0, 0xE, 0x50}, {0, 1, 0, 856, 3}), 0, "@7-12 Q0=0"},
        {"C50 heard as 64", DIGI, dl({0, 0, 0, 856, 3}, {0, 1, 0, 0, 0, 0xC, 0x50}), 0, "@7-12 Q0=50"},
        {"E30: the ramp from its end", DIGI, dl({0, 0, 0, 0, 0}, {0, 1, 0, 856, 2, 0xE, 0x30}), 0, "@7 Q0=63"},
        {"the ramp forwards from its start", DIGI, dl({0, 0, 0, 0, 0}, {0, 1, 0, 856, 2}), 0, "@7 Q0=0"},
        {"IMS as made", IMS, im, 0, ""},
        {"IMS: not a whole number of patterns", IMS, set32(im, 1080, kImsSamples + 1), 0, "!"},
        {"IMS: a pattern not stored", IMS, put(im, 953, {2}), 0, "!"},
        {"IMS: patterns beyond the file", IMS, set32(im, 1080, uint32_t(im.size() + 4 * 768)), 0, "!"},
        {"PTM as made", PTM, pt, 0, ""},
        {"PTM: channel 0 twice", PTM, ptm({0, 15}, {level(50)}, {0}, 1, {{0, 0, 0, 49, 1}, {0, 0, 0, 50, 1}}), 0, "!"},
        {"PTM: 33 channels", PTM, put(pt, 38, {33}), 0, "!"},
        {"PTM: the only order names a missing pattern", PTM, put(pt, 96, {7}), 0, "!"},
        {"PTM: cut in the pattern, the missing rows are empty", PTM, cut(pt, 700), 0, ""},
        {"OKT as made", OKT, ok, 0, ""},
        {"OKT: OKTASONX", OKT, put(ok, 7, {'X'}), 0, "!"},
        {"OKT: no CMOD chunk", OKT, put(ok, 8, {'X'}), 0, "!"},
        {"OKT: a missing pattern", OKT, okt({0, 0, 0, 0}, {okt_level(50, 1)}, {1}, {}), 0, "!"},
        {"OKT: no positions", OKT, okt({0, 0, 0, 0}, {okt_level(50, 1)}, {}, {}), 0, "!"},
        {"OKT: a pattern of no rows", OKT, okt({0, 0, 0, 0}, {okt_level(50, 1)}, {0}, {}, 0), 0, "!"},
        {"OKT: cut in the pattern", OKT, cut(ok, 8 + 16 + 8 + 36 * 32 + 3 * 10 + 8 + 128 + 8 + 100), 0, ""},
        {"DIGI as made", DIGI, dg, 0, ""},
        {"DIGI: magic", DIGI, put(dg, 19, {'X'}), 0, "!"},
        {"DIGI: no channels", DIGI, put(dg, 25, {0}), 0, "!"},
        {"DIGI: 9 channels", DIGI, put(dg, 25, {9}), 0, "!"},
        {"DIGI: 129 positions", DIGI, put(dg, 47, {128}), 0, "!"},
        {"DIGI: a position of a missing pattern", DIGI, put(dg, 49, {2}), 0, "!"},
        {"DIGI: a packed size other than its masks give", DIGI, put(dg, 1573, {0xFF}), 0, "!"},
        {"DIGI: cut in the second pattern", DIGI, cut(dg, 1572 + 70), 0, "!"},
        {"DIGI: the sample cut to the file", DIGI, cut(dg, dg.size() - 100), 0, ""},
    };
    for (const tcase &c : kCases) run_case(c);
}

// Oktalyzer's split voices do not loop: a long ramp (a step every 4 bytes, 0..63) alone on Paula 0 moves by
// 549 x (129 / period) / 4 over a block. Note slides and arpeggios change the note; period slides do nothing.
TEST_F(Trackers, OktalyzerSplitVoicesPlayNotesNotPeriods) {
    tsample r{ramp(8192, 1, 2), 0};
    for (int8_t &v : r.data) v &= 63;
    const struct {
        uint8_t note, fx, param;
        uint16_t per[3];
    } kCases[] = {{1, 30, 6, {604, 428, 302}}, {13, 1, 20, {428, 428, 428}}, {13, 10, 0x23, {480, 428, 360}}};
    for (const auto &c : kCases) {
        SCOPED_TRACE(::testing::Message() << "effect " << int(c.fx));
        engine_ptr k = open_player("Oktalyzer", okt({1, 0, 0, 0}, {r}, {0}, {{0, 0, 0, c.note, 0, c.fx, c.param}}));
        ASSERT_TRUE(k);
        for (int t = 0; t < 3; t++) {
            run_ticks(k.get(), 1);
            std::vector<int8_t> b = mixed(k.get(), 0);
            double moved = 549.0 * 129 / c.per[t] / 4, off = std::fmod(b.back() - b.front() - moved + 96, 64.0) - 32;
            EXPECT_NEAR(off, 0, 1.5) << "tick " << t;
        }
    }
}

// PolyTracker's pitch: rate x 2^((note - 49) / 12) samples a second, mixed at 3546895 / 124 a second: how far a
// looping 256-byte ramp advances over a block. Pans 0, 15, 0, 15 give Paula 0, 1, 3, 2; 1x10: up 16 units x 4.
TEST_F(Trackers, PolyTrackerPitchFromNoteAndRateAndSlides) {
    const bytes m = ptm({0, 15, 0, 15}, {{ramp(256)}, {ramp(256), 2, 64, 0, 0, 16726}}, {0}, 1,
                        {{0, 0, 0, 49, 1}, {0, 0, 1, 61, 1}, {0, 0, 2, 49, 2, 1, 0x10}, {0, 0, 3, 52, 1, 0, 0x47}});
    engine_ptr k = open_player("PolyTracker", m);
    ASSERT_TRUE(k);
    run_ticks(k.get(), 1);
    const double block = double(mixed(k.get(), 0).size() - 1), mix = 3546895.0 / 124;
    auto advance = [&](int x) {
        std::vector<int8_t> b = mixed(k.get(), x);
        return b.size() < 2 ? -1 : uint8_t(b[b.size() - 1] - b[0]);
    };
    auto expected = [&](int note, double rate) { return rate * std::pow(2.0, (note - 49) / 12.0) / mix * block; };
    EXPECT_NEAR(advance(0), expected(49, 8363), 1.0);
    EXPECT_NEAR(advance(1), expected(61, 8363), 1.0);
    EXPECT_NEAR(advance(3), expected(49, 16726), 1.0);   // an octave above the usual C-4 rate
    run_ticks(k.get(), 3);
    // Period 1712 / 2 (the faster sample) - 3 x 64 = 664: 14317056 / 664 Hz.
    EXPECT_NEAR(advance(3), 14317056.0 / 664 / mix * block, 1.0);
    EXPECT_NEAR(advance(2), expected(52, 8363), 1.0);   // tick 3: the note itself again
}

// A DIGI Booster block mixed for a tick lasts through the tick of the CIA value, at most 1024 bytes,
// overrunning it by at most 0.05 % (F20 on row 1: 32 BPM, the CIA value 55419).
TEST_F(Trackers, DigiBoosterBlocksLastATick) {
    engine_ptr k =
        open_player("DIGIBooster", digi(8, {digi_level(100)}, {0}, 1, {{0, 0, 0, 428, 1}, {0, 1, 0, 0, 0, 0xF, 32}}));
    ASSERT_TRUE(k);
    for (auto [ticks, timer, slack] : {std::tuple(1, 14187, 0.0005), std::tuple(6, 55419, 0.002)}) {
        run_ticks(k.get(), ticks);
        for (int x = 0; x < 4; x++) {
            double clocks = 5.0 * (timer + 1), block = double(k->aud[x].per) * 2 * k->aud[x].len;
            EXPECT_TRUE(2 * k->aud[x].len <= 1024 && block >= clocks && block <= clocks * (1 + slack))
                << "channel " << x << ": " << 2 * k->aud[x].len << " bytes, " << block << " clocks";
        }
    }
}
