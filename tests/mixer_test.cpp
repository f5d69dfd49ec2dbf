// The mixer: a plain per-side reference of the output path checks the
// vectorised kernel; then settled levels, pulse-width volume, model and LED
// switching, separation, the tick carry at 48 kHz, clamping and silence.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "hardware/bus.h"
#include "hardware/paula_fetch.h"
#include "support/test_support.h"

namespace {

constexpr uint32_t DMACON = 0xDFF096;

void fill(kelva *k, uint32_t addr, uint32_t len, int8_t v) {
    for (uint32_t i = 0; i < len; i++) k->ram[addr + i] = uint8_t(v);
}

std::vector<float> mix(kelva *k, int32_t frames) {
    std::vector<float> out(2 * size_t(frames), 0.0f);
    paula_mix_frames(k, out.data(), frames);
    return out;
}

double rms(const std::vector<float> &v, int side, size_t from) {
    double s = 0;
    size_t n = 0;
    for (size_t i = 2 * from + size_t(side); i < v.size(); i += 2, n++) s += double(v[i]) * v[i];
    return std::sqrt(s / double(n));
}

// The output path written out per side, one statement per stage, straight
// from the mixer's description, with its own filter coefficients: the
// Amiga's RC low-pass (A500 4.4 kHz, A1200 34 kHz), the LED filter's
// 3300 Hz Butterworth pair and the anti-alias filter's four Butterworth
// sections at 0.45 of the output rate, all at the Paula clock. The
// channels are stepped on a copy.
struct reference_mixer {
    paula_mixer m;
    paula_channel ch[4];

    // Takes the engine's state and replaces every coefficient.
    void start(const kelva *k, uint32_t model) {
        m = k->mix;
        memcpy(ch, k->ch, sizeof ch);
        const double fc = 3546895.0, pi = 3.14159265358979323846;
        const double rc = model == 1 ? 1.0 / (2 * pi * 34000) : 1.0 / (2 * pi * 4400);
        m.rc_coef = (1 / fc) / (1 / fc + rc);
        double w0 = 2 * pi * 3300 / fc, alpha = std::sin(w0) / std::sqrt(2.0), a0 = 1 + alpha;
        m.led_b0 = m.led_b2 = (1 - std::cos(w0)) / 2 / a0;
        m.led_b1 = (1 - std::cos(w0)) / a0;
        m.led_a1 = -2 * std::cos(w0) / a0;
        m.led_a2 = (1 - alpha) / a0;
        w0 = 2 * pi * 0.45 * m.rate / fc;
        for (int i = 0; i < 4; i++) {
            // Sections in rising Q: the pole pairs of an 8th-order
            // Butterworth have Q = 1 / (2 sin((2j - 1) pi / 16)), j = 4..1.
            alpha = std::sin(w0) * std::sin((7 - 2 * i) * pi / 16);
            a0 = 1 + alpha;
            m.aa[i].b0 = (1 - std::cos(w0)) / 2 / a0;
            m.aa[i].a1 = -2 * std::cos(w0) / a0;
            m.aa[i].a2 = (1 - alpha) / a0;
        }
    }
    std::vector<float> run(int32_t frames) {
        std::vector<float> out(2 * size_t(frames), 0.0f);
        bool listed[4];
        for (int x = 0; x < 4; x++) listed[x] = ch[x].active && !ch[x].muted && ch[x].data && ch[x].step;
        for (int32_t f = 0; f < frames; f++) {
            uint64_t acc = m.tick_frac + m.ticks_per_frame;
            uint64_t n = acc >> 16;
            if (n == 0) n = 1;
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
                    if (m.led_on) {
                        double *st = m.led_state[s];
                        double u = m.led_b0 * v + st[0];
                        st[0] = m.led_b1 * v - m.led_a1 * u + st[1];
                        st[1] = m.led_b2 * v - m.led_a2 * u;
                        v = u;
                    }
                    v *= 0.0078125;
                    for (int i = 0; i < 4; i++) {
                        double *st = m.aa_state[i][s];
                        double b0 = m.aa[i].b0, b1 = 2 * b0, b2 = b0;
                        double o = b0 * v + st[0];
                        st[0] = b1 * v - m.aa[i].a1 * o + st[1];
                        st[1] = b2 * v - m.aa[i].a2 * o;
                        v = o;
                    }
                    sum[s] += v;
                }
            }
            for (int s = 0; s < 2; s++) out[2 * size_t(f) + size_t(s)] = float(std::clamp(sum[s] / double(n), -1.0, 1.0));
        }
        return out;
    }
};

// Four channels with different blocks, periods and volumes.
void busy_song(kelva *k) {
    for (uint32_t i = 0; i < 256; i++) {
        k->ram[0x20000 + i] = uint8_t(int8_t(std::lround(100 * std::sin(i * 0.1))));
        k->ram[0x21000 + i] = uint8_t(i * 7);
    }
    set_audio_latches(k, 0, 0x20000, 128, 254, 64);
    set_audio_latches(k, 1, 0x21000, 100, 428, 37);
    set_audio_latches(k, 2, 0x20010, 3, 113, 20);
    set_audio_latches(k, 3, 0x21080, 60, 1000, 50);
    custom_write_word(k, DMACON, 0x820F);
}

TEST(Mixer, KernelMatchesThePlainOutputPath) {
    for (uint32_t led : {1u, 0u}) {
        for (uint32_t model : {0u, 1u}) {
            auto e = make_engine(44100);
            kelva *k = e.get();
            busy_song(k);
            k->ch[2].loop_len = 0;   // stops after its 6 bytes, during the second call
            k->ch[3].backward = 1;
            kelva_set_model(k, model);
            k->mix.led_on = led;
            reference_mixer ref;
            ref.start(k, model);
            // Several calls, so state is stored and reloaded in between.
            std::vector<float> got, part;
            for (int32_t n : {1, 700, 33, 1666}) {
                part = mix(k, n);
                got.insert(got.end(), part.begin(), part.end());
            }
            std::vector<float> want = ref.run(2400);
            ASSERT_EQ(got.size(), want.size());
            double peak = 0;
            for (size_t i = 0; i < got.size(); i++) {
                ASSERT_NEAR(got[i], want[i], 1e-6) << "led " << led << " model " << model << " at " << i;
                peak = std::max(peak, double(std::fabs(got[i])));
            }
            EXPECT_GT(peak, 0.1);   // the comparison saw real signal
            for (int x = 0; x < 4; x++) {
                EXPECT_EQ(k->ch[x].pos, ref.ch[x].pos) << x;
                EXPECT_EQ(k->ch[x].phase, ref.ch[x].phase) << x;
                EXPECT_EQ(k->ch[x].pwm, ref.ch[x].pwm) << x;
                EXPECT_EQ(k->ch[x].active, ref.ch[x].active) << x;
            }
            EXPECT_FALSE(k->ch[2].active);
            EXPECT_EQ(k->mix.tick_frac, ref.m.tick_frac);
        }
    }
}

TEST(Mixer, SilenceAddsExactlyZero) {
    auto e = make_engine(48000);
    std::vector<float> out(2 * 1000, 0.25f);
    paula_mix_frames(e.get(), out.data(), 1000);
    for (float v : out) ASSERT_EQ(v, 0.25f);
    paula_mix_frames(e.get(), out.data(), 0);
    paula_mix_frames(e.get(), out.data(), -5);
}

TEST(Mixer, ConstantSampleSettlesAtHalfScalePerChannel) {
    auto e = make_engine(48000);
    kelva *k = e.get();
    fill(k, 0x30000, 64, 127);
    set_audio_latches(k, 0, 0x30000, 32, 300, 64);
    set_audio_latches(k, 3, 0x30000, 32, 300, 64);
    custom_write_word(k, DMACON, 0x8209);
    auto out = mix(k, 4800);
    EXPECT_NEAR(out[2 * 4799], 127.0 * 2 * 0.5 / 128, 1e-4);
    EXPECT_EQ(out[2 * 4799 + 1], 0.0f);

    // Separation 0: both sides carry half of it.
    paula_apply_separation(out.data(), 4800, 0.0f);
    EXPECT_NEAR(out[2 * 4799], 127.0 / 128 / 2, 1e-4);
    EXPECT_EQ(out[2 * 4799], out[2 * 4799 + 1]);
}

TEST(Mixer, PulseWidthVolumeScalesTheSettledLevel) {
    for (uint16_t vol : {64, 37, 32, 1, 0}) {
        auto e = make_engine(48000);
        kelva *k = e.get();
        fill(k, 0x30000, 64, 100);
        set_audio_latches(k, 1, 0x30000, 32, 300, vol);
        custom_write_word(k, DMACON, 0x8202);
        auto out = mix(k, 4800);
        double want = 100.0 * 0.5 / 128 * vol / 64;
        double mean = 0;
        for (int f = 4000; f < 4800; f++) mean += out[2 * size_t(f) + 1];
        mean /= 800;
        EXPECT_NEAR(mean, want, 2e-4) << vol;
        EXPECT_EQ(out[2 * 4799], 0.0f) << vol;   // channel 1 is on the right
    }
}

TEST(Mixer, ModelAndLedFilterShapeATone) {
    // A 3.9 kHz square wave (8-byte block at period 113) on channel 2.
    auto level = [](uint32_t model, uint32_t led_mode) {
        auto e = make_engine(48000);
        kelva *k = e.get();
        fill(k, 0x30000, 4, 100);
        fill(k, 0x30004, 4, -100);
        set_audio_latches(k, 2, 0x30000, 4, 113, 64);
        custom_write_word(k, DMACON, 0x8204);
        kelva_set_model(k, model);
        kelva_set_led_filter(k, led_mode);
        return rms(mix(k, 4800), 1, 1000);
    };
    double a1200 = level(1, 1), a500 = level(0, 1), a500_led = level(0, 2), a1200_led = level(1, 2);
    double open = 100.0 * 0.5 / 128 * 0.9;   // about the fundamental's level unfiltered
    EXPECT_GT(a1200, open * 0.95);
    EXPECT_LT(a500, a1200 * 0.85);
    EXPECT_LT(a500_led, a500 * 0.75);
    EXPECT_LT(a1200_led, a1200 * 0.8);
    // Model 2 is not the A1200.
    EXPECT_DOUBLE_EQ(level(2, 1), a500);
}

TEST(Mixer, ModelChangeKeepsFilterState) {
    auto e = make_engine(48000);
    kelva *k = e.get();
    fill(k, 0x30000, 64, 90);
    set_audio_latches(k, 0, 0x30000, 32, 300, 64);
    custom_write_word(k, DMACON, 0x8201);
    mix(k, 100);
    paula_mixer before = k->mix;
    kelva_set_model(k, 1);
    EXPECT_NE(k->mix.rc_coef, before.rc_coef);
    EXPECT_EQ(k->mix.rc_state[0], before.rc_state[0]);
    EXPECT_EQ(k->mix.aa_state[3][0][1], before.aa_state[3][0][1]);
    EXPECT_EQ(k->mix.led_state[0][0], before.led_state[0][0]);
    EXPECT_EQ(k->mix.tick_frac, before.tick_frac);
    // No click: the level stays where it was.
    auto out = mix(k, 10);
    EXPECT_NEAR(out[0], 90.0 * 0.5 / 128, 0.01);
}

TEST(Mixer, TicksAlternate73And74At48kHz) {
    auto e = make_engine(48000);
    kelva *k = e.get();
    EXPECT_EQ(k->mix.ticks_per_frame, (uint64_t(3546895) << 16) / 48000);
    // A channel with the longest period fetches once per 65535 ticks, so its
    // phase counts the ticks of each frame.
    set_audio_latches(k, 0, 0x30000, 1, 65535, 64);
    custom_write_word(k, DMACON, 0x8201);
    int count73 = 0, count74 = 0, run74 = 0, longest74 = 0;
    uint64_t total = 0;
    std::vector<float> out(2);
    for (int f = 0; f < 48000; f++) {
        k->ch[0].phase = 0;
        paula_mix_frames(k, out.data(), 1);
        uint64_t n = k->ch[0].phase >> 16;
        total += n;
        ASSERT_TRUE(n == 73 || n == 74) << f << ": " << n;
        if (n == 73) {
            count73++;
            run74 = 0;
        } else {
            count74++;
            longest74 = std::max(longest74, ++run74);
        }
    }
    // One second holds the Paula clock's ticks, less the carried fraction.
    EXPECT_EQ(total, (uint64_t(48000) * k->mix.ticks_per_frame) >> 16);
    EXPECT_NEAR(double(total), 3546895.0, 1.0);
    EXPECT_GT(count73, 5000);
    EXPECT_GT(count74, 40000);
    EXPECT_LE(longest74, 9);   // a 73 comes round regularly
}

TEST(Mixer, OutputIsClampedToFullScale) {
    auto e = make_engine(48000);
    kelva *k = e.get();
    // Full-scale square waves on all four channels: the filters overshoot
    // at every edge.
    fill(k, 0x30000, 256, -128);
    fill(k, 0x30100, 256, 127);
    for (int x = 0; x < 4; x++) set_audio_latches(k, x, 0x30000, 256, 200, 64);
    custom_write_word(k, DMACON, 0x820F);
    auto out = mix(k, 9600);
    float lo = 0, hi = 0;
    for (float v : out) {
        lo = std::min(lo, v);
        hi = std::max(hi, v);
    }
    EXPECT_EQ(lo, -1.0f);
    EXPECT_EQ(hi, 1.0f);
}

TEST(Mixer, SeparationRule) {
    std::vector<float> f = {0.8f, -0.2f, 0.1f, 0.3f};
    std::vector<float> g = f;
    paula_apply_separation(g.data(), 2, 1.0f);
    EXPECT_EQ(g, f);
    paula_apply_separation(g.data(), 2, 0.5f);
    EXPECT_FLOAT_EQ(g[0], 0.3f + 0.25f);
    EXPECT_FLOAT_EQ(g[1], 0.3f - 0.25f);
    EXPECT_FLOAT_EQ(g[2], 0.2f - 0.05f);
    EXPECT_FLOAT_EQ(g[3], 0.2f + 0.05f);
    g = f;
    paula_apply_separation(g.data(), 2, 0.0f);
    EXPECT_FLOAT_EQ(g[0], 0.3f);
    EXPECT_FLOAT_EQ(g[1], 0.3f);
}

TEST(Mixer, MutedChannelIsLeftOutAndDoesNotAdvance) {
    auto e = make_engine(48000);
    kelva *k = e.get();
    fill(k, 0x30000, 64, 127);
    set_audio_latches(k, 0, 0x30000, 32, 300, 64);
    custom_write_word(k, DMACON, 0x8201);
    k->ch[0].muted = 1;
    auto out = mix(k, 100);
    for (float v : out) ASSERT_EQ(v, 0.0f);
    EXPECT_EQ(k->ch[0].pos, 0u);
    EXPECT_EQ(paula_frames_to_block_end(k, 0), 0);
}

TEST(Mixer, UnusableRatesAreSilentNotUnstable) {
    for (int32_t rate : {0, -48000, 10000000}) {
        auto e = make_engine(rate);
        kelva *k = e.get();
        fill(k, 0x30000, 64, 127);
        set_audio_latches(k, 0, 0x30000, 32, 300, 64);
        custom_write_word(k, DMACON, 0x8201);
        auto out = mix(k, 500);
        for (float v : out) ASSERT_EQ(v, 0.0f) << rate;
    }
}

}  // namespace
