/* CiaTimer: ticks from CIA timers through the ciab/ciaa resources.
 *
 * StartInt opens ciab.resource and installs an interrupt on its timer A
 * (the usual player tick, loaded from the globals' timer value), and opens
 * ciaa.resource for a second, slower tick on its timer B. Each interrupt
 * counts its calls in its data long (passed in A1). StopInt stops both
 * timers and removes the vectors. */
#include "kelva_player.h"

#define CRA_START_CONT 0x11     /* START | LOAD, continuous */

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
    movem.l d2/a2/a6,-(sp)
    /* CIA-B timer A: the player's tick. */
    lea     ciab_name(pc),a1
    CALL_EXEC _LVOOpenResource
    move.l  d0,ciab_base
    beq.s   .fail
    movea.l d0,a6
    lea     tick_a_is(pc),a1
    moveq   #CIAICRB_TA,d0
    jsr     _LVOAddICRVector(a6)
    move.w  DTG_Timer(a5),d2
    move.b  d2,CIAB+CIATALO
    lsr.w   #8,d2
    move.b  d2,CIAB+CIATAHI
    move.b  #CRA_START_CONT,CIAB+CIACRA

    /* CIA-A timer B: a tick at a quarter of the rate. */
    lea     ciaa_name(pc),a1
    CALL_EXEC _LVOOpenResource
    move.l  d0,ciaa_base
    beq.s   .fail
    movea.l d0,a6
    lea     tick_b_is(pc),a1
    moveq   #CIAICRB_TB,d0
    jsr     _LVOAddICRVector(a6)
    move.w  DTG_Timer(a5),d2
    lsl.w   #2,d2
    move.b  d2,CIAA+CIATBLO
    lsr.w   #8,d2
    move.b  d2,CIAA+CIATBHI
    move.b  #CRA_START_CONT,CIAA+CIACRB
    moveq   #0,d0
    bra.s   .done
.fail:
    moveq   #1,d0
.done:
    movem.l (sp)+,d2/a2/a6
    rts

stop_int:
    move.b  #0,CIAB+CIACRA
    move.b  #0,CIAA+CIACRB
    movea.l ciab_base,a6
    lea     tick_a_is(pc),a1
    moveq   #CIAICRB_TA,d0
    jsr     _LVORemICRVector(a6)
    movea.l ciaa_base,a6
    lea     tick_b_is(pc),a1
    moveq   #CIAICRB_TB,d0
    jsr     _LVORemICRVector(a6)
    moveq   #0,d0
    rts

/* Interrupt code: A1 = the data long of its interrupt structure. */
count_tick:
    addq.l  #1,(a1)
    moveq   #0,d0
    rts

/* Interrupt structures: node (14 bytes), data pointer, code pointer. */
    .even
tick_a_is:
    .space  IS_DATA
    .long   tick_a_count, count_tick
tick_b_is:
    .space  IS_DATA
    .long   tick_b_count, count_tick

ciab_name: .asciz "ciab.resource"
ciaa_name: .asciz "ciaa.resource"
name:      .asciz "CiaTimer"
    .even

    .data
tick_a_count: .long 0
tick_b_count: .long 0
ciab_base:    .long 0
ciaa_base:    .long 0
