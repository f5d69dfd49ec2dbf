/* frontend.c - kelva's MED/OctaMED player: the player interface.
 *
 * Plays MED 2/3/4 songs ("MED" and a version byte), MMD0, MMD1, MMD2 and
 * MMD3 modules; the songs of a multi-module are its subsongs. load.c and
 * oldmed.c read the module into the song model (med.h), replay.c plays
 * it, output.c drives Paula or the software mixer. */
#include "med.h"

static const char player_name[] = "MED";
static const char player_creator[] = "kelva: MED and OctaMED replay (MED2-MED4, MMD0-MMD3)";

/* The last subsong (0-based), for SubSongRange. */
uint32_t med_last_song;
/* The player globals, for the loader's LoadFile calls. */
kp_globals med_globals;

/* The module's title and format as C strings for the host, and the longs
 * the DTP_ModuleName and DTP_FormatName tags point at. */
static const char *title_ref;
static const char *format_ref;

/* Check2: D0 = 0 when the module is one the player reads. */
KELVA_ROUTINE(check2) {
    (void)d0;
    return med_check((const volatile uint8_t *)kp_g32(g, DTG_ChkData), kp_g32(g, DTG_ChkSize));
}

/* InitPlayer: the module's songs. */
KELVA_ROUTINE(init_player) {
    (void)d0;
    if (med_check((const volatile uint8_t *)kp_g32(g, DTG_ChkData), kp_g32(g, DTG_ChkSize))) return 1;
    med_last_song = (uint32_t)(med_song_count() - 1);
    return 0;
}

/* SubSongRange: D0 = 0, D1 = the last song. */
__asm__("\t.text\n\t.globl subsong_range\nsubsong_range:\n\tmoveq #0,%d0\n\tmove.l med_last_song,%d1\n\trts\n");
void subsong_range(void);

/* InitSound: reads the chosen song and starts it. */
KELVA_ROUTINE(init_sound) {
    (void)d0;
    uint16_t n = kp_g16(g, DTG_SndNum);
    med_globals = g;
    if (med_load_song(n)) return 1;
    title_ref = med_title;
    format_ref = med_format_name();
    med_replay_init(g);
    return 0;
}

/* EndSound: silence. */
KELVA_ROUTINE(end_sound) {
    (void)g;
    (void)d0;
    med_stop();
    return 0;
}

/* Interrupt: one tick. */
KELVA_ROUTINE(tick) {
    (void)g;
    (void)d0;
    med_tick();
    return 0;
}

const uint32_t tags[] = {
    DTP_PlayerName, (uint32_t)player_name,
    DTP_Creator, (uint32_t)player_creator,
    DTP_PlayerVersion, 0x00010000,
    DTP_Check2, (uint32_t)check2_entry,
    DTP_InitPlayer, (uint32_t)init_player_entry,
    DTP_SubSongRange, (uint32_t)subsong_range,
    DTP_InitSound, (uint32_t)init_sound_entry,
    DTP_EndSound, (uint32_t)end_sound_entry,
    DTP_Interrupt, (uint32_t)tick_entry,
    DTP_ModuleName, (uint32_t)&title_ref,
    DTP_FormatName, (uint32_t)&format_ref,
    EP_Flags, EPF_Songend,
    0,
};

KELVA_PLAYER_HEADER(tags);
