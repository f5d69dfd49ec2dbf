/* output.c - where the MED player's tracks sound.
 *
 * Songs of up to four tracks play on Paula's channels directly, as the
 * tracker's four-channel replay did: a new note stops the channel's DMA,
 * sets the sample, and DMA comes back on at the end of the tick with the
 * loop (or a silent word) queued behind the sample; waveforms of synthetic
 * sounds are queued behind the one playing, so they change at the end of
 * a waveform period.
 *
 * Songs with more tracks play through the shared software mixer
 * (players/lib/swmix): every track is a voice of a mixed Paula channel,
 * summed at 1/N of the level each (N = the channel's voices rounded up to
 * a power of two). The mixer plays each channel at 22 kHz from two
 * buffers of 64 bytes refilled by the channel's audio interrupt, so what
 * a tick sets is heard from the next buffer on (within about 6 ms).
 *
 *   - OctaMED's 5-8 channel mode and other wide songs (mono): track t is
 *     a voice of Paula channel t mod 4, so tracks 0 and 4 share channel 0
 *     as in OctaMED's channel splitting. Up to 32 tracks sound.
 *   - Software-mixed MMD2/MMD3 songs (stereo, with each track's panning):
 *     every track has a voice on a left channel (tracks 0-7 on channel 0,
 *     8-15 on channel 3) and one on a right channel (1, 2), their volumes
 *     split by the pan linearly (centre: half each side). Up to 16 tracks
 *     sound this way; wider mixed songs fall back to the mono layout. */
#include "med.h"
#include "swmix.h"
#include "kp_math.h"

#define MIX_TRACKS 32
#define PAN_TRACKS 16
#define MIX_PERIOD SWMIX_PERIOD_22K
#define MIX_BLOCK 64

uint8_t out_mixed;
static uint8_t stereo;
static uint8_t ntracks;

/* ---- Paula ----------------------------------------------------------------- */

static uint16_t silence[2] __attribute__((aligned(4)));
static uint16_t dma_start;           /* channels to start at the end of the tick */
static uint32_t loop_lc[4];
static uint16_t loop_len[4];         /* words; 0 = nothing to queue */

static volatile uint16_t *aud(uint8_t t) { return (volatile uint16_t *)(CUSTOM + AUD0LC + ((uint32_t)t << 4)); }

static void set_block(uint8_t t, uint32_t lc, uint32_t words) {
    volatile uint16_t *hw = aud(t);
    if (words == 0) {
        lc = (uint32_t)silence;
        words = 1;
    }
    if (words > 0xFFFF) words = 0xFFFF;
    *(volatile uint32_t *)hw = lc;
    hw[2] = (uint16_t)words;
}

/* ---- Mixer -------------------------------------------------------------------- */

static swmix_voice voice[MIX_TRACKS];      /* mono: every track; stereo: the left voices */
static swmix_voice voice_r[PAN_TRACKS];    /* stereo: the right voices */
static uint8_t voice_fresh[MIX_TRACKS];    /* a synthetic sound waits for its first waveform */
static int8_t pan[PAN_TRACKS];
static uint8_t volume_of[PAN_TRACKS];
static swmix_channel channel[4];
static swmix_channel *channel_list[4];
static uint8_t channels_used;

static void add_channel(uint8_t paula, swmix_voice *const *list, uint16_t n) {
    if (!n) return;
    swmix_channel_init(&channel[paula], paula, list, n);
    channel_list[channels_used++] = &channel[paula];
}

static void voice_play(swmix_voice *v, uint32_t lc, uint32_t len, uint32_t rep, uint32_t replen) {
    if (replen < 2) swmix_voice_play(v, (const int8_t *)lc, len, 0, 0, 0);
    else if (rep >= lc) swmix_voice_play(v, (const int8_t *)lc, rep + replen - lc, rep - lc, replen, 0);
    else swmix_voice_play(v, (const int8_t *)rep, replen, 0, replen, lc - rep);   /* started inside the loop */
}

static void voice_wave(swmix_voice *v, uint32_t lc, uint32_t bytes, uint8_t fresh) {
    if (!v->data || fresh || v->loop_len == 0) {
        swmix_voice_play(v, (const int8_t *)lc, bytes, 0, bytes, 0);
        return;
    }
    /* the next waveform continues at the same phase */
    uint32_t p = v->pos >= v->end - v->loop_len ? v->pos - (v->end - v->loop_len) : 0;
    if (p >= bytes) p = 0;
    v->data = (const int8_t *)lc;
    v->pos = p;
    v->end = bytes;
    v->loop_len = bytes;
}

static void pan_volumes(uint8_t t) {
    uint16_t v = volume_of[t];
    voice[t].volume = (uint16_t)(kp_mulu16(v, (uint16_t)(16 - pan[t])) >> 5);
    voice_r[t].volume = (uint16_t)(kp_mulu16(v, (uint16_t)(16 + pan[t])) >> 5);
}

/* ---- Interface -------------------------------------------------------------------- */

void out_init(uint8_t tracks, uint8_t mixed, uint8_t pan_mix) {
    ntracks = tracks;
    out_mixed = mixed;
    stereo = mixed && pan_mix && tracks <= PAN_TRACKS;
    dma_start = 0;
    KP_CUSTOM16(DMACON) = 0x000F;
    for (uint8_t c = 0; c < 4; c++) {
        loop_len[c] = 0;
        KP_CUSTOM16(AUD0VOL + ((uint32_t)c << 4)) = 0;
    }
    if (!mixed) return;
    if (ntracks > MIX_TRACKS) ntracks = MIX_TRACKS;
    channels_used = 0;
    for (uint8_t t = 0; t < ntracks; t++) {
        swmix_voice_stop(&voice[t]);
        voice[t].volume = 0;
        voice_fresh[t] = 0;
        if (t < PAN_TRACKS) {
            swmix_voice_stop(&voice_r[t]);
            voice_r[t].volume = 0;
            pan[t] = song.trackpan[t];
            volume_of[t] = 0;
        }
    }
    swmix_voice *list[SWMIX_MAX_VOICES];
    if (stereo) {
        /* left: tracks 0-7 on channel 0, 8-15 on 3; right: 0-7 on 1, 8-15 on 2 */
        static const uint8_t side_channel[2][2] = {{0, 3}, {1, 2}};
        for (uint8_t side = 0; side < 2; side++)
            for (uint8_t half = 0; half < 2; half++) {
                uint16_t n = 0;
                for (uint8_t t = (uint8_t)(half << 3); t < ntracks && t < (half << 3) + 8; t++)
                    list[n++] = side ? &voice_r[t] : &voice[t];
                add_channel(side_channel[side][half], list, n);
            }
    } else {
        for (uint8_t c = 0; c < 4; c++) {
            uint16_t n = 0;
            for (uint8_t t = c; t < ntracks && n < SWMIX_MAX_VOICES; t = (uint8_t)(t + 4)) list[n++] = &voice[t];
            add_channel(c, list, n);
        }
    }
    swmix_start(channel_list, channels_used, MIX_PERIOD, MIX_BLOCK);
}

void out_shutdown(void) {
    if (out_mixed) swmix_stop(channel_list, channels_used);
    KP_CUSTOM16(DMACON) = 0x000F;
    for (uint8_t c = 0; c < 4; c++) KP_CUSTOM16(AUD0VOL + ((uint32_t)c << 4)) = 0;
}

void out_play(uint8_t t, uint32_t lc, uint32_t len, uint32_t rep, uint32_t replen) {
    if (t >= ntracks) return;
    if (out_mixed) {
        voice_fresh[t] = 0;
        voice_play(&voice[t], lc, len, rep, replen);
        if (stereo) voice_play(&voice_r[t], lc, len, rep, replen);
        return;
    }
    uint16_t bit = (uint16_t)(1u << t);
    KP_CUSTOM16(DMACON) = bit;
    set_block(t, lc, len >> 1);
    if (replen >= 2) {
        loop_lc[t] = rep;
        loop_len[t] = (uint16_t)((replen >> 1) > 0xFFFF ? 0xFFFF : replen >> 1);
    } else {
        loop_lc[t] = (uint32_t)silence;
        loop_len[t] = 1;
    }
    dma_start |= bit;
}

void out_synth(uint8_t t, uint8_t restart) {
    if (t >= ntracks) return;
    if (out_mixed) {
        if (restart) {
            swmix_voice_stop(&voice[t]);
            if (stereo) swmix_voice_stop(&voice_r[t]);
            voice_fresh[t] = 1;
        }
        return;
    }
    uint16_t bit = (uint16_t)(1u << t);
    if (restart) {
        /* silent until the waveform sequence names its first waveform
         * (a sequence may wait before it), not what the channel held */
        KP_CUSTOM16(DMACON) = bit;
        set_block(t, 0, 0);
    }
    loop_len[t] = 0;
    dma_start |= bit;
}

void out_wave(uint8_t t, uint32_t lc, uint16_t words) {
    if (t >= ntracks) return;
    if (out_mixed) {
        uint32_t bytes = (uint32_t)words << 1;
        voice_wave(&voice[t], lc, bytes, voice_fresh[t]);
        if (stereo) voice_wave(&voice_r[t], lc, bytes, voice_fresh[t]);
        voice_fresh[t] = 0;
        return;
    }
    set_block(t, lc, words);
}

void out_per_vol(uint8_t t, uint16_t period, uint8_t volume) {
    if (t >= ntracks) return;
    if (out_mixed) {
        swmix_voice_period(&voice[t], period);
        if (stereo) {
            voice_r[t].step_int = voice[t].step_int;
            voice_r[t].step_frac = voice[t].step_frac;
            volume_of[t] = volume;
            pan_volumes(t);
        } else {
            voice[t].volume = volume;
        }
        return;
    }
    volatile uint16_t *hw = aud(t);
    hw[3] = period;
    hw[4] = volume;
}

void out_pan(uint8_t t, int8_t p) {
    if (!stereo || t >= ntracks) return;
    pan[t] = p < -16 ? -16 : p > 16 ? 16 : p;
    pan_volumes(t);
}

void out_off(uint8_t t) {
    if (t >= ntracks) return;
    if (out_mixed) {
        swmix_voice_stop(&voice[t]);
        if (stereo) swmix_voice_stop(&voice_r[t]);
        voice_fresh[t] = 0;
        return;
    }
    uint16_t bit = (uint16_t)(1u << t);
    KP_CUSTOM16(DMACON) = bit;
    dma_start &= (uint16_t)~bit;
    loop_len[t] = 0;
}

void out_commit(void) {
    if (out_mixed || !dma_start) return;
    KP_CUSTOM16(DMACON) = (uint16_t)(DMAF_SETCLR | DMAF_MASTER | dma_start);
    for (uint8_t t = 0; t < 4; t++) {
        if ((dma_start & (1u << t)) && loop_len[t]) set_block(t, loop_lc[t], loop_len[t]);
    }
    dma_start = 0;
}
