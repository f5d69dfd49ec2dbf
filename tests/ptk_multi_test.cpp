// The ProTracker family beyond four plain channels: software mixing of 5-32
// channels onto Paula, the FLT8 pattern pairs, His Master's Noise synth
// sounds and Startrekker AM sounds (AudioSculpture).
//
// Mixing is checked through the buffers Paula plays: a sample whose bytes
// are all 100, played at volume V by tracker channel c of an N-channel
// module, must fill the buffer of Paula channel c mod 4 with
// 100 x V / 64 / S, S = ceil(N / 4) rounded up to a power of two, and leave
// the other Paula channels at 0.
#include <gtest/gtest.h>

#include <cstring>

#include "ptk_support.h"
#include "support/modbuild.h"

using namespace ptk_test;

namespace {

// A 31-instrument module of `patterns` patterns of `channels` channels (4
// channels x 2 per pattern for FLT8) and the samples' data filled with
// constant bytes.
struct multi_module {
    std::vector<uint8_t> bytes;
    uint32_t channels, pattern_bytes;
};

multi_module multi_new(const char *tag, uint32_t channels, uint32_t patterns) {
    mod_builder m = mod_new(tag, 0);
    multi_module r;
    r.channels = channels;
    r.pattern_bytes = channels * 256;
    r.bytes = m.bytes;
    r.bytes.resize(1084 + patterns * r.pattern_bytes, 0);
    return r;
}

void put16(std::vector<uint8_t> &b, uint32_t at, uint32_t v) {
    b[at] = uint8_t(v >> 8);
    b[at + 1] = uint8_t(v);
}

// Sample i (1-based): header fields, name at the start.
void sample(multi_module &m, int i, uint16_t words, uint8_t volume, uint16_t rep = 0, uint16_t replen = 1,
            const char *name = "", uint8_t finetune = 0) {
    uint32_t at = 20 + 30 * uint32_t(i - 1);
    memcpy(m.bytes.data() + at, name, strlen(name));
    put16(m.bytes, at + 22, words);
    m.bytes[at + 24] = finetune;
    m.bytes[at + 25] = volume;
    put16(m.bytes, at + 26, rep);
    put16(m.bytes, at + 28, replen);
}

// A cell at the byte offset of pattern storage `at` (from 1084).
void cell_at(multi_module &m, uint32_t at, uint16_t period, uint8_t smp, uint8_t cmd = 0, uint8_t param = 0) {
    uint8_t *c = m.bytes.data() + 1084 + at;
    c[0] = uint8_t((smp & 0xF0) | (period >> 8));
    c[1] = uint8_t(period);
    c[2] = uint8_t((smp << 4) | (cmd & 15));
    c[3] = param;
}
void cell(multi_module &m, uint32_t pattern, int row, uint32_t ch, uint16_t period, uint8_t smp, uint8_t cmd = 0,
          uint8_t param = 0) {
    cell_at(m, pattern * m.pattern_bytes + uint32_t(row) * m.channels * 4 + ch * 4, period, smp, cmd, param);
}

// Appends each sample's data: `words` x 2 bytes of `value`.
void sample_data(multi_module &m, std::initializer_list<std::pair<uint16_t, int8_t>> data) {
    for (auto [words, value] : data) m.bytes.insert(m.bytes.end(), size_t(words) * 2, uint8_t(value));
}

engine_ptr open_module(const std::vector<uint8_t> &mod, const char *player = "PTK-Prowiz") {
    kelva_global_init();
    engine_ptr k = make_engine(48000);
    std::vector<uint8_t> p = read_bytes(player_path(player));
    std::string pp = player_path(player);
    if (kelva_open(k.get(), p.data(), uint32_t(p.size()), mod.data(), uint32_t(mod.size()), pp.c_str(), nullptr,
                   0) != 0)
        return nullptr;
    return k;
}

// The bytes of the block Paula channel x plays.
std::vector<int8_t> playing(const engine_ptr &k, int x) {
    const paula_channel &c = k->ch[x];
    return std::vector<int8_t>(reinterpret_cast<const int8_t *>(c.data), reinterpret_cast<const int8_t *>(c.data) + c.end);
}

// Whether every byte of Paula channel x's block is `value`.
bool block_is(const engine_ptr &k, int x, int8_t value) {
    std::vector<int8_t> b = playing(k, x);
    if (b.empty()) return false;
    for (int8_t v : b)
        if (v != value) return false;
    return true;
}

class PtkMulti : public ::testing::Test {
  protected:
    void SetUp() override { PTK_REQUIRE_PLAYER("PTK-Prowiz"); }
};

}  // namespace

// A channel's sample reaches Paula channel c mod 4 at 1/S of its level.
TEST_F(PtkMulti, ChannelsAreMixedOntoTheirPaulaChannelAtAnEqualShare) {
    struct mix_case {
        const char *tag;
        uint32_t channels, channel;
        uint8_t volume;
        int8_t expected;   // 100 x volume / 64 / S
    } cases[] = {
        {"5CHN", 5, 2, 32, 25},    // S = 2: a lone voice on Paula 2 still gets half
        {"6CHN", 6, 4, 64, 50},    // the second voice of Paula 0
        {"8CHN", 8, 7, 64, 50},
        {"CD81", 8, 5, 48, 37},    // 100 x 48 / 128 = 37.5
        {"OKTA", 8, 1, 64, 50},
        {"12CH", 12, 9, 64, 25},   // S = 4
        {"32CH", 32, 31, 64, 12},  // S = 8: 12.5
        {"TDZ9", 9, 8, 64, 25},
    };
    for (const mix_case &c : cases) {
        SCOPED_TRACE(c.tag);
        multi_module m = multi_new(c.tag, c.channels, 1);
        sample(m, 1, 500, c.volume, 0, 500);   // looping, all bytes 100
        cell(m, 0, 0, c.channel, 428, 1);
        sample_data(m, {{500, 100}});
        engine_ptr k = open_module(m.bytes);
        ASSERT_TRUE(k);
        run_ticks(k.get(), 3);
        for (int x = 0; x < 4; x++) {
            EXPECT_EQ(k->aud[x].per, 180) << x;   // the mixing rate: 19,705 Hz
            EXPECT_EQ(k->aud[x].vol, 64) << x;
            EXPECT_TRUE(block_is(k, x, x == int(c.channel & 3) ? c.expected : 0)) << "Paula channel " << x;
        }
    }
}

// Channels sharing a Paula channel add up; an instrument given without a
// note follows the one-shot sample playing, as Paula's queued block does.
TEST_F(PtkMulti, VoicesAddUpAndAQueuedInstrumentFollowsTheSample) {
    multi_module m = multi_new("8CHN", 8, 1);
    sample(m, 1, 500, 64, 0, 500);   // 100, looping
    sample(m, 2, 2000, 64);          // -60, one-shot
    sample(m, 3, 50, 64, 0, 50);     // 40, looping
    cell(m, 0, 0, 0, 428, 1);
    cell(m, 0, 0, 4, 428, 1);        // the same Paula channel: 50 + 50
    cell(m, 0, 0, 1, 856, 2);        // 4000 bytes at period 856: 0.97 s
    cell(m, 0, 1, 1, 0, 3);          // row 1: instrument 3 without a note
    sample_data(m, {{500, 100}, {2000, -60}, {50, 40}});
    engine_ptr k = open_module(m.bytes);
    ASSERT_TRUE(k);
    run_ticks(k.get(), 2);
    EXPECT_TRUE(block_is(k, 0, 100));
    EXPECT_TRUE(block_is(k, 1, -30));
    run_ticks(k.get(), 20);          // row 1 has queued instrument 3; sample 2 plays on
    EXPECT_TRUE(block_is(k, 1, -30));
    // Tick 52 mixes 1.02-1.04 s: sample 2 ended at 0.965 s, the next row
    // (which queues the loop again) comes at 1.08 s.
    run_ticks(k.get(), 30);
    EXPECT_TRUE(block_is(k, 0, 100));
    EXPECT_TRUE(block_is(k, 1, 20)) << "the queued instrument's loop, at the end of the sample";
}

// FLT8: position p plays the even four-channel pattern (p & ~1) for channels
// 0-3 and the next one for channels 4-7; samples follow the last pair.
TEST_F(PtkMulti, Flt8PlaysPatternPairs) {
    multi_module m = multi_new("FLT8", 4, 4);   // four stored four-channel patterns
    m.bytes[950] = 3;                           // orders 0, 2, 1
    m.bytes[952] = 0;
    m.bytes[953] = 2;
    m.bytes[954] = 1;
    sample(m, 1, 200, 64, 0, 200);   // 100
    sample(m, 2, 200, 64, 0, 200);   // 40
    cell(m, 1, 0, 1, 428, 1);        // pattern 1 = channels 4-7 of pair 0: channel 5
    cell(m, 3, 0, 1, 428, 2);        // pair 1 (pattern 3), channel 5
    sample_data(m, {{200, 100}, {200, 40}});
    engine_ptr k = open_module(m.bytes);
    ASSERT_TRUE(k);
    run_ticks(k.get(), 3);
    EXPECT_TRUE(block_is(k, 1, 50)) << "channel 5 from the odd half of pair 0, at row 0";
    EXPECT_TRUE(block_is(k, 0, 0));
    run_ticks(k.get(), 64 * 6);      // position 1: pair 1
    EXPECT_TRUE(block_is(k, 1, 20));
    run_ticks(k.get(), 64 * 6);      // position 2: order 1 is pair 0 again
    EXPECT_TRUE(block_is(k, 1, 50));
}

// His Master's Noise: a "Mupp" instrument plays (first step << 8 | last
// step) words of its pattern, then each tick the step table's waveform
// (queued) at the step's volume x the instrument's / 64, the steps looping
// from the first to the last. Plain samples get the finetune byte as a
// period factor 1 + fine / 256; 7xy steps through a chord table.
TEST_F(PtkMulti, HisMastersNoiseSynthSoundsFinetuneAndChords) {
    multi_module m = multi_new("M&K!", 4, 2);
    m.bytes[950] = 1;   // song: pattern 0; pattern 1 holds the synth sound
    m.bytes[953] = 1;
    const char mupp[] = {'M', 'u', 'p', 'p', 1, 1, 3, 0};
    sample(m, 1, 0, 48, 0, 1, mupp);
    sample(m, 2, 100, 64, 0, 1, "", 0xFE);
    sample(m, 3, 100, 64);
    uint32_t base = 1084 + 1024;
    for (uint32_t w = 0; w < 28; w++) memset(m.bytes.data() + base + 32 * w, int(w), 32);
    const uint8_t waves[4] = {3, 9, 6, 12}, vols[4] = {64, 32, 0x80 | 16, 100};
    for (int i = 0; i < 4; i++) {
        m.bytes[base + 0x380 + i] = waves[i];
        m.bytes[base + 0x3C0 + i] = vols[i];
    }
    cell(m, 0, 0, 0, 428, 1);
    cell(m, 0, 1, 1, 428, 2);
    cell(m, 0, 0, 2, 428, 3, 7, 0x01);   // chord table 1: 0, 4, 7, 12, 16, 12, ...
    sample_data(m, {{100, 10}, {100, 10}});
    engine_ptr k = open_module(m.bytes);
    ASSERT_TRUE(k);
    EXPECT_STREQ(k->epopt, "");
    run_ticks(k.get(), 1);
    EXPECT_EQ(uint32_t(k->ch[0].data - k->ram), kModule + base);
    EXPECT_EQ(k->ch[0].end, 2u * ((1 << 8) | 3));
    // Steps 0, 1, 2, 3, then 1, 2, 3 again.
    const int order[7] = {0, 1, 2, 3, 1, 2, 3};
    const uint16_t chord[6] = {428, 339, 285, 214, 170, 214};
    for (int t = 0; t < 7; t++) {
        SCOPED_TRACE(t);
        if (t) run_ticks(k.get(), 1);
        int s = order[t];
        EXPECT_EQ(k->aud[0].vol, (48 * (vols[s] & 0x7F)) >> 6 > 64 ? 64 : (48 * (vols[s] & 0x7F)) >> 6);
        EXPECT_EQ(k->aud[0].lc, kModule + base + 32u * waves[s]);
        EXPECT_EQ(k->aud[0].len, 16);
        if (t < 6) {
            EXPECT_EQ(k->aud[2].per, chord[t]);
        }
    }
    EXPECT_EQ(k->aud[1].per, 428 - 4);   // row 1: 428 + (428 x -2 >> 8), rounded down
}

// Startrekker AM sounds (the shared crafted modules and their .nt files):
// each is made so that its left and right channels sound the same when
// the sounds are played as the tracker did; flt_am_envelope pins the
// envelope's first attack (left: from 0x40 by 2 a tick, right: from 0x20 by
// 1, applied on the note's own tick; Paula volume = level / 4).
TEST(PtkAudioSculpture, AmSoundsAsTheTrackerPlayedThem) {
    KELVA_REQUIRE_SHARED("testdata/modules/startrekker-am");
    PTK_REQUIRE_PLAYER("AudioSculpture");
    kelva_global_init();
    data_tree_env env;
    std::string dir = shared_dir() + "/testdata/modules/startrekker-am/";
    for (const char *name : {"flt_am_envelope.mod", "flt_am_ignore_volfx.mod", "flt_am_new_note.mod",
                             "flt_am_override.mod", "flt_am_period_fall.mod"}) {
        SCOPED_TRACE(name);
        std::string path = dir + name;
        std::vector<uint8_t> data = read_bytes(path);
        char player[4096];
        ASSERT_TRUE(kelva_identify(path.c_str(), data.data(), uint32_t(data.size()), player, sizeof player));
        EXPECT_STREQ(strrchr(player, '/') + 1, "AudioSculpture");
        std::vector<uint8_t> p = read_bytes(player);
        engine_ptr k = make_engine(48000);
        ASSERT_EQ(kelva_open(k.get(), p.data(), uint32_t(p.size()), data.data(), uint32_t(data.size()), player,
                             path.c_str(), 0),
                  0);
        EXPECT_STREQ(kelva_get_format_name(k.get()), "Startrekker AM (FLT4 + .nt)");
        kelva_set_separation(k.get(), 1.0f);
        std::vector<float> pcm(4800 * 2);
        double energy = 0, diff = 0;
        for (int b = 0; b < 20; b++) {   // 2 s
            kelva_render(k.get(), pcm.data(), 4800);
            for (int i = 0; i < 4800; i++) {
                energy += double(pcm[2 * i]) * pcm[2 * i];
                diff += (double(pcm[2 * i]) - pcm[2 * i + 1]) * (double(pcm[2 * i]) - pcm[2 * i + 1]);
            }
        }
        EXPECT_GT(energy, 1.0) << "silent";
        EXPECT_LT(diff, energy * 1e-3) << "left and right differ";
    }
}

TEST(PtkAudioSculpture, EnvelopeAttackStepsOnceATick) {
    KELVA_REQUIRE_SHARED("testdata/modules/startrekker-am");
    PTK_REQUIRE_PLAYER("AudioSculpture");
    kelva_global_init();
    std::string path = shared_dir() + "/testdata/modules/startrekker-am/flt_am_envelope.mod";
    std::vector<uint8_t> data = read_bytes(path);
    std::vector<uint8_t> p = read_bytes(player_path("AudioSculpture"));
    std::string pp = player_path("AudioSculpture");
    engine_ptr k = make_engine(48000);
    ASSERT_EQ(kelva_open(k.get(), p.data(), uint32_t(p.size()), data.data(), uint32_t(data.size()), pp.c_str(),
                         path.c_str(), 0),
              0);
    // Both reach their attack level on tick 96; the second attack, the
    // decay and the sustain (ST = 0) take a tick each, and the release
    // (rate 255, 128) ends at 0 on tick 100.
    int done = 0;
    for (int n : {1, 48, 95, 96, 99, 100}) {
        run_ticks(k.get(), n - done);
        done = n;
        SCOPED_TRACE(n);
        EXPECT_EQ(k->aud[0].vol, n < 100 ? std::min(0x40 + 2 * n, 0xFF) >> 2 : 0);
        EXPECT_EQ(k->aud[1].vol, n < 100 ? std::min(0x20 + n, 0x80) >> 2 : 0);
        EXPECT_EQ(k->aud[3].vol, 0) << "attack rate 0 holds the level at L0 = 0";
        EXPECT_EQ(k->aud[0].per, 856) << "FQ 1: an octave below C-2";
    }
}
