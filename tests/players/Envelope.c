/* Envelope: a tone on channel 0 whose loudness follows a pattern, for the
 * tests of rendering and length measurement. The module (big-endian longs,
 * struct envelope_module; 0 for never) tells it when the volume pattern
 * restarts, when the tone stops and when to report the song end. Built
 * twice: as Envelope, and as EnvelopeSongEnd, whose flags tag says that it
 * signals the song's end. Volumes come from a 16-bit xorshift sequence
 * (shifts and xors only: no multiply or divide helpers on the 68000). */
#include "kelva_player.h"

struct envelope_module {
    uint32_t magic;           /* 'ENVL' */
    uint32_t pattern_ticks;   /* the volume pattern restarts after this many ticks */
    uint32_t stop_tick, end_tick, seed;
    uint32_t ticks;           /* the player writes its tick count here */
};

static volatile struct envelope_module *mod;
static uint32_t in_pattern;
static uint16_t state;

/* One period of a square wave, played by DMA in a loop. */
static const int8_t wave[16] __attribute__((aligned(2))) = {
    100, 100, 100, 100, 100, 100, 100, 100, -100, -100, -100, -100, -100, -100, -100, -100,
};

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
    if (kp_g32(g, DTG_ChkSize) < sizeof(struct envelope_module) || mod->magic != 0x454E564CUL) return 1;
    return 0;
}

KELVA_ROUTINE(init_sound) {
    (void)g;
    (void)d0;
    mod->ticks = 0;
    in_pattern = 0;
    state = (uint16_t)(mod->seed | 1);
    KP_CUSTOM32(AUD0LC) = (uint32_t)wave;
    KP_CUSTOM16(AUD0LEN) = sizeof wave / 2;
    KP_CUSTOM16(AUD0PER) = 254;
    KP_CUSTOM16(AUD0VOL) = 64;
    KP_CUSTOM16(DMACON) = DMAF_SETCLR | DMAF_MASTER | DMAF_AUD0;
    return 0;
}

KELVA_ROUTINE(tick) {
    (void)d0;
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

#ifdef ENVELOPE_SIGNALS_END
static const char name[] = "EnvelopeSongEnd";
#else
static const char name[] = "Envelope";
#endif

const uint32_t tags[] = {
#ifdef ENVELOPE_SIGNALS_END
    EP_Flags, EPF_Songend,
#endif
    DTP_PlayerName, (uint32_t)name,
    DTP_InitPlayer, (uint32_t)init_player_entry,
    DTP_InitSound,  (uint32_t)init_sound_entry,
    DTP_Interrupt,  (uint32_t)tick_entry,
    0,
};

KELVA_PLAYER_HEADER(tags);
