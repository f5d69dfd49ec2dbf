// The mixer's frame-at-a-time path, compiled twice by mixer.cpp beside the
// per-tick kernel (mixer_kernel.h), whose ticks_to_fetch it uses, with
// KELVA_MIX_FMA 0 (any processor) or 1 (AVX with fused multiply-add).
// Deliberately without an include guard, like the per-tick kernel.
//
// Everything after the channel sum is linear and time-invariant, so a
// frame's output is the sum of two parts that tables give at once:
//   - the filter state at the frame's start, carried through the frame's
//     n ticks with no input: the matrix frame[n - n0] times the state;
//   - each channel's input, which between fetches and pulse-width edges is
//     constant: a change of the input by d at tick t of an n-tick frame adds
//     d x step[n - t], the response to a unit step that starts there.
// A channel's pulse-width volume is a square wave of period 64 ticks, so
// its edges within a frame follow from the counter alone; the channel is
// only stepped at its fetches, exactly as the per-tick kernel steps it.
// Each side's state is 12 values (see paula_fast_tables), the last one the
// frame's summed output.

#if KELVA_MIX_FMA
typedef double vrow __attribute__((vector_size(32), aligned(8)));
#else
typedef double vrow __attribute__((vector_size(16), aligned(8)));
#endif
constexpr int kLanes = int(sizeof(vrow) / sizeof(double));
constexpr int kRowVecs = kFastState / kLanes;
static_assert(kFastState % kLanes == 0, "a state is a whole number of vectors");

__attribute__((always_inline)) inline vrow load_row(const double *p) {
#if KELVA_MIX_FMA
    return vrow(_mm256_loadu_pd(p));
#elif defined(__SSE2__)
    return vrow(_mm_loadu_pd(p));
#else
    vrow r;
    memcpy(&r, p, sizeof r);
    return r;
#endif
}

// acc += c * row, for a row of kFastState doubles whose vectors before
// `from` are known to be zero.
__attribute__((always_inline)) inline void row_fma(vrow *acc, double c, const double *row, int from = 0) {
    vrow cv = vrow{} + c;
#pragma GCC unroll 8
    for (int i = from; i < kRowVecs; i++) {
        vrow r = load_row(row + i * kLanes);
#if KELVA_MIX_FMA
        acc[i] = vrow(_mm256_fmadd_pd(__m256d(cv), __m256d(r), __m256d(acc[i])));
#else
        acc[i] = cv * r + acc[i];
#endif
    }
}

// The filters form a cascade, so a start state in one stage never reaches
// the stages before it: column j of a frame matrix is zero above the first
// row of j's stage (one-pole 0, LED 1-2, anti-alias sections from 3).
constexpr int first_row(int j) { return j == 0 ? 0 : j <= 2 ? 1 : 3 + (j - 3) / 2 * 2; }

// Adds amp times the response to one channel's pulse-width train over the
// last `len` ticks of the frame, where `q` is the volume counter before the
// first of those ticks. The channel is on at a tick when its counter, just
// incremented, is below the volume: it switches on where the counter wraps
// to 0 and off where it reaches the volume (1..63); 64 is always on. Edges
// of each kind come every 64 ticks.
__attribute__((always_inline)) inline void add_pulse(vrow *acc, const paula_fast_tables &t, double amp, int len,
                                                     uint32_t q, uint32_t volume) {
    if (volume >= 64) {
        row_fma(acc, amp, t.step[len]);
        return;
    }
    row_fma(acc, q < volume ? amp : 0.0, t.step[len]);   // on before the first tick
    for (int e = int((63 - q) & 63); e < len; e += 64) row_fma(acc, amp, t.step[len - e]);
    for (int e = int((volume - 1 - q) & 63); e < len; e += 64) row_fma(acc, -amp, t.step[len - e]);
}

// One listed channel as the frame loop sees it.
struct fast_voice {
    paula_channel *c;
    int32_t fetch_at;   // tick of the next fetch, counted from the frame's first tick
    uint32_t since;     // ticks from the last bringing-up-to-date of phase to that fetch
    uint32_t pwm;       // volume counter before the frame's first tick
    uint32_t volume;
    int32_t sample;
    bool active;
};

void mix_fast(kelva *k, const paula_fast_tables &t, float *out, int32_t frames) {
    paula_mixer &m = k->mix;

    // The channel lists as the per-tick kernel builds them.
    paula_channel ch[4];
    memcpy(ch, k->ch, sizeof ch);
    fast_voice vs[4];
    int nv = 0;
    int first[3] = {0, 0, 0};   // voices first[s] .. first[s + 1] - 1 are on side s
    static constexpr int kOrder[4] = {0, 3, 1, 2};
    for (int j = 0; j < 4; j++) {
        paula_channel &c = ch[kOrder[j]];
        if (!(c.active && !c.muted && c.data && c.step)) continue;
        uint32_t left = ticks_to_fetch(c);
        uint32_t volume = c.volume < 64 ? c.volume : 64;
        vs[nv++] = fast_voice{&c, int32_t(left) - 1, left, c.pwm, volume, c.sample, true};
        if (j < 2) first[1] = nv;
    }
    first[2] = nv;

    double z[2][kFastState];
    for (int s = 0; s < 2; s++) {
        z[s][0] = m.rc_state[s];
        z[s][1] = m.led_state[s][0];
        z[s][2] = m.led_state[s][1];
        for (int i = 0; i < 4; i++) {
            z[s][3 + 2 * i] = m.aa_state[i][s][0];
            z[s][4 + 2 * i] = m.aa_state[i][s][1];
        }
        z[s][kFastState - 1] = 0.0;
    }

    const uint64_t tpf = m.ticks_per_frame;
    uint64_t frac = m.tick_frac & 0xFFFF;   // the fraction: a frame runs n0 or n0 + 1 ticks
    for (int32_t f = 0; f < frames; f++) {
        uint64_t acc = frac + tpf;
        int n = int(acc >> 16);   // n0 or n0 + 1, n0 >= 1
        frac = acc & 0xFFFF;

        const double(*carry)[kFastState] = t.frame[n - int(t.n0)];
        for (int s = 0; s < 2; s++) {
            // The state carried through the frame, in two partial sums so
            // that the additions do not wait on each other, and the channels'
            // input in a third.
            vrow a[kRowVecs], b[kRowVecs], in[kRowVecs];
#pragma GCC unroll 8
            for (int i = 0; i < kRowVecs; i++) a[i] = b[i] = in[i] = vrow{};
#pragma GCC unroll 16
            for (int j = 0; j < kFastState - 1; j++)
                row_fma(j % 2 ? b : a, z[s][j], carry[j], first_row(j) / kLanes);

            // Each channel's input: its level from the first tick, then the
            // changes at its fetches.
            for (int i = first[s]; i < first[s + 1]; i++) {
                fast_voice &v = vs[i];
                if (!v.active) continue;
                const uint32_t p = v.pwm;
                if (v.volume) add_pulse(in, t, double(v.sample), n, p, v.volume);
                while (v.fetch_at < n) {
                    const int tick = v.fetch_at;
                    paula_channel &c = *v.c;
                    c.phase += uint64_t(v.since) << 16;
                    while (c.phase >= c.step) {
                        c.phase -= c.step;
                        if (!paula_advance(c)) break;
                    }
                    const uint32_t q = (p + uint32_t(tick)) & 63;
                    if (!c.active) {
                        // Silent from this tick on; the counter stops with it.
                        if (v.volume) add_pulse(in, t, -double(v.sample), n - tick, q, v.volume);
                        v.active = false;
                        v.pwm = q;
                        break;
                    }
                    if (c.sample != v.sample) {
                        if (v.volume) add_pulse(in, t, double(c.sample - v.sample), n - tick, q, v.volume);
                        v.sample = c.sample;
                    }
                    uint32_t left = ticks_to_fetch(c);
                    v.since = left;
                    v.fetch_at = tick + int32_t(left);
                }
                if (v.active) {
                    v.fetch_at -= n;
                    v.pwm = (p + uint32_t(n)) & 63;
                }
            }

#pragma GCC unroll 8
            for (int i = 0; i < kRowVecs; i++) a[i] = (a[i] + b[i]) + in[i];
            memcpy(z[s], a, sizeof z[s]);
            double sum = z[s][kFastState - 1] / double(n);
            z[s][kFastState - 1] = 0.0;
            sum = sum > 1.0 ? 1.0 : (sum < -1.0 ? -1.0 : (sum == sum ? sum : 0.0));
            out[2 * f + s] += float(sum);
        }
    }

    m.tick_frac = frac;
    for (int s = 0; s < 2; s++) {
        m.rc_state[s] = z[s][0];
        if (m.led_on) {
            m.led_state[s][0] = z[s][1];
            m.led_state[s][1] = z[s][2];
        }
        for (int i = 0; i < 4; i++) {
            m.aa_state[i][s][0] = z[s][3 + 2 * i];
            m.aa_state[i][s][1] = z[s][4 + 2 * i];
        }
    }
    for (int i = 0; i < nv; i++) {
        fast_voice &v = vs[i];
        // The ticks counted since the last fetch go into the phase, as the
        // per-tick kernel does it (a stopped channel keeps its phase).
        if (v.active) v.c->phase += uint64_t(v.since - uint32_t(v.fetch_at + 1)) << 16;
        v.c->pwm = uint8_t(v.pwm);
        k->ch[v.c - ch] = *v.c;
    }
}
