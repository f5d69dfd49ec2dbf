/* Tone: the smallest useful player. InitSound writes one period of a square
 * wave into 16 bytes of chip memory from exec and starts channel 0 on it by
 * audio DMA; Paula repeats the block by itself. EndSound stops the channel. */
#include "kelva_player.h"

#define WAVE_BYTES 16
#define PERIOD     254     /* 3546895 / 254 / 16 = about 873 Hz */

    PLAYER_HEADER tags

tags:
    TAG DTP_PlayerName, name
    TAG DTP_Creator, creator
    TAG DTP_PlayerVersion, 0x00010000
    TAG DTP_InitPlayer, init_player
    TAG DTP_InitSound, init_sound
    TAG DTP_EndSound, end_sound
    TAG_END

init_player:
    moveq   #0,d0               /* nothing to check: every module is fine */
    rts

init_sound:
    moveq   #WAVE_BYTES,d0
    moveq   #2,d1               /* MEMF_CHIP */
    CALL_EXEC _LVOAllocMem
    tst.l   d0
    beq.s   .fail
    movea.l d0,a0
    move.l  a0,wave
    moveq   #WAVE_BYTES/2-1,d1
.high:
    move.b  #100,(a0)+          /* first half: +100 */
    dbf     d1,.high
    moveq   #WAVE_BYTES/2-1,d1
.low:
    move.b  #-100,(a0)+         /* second half: -100 */
    dbf     d1,.low

    lea     CUSTOM,a0
    move.l  d0,AUD0LC(a0)
    move.w  #WAVE_BYTES/2,AUD0LEN(a0)   /* length in words */
    move.w  #PERIOD,AUD0PER(a0)
    move.w  #64,AUD0VOL(a0)
    move.w  #DMAF_SETCLR+DMAF_MASTER+DMAF_AUD0,DMACON(a0)
    moveq   #0,d0
    rts
.fail:
    moveq   #1,d0
    rts

end_sound:
    move.w  #DMAF_AUD0,CUSTOM+DMACON
    moveq   #0,d0
    rts

name:    .asciz "Tone"
creator: .asciz "kelva test players"
    .even

    .bss
wave:   .space 4            /* the chip-memory block, for a test to find */
