/* AudioIrq: plays a 128-byte block on channel 0 by audio DMA with the AUD0
 * interrupt on. Paula raises AUD0 each time a block starts from its latches;
 * the handler acknowledges it, counts it in its data long and queues the
 * block again, as a streaming player queues its next buffer. */
#include "kelva_player.h"

    PLAYER_HEADER tags

tags:
    TAG DTP_PlayerName, name
    TAG DTP_InitPlayer, init_player
    TAG DTP_StartInt, start_int
    TAG_END

init_player:
    moveq   #0,d0
    rts

start_int:
    moveq   #INTB_AUD0,d0
    lea     aud_is(pc),a1
    CALL_EXEC _LVOSetIntVector
    lea     CUSTOM,a0
    move.w  #INTF_SETCLR+INTF_INTEN+INTF_AUD0,INTENA(a0)
    move.l  #block,AUD0LC(a0)
    move.w  #64,AUD0LEN(a0)
    move.w  #300,AUD0PER(a0)
    move.w  #64,AUD0VOL(a0)
    move.w  #DMAF_SETCLR+DMAF_MASTER+DMAF_AUD0,DMACON(a0)
    moveq   #0,d0
    rts

/* A0 = custom base, A1 = data (the block counter). */
aud_handler:
    move.w  #INTF_AUD0,INTREQ(a0)
    addq.l  #1,(a1)
    move.l  #block,AUD0LC(a0)
    moveq   #0,d0
    rts

    .even
aud_is:
    .space  IS_DATA
    .long   blocks, aud_handler

name: .asciz "AudioIrq"
    .even

    .data
blocks: .long 0
block:  .fill 128, 1, 0x40
