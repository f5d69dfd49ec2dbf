/* DosSegment: the code file the Dos player loads with LoadSeg. Two hunks:
 * code that reads a long from its data hunk through an absolute (relocated)
 * address, so the value it returns shows that relocation across segments
 * worked. */
    .text
start:
    move.l  magic,d0
    add.l   bump,d0
    rts

    .data
magic: .long 0x4B454C00
bump:  .long 0x56
