/* PTK-Prowiz: kelva's player for the 31-instrument ProTracker family and
 * the 15-instrument Soundtracker modules that use ProTracker's effects.
 *
 * The variant comes from the option string ("type:pt30", "type:nt10",
 * "type:nt20", "type:st24", "type:flt4", "type:m&k.", "type:comp",
 * "type:st20") that the host keeps for the module; the replay core in
 * replay.c plays it. */
#include "replay.h"

static int variant;

/* Check2: D0 = 0 when the module can be played as its variant. */
KELVA_ROUTINE(check2) {
    (void)d0;
    const volatile uint8_t *mod = (const volatile uint8_t *)kp_g32(g, DTG_ChkData);
    uint32_t size = kp_g32(g, DTG_ChkSize);
    variant = ptk_variant_from_option(mod, size);
    return ptk_check(mod, size, variant);
}

/* InitPlayer: reads the layout and sets the song to its start. */
KELVA_ROUTINE(init_player) {
    (void)d0;
    return ptk_init(g, variant);
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

static const char name[] = "PTK-Prowiz";
static const char creator[] = "kelva: ProTracker family replay (31 and 15 instruments)";

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
