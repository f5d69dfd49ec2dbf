/* output.c - the voices on Paula.
 *
 * Four voices without ring modulation (every AHX song, four-channel HVL
 * songs) play on the four Paula channels directly: voice n on channel n,
 * whose side (0 and 3 left, 1 and 2 right) is the side of the tracker's own
 * L R R L layout. A waveform is a block in chip memory that Paula loops; how
 * a new waveform takes over at once is told at direct_switch. HVL's panning
 * has no place on a fixed channel and is not heard in this mode.
 *
 * The Amiga's switchable audio filter is turned off: the songs' brightness
 * is their own, shaped by the filter sweeps of the waveforms.
 *
 * HVL songs with more than four channels, or with ring modulation, are
 * mixed in software (players/lib/swmix) into the four Paula channels:
 *   - every voice is summed into exactly one Paula channel: the left ones
 *     (0, 3) when its pan leans left, the right ones (1, 2) when it leans
 *     right, and the side of its place in the L R R L layout when it is
 *     centred; it plays there at its full volume;
 *   - voice n belongs to the pair of Paula channels {0, 1} when n mod 4 is
 *     0 or 1, else to {2, 3}, and takes the channel of its pair on its side;
 *     a pan command that crosses the centre moves it to the other channel of
 *     its pair;
 *   - all four channels scale their sum by the same power of two, set by the
 *     larger pair, so a voice is as loud on either side.
 * The mixing runs in the tick, right after the voices are set: each tick
 * mixes exactly the samples Paula plays until the next one and restarts the
 * four channels on them, so nothing lags behind the tracker's state. */
#include "ahx.h"

#include "kp_math.h"
#include "swmix.h"

/* Mixing periods (about 21-25 kHz) whose tick holds a whole, even number
 * of samples, for 1..4 ticks per 1/50 s: Paula clock / 50 / ticks / period
 * is within 0.1 of the block. */
static const uint16_t mix_period[4] = {165, 143, 162, 143};
static const uint16_t mix_block[4] = {430, 248, 146, 124};

static uint8_t mixed;
static uint16_t silence[4] __attribute__((aligned(4)));
static const int8_t *playing[4];   /* direct mode: the block queued last */

static swmix_voice mix_voice[AHX_MAX_VOICES];
static swmix_channel mix_channel[4];
static swmix_channel *const mix_channels[4] = {&mix_channel[0], &mix_channel[1], &mix_channel[2], &mix_channel[3]};
static uint8_t channel_of[AHX_MAX_VOICES];
static uint16_t mix_shift;

#define AUD(x, reg) (AUD0##reg + ((x) << 4))

/* The bytes Paula loops for a voice's waveform: a periodic wave is stored
 * repeated to 128 bytes, noise is a 0x280-byte stretch of the table. */
static inline uint16_t block_bytes(const struct ahx_voice *v) {
    return v->waveform == AHX_WAVE_NOISE ? AHX_NOISE_BLOCK : 128;
}

/* ---- Direct ---------------------------------------------------------------- */

/* The tracker plays a voice from a 0x280-byte buffer whose contents it
 * rewrites when the waveform changes, while the play position runs on: a
 * new waveform sounds at once, from the position the old one had reached.
 * Paula cannot change a block in flight, so the player keeps that position
 * itself (24.8 fixed point, in samples since the voice's instrument started,
 * modulo 0x280): every tick it advances by the Paula clocks of one tick over
 * the period Paula played. A new waveform then restarts the channel's DMA
 * at the same place in the new block, and the whole block is queued to loop
 * behind it. Voices that play the same note from the same tick thus stay in
 * phase, as in the tracker. */
#define PAULA_CLOCKS_PER_TICK_8 (70938ul << 8)   /* Paula clock / 50, x 256 */

static uint32_t phase[4];
static uint16_t paula_period[4];
static uint32_t tick_clocks;

static void direct_start(void) {
    KP_CUSTOM16(DMACON) = 0x000F;
    for (uint16_t x = 0; x < 4; x++) {
        KP_CUSTOM32(AUD(x, LC)) = (uint32_t)silence;
        KP_CUSTOM16(AUD(x, LEN)) = 4;
        KP_CUSTOM16(AUD(x, PER)) = 428;
        KP_CUSTOM16(AUD(x, VOL)) = 0;
        playing[x] = (const int8_t *)silence;
        phase[x] = 0;
        paula_period[x] = 428;
    }
    tick_clocks = kp_divu32(PAULA_CLOCKS_PER_TICK_8, ahx_song.speed_multiplier);
    KP_CUSTOM16(DMACON) = DMAF_SETCLR | DMAF_MASTER | 0x000F;
}

/* Starts channel x on the block of `bytes` bytes at src from the voice's
 * position, and queues the whole block to loop behind it. */
static void direct_switch(uint16_t x, const int8_t *src, uint16_t bytes) {
    uint16_t off = (uint16_t)(phase[x] >> 8);   /* below 0x280 */
    if (bytes != AHX_NOISE_BLOCK) off &= (uint16_t)(bytes - 1);   /* 128 or the 8 bytes of silence */
    off &= (uint16_t)~1u;
    uint16_t bit = (uint16_t)(1u << x);
    KP_CUSTOM16(DMACON) = bit;
    KP_CUSTOM32(AUD(x, LC)) = (uint32_t)(src + off);
    KP_CUSTOM16(AUD(x, LEN)) = (uint16_t)((bytes - off) >> 1);
    KP_CUSTOM16(DMACON) = (uint16_t)(DMAF_SETCLR | bit);
    KP_CUSTOM32(AUD(x, LC)) = (uint32_t)src;
    KP_CUSTOM16(AUD(x, LEN)) = (uint16_t)(bytes >> 1);
    playing[x] = src;
}

static void direct_tick(void) {
    for (uint16_t x = 0; x < ahx_song.channels; x++) {
        struct ahx_voice *v = &ahx_voices[x];
        /* Where Paula is now: one tick further at the period it played. */
        phase[x] += kp_divu32(tick_clocks, paula_period[x]);
        while (phase[x] >= ((uint32_t)AHX_NOISE_BLOCK << 8)) phase[x] -= (uint32_t)AHX_NOISE_BLOCK << 8;
        if (v->plant_period) {
            paula_period[x] = (uint16_t)v->audio_period;
            KP_CUSTOM16(AUD(x, PER)) = paula_period[x];
            v->plant_period = 0;
        }
        if (v->restart) {
            phase[x] = 0;
            playing[x] = 0;
            v->restart = 0;
        }
        const int8_t *src = v->source ? v->source : (const int8_t *)silence;
        if (src != playing[x]) direct_switch(x, src, v->source ? block_bytes(v) : 8);
        KP_CUSTOM16(AUD(x, VOL)) = (uint16_t)v->audio_volume;
    }
}

/* ---- Mixed ----------------------------------------------------------------- */

/* The Paula channel of voice n for its pan. */
static uint8_t mix_channel_for(uint8_t n) {
    uint8_t home = (uint8_t)(n & 3);
    uint8_t home_right = (uint8_t)(home == 1 || home == 2);
    uint8_t pan = ahx_voices[n].pan;
    uint8_t right = pan > 128 ? 1 : pan < 128 ? 0 : home_right;
    return right == home_right ? home : (uint8_t)(home ^ 1);
}

static void mix_assign(void) {
    for (uint16_t c = 0; c < 4; c++) mix_channel[c].voices = 0;
    for (uint8_t n = 0; n < ahx_song.channels; n++) {
        swmix_channel *c = &mix_channel[channel_of[n]];
        c->voice[c->voices++] = &mix_voice[n];
    }
    for (uint16_t c = 0; c < 4; c++) mix_channel[c].shift = mix_shift;
}

static void mix_start(void) {
    uint8_t pair = 0;
    for (uint8_t n = 0; n < ahx_song.channels; n++) {
        mix_voice[n].data = 0;
        mix_voice[n].ring = 0;
        mix_voice[n].volume = 0;
        channel_of[n] = mix_channel_for(n);
        if ((n & 3) < 2) pair++;
    }
    for (uint16_t c = 0; c < 4; c++) {
        swmix_voice *none[1] = {0};
        swmix_channel_init(&mix_channel[c], c, none, 0);
    }
    mix_shift = 6;
    for (uint16_t k = 1; k < pair; k = (uint16_t)(k << 1)) mix_shift++;
    mix_assign();
    swmix_tick_start(mix_channels, 4, mix_period[ahx_song.speed_multiplier - 1]);
}

static void mix_tick(void) {
    uint8_t moved = 0;
    for (uint8_t n = 0; n < ahx_song.channels; n++) {
        struct ahx_voice *v = &ahx_voices[n];
        swmix_voice *m = &mix_voice[n];
        if (v->restart) {
            m->pos = 0;
            m->frac = 0;
            m->ring_pos = 0;
            m->ring_frac = 0;
            v->restart = 0;
        }
        if (!v->source) {
            m->data = 0;
        } else {
            uint16_t len = block_bytes(v);
            if (m->pos >= len) m->pos &= 127;
            m->data = v->source;
            m->end = m->loop_len = len;
        }
        if (v->plant_period) {
            swmix_voice_period(m, (uint16_t)v->audio_period);
            v->plant_period = 0;
        }
        m->volume = (uint16_t)v->audio_volume;
        if (v->ring_source) {
            if (v->ring_plant_period) {
                swmix_ring_period(m, (uint16_t)v->ring_period);
                v->ring_plant_period = 0;
            }
            m->ring_len = 128;
            if (m->ring_pos >= 128) m->ring_pos &= 127;
            m->ring = v->ring_source;
        } else {
            m->ring = 0;
        }
        uint8_t c = mix_channel_for(n);
        if (c != channel_of[n]) {
            channel_of[n] = c;
            moved = 1;
        }
    }
    if (moved) mix_assign();
    swmix_tick(mix_channels, 4, mix_block[ahx_song.speed_multiplier - 1]);
}

/* ---- Interface ----------------------------------------------------------- */

static uint8_t uses_ring_modulation(void) {
    if (!ahx_song.hvl) return 0;
    for (uint8_t i = 1; i <= ahx_song.instruments; i++) {
        const struct ahx_instrument *ins = &ahx_song.ins[i];
        for (uint16_t j = 0; j < ins->plist_length; j++) {
            struct ahx_plist_entry e;
            ahx_plist_entry(ins, j, &e);
            if (e.fx[0] == 7 || e.fx[0] == 8 || e.fx[1] == 7 || e.fx[1] == 8) return 1;
        }
    }
    return 0;
}

void ahx_output_start(void) {
    *(volatile uint8_t *)(CIAA + CIAPRA) |= 2;   /* audio filter off */
    mixed = ahx_song.channels > 4 || uses_ring_modulation();
    if (mixed) mix_start();
    else direct_start();
}

void ahx_output_tick(void) {
    if (mixed) mix_tick();
    else direct_tick();
}

void ahx_output_stop(void) {
    if (mixed) swmix_stop(mix_channels, 4);
    KP_CUSTOM16(DMACON) = 0x000F;
    for (uint16_t x = 0; x < 4; x++) KP_CUSTOM16(AUD(x, VOL)) = 0;
}
