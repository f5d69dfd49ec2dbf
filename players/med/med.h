/* med.h - kelva's MED/OctaMED player: the song model shared by the loader
 * (load.c, oldmed.c), the replay (replay.c, synth.c) and the output
 * (output.c).
 *
 * Every format the player reads is turned into one model at start-up:
 *
 *   - blocks: note data in one of two cell layouts, 3 bytes (MMD0) or 4
 *     bytes (MMD1 and later, and the converted MED 2/3/4 songs), plus up to
 *     MED_MAX_PAGES extra command pages of (command, data) pairs;
 *   - the sequence: sections, each naming a play sequence, each a list of
 *     block numbers (an MMD0/MMD1 song is one section with one sequence);
 *   - instruments: samples (plain, IFF multi-octave, extra-low octaves),
 *     synthetic and hybrid sounds, with their waveforms;
 *   - the song's timing and flags.
 *
 * All addresses point into the module (checked against its size when the
 * model is built) or into memory the loader allocated. */
#ifndef KELVA_MED_H
#define KELVA_MED_H

#include "kelva_player.h"

#define MED_MAX_TRACKS 64
#define MED_MAX_INSTR 63
#define MED_MAX_WAVES 64      /* waveforms of one synthetic sound */
#define MED_MAX_PAGES 8       /* extra command pages read per block */

/* The formats, for the format name and the few rules that differ. */
enum med_format {
    FMT_MED2,    /* "MED\x02": MED 1.x songs */
    FMT_MED3,    /* "MED\x03": MED 2.0 */
    FMT_MED4,    /* "MED\x04": MED 2.1 - 3.x */
    FMT_MMD0,
    FMT_MMD1,
    FMT_MMD2,
    FMT_MMD3,
};

/* Song flags (MMD song structure, offset 767). */
#define SF_FILTERON 0x01
#define SF_VOLHEX 0x10
#define SF_STSLIDE 0x20       /* no slides on the first tick of a line */
#define SF_8CHANNEL 0x40      /* OctaMED 5-8 channel mode */
/* flags2 */
#define SF2_BMASK 0x1F        /* lines per beat - 1 */
#define SF2_BPM 0x20
#define SF2_MIX 0x80          /* software mixing (MMD2/MMD3) */

/* Instrument kinds. */
enum { INS_NONE, INS_SAMPLE, INS_SYNTH, INS_HYBRID };

struct med_wave {
    uint32_t data;            /* first byte of the waveform */
    uint16_t words;           /* length in words, at least 1 */
};

struct med_instr {
    uint8_t kind;
    uint8_t octaves;          /* sample type: 0 plain, 1-6 IFF multi-octave, 7 two extra-low octaves */
    uint8_t loop;             /* the sample loops */
    uint8_t disabled;
    uint32_t data;            /* sample data (hybrid: the sample of waveform 0) */
    uint32_t length;          /* bytes */
    uint32_t rep, replen;     /* loop start and length in bytes */
    uint8_t volume;           /* default volume 0..64 */
    int8_t transpose;
    uint8_t hold, decay;
    int8_t finetune;          /* -8..7 */
    /* Synthetic and hybrid sounds. */
    uint32_t voltbl, wftbl;   /* the two 128-byte sequence tables */
    uint8_t volspeed, wfspeed;
    uint8_t waves;            /* waveforms in `wave` */
    uint16_t wave;            /* index of the first in med_waves */
};

struct med_block {
    uint32_t data;            /* first cell; 0 = an empty block */
    uint16_t tracks;          /* tracks read from the block (at most MED_MAX_TRACKS) */
    uint16_t stride;          /* tracks stored per line */
    uint16_t lines;           /* at least 1 */
    uint8_t cell;             /* 3 or 4 bytes */
    uint8_t pages;            /* extra command pages */
    uint8_t vol7bit;          /* volumes of this block are 0..127 (MMD3 with command extensions) */
    uint32_t page[MED_MAX_PAGES];
};

struct med_pseq {
    uint32_t entries;         /* block numbers: bytes (MMD0/1) or big-endian words, above 0x7FFF skipped */
    uint16_t length;
    uint8_t wide;             /* entries are words */
    uint32_t cmds;            /* play sequence command table, 0 = none */
    uint32_t cmds_end;
};

/* The song being played (one subsong of a multi-module). */
struct med_song {
    uint8_t format;
    uint8_t flags, flags2;
    uint8_t tempo2;           /* ticks per line */
    uint16_t tempo;           /* default tempo */
    int8_t transpose;
    uint8_t mastervol;
    uint8_t tracks;           /* widest block, at most MED_MAX_TRACKS */
    uint8_t trackvol[MED_MAX_TRACKS];
    uint16_t blocks;
    struct med_block *block;
    uint16_t sections;
    uint32_t section;         /* big-endian section words (MMD2/3); 0 = one section, sequence 0 */
    uint16_t pseqs;
    struct med_pseq *pseq;
    uint8_t mmd3_notes;       /* note numbers are two octaves higher than MMD0-2's */
    uint8_t stereo;           /* software mixing with track panning (MMD2/MMD3 mix mode) */
    int8_t trackpan[MED_MAX_TRACKS];   /* -16 (left) .. 16 (right) */
};

extern struct med_song song;
extern struct med_instr instr[MED_MAX_INSTR];
extern struct med_wave *med_waves;
extern uint16_t med_wave_count;
extern uint32_t mod_base, mod_end;

/* ---- load.c ------------------------------------------------------------- */

/* Checks that the module is one the player can read: 0 when it is. */
uint32_t med_check(const volatile uint8_t *mod, uint32_t size);
/* The number of songs in the module (at least 1). */
uint16_t med_song_count(void);
/* Builds the model of song `n` (0-based); 0 on success. */
uint32_t med_load_song(uint16_t n);
/* The song's title (may be empty) and the format's name. */
extern char med_title[64];
const char *med_format_name(void);

/* Bytes and words of the module, read as the 68000 reads them. */
static inline uint8_t rd8(uint32_t a) { return *(const volatile uint8_t *)a; }
static inline uint16_t rd16(uint32_t a) {
    return (uint16_t)((uint16_t)rd8(a) << 8 | rd8(a + 1));
}
static inline uint32_t rd32(uint32_t a) { return (uint32_t)rd16(a) << 16 | rd16(a + 2); }
/* True when [a, a + n) lies inside the module. */
static inline int in_mod(uint32_t a, uint32_t n) {
    return a >= mod_base && a <= mod_end && n <= mod_end - a;
}

/* exec AllocMem (cleared memory); 0 when the slab is exhausted. */
void *med_alloc(uint32_t bytes);

/* ---- oldmed.c --------------------------------------------------------- */

/* Builds the model of a "MED\x02"/"\x03"/"\x04" song; 0 on success. */
uint32_t med_load_old(void);
uint32_t med_check_old(const volatile uint8_t *mod, uint32_t size);

/* ---- replay.c ------------------------------------------------------------ */

void med_replay_init(kp_globals g);
void med_tick(void);
void med_stop(void);

/* ---- output.c ----------------------------------------------------------- */

/* Tracks go to Paula directly (four at most) or through the software
 * mixer, in stereo with panning when `stereo` is set. */
void out_init(uint8_t tracks, uint8_t mixed, uint8_t stereo);
void out_shutdown(void);
/* A new sound on a track: `len` bytes from `lc`, then the loop (`rep`,
 * `replen` bytes) or, when `replen` is 0, silence. */
void out_play(uint8_t t, uint32_t lc, uint32_t len, uint32_t rep, uint32_t replen);
/* A track's panning, -16 (left) .. 16 (right), for the stereo mix. */
void out_pan(uint8_t t, int8_t pan);
/* A synthetic sound starts; `restart` stops what the track played first
 * (its waveforms follow through out_wave). */
void out_synth(uint8_t t, uint8_t restart);
/* A synthetic waveform: queued behind what the track plays. */
void out_wave(uint8_t t, uint32_t lc, uint16_t words);
void out_per_vol(uint8_t t, uint16_t period, uint8_t volume);
void out_off(uint8_t t);
/* End of a tick: starts the sounds begun on it. */
void out_commit(void);
extern uint8_t out_mixed;

#endif
