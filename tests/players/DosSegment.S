/* DosSegment: the code file the Files player loads with LoadSeg. Its answer comes from its data hunk through
 * relocated absolute addresses. */
    .text
start:
    move.l  magic,d0
    add.l   bump,d0
    rts

    .data
magic: .long 0x4B454C00
bump:  .long 0x56
