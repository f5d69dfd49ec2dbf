// Length measurement: runs an opened module without the mixer and stops at
// the first of the player's song end, a stretch of silence, a repetition of
// the loudness envelope, a time limit, or a cancel request.
#include <cmath>
#include <cstdlib>

#include "engine/engine.h"
#include "engine/fpmode.h"
#include "engine/render.h"
#include "hardware/paula_fetch.h"

namespace {

constexpr uint32_t kSpan = 300;        // blocks compared (30 s)
constexpr uint32_t kMinLag = 100;      // 10 s
constexpr uint32_t kMaxLag = 2400;     // 240 s
constexpr uint32_t kTestEvery = 20;    // blocks between tests (2 s)
constexpr uint32_t kMinBlocks = 400;   // 40 s of envelope before the first test
// 0.994 as a single-precision constant, compared in double.
constexpr double kThreshold = double(0.994f);
constexpr float kSilence = 1.0f / 1024.0f;
constexpr int32_t kChunk = 2048;

enum : int32_t { REASON_SONG_END = 1, REASON_SILENCE, REASON_LIMIT, REASON_REPETITION, REASON_CANCELLED };

// Runs `ticks` Paula ticks on a channel and returns the sum over those ticks
// of the sample value it output.
int64_t advance_summing(paula_channel &c, uint32_t ticks) {
    int64_t sum = 0;
    while (ticks > 0 && c.active) {
        // Ticks until the next fetch.
        uint64_t need = c.step > c.phase ? (c.step - c.phase + 0xFFFF) >> 16 : 1;
        uint32_t t = need < ticks ? uint32_t(need) : ticks;
        int64_t before = c.sample;
        c.phase += uint64_t(t) << 16;
        ticks -= t;
        // Only the last of the t ticks can fetch; it outputs the new sample,
        // or nothing when the channel stopped during the fetch.
        bool fetched = false;
        while (c.phase >= c.step) {
            c.phase -= c.step;
            fetched = true;
            if (!paula_advance(c)) break;
        }
        if (fetched) {
            sum += before * (int64_t(t) - 1);
            if (c.active) sum += c.sample;
        } else {
            sum += before * int64_t(t);
        }
    }
    return sum;
}

}  // namespace

void measure_level_frames(kelva *k, float *out, int32_t frames) {
    paula_mixer &m = k->mix;
    for (int32_t f = 0; f < frames; f++) {
        uint64_t acc = m.tick_frac + m.ticks_per_frame;
        uint32_t n = uint32_t(acc >> 16);
        if (n == 0) n = 1;
        m.tick_frac = acc & 0xFFFF;
        float side[2] = {0, 0};
        for (int x = 0; x < 4; x++) {
            paula_channel &c = k->ch[x];
            if (!c.active || c.muted || !c.data || !c.step || !k->aud[x].dma_running) continue;
            int64_t sum = advance_summing(c, n);
            side[(x == 1 || x == 2) ? 1 : 0] +=
                float(double(sum) / n * c.volume / 64.0 / 256.0);
        }
        out[2 * f] += side[0];
        out[2 * f + 1] += side[1];
    }
}

uint32_t measure_repetition_lag(const float *env, uint32_t n) {
    if (n % kTestEvery != 0 || n < kMinBlocks) return 0;
    double energy = 0;
    for (uint32_t i = n - kSpan; i < n; i++) energy += double(env[i]) * double(env[i]);
    if (energy == 0) return 0;
    uint32_t largest = n - kSpan < kMaxLag ? n - kSpan : kMaxLag;
    for (uint32_t lag = kMinLag; lag <= largest && n >= 2 * lag + kSpan; lag++) {
        if (measure_corr_at(env, n, lag, energy) >= kThreshold &&
            measure_corr_at(env, n, 2 * lag, energy) >= kThreshold)
            return lag;
    }
    return 0;
}

double measure_corr_at(const float *env, uint32_t n, uint32_t lag, double recent_energy) {
    if (n < kSpan || n < lag + kSpan) return 0;
    double dot = 0, earlier_energy = 0;
    for (uint32_t i = 0; i < kSpan; i++) {
        double r = env[n - kSpan + i];
        double e = env[n - lag - kSpan + i];
        dot += r * e;
        earlier_energy += e * e;
    }
    if (!(earlier_energy > 0)) return 0;
    return dot / std::sqrt(earlier_energy * recent_energy);
}

extern "C" uint64_t kelva_measure_length(kelva *k, int32_t max_ms, int32_t silence_ms, int32_t *reason,
                                         kelva_cancel_fn cancel, void *cancel_user) {
    if (k->rate < 1) {
        if (reason) *reason = REASON_LIMIT;
        return 0;
    }
    const uint64_t rate = uint64_t(k->rate);
    k->measure_mode = 1;
    uint32_t mode = fp_mode_enter();

    uint64_t limit = uint64_t(max_ms < 1 ? 600000 : max_ms) * rate / 1000;
    uint64_t min_silence = silence_ms > 0 ? uint64_t(silence_ms) * rate / 1000 : 0;
    uint32_t block = uint32_t(rate * 100 / 1000);
    uint32_t capacity = block >= 1 ? uint32_t(limit / block + 2) : 0;
    // A player that signals the song's end itself is trusted with it: songs
    // often repeat a section for minutes before they end, which the
    // loudness-repetition test would take for the whole song.
    if (k->player_flags & KELVA_PLAYER_SONGEND) capacity = 0;
    float *env = capacity ? static_cast<float *>(calloc(capacity, sizeof(float))) : nullptr;

    float buf[2 * kChunk];
    uint64_t silence_start = 0, silence_run = 0;
    uint32_t blocks = 0, in_block = 0;
    float peak = 0;
    int32_t why = 0;
    uint64_t length = 0;

    while (!why) {
        if (k->played_frames >= limit) {
            why = REASON_LIMIT;
            length = limit;
            break;
        }
        if (cancel && cancel(cancel_user)) {
            why = REASON_CANCELLED;
            length = 0;
            break;
        }
        uint64_t first_frame = k->played_frames;
        render_frames(k, buf, kChunk);
        if (k->song_end_frame) {
            why = REASON_SONG_END;
            length = k->song_end_frame;
            break;
        }
        for (int32_t i = 0; i < kChunk && !why; i++) {
            float l = std::fabs(buf[2 * i]), r = std::fabs(buf[2 * i + 1]);
            float p = l > r ? l : r;
            if (min_silence) {
                if (p < kSilence) {
                    if (silence_run++ == 0) silence_start = first_frame + uint64_t(i);
                } else {
                    silence_run = 0;
                }
            }
            if (!env) continue;
            if (p > peak) peak = p;
            if (++in_block == block) {
                if (blocks < capacity) env[blocks] = peak;
                blocks++;
                in_block = 0;
                peak = 0;
                if (blocks <= capacity) {
                    uint32_t lag = measure_repetition_lag(env, blocks);
                    if (lag) {
                        why = REASON_REPETITION;
                        length = uint64_t(lag) * block;
                    }
                }
            }
        }
        if (!why && min_silence && silence_run >= min_silence) {
            why = REASON_SILENCE;
            length = silence_start + rate;
        }
    }

    free(env);
    fp_mode_leave(mode);
    if (reason) *reason = why;
    return length * 1000 / rate;
}
