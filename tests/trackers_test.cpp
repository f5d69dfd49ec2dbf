// kelva's players of the SoundFX, Game Music Creator, Images Music System
// and PolyTracker formats: synthetic modules pin each format's effects by
// the Paula latches (the four-channel players) or by the mixed buffer the
// software mixer hands Paula (PolyTracker); the shared real modules are
// identified and played.
//
// Timing: a fresh engine runs the tick routine at once, so after
// run_ticks(k, 1 + r * speed + t) a player has just done tick t of row r.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>

#include "ptk_support.h"

using namespace ptk_test;

namespace {

uint32_t play_addr(const engine_ptr &k, int c) { return uint32_t(k->ch[c].data - k->ram); }

// ---- SoundFX -------------------------------------------------------------

// A SoundFX module of one pattern, 1.3 (15 samples) or 2.0 (31): sample 1
// = 4000 bytes, volume 40, no loop; sample 2 = 200 bytes, volume 64,
// looping from byte 100 for 50 words; 2.0 adds sample 17 = 2000 bytes.
struct sfx_song {
    std::vector<uint8_t> bytes;
    size_t pattern;
    uint32_t data;
    explicit sfx_song(uint16_t delay = 14187, bool v20 = false) {
        const size_t n = v20 ? 31 : 15, infos = 4 * n + 20;
        pattern = infos + 30 * n + 130 + (v20 ? 4 : 0);
        data = kModule + uint32_t(pattern) + 1024;
        bytes.assign(pattern + 1024 + 6200, 0);
        be32(bytes, 0, 4000);
        be32(bytes, 4, 200);
        if (v20) be32(bytes, 64, 2000);
        memcpy(&bytes[4 * n], v20 ? "SO31" : "SONG", 4);
        be16(bytes, 4 * n + 4, delay);
        const uint16_t info[3][4] = {{2000, 40, 0, 1}, {100, 64, 100, 50}, {1000, 30, 0, 1}};
        for (int i = 0; i < 3; i++)
            for (int f = 0; f < 4; f++) be16(bytes, infos + 30 * (i == 2 ? 16 : i) + 22 + 2 * f, info[i][f]);
        bytes[infos + 30 * n] = 1;   // song length
    }
    void cell(int row, int ch, uint16_t note, uint8_t smp, uint8_t fx = 0, uint8_t param = 0) {
        size_t at = pattern + size_t(row) * 16 + size_t(ch) * 4;
        be16(bytes, at, uint16_t(note | (smp & 0x10) << 8));
        bytes[at + 2] = uint8_t((smp & 15) << 4 | fx);
        bytes[at + 3] = param;
    }
};

class Trackers : public ::testing::Test {
  protected:
    void SetUp() override {
        for (const char *p :
             {"SoundFX", "GameMusicCreator", "ImagesMusicSystem", "PolyTracker", "Oktalyzer", "DIGIBooster"})
            PTK_REQUIRE_PLAYER(p);
    }
};

}  // namespace

TEST_F(Trackers, SoundFxNotesVolumesAndCommands) {
    sfx_song s;
    s.cell(0, 0, 428, 1, 5, 10);      // volume 40 + 10
    s.cell(0, 1, 856, 2, 6, 80);      // volume 64 - 80: 0
    s.cell(0, 2, 428, 2);
    s.cell(1, 2, 0xFFFE, 0);          // STP
    s.cell(1, 0, 0xFFFD, 2);          // PIC: the sample number is not even read
    s.cell(2, 1, 0xFFFC, 0);          // BRK: row 2 is the pattern's last
    s.cell(3, 0, 320, 0);
    engine_ptr k = open_player("SoundFX", s.bytes);
    ASSERT_TRUE(k);
    run_ticks(k.get(), 1);
    EXPECT_EQ(k->aud[0].per, 428);
    EXPECT_EQ(k->aud[0].vol, 50);
    EXPECT_EQ(play_addr(k, 0), s.data);
    EXPECT_EQ(k->aud[0].len, 1);                         // no loop: silence queued
    EXPECT_EQ(k->aud[1].vol, 0);
    EXPECT_EQ(k->aud[2].lc, s.data + 4000 + 100);   // the loop is queued
    EXPECT_EQ(k->aud[2].len, 50);
    run_ticks(k.get(), 6);
    EXPECT_FALSE(k->aud[2].dma_running);
    EXPECT_EQ(k->aud[0].vol, 50);
    run_ticks(k.get(), 12);                              // rows 2 and (after BRK) 0 again
    EXPECT_EQ(k->aud[0].per, 428);
    EXPECT_TRUE(kelva_song_ended(k.get()));
}

TEST_F(Trackers, SoundFxEffectsOnTheTicksBetweenRows) {
    sfx_song s;
    s.cell(0, 0, 428, 1, 1, 0x37);    // arpeggio: +3, +7 semitones
    s.cell(0, 1, 428, 1, 2, 0x30);    // bend: period +3 per tick
    s.cell(0, 2, 428, 1, 2, 0x02);    // bend: period -2 per tick
    s.cell(0, 3, 428, 1, 7, 0x25);    // step to 2 semitones lower at 5 per tick
    engine_ptr k = open_player("SoundFX", s.bytes);
    ASSERT_TRUE(k);
    run_ticks(k.get(), 1);
    const uint16_t arp[5] = {360, 285, 428, 285, 360};
    const uint16_t step[4] = {433, 438, 443, 448};   // on towards 480, two semitones below
    for (int t = 0; t < 5; t++) {
        run_ticks(k.get(), 1);
        EXPECT_EQ(k->aud[0].per, arp[t]) << t;
        EXPECT_EQ(k->aud[1].per, 428 + 3 * (t + 1)) << t;
        EXPECT_EQ(k->aud[2].per, 428 - 2 * (t + 1)) << t;
        EXPECT_EQ(k->aud[3].per, t == 0 ? 428 : step[t - 1]) << t;
    }
}

TEST_F(Trackers, SoundFxTicksAtTheModulesCiaRate) {
    sfx_song s(28374);   // half the 50 Hz rate
    s.cell(0, 0, 428, 1);
    s.cell(1, 0, 381, 1);
    engine_ptr k = open_player("SoundFX", s.bytes);
    ASSERT_TRUE(k);
    // The first tick (at once) asks for 709379 / 28375 = 25 Hz, 1920 frames a
    // tick: the seventh tick, row 1, comes after 10560 frames at the earliest.
    run_ticks(k.get(), 11);
    EXPECT_EQ(k->aud[0].per, 428);
    run_ticks(k.get(), 2);
    EXPECT_EQ(k->aud[0].per, 381);
}

TEST_F(Trackers, SoundFx20HasThirtyOneSamplesWithBit4InTheNote) {
    sfx_song s(14187, true);
    s.cell(0, 0, 428, 17);
    s.cell(0, 1, 428, 2);
    engine_ptr k = open_player("SoundFX", s.bytes);
    ASSERT_TRUE(k);
    EXPECT_STREQ(kelva_get_format_name(k.get()), "SoundFX 2.0");
    run_ticks(k.get(), 1);
    EXPECT_EQ(play_addr(k, 0), s.data + 4000 + 200);   // after the data of samples 1 and 2
    EXPECT_EQ(k->aud[0].vol, 30);
    EXPECT_EQ(play_addr(k, 1), s.data + 4000);
}

// ---- Game Music Creator ------------------------------------------------------

namespace {

// Two positions of patterns 0 and 1; sample 1 = 2000 bytes, volume 40,
// its loop 1000 bytes in for 200 words; sample 2 = 100 bytes, volume 64.
struct gmc_song {
    std::vector<uint8_t> bytes;
    static constexpr uint32_t kData = kModule + 444 + 2048;
    gmc_song() : bytes(444 + 2048 + 2100, 0) {
        be32(bytes, 0, 0x30000);
        be16(bytes, 4, 1000);
        be16(bytes, 6, 40);
        be32(bytes, 8, 0x30000 + 1000);
        be16(bytes, 12, 200);
        be32(bytes, 16, 0x40000);
        be16(bytes, 20, 50);
        be16(bytes, 22, 64);
        be16(bytes, 28, 2);   // a loop of two words: none
        be32(bytes, 240, 2);
        be16(bytes, 246, 1024);
    }
    void cell(int pattern, int row, int ch, uint16_t period, uint8_t smp, uint8_t fx = 0, uint8_t param = 0) {
        size_t at = 444 + size_t(pattern) * 1024 + size_t(row) * 16 + size_t(ch) * 4;
        be16(bytes, at, period);
        bytes[at + 2] = uint8_t(smp << 4 | fx);
        bytes[at + 3] = param;
    }
};

}  // namespace

TEST_F(Trackers, GameMusicCreatorSlidesEveryTickAndWritesTheVolumeAfterTheNote) {
    gmc_song s;
    s.cell(0, 0, 0, 428, 1, 1, 3);    // slide up 3 per tick, also on row ticks
    s.cell(0, 0, 1, 428, 2, 3, 20);   // volume 20
    s.cell(0, 1, 0, 0, 0, 8, 2);      // speed 2; the slide goes on
    s.cell(0, 1, 2, 856, 2, 4, 0);    // break: position 1 follows row 1
    s.cell(1, 0, 3, 320, 2, 5, 0);    // jump back to position 0: the song's end
    engine_ptr k = open_player("GameMusicCreator", s.bytes);
    ASSERT_TRUE(k);
    run_ticks(k.get(), 1);
    EXPECT_EQ(k->aud[0].per, 428);
    EXPECT_EQ(k->aud[0].vol, 0);                      // silent until the next tick
    EXPECT_EQ(play_addr(k, 0), gmc_song::kData);
    EXPECT_EQ(k->aud[0].lc, gmc_song::kData + 1000);  // the loop, by its address
    EXPECT_EQ(k->aud[0].len, 200);
    EXPECT_EQ(k->aud[1].len, 1);                      // two words: no loop
    run_ticks(k.get(), 1);
    EXPECT_EQ(k->aud[0].per, 425);
    EXPECT_EQ(k->aud[0].vol, 40);
    EXPECT_EQ(k->aud[1].vol, 20);
    run_ticks(k.get(), 5);                            // row 1 on the seventh tick
    EXPECT_EQ(k->aud[0].per, 428 - 6 * 3);
    run_ticks(k.get(), 2);                            // speed 2: position 1, row 0
    EXPECT_EQ(k->aud[3].per, 320);
    EXPECT_FALSE(kelva_song_ended(k.get()));
    run_ticks(k.get(), 2);
    EXPECT_TRUE(kelva_song_ended(k.get()));
}

// ---- Images Music System ---------------------------------------------------------

namespace {

// Two stored patterns, the song plays pattern 1 then 0; sample 1 = 400
// bytes, volume 48, looping from word 100 for 50 words.
struct ims_song {
    std::vector<uint8_t> bytes;
    static constexpr uint32_t kSamples = 1084 + 2 * 768;
    ims_song() : bytes(kSamples + 400, 0) {
        memcpy(&bytes[0], "ims test", 8);
        be16(bytes, 20 + 22, 200);
        bytes[20 + 25] = 48;
        be16(bytes, 20 + 26, 100);
        be16(bytes, 20 + 28, 50);
        bytes[950] = 2;
        bytes[952] = 1;
        bytes[953] = 0;
        be32(bytes, 1080, kSamples);
    }
    void cell(int pattern, int row, int ch, uint8_t note, uint8_t smp, uint8_t fx = 0, uint8_t param = 0) {
        size_t at = 1084 + size_t(pattern) * 768 + size_t(row) * 12 + size_t(ch) * 3;
        bytes[at] = uint8_t(note | (smp & 0x10) << 2);
        bytes[at + 1] = uint8_t((smp & 15) << 4 | fx);
        bytes[at + 2] = param;
    }
};

}  // namespace

TEST_F(Trackers, ImagesMusicSystemNotesAreSemitonesFromC1AtNote16) {
    ims_song s;
    const uint8_t notes[4] = {16, 13, 4, 40};
    const uint16_t periods[4] = {856, 1017, 1712, 214};
    for (int c = 0; c < 4; c++) s.cell(1, 0, c, notes[c], 1);
    s.cell(1, 1, 0, 63, 0, 0xD, 0x10);   // note 63: none; break to row 16 of pattern 0
    s.cell(0, 16, 1, 28, 1, 0xA, 0x02);  // volume slide down 2
    engine_ptr k = open_player("ImagesMusicSystem", s.bytes);
    ASSERT_TRUE(k);
    run_ticks(k.get(), 1);
    for (int c = 0; c < 4; c++) EXPECT_EQ(k->aud[c].per, periods[c]) << c;
    EXPECT_EQ(play_addr(k, 0), kModule + ims_song::kSamples);
    EXPECT_EQ(k->aud[0].lc, kModule + ims_song::kSamples + 200);
    EXPECT_EQ(k->ch[0].end, 300u);                   // played to the loop's end
    EXPECT_EQ(k->aud[0].vol, 48);
    run_ticks(k.get(), 6);
    EXPECT_EQ(k->aud[0].per, 856);
    run_ticks(k.get(), 6 + 2);                       // row 16 of pattern 0, tick 2
    EXPECT_EQ(k->aud[1].per, 428);
    EXPECT_EQ(k->aud[1].vol, 44);
    char title[32];
    kelva_get_module_name(k.get(), title, sizeof title);
    EXPECT_STREQ(title, "ims test");
}

TEST_F(Trackers, ImagesMusicSystemRefusesALayoutThatDoesNotAddUp) {
    ims_song s;
    std::vector<uint8_t> bad = s.bytes;
    be32(bad, 1080, ims_song::kSamples + 1);   // not a whole number of patterns
    EXPECT_FALSE(open_player("ImagesMusicSystem", bad));
    bad = s.bytes;
    bad[953] = 2;                               // a pattern that is not stored
    EXPECT_FALSE(open_player("ImagesMusicSystem", bad));
    bad = s.bytes;
    be32(bad, 1080, uint32_t(bad.size()) + 768 * 4);
    EXPECT_FALSE(open_player("ImagesMusicSystem", bad));
}

// ---- PolyTracker -------------------------------------------------------------

namespace {

// A PolyTracker module: channels with their pan positions, instruments (8-bit
// samples of given bytes, stored as differences, looping whole), orders and
// cells. Patterns are written row by row at the paragraph after the
// instruments.
struct ptm_cell {
    int pattern, row, channel;
    uint8_t note, ins;
    int vol;   // -1: none
    uint8_t cmd, param;
};

struct ptm_instrument {
    std::vector<int8_t> sample;
    uint8_t volume = 64;
    uint16_t rate = 8363;
};

std::vector<uint8_t> ptm_module(const std::vector<uint8_t> &pans, const std::vector<ptm_instrument> &ins,
                                const std::vector<uint8_t> &orders, int patterns, const std::vector<ptm_cell> &cells) {
    std::vector<uint8_t> m(608 + 80 * ins.size(), 0);
    memcpy(&m[0], "ptm test", 8);
    m[28] = 0x1A;
    le16(m, 32, uint16_t(orders.size()));
    le16(m, 34, uint16_t(ins.size()));
    le16(m, 36, uint16_t(patterns));
    le16(m, 38, uint16_t(pans.size()));
    memcpy(&m[44], "PTMF", 4);
    for (size_t c = 0; c < pans.size(); c++) m[64 + c] = pans[c];
    for (size_t i = 0; i < 256; i++) m[96 + i] = i < orders.size() ? orders[i] : 255;
    for (int p = 0; p < patterns; p++) {
        while (m.size() % 16) m.push_back(0);
        le16(m, 352 + 2 * size_t(p), uint16_t(m.size() / 16));
        for (int r = 0; r < 64; r++) {
            for (const ptm_cell &c : cells) {
                if (c.pattern != p || c.row != r) continue;
                uint8_t flags = uint8_t(c.channel | (c.note || c.ins ? 0x20 : 0) | (c.cmd || c.param ? 0x40 : 0) |
                                        (c.vol >= 0 ? 0x80 : 0));
                m.push_back(flags);
                if (flags & 0x20) m.insert(m.end(), {c.note ? c.note : uint8_t(255), c.ins});
                if (flags & 0x40) m.insert(m.end(), {c.cmd, c.param});
                if (flags & 0x80) m.push_back(uint8_t(c.vol));
            }
            m.push_back(0);
        }
    }
    for (size_t i = 0; i < ins.size(); i++) {
        size_t h = 608 + 80 * i;
        m[h] = 1 | 4;   // a looping sample
        m[h + 13] = ins[i].volume;
        le16(m, h + 14, ins[i].rate);
        le32(m, h + 18, uint32_t(m.size()));
        le32(m, h + 22, uint32_t(ins[i].sample.size()));
        le32(m, h + 30, uint32_t(ins[i].sample.size()));
        int8_t last = 0;
        for (int8_t v : ins[i].sample) {
            m.push_back(uint8_t(v - last));
            last = v;
        }
    }
    return m;
}

ptm_instrument ramp() {
    ptm_instrument i;
    for (int v = 0; v < 256; v++) i.sample.push_back(int8_t(v));
    return i;
}

ptm_instrument level(int8_t v, uint8_t volume = 64) {
    ptm_instrument i;
    i.sample.assign(64, v);
    i.volume = volume;
    return i;
}

// How far a looping 256-byte ramp advanced over a block: the voice's step
// in bytes per mixed sample, times the block's length less one.
int ramp_advance(const std::vector<int8_t> &b) { return uint8_t(b.back() - b.front()); }

// The step a note plays at: rate x 2^((note - 49) / 12) samples a second,
// mixed at 3546895 / 124 a second.
double expected_advance(int note, double rate, size_t block) {
    return rate * std::pow(2.0, (note - 49) / 12.0) / (3546895.0 / 124) * double(block - 1);
}

}  // namespace

TEST_F(Trackers, PolyTrackerPitchFromNoteAndRateAndSlides) {
    ptm_instrument fast = ramp();
    fast.rate = 16726;   // an octave above the usual C-4 rate
    auto m = ptm_module({0, 15, 0, 15}, {ramp(), fast}, {0}, 1,
                        {{0, 0, 0, 49, 1, -1, 0, 0},
                         {0, 0, 1, 61, 1, -1, 0, 0},
                         {0, 0, 2, 49, 2, -1, 0x1, 0x10},     // slide up 16 a tick: 64 units
                         {0, 0, 3, 52, 1, -1, 0x0, 0x47}});   // arpeggio +4, +7
    engine_ptr k = open_player("PolyTracker", m);
    ASSERT_TRUE(k);
    run_ticks(k.get(), 1);
    // Pans 0 and 15 give Paula channels 0 (left) and 1 (right), then 3 and 2.
    const size_t block = mixed(k, 0).size();
    EXPECT_NEAR(ramp_advance(mixed(k, 0)), expected_advance(49, 8363, block), 1.0);
    EXPECT_NEAR(ramp_advance(mixed(k, 1)), expected_advance(61, 8363, block), 1.0);
    EXPECT_NEAR(ramp_advance(mixed(k, 3)), expected_advance(49, 16726, block), 1.0);
    run_ticks(k.get(), 3);   // ticks 1, 2, 3 of row 0
    // Period 1712 / 2 (the faster sample) - 3 x 64 = 664: 14317056 / 664 Hz.
    EXPECT_NEAR(ramp_advance(mixed(k, 3)), 14317056.0 / 664 / (3546895.0 / 124) * double(block - 1), 1.0);
    // Tick 3 of the arpeggio: the note itself again; tick 2 was +7.
    EXPECT_NEAR(ramp_advance(mixed(k, 2)), expected_advance(52, 8363, block), 1.0);
}

TEST_F(Trackers, PolyTrackerLevelsThroughTheLoudnessCurveAndAnEvenMix) {
    // Six channels: three left (Paula 0 gets two, Paula 3 one), three right
    // (Paula 1 two, Paula 2 one). Every channel gets the share of the
    // busiest Paula channel: a level of 100 at volume 64 mixes to 100 x 64
    // >> 7. Volume 32 is heard as 41 (64 x 0.5^0.6); global volume 32 then
    // halves every channel's volume before the curve.
    auto m = ptm_module({0, 3, 7, 8, 12, 15}, {level(100), level(100, 32)}, {0}, 1,
                        {{0, 0, 0, 49, 1, -1, 0, 0},
                         {0, 0, 1, 49, 2, -1, 0, 0},
                         {0, 0, 2, 49, 1, 32, 0, 0},
                         {0, 0, 3, 49, 1, -1, 0, 0},
                         {0, 0, 4, 49, 1, -1, 0, 0},
                         {0, 0, 5, 49, 1, 64, 0, 0},
                         {0, 1, 4, 0, 0, -1, 16, 32}});
    engine_ptr k = open_player("PolyTracker", m);
    ASSERT_TRUE(k);
    run_ticks(k.get(), 1);
    auto all = [](const std::vector<int8_t> &b, int v) {
        for (int8_t x : b)
            if (x != v) return false;
        return true;
    };
    EXPECT_TRUE(all(mixed(k, 0), (100 * 64 + 100 * 41) >> 7));   // channels 0 and 2
    EXPECT_TRUE(all(mixed(k, 3), (100 * 41) >> 7));              // channel 1 (its instrument's volume)
    EXPECT_TRUE(all(mixed(k, 1), (100 * 64 + 100 * 64) >> 7));   // channels 3 and 5
    EXPECT_TRUE(all(mixed(k, 2), (100 * 64) >> 7));              // channel 4
    run_ticks(k.get(), 6);   // row 1: global volume 32
    EXPECT_TRUE(all(mixed(k, 2), (100 * 41) >> 7));
    EXPECT_TRUE(all(mixed(k, 3), (100 * 28) >> 7));              // 16 is heard as 28
}

TEST_F(Trackers, PolyTrackerPatternLoopIsOneForTheWholeSong) {
    // Speed 1: a row is 20 ms. Pattern 0: channel 1 sets the loop's row (1),
    // channel 0 loops once: rows 0 1 2 1 2 3 .. 63 (66 rows). Pattern 1:
    // its loop returns to row 1, the target pattern 0 set: rows 0..5, 1..63
    // (69 rows). The song ends when row 0 of position 0 comes again.
    auto m = ptm_module({0, 15}, {level(50)}, {0, 1}, 2,
                        {{0, 0, 0, 49, 1, -1, 0xF, 1},
                         {0, 1, 1, 0, 0, -1, 0xE, 0x60},
                         {0, 2, 0, 0, 0, -1, 0xE, 0x61},
                         {1, 5, 0, 0, 0, -1, 0xE, 0x61}});
    engine_ptr k = open_player("PolyTracker", m);
    ASSERT_TRUE(k);
    int32_t reason = 0;
    EXPECT_EQ(kelva_measure_length(k.get(), 0, 0, &reason, nullptr, nullptr), uint64_t(66 + 69) * 20);
    EXPECT_EQ(reason, 1);
}

TEST_F(Trackers, PolyTrackerTempoGivesTheTickItsExactLength) {
    // F80: 128 beats per minute, a tick of 2.5 / 128 s = 13855.06 E-clock
    // cycles; the CIA counts its value plus one.
    auto m = ptm_module({0}, {level(50)}, {0}, 1, {{0, 0, 0, 49, 1, -1, 0xF, 0x80}});
    engine_ptr k = open_player("PolyTracker", m);
    ASSERT_TRUE(k);
    run_ticks(k.get(), 1);
    const uint8_t *timer = k->ram + 0xF90000 + 54;
    EXPECT_EQ(timer[0] << 8 | timer[1], 13854);
}

TEST_F(Trackers, PolyTrackerRefusesDamagedFiles) {
    auto good = ptm_module({0, 15}, {level(50)}, {0}, 1, {{0, 0, 0, 49, 1, -1, 0, 0}});
    ASSERT_TRUE(open_player("PolyTracker", good));
    auto twice = ptm_module({0, 15}, {level(50)}, {0}, 1, {{0, 0, 0, 49, 1, -1, 0, 0}, {0, 0, 0, 50, 1, -1, 0, 0}});
    EXPECT_FALSE(open_player("PolyTracker", twice));   // a row names channel 0 twice
    auto bad = good;
    le16(bad, 38, 33);   // 33 channels
    EXPECT_FALSE(open_player("PolyTracker", bad));
    bad = good;
    bad[96] = 7;         // the only order names a pattern that does not exist
    EXPECT_FALSE(open_player("PolyTracker", bad));
    bad = good;
    bad.resize(700);     // cut inside the pattern: the missing rows are empty
    EXPECT_TRUE(open_player("PolyTracker", bad));
}

// ---- The shared real modules -------------------------------------------------------

TEST_F(Trackers, RealModulesAreIdentifiedAndPlay) {
    KELVA_REQUIRE_SHARED("testdata/modules/other");
    kelva_global_init();
    data_tree_env env;
    const struct {
        const char *file, *name_as, *player, *format;
    } kModules[] = {
        {"other/SFX.Crockett's_theme", nullptr, "SoundFX", "SoundFX 1.3"},
        {"other/gmc.ingame", nullptr, "GameMusicCreator", "Game Music Creator"},
        {"other/redoctober-sub-docking.ims", nullptr, "ImagesMusicSystem", "Images Music System"},
        {"other/redoctober-sub-docking.ims", "sub-docking.st", "ImagesMusicSystem", "Images Music System"},
        {"other/rew_vibr.ptm", nullptr, "PolyTracker", "PolyTracker"},
        {"other/pattern_loop_ptm.ptm", nullptr, "PolyTracker", "PolyTracker"},
        {"other/yyde2.digi", nullptr, "DIGIBooster", "DIGI Booster 1.4"},
        {"okt/OKT.Yes-PartII", nullptr, "Oktalyzer", "Oktalyzer"},
        {"okt/demosong 1.okta", nullptr, "Oktalyzer", "Oktalyzer"},
        {"okt/distortion.okt", nullptr, "Oktalyzer", "Oktalyzer"},
        {"okt/lumme.okta", nullptr, "Oktalyzer", "Oktalyzer"},
        {"okt/orbit.okta", nullptr, "Oktalyzer", "Oktalyzer"},
        {"okt/45.okt2", nullptr, "Oktalyzer", "Oktalyzer (OKTASNG2)"},
    };
    for (const auto &m : kModules) {
        SCOPED_TRACE(m.file);
        std::string path = shared_dir() + "/testdata/modules/" + m.file;
        std::vector<uint8_t> data = read_bytes(path);
        if (data.empty()) GTEST_SKIP() << path << " not found";
        std::string as = m.name_as ? m.name_as : path;
        char player[4096];
        ASSERT_EQ(kelva_identify(as.c_str(), data.data(), uint32_t(data.size()), player, sizeof player), 1);
        EXPECT_EQ(std::string(player), player_path(m.player));
        engine_ptr k = make_engine(48000);
        std::vector<uint8_t> p = read_bytes(player);
        ASSERT_EQ(kelva_open(k.get(), p.data(), uint32_t(p.size()), data.data(), uint32_t(data.size()), player,
                             as.c_str(), 0),
                  0);
        EXPECT_STREQ(kelva_get_format_name(k.get()), m.format);
        std::vector<float> buf(4800 * 2);
        float peak = 0;
        for (int i = 0; i < 30; i++) {   // 3 s
            kelva_render(k.get(), buf.data(), 4800);
            for (float v : buf) peak = std::max(peak, std::fabs(v));
        }
        EXPECT_GT(peak, 1.0f / 1024) << "silent";
    }
}
