/* frontend.c - the player interface shared by kelva's ProTracker-family
 * players. Each player's own file names the player, says which variant of
 * the replay core plays a module (ptk_player_variant), whether it loads a
 * companion file and which format name it reports; the routines and the
 * tag list here are the same for all of them. */
#include "replay.h"

/* The variant chosen by Check2, which the host always runs before
 * InitPlayer. */
static int variant;

/* Check2: D0 = 0 when the module can be played as the player's variant. */
KELVA_ROUTINE(check2) {
    (void)d0;
    const volatile uint8_t *mod = (const volatile uint8_t *)kp_g32(g, DTG_ChkData);
    uint32_t size = kp_g32(g, DTG_ChkSize);
    variant = ptk_player_variant(mod, size);
    return ptk_check(mod, size, variant);
}

/* The module's title (the first 20 bytes) as a C string for the host, and
 * the long the DTP_ModuleName tag points at. */
static char title[21];
static const char *title_ref;

/* InitPlayer: reads the layout and sets the song to its start. */
KELVA_ROUTINE(init_player) {
    (void)d0;
    const volatile uint8_t *mod = (const volatile uint8_t *)kp_g32(g, DTG_ChkData);
    uint32_t size = kp_g32(g, DTG_ChkSize);
    for (int i = 0; i < 20; i++) title[i] = (uint32_t)i < size ? (char)mod[i] : 0;
    title[20] = 0;
    title_ref = title;
    return ptk_init(g, variant);
}

/* ExtLoad: the companion file of a player that reads one. */
KELVA_ROUTINE(ext_load) {
    (void)d0;
    return ptk_player_companion ? ptk_am_ext_load(g) : 0;
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

const uint32_t tags[] = {
    DTP_PlayerName, (uint32_t)ptk_player_name,
    DTP_Creator, (uint32_t)ptk_player_creator,
    DTP_PlayerVersion, 0x00010000,
    DTP_Check2, (uint32_t)check2_entry,
    DTP_ExtLoad, (uint32_t)ext_load_entry,
    DTP_InitPlayer, (uint32_t)init_player_entry,
    DTP_EndSound, (uint32_t)end_sound_entry,
    DTP_Interrupt, (uint32_t)tick_entry,
    DTP_ModuleName, (uint32_t)&title_ref,
    DTP_FormatName, (uint32_t)&ptk_player_format,
    EP_Flags, EPF_Songend,
    0,
};

KELVA_PLAYER_HEADER(tags);
