// Paula channels: DMA start/stop, block lengths, looping and queued blocks,
// the backward fetch, block ends as the render loop predicts them, and the
// guarantee that no channel reads past the top of RAM. A sample is fetched
// every `period` Paula ticks (at least 113).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <tuple>
#include <vector>

#include "hardware/bus.h"
#include "hardware/paula_fetch.h"
#include "support/test_support.h"

namespace {

constexpr uint32_t DMACON = 0xDFF096;

struct Paula : testing::Test {
    engine_ptr e = make_engine();
    kelva *k = e.get();
    paula_channel &c = k->ch[0];

    void start(int x) { custom_write_word(k, DMACON, 0x8200 | (1u << x)); }
    // Bytes first, first + 1, ... at addr.
    void ramp(uint32_t addr, int n, int first) {
        for (int i = 0; i < n; i++) k->ram[addr + i] = uint8_t(first + i);
    }
    // Runs `ticks` Paula ticks on channel 0; returns how many block ends.
    int run_ticks(uint64_t ticks) {
        int done = 0;
        for (uint64_t t = 0; t < ticks && c.active; t++) {
            paula_fetch_tick(c);
            done += c.block_done;
            c.block_done = 0;
        }
        return done;
    }
    // The current sample of channel 0, then those of `n` more fetches.
    std::vector<int> fetches(int n) {
        std::vector<int> seen{c.sample};
        for (int i = 0; i < n; i++) seen.push_back((paula_advance(c), c.sample));
        return seen;
    }
};

TEST_F(Paula, LengthZeroMeans65536Words) {
    set_audio_latches(k, 0, 0x100000, 0, 124, 64);
    start(0);
    EXPECT_EQ(c.end, 0x20000u);
    for (uint32_t i = 1; i < 0x20000; i++) ASSERT_TRUE(paula_advance(c));
    EXPECT_EQ(c.pos, 0x1FFFFu);
    EXPECT_FALSE(c.block_done);
    ASSERT_TRUE(paula_advance(c));
    EXPECT_TRUE(c.block_done);
    EXPECT_EQ(c.pos, 0u);   // repeats from the start
}

// Fetches and block ends of a 2-byte block at period 50 (fetched as 113),
// then a new period acting on the next tick when 100 of 113 ticks have passed.
TEST_F(Paula, FetchTimingAndPeriodChanges) {
    ramp(0x30000, 8, 1);
    set_audio_latches(k, 0, 0x30000, 1, 50, 64);
    start(0);
    for (auto [ticks, ends, sample] : {std::tuple{112, 0, 1}, {1, 0, 2}, {112, 0, 2}, {1, 1, 1}, {226 * 100, 100, 1}}) {
        EXPECT_EQ(run_ticks(uint64_t(ticks)), ends);
        EXPECT_EQ(c.sample, sample) << ticks;
    }
    custom_write_word(k, DMACON, 0x0001);
    set_audio_latches(k, 0, 0x30000, 4, 400, 64);
    start(0);
    run_ticks(100);
    custom_write_word(k, 0xDFF0A6, 113);   // AUD0PER
    EXPECT_EQ(c.phase, uint64_t(100) << 16);
    run_ticks(12);
    EXPECT_EQ(c.sample, 1);
    run_ticks(1);
    EXPECT_EQ(c.sample, 2);
}

TEST_F(Paula, QueuedBlockStartsExactlyWhenTheOldOneIsExhausted) {
    ramp(0x30000, 8, 0);
    ramp(0x40000, 4, 100);
    set_audio_latches(k, 0, 0x30000, 4, 200, 64);
    start(0);
    run_ticks(200 * 3);   // at byte 3 of 8
    set_audio_latches(k, 0, 0x40000, 2, 200, 64);
    EXPECT_TRUE(c.queued);
    EXPECT_EQ(c.data, k->ram + 0x30000);
    EXPECT_EQ(run_ticks(200 * 5 - 1), 0);
    EXPECT_EQ(c.sample, 7);
    EXPECT_EQ(run_ticks(1), 1);   // the switch is the block end
    EXPECT_EQ(c.data, k->ram + 0x40000);
    EXPECT_EQ(c.sample, 100);
    EXPECT_FALSE(c.queued);
    EXPECT_EQ(run_ticks(200 * 4), 1);   // the new block repeats on its own
    EXPECT_EQ(c.sample, 100);
}

TEST_F(Paula, StopKeepsThePositionAndStartsBeginAtTheBlockStart) {
    ramp(0x30000, 16, 1);
    ramp(0x50000, 16, 77);
    set_audio_latches(k, 0, 0x30000, 8, 150, 64);
    start(0);
    run_ticks(150 * 5 + 20);
    custom_write_word(k, DMACON, 0x0001);
    EXPECT_FALSE(c.active);
    EXPECT_EQ(c.pos, 5u);   // nothing else is cleared
    start(0);
    EXPECT_TRUE(c.pos == 0 && c.phase == 0 && c.sample == 1);
    // A block without repeat stops at its end with DMA still on; the next
    // location write starts the new block at once, from its first byte.
    c.loop_len = 0;   // the stop-at-end rule, not reachable through registers
    EXPECT_EQ(run_ticks(150 * 16), 1);
    EXPECT_FALSE(c.active);
    EXPECT_EQ(k->aud[0].dma_running, 1);
    set_audio_latches(k, 0, 0x50000, 8, 150, 64);
    EXPECT_TRUE(c.active);
    EXPECT_EQ(c.loop_len, 16u);
    EXPECT_EQ(fetches(4), (std::vector<int>{77, 78, 79, 80, 81}));
}

// Backward: from the last byte, wrapping at the start (a block end); a
// queued block is entered at its last byte when the current one ends.
TEST_F(Paula, BackwardFetchRunsFromTheEnd) {
    ramp(0x30000, 4, 10);
    ramp(0x40000, 2, 50);
    set_audio_latches(k, 0, 0x30000, 2, 113, 64);
    c.backward = 1;
    start(0);
    EXPECT_EQ(fetches(5), (std::vector<int>{13, 12, 11, 10, 13, 12}));
    EXPECT_TRUE(c.block_done);
    c.block_done = 0;
    set_audio_latches(k, 0, 0x40000, 1, 113, 64);
    EXPECT_EQ(fetches(2), (std::vector<int>{12, 11, 10}));
    EXPECT_FALSE(c.block_done);
    EXPECT_EQ(fetches(2), (std::vector<int>{10, 51, 50}));
    EXPECT_TRUE(c.block_done);
}

TEST_F(Paula, BlocksNearTheTopOfMemoryStopAtTheEndOfRam) {
    k->ram[0xFFFFFF] = 0x22;
    // A long block 16 bytes below the top is cut to those 16 bytes.
    set_audio_latches(k, 0, 0xFFFFF0, 0, 113, 64);
    start(0);
    EXPECT_EQ(c.end, 16u);
    EXPECT_EQ(c.loop_len, 16u);
    // The very last byte: a one-byte block; the top 8 address bits are ignored.
    set_audio_latches(k, 1, 0xFFFFFFFF, 0x8000, 113, 64);
    start(1);
    EXPECT_EQ(k->ch[1].data, k->ram + 0xFFFFFF);
    EXPECT_EQ(k->ch[1].end, 1u);
    EXPECT_EQ(k->ch[1].sample, 0x22);
    // Queued near the top while playing, and backward from the top.
    set_audio_latches(k, 0, 0xFFFF00, 0, 113, 64);
    EXPECT_EQ(c.next_len, 0x100u);
    k->ch[2].backward = 1;
    set_audio_latches(k, 2, 0xFFFFFE, 0, 113, 64);
    start(2);
    EXPECT_EQ(k->ch[2].pos, 1u);
    // Mixing many blocks' worth stays inside the array (the sanitizer build
    // checks the reads themselves).
    std::vector<float> out(2 * 4800);
    paula_mix_frames(k, out.data(), 4800);
    for (int x = 0; x < 3; x++) {
        const paula_channel &ch = k->ch[x];
        ASSERT_TRUE(ch.active);
        EXPECT_LE(size_t(ch.data - k->ram) + ch.end, size_t(kRamSize)) << x;
        EXPECT_LT(ch.pos, ch.end) << x;
    }
}

// The render loop cuts its chunks with paula_frames_to_block_end: the block
// end must fall in exactly the predicted frame, for several periods,
// lengths, directions, phases and tick carries.
TEST_F(Paula, PredictedBlockEndMatchesTheMixer) {
    std::vector<float> out(2 * 20000);
    for (uint8_t backward : {0, 1}) {
        for (uint16_t per : {113, 124, 214, 428, 1017}) {
            for (uint16_t len : {1, 3, 64, 300}) {
                c.backward = backward;
                set_audio_latches(k, 0, 0x30000, len, per, 64);
                start(0);
                for (int round = 0; round < 3; round++) {
                    int32_t f = paula_frames_to_block_end(k, 0);
                    ASSERT_TRUE(f >= 1 && f <= 20000) << f;
                    c.block_done = 0;
                    if (f > 1) paula_mix_frames(k, out.data(), f - 1);
                    EXPECT_FALSE(c.block_done) << per << " " << len << " " << round << " " << int(backward);
                    paula_mix_frames(k, out.data(), 1);
                    EXPECT_TRUE(c.block_done) << per << " " << len << " " << round << " " << int(backward);
                }
                custom_write_word(k, DMACON, 0x0001);
            }
        }
    }
    // Not running: no event. Without a period: no event, no sound, no block end.
    EXPECT_EQ(paula_frames_to_block_end(k, 0), 0);
    memset(k->ram + 0x30000, 127, 4);
    set_audio_latches(k, 1, 0x30000, 2, 0, 64);
    start(1);
    EXPECT_EQ(paula_frames_to_block_end(k, 1), 0);
    std::fill(out.begin(), out.end(), 0.0f);
    paula_mix_frames(k, out.data(), 2000);
    for (float v : out) ASSERT_EQ(v, 0.0f);
    EXPECT_FALSE(k->ch[1].block_done);
    EXPECT_EQ(k->ch[1].pos, 0u);
}

}  // namespace
