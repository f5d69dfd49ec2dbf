/* UltimateSoundtracker: kelva's player for 15-instrument modules of one tracker:
 * Ultimate Soundtracker (15 instruments, arpeggio and slides, speed 6).
 * The replay core in replay.c plays it with the variant PTK_UST. */
#include "replay.h"

/* Check2: D0 = 0 when the module has the 15-instrument layout. */
KELVA_ROUTINE(check2) {
    (void)d0;
    return ptk_check((const volatile uint8_t *)kp_g32(g, DTG_ChkData), kp_g32(g, DTG_ChkSize), PTK_UST);
}

/* InitPlayer: reads the layout and sets the song to its start. */
KELVA_ROUTINE(init_player) {
    (void)d0;
    return ptk_init(g, PTK_UST);
}

/* EndSound: silence. */
KELVA_ROUTINE(end_sound) {
    (void)g;
    (void)d0;
    ptk_stop();
    return 0;
}

/* Interrupt: one tick. */
KELVA_ROUTINE(tick) {
    (void)d0;
    ptk_tick(g);
    return 0;
}

static const char name[] = "UltimateSoundtracker";
static const char creator[] = "kelva: Ultimate Soundtracker (15 instruments, arpeggio and slides, speed 6)";

const uint32_t tags[] = {
    DTP_PlayerName, (uint32_t)name,
    DTP_Creator, (uint32_t)creator,
    DTP_PlayerVersion, 0x00010000,
    DTP_Check2, (uint32_t)check2_entry,
    DTP_InitPlayer, (uint32_t)init_player_entry,
    DTP_EndSound, (uint32_t)end_sound_entry,
    DTP_Interrupt, (uint32_t)tick_entry,
    0,
};

KELVA_PLAYER_HEADER(tags);
