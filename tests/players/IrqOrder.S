/* IrqOrder: the interrupts a player can install, for the render loop's tests. CIA-B timer A (continuous, latch 9999)
 * and channel 0 (100 words at period 250) end together every 10,000 E-clock ticks; their handlers log marks 1 and 2
 * without acknowledging. CIA-A timer B (one-shot, latch 3000) logs mark 3 and silences channel 0. The log: a count
 * (at most 60), the marks; then the vertical-blank server's count of its calls. */
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
    move.l  a6,-(sp)
    moveq   #INTB_VERTB,d0
    lea     vbl_is(pc),a1
    CALL_EXEC _LVOAddIntServer
    moveq   #INTB_AUD0,d0
    lea     aud_is(pc),a1
    CALL_EXEC _LVOSetIntVector
    lea     ciab_name(pc),a1
    CALL_EXEC _LVOOpenResource
    movea.l d0,a6
    lea     cia_is(pc),a1
    moveq   #CIAICRB_TA,d0
    jsr     _LVOAddICRVector(a6)
    lea     CUSTOM,a0
    move.w  #INTF_SETCLR+INTF_INTEN+INTF_AUD0,INTENA(a0)
    move.l  #wave,AUD0LC(a0)
    move.w  #100,AUD0LEN(a0)
    move.w  #250,AUD0PER(a0)
    move.w  #64,AUD0VOL(a0)
    move.b  #0x0F,CIAB+CIATALO          /* 9999 = $270F */
    move.b  #0x27,CIAB+CIATAHI
    move.b  #0x11,CIAB+CIACRA           /* START + LOAD, continuous */
    move.w  #DMAF_SETCLR+DMAF_MASTER+DMAF_AUD0,DMACON(a0)
    lea     ciaa_name(pc),a1
    CALL_EXEC _LVOOpenResource
    movea.l d0,a6
    lea     mute_is(pc),a1
    moveq   #CIAICRB_TB,d0
    jsr     _LVOAddICRVector(a6)
    move.b  #0xB8,CIAA+CIATBLO          /* 3000 = $0BB8 */
    move.b  #0x0B,CIAA+CIATBHI
    move.b  #0x19,CIAA+CIACRB           /* START + LOAD + one-shot */
    movea.l (sp)+,a6
    moveq   #0,d0
    rts

/* D0 = the mark, A1 = the log. */
log_mark:
    move.l  (a1),d1
    cmpi.l  #60,d1
    bhs.s   1f
    move.b  d0,4(a1,d1.l)
    addq.l  #1,(a1)
1:  moveq   #0,d0
    rts

cia_handler:
    moveq   #1,d0
    bra.s   log_mark

aud_handler:
    moveq   #2,d0
    bra.s   log_mark

mute_handler:
    clr.w   CUSTOM+AUD0VOL
    moveq   #3,d0
    bra.s   log_mark

/* A1 = the frame counter; Z set: let the next server run. */
vbl_server:
    addq.l  #1,(a1)
    moveq   #0,d0
    rts

    .even
cia_is:
    .space  IS_DATA
    .long   marks, cia_handler
aud_is:
    .space  IS_DATA
    .long   marks, aud_handler
mute_is:
    .space  IS_DATA
    .long   marks, mute_handler
vbl_is:
    .space  IS_DATA
    .long   frames, vbl_server

ciab_name: .asciz "ciab.resource"
ciaa_name: .asciz "ciaa.resource"
name:      .asciz "IrqOrder"
    .even

    .data
wave:   .fill 200, 1, 0x40
marks:  .long 0
        .fill 60, 1, 0
frames: .long 0
