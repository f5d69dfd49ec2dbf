// kelva's Oktalyzer and DIGI Booster players on synthetic modules: the
// effects by Paula's latches (Oktalyzer's channels of their own) or by the
// block the software mixer hands Paula, the mixes' levels and layout, song
// lengths and damaged files. A fresh engine runs the tick routine at once:
// after run_ticks(k, 1 + r * speed + t) a player has just done tick t of row r.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstring>

#include "ptk_support.h"

using namespace ptk_test;

namespace {

constexpr uint16_t kPeriods[36] = {856, 808, 762, 720, 678, 640, 604, 570, 538, 508, 480, 453,
                                   428, 404, 381, 360, 339, 320, 302, 285, 269, 254, 240, 226,
                                   214, 202, 190, 180, 170, 160, 151, 143, 135, 127, 120, 113};

bool all_equal(const std::vector<int8_t> &b, int v) {
    for (int8_t x : b)
        if (x != v) return false;
    return !b.empty();
}

// ---- Oktalyzer ---------------------------------------------------------------

struct okt_sample {
    std::vector<int8_t> data;
    uint16_t loop_start = 0, loop_len = 0;   // words
    uint8_t volume = 64;
    uint16_t mode = 2;
};
struct okt_cell {
    int pattern, row, channel;
    uint8_t note, sample, fx, param;
};

// An Oktalyzer song: CMOD flags, samples, starting speed, positions,
// patterns of `rows` rows, cells.
std::vector<uint8_t> okt_module(const std::array<uint16_t, 4> &cmod, const std::vector<okt_sample> &samples,
                                uint16_t speed, const std::vector<uint8_t> &orders, int patterns,
                                const std::vector<okt_cell> &cells, int rows = 64, const char *magic = "OKTASONG") {
    int channels = 4;
    for (uint16_t f : cmod) channels += f != 0;
    std::vector<uint8_t> m(magic, magic + 8);
    auto chunk = [&m](const char *id, size_t len) {
        size_t at = m.size();
        m.resize(at + 8 + len, 0);
        memcpy(&m[at], id, 4);
        be32(m, at + 4, uint32_t(len));
        return at + 8;
    };
    size_t at = chunk("CMOD", 8);
    for (int i = 0; i < 4; i++) be16(m, at + 2 * i, cmod[i]);
    at = chunk("SAMP", 36 * 32);
    for (size_t i = 0; i < samples.size(); i++) {
        size_t h = at + 32 * i;
        be32(m, h + 20, uint32_t(samples[i].data.size()));
        be16(m, h + 24, samples[i].loop_start);
        be16(m, h + 26, samples[i].loop_len);
        m[h + 29] = samples[i].volume;
        be16(m, h + 30, samples[i].mode);
    }
    be16(m, chunk("SPEE", 2), speed);
    be16(m, chunk("SLEN", 2), uint16_t(patterns));
    be16(m, chunk("PLEN", 2), uint16_t(orders.size()));
    at = chunk("PATT", 128);
    for (size_t i = 0; i < orders.size(); i++) m[at + i] = orders[i];
    for (int p = 0; p < patterns; p++) {
        at = chunk("PBOD", 2 + size_t(rows) * channels * 4);
        be16(m, at, uint16_t(rows));
        for (const okt_cell &c : cells)
            if (c.pattern == p) {
                size_t x = at + 2 + (size_t(c.row) * channels + c.channel) * 4;
                m[x] = c.note, m[x + 1] = c.sample, m[x + 2] = c.fx, m[x + 3] = c.param;
            }
    }
    for (const okt_sample &s : samples) memcpy(&m[chunk("SBOD", s.data.size())], s.data.data(), s.data.size());
    return m;
}

okt_sample okt_level(int8_t v, uint16_t mode, uint8_t volume = 64, size_t n = 16384) {
    okt_sample s;
    s.data.assign(n, v);
    s.mode = mode;
    s.volume = volume;
    return s;
}

class Okt : public ::testing::Test {
  protected:
    void SetUp() override { PTK_REQUIRE_PLAYER("Oktalyzer"); }
};

}  // namespace

TEST_F(Okt, EffectsActOnEveryTickOfTheRowTheFirstIncluded) {
    // A channel of its own (Paula 0), note 13 = C-2 (period 428), sample
    // volume 40, speed 6: the periods and volumes of the row's ticks 0..3.
    const struct {
        uint8_t fx, param;
        uint16_t per[4];
        uint8_t vol[4];
    } kCases[] = {
        {1, 5, {423, 418, 413, 408}, {40, 40, 40, 40}},
        {2, 16, {444, 460, 476, 492}, {40, 40, 40, 40}},
        {10, 0x23, {kPeriods[10], 428, kPeriods[15], kPeriods[10]}, {40, 40, 40, 40}},   // n - 2, n, n + 3
        {11, 0x23, {428, kPeriods[15], 428, kPeriods[10]}, {40, 40, 40, 40}},            // n, n + 3, n, n - 2
        {12, 0x23, {428, kPeriods[14], kPeriods[15], 428}, {40, 40, 40, 40}},            // -, n + 2, n + 3, n
        {13, 2, {kPeriods[10], kPeriods[8], kPeriods[6], kPeriods[4]}, {40, 40, 40, 40}},
        {30, 1, {kPeriods[13], kPeriods[14], kPeriods[15], kPeriods[16]}, {40, 40, 40, 40}},
        {17, 3, {kPeriods[15], kPeriods[15], kPeriods[15], kPeriods[15]}, {40, 40, 40, 40}},
        {21, 3, {kPeriods[9], kPeriods[9], kPeriods[9], kPeriods[9]}, {40, 40, 40, 40}},
        {31, 0x20, {428, 428, 428, 428}, {32, 32, 32, 32}},
        {31, 0x42, {428, 428, 428, 428}, {38, 36, 34, 32}},   // down 2 every tick
        {31, 0x51, {428, 428, 428, 428}, {41, 42, 43, 44}},   // up 1 every tick
        {31, 0x63, {428, 428, 428, 428}, {37, 37, 37, 37}},   // down 3 once
        {31, 0x74, {428, 428, 428, 428}, {44, 44, 44, 44}},   // up 4 once
    };
    okt_sample s = okt_level(50, 1, 40, 64);
    s.loop_len = 32;
    for (const auto &c : kCases) {
        SCOPED_TRACE(::testing::Message() << "effect " << int(c.fx) << " " << int(c.param));
        engine_ptr k =
            open_player("Oktalyzer", okt_module({0, 0, 0, 0}, {s}, 6, {0}, 1, {{0, 0, 0, 13, 0, c.fx, c.param}}));
        ASSERT_TRUE(k);
        for (int t = 0; t < 4; t++) {
            run_ticks(k.get(), 1);
            EXPECT_EQ(k->aud[0].per, c.per[t]) << "tick " << t;
            EXPECT_EQ(k->aud[0].vol, c.vol[t]) << "tick " << t;
        }
    }
}

TEST_F(Okt, ChannelsOfTheirOwnPlayToTheLoopsEndAndReleaseTheRest) {
    okt_sample s;
    for (int i = 0; i < 1000; i++) s.data.push_back(int8_t(i));
    s.loop_start = 100;   // words: bytes 200..399 loop, 400..999 follow on release
    s.loop_len = 100;
    okt_sample seven_bit = okt_level(30, 0);
    engine_ptr k = open_player("Oktalyzer", okt_module({0, 0, 0, 0}, {s, seven_bit}, 6, {0}, 1,
                                                       {{0, 0, 0, 13, 0, 0, 0}, {0, 0, 1, 13, 1, 0, 0},
                                                        {0, 1, 0, 0, 0, 27, 0}}));
    ASSERT_TRUE(k);
    run_ticks(k.get(), 1);
    const uint32_t data = uint32_t(k->ch[0].data - k->ram);
    EXPECT_EQ(k->ch[0].end, 400u);   // the first pass ends with the loop
    EXPECT_EQ(k->aud[0].lc, data + 200);
    EXPECT_EQ(k->aud[0].len, 100);
    EXPECT_FALSE(k->aud[1].dma_running);   // mode 0 samples are for split channels only
    // Row 1 (120 ms): the release part is queued; the loop's pass under way
    // (200 bytes at period 428: 24.1 ms each, from 48.3 ms on) ends at
    // 120.7 ms and the part starts, with silence queued behind it.
    run_ticks(k.get(), 6);
    EXPECT_EQ(uint32_t(k->ch[0].data - k->ram), data + 400);
    EXPECT_EQ(k->ch[0].end, 600u);
    EXPECT_EQ(k->aud[0].len, 1);
    run_ticks(k.get(), 5);   // 600 bytes last 72.4 ms: silence plays
    EXPECT_EQ(uint32_t(k->ch[0].data - k->ram), k->aud[0].lc);
}

TEST_F(Okt, SplitChannelsMixTheirVoicesAtTheSharedVolume) {
    // CMOD 0 1 0 0: channel 0 on Paula 0, channels 1 and 2 mixed on Paula 1.
    // The voices add their 7-bit samples at full level; the pair's volume is
    // Paula's, set by a volume command on either channel and kept by notes.
    std::vector<okt_sample> s = {okt_level(40, 2, 48), okt_level(20, 0), okt_level(100, 1), okt_level(100, 2)};
    engine_ptr k = open_player("Oktalyzer", okt_module({0, 1, 0, 0}, s, 6, {0}, 1,
                                                       {{0, 0, 1, 13, 0, 0, 0},
                                                        {0, 0, 2, 25, 1, 0, 0},
                                                        {0, 1, 2, 0, 0, 31, 32},
                                                        {0, 2, 1, 13, 2, 0, 0},    // mode 1: not played here
                                                        {0, 3, 1, 13, 3, 0, 0},
                                                        {0, 3, 2, 13, 3, 0, 0}}));
    ASSERT_TRUE(k);
    run_ticks(k.get(), 1);
    EXPECT_EQ(k->aud[1].per, 129);
    EXPECT_EQ(k->aud[1].vol, 64);
    EXPECT_TRUE(all_equal(mixed(k, 1), 60));
    // 550 samples at period 129 last 70950 Paula clocks, the tick 70938.
    EXPECT_EQ(k->aud[1].len, 275);
    run_ticks(k.get(), 6);
    EXPECT_EQ(k->aud[1].vol, 32);
    EXPECT_TRUE(all_equal(mixed(k, 1), 60));
    run_ticks(k.get(), 6);
    EXPECT_TRUE(all_equal(mixed(k, 1), 60));
    run_ticks(k.get(), 6 + 3);
    EXPECT_TRUE(all_equal(mixed(k, 1), 127));   // 100 + 100, held at the limit
    EXPECT_EQ(k->aud[1].vol, 32);
}

TEST_F(Okt, SplitVoicesPlayNotesNotPeriods) {
    // Split voices do not loop, so a long ramp (a step every 4 bytes, 0..63)
    // that plays alone on Paula 0: over a block its value moves by
    // 549 x (129 / period) / 4. Note slides and arpeggios change the note;
    // period slides do nothing.
    okt_sample ramp;
    for (int i = 0; i < 8192; i++) ramp.data.push_back(int8_t((i >> 2) & 63));
    ramp.mode = 0;
    const struct {
        uint8_t note, fx, param;
        uint16_t per[3];
    } kCases[] = {
        {1, 30, 6, {kPeriods[6], kPeriods[12], kPeriods[18]}},
        {13, 1, 20, {428, 428, 428}},
        {13, 10, 0x23, {kPeriods[10], 428, kPeriods[15]}},
    };
    for (const auto &c : kCases) {
        SCOPED_TRACE(::testing::Message() << "effect " << int(c.fx));
        engine_ptr k = open_player("Oktalyzer", okt_module({1, 0, 0, 0}, {ramp}, 6, {0}, 1,
                                                           {{0, 0, 0, c.note, 0, c.fx, c.param}}));
        ASSERT_TRUE(k);
        for (int t = 0; t < 3; t++) {
            run_ticks(k.get(), 1);
            std::vector<int8_t> b = mixed(k, 0);
            double moved = 549.0 * 129 / c.per[t] / 4, off = std::fmod(b.back() - b.front() - moved + 96, 64.0) - 32;
            EXPECT_NEAR(off, 0, 1.5) << "tick " << t;
        }
    }
}

TEST_F(Okt, SpeedJumpAndSongEnd) {
    // Position 0 row 0: speed $13; row 1: jump to position "10" (decimal).
    // Positions 0 and 10 play rows 0 and 1, then row 0 of position 10 comes
    // again: four rows. OKTASONG keeps 4 bits of the speed (3), OKTASNG2 5 (19).
    std::vector<okt_cell> cells = {{0, 0, 0, 13, 0, 28, 0x13}, {0, 1, 1, 0, 0, 25, 0x10}};
    std::vector<uint8_t> orders(12, 0);
    for (const auto &c : {std::make_pair("OKTASONG", 4 * 3 * 20), std::make_pair("OKTASNG2", 4 * 19 * 20)}) {
        SCOPED_TRACE(c.first);
        engine_ptr k = open_player("Oktalyzer", okt_module({0, 0, 0, 0}, {okt_level(50, 1)}, 6, orders, 1, cells, 4,
                                                           c.first));
        ASSERT_TRUE(k);
        int32_t reason = 0;
        EXPECT_EQ(kelva_measure_length(k.get(), 0, 0, &reason, nullptr, nullptr), uint64_t(c.second));
        EXPECT_EQ(reason, 1);
    }
}

TEST_F(Okt, RefusesFilesThatDoNotFit) {
    auto good = okt_module({0, 1, 0, 0}, {okt_level(50, 2)}, 6, {0}, 1, {{0, 0, 0, 13, 0, 0, 0}});
    ASSERT_TRUE(open_player("Oktalyzer", good));
    auto bad = good;
    bad[7] = 'X';   // OKTASONX
    EXPECT_FALSE(open_player("Oktalyzer", bad));
    bad = good;
    memcpy(&bad[8], "XMOD", 4);   // no CMOD chunk
    EXPECT_FALSE(open_player("Oktalyzer", bad));
    bad = okt_module({0, 0, 0, 0}, {okt_level(50, 1)}, 6, {1}, 1, {});   // position of a missing pattern
    EXPECT_FALSE(open_player("Oktalyzer", bad));
    bad = okt_module({0, 0, 0, 0}, {okt_level(50, 1)}, 6, {}, 1, {});    // no positions
    EXPECT_FALSE(open_player("Oktalyzer", bad));
    bad = okt_module({0, 0, 0, 0}, {okt_level(50, 1)}, 6, {0}, 1, {}, 0);   // a pattern of no rows
    EXPECT_FALSE(open_player("Oktalyzer", bad));
    bad = good;
    bad.resize(8 + 16 + 8 + 36 * 32 + 3 * 10 + 8 + 128 + 8 + 100);   // cut in the pattern
    EXPECT_TRUE(open_player("Oktalyzer", bad));
}

// ---- DIGI Booster ------------------------------------------------------------

namespace {

struct digi_sample {
    std::vector<int8_t> data;
    uint32_t loop_start = 0, loop_len = 0;
    uint8_t volume = 64;
};
struct digi_cell {
    int pattern, row, channel;
    uint16_t period;
    uint8_t sample, fx, param;
};

// A packed DIGI Booster module.
std::vector<uint8_t> digi_module(int channels, const std::vector<digi_sample> &samples,
                                 const std::vector<uint8_t> &orders, int patterns,
                                 const std::vector<digi_cell> &cells) {
    std::vector<uint8_t> m(1572, 0);
    memcpy(&m[0], "DIGI Booster module\0V1.6", 24);
    m[24] = 0x16, m[25] = uint8_t(channels), m[26] = 1, m[46] = uint8_t(patterns - 1);
    m[47] = uint8_t(orders.size() - 1);
    for (size_t i = 0; i < orders.size(); i++) m[48 + i] = orders[i];
    for (size_t i = 0; i < samples.size(); i++) {
        be32(m, 176 + 4 * i, uint32_t(samples[i].data.size()));
        be32(m, 300 + 4 * i, samples[i].loop_start);
        be32(m, 424 + 4 * i, samples[i].loop_len);
        m[548 + i] = samples[i].volume;
    }
    memcpy(&m[610], "digi test", 9);
    for (int p = 0; p < patterns; p++) {
        std::vector<uint8_t> masks(64, 0), body;
        for (int r = 0; r < 64; r++)
            for (int c = 0; c < 8; c++)
                for (const digi_cell &x : cells)
                    if (x.pattern == p && x.row == r && x.channel == c) {
                        masks[size_t(r)] |= uint8_t(0x80 >> c);
                        body.insert(body.end(), {uint8_t((x.sample & 0xF0) | x.period >> 8), uint8_t(x.period),
                                                 uint8_t((x.sample & 15) << 4 | x.fx), x.param});
                    }
        size_t at = m.size();
        m.resize(at + 2);
        be16(m, at, uint16_t(64 + body.size()));
        m.insert(m.end(), masks.begin(), masks.end());
        m.insert(m.end(), body.begin(), body.end());
    }
    for (const digi_sample &s : samples) m.insert(m.end(), s.data.begin(), s.data.end());
    return m;
}

digi_sample digi_level(int8_t v, size_t n = 4096) {
    digi_sample s;
    s.data.assign(n, v);
    s.loop_len = uint32_t(n);
    return s;
}

// The tick's block lasts through the tick of `timer` (CIA value): at most
// 1024 bytes, overrunning the tick by at most `slack` of it.
void expect_block_covers_tick(const engine_ptr &k, int x, uint32_t timer, double slack) {
    double clocks = 5.0 * (timer + 1), block = double(k->aud[x].per) * 2 * k->aud[x].len;
    EXPECT_LE(2 * k->aud[x].len, 1024);
    EXPECT_GE(block, clocks);
    EXPECT_LE(block, clocks * (1 + slack));
}

class Digi : public ::testing::Test {
  protected:
    void SetUp() override { PTK_REQUIRE_PLAYER("DIGIBooster"); }
};

}  // namespace

TEST_F(Digi, ChannelPairsShareAPaulaChannelAtHalfLevel) {
    std::vector<digi_sample> s = {digi_level(100), digi_level(60)};
    engine_ptr k = open_player("DIGIBooster", digi_module(8, s, {0}, 1,
                                                          {{0, 0, 0, 428, 1, 0, 0},
                                                           {0, 0, 1, 428, 2, 0, 0},
                                                           {0, 0, 2, 428, 1, 0, 0},
                                                           {0, 0, 5, 428, 2, 0xC, 32},
                                                           {0, 0, 6, 428, 1, 0, 0},
                                                           {0, 0, 7, 428, 1, 0, 0},
                                                           {0, 1, 0, 0, 0, 0xF, 32}}));
    ASSERT_TRUE(k);
    run_ticks(k.get(), 1);
    EXPECT_TRUE(all_equal(mixed(k, 0), (100 * 64 + 60 * 64) >> 7));
    EXPECT_TRUE(all_equal(mixed(k, 1), (100 * 64) >> 7));
    EXPECT_TRUE(all_equal(mixed(k, 2), (60 * 32) >> 7));
    EXPECT_TRUE(all_equal(mixed(k, 3), 100));
    for (int x = 0; x < 4; x++) expect_block_covers_tick(k, x, 14187, 0.0005);
    // F20: 32 beats a minute, a tick of 2.5 / 32 s = 55420.2 E-clock cycles.
    run_ticks(k.get(), 6);
    const uint8_t *timer = k->ram + 0xF90000 + 54;
    EXPECT_EQ(timer[0] << 8 | timer[1], 55419);
    expect_block_covers_tick(k, 0, 55419, 0.002);
}

TEST_F(Digi, EffectsByTheMixedLevel) {
    // Channel 0 alone on Paula 0: each case's level (sample x volume / 128)
    // at ticks 0..5 of row 1 (speed 6), after row 0 set things up.
    digi_sample steps;   // 4 KB of 0, 4 KB of 100, zeros up to 64 KB + 4 KB, 4 KB of 100
    steps.data.assign(4096, 0);
    steps.data.resize(8192, 100);
    steps.data.resize(65536 + 4096, 0);
    steps.data.resize(65536 + 8192, 100);
    digi_sample ramp;   // 0..127 once
    for (int i = 0; i < 128; i++) ramp.data.push_back(int8_t(i));
    const struct {
        digi_cell row0, row1;
        int level[6];
    } kCases[] = {
        {{0, 0, 0, 0, 0, 0, 0}, {0, 1, 0, 856, 1, 9, 0x10}, {50, 50, 50, 50, 50, 50}},        // offset 4096
        {{0, 0, 0, 0, 0, 0xE, 0x81}, {0, 1, 0, 856, 1, 9, 0x10}, {50, 50, 50, 50, 50, 50}},   // + 65536
        {{0, 0, 0, 0, 0, 0xE, 0x81}, {0, 1, 0, 856, 1, 9, 0}, {0, 0, 0, 0, 0, 0}},            // 65536 only
        // A04 slides on row 0's ticks but the last (64 -> 44); A00 goes on
        // with 4 from there: volumes 40, 36, 32, 28, 24, 24.
        {{0, 0, 0, 856, 3, 0xA, 0x04}, {0, 1, 0, 0, 0, 0xA, 0}, {31, 28, 25, 21, 18, 18}},
        {{0, 0, 0, 856, 3, 0, 0}, {0, 1, 0, 0, 0, 0xE, 0xC2}, {50, 50, 0, 0, 0, 0}},          // cut at tick 2
        {{0, 0, 0, 856, 3, 0, 0}, {0, 1, 0, 0, 0, 0xE, 0x40}, {0, 0, 0, 0, 0, 0}},            // stop
        {{0, 0, 0, 0, 0, 0xE, 0x50}, {0, 1, 0, 856, 3, 0, 0}, {0, 0, 0, 0, 0, 0}},            // channel off
        {{0, 0, 0, 856, 3, 0, 0}, {0, 1, 0, 0, 0, 0xC, 0x50}, {50, 50, 50, 50, 50, 50}},      // volume 80 heard as 64
    };
    for (const auto &c : kCases) {
        SCOPED_TRACE(::testing::Message() << "row 1 effect " << int(c.row1.fx) << " " << int(c.row1.param));
        std::vector<digi_sample> s = {steps, ramp, digi_level(100)};
        s[0].loop_len = 0;
        engine_ptr k = open_player("DIGIBooster", digi_module(2, s, {0}, 1, {c.row0, c.row1}));
        ASSERT_TRUE(k);
        run_ticks(k.get(), 6);
        for (int t = 0; t < 6; t++) {
            run_ticks(k.get(), 1);
            EXPECT_EQ(mixed(k, 0).front(), c.level[t]) << "tick " << t;
        }
    }
    // E30: the ramp backwards, from its last byte; forwards from its first.
    for (uint8_t back : {0, 1}) {
        std::vector<digi_sample> s = {digi_level(0), ramp};
        engine_ptr k = open_player("DIGIBooster", digi_module(2, s, {0}, 1,
                                                              {{0, 0, 0, 856, 2, uint8_t(back ? 0xE : 0),
                                                                uint8_t(back ? 0x30 : 0)}}));
        ASSERT_TRUE(k);
        run_ticks(k.get(), 1);
        EXPECT_EQ(mixed(k, 0).front(), back ? 127 >> 1 : 0);
    }
}

TEST_F(Digi, RowsJumpsLoopsDelaysAndSongEnd) {
    // Speed 1 (F01 on row 0): a row is a tick of 20 ms.
    const struct {
        const char *what;
        std::vector<uint8_t> orders;
        std::vector<digi_cell> cells;
        int rows;
    } kCases[] = {
        {"break to row 10 (decimal)", {0}, {{0, 1, 0, 0, 0, 0xD, 0x10}}, 2 + 54},
        {"loop rows 2..4 twice more", {0}, {{0, 2, 0, 0, 0, 0xE, 0x60}, {0, 4, 0, 0, 0, 0xE, 0x62}}, 64 + 6},
        {"pattern delay of two rows", {0}, {{0, 1, 0, 0, 0, 0xE, 0xE2}}, 64 + 2},
        {"F00 starts the song again", {0}, {{0, 3, 0, 0, 0, 0xF, 0}}, 4},
        {"jump back to position 0", {0, 1}, {{1, 0, 0, 0, 0, 0xB, 0}}, 64 + 1},
        // A jump held by a pattern delay: the delay's row is position 1's
        // first, which goes on from its second row.
        {"jump and delay in a row", {0, 1}, {{0, 1, 0, 0, 0, 0xB, 1}, {0, 1, 1, 0, 0, 0xE, 0xE1}}, 2 + 1 + 63},
    };
    for (const auto &c : kCases) {
        SCOPED_TRACE(c.what);
        std::vector<digi_cell> cells = c.cells;
        cells.push_back({0, 0, 1, 0, 0, 0xF, 1});
        engine_ptr k = open_player("DIGIBooster", digi_module(2, {digi_level(50)}, c.orders, 2, cells));
        ASSERT_TRUE(k);
        int32_t reason = 0;
        EXPECT_EQ(kelva_measure_length(k.get(), 0, 0, &reason, nullptr, nullptr), uint64_t(c.rows) * 20);
        EXPECT_EQ(reason, 1);
    }
}

TEST_F(Digi, RefusesFilesThatDoNotFit) {
    auto good = digi_module(4, {digi_level(50)}, {0, 1}, 2, {{0, 0, 0, 428, 1, 0, 0}});
    ASSERT_TRUE(open_player("DIGIBooster", good));
    const struct {
        size_t at;
        uint8_t value;
    } kDamage[] = {{19, 'X'}, {25, 0}, {25, 9}, {47, 128}, {49, 2}, {1573, 0xFF}};
    for (const auto &d : kDamage) {
        auto bad = good;
        bad[d.at] = d.value;
        EXPECT_FALSE(open_player("DIGIBooster", bad)) << "byte " << d.at;
    }
    auto cut = good;
    cut.resize(1572 + 70);   // inside the second pattern
    EXPECT_FALSE(open_player("DIGIBooster", cut));
    cut = good;
    cut.resize(cut.size() - 100);   // the sample's end: cut to the file
    EXPECT_TRUE(open_player("DIGIBooster", cut));
}
