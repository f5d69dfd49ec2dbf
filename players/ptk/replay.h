/* replay.h - the replay core shared by kelva's ProTracker-family players.
 *
 * One core plays every layout of the family: the 31-instrument modules
 * (ProTracker, NoiseTracker, Startrekker with its AM synth sounds, His
 * Master's Noise with its synth sounds, modules of 1 to 32 channels from
 * PC and Atari trackers) and the 15-instrument Soundtracker modules. A
 * variant record says what differs between the trackers; the players
 * (PTK-Prowiz.c, UltimateSoundtracker.c, Soundtracker-IV.c,
 * AudioSculpture.c) name themselves and choose the variant; frontend.c
 * wires the core into the player interface for all of them; output.c
 * mixes modules of more than four channels. */
#ifndef KELVA_PTK_REPLAY_H
#define KELVA_PTK_REPLAY_H

#include "kelva_player.h"

#define PTK_MAX_CHANNELS 32

/* The variants, one per tracker family. */
enum ptk_variant {
    PTK_PT30,   /* ProTracker 2/3: every effect, CIA tempo */
    PTK_NT,     /* NoiseTracker 1.x/2.x: restart position honoured */
    PTK_ST24,   /* Soundtracker 2.4: repeat start counted in bytes */
    PTK_FLT4,   /* Startrekker, four channels */
    PTK_MK,     /* His Master's Noise: plain sample instruments */
    PTK_COMP,   /* written by PC trackers; 4 or more channels */
    PTK_ST20,   /* 15 instruments, ProTracker-style effects */
    PTK_UST,    /* Ultimate Soundtracker: 15 instruments, 1xy/2xy only */
    PTK_ST4,    /* Soundtracker IV: 15 instruments, speed-only Fxx */
    PTK_VARIANTS
};

/* What a variant changes. Effects not in a tracker's set are still played
 * the ProTracker way unless a switch says otherwise: a module written with
 * the older tracker never uses them, and a module that the classification
 * sends here by mistake keeps them. */
struct ptk_rules {
    uint8_t samples;         /* 15 or 31 sample headers */
    uint8_t loop_bytes;      /* repeat start counted in bytes, not words */
    uint8_t loop_only;       /* a looping sample plays its loop part only */
    uint8_t finetune;        /* the finetune byte is honoured */
    uint8_t cia_tempo;       /* Fxx with xx >= 32 sets the CIA tempo */
    uint8_t fixed_speed;     /* Fxx is ignored, speed stays 6 */
    uint8_t restart;         /* the song restarts at the restart byte */
    uint8_t ust_effects;     /* 1xy = arpeggio, 2xy = slides; nothing else */
};

extern const struct ptk_rules ptk_rules_table[PTK_VARIANTS];

/* Checks that the module in memory can be played as `variant`: the header,
 * the order list and at least the patterns up to the highest order must
 * lie inside the file. Returns 0 when it can. */
uint32_t ptk_check(const volatile uint8_t *mod, uint32_t size, int variant);

/* Reads the layout (channel count, pattern and sample addresses) and
 * resets the song to its first position. Returns 0 on success; on failure
 * the tick routine does nothing. */
uint32_t ptk_init(kp_globals g, int variant);

/* One tick of the replay: new row or effects, as the tracker did on each
 * vertical blank (or CIA interrupt). */
void ptk_tick(kp_globals g);

/* Silences the four channels. */
void ptk_stop(void);

/* The variant named by the host's option string ("type:pt30", "type:nt10",
 * ...), read through the option lookup; without one, the variant the
 * module's tag suggests. */
int ptk_variant_from_option(const volatile uint8_t *mod, uint32_t size);

/* Channels the module's tag announces (4 for the four-channel tags, 0 for
 * a tag that is not one of the family's). */
uint32_t ptk_tag_channels(const volatile uint8_t *tag);

/* A Startrekker AM instrument, from the module's companion file (am.c):
 * envelope levels 0..255 and rates per tick, the period fall per tick, the
 * vibrato, the octaves below the note (FQ) and the looping waveform. */
struct ptk_am {
    uint16_t l0, a1l, a1s, a2l, a2s, sl, ds, st, rs;
    int16_t pfall, vamp, vspd;
    uint8_t fq;
    const int8_t *wave;   /* 0: the instrument is not an AM one */
    uint16_t wave_words;
};

/* Reads the AM instruments of the companion file that ExtLoad loaded
 * (entry 1 of GetListData) into table[1..31]; entries without one keep
 * wave = 0. Returns how many were found. */
uint32_t ptk_am_load(kp_globals g, struct ptk_am table[32]);

/* ExtLoad of a player with a companion file: loads the module's name +
 * ".nt" beside it. Returns 0 (a missing file is not an error). */
uint32_t ptk_am_ext_load(kp_globals g);

/* Supplied by each player's own file. */
extern const char ptk_player_name[];
extern const char ptk_player_creator[];
/* 1 when the player loads the Startrekker companion file (ExtLoad). */
extern const uint8_t ptk_player_companion;
/* The format name the player reports itself (0: the host's option names it). */
extern const char *const ptk_player_format;

/* The variant that plays the module in memory; Check2 asks it. */
int ptk_player_variant(const volatile uint8_t *mod, uint32_t size);

#endif
