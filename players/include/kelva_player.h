/* kelva_player.h - everything a kelva player needs, for 68k assembly (.S,
 * run through the C preprocessor) and for C compiled for the plain 68000.
 *
 * A player is an AmigaOS hunk executable. Its first hunk starts with the
 * player header: "moveq #-1,d0; rts" (so running the file from a shell does
 * nothing), the id "DELIRIUM", and at offset 12 the address of its tag list.
 * The tag list is (tag, value) long pairs ended by a 0 tag; each routine tag
 * names a routine the engine calls. See players/README.md for the calling
 * convention; in short: every routine is called with A5 = the player globals
 * (below), A6 = exec base, SR = $2000, and returns its result in D0. No
 * register needs to be preserved.
 *
 * Assembly players are assembled with --register-prefix-optional, so
 * registers may be written d0/a5 as well as %d0/%a5.
 */
#ifndef KELVA_PLAYER_H
#define KELVA_PLAYER_H

/* ---- Tags -------------------------------------------------------------- */
#define DTP_TagBase         0x80004454
#define DTP_RequestVersion  (DTP_TagBase + 2)   /* value: host version wanted (low word) */
#define DTP_PlayerVersion   (DTP_TagBase + 4)   /* value: version << 16 | revision */
#define DTP_PlayerName      (DTP_TagBase + 5)   /* value: address of the name */
#define DTP_Creator         (DTP_TagBase + 6)   /* value: address of the creator text */
#define DTP_Check1          (DTP_TagBase + 7)   /* kept, never called */
#define DTP_Check2          (DTP_TagBase + 8)   /* D0 = 0 if the module is ours */
#define DTP_ExtLoad         (DTP_TagBase + 9)   /* loads companion files */
#define DTP_Interrupt       (DTP_TagBase + 10)  /* the tick routine */
#define DTP_Config          (DTP_TagBase + 12)
#define DTP_SubSongRange    (DTP_TagBase + 14)  /* D0 = first, D1 = last subsong */
#define DTP_InitPlayer      (DTP_TagBase + 15)  /* D0 = 0 on success */
#define DTP_EndPlayer       (DTP_TagBase + 16)
#define DTP_InitSound       (DTP_TagBase + 17)  /* start the subsong at globals +44 */
#define DTP_EndSound        (DTP_TagBase + 18)
#define DTP_StartInt        (DTP_TagBase + 19)  /* a player with its own interrupt starts it here */
#define DTP_StopInt         (DTP_TagBase + 20)
#define DTP_Volume          (DTP_TagBase + 21)
#define DTP_Balance         (DTP_TagBase + 22)  /* kept, never called */
#define DTP_GlobalsPointer  (DTP_TagBase + 31)  /* value: a long the engine fills with the globals address */
/* Names the player reports for the module it plays. The value is the
 * address of a long that holds the address of a NUL-terminated string (or 0
 * for none), so the player can fill it in InitPlayer. Text is ISO-8859-1. */
#define DTP_ModuleName      (DTP_TagBase + 47)  /* the module's title */
#define DTP_FormatName      (DTP_TagBase + 48)  /* read once after start-up; for players without an epopt format */
#define DTP_AuthorName      (DTP_TagBase + 49)  /* the composer */

#define EP_TagBase              0x80004550
#define EP_Voices               (EP_TagBase + 2)    /* D0 = voice-enable mask */
#define EP_Flags                (EP_TagBase + 14)   /* value: EPF_* bits */
#define EP_InitHook             (EP_TagBase + 35)
#define EP_EagleGlobalsPointer  (EP_TagBase + 42)

/* EP_Flags bits. EPF_Songend: the player calls DTG_SongEnd where the song
 * ends or loops, so the host measures lengths by it alone. */
#define EPF_Songend             0x00000001

/* ---- Player globals (A5), offsets ---------------------------------------- */
#define DTG_DOSBase     4    /* long: dos.library base */
#define DTG_IntuitionBase 8
#define DTG_GfxBase     12
#define DTG_DirArrayPtr 24   /* long: the module's directory ("/a/b/") */
#define DTG_FileArrayPtr 28  /* long: the module's file name ("tune.mod") */
#define DTG_PathArrayPtr 32  /* long: the path buffer the Copy* functions build and LoadFile reads */
#define DTG_ChkData     36   /* long: module address */
#define DTG_ChkSize     40   /* long: module size */
#define DTG_SndNum      44   /* word: current subsong */
#define DTG_SndVol      46   /* word: volume 0..64 */
#define DTG_SndLBal     48
#define DTG_SndRBal     50
#define DTG_LED         52
#define DTG_Timer       54   /* word: CIA timer value of the player's tick (14188 = 50 Hz) */
/* Support functions: a long pointer each; call with  move.l DTG_x(a5),a1; jsr (a1) */
#define DTG_GetListData 56   /* D0 = index -> A0 = address, D0 = size (0, 0 past the end) */
#define DTG_LoadFile    60   /* loads the file named by the path buffer; D0 = 0 on success */
#define DTG_CopyDir     64   /* appends the module's directory to the path buffer */
#define DTG_CopyFile    68   /* appends the module's file name */
#define DTG_CopyString  72   /* appends the string at A0 */
#define DTG_AudioAlloc  76
#define DTG_AudioFree   80
#define DTG_StartInt    84
#define DTG_StopInt     88
#define DTG_SongEnd     92   /* the song has ended (ignored after the first call) */
#define DTG_CutSuffix   96   /* cuts ".xpk" / ".pp" off the path buffer */
#define DTG_SetTimer    100  /* tick rate from DTG_Timer */
#define DTG_WaitAudioDMA 104
#define DTG_ModulePatch 176  /* searches and patches code patterns */
#define DTG_VoiceMask   0x146   /* word: voices enabled (bit per voice) */
#define DTG_VoiceVol    0x148   /* four words: per-voice volumes */

/* ---- Libraries ----------------------------------------------------------- */
#define ExecBaseAddr    4    /* the long at address 4 holds exec's base */
#define _LVOAllocMem        -198
#define _LVOFreeMem         -210
#define _LVOOldOpenLibrary  -408
#define _LVOCloseLibrary    -414
#define _LVOOpenLibrary     -552
#define _LVOTypeOfMem       -534
#define _LVOOpenResource    -498
#define _LVOAddIntServer    -168
#define _LVOSetIntVector    -162
#define _LVOCause           -180
#define _LVOOpen            -30
#define _LVOClose           -36
#define _LVORead            -42
#define _LVOSeek            -66
#define _LVOLock            -84
#define _LVOUnLock          -90
#define _LVOLoadSeg         -150
#define _LVOUnLoadSeg       -156
#define _LVOAddICRVector    -6   /* ciaa/ciab.resource */
#define _LVORemICRVector    -12
#define _LVOAbleICR         -18
#define _LVOSetICR          -24
#define MODE_OLDFILE        1005
#define OFFSET_BEGINNING    -1
#define OFFSET_CURRENT      0
#define OFFSET_END          1
#define INTB_VERTB          5
#define INTB_AUD0           7    /* AUD1..AUD3 are 8..10 */
#define CIAICRB_TA          0
#define CIAICRB_TB          1

/* Interrupt structure (exec's struct Interrupt, 22 bytes): the engine reads
 * the data pointer at +14 (passed in A1) and the code pointer at +18. */
#define IS_DATA 14
#define IS_CODE 18
#define IS_SIZE 22

/* ---- Custom chips ------------------------------------------------------- */
#define CUSTOM   0xDFF000
#define DMACONR  0x002
#define INTENAR  0x01C
#define INTREQR  0x01E
#define DMACON   0x096
#define INTENA   0x09A
#define INTREQ   0x09C
#define ADKCON   0x09E
#define AUD0LC   0x0A0   /* long: sample address (even, chip RAM) */
#define AUD0LEN  0x0A4   /* word: length in words */
#define AUD0PER  0x0A6   /* word: period in Paula clocks per sample */
#define AUD0VOL  0x0A8   /* word: 0..64 */
#define AUD0DAT  0x0AA
#define AUD1LC   0x0B0
#define AUD1LEN  0x0B4
#define AUD1PER  0x0B6
#define AUD1VOL  0x0B8
#define AUD2LC   0x0C0
#define AUD2LEN  0x0C4
#define AUD2PER  0x0C6
#define AUD2VOL  0x0C8
#define AUD3LC   0x0D0
#define AUD3LEN  0x0D4
#define AUD3PER  0x0D6
#define AUD3VOL  0x0D8
#define AUDSTRIDE 0x10
#define DMAF_SETCLR 0x8000
#define DMAF_MASTER 0x0200
#define DMAF_AUD0   0x0001   /* AUD1..AUD3 are 2, 4, 8 */
#define INTF_SETCLR 0x8000
#define INTF_INTEN  0x4000
#define INTF_AUD0   0x0080   /* AUD1..AUD3 are 0x100, 0x200, 0x400 */

/* CIAs: CIA-A registers at $BFE001 + n*$100, CIA-B at $BFD000 + n*$100. */
#define CIAA     0xBFE001
#define CIAB     0xBFD000
#define CIAPRA   0x000
#define CIAPRB   0x100
#define CIATALO  0x400
#define CIATAHI  0x500
#define CIATBLO  0x600
#define CIATBHI  0x700
#define CIAICR   0xD00
#define CIACRA   0xE00
#define CIACRB   0xF00

#ifdef __ASSEMBLER__
/* ---- Assembly helpers ---------------------------------------------------- */

/* The player header; must be the first thing in the player. */
.macro PLAYER_HEADER taglist
    .section .text.header,"ax"
    moveq   #-1,d0
    rts
    .ascii  "DELIRIUM"
    .long   \taglist
    .text
.endm

/* One tag list entry, and the end of the list. */
.macro TAG tag, value
    .long   \tag, \value
.endm
.macro TAG_END
    .long   0
.endm

/* Calls support function DTG_x through the globals in A5 (uses A1). */
.macro CALL_SUPPORT off
    move.l  \off(a5),a1
    jsr     (a1)
.endm

/* Calls an exec.library function (loads A6 from address 4). */
.macro CALL_EXEC lvo
    movea.l ExecBaseAddr,a6
    jsr     \lvo(a6)
.endm

#elif defined(__m68k__)
/* ---- C helpers (68k code only; host code may include this header for the
 * constants alone) ------------------------------------------------------ */
#include <stdint.h>

typedef volatile uint8_t *kp_globals;

#define KP_CUSTOM16(reg) (*(volatile uint16_t *)(CUSTOM + (reg)))
#define KP_CUSTOM32(reg) (*(volatile uint32_t *)(CUSTOM + (reg)))

static inline uint16_t kp_g16(kp_globals g, uint32_t off) { return *(volatile uint16_t *)(g + off); }
static inline uint32_t kp_g32(kp_globals g, uint32_t off) { return *(volatile uint32_t *)(g + off); }

/* Calls the support function at globals offset `off` with D0, D1 and A0. */
static inline uint32_t kp_support(kp_globals g, uint32_t off, uint32_t d0, uint32_t d1, uint32_t a0) {
    register uint32_t r_d0 __asm__("d0") = d0;
    register uint32_t r_d1 __asm__("d1") = d1;
    register uint32_t r_a0 __asm__("a0") = a0;
    register uint32_t r_a1 __asm__("a1") = kp_g32(g, off);
    __asm__ volatile("jsr (%%a1)" : "+d"(r_d0), "+d"(r_d1), "+a"(r_a0), "+a"(r_a1) : : "memory", "cc");
    return r_d0;
}

/* The player header for a C player: KELVA_PLAYER_HEADER(tags) at file
 * scope, where `tags` is a uint32_t array of (tag, value) pairs ended by 0. */
#define KELVA_PLAYER_HEADER(taglist)                                                    \
    __asm__(".section .text.header,\"ax\"\n\tmoveq #-1,%d0\n\trts\n\t.ascii \"DELIRIUM\"\n" \
            "\t.long " #taglist "\n\t.text\n")

/* Declares a C routine `uint32_t name(kp_globals g, uint32_t d0)` and an
 * entry `name_entry` for the tag list, which passes A5 and D0 as arguments
 * and returns the function's result in D0. */
#define KELVA_ROUTINE(name)                                                                  \
    uint32_t name(kp_globals g, uint32_t d0);                                                \
    void name##_entry(void);                                                                 \
    __asm__("\t.text\n\t.globl " #name "_entry\n" #name "_entry:\n\tmove.l %d0,-(%sp)\n"  \
            "\tmove.l %a5,-(%sp)\n\tjsr " #name "\n\taddq.l #8,%sp\n\trts\n");                \
    uint32_t name(kp_globals g, uint32_t d0)
#endif

#endif
