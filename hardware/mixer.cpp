// The mixer: runs the Amiga's analogue output path at the Paula clock, one
// tick at a time, and averages the ticks of each output frame.
//
// Per tick and side (left = AUD0 + AUD3, right = AUD1 + AUD2):
//   pulse-width volume -> one-pole model filter (A500 4.4 kHz / A1200 34 kHz)
//   -> LED filter (2nd-order Butterworth at 3.3 kHz, when on) -> 1/128 scale
//   -> 8th-order Butterworth anti-alias at 0.45 x output rate (4 biquads)
//   -> summed into the frame; the frame is the mean of its ticks, clamped.
//
// Both sides run together as one two-lane vector with fused multiply-add.
// All filter and channel state lives in locals for the whole call.
//
// paula_mix_frames normally takes the frame-at-a-time path of mixer_fast.h,
// which gives the same numbers (up to rounding) from tables built by this
// file out of the per-tick recurrence; the per-tick kernel stays as the
// reference and for output rates the tables do not cover.
#include <cmath>
#include <cstring>
#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif

#include "engine/engine.h"
#include "hardware/paula_fetch.h"

namespace {

typedef double v2d __attribute__((vector_size(16)));

// RC time constants of the fixed low-pass behind Paula.
constexpr double kRcA500 = 3.6171577975430757e-5;   // corner 4 400 Hz
constexpr double kRcA1200 = 4.681027737996922e-6;   // corner 34 000 Hz
constexpr double kLedOmega = 20734.511513692636;    // 2 pi 3300
constexpr double kTwoPi = 6.283185307179586;
constexpr double kAntiAliasCorner = 0.45;           // of the output rate
// Twice the Q of each pole pair of an 8th-order Butterworth low-pass.
constexpr double kAntiAliasD[4] = {1.01959116, 1.20268978, 1.79995244, 5.1258309};
constexpr double kScale = 0.0078125;                // 1/128: two 8-bit samples -> about +-1

// The variant is compiled under GCC's target pragma, which clang does not
// know; clang builds (the fuzzers) use the plain kernel only.
#if (defined(__x86_64__) || defined(__i386__)) && !defined(__clang__)
#define KELVA_MIX_HAVE_FMA 1
#endif

inline v2d splat(double v) { return v2d{v, v}; }

// The kernel for any processor.
namespace mix_any {
#define KELVA_MIX_FMA 0
#include "hardware/mixer_kernel.h"
#include "hardware/mixer_fast.h"
#undef KELVA_MIX_FMA
}  // namespace mix_any

#ifdef KELVA_MIX_HAVE_FMA
// The same kernel with fused multiply-add, chosen at run time.
#pragma GCC push_options
#pragma GCC target("fma")
namespace mix_fma {
#define KELVA_MIX_FMA 1
#include "hardware/mixer_kernel.h"
#include "hardware/mixer_fast.h"
#undef KELVA_MIX_FMA
}  // namespace mix_fma
#pragma GCC pop_options
#endif

#ifdef KELVA_MIX_HAVE_FMA
bool cpu_has_fma() {
    static const bool has = __builtin_cpu_supports("fma");
    return has;
}
#endif

// Coefficients of a low-pass biquad (b1 = 2 b0, b2 = b0) at angular
// frequency w0 (radians per tick) with alpha = sin(w0) / d.
void lowpass(double w0, double d, double &b0, double &a1, double &a2) {
    double cs = std::cos(w0);
    double alpha = std::sin(w0) / d;
    b0 = (1.0 - cs) / 2.0 / (1.0 + alpha);
    a1 = -2.0 * cs / (1.0 + alpha);
    a2 = (1.0 - alpha) / (1.0 + alpha);
}

// One Paula tick of the output path on a state laid out as the frame path
// keeps it (paula_fast_tables), in the order of the per-tick kernel:
// one-pole, LED biquad when on, the 1/128 scale, four anti-alias sections,
// the output added to the sum slot.
void filter_tick(const paula_fast_tables::source &c, double *z, double x) {
    z[0] += (0.5 * x - z[0]) * c.rc_coef;
    double in = z[0];
    if (c.led_on) {
        double u = c.led_b0 * in + z[1];
        z[1] = c.led_b1 * in - c.led_a1 * u + z[2];
        z[2] = c.led_b2 * in - c.led_a2 * u;
        in = u;
    }
    in *= kScale;
    for (int i = 0; i < 4; i++) {
        double *st = z + 3 + 2 * i;
        double b0 = c.aa[i].b0;
        double o = b0 * in + st[0];
        st[0] = 2.0 * b0 * in - c.aa[i].a1 * o + st[1];
        st[1] = b0 * in - c.aa[i].a2 * o;
        in = o;
    }
    z[kFastState - 1] += in;
}

// Fills the tables by running filter_tick on unit inputs: a start state
// with one value 1 and no input (the frame matrices, column by column),
// and a zero start state with input 1 (the step responses). Usable when
// the frame length fits and every entry is finite.
void build_fast_tables(paula_fast_tables &t, const paula_fast_tables::source &src) {
    t.from = src;
    t.built = 1;
    t.usable = 0;
    uint64_t n0 = src.ticks_per_frame >> 16;
    if (n0 < 1 || n0 + 1 > uint64_t(kFastMaxTicks)) return;
    t.n0 = uint32_t(n0);
    bool finite = true;
    for (int i = 0; i < 2; i++) {
        for (int j = 0; j < kFastState; j++) {
            double *col = t.frame[i][j];
            memset(col, 0, sizeof t.frame[i][j]);
            if (j == kFastState - 1) continue;   // the sum slot starts every frame at 0
            col[j] = 1.0;
            for (uint32_t n = 0; n < t.n0 + uint32_t(i); n++) filter_tick(src, col, 0.0);
            for (int r = 0; r < kFastState; r++) finite = finite && std::isfinite(col[r]);
        }
    }
    double z[kFastState] = {};
    memcpy(t.step[0], z, sizeof z);
    for (uint32_t len = 1; len <= t.n0 + 1; len++) {
        filter_tick(src, z, 1.0);
        memcpy(t.step[len], z, sizeof z);
        for (int r = 0; r < kFastState; r++) finite = finite && std::isfinite(z[r]);
    }
    t.usable = finite;
}

// The tables for the mixer's present coefficients and LED setting, built
// when they are missing or stale; null when the frame path cannot run.
const paula_fast_tables *fast_tables(kelva *k) {
    const paula_mixer &m = k->mix;
    paula_fast_tables::source src;
    memset(&src, 0, sizeof src);
    src.rc_coef = m.rc_coef;
    src.led_b0 = m.led_b0;
    src.led_b1 = m.led_b1;
    src.led_b2 = m.led_b2;
    src.led_a1 = m.led_a1;
    src.led_a2 = m.led_a2;
    memcpy(src.aa, m.aa, sizeof src.aa);
    src.ticks_per_frame = m.ticks_per_frame;
    src.led_on = m.led_on ? 1 : 0;
    paula_fast_tables &t = k->mix_fast[src.led_on];
    if (!t.built || memcmp(&t.from, &src, sizeof src) != 0) build_fast_tables(t, src);
    return t.usable ? &t : nullptr;
}

}  // namespace

void paula_recalc(paula_mixer *m) {
    // A mixer that was never given a clock runs at the Paula clock.
    double fc = m->clock > 0 ? double(m->clock) : double(kPaulaClock);

    double dt = 1.0 / fc;
    double rc = m->model == 1 ? kRcA1200 : kRcA500;
    m->rc_coef = dt / (dt + rc);

    double b0, a1, a2;
    lowpass(kLedOmega / fc, 1.4142135623730951, b0, a1, a2);
    m->led_b0 = b0;
    m->led_b1 = 2.0 * b0;
    m->led_b2 = b0;
    m->led_a1 = a1;
    m->led_a2 = a2;

    double w0 = kAntiAliasCorner * double(m->rate) * kTwoPi / fc;
    bool usable = m->rate > 0 && w0 < 3.141592653589793;
    for (int i = 0; i < 4; i++) {
        if (usable) {
            lowpass(w0, kAntiAliasD[i], m->aa[i].b0, m->aa[i].a1, m->aa[i].a2);
        } else {
            // No output rate, or one whose anti-alias corner lies above the
            // Paula clock's Nyquist frequency: the path is cut (silence)
            // rather than running an unstable filter.
            m->aa[i] = paula_mixer::biquad{0.0, 0.0, 0.0};
        }
    }

    uint64_t clock = uint64_t(fc);
    m->ticks_per_frame = m->rate > 0 ? (clock << 16) / uint64_t(m->rate) : 0;
}

void paula_mix_frames(kelva *k, float *out, int32_t frames) {
    if (frames <= 0) return;
    if (!k->mix_per_tick) {
        if (const paula_fast_tables *t = fast_tables(k)) {
#ifdef KELVA_MIX_HAVE_FMA
            if (cpu_has_fma()) {
                mix_fma::mix_fast(k, *t, out, frames);
                return;
            }
#endif
            mix_any::mix_fast(k, *t, out, frames);
            return;
        }
    }
    paula_mix_frames_per_tick(k, out, frames);
}

void paula_mix_frames_per_tick(kelva *k, float *out, int32_t frames) {
    if (frames <= 0) return;
#ifdef KELVA_MIX_HAVE_FMA
    if (cpu_has_fma()) {
        mix_fma::mix(k, out, frames);
        return;
    }
#endif
    mix_any::mix(k, out, frames);
}

void paula_apply_separation(float *out, int32_t frames, float s) {
    if (!(s < 1.0f)) return;   // hard Amiga panning, untouched
    for (int32_t f = 0; f < frames; f++) {
        float l = out[2 * f], r = out[2 * f + 1];
        float mid = (l + r) * 0.5f;
        float d = (l - r) * 0.5f * s;
        out[2 * f] = mid + d;
        out[2 * f + 1] = mid - d;
    }
}
