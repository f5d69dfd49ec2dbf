/* Misbehave: routines that go wrong in the ways the routine caller must survive, each through its own tag: InitPlayer
 * jumps out of the areas code may run in, Interrupt loops forever, InitSound executes a line-F word, StartInt divides
 * by zero; EndSound returns normally (D0 = 7), to show the others left no harm. */
#include "kelva_player.h"

    PLAYER_HEADER tags

tags:
    TAG DTP_PlayerName, name
    TAG DTP_InitPlayer, jump_away
    TAG DTP_Interrupt, forever
    TAG DTP_InitSound, line_f
    TAG DTP_StartInt, divide_by_zero
    TAG DTP_EndSound, fine
    TAG_END

jump_away:
    moveq   #1,d1
    moveq   #2,d2
    jmp     0x300000

forever:
    bra.s   forever

line_f:
    .word   0xF000
    rts

divide_by_zero:
    moveq   #0,d1
    divu    d1,d0
    rts

fine:
    moveq   #7,d0
    rts

name: .asciz "Misbehave"
    .even
