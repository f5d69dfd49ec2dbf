/* Not a valid player: a PC-relative reference from code into .data, which
 * a hunk file cannot express. elf2hunk must refuse it. */
    .text
start:
    lea     value(pc),a0
    move.l  #start,d0
    rts
    .data
value: .long 1
