/* Tone: the smallest useful player. InitSound starts channel 0 on one period
 * of a square wave by audio DMA (3546895 / 254 / 16 = about 873 Hz); Paula
 * repeats the block by itself. EndSound stops the channel. */
#include "kelva_player.h"

    PLAYER_HEADER tags

tags:
    TAG DTP_PlayerName, name
    TAG DTP_InitPlayer, init_player
    TAG DTP_InitSound, init_sound
    TAG DTP_EndSound, end_sound
    TAG_END

init_player:
    moveq   #0,d0               /* nothing to check: every module is fine */
    rts

init_sound:
    lea     CUSTOM,a0
    move.l  #wave,AUD0LC(a0)
    move.w  #8,AUD0LEN(a0)      /* length in words */
    move.w  #254,AUD0PER(a0)
    move.w  #64,AUD0VOL(a0)
    move.w  #DMAF_SETCLR+DMAF_MASTER+DMAF_AUD0,DMACON(a0)
    moveq   #0,d0
    rts

end_sound:
    move.w  #DMAF_AUD0,CUSTOM+DMACON
    moveq   #0,d0
    rts

name: .asciz "Tone"
    .even

    .data
wave: .fill 8, 1, 100
      .fill 8, 1, 0x9C     /* -100 */
