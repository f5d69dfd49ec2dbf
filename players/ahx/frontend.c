/* frontend.c - the player interface of kelva's AHX and HivelyTracker
 * players. Both play both formats; each player's own file (AHX.c,
 * HivelyTracker.c) gives its name. */
#include "ahx.h"

#include "kp_math.h"

static uint8_t loaded, ready, timer_pending;
static uint8_t ended;   /* 1: the song reached its end in the last tick, 2: reported */
static uint16_t timer;
static const char *title_ref, *format_ref;
uint16_t ahx_last_subsong;

/* Check2: D0 = 0 when the file is a song this player can play. */
KELVA_ROUTINE(check2) {
    (void)d0;
    return ahx_check((const uint8_t *)kp_g32(g, DTG_ChkData), kp_g32(g, DTG_ChkSize));
}

/* InitPlayer: reads the song and makes the plain waveforms. */
KELVA_ROUTINE(init_player) {
    (void)d0;
    ready = loaded = 0;
    if (ahx_load((const uint8_t *)kp_g32(g, DTG_ChkData), kp_g32(g, DTG_ChkSize))) return 1;
    if (ahx_waves_init()) return 1;
    loaded = 1;
    title_ref = ahx_song.title[0] ? ahx_song.title : 0;
    static const char *const names[4] = {"AHX (THX v0)", "AHX (THX v1)", "HivelyTracker (HVL v0)",
                                         "HivelyTracker (HVL v1)"};
    format_ref = names[(ahx_song.hvl << 1) + ahx_song.version];
    ahx_last_subsong = ahx_song.subsongs;
    /* The tick runs speed_multiplier times per 1/50 s. The engine sets the
     * 50 Hz rate after the start-up calls, so another rate is asked for on
     * the first tick. */
    timer = (uint16_t)(kp_divu16(14188, ahx_song.speed_multiplier) - 1);
    *(volatile uint16_t *)(g + DTG_Timer) = timer;
    timer_pending = ahx_song.speed_multiplier > 1;
    return 0;
}

/* SubSongRange: D0 = 0 (the song from its first position), D1 = the last
 * of the subsongs, which start at positions of their own. */
void subsong_range(void);
__asm__("\t.text\n\t.globl subsong_range\nsubsong_range:\n\tmoveq #0,%d0\n\tmoveq #0,%d1\n"
        "\tmove.w ahx_last_subsong,%d1\n\trts\n");

/* InitSound: starts the subsong the host chose. */
KELVA_ROUTINE(init_sound) {
    (void)d0;
    if (!loaded) return 1;
    ahx_start(kp_g16(g, DTG_SndNum));
    ahx_output_start();
    ended = 0;
    ready = 1;
    return 0;
}

KELVA_ROUTINE(end_sound) {
    (void)g;
    (void)d0;
    if (ready) ahx_output_stop();
    ready = 0;
    return 0;
}

/* Interrupt: one tick. */
KELVA_ROUTINE(tick) {
    (void)d0;
    if (!ready) return 0;
    if (timer_pending) {
        timer_pending = 0;
        *(volatile uint16_t *)(g + DTG_Timer) = timer;
        kp_support(g, DTG_SetTimer, 0, 0, 0);
    }
    /* The end is reported once the tick that reached it has played. */
    if (ended == 1) {
        ended = 2;
        kp_support(g, DTG_SongEnd, 0, 0, 0);
    }
    if (ahx_tick() && !ended) ended = 1;
    ahx_output_tick();
    return 0;
}

const uint32_t tags[] = {
    DTP_PlayerName, (uint32_t)ahx_player_name,
    DTP_Creator, (uint32_t)ahx_player_creator,
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
