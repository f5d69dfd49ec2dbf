// The players' software mixer (players/lib/swmix.c), run by the SwMix test player on Paula channel 0: a voice
// adds sample x volume, the sum is shifted right by 6 plus one bit per doubling of the voice count, positions
// advance by (mixing period << 16) / period in 16.16 fixed point.
#include "ptk_support.h"

using namespace ptk_test;

namespace {

struct voice_spec {
    std::vector<int8_t> sample;
    uint32_t loop_start = 0, loop_len = 0;
    uint16_t period = 124, volume = 64;
};

// Opens 'SWMX' (mixing period 124, block size, voice count, per voice: data offset, length, loop start and length,
// period, volume; the samples).
engine_ptr swmx(uint16_t block, const std::vector<voice_spec> &voices) {
    std::vector<uint8_t> m = {'S', 'W', 'M', 'X', 0, 124, uint8_t(block >> 8), uint8_t(block), 0,
                              uint8_t(voices.size())}, samples;
    for (const voice_spec &v : voices) {
        uint32_t at = uint32_t(10 + 20 * voices.size() + samples.size());
        for (uint32_t x : {at, uint32_t(v.sample.size()), v.loop_start, v.loop_len}) put_be32(m, x);
        m.insert(m.end(), {uint8_t(v.period >> 8), uint8_t(v.period), uint8_t(v.volume >> 8), uint8_t(v.volume)});
        samples.insert(samples.end(), v.sample.begin(), v.sample.end());
        samples.resize((samples.size() + 1) & ~size_t(1));
    }
    m.insert(m.end(), samples.begin(), samples.end());
    return open_player(KELVA_TEST_PLAYERS "/SwMix", m);
}
// The first `n` bytes of the block Paula plays.
std::vector<int8_t> playing(const engine_ptr &k, size_t n) {
    EXPECT_TRUE(k) << "not opened";
    const int8_t *b = k ? reinterpret_cast<const int8_t *>(k->ch[0].data) : nullptr;
    return b ? std::vector<int8_t>(b, b + n) : std::vector<int8_t>(n);
}

PTK_FIXTURE(SwMix, KELVA_TEST_PLAYERS "/SwMix");

TEST_F(SwMix, LevelsStepsLoopsAndOneShotEnds) {
    // (100 x 64 - 40 x 32) >> 7 on Paula 0 at the mixing period, full volume, 64-byte blocks; the channels not
    // mixed stay off.
    engine_ptr k = swmx(64, {{std::vector<int8_t>(16, 100), 0, 16}, {std::vector<int8_t>(16, -40), 0, 16, 124, 32}});
    ASSERT_TRUE(k);
    EXPECT_EQ(playing(k, 64), std::vector<int8_t>(64, 40));
    trk::expect_probes(k.get(), "d0=1 p0=124 v0=64 l0=32 d1=0");
    // A one-shot sample falls silent at its end (two voices: shift 7).
    std::vector<int8_t> got = playing(swmx(32, {{std::vector<int8_t>(10, 50)}, {std::vector<int8_t>(2, 0)}}), 32);
    for (int i = 0; i < 32; i++) EXPECT_EQ(got[i], i < 10 ? 25 : 0) << i;
    // Period 186: 124 / 186 of a byte a sample; one voice: the ramp's bytes.
    got = playing(swmx(256, {{ramp(64), 32, 32, 186}}), 256);
    for (uint64_t i = 0, pos = 0; i < 256; i++, pos += (124u << 16) / 186) {
        if ((pos >> 16) >= 64) pos -= uint64_t(32) << 16;
        ASSERT_EQ(got[i], int8_t(pos >> 16)) << "sample " << i;
    }
}

// A looping 256-byte ramp at the mixing period: Paula must output it without a break while the interrupt
// refills the buffers, so every new sample is the previous one plus 1 (a buffer played twice or skipped would
// jump by a whole block), 3546895 / 124 of them a second.
TEST_F(SwMix, BuffersFollowEachOtherWithoutABreak) {
    engine_ptr k = swmx(200, {{ramp(256), 0, 256}});
    ASSERT_TRUE(k);
    float frame[2];
    uint32_t changes = 0;
    for (int f = 0; f < 48000; f++) {
        int8_t last = k->ch[0].sample;
        kelva_render(k.get(), frame, 1);
        if (k->ch[0].sample == last) continue;
        ASSERT_EQ(int8_t(last + 1), k->ch[0].sample) << "frame " << f;
        changes++;
    }
    EXPECT_NEAR(double(changes), 3546895.0 / 124.0, 2.0);
}

}  // namespace
