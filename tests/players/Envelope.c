/* Envelope: a tone on channel 0 whose loudness follows a pattern. The module (big-endian longs, struct
 * envelope_module; 0 for never) tells it when the volume pattern restarts, when the tone stops and when to report
 * the song end. Volumes: a 16-bit xorshift sequence (no multiply or divide helpers on the 68000). Variants, a file
 * each defining its ENVELOPE_NAME and one of these: EnvelopeSongEnd (its flags say it signals the end), Tone (any
 * module; without the magic a steady tone), Subsong (any module; subsongs 1..5, silent, each only setting its own
 * period). */
#include "kelva_player.h"

struct envelope_module {
    uint32_t magic;           /* 'ENVL' */
    uint32_t pattern_ticks;   /* the volume pattern restarts after this many ticks */
    uint32_t stop_tick, end_tick, seed;
    uint32_t ticks;           /* the player writes its tick count here */
};

static volatile struct envelope_module *mod;   /* 0: not an Envelope module */
static uint32_t in_pattern;
static uint16_t state;

/* One period of a square wave, played by DMA in a loop. */
static const int8_t wave[16] __attribute__((aligned(2))) = {
    100, 100, 100, 100, 100, 100, 100, 100, -100, -100, -100, -100, -100, -100, -100, -100,
};

#ifdef ENVELOPE_SUBSONGS
__asm__("\t.text\n\t.globl subsong_range\nsubsong_range:\n\tmoveq #1,%d0\n\tmoveq #5,%d1\n\trts\n");
void subsong_range(void);
static const uint16_t periods[5] = {428, 381, 339, 320, 285};
#endif

static uint16_t next_volume(void) {
    uint16_t x = state;
    x ^= (uint16_t)(x << 7);
    x ^= (uint16_t)(x >> 9);
    x ^= (uint16_t)(x << 8);
    state = x;
    return (uint16_t)(8 + (x & 31) + ((x >> 5) & 15) + ((x >> 9) & 7));   /* 8..61 */
}

KELVA_ROUTINE(init_player) {
    (void)d0;
    mod = (volatile struct envelope_module *)kp_g32(g, DTG_ChkData);
    if (kp_g32(g, DTG_ChkSize) < sizeof(struct envelope_module) || mod->magic != 0x454E564CUL) mod = 0;
#if !defined(ENVELOPE_TONE) && !defined(ENVELOPE_SUBSONGS)
    if (!mod) return 1;   /* the variants take any module */
#endif
    return 0;
}

KELVA_ROUTINE(init_sound) {
    (void)d0;
#ifdef ENVELOPE_SUBSONGS
    uint16_t n = (uint16_t)(kp_g16(g, DTG_SndNum) - 1);
    KP_CUSTOM16(AUD0PER) = periods[n < 5 ? n : 0];   /* out of range: the first subsong */
    return 0;
#endif
    (void)g;
    if (mod) {
        mod->ticks = 0;
        in_pattern = 0;
        state = (uint16_t)(mod->seed | 1);
    }
    KP_CUSTOM32(AUD0LC) = (uint32_t)wave;
    KP_CUSTOM16(AUD0LEN) = sizeof wave / 2;
    KP_CUSTOM16(AUD0PER) = 254;
    KP_CUSTOM16(AUD0VOL) = 64;
    KP_CUSTOM16(DMACON) = DMAF_SETCLR | DMAF_MASTER | DMAF_AUD0;
    return 0;
}

KELVA_ROUTINE(tick) {
    (void)d0;
    if (!mod) return 0;
    uint32_t t = mod->ticks + 1;
    mod->ticks = t;
    if (mod->pattern_ticks && in_pattern == mod->pattern_ticks) {
        in_pattern = 0;
        state = (uint16_t)(mod->seed | 1);
    }
    in_pattern++;
    KP_CUSTOM16(AUD0VOL) = next_volume();
    if (t == mod->stop_tick) KP_CUSTOM16(DMACON) = DMAF_AUD0;
    if (t == mod->end_tick) kp_support(g, DTG_SongEnd, 0, 0, 0);
    return t;
}

#ifndef ENVELOPE_NAME
#define ENVELOPE_NAME "Envelope"
#endif
static const char name[] = ENVELOPE_NAME;

const uint32_t tags[] = {
#ifdef ENVELOPE_SIGNALS_END
    EP_Flags, EPF_Songend,
#endif
#ifdef ENVELOPE_SUBSONGS
    DTP_SubSongRange, (uint32_t)subsong_range,
#endif
    DTP_PlayerName, (uint32_t)name,
    DTP_InitPlayer, (uint32_t)init_player_entry,
    DTP_InitSound,  (uint32_t)init_sound_entry,
    DTP_Interrupt,  (uint32_t)tick_entry,
    0,
};

KELVA_PLAYER_HEADER(tags);
