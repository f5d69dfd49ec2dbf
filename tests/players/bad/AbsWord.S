/* Not a valid player: a 16-bit absolute reference to a label, which a hunk
 * file cannot relocate. elf2hunk must refuse it. */
    .text
start:
    move.w  #start,d0
    move.l  #start,d1
    rts
