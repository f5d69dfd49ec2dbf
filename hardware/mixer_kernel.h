// The mixer's inner loop, compiled twice by mixer.cpp: once for any x86-64
// (or other) processor and once, under a target pragma, with fused
// multiply-add instructions. Deliberately without an include guard: it is
// included inside a namespace once per variant, with KELVA_MIX_FMA set to 0
// or 1. It expects v2d, splat() and kScale from mixer.cpp.

// a * b + c on both lanes.
__attribute__((always_inline)) inline v2d vfma(v2d a, v2d b, v2d c) {
#if KELVA_MIX_FMA
    return _mm_fmadd_pd(a, b, c);
#else
    return a * b + c;
#endif
}

// One listed channel as the tick loop sees it. Between fetches a tick only
// adds 0x10000 to the phase, so the loop counts the ticks down to the next
// fetch instead and adds them to the channel's phase when it fetches.
struct voice {
    paula_channel *c;
    uint32_t left;     // ticks until the next fetch, >= 1
    uint32_t since;    // ticks counted since phase was last brought up to date
    uint32_t pwm;
    uint32_t volume;
    int32_t sample;
    bool active;
};

// Ticks until a channel whose phase is below its step fetches again.
__attribute__((always_inline)) inline uint32_t ticks_to_fetch(const paula_channel &c) {
    if (c.phase >= c.step) return 1;
    return uint32_t((c.step - c.phase + 0xFFFF) >> 16);
}

// One tick of a listed channel: the fetch when one is due (the sample fetch
// of paula_fetch_tick, with the counted ticks added at once), then Paula's
// pulse-width volume: the 6-bit counter runs every tick and the sample is
// on while the counter is below the volume, so 64 is always on and 32 is on
// half of every 64 ticks. A channel that stops is silent from then on.
__attribute__((always_inline)) inline int32_t voice_tick(voice &v) {
    if (!v.active) return 0;
    if (--v.left == 0) {
        paula_channel &c = *v.c;
        c.phase += uint64_t(v.since) << 16;
        while (c.phase >= c.step) {
            c.phase -= c.step;
            if (!paula_advance(c)) break;
        }
        if (!c.active) {
            v.active = false;
            return 0;
        }
        v.sample = c.sample;
        v.left = v.since = ticks_to_fetch(c);
    }
    v.pwm = (v.pwm + 1) & 63;
    return v.pwm < v.volume ? v.sample : 0;
}

template <bool kLed>
void mix_kernel(kelva *k, float *out, int32_t frames) {
    paula_mixer &m = k->mix;

    // The channel lists, built once: left AUD0 and AUD3, right AUD1 and
    // AUD2. A channel that stops during the call contributes 0 from then on.
    paula_channel ch[4];
    memcpy(ch, k->ch, sizeof ch);
    voice vs[4];
    int nl = 0, nr = 0;
    static constexpr int kOrder[4] = {0, 3, 1, 2};
    for (int j = 0; j < 4; j++) {
        paula_channel &c = ch[kOrder[j]];
        if (!(c.active && !c.muted && c.data && c.step)) continue;
        // A fresh phase may already hold a whole step: fetch on the first tick.
        uint32_t left = ticks_to_fetch(c);
        vs[nl + nr] = voice{&c, left, left, c.pwm, c.volume, c.sample, true};
        if (j < 2)
            nl++;
        else
            nr++;
    }

    const uint64_t tpf = m.ticks_per_frame;
    uint64_t frac = m.tick_frac;

    const v2d half = splat(0.5);
    const v2d rc_k = splat(m.rc_coef);
    v2d y = {m.rc_state[0], m.rc_state[1]};

    const v2d led_b0 = splat(m.led_b0), led_b1 = splat(m.led_b1), led_b2 = splat(m.led_b2);
    const v2d led_na1 = splat(-m.led_a1), led_na2 = splat(-m.led_a2);
    v2d led_s1 = {m.led_state[0][0], m.led_state[1][0]};
    v2d led_s2 = {m.led_state[0][1], m.led_state[1][1]};

    // Anti-alias sections. The 1/128 scale is folded into the first
    // section's feed-forward coefficients: scaling by a power of two is exact,
    // so b0 * (x / 128) and (b0 / 128) * x are the same number.
    v2d aa_b0[4], aa_b1[4], aa_na1[4], aa_na2[4], aa_s1[4], aa_s2[4];
    for (int i = 0; i < 4; i++) {
        double s = i == 0 ? kScale : 1.0;
        aa_b0[i] = splat(m.aa[i].b0 * s);
        aa_b1[i] = splat(2.0 * m.aa[i].b0 * s);
        aa_na1[i] = splat(-m.aa[i].a1);
        aa_na2[i] = splat(-m.aa[i].a2);
        aa_s1[i] = v2d{m.aa_state[i][0][0], m.aa_state[i][1][0]};
        aa_s2[i] = v2d{m.aa_state[i][0][1], m.aa_state[i][1][1]};
    }

    for (int32_t f = 0; f < frames; f++) {
        // Ticks of this frame: the 16.16 remainder carries to the next one.
        uint64_t acc = frac + tpf;
        uint32_t n = uint32_t(acc >> 16);
        if (n == 0) n = 1;
        frac = acc & 0xFFFF;

        v2d sum = splat(0.0);
        for (uint32_t t = 0; t < n; t++) {
            int32_t xl = 0, xr = 0;
            for (int i = 0; i < nl; i++) xl += voice_tick(vs[i]);
            for (int i = nl; i < nl + nr; i++) xr += voice_tick(vs[i]);
            v2d x = {double(xl), double(xr)};

            // One-pole model filter: y += (x/2 - y) k.
            y = vfma(x * half - y, rc_k, y);
            v2d in = y;
            if constexpr (kLed) {
                v2d u = vfma(led_b0, y, led_s1);
                led_s1 = vfma(led_b1, y, vfma(led_na1, u, led_s2));
                led_s2 = vfma(led_b2, y, led_na2 * u);
                in = u;
            }
            // Anti-alias: transposed direct form II, b1 = 2 b0, b2 = b0.
            for (int i = 0; i < 4; i++) {
                v2d o = vfma(aa_b0[i], in, aa_s1[i]);
                aa_s1[i] = vfma(aa_b1[i], in, vfma(aa_na1[i], o, aa_s2[i]));
                aa_s2[i] = vfma(aa_b0[i], in, aa_na2[i] * o);
                in = o;
            }
            sum += in;
        }

        v2d v = sum / splat(double(n));
        for (int side = 0; side < 2; side++) {
            double s = v[side];
            // Clamp to full scale; a NaN (only from an unusable rate) gives 0.
            s = s > 1.0 ? 1.0 : (s < -1.0 ? -1.0 : (s == s ? s : 0.0));
            out[2 * f + side] += float(s);
        }
    }

    m.tick_frac = frac;
    m.rc_state[0] = y[0];
    m.rc_state[1] = y[1];
    if constexpr (kLed) {
        m.led_state[0][0] = led_s1[0];
        m.led_state[1][0] = led_s1[1];
        m.led_state[0][1] = led_s2[0];
        m.led_state[1][1] = led_s2[1];
    }
    for (int i = 0; i < 4; i++) {
        m.aa_state[i][0][0] = aa_s1[i][0];
        m.aa_state[i][1][0] = aa_s1[i][1];
        m.aa_state[i][0][1] = aa_s2[i][0];
        m.aa_state[i][1][1] = aa_s2[i][1];
    }
    for (int i = 0; i < nl + nr; i++) {
        voice &v = vs[i];
        // Bring the phase up to date with the ticks counted since the last
        // fetch (a stopped channel's phase is already where it stopped).
        if (v.active) v.c->phase += uint64_t(v.since - v.left) << 16;
        v.c->pwm = uint8_t(v.pwm);
        k->ch[v.c - ch] = *v.c;
    }
}

void mix(kelva *k, float *out, int32_t frames) {
    if (k->mix.led_on)
        mix_kernel<true>(k, out, frames);
    else
        mix_kernel<false>(k, out, frames);
}
