/* ahx.h - kelva's replay of AHX (THX) and HivelyTracker (HVL) songs.
 *
 * Both formats are pure synthesis: an instrument is a waveform (triangle,
 * sawtooth, square with pulse-width modulation, white noise) of 4 to 128
 * bytes, an ADSR envelope, a filter sweep over 31 low-pass and 31 high-pass
 * versions of every waveform, vibrato, and a "playlist" of per-tick commands
 * that switch waveforms, set notes and start the modulations. HVL adds up to
 * 16 channels, per-channel stereo panning, ring modulation and a second
 * effect column.
 *
 * The players (AHX.c, HivelyTracker.c) only name themselves; the code is
 * shared:
 *   load.c      checks a file and reads its layout (song, tracks,
 *               instruments) for either format;
 *   waves.c     generates the waveforms into chip memory;
 *   replay.c    the tracker's per-tick rules;
 *   output.c    hands each voice to Paula, directly or through the
 *               software mixer;
 *   frontend.c  the player interface.
 *
 * The plain 68000 has only 16-bit multiply and divide and the players get no
 * libgcc: every product is a mulu.w/muls.w (kp_math.h). */
#ifndef KELVA_AHX_H
#define KELVA_AHX_H

#include "kelva_player.h"

/* Given by each player's own file. */
extern const char ahx_player_name[];
extern const char ahx_player_creator[];

#define AHX_MAX_VOICES 16
#define AHX_TRACK_BYTES 320   /* an unpacked track: 64 steps of 5 bytes */

/* ---- The song (load.c) --------------------------------------------------- */

struct ahx_instrument {
    uint8_t volume;
    uint8_t wave_length;      /* 0..5: 4 << n bytes */
    uint8_t filter_speed;
    uint8_t filter_lower, filter_upper;
    uint8_t a_frames, a_volume, d_frames, d_volume, s_frames, r_frames, r_volume;
    uint8_t vibrato_delay, vibrato_depth, vibrato_speed;
    uint8_t hard_cut_frames, hard_cut_release;
    uint8_t square_lower, square_upper, square_speed;
    uint8_t plist_speed, plist_length;
    const uint8_t *plist;     /* the entries, in the file's encoding */
};

/* One decoded playlist entry. */
struct ahx_plist_entry {
    uint8_t fx[2], param[2];
    uint8_t waveform;         /* 0 = keep, 1..4 = triangle, sawtooth, square, noise */
    uint8_t fixed;            /* the note ignores the track's note and transpose */
    uint8_t note;
};

struct ahx_song {
    const uint8_t *mod;
    uint32_t size;
    uint8_t hvl;              /* 0: AHX (THX), 1: HivelyTracker */
    uint8_t version;
    uint8_t channels;
    uint8_t track_length;     /* steps per track, 1..64 */
    uint8_t speed_multiplier; /* ticks per 1/50 s, 1..4 */
    uint8_t instruments;
    uint8_t subsongs;
    uint8_t stereo;           /* HVL: 0..4, the panning of the L R R L layout */
    uint16_t positions;
    uint16_t restart;
    const uint8_t *subsong_list;   /* big-endian start positions */
    const uint8_t *position_list;  /* per position and channel: track, transpose */
    uint8_t *tracks;               /* 256 unpacked tracks: note, instrument, fx<<4|fxb, param, paramb */
    struct ahx_instrument ins[65]; /* 1-based */
    char title[128];
};

extern struct ahx_song ahx_song;

/* 0 when the file is an AHX or HVL song whose every part lies inside it. */
uint32_t ahx_check(const uint8_t *mod, uint32_t size);
/* Reads the song into ahx_song; 0 on success. */
uint32_t ahx_load(const uint8_t *mod, uint32_t size);
void ahx_plist_entry(const struct ahx_instrument *ins, uint16_t index, struct ahx_plist_entry *e);

/* ---- Waveforms (waves.c) -------------------------------------------------- */

/* A waveform is set by its filter position: 32 is the plain wave, 1..31
 * low-pass and 33..63 high-pass versions of rising cut-off. */
#define AHX_WAVE_TRIANGLE 0
#define AHX_WAVE_SAWTOOTH 1
#define AHX_WAVE_SQUARE 2
#define AHX_WAVE_NOISE 3
#define AHX_NOISE_BLOCK 0x280     /* bytes of noise played per tick */

uint32_t ahx_waves_init(void);
/* The looped waveform of 4 << wave_length bytes (triangle or sawtooth). */
const int8_t *ahx_wave(uint8_t filter, uint8_t waveform, uint8_t wave_length);
/* The square of width `width` (0..31, i.e. 1..32 of 64) at wave_length. */
const int8_t *ahx_square(uint8_t filter, uint8_t width, uint8_t wave_length);
/* The start of the 3 x 0x280 bytes of white noise. */
const int8_t *ahx_noise(uint8_t filter);

extern const uint16_t ahx_period_table[61];

/* ---- Replay (replay.c) -------------------------------------------------- */

struct ahx_voice {
    /* Position */
    uint8_t track, next_track;
    int8_t transpose;
    int16_t override_transpose;    /* 1000 = none */
    /* Instrument and envelope */
    const struct ahx_instrument *ins;
    int32_t adsr_volume;           /* 8.8 */
    int32_t a_step, d_step, r_step;
    int16_t a_frames, d_frames, s_frames, r_frames;
    int16_t note_max_volume, perf_sub_volume, track_master_volume;
    int16_t audio_volume;
    uint8_t volume_slide_up, volume_slide_down;
    /* Pitch */
    int16_t track_period, instr_period;   /* notes */
    uint8_t fixed_note;
    int32_t period_slide_speed, period_slide_period, period_slide_limit;
    uint8_t period_slide_on, period_slide_with_limit;
    int32_t perf_slide_speed, perf_slide_period;
    uint8_t perf_slide_on;
    int16_t vibrato_delay, vibrato_current, vibrato_depth, vibrato_speed, vibrato_period;
    int16_t audio_period;
    uint8_t plant_period;
    /* Waveform */
    uint8_t waveform, wave_length, new_waveform;
    uint8_t plant_square, ignore_square;
    int16_t square_pos, square_lower, square_upper, square_wait, square_sign;
    uint8_t square_on, square_init, square_sliding_in;
    int16_t filter_pos, filter_lower, filter_upper, filter_wait, filter_sign, filter_speed;
    uint8_t filter_on, filter_init, filter_sliding_in, ignore_filter;
    uint32_t noise_seed;
    const int8_t *source;          /* the waveform to play */
    uint16_t source_bytes;
    /* Playlist */
    uint8_t plist_on;
    uint16_t perf_current;
    uint8_t perf_speed, perf_wait;
    /* Hard cut, note cut and note delay */
    int16_t hard_cut, hard_cut_release, hard_cut_release_frames;
    uint8_t note_cut_on, note_delay_on;
    int16_t note_cut_wait, note_delay_wait;
    /* Ring modulation (HVL) */
    const int8_t *ring_source;     /* 0 = off */
    uint8_t ring_waveform, ring_new_waveform, ring_plant_period, ring_fixed_period;
    int16_t ring_base_period, ring_period;
    /* Panning (HVL): 0 = left .. 255 = right */
    uint8_t pan, set_pan;
    /* Set for the output stage */
    uint8_t restart;               /* an instrument started: the waveform plays from its start */
};

extern struct ahx_voice ahx_voices[AHX_MAX_VOICES];

void ahx_start(uint16_t subsong);
/* One tick; returns non-zero when the song has reached its end (it goes on
 * playing from the restart position). */
uint8_t ahx_tick(void);

/* ---- Output (output.c) -------------------------------------------------- */

void ahx_output_start(void);
void ahx_output_tick(void);
void ahx_output_stop(void);

/* ---- Shared small helpers ------------------------------------------------- */

/* Cleared chip memory from exec (0 when there is none left). */
void *ahx_alloc(uint32_t size);
/* a / b for a signed a and b > 0, rounded towards zero. */
int32_t ahx_sdiv(int32_t a, uint16_t b);

#endif
