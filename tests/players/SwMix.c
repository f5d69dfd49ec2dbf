/* SwMix: the shared software mixer (players/lib/swmix.c) on Paula channel 0, for the mixer's tests. The module
 * (big-endian): 'SWMX', word mixing period, word block size in bytes, word voice count (1..8), then per voice longs
 * sample offset in the module, length, loop start, loop length (bytes) and words period, volume. StartInt starts the
 * voices and the mixing; EndSound stops it. */
#include "kelva_player.h"
#include "swmix.h"

struct voice_setup {
    uint32_t offset, length, loop_start, loop_len;
    uint16_t period, volume;
};

static swmix_voice voices[SWMIX_MAX_VOICES];
static swmix_voice *const voice_list[SWMIX_MAX_VOICES] = {
    &voices[0], &voices[1], &voices[2], &voices[3], &voices[4], &voices[5], &voices[6], &voices[7],
};
static swmix_channel channel;
static swmix_channel *const channels[1] = {&channel};
static const volatile uint8_t *mod;
static uint32_t size;

static uint16_t word_at(uint32_t o) { return (uint16_t)(mod[o] << 8 | mod[o + 1]); }
static uint32_t long_at(uint32_t o) { return (uint32_t)word_at(o) << 16 | word_at(o + 2); }

KELVA_ROUTINE(init_player) {
    (void)d0;
    mod = (const volatile uint8_t *)kp_g32(g, DTG_ChkData);
    size = kp_g32(g, DTG_ChkSize);
    if (size < 10 || long_at(0) != 0x53574D58UL) return 1;
    uint16_t n = word_at(8);
    if (n < 1 || n > SWMIX_MAX_VOICES || size < 10 + 20 * (uint32_t)n) return 1;
    return 0;
}

KELVA_ROUTINE(start_int) {
    (void)g, (void)d0;
    uint16_t n = word_at(8);
    swmix_channel_init(&channel, 0, voice_list, n);
    /* The mixing period must be known before the voices' steps. */
    swmix_period = word_at(4);
    for (uint16_t i = 0; i < n; i++) {
        uint32_t r = 10 + 20 * (uint32_t)i;
        uint32_t off = long_at(r), len = long_at(r + 4);
        if (off > size || len > size - off) len = 0;
        swmix_voice_play(&voices[i], (const int8_t *)(mod + off), len, long_at(r + 8), long_at(r + 12), 0);
        swmix_voice_period(&voices[i], word_at(r + 16));
        voices[i].volume = word_at(r + 18);
    }
    swmix_start(channels, 1, word_at(4), word_at(6));
    return 0;
}

KELVA_ROUTINE(end_sound) {
    (void)g, (void)d0;
    swmix_stop(channels, 1);
    return 0;
}

static const char name[] = "SwMix";

const uint32_t tags[] = {DTP_PlayerName, (uint32_t)name,           DTP_InitPlayer, (uint32_t)init_player_entry,
                         DTP_StartInt,   (uint32_t)start_int_entry, DTP_EndSound,   (uint32_t)end_sound_entry,
                         0};

KELVA_PLAYER_HEADER(tags);
