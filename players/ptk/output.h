/* output.h - where the channels of kelva's ProTracker-family players sound.
 *
 * Modules of up to four channels play on Paula's channels directly: the
 * replay core writes the audio registers itself. Modules with more channels
 * (5 to 32) are mixed in software, as the Amiga's multichannel replays did:
 * each tracker channel is a voice of players/lib/swmix, and the voices are
 * summed into buffers that Paula's four channels play. The core drives a
 * mixed channel through the functions below, which behave like the Paula
 * registers they replace (latches for the block, DMA off and on, a block
 * written while DMA runs queued behind the one playing), so the replay's
 * order of register writes keeps its meaning.
 *
 * Layout and levels: tracker channel c is a voice of Paula channel c mod 4,
 * which keeps the channels' usual left-right-right-left placing (0, 3, 4,
 * 7, ... left; 1, 2, 5, 6, ... right). Every voice gets the same share of a
 * Paula channel's level: 1/N, N = ceil(channels / 4) rounded up to a power
 * of two (half for 5-8 channels, a quarter for 9-16, an eighth for 17-32),
 * so no sum can clip and no channel is louder than another.
 *
 * Rate and buffers: the mix runs at 19,705 Hz (Paula period 180: a rate
 * that keeps the mixing's share of the processor small, well above what
 * the A500's output filter lets through) and
 * follows the replay's ticks, as the Amiga's multichannel replays mixed a
 * frame's worth of samples in their timer interrupt: after each tick the
 * voices are mixed for exactly the time until the next one (the CIA timer
 * value's (value + 1) x 5 Paula clocks, the fraction of a sample carried
 * on), and the four Paula channels restart together on the new buffers.
 * What a tick sets is heard from that tick on, at every tempo. Two more
 * samples are mixed past the tick's end without moving the voices on, so
 * Paula never runs short when the host's tick falls a fraction later; the
 * next tick's buffer begins with the same samples. */
#ifndef KELVA_PTK_OUTPUT_H
#define KELVA_PTK_OUTPUT_H

#include "swmix.h"

#define OUT_MAX_CHANNELS 32
#define OUT_MIX_PERIOD 180   /* 3546895 / 180 = 19,705 Hz */
#define OUT_MIX_PAD 2
/* The longest tick: timer value 65535 = 327,680 Paula clocks. */
#define OUT_MIX_MAX (327680 / OUT_MIX_PERIOD + 1)

/* A mixed channel and the Paula latches it stands in for. */
typedef struct ptk_mixvoice {
    swmix_voice sv;
    uint32_t lc;        /* AUDxLC */
    uint16_t len;       /* AUDxLEN in words (0 = 65536) */
    uint16_t period;    /* AUDxPER as last written */
    uint16_t volume;    /* AUDxVOL as last written (0..64) */
    uint8_t dma;        /* the channel's DMA is on */
} ptk_mixvoice;

/* Starts the mixer for `channels` (5..32) tracker channels; `silence` is
 * the replay's silent block, which a mixed channel does not play but
 * ends on. Returns 0 on success. */
uint32_t out_mix_start(uint8_t channels, const void *silence);
/* The mixed channel of tracker channel c (after out_mix_start). */
ptk_mixvoice *out_voice(uint8_t c);
/* Mixes the samples of the tick that begins now, which lasts `timer` (a
 * CIA timer value), and starts Paula's channels on them. */
void out_mix_tick(uint16_t timer);
/* Stops the mixer. */
void out_mix_stop(void);

/* The register writes of a mixed channel. */
void out_period(ptk_mixvoice *m, uint16_t period);
void out_volume(ptk_mixvoice *m, uint16_t volume);
void out_block(ptk_mixvoice *m, uint32_t lc, uint16_t len);
void out_dma_off(ptk_mixvoice *m);
void out_dma_on(ptk_mixvoice *m);

#endif
