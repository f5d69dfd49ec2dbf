/* Companion: loads a second file ("smp.set") from the module's directory.
 *
 * ExtLoad builds the name in the path buffer with the support functions
 * (clear it, CopyDir, CopyString) and calls LoadFile; InitPlayer asks
 * GetListData for entry 1 (entry 0 is the module itself) and keeps its
 * address and size. */
#include "kelva_player.h"

    PLAYER_HEADER tags

tags:
    TAG DTP_PlayerName, name
    TAG DTP_ExtLoad, ext_load
    TAG DTP_InitPlayer, init_player
    TAG_END

ext_load:
    movea.l DTG_PathArrayPtr(a5),a0
    clr.b   (a0)                    /* empty the path buffer */
    CALL_SUPPORT DTG_CopyDir        /* "/mods/" */
    lea     sample_name(pc),a0
    CALL_SUPPORT DTG_CopyString     /* "/mods/smp.set" */
    CALL_SUPPORT DTG_LoadFile       /* D0 = 0 when loaded */
    rts

init_player:
    moveq   #1,d0
    CALL_SUPPORT DTG_GetListData    /* A0 = address, D0 = size */
    move.l  a0,sample_addr
    move.l  d0,sample_size
    beq.s   1f
    moveq   #0,d0
    rts
1:  moveq   #-1,d0                  /* no samples: refuse the module */
    rts

sample_name: .asciz "smp.set"
name:        .asciz "Companion"
    .even

    .data
sample_addr: .long 0
sample_size: .long 0
