/* AudioIrq: streams double-buffered blocks on channel 0 from the AUD0
 * interrupt.
 *
 * Paula latches AUD0LC/AUD0LEN when a block starts, so while one block plays
 * the next one can be queued by writing the registers again. StartInt fills
 * both buffers, starts DMA on buffer A and queues buffer B; at the end of
 * each block Paula raises AUD0, and the handler refills the buffer that just
 * finished and queues it. */
#include "kelva_player.h"

#define BLOCK_WORDS 64
#define BLOCK_BYTES (BLOCK_WORDS * 2)

    PLAYER_HEADER tags

tags:
    TAG DTP_PlayerName, name
    TAG DTP_InitPlayer, init_player
    TAG DTP_StartInt, start_int
    TAG DTP_StopInt, stop_int
    TAG_END

init_player:
    moveq   #0,d0
    rts

start_int:
    moveq   #INTB_AUD0,d0
    lea     aud_is(pc),a1
    CALL_EXEC _LVOSetIntVector
    move.l  d0,old_vector
    lea     buffer_a,a0
    moveq   #1,d0
    bsr.s   fill
    lea     buffer_b,a0
    moveq   #2,d0
    bsr.s   fill
    lea     CUSTOM,a0
    move.w  #INTF_SETCLR+INTF_INTEN+INTF_AUD0,INTENA(a0)
    move.l  #buffer_a,AUD0LC(a0)
    move.w  #BLOCK_WORDS,AUD0LEN(a0)
    move.w  #300,AUD0PER(a0)
    move.w  #64,AUD0VOL(a0)
    move.w  #DMAF_SETCLR+DMAF_MASTER+DMAF_AUD0,DMACON(a0)
    move.l  #buffer_b,AUD0LC(a0)        /* queued: plays after buffer A */
    clr.l   playing                     /* buffer A (0) is playing */
    moveq   #0,d0
    rts

stop_int:
    lea     CUSTOM,a0
    move.w  #DMAF_AUD0,DMACON(a0)
    move.w  #INTF_AUD0,INTENA(a0)
    moveq   #INTB_AUD0,d0
    movea.l old_vector,a1
    CALL_EXEC _LVOSetIntVector
    moveq   #0,d0
    rts

/* Fills the block at A0 with a saw tooth; D0 = step between samples. */
fill:
    moveq   #0,d1
    move.w  #BLOCK_BYTES-1,d2
1:  move.b  d1,(a0)+
    add.b   d0,d1
    dbf     d2,1b
    rts

/* AUD0 handler: A0 = custom base, A1 = data (the block counter). Buffer
 * `playing` finished; the other one is playing now. Refill the finished
 * one and queue it. */
aud_handler:
    move.w  #INTF_AUD0,INTREQ(a0)       /* acknowledge */
    addq.l  #1,(a1)
    move.l  (a1),d0
    move.l  a0,-(sp)
    lea     buffer_a,a0
    tst.l   playing
    beq.s   1f
    lea     buffer_b,a0
1:  move.l  a0,-(sp)
    andi.w  #7,d0
    addq.w  #1,d0
    bsr.s   fill                        /* step 1 + blocks & 7 */
    movea.l (sp)+,a1                    /* the refilled buffer */
    movea.l (sp)+,a0
    move.l  a1,AUD0LC(a0)
    move.w  #BLOCK_WORDS,AUD0LEN(a0)
    eori.l  #1,playing
    moveq   #0,d0
    rts

    .even
aud_is:
    .space  IS_DATA
    .long   blocks, aud_handler

name: .asciz "AudioIrq"
    .even

    .bss
old_vector: .space 4
playing:    .space 4
blocks:     .space 4
buffer_a:   .space BLOCK_BYTES
buffer_b:   .space BLOCK_BYTES
