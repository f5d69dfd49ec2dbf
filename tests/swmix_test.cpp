// The players' shared software mixer (players/lib/swmix.c), run by the
// SwMix test player on Paula channel 0: the level each voice gets, the step
// a period gives, loops and one-shots, and the interrupt-driven flow of
// buffers. Expected bytes are worked out here from the mixing rules: a
// voice adds sample x volume, the sum is shifted right by 6 plus one bit
// per doubling of the voice count, and positions advance by
// (mixing period << 16) / period in 16.16 fixed point.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/test_support.h"

namespace {

struct voice_spec {
    std::vector<int8_t> sample;
    uint32_t loop_start = 0, loop_len = 0;
    uint16_t period = 124, volume = 64;
};

// The SwMix module: header, voice records, then the samples.
std::vector<uint8_t> swmix_module(uint16_t mix_period, uint16_t block, const std::vector<voice_spec> &voices) {
    std::vector<uint8_t> m = {'S', 'W', 'M', 'X', uint8_t(mix_period >> 8), uint8_t(mix_period),
                              uint8_t(block >> 8), uint8_t(block), 0, uint8_t(voices.size())};
    uint32_t data = uint32_t(10 + 20 * voices.size());
    for (const voice_spec &v : voices) {
        put_be32(m, data);
        put_be32(m, uint32_t(v.sample.size()));
        put_be32(m, v.loop_start);
        put_be32(m, v.loop_len);
        m.insert(m.end(), {uint8_t(v.period >> 8), uint8_t(v.period), uint8_t(v.volume >> 8), uint8_t(v.volume)});
        data += uint32_t(v.sample.size() + (v.sample.size() & 1));
    }
    for (const voice_spec &v : voices) {
        m.insert(m.end(), v.sample.begin(), v.sample.end());
        if (v.sample.size() & 1) m.push_back(0);
    }
    return m;
}

class SwMix : public testing::Test {
protected:
    void SetUp() override {
        kelva_global_init();
        player_ = read_file_bytes(std::string(KELVA_TEST_PLAYERS) + "/SwMix");
        if (player_.empty()) GTEST_SKIP() << "test player SwMix not built (no m68k cross compiler?)";
        eng_ = make_engine(48000);
        k = eng_.get();
    }
    void open(const std::vector<uint8_t> &module) {
        ASSERT_EQ(kelva_open(k, player_.data(), uint32_t(player_.size()), module.data(), uint32_t(module.size()),
                             nullptr, nullptr, 0),
                  0);
    }
    // The block Paula is playing on channel 0 (buffer 0 right after the start).
    std::vector<int8_t> playing(uint32_t bytes) const {
        const paula_channel &c = k->ch[0];
        return std::vector<int8_t>(reinterpret_cast<const int8_t *>(c.data),
                                   reinterpret_cast<const int8_t *>(c.data) + bytes);
    }

    std::vector<uint8_t> player_;
    engine_ptr eng_;
    kelva *k = nullptr;
};

TEST_F(SwMix, TwoVoicesEachGetHalfTheChannelsLevel) {
    voice_spec a, b;
    a.sample.assign(16, 100);
    a.loop_len = 16;
    b.sample.assign(16, -40);
    b.loop_len = 16;
    b.volume = 32;
    open(swmix_module(124, 64, {a, b}));
    ASSERT_TRUE(k->aud[0].dma_running);
    EXPECT_EQ(k->aud[0].per, 124);
    EXPECT_EQ(k->aud[0].vol, 64);
    EXPECT_EQ(k->aud[0].len, 32);   // words
    // (100 x 64 - 40 x 32) >> 7
    for (int8_t v : playing(64)) ASSERT_EQ(v, 40);
    // Paula channels that are not mixed stay off.
    EXPECT_FALSE(k->aud[1].dma_running);
}

TEST_F(SwMix, ThePeriodSetsTheStepAndLoopsWrap) {
    voice_spec v;
    for (int i = 0; i < 64; i++) v.sample.push_back(int8_t(i));
    v.loop_start = 32;
    v.loop_len = 32;
    v.period = 186;   // 124 / 186 of a byte per mixed sample
    open(swmix_module(124, 256, {v}));
    const uint32_t step = (124u << 16) / 186;   // 43690
    std::vector<int8_t> got = playing(256);
    uint64_t pos = 0;   // 16.16
    for (int i = 0; i < 256; i++) {
        uint32_t p = uint32_t(pos >> 16);
        ASSERT_EQ(got[i], int8_t(p)) << "sample " << i;   // one voice: sample x 64 >> 6
        pos += step;
        if ((pos >> 16) >= 64) pos -= uint64_t(32) << 16;
    }
}

TEST_F(SwMix, AOneShotSampleFallsSilentAtItsEnd) {
    voice_spec v;
    v.sample.assign(10, 50);
    voice_spec quiet;   // a second voice: the level shift is 7
    quiet.sample.assign(2, 0);
    open(swmix_module(124, 32, {v, quiet}));
    std::vector<int8_t> got = playing(32);
    for (int i = 0; i < 32; i++) ASSERT_EQ(got[i], i < 10 ? 25 : 0) << i;
}

// A looping 256-byte ramp at the mixing period: Paula must output it
// without a break while the interrupt refills the buffers, so every new
// sample is the previous one plus 1 (mod 256). A buffer played twice or
// skipped would jump by a whole block.
TEST_F(SwMix, BuffersFollowEachOtherWithoutABreak) {
    voice_spec v;
    for (int i = 0; i < 256; i++) v.sample.push_back(int8_t(i));
    v.loop_len = 256;
    open(swmix_module(124, 200, {v}));
    std::vector<float> frame(2);
    int8_t last = k->ch[0].sample;
    uint32_t changes = 0;
    for (int f = 0; f < 48000; f++) {
        kelva_render(k, frame.data(), 1);
        int8_t now = k->ch[0].sample;
        if (now != last) {
            ASSERT_EQ(int8_t(last + 1), now) << "frame " << f;
            changes++;
        }
        last = now;
    }
    // One second at 3546895 / 124 samples per second, each a new value.
    EXPECT_NEAR(double(changes), 3546895.0 / 124.0, 2.0);
}

}  // namespace
