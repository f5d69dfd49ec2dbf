/* VBlank: a player driven by a vertical-blank interrupt server.
 *
 * InitPlayer adds an interrupt server for INTB_VERTB; the engine runs it
 * 50 times a second. Each call steps a volume ramp on channel 0 and counts
 * the frames in the server's data long. */
#include "kelva_player.h"

    PLAYER_HEADER tags

tags:
    TAG DTP_PlayerName, name
    TAG DTP_InitPlayer, init_player
    TAG_END

init_player:
    moveq   #INTB_VERTB,d0
    lea     vbl_is(pc),a1
    CALL_EXEC _LVOAddIntServer
    moveq   #0,d0
    rts

/* A1 = data (the frame counter), A0 = custom base. */
vbl_server:
    move.l  (a1),d0
    addq.l  #1,d0
    move.l  d0,(a1)
    andi.w  #63,d0
    move.w  d0,AUD0VOL(a0)      /* volume ramps 1, 2, ... 63, 0, 1 ... */
    moveq   #0,d0               /* Z set: let the next server run */
    rts

    .even
vbl_is:
    .space  IS_DATA
    .long   frames, vbl_server

name: .asciz "VBlank"
    .even

    .bss
frames: .space 4
