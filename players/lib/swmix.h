/* swmix.h - software mixing for players with more channels than Paula has.
 *
 * Paula plays four channels. Amiga trackers with more (Oktalyzer, OctaMED's
 * 5-8 channel mode, the multichannel ProTracker replays, DIGI Booster,
 * HivelyTracker) mixed two or more tracker channels in software into a
 * buffer that one Paula channel played. This library does that for kelva's
 * players:
 *
 *   - A voice (swmix_voice) is one tracker channel: an 8-bit signed sample,
 *     a position with a 16-bit fraction, a step per mixed sample, an
 *     optional loop and a volume 0..64. The player sets it from its ticks.
 *   - A mixed channel (swmix_channel) sums up to SWMIX_MAX_VOICES voices
 *     into the 8-bit buffers of one Paula channel. Each voice gets 1/N of
 *     the channel's full level (N rounded up to a power of two), so the sum
 *     never clips: 2 voices each play at half the level a plain Paula
 *     channel would give them, as the tracker replays that mixed did. A
 *     player that sets a channel's `shift` itself keeps at most
 *     2^(shift - 6) voices in it.
 *   - With the usual shifts (one to eight voices at their share) a voice's
 *     sample x volume >> shift comes from a table made once per shift and
 *     is added straight into the channel's bytes; other channels (a shift
 *     set otherwise, saturation, ring modulation) sum longs and scale them.
 *   - The Paula channel plays at a fixed period (the mixing rate, 3546895 /
 *     period Hz) from two buffers of `block` bytes in turn. When a buffer
 *     has played, Paula starts the other one (queued through AUDxLC and
 *     AUDxLEN) and raises its audio interrupt; the handler mixes the next
 *     `block` samples into the buffer that just finished and queues it. The
 *     tracker's state (set at its ticks) is therefore heard with a delay of
 *     one to two blocks, and changes take effect at block boundaries.
 *
 * Paula channels that are not mixed stay the player's to drive directly.
 * Everything here runs on the plain 68000 (kp_math.h). */
#ifndef KELVA_SWMIX_H
#define KELVA_SWMIX_H

#include "kelva_player.h"

#define SWMIX_MAX_VOICES 8     /* per Paula channel */
#define SWMIX_NO_VECTOR 0xFFFFFFFFu   /* old_vector of a channel mixed at the ticks */
#define SWMIX_MAX_BLOCK 1024   /* bytes per buffer */

/* Common mixing periods: 124 gives 28,604 Hz, 160 gives 22,168 Hz. */
#define SWMIX_PERIOD_28K 124
#define SWMIX_PERIOD_22K 160

typedef struct swmix_voice {
    const int8_t *data;   /* the sample; 0 = silent */
    uint32_t pos;         /* byte offset of the next sample in data */
    uint32_t end;         /* byte offset where the sample, or its loop, ends */
    uint32_t loop_len;    /* bytes played again from end - loop_len; 0 = one-shot */
    uint16_t frac;        /* fraction of a byte, in 1/65536 */
    uint16_t step_int;    /* bytes advanced per mixed sample: integer part */
    uint16_t step_frac;   /* and fraction in 1/65536 */
    uint16_t volume;      /* 0..64 */
    /* Ring modulation: when `ring` is set, every sample is multiplied by
     * the ring wave's sample / 128 before the volume. The ring wave loops
     * over ring_len bytes at a step of its own. */
    const int8_t *ring;
    uint32_t ring_pos, ring_len;
    uint16_t ring_frac, ring_step_int, ring_step_frac;
    /* A block queued behind the one playing, as Paula queues the AUDxLC
     * and AUDxLEN written while a channel plays: a voice without a loop
     * (loop_len 0) that reaches `end` goes on at the start of `next` and
     * from then on repeats its next_len bytes. 0 = none: the voice ends. */
    const int8_t *next;
    uint32_t next_len;
} swmix_voice;

typedef struct swmix_channel {
    uint16_t irq[11];                      /* exec Interrupt structure (IS_DATA at 14, IS_CODE at 18) */
    swmix_voice *voice[SWMIX_MAX_VOICES];  /* the voices summed into this channel */
    uint16_t voices;
    uint16_t shift;      /* the sum of sample x volume products is shifted right by this */
    uint16_t saturate;   /* 1: the shifted sum is clamped to -128..127 (a shift that leaves room
                          * for fewer voices than the channel has); 0: it always fits */
    uint16_t paula;      /* 0..3 */
    uint16_t block;      /* bytes per buffer */
    uint16_t refill;     /* buffer (0/1) to mix when the current one has played */
    uint16_t running;
    uint32_t old_vector; /* the interrupt this channel's handler replaced */
    int8_t *buf[2];
} swmix_channel;

/* The mixing period set by swmix_start (0 before). */
extern uint16_t swmix_period;

/* Starts a voice on a sample of `length` bytes from byte `offset`. A loop
 * of loop_len >= 2 bytes from loop_start is played when the voice reaches
 * its end (loop start and length are cut to the sample; the voice then
 * plays up to the loop's end only, as Paula does); a shorter loop makes it
 * a one-shot. An offset at or past the end leaves the voice silent. The
 * step and volume are kept. */
void swmix_voice_play(swmix_voice *v, const int8_t *sample, uint32_t length, uint32_t loop_start,
                      uint32_t loop_len, uint32_t offset);
/* swmix_voice_play and swmix_voice_stop clear a queued block (`next`). */
void swmix_voice_stop(swmix_voice *v);
/* The step that plays the voice at an Amiga period (Paula clocks per
 * sample), relative to the mixing period. Period 0 stops the voice from
 * advancing. */
void swmix_voice_period(swmix_voice *v, uint16_t period);
/* The step as a 16.16 fixed-point number of bytes per mixed sample. */
void swmix_voice_step(swmix_voice *v, uint32_t step);
/* The ring wave's step for an Amiga period, as swmix_voice_period. */
void swmix_ring_period(swmix_voice *v, uint16_t period);

/* Sets up a mixed channel on Paula channel `paula` for `count` voices
 * (1..SWMIX_MAX_VOICES), with the shift that gives each voice its share and
 * no saturation. */
void swmix_channel_init(swmix_channel *c, uint16_t paula, swmix_voice *const *voices, uint16_t count);

/* Mixes `bytes` samples of the channel's voices into out (bytes <=
 * SWMIX_MAX_BLOCK) and advances the voices. */
void swmix_mix(swmix_channel *c, int8_t *out, uint16_t bytes);

/* Starts the mixed channels: mixing period (Paula clocks per sample, at
 * least 124), buffer size in bytes (even, 2..SWMIX_MAX_BLOCK). Installs the
 * audio interrupt handlers, mixes the first two buffers and starts the
 * channels' DMA at volume 64. */
void swmix_start(swmix_channel *const *chs, uint16_t count, uint16_t period, uint16_t block);
/* Stops the channels' DMA and interrupts and gives the old handlers back. */
void swmix_stop(swmix_channel *const *chs, uint16_t count);

/* Mixing at the player's ticks instead: a player that mixes its voices in
 * its tick routine hears every change at once (the interrupt-driven flow
 * above lags one to two blocks). swmix_tick_start sets the mixing period
 * (at least 124) for the channels; each call of swmix_tick then mixes
 * `bytes` samples (even, at most SWMIX_MAX_BLOCK) of every channel into
 * its next buffer and restarts the channels' DMA on them together. The
 * block should last until the next tick: tick length / period samples,
 * rounded up; a block that ends early is played again from its start.
 * swmix_stop stops the channels. */
void swmix_tick_start(swmix_channel *const *chs, uint16_t count, uint16_t period);
void swmix_tick(swmix_channel *const *chs, uint16_t count, uint16_t bytes);

#endif
