/* output.c - where the MED player's tracks sound.
 *
 * Songs of up to four tracks play on Paula's channels directly, as the
 * tracker's four-channel replay did: a new note stops the channel's DMA,
 * sets the sample, and DMA comes back on at the end of the tick with the
 * loop (or a silent word) queued behind the sample; waveforms of synthetic
 * sounds are queued behind the one playing, so they change at the end of
 * a waveform period.
 *
 * Songs with more tracks (OctaMED's 5-8 channel mode, and wider MMD1-MMD3
 * songs) and the software-mixed MMD2/MMD3 songs play through the shared
 * software mixer (players/lib/swmix): track t is a voice of Paula channel
 * t mod 4, so tracks 0 and 4 share channel 0 as in OctaMED's channel
 * splitting, and a channel sums its voices at 1/N of the level each (N =
 * its voices rounded up to a power of two). The mixer plays each channel
 * at 22 kHz from two buffers refilled by the channel's audio interrupt;
 * the tracks' sample, period and volume set on a tick are heard from the
 * next buffer on. Up to 32 tracks sound this way; further tracks are
 * silent. */
#include "med.h"
#include "swmix.h"

#define MIX_TRACKS 32
#define MIX_PERIOD SWMIX_PERIOD_22K
#define MIX_BLOCK 128

uint8_t out_mixed;
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

static swmix_voice voice[MIX_TRACKS];
static uint8_t voice_fresh[MIX_TRACKS];   /* a synthetic sound waits for its first waveform */
static swmix_channel channel[4];
static swmix_channel *channel_list[4];
static uint8_t channels_used;

/* ---- Interface -------------------------------------------------------------------- */

void out_init(uint8_t tracks, uint8_t mixed) {
    ntracks = tracks;
    out_mixed = mixed;
    dma_start = 0;
    KP_CUSTOM16(DMACON) = 0x000F;
    for (uint8_t c = 0; c < 4; c++) {
        loop_len[c] = 0;
        KP_CUSTOM16(AUD0VOL + ((uint32_t)c << 4)) = 0;
    }
    if (!mixed) return;
    if (ntracks > MIX_TRACKS) ntracks = MIX_TRACKS;
    channels_used = 0;
    for (uint8_t c = 0; c < 4 && c < ntracks; c++) {
        swmix_voice *list[SWMIX_MAX_VOICES];
        uint16_t n = 0;
        for (uint8_t t = c; t < ntracks && n < SWMIX_MAX_VOICES; t = (uint8_t)(t + 4)) {
            swmix_voice_stop(&voice[t]);
            voice[t].volume = 0;
            voice_fresh[t] = 0;
            list[n++] = &voice[t];
        }
        swmix_channel_init(&channel[c], c, list, n);
        channel_list[channels_used++] = &channel[c];
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
        swmix_voice *v = &voice[t];
        voice_fresh[t] = 0;
        if (replen < 2) {
            swmix_voice_play(v, (const int8_t *)lc, len, 0, 0, 0);
        } else if (rep >= lc) {
            swmix_voice_play(v, (const int8_t *)lc, rep + replen - lc, rep - lc, replen, 0);
        } else {
            /* started inside the loop (a sample offset) */
            swmix_voice_play(v, (const int8_t *)rep, replen, 0, replen, lc - rep);
        }
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
            voice_fresh[t] = 1;
        }
        return;
    }
    uint16_t bit = (uint16_t)(1u << t);
    if (restart) KP_CUSTOM16(DMACON) = bit;
    loop_len[t] = 0;
    dma_start |= bit;
}

void out_wave(uint8_t t, uint32_t lc, uint16_t words) {
    if (t >= ntracks) return;
    if (out_mixed) {
        swmix_voice *v = &voice[t];
        uint32_t bytes = (uint32_t)words << 1;
        if (!v->data || voice_fresh[t] || v->loop_len == 0) {
            swmix_voice_play(v, (const int8_t *)lc, bytes, 0, bytes, 0);
        } else {
            /* the next waveform continues at the same phase */
            uint32_t p = v->pos >= v->end - v->loop_len ? v->pos - (v->end - v->loop_len) : 0;
            if (p >= bytes) p = 0;
            v->data = (const int8_t *)lc;
            v->pos = p;
            v->end = bytes;
            v->loop_len = bytes;
        }
        voice_fresh[t] = 0;
        return;
    }
    set_block(t, lc, words);
}

void out_per_vol(uint8_t t, uint16_t period, uint8_t volume) {
    if (t >= ntracks) return;
    if (out_mixed) {
        swmix_voice_period(&voice[t], period);
        voice[t].volume = volume;
        return;
    }
    volatile uint16_t *hw = aud(t);
    hw[3] = period;
    hw[4] = volume;
}

void out_off(uint8_t t) {
    if (t >= ntracks) return;
    if (out_mixed) {
        swmix_voice_stop(&voice[t]);
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
