/* output.c - the software-mixed channels of kelva's ProTracker-family
 * players (see output.h). */
#include "output.h"

#include "kp_math.h"

static ptk_mixvoice voices[OUT_MAX_CHANNELS];
static swmix_channel paula[4];
static swmix_channel *const paula_list[4] = {&paula[0], &paula[1], &paula[2], &paula[3]};
static const int8_t *silent_block;
static uint8_t running;

/* Two buffers per Paula channel, used in turn: a tick's samples and the
 * pad (rounded up to whole words). */
#define BUFFER_BYTES ((OUT_MIX_MAX + OUT_MIX_PAD + 2) & ~1u)
static int8_t buffers[4][2][BUFFER_BYTES] __attribute__((aligned(2)));
static uint8_t current;
static uint16_t clock_rest;   /* Paula clocks of the last tick not yet mixed */

/* Bytes in a block of `len` words, as Paula counts them. */
static inline uint32_t block_bytes(uint16_t len) { return len ? (uint32_t)len << 1 : 0x20000; }

uint32_t out_mix_start(uint8_t channels, const void *silence) {
    if (channels < 5 || channels > OUT_MAX_CHANNELS) return 1;
    silent_block = (const int8_t *)silence;
    for (uint8_t c = 0; c < OUT_MAX_CHANNELS; c++) {
        uint8_t *p = (uint8_t *)&voices[c];
        for (uint32_t b = 0; b < sizeof voices[c]; b++) p[b] = 0;
    }
    /* Tracker channel c on Paula channel c mod 4. */
    uint16_t most = 0;
    for (uint16_t x = 0; x < 4; x++) {
        swmix_voice *list[SWMIX_MAX_VOICES];
        uint16_t n = 0;
        for (uint16_t c = x; c < channels && n < SWMIX_MAX_VOICES; c = (uint16_t)(c + 4)) list[n++] = &voices[c].sv;
        swmix_channel_init(&paula[x], x, list, n);
        if (paula[x].shift > most) most = paula[x].shift;
    }
    /* The same share for every voice: the shift of the fullest channel. */
    for (uint16_t x = 0; x < 4; x++) paula[x].shift = most;
    swmix_tick_start(paula_list, 4, OUT_MIX_PERIOD);
    clock_rest = 0;
    current = 0;
    running = 1;
    return 0;
}

ptk_mixvoice *out_voice(uint8_t c) { return c < OUT_MAX_CHANNELS ? &voices[c] : 0; }

/* Mixes n samples of channel x into out, SWMIX_MAX_BLOCK at a time. */
static void mix(swmix_channel *x, int8_t *out, uint16_t n) {
    while (n) {
        uint16_t part = n > SWMIX_MAX_BLOCK ? SWMIX_MAX_BLOCK : n;
        swmix_mix(x, out, part);
        out += part;
        n = (uint16_t)(n - part);
    }
}

/* Where a voice is in its sample, kept across the pad's mixing. */
struct voice_place {
    const int8_t *data, *next;
    uint32_t pos, end, loop_len, next_len;
    uint16_t frac;
};

void out_mix_tick(uint16_t timer) {
    if (!running) return;
    /* The tick lasts (timer + 1) E-clock ticks of 5 Paula clocks. */
    uint32_t t = (uint32_t)timer + 1;
    uint32_t clocks = (t << 2) + t + clock_rest;
    uint16_t n = kp_divu16(clocks, OUT_MIX_PERIOD);
    if (n > OUT_MIX_MAX) n = OUT_MIX_MAX;
    clock_rest = (uint16_t)(clocks - kp_mulu16(n, OUT_MIX_PERIOD));
    uint16_t bytes = (uint16_t)((n + OUT_MIX_PAD + 1) & ~1u);
    current ^= 1;
    for (uint16_t x = 0; x < 4; x++) {
        swmix_channel *c = &paula[x];
        int8_t *b = buffers[x][current];
        mix(c, b, n);
        struct voice_place keep[SWMIX_MAX_VOICES];
        for (uint16_t k = 0; k < c->voices; k++) {
            const swmix_voice *v = c->voice[k];
            keep[k].data = v->data;
            keep[k].next = v->next;
            keep[k].pos = v->pos;
            keep[k].end = v->end;
            keep[k].loop_len = v->loop_len;
            keep[k].next_len = v->next_len;
            keep[k].frac = v->frac;
        }
        mix(c, b + n, (uint16_t)(bytes - n));
        for (uint16_t k = 0; k < c->voices; k++) {
            swmix_voice *v = c->voice[k];
            v->data = keep[k].data;
            v->next = keep[k].next;
            v->pos = keep[k].pos;
            v->end = keep[k].end;
            v->loop_len = keep[k].loop_len;
            v->next_len = keep[k].next_len;
            v->frac = keep[k].frac;
        }
    }
    /* All four start their new buffers together, now. */
    KP_CUSTOM16(DMACON) = 0x000F;
    for (uint16_t x = 0; x < 4; x++) {
        volatile uint16_t *hw = (volatile uint16_t *)(CUSTOM + AUD0LC + ((uint32_t)x << 4));
        *(volatile uint32_t *)hw = (uint32_t)buffers[x][current];
        hw[2] = (uint16_t)(bytes >> 1);
    }
    KP_CUSTOM16(DMACON) = (uint16_t)(DMAF_SETCLR | DMAF_MASTER | 0x000F);
}

void out_mix_stop(void) {
    if (!running) return;
    running = 0;
    swmix_stop(paula_list, 4);
}

void out_period(ptk_mixvoice *m, uint16_t period) {
    if (period == m->period) return;
    m->period = period;
    /* Paula's floor: periods 1-112 play at 113; at period 0 the channel
     * is left out (it neither sounds nor moves on). */
    if (period && period < 113) period = 113;
    swmix_voice_period(&m->sv, period);
    m->sv.volume = period ? m->volume : 0;
}

void out_volume(ptk_mixvoice *m, uint16_t volume) {
    m->volume = volume > 64 ? 64 : volume;
    m->sv.volume = m->period ? m->volume : 0;
}

/* DMA on: the channel starts the block in its latches and, until another
 * block is queued, repeats it. The silent block is not mixed at all. */
void out_dma_on(ptk_mixvoice *m) {
    swmix_voice *v = &m->sv;
    m->dma = 1;
    v->pos = 0;
    v->frac = 0;
    v->next = 0;
    if ((const int8_t *)m->lc == silent_block) {
        v->data = 0;
        return;
    }
    v->data = (const int8_t *)m->lc;
    v->end = v->loop_len = block_bytes(m->len);
}

void out_dma_off(ptk_mixvoice *m) {
    m->dma = 0;
    swmix_voice_stop(&m->sv);
}

/* AUDxLC/AUDxLEN: with DMA on, the block follows the one playing and then
 * repeats; a channel that has ended starts it at once. */
void out_block(ptk_mixvoice *m, uint32_t lc, uint16_t len) {
    swmix_voice *v = &m->sv;
    m->lc = lc;
    m->len = len;
    if (!m->dma) return;
    const int8_t *p = (const int8_t *)lc;
    uint32_t bytes = block_bytes(len);
    if (p == silent_block) {
        /* Nothing audible follows: the voice ends with its block. */
        v->loop_len = 0;
        v->next = 0;
        return;
    }
    if (!v->data) {
        v->data = p;
        v->pos = 0;
        v->frac = 0;
        v->end = v->loop_len = bytes;
        v->next = 0;
        return;
    }
    if (p >= v->data && lc + bytes == (uint32_t)v->data + v->end) {
        /* The tail of the block playing: its loop. */
        v->loop_len = bytes;
        v->next = 0;
        return;
    }
    v->loop_len = 0;
    v->next = p;
    v->next_len = bytes;
}
