/* Subsong: subsongs 1..5, each a different pitch on channel 0. The engine
 * writes the chosen one to the globals' subsong word before InitSound,
 * which looks the period up in a table. */
#include "kelva_player.h"

#define FIRST 1
#define LAST  5

    PLAYER_HEADER tags

tags:
    TAG DTP_PlayerName, name
    TAG DTP_InitPlayer, init_player
    TAG DTP_SubSongRange, subsong_range
    TAG DTP_InitSound, init_sound
    TAG_END

init_player:
    moveq   #0,d0
    rts

subsong_range:
    moveq   #FIRST,d0
    moveq   #LAST,d1
    rts

init_sound:
    move.w  DTG_SndNum(a5),d0
    subq.w  #FIRST,d0
    cmpi.w  #LAST-FIRST,d0
    bls.s   1f
    moveq   #0,d0               /* out of range: the first subsong */
1:  add.w   d0,d0
    lea     periods(pc),a0
    lea     CUSTOM,a1
    move.w  0(a0,d0.w),AUD0PER(a1)
    moveq   #0,d0
    rts

periods: .word 428, 381, 339, 320, 285   /* C, D, E, F, G */
name:    .asciz "Subsong"
    .even
