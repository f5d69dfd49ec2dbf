/* SongEnd: a player in C that reports the end of its song after END_TICKS
 * ticks. KELVA_ROUTINE's assembly entry hands the C code the globals (A5)
 * and D0, and returns its result in D0; kp_support calls a support function. */
#include "kelva_player.h"

#define END_TICKS 4

static uint32_t ticks;      /* in the BSS hunk */

KELVA_ROUTINE(init_player) {
    (void)g;
    (void)d0;
    ticks = 0;
    return 0;
}

KELVA_ROUTINE(tick) {
    (void)d0;
    ticks++;
    KP_CUSTOM16(AUD0VOL) = (uint16_t)(ticks & 63);
    if (ticks == END_TICKS) kp_support(g, DTG_SongEnd, 0, 0, 0);
    return ticks;
}

static const char name[] = "SongEnd";

const uint32_t tags[] = {
    DTP_PlayerName, (uint32_t)name,
    DTP_InitPlayer, (uint32_t)init_player_entry,
    DTP_Interrupt, (uint32_t)tick_entry,
    0,
};

KELVA_PLAYER_HEADER(tags);
