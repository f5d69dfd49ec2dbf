/* Files: reaches the host's files the two ways a player can. ExtLoad loads "smp.set" from the module's directory
 * with the support functions; InitPlayer finds it as list entry 1 (0 is the module), then, through dos.library,
 * reads "data.bin" and LoadSegs and calls "DosSegment". Everything it found is left in `results` for a test to read. */
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
    movem.l d2-d4/a2/a6,-(sp)
    lea     results,a2
    moveq   #1,d0
    CALL_SUPPORT DTG_GetListData    /* A0 = address, D0 = size */
    move.l  a0,20(a2)               /* results+20: sample address */
    move.l  d0,24(a2)               /* results+24: sample size */
    movea.l DTG_DOSBase(a5),a6
    move.l  #file_name,d1
    move.l  #MODE_OLDFILE,d2
    jsr     _LVOOpen(a6)
    move.l  d0,(a2)                 /* results+0: handle */
    beq.s   .fail
    move.l  d0,d4
    move.l  d4,d1
    moveq   #4,d2
    moveq   #OFFSET_BEGINNING,d3
    jsr     _LVOSeek(a6)
    move.l  d4,d1
    move.l  #buffer,d2
    moveq   #8,d3
    jsr     _LVORead(a6)
    move.l  d0,4(a2)                /* results+4: bytes read */
    move.l  d4,d1
    moveq   #0,d2
    moveq   #OFFSET_END,d3
    jsr     _LVOSeek(a6)            /* returns the position before: 12 */
    move.l  d4,d1
    moveq   #0,d2
    moveq   #OFFSET_CURRENT,d3
    jsr     _LVOSeek(a6)            /* now returns the size */
    move.l  d0,8(a2)                /* results+8: file size */
    move.l  d4,d1
    jsr     _LVOClose(a6)

    move.l  #seg_name,d1
    jsr     _LVOLoadSeg(a6)
    move.l  d0,12(a2)               /* results+12: segment list (BCPL) */
    beq.s   .fail
    lsl.l   #2,d0                   /* BCPL -> address of the link long */
    movea.l d0,a0
    jsr     4(a0)                   /* the code follows the link long */
    move.l  d0,16(a2)               /* results+16: what the segment returned */
    moveq   #0,d0
    bra.s   .done
.fail:
    moveq   #1,d0
.done:
    movem.l (sp)+,d2-d4/a2/a6
    rts

sample_name: .asciz "smp.set"
file_name:   .asciz "data.bin"
seg_name:    .asciz "DosSegment"
name:        .asciz "Files"
    .even

    .bss
results: .space 28
buffer:  .space 8
