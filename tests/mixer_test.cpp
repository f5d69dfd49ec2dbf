// Paula channels (a sample fetched every `period` Paula ticks, at least 113) and the mixer: both its paths (per
// frame, and per tick with k->mix_per_tick) against a plain reference of the output path, and on excerpts of real
// modules.
#include <gtest/gtest.h>

#include <cmath>
#include <tuple>

#include "hardware/bus.h"
#include "hardware/paula_fetch.h"
#include "ptk_support.h"

namespace {

constexpr uint32_t DMACON = 0xDFF096;
constexpr double kPi = 3.14159265358979323846, kPaulaClock = 3546895.0;

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
    // The current sample of channel 0, then those of `n` more fetches; then whether a block ended.
    std::string fetches(int n) {
        std::string seen = std::to_string(c.sample);
        for (int i = 0; i < n; i++) {
            paula_advance(c);
            seen += " " + std::to_string(c.sample);
        }
        return seen + (c.block_done ? " end" : "");
    }
};

TEST_F(Paula, LengthZeroMeans65536Words) {
    set_audio_latches(k, 0, 0x100000, 0, 124, 64);
    start(0);
    EXPECT_EQ(c.end, 0x20000u);
    for (uint32_t i = 1; i < 0x20000; i++) ASSERT_TRUE(paula_advance(c));
    EXPECT_EQ(std::tuple(c.pos, bool(c.block_done)), std::tuple(0x1FFFFu, false));
    ASSERT_TRUE(paula_advance(c));
    EXPECT_EQ(std::tuple(c.pos, bool(c.block_done)), std::tuple(0u, true));   // repeats from the start
}

// Fetches and block ends of a 2-byte block at period 50 (fetched as 113), then a new period acting on the next tick
// when 100 of 113 ticks have passed.
TEST_F(Paula, FetchTimingAndPeriodChanges) {
    ramp(0x30000, 8, 1);
    set_audio_latches(k, 0, 0x30000, 1, 50, 64);
    start(0);
    for (auto [ticks, ends, sample] : {std::tuple{112, 0, 1}, {1, 0, 2}, {112, 0, 2}, {1, 1, 1}, {226 * 100, 100, 1}})
        EXPECT_EQ(std::tuple(run_ticks(uint64_t(ticks)), c.sample), std::tuple(ends, sample)) << ticks;
    custom_write_word(k, DMACON, 0x0001);
    set_audio_latches(k, 0, 0x30000, 4, 400, 64);
    start(0);
    run_ticks(100);
    custom_write_word(k, 0xDFF0A6, 113);   // AUD0PER
    EXPECT_EQ(c.phase, uint64_t(100) << 16);
    for (auto [ticks, sample] : {std::pair{12, 1}, {1, 2}}) {
        run_ticks(uint64_t(ticks));
        EXPECT_EQ(c.sample, sample);
    }
}

TEST_F(Paula, QueuedBlockStartsExactlyWhenTheOldOneIsExhausted) {
    ramp(0x30000, 8, 0);
    ramp(0x40000, 4, 100);
    set_audio_latches(k, 0, 0x30000, 4, 200, 64);
    start(0);
    run_ticks(200 * 3);   // at byte 3 of 8
    set_audio_latches(k, 0, 0x40000, 2, 200, 64);
    // The switch is the block end; the new block then repeats on its own.
    const std::tuple<int, int, int, int, bool> steps[] = {
        {0, 0, 0x30000, 3, true}, {999, 0, 0x30000, 7, true}, {1, 1, 0x40000, 100, false},
        {800, 1, 0x40000, 100, false}};
    for (auto [ticks, ends, data, sample, queued] : steps) {
        int got = run_ticks(uint64_t(ticks));
        EXPECT_EQ(std::tuple(got, c.data - k->ram, c.sample, bool(c.queued)), std::tuple(ends, data, sample, queued));
    }
}

TEST_F(Paula, StopKeepsThePositionAndStartsBeginAtTheBlockStart) {
    ramp(0x30000, 16, 1);
    ramp(0x50000, 16, 77);
    set_audio_latches(k, 0, 0x30000, 8, 150, 64);
    start(0);
    run_ticks(150 * 5 + 20);
    custom_write_word(k, DMACON, 0x0001);
    EXPECT_EQ(std::tuple(bool(c.active), c.pos), std::tuple(false, 5u));   // nothing else is cleared
    start(0);
    EXPECT_TRUE(c.pos == 0 && c.phase == 0 && c.sample == 1);
    // A block without repeat stops at its end with DMA still on; the next location write starts the new block at
    // once, from its first byte.
    c.loop_len = 0;   // the stop-at-end rule, not reachable through registers
    EXPECT_EQ(run_ticks(150 * 16), 1);
    EXPECT_EQ(std::tuple(bool(c.active), k->aud[0].dma_running), std::tuple(false, 1));
    set_audio_latches(k, 0, 0x50000, 8, 150, 64);
    EXPECT_EQ(std::tuple(bool(c.active), c.loop_len), std::tuple(true, 16u));
    EXPECT_EQ(fetches(4), "77 78 79 80 81");
}

// Backward: from the last byte, wrapping at the start (a block end); a queued block is entered at its last byte when
// the current one ends.
TEST_F(Paula, BackwardFetchRunsFromTheEnd) {
    ramp(0x30000, 4, 10);
    ramp(0x40000, 2, 50);
    set_audio_latches(k, 0, 0x30000, 2, 113, 64);
    c.backward = 1;
    start(0);
    EXPECT_EQ(fetches(5), "13 12 11 10 13 12 end");
    c.block_done = 0;
    set_audio_latches(k, 0, 0x40000, 1, 113, 64);
    EXPECT_EQ(fetches(2), "12 11 10");
    EXPECT_EQ(fetches(2), "10 51 50 end");
}

TEST_F(Paula, BlocksNearTheTopOfMemoryStopAtTheEndOfRam) {
    k->ram[0xFFFFFF] = 0x22;
    // A long block 16 bytes below the top is cut to those 16 bytes.
    set_audio_latches(k, 0, 0xFFFFF0, 0, 113, 64);
    start(0);
    EXPECT_EQ(std::tuple(c.end, c.loop_len), std::tuple(16u, 16u));
    // The very last byte: a one-byte block; the top 8 address bits are ignored.
    set_audio_latches(k, 1, 0xFFFFFFFF, 0x8000, 113, 64);
    start(1);
    EXPECT_EQ(std::tuple(k->ch[1].data - k->ram, k->ch[1].end, k->ch[1].sample), std::tuple(0xFFFFFF, 1u, 0x22));
    // Queued near the top while playing, and backward from the top.
    set_audio_latches(k, 0, 0xFFFF00, 0, 113, 64);
    EXPECT_EQ(c.next_len, 0x100u);
    k->ch[2].backward = 1;
    set_audio_latches(k, 2, 0xFFFFFE, 0, 113, 64);
    start(2);
    EXPECT_EQ(k->ch[2].pos, 1u);
    // Mixing many blocks' worth stays inside the array (the sanitizer build checks the reads themselves).
    std::vector<float> out(2 * 4800);
    paula_mix_frames(k, out.data(), 4800);
    for (const paula_channel &ch : {k->ch[0], k->ch[1], k->ch[2]})
        EXPECT_TRUE(ch.active && size_t(ch.data - k->ram) + ch.end <= kRamSize && ch.pos < ch.end) << ch.pos;
}

// The render loop cuts its chunks with paula_frames_to_block_end: the block end must fall in exactly the predicted
// frame, for several periods, lengths, directions, phases and tick carries.
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
    EXPECT_TRUE(!k->ch[1].block_done && k->ch[1].pos == 0);
}

// The output path per side, one statement per stage, at the Paula clock: pulse-width volume, the Amiga's RC low-pass
// (A500: RC = 1 / (2 pi 4400), A1200: 1 / (2 pi 34000)), the LED filter's 3300 Hz Butterworth pair, the 1/128 scale,
// the anti-alias filter's four Butterworth sections at 0.45 of the output rate; a frame is the clamped mean of its
// ticks. It keeps its own filter state and channel copies, taken from the engine once.
struct reference_mixer {
    paula_mixer m;
    paula_channel ch[4];
    uint64_t ticks_per_frame;

    void start(const kelva *k) {
        m = k->mix;
        memcpy(ch, k->ch, sizeof ch);
        ticks_per_frame = (uint64_t(kPaulaClock) << 16) / uint64_t(m.rate);
    }
    void settings(uint32_t model, uint32_t led_on) {
        const double rc = 1.0 / (2 * kPi * (model == 1 ? 34000 : 4400));
        m.rc_coef = (1 / kPaulaClock) / (1 / kPaulaClock + rc);
        m.led_on = led_on;
        double w0 = 2 * kPi * 3300 / kPaulaClock, alpha = std::sin(w0) / std::sqrt(2.0), a0 = 1 + alpha;
        m.led_b0 = m.led_b2 = (1 - std::cos(w0)) / 2 / a0;
        m.led_b1 = (1 - std::cos(w0)) / a0;
        m.led_a1 = -2 * std::cos(w0) / a0;
        m.led_a2 = (1 - alpha) / a0;
        w0 = 2 * kPi * 0.45 * m.rate / kPaulaClock;
        for (int i = 0; i < 4; i++) {
            // Sections in rising Q: the pole pairs of an 8th-order Butterworth have Q = 1 / (2 sin((2j - 1) pi /
            // 16)), j = 4..1.
            alpha = std::sin(w0) * std::sin((7 - 2 * i) * kPi / 16);
            a0 = 1 + alpha;
            m.aa[i].b0 = (1 - std::cos(w0)) / 2 / a0;
            m.aa[i].a1 = -2 * std::cos(w0) / a0;
            m.aa[i].a2 = (1 - alpha) / a0;
        }
    }
    static double biquad(double v, double *st, double b0, double b1, double b2, double a1, double a2) {
        double o = b0 * v + st[0];
        st[0] = b1 * v - a1 * o + st[1];
        st[1] = b2 * v - a2 * o;
        return o;
    }
    std::vector<float> run(int32_t frames) {
        std::vector<float> out(2 * size_t(frames), 0.0f);
        bool listed[4];
        for (int x = 0; x < 4; x++) listed[x] = ch[x].active && !ch[x].muted && ch[x].data && ch[x].step;
        for (int32_t f = 0; f < frames; f++) {
            uint64_t acc = m.tick_frac + ticks_per_frame, n = std::max<uint64_t>(acc >> 16, 1);
            m.tick_frac = acc & 0xFFFF;
            double sum[2] = {0, 0};
            for (uint64_t t = 0; t < n; t++) {
                double x[2] = {0, 0};
                for (int c = 0; c < 4; c++) {
                    if (!listed[c] || !ch[c].active) continue;
                    paula_fetch_tick(ch[c]);
                    if (!ch[c].active) continue;
                    ch[c].pwm = uint8_t((ch[c].pwm + 1) & 63);
                    if (ch[c].pwm < ch[c].volume) x[(c == 0 || c == 3) ? 0 : 1] += ch[c].sample;
                }
                for (int s = 0; s < 2; s++) {
                    double &y = m.rc_state[s];
                    y = y + (0.5 * x[s] - y) * m.rc_coef;
                    double v = y;
                    if (m.led_on) v = biquad(v, m.led_state[s], m.led_b0, m.led_b1, m.led_b2, m.led_a1, m.led_a2);
                    v *= 1.0 / 128;
                    for (int i = 0; i < 4; i++) {
                        const paula_mixer::biquad &q = m.aa[i];
                        v = biquad(v, m.aa_state[i][s], q.b0, 2 * q.b0, q.b0, q.a1, q.a2);
                    }
                    sum[s] += v;
                }
            }
            for (int s = 0; s < 2; s++)
                out[2 * size_t(f) + size_t(s)] = float(std::clamp(sum[s] / double(n), -1.0, 1.0));
        }
        return out;
    }
};

void expect_same_channels(const paula_channel *got, const uint8_t *got_ram, const paula_channel *want,
                          const uint8_t *want_ram, const std::string &what) {
    for (int x = 0; x < 4; x++) {
        const paula_channel &f = got[x], &r = want[x];
        EXPECT_TRUE(f.pos == r.pos && f.phase == r.phase && f.pwm == r.pwm && f.active == r.active &&
                    f.sample == r.sample && (f.data ? f.data - got_ram : -1) == (r.data ? r.data - want_ram : -1))
            << what << ": channel " << x << " pos " << f.pos << "/" << r.pos << " phase " << f.phase << "/" << r.phase;
    }
}

// Four channels at rates whose frames run 36 to 257 ticks: full-scale squares on the left (the output clamps), a
// 2-byte loop at volume 1 (a block end every 226 ticks), a backward block, a block that stops during the second call;
// the settings, a volume, a period (below the ticks already counted: a fetch at once) and the stopped channel change
// between calls, and the filter state carries over.
TEST(Mixer, BothPathsMatchThePlainOutputPath) {
    // 13,850 Hz: frames of 256 ticks and more, beyond the frame tables.
    for (int32_t rate : {48000, 44100, 22050, 96000, 14000, 13850}) {
        for (uint8_t per_tick : {0, 1}) {
            std::string what = "rate " + std::to_string(rate) + (per_tick ? " per tick" : " fast");
            auto e = make_engine(rate);
            kelva *k = e.get();
            k->mix_per_tick = per_tick;
            for (uint32_t i = 0; i < 512; i++)
                k->ram[0x20000 + i] = uint8_t(int8_t(std::lround(120 * std::sin(i * 0.07))));
            for (uint32_t i = 0; i < 256; i++) k->ram[0x30000 + i] = i < 128 ? 0x7F : 0x80;
            set_audio_latches(k, 0, 0x30000, 128, 200, 64);
            set_audio_latches(k, 1, 0x20000, 1, 113, 1);
            set_audio_latches(k, 2, 0x20100, 3, 150, 64);
            set_audio_latches(k, 3, 0x30000, 128, 200, 64);
            custom_write_word(k, DMACON, 0x820F);
            k->ch[1].backward = 1;
            k->ch[2].loop_len = 0;
            reference_mixer ref;
            ref.start(k);
            ref.settings(0, 1);
            double peak = 0;
            const int32_t calls[] = {1, 700, 33, 1500, 2400};
            for (int i = 0; i < 5; i++) {
                std::vector<float> got(2 * size_t(calls[i])), want = ref.run(calls[i]);
                paula_mix_frames(k, got.data(), calls[i]);
                for (size_t j = 0; j < got.size(); j++) {
                    ASSERT_NEAR(got[j], want[j], 1e-6) << what << " call " << i << " at " << j;
                    peak = std::max(peak, double(std::fabs(want[j])));
                }
                expect_same_channels(k->ch, k->ram, ref.ch, k->ram, what);
                EXPECT_EQ(k->mix.tick_frac, ref.m.tick_frac) << what;
                EXPECT_TRUE(i != 1 || !k->ch[2].active) << what << ": channel 2 stopped by now";
                uint32_t model = i >= 2, led = i % 2 ? 2 : 1;
                kelva_set_model(k, model);
                kelva_set_led_filter(k, led);
                ref.settings(model, led == 2);
                custom_write_word(k, 0xDFF0B8, uint16_t(16 * i + 1));   // AUD1VOL
                ref.ch[1].volume = uint16_t(16 * i + 1);
                custom_write_word(k, 0xDFF0D6, uint16_t(i % 2 ? 200 : 113));   // AUD3PER
                ref.ch[3].step = k->ch[3].step;
                if (i == 3) {   // DMA is still on: channel 2 starts again at once
                    set_audio_latches(k, 2, 0x20100, 40, 113, 33);
                    ref.ch[2] = k->ch[2];
                }
            }
            EXPECT_TRUE(k->ch[2].active) << what;
            EXPECT_EQ(peak, 1.0) << what;
        }
    }
}

// A constant sample settles at half its level per channel, left from channels 0 and 3, right from 1 and 2, scaled by
// the pulse-width volume, and is added to what the buffer holds. A muted channel (which does not advance) and
// unusable rates add nothing, nor do calls for no frames.
TEST(Mixer, SettledLevelsFollowVolumeAndSideMutedAndUnusableAddNothing) {
    const struct {
        int channel;
        int8_t value;
        uint16_t volume;
        int32_t rate = 48000;
        bool muted = false;
    } cases[] = {{0, 127, 64}, {3, 127, 64}, {1, 100, 37}, {2, 100, 32}, {1, 100, 1}, {2, 100, 0}, {0, 90, 100},
                 {0, 127, 64, 48000, true}, {0, 127, 64, 0}, {0, 127, 64, -48000}, {0, 127, 64, 10000000}};
    for (const auto &c : cases) {
        auto e = make_engine(c.rate);
        kelva *k = e.get();
        memset(k->ram + 0x30000, uint8_t(c.value), 64);
        set_audio_latches(k, c.channel, 0x30000, 32, 300, c.volume);
        custom_write_word(k, DMACON, uint16_t(0x8200 | 1 << c.channel));
        k->ch[c.channel].muted = c.muted;
        std::vector<float> out(2 * 4800, 0.25f);
        for (int32_t frames : {4800, 0, -5}) paula_mix_frames(k, out.data(), frames);
        const bool silent = c.muted || c.rate != 48000;
        const int side = c.channel == 0 || c.channel == 3 ? 0 : 1;
        double mean = 0;
        for (int f = 4000; f < 4800; f++) mean += (out[2 * size_t(f) + size_t(side)] - 0.25) / 800.0;
        double want = silent ? 0.0 : c.value * 0.5 / 128 * std::min<uint16_t>(c.volume, 64) / 64;
        EXPECT_NEAR(mean, want, 2e-4) << c.channel << " " << c.rate;
        EXPECT_EQ(out[2 * 4799 + size_t(1 - side)], 0.25f) << c.channel;
        for (float v : out) ASSERT_TRUE(!silent || v == 0.25f) << c.rate;
        EXPECT_TRUE(!c.muted || (k->ch[0].pos == 0 && paula_frames_to_block_end(k, 0) == 0));
    }
}

TEST(Mixer, SeparationMovesBothSidesTowardsTheirMean) {
    const std::vector<float> f = {0.8f, -0.2f, 0.1f, 0.3f};
    // Mid +- separation x half the difference.
    const std::pair<float, std::vector<float>> cases[] = {
        {1.0f, f}, {0.5f, {0.55f, 0.05f, 0.15f, 0.25f}}, {0.0f, {0.3f, 0.3f, 0.2f, 0.2f}}};
    for (const auto &[separation, want] : cases) {
        std::vector<float> g = f;
        paula_apply_separation(g.data(), 2, separation);
        for (int i = 0; i < 4; i++) EXPECT_FLOAT_EQ(g[i], want[i]) << separation << " " << i;
    }
}

// Excerpts of real modules with their own players through the render loop: the frame path against the per-tick path,
// with the output settings set after opening (opening resets them); about 1.4 s in blocks of two sizes.
TEST(Mixer, RealModulesMatchOnBothPaths) {
    KELVA_REQUIRE_SHARED("testdata/modules");
    ptk_test::data_tree_env env;
    // File, model, LED mode, separation.
    const std::tuple<const char *, uint32_t, uint32_t, float> excerpts[] = {
        {"debian/dreamfish-sanxion.mod", 0, 0, 1.0f}, {"debian/starpaws.mod", 1, 2, 0.25f},
        {"st15/cant.mod", 0, 2, 0.5f},                 {"med/Synth-a-sysmic.med", 1, 1, 0.0f},
        {"ahx/AHX.Phaser", 0, 1, 0.7f},                {"other/SFX.Crockett's_theme", 1, 0, 1.0f}};
    for (const auto &[file, model, led_mode, separation] : excerpts) {
        std::string player;
        engine_ptr fast = ptk_test::open_identified(file, &player), ref = ptk_test::open_identified(file, &player);
        if (!fast || !ref) GTEST_SKIP() << "cannot open " << file << " (no m68k cross compiler?)";
        ref->mix_per_tick = 1;
        for (kelva *k : {fast.get(), ref.get()}) {
            kelva_set_model(k, model);
            kelva_set_led_filter(k, led_mode);
            kelva_set_separation(k, separation);
        }
        double diff = 0, peak = 0;
        for (int i = 0; i < 24; i++) {
            int32_t n = i % 3 ? 4096 : 333;
            std::vector<float> a(2 * size_t(n)), b(2 * size_t(n));
            kelva_render(fast.get(), a.data(), n);
            kelva_render(ref.get(), b.data(), n);
            for (size_t j = 0; j < a.size(); j++) {
                diff = std::max(diff, double(std::fabs(a[j] - b[j])));
                peak = std::max(peak, double(std::fabs(b[j])));
            }
        }
        EXPECT_LE(diff, 1e-6) << file;
        EXPECT_GT(peak, 0.05) << file << ": the excerpt should not be silent";
        expect_same_channels(fast->ch, fast->ram, ref->ch, ref->ram, file);
    }
}

}  // namespace
