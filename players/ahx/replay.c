/* replay.c - the tracker's rules, one call of ahx_tick per tick.
 *
 * A song is a list of positions; a position names one track per channel
 * and a transpose for it; a track is a column of steps (note, instrument,
 * command and parameter, HVL: a second command). Every `tempo` ticks the
 * next step of every channel is read. On every tick each voice then runs
 * its envelope, slides, vibrato, playlist, square and filter modulation,
 * and works out the waveform, period and volume it plays; output.c hands
 * these to Paula.
 *
 * Instruments: a volume, an ADSR envelope (attack, decay and release in
 * frames, each to a volume; sustain in frames), a wave length, vibrato
 * (delay, depth, speed), square modulation (lower and upper width, speed),
 * filter modulation (lower and upper position, speed), the hard cut (the
 * note is cut or released a number of ticks before the next instrument on
 * the channel) and the playlist: entries played one per `speed` ticks, each
 * with an optional waveform, note (relative to the track's note, or fixed)
 * and two commands:
 *   0 filter position      1 slide up          2 slide down
 *   3 square width         4 toggle square/filter modulation
 *   5 jump to entry        7 ring-modulate with a triangle (HVL)
 *   8 ring-modulate with a sawtooth (HVL)      9 panning (HVL)
 *   12 volume (note, playlist or track master) 15 playlist speed
 * Track commands: 0 high digit of a position jump, 1/2 portamento,
 * 3 tone portamento, 4 filter override, 5 tone portamento + volume slide,
 * 7 panning (HVL), 9 square width, A volume slide, B position jump,
 * C volume, D pattern break, E extended (fine slides, vibrato depth, fine
 * volume, note cut, note delay, HVL: transpose override), F tempo.
 *
 * The song ends where the position list runs out (the song goes on at the
 * restart position), where B jumps back (or to the same position) and at
 * tempo 0. */
#include "ahx.h"

#include "kp_math.h"

struct ahx_voice ahx_voices[AHX_MAX_VOICES];

static uint16_t pos_nr, note_nr, pos_jump, pos_jump_note;
static uint8_t pattern_break, get_new_position, tempo, song_end;
static int16_t step_wait;

static const int16_t vibrato_table[64] = {
    0,    24,   49,   74,   97,   120,  141,  161,  180,  197,  212,  224,  235,  244,  250,  253,
    255,  253,  250,  244,  235,  224,  212,  197,  180,  161,  141,  120,  97,   74,   49,   24,
    0,    -24,  -49,  -74,  -97,  -120, -141, -161, -180, -197, -212, -224, -235, -244, -250, -253,
    -255, -253, -250, -244, -235, -224, -212, -197, -180, -161, -141, -120, -97,  -74,  -49,  -24,
};

/* The left and right pan of the L R R L layout for each stereo setting. */
static const uint8_t pan_left[5] = {128, 96, 64, 32, 0};
static const uint8_t pan_right[5] = {128, 160, 193, 225, 255};

static inline uint16_t period_of(int16_t note) {
    if (note < 0) note = 0;
    if (note > 60) note = 60;
    return ahx_period_table[note];
}

/* The step of track `track` at `row`. */
static inline const uint8_t *step_at(uint8_t track, uint16_t row) {
    return ahx_song.tracks + kp_mulu16(track, AHX_TRACK_BYTES) + (row << 2) + row;
}

static inline const uint8_t *position_at(uint16_t pos) {
    return ahx_song.position_list + kp_mulu16(pos, (uint16_t)(ahx_song.channels << 1));
}

/* A BCD-style parameter: tens in the high nibble. */
static inline uint16_t decimal(uint8_t p) { return (uint16_t)((p >> 4) * 10 + (p & 15)); }

static inline uint16_t square_shift(const struct ahx_voice *v) { return (uint16_t)(5 - v->wave_length); }

/* ---- Steps ------------------------------------------------------------- */

/* Commands that act before the instrument is taken. */
static void step_fx1(struct ahx_voice *v, uint8_t fx, uint8_t p) {
    switch (fx) {
    case 0x0:   /* position jump, hundreds */
        if ((p & 15) > 0 && (p & 15) <= 9) pos_jump = p & 15;
        break;
    case 0x5:   /* tone portamento + volume slide */
    case 0xA:   /* volume slide */
        v->volume_slide_down = p & 15;
        v->volume_slide_up = (uint8_t)(p >> 4);
        break;
    case 0x7:   /* panning */
        v->pan = v->set_pan = (uint8_t)(p ^ 0x80);
        break;
    case 0xB:   /* position jump */
        pos_jump = (uint16_t)(kp_mulu16(pos_jump, 100) + decimal(p));
        pattern_break = 1;
        if (pos_jump <= pos_nr) song_end = 1;
        break;
    case 0xD:   /* pattern break */
        pos_jump = (uint16_t)(pos_nr + 1);
        pos_jump_note = decimal(p);
        pattern_break = 1;
        if (pos_jump_note >= ahx_song.track_length) pos_jump_note = 0;
        break;
    case 0xE:
        if ((p >> 4) == 0xC && (p & 15) < tempo) {   /* note cut */
            v->note_cut_wait = p & 15;
            if (v->note_cut_wait) {
                v->note_cut_on = 1;
                v->hard_cut_release = 0;
            }
        }
        break;
    case 0xF:   /* tempo */
        tempo = p;
        if (p == 0) song_end = 1;
        break;
    default: break;
    }
}

/* Commands that act on the note. */
static void step_fx2(struct ahx_voice *v, uint8_t fx, uint8_t p, int16_t *note) {
    switch (fx) {
    case 0x9:   /* square width */
        v->square_pos = (int16_t)(p >> square_shift(v));
        v->ignore_square = 1;
        break;
    case 0x3:   /* tone portamento */
        if (p) v->period_slide_speed = p;
        /* fall through */
    case 0x5:
        if (*note) {
            int32_t diff = (int32_t)period_of(v->track_period) - period_of(*note);
            if (diff + v->period_slide_period) v->period_slide_limit = -diff;
        }
        v->period_slide_on = 1;
        v->period_slide_with_limit = 1;
        *note = 0;
        break;
    default: break;
    }
}

/* Commands that act after the note. */
static void step_fx3(struct ahx_voice *v, uint8_t fx, uint8_t p) {
    switch (fx) {
    case 0x1:   /* portamento up */
        v->period_slide_speed = -(int32_t)p;
        v->period_slide_on = 1;
        v->period_slide_with_limit = 0;
        break;
    case 0x2:   /* portamento down */
        v->period_slide_speed = p;
        v->period_slide_on = 1;
        v->period_slide_with_limit = 0;
        break;
    case 0x4:   /* filter override */
        if (p == 0 || p == 0x40) break;
        if (p < 0x40) v->ignore_filter = p;
        else if (p <= 0x7F) v->filter_pos = (int16_t)(p - 0x40);
        break;
    case 0xC: { /* volume: note (0..40), all track masters (50..90), this track's master (A0..E0) */
        int16_t q = p;
        if (q <= 0x40) {
            v->note_max_volume = q;
        } else if ((q -= 0x50) >= 0 && q <= 0x40) {
            for (uint8_t i = 0; i < ahx_song.channels; i++) ahx_voices[i].track_master_volume = q;
        } else if ((q -= 0x50) >= 0 && q <= 0x40) {
            v->track_master_volume = q;
        }
        break;
    }
    case 0xE:
        switch (p >> 4) {
        case 0x1: v->period_slide_period -= p & 15; v->plant_period = 1; break;   /* fine slide up */
        case 0x2: v->period_slide_period += p & 15; v->plant_period = 1; break;   /* fine slide down */
        case 0x4: v->vibrato_depth = p & 15; break;
        case 0xA:   /* fine volume up */
            v->note_max_volume = (int16_t)(v->note_max_volume + (p & 15));
            if (v->note_max_volume > 0x40) v->note_max_volume = 0x40;
            break;
        case 0xB:   /* fine volume down */
            v->note_max_volume = (int16_t)(v->note_max_volume - (p & 15));
            if (v->note_max_volume < 0) v->note_max_volume = 0;
            break;
        case 0xF:   /* HVL 1: the note keeps the transpose of this position */
            if (ahx_song.hvl && ahx_song.version >= 1 && (p & 15) == 1) v->override_transpose = v->transpose;
            break;
        default: break;
        }
        break;
    default: break;
    }
}

/* An envelope slope: (to - from) x 256 / frames; with no frames the target
 * itself. */
static int32_t slope(int16_t from, int16_t to, uint8_t frames) {
    if (!frames) return (int32_t)to << 8;
    return ahx_sdiv(((int32_t)to - from) << 8, frames);
}

static void take_instrument(struct ahx_voice *v, uint8_t n) {
    const struct ahx_instrument *ins = &ahx_song.ins[n];
    v->pan = v->set_pan;
    v->period_slide_speed = v->period_slide_period = v->period_slide_limit = 0;
    v->perf_sub_volume = 0x40;
    v->adsr_volume = 0;
    v->ins = ins;
    v->restart = 1;
    v->a_frames = ins->a_frames;
    v->a_step = slope(0, ins->a_volume, ins->a_frames);
    v->d_frames = ins->d_frames;
    v->d_step = slope(ins->a_volume, ins->d_volume, ins->d_frames);
    v->s_frames = ins->s_frames;
    v->r_frames = ins->r_frames;
    v->r_step = slope(ins->d_volume, ins->r_volume, ins->r_frames);
    v->wave_length = ins->wave_length;
    v->note_max_volume = ins->volume;
    v->vibrato_current = 0;
    v->vibrato_delay = ins->vibrato_delay;
    v->vibrato_depth = ins->vibrato_depth;
    v->vibrato_speed = ins->vibrato_speed;
    v->vibrato_period = 0;
    v->hard_cut_release = ins->hard_cut_release;
    v->hard_cut = ins->hard_cut_frames;
    v->ignore_square = v->square_sliding_in = 0;
    v->square_wait = v->square_on = 0;
    int16_t lower = (int16_t)(ins->square_lower >> square_shift(v));
    int16_t upper = (int16_t)(ins->square_upper >> square_shift(v));
    v->square_lower = lower < upper ? lower : upper;
    v->square_upper = lower < upper ? upper : lower;
    v->ignore_filter = v->filter_wait = v->filter_on = 0;
    v->filter_sliding_in = 0;
    v->filter_speed = ins->filter_speed;
    v->filter_lower = ins->filter_lower < ins->filter_upper ? ins->filter_lower : ins->filter_upper;
    v->filter_upper = ins->filter_lower < ins->filter_upper ? ins->filter_upper : ins->filter_lower;
    v->filter_pos = 32;
    v->perf_wait = 0;
    v->perf_current = 0;
    v->perf_speed = ins->plist_speed;
    v->plist_on = 1;
    v->ring_source = 0;   /* ring modulation off until the playlist starts it */
    v->ring_plant_period = 0;
    v->ring_new_waveform = 0;
}

/* A note delay (ED x) on a step: returns 1 when the step waits. */
static uint8_t note_delay(struct ahx_voice *v, uint8_t fx, uint8_t p, uint8_t *done) {
    if (fx != 0xE || (p & 0xF0) != 0xD0) return 0;
    if (v->note_delay_on) {
        v->note_delay_on = 0;
        *done = 1;
        return 0;
    }
    if ((p & 15) < tempo) {
        v->note_delay_wait = p & 15;
        if (v->note_delay_wait) {
            v->note_delay_on = 1;
            return 1;
        }
    }
    return 0;
}

static void process_step(struct ahx_voice *v, uint8_t channel) {
    v->volume_slide_up = v->volume_slide_down = 0;
    const uint8_t *s = step_at(position_at(pos_nr)[channel << 1], note_nr);
    int16_t note = s[0];
    uint8_t instrument = s[1], fx = (uint8_t)(s[2] >> 4), fxb = (uint8_t)(s[2] & 15);
    uint8_t done = 0;
    if (note_delay(v, fx, s[3], &done)) return;
    if (!done && note_delay(v, fxb, s[4], &done)) return;
    if (note) v->override_transpose = 1000;
    step_fx1(v, fx, s[3]);
    step_fx1(v, fxb, s[4]);
    if (instrument && instrument <= ahx_song.instruments) take_instrument(v, instrument);
    v->period_slide_on = 0;
    step_fx2(v, fx, s[3], &note);
    step_fx2(v, fxb, s[4], &note);
    if (note) {
        v->track_period = note;
        v->plant_period = 1;
    }
    step_fx3(v, fx, s[3]);
    step_fx3(v, fxb, s[4]);
}

/* ---- The playlist -------------------------------------------------------- */

static void ring_command(struct ahx_voice *v, uint8_t waveform, uint8_t p) {
    if (p >= 1 && p <= 0x3C) {
        v->ring_base_period = p;
        v->ring_fixed_period = 1;
    } else if (p >= 0x81 && p <= 0xBC) {
        v->ring_base_period = (int16_t)(p - 0x80);
        v->ring_fixed_period = 0;
    } else {
        v->ring_base_period = 0;
        v->ring_fixed_period = 0;
        v->ring_new_waveform = 0;
        v->ring_source = 0;
        return;
    }
    v->ring_waveform = waveform;
    v->ring_new_waveform = 1;
    v->ring_plant_period = 1;
}

static void plist_command(struct ahx_voice *v, uint8_t fx, uint8_t p) {
    switch (fx) {
    case 0:   /* filter position */
        if (p > 0 && p < 0x40) {
            if (v->ignore_filter) {
                v->filter_pos = v->ignore_filter;
                v->ignore_filter = 0;
            } else {
                v->filter_pos = p;
            }
            v->new_waveform = 1;
        }
        break;
    case 1: v->perf_slide_speed = p; v->perf_slide_on = 1; break;
    case 2: v->perf_slide_speed = -(int32_t)p; v->perf_slide_on = 1; break;
    case 3:   /* square width, unless the track set it */
        if (!v->ignore_square) v->square_pos = (int16_t)(p >> square_shift(v));
        else v->ignore_square = 0;
        break;
    case 4:   /* low nibble: square modulation, high nibble: filter modulation; F = downwards */
        if (p == 0 || (p & 15)) {
            v->square_init = (v->square_on ^= 1);
            v->square_sign = (p & 15) == 15 ? -1 : 1;
        }
        if (p & 0xF0) {
            v->filter_init = (v->filter_on ^= 1);
            v->filter_sign = (p & 0xF0) == 0xF0 ? -1 : 1;
        }
        break;
    case 5: v->perf_current = p; break;
    case 7: if (ahx_song.hvl) ring_command(v, AHX_WAVE_TRIANGLE, p); break;
    case 8: if (ahx_song.hvl) ring_command(v, AHX_WAVE_SAWTOOTH, p); break;
    case 9: if (ahx_song.hvl) v->pan = (uint8_t)(p ^ 0x80); break;
    case 12: {   /* volume: note (0..40), playlist (50..90), track master (A0..E0) */
        int16_t q = p;
        if (q <= 0x40) v->note_max_volume = q;
        else if ((q -= 0x50) >= 0 && q <= 0x40) v->perf_sub_volume = q;
        else if ((q -= 0x50) >= 0 && q <= 0x40) v->track_master_volume = q;
        break;
    }
    case 15: v->perf_speed = v->perf_wait = p; break;
    default: break;
    }
}

static void run_plist(struct ahx_voice *v) {
    const struct ahx_instrument *ins = v->ins;
    if (v->perf_current < ins->plist_length) {
        /* The wait counts down as a signed byte: speeds 0 and 128..255
         * advance on every tick. */
        uint8_t w = v->perf_wait;
        if (w > 1 && w < 128) {
            v->perf_wait = (uint8_t)(w - 1);
            return;
        }
        struct ahx_plist_entry e;
        ahx_plist_entry(ins, v->perf_current++, &e);
        v->perf_wait = v->perf_speed;
        if (e.waveform) {
            v->waveform = (uint8_t)(e.waveform - 1);
            v->new_waveform = 1;
            v->perf_slide_speed = v->perf_slide_period = 0;
        }
        v->perf_slide_on = 0;
        plist_command(v, e.fx[0], e.param[0]);
        plist_command(v, e.fx[1], e.param[1]);
        if (e.note) {
            v->instr_period = e.note;
            v->plant_period = 1;
            v->fixed_note = e.fixed;
        }
    } else if (v->perf_wait) {
        v->perf_wait--;
    } else {
        v->perf_slide_speed = 0;
    }
}

/* ---- Frames -------------------------------------------------------------- */

/* A modulation sweeps between its limits, turning at each one; started
 * outside them it first slides in without turning. */
static void sweep_turn(int16_t pos, int16_t lower, int16_t upper, uint8_t *sliding_in, int16_t *sign) {
    if (pos == lower || pos == upper) {
        if (*sliding_in) *sliding_in = 0;
        else *sign = (int16_t)-*sign;
    }
}

static void sweep_init(int16_t pos, int16_t lower, int16_t upper, uint8_t *sliding_in, int16_t *sign) {
    if (pos <= lower) {
        *sliding_in = 1;
        *sign = 1;
    } else if (pos >= upper) {
        *sliding_in = 1;
        *sign = -1;
    }
}

static void process_frame(struct ahx_voice *v, uint8_t channel) {
    if (v->note_delay_on) {
        if (v->note_delay_wait <= 0) process_step(v, channel);
        else v->note_delay_wait--;
    }
    const struct ahx_instrument *ins = v->ins;
    if (v->hard_cut) {
        uint8_t next;
        if (note_nr + 1 < ahx_song.track_length) next = step_at(v->track, (uint16_t)(note_nr + 1))[1];
        else next = step_at(v->next_track, 0)[1];
        if (next) {
            int16_t d = (int16_t)(tempo - v->hard_cut);
            if (d < 0) d = 0;
            if (!v->note_cut_on) {
                v->note_cut_on = 1;
                v->note_cut_wait = d;
                v->hard_cut_release_frames = (int16_t)(tempo - d);
            } else {
                v->hard_cut = 0;
            }
        }
    }
    if (v->note_cut_on) {
        if (v->note_cut_wait <= 0) {
            v->note_cut_on = 0;
            if (v->hard_cut_release && ins) {
                /* Release from the current level to the release volume. */
                uint16_t f = v->hard_cut_release_frames > 0 ? (uint16_t)v->hard_cut_release_frames : 1;
                v->r_step = -ahx_sdiv(v->adsr_volume - ((int32_t)ins->r_volume << 8), f);
                v->r_frames = (int16_t)f;
                v->a_frames = v->d_frames = v->s_frames = 0;
            } else {
                v->note_max_volume = 0;
            }
        } else {
            v->note_cut_wait--;
        }
    }
    /* Envelope */
    if (ins) {
        if (v->a_frames) {
            v->adsr_volume += v->a_step;
            if (--v->a_frames <= 0) v->adsr_volume = (int32_t)ins->a_volume << 8;
        } else if (v->d_frames) {
            v->adsr_volume += v->d_step;
            if (--v->d_frames <= 0) v->adsr_volume = (int32_t)ins->d_volume << 8;
        } else if (v->s_frames) {
            v->s_frames--;
        } else if (v->r_frames) {
            v->adsr_volume += v->r_step;
            if (--v->r_frames <= 0) v->adsr_volume = (int32_t)ins->r_volume << 8;
        }
    }
    /* Volume slide */
    v->note_max_volume = (int16_t)(v->note_max_volume + v->volume_slide_up - v->volume_slide_down);
    if (v->note_max_volume < 0) v->note_max_volume = 0;
    else if (v->note_max_volume > 0x40) v->note_max_volume = 0x40;
    /* Portamento */
    if (v->period_slide_on) {
        if (v->period_slide_with_limit) {
            int32_t d0 = v->period_slide_period - v->period_slide_limit, d2 = v->period_slide_speed;
            if (d0 > 0) d2 = -d2;
            if (d0) {
                v->period_slide_period = ((d0 + d2) ^ d0) >= 0 ? v->period_slide_period + d2 : v->period_slide_limit;
                v->plant_period = 1;
            }
        } else {
            v->period_slide_period += v->period_slide_speed;
            v->plant_period = 1;
        }
    }
    /* Vibrato */
    if (v->vibrato_depth) {
        if (v->vibrato_delay <= 0) {
            v->vibrato_period = (int16_t)(kp_muls16(vibrato_table[v->vibrato_current], v->vibrato_depth) >> 7);
            v->plant_period = 1;
            v->vibrato_current = (int16_t)((v->vibrato_current + v->vibrato_speed) & 63);
        } else {
            v->vibrato_delay--;
        }
    }
    if (v->plist_on && ins) run_plist(v);
    /* Playlist slide */
    if (v->perf_slide_on) {
        v->perf_slide_period -= v->perf_slide_speed;
        if (v->perf_slide_period) v->plant_period = 1;
    }
    /* Square modulation */
    if (v->waveform == AHX_WAVE_SQUARE && v->square_on && --v->square_wait <= 0) {
        if (v->square_init) {
            v->square_init = 0;
            sweep_init(v->square_pos, v->square_lower, v->square_upper, &v->square_sliding_in, &v->square_sign);
        }
        sweep_turn(v->square_pos, v->square_lower, v->square_upper, &v->square_sliding_in, &v->square_sign);
        v->square_pos = (int16_t)(v->square_pos + v->square_sign);
        v->plant_square = 1;
        v->square_wait = ins ? ins->square_speed : 0;
    }
    /* Filter modulation: up to 4 steps a tick at the fastest speeds */
    if (v->filter_on && --v->filter_wait <= 0) {
        int16_t pos = v->filter_pos;
        if (v->filter_init) {
            v->filter_init = 0;
            sweep_init(pos, v->filter_lower, v->filter_upper, &v->filter_sliding_in, &v->filter_sign);
        }
        int16_t steps = v->filter_speed < 4 ? (int16_t)(5 - v->filter_speed) : 1;
        for (int16_t i = 0; i < steps; i++) {
            sweep_turn(pos, v->filter_lower, v->filter_upper, &v->filter_sliding_in, &v->filter_sign);
            pos = (int16_t)(pos + v->filter_sign);
        }
        if (pos < 1) pos = 1;
        if (pos > 63) pos = 63;
        v->filter_pos = pos;
        v->new_waveform = 1;
        v->filter_wait = (int16_t)(v->filter_speed - 3);
        if (v->filter_wait < 1) v->filter_wait = 1;
    }
    /* The waveform */
    if (v->waveform == AHX_WAVE_SQUARE || v->plant_square) {
        int16_t x = (int16_t)(v->square_pos << square_shift(v));
        if (x > 32) x = (int16_t)(64 - x);
        if (x < 1) x = 1;
        v->source = ahx_square((uint8_t)v->filter_pos, (uint8_t)(x - 1), v->wave_length);
        v->source_bytes = (uint16_t)(4u << v->wave_length);
        v->waveform = AHX_WAVE_SQUARE;
        v->plant_square = 0;
    } else if (v->waveform == AHX_WAVE_NOISE) {
        v->source = ahx_noise((uint8_t)v->filter_pos) + (v->noise_seed & 0x4FE);
        v->source_bytes = AHX_NOISE_BLOCK;
        uint32_t r = v->noise_seed + 2239384;
        v->noise_seed = ((((r >> 8) | (r << 24)) + 782323) ^ 75) - 6735;
    } else if (v->new_waveform) {
        v->source = ahx_wave((uint8_t)v->filter_pos, v->waveform, v->wave_length);
        v->source_bytes = (uint16_t)(4u << v->wave_length);
    }
    v->new_waveform = 0;
    if (v->ring_new_waveform) {
        v->ring_source = ahx_wave(32, v->ring_waveform, v->wave_length);
    }
    /* Periods */
    int16_t transpose = v->override_transpose != 1000 ? v->override_transpose : v->transpose;
    if (v->ring_source) {
        int16_t n = v->ring_base_period;
        if (!v->ring_fixed_period) n = (int16_t)(n + transpose + v->track_period - 1);
        int32_t p = period_of(n);
        if (!v->ring_fixed_period) p += v->period_slide_period;
        p += v->perf_slide_period + v->vibrato_period;
        v->ring_period = (int16_t)(p > 3424 ? 3424 : p < 113 ? 113 : p);
    }
    int16_t n = v->instr_period;
    if (!v->fixed_note) n = (int16_t)(n + transpose + v->track_period - 1);
    int32_t p = period_of(n);
    if (!v->fixed_note) p += v->period_slide_period;
    p += v->perf_slide_period + v->vibrato_period;
    v->audio_period = (int16_t)(p > 3424 ? 3424 : p < 113 ? 113 : p);
    /* Volume */
    int32_t a = v->adsr_volume >> 8;
    if (a < 0) a = 0;
    if (a > 255) a = 255;
    int32_t vol = kp_muls16((int16_t)a, v->note_max_volume) >> 6;
    vol = kp_muls16((int16_t)vol, v->perf_sub_volume) >> 6;
    vol = kp_muls16((int16_t)vol, v->track_master_volume) >> 6;
    v->audio_volume = (int16_t)(vol < 0 ? 0 : vol > 64 ? 64 : vol);
}

/* ---- The song ------------------------------------------------------------ */

void ahx_start(uint16_t subsong) {
    pos_nr = 0;
    if (subsong && subsong <= ahx_song.subsongs) {
        const uint8_t *s = ahx_song.subsong_list + ((subsong - 1) << 1);
        pos_nr = (uint16_t)(s[0] << 8 | s[1]);
        if (pos_nr >= ahx_song.positions) pos_nr = 0;
    }
    note_nr = pos_jump = pos_jump_note = 0;
    pattern_break = 0;
    tempo = 6;
    step_wait = 0;
    get_new_position = 1;
    song_end = 0;
    uint8_t left = pan_left[ahx_song.stereo], right = pan_right[ahx_song.stereo];
    for (uint8_t i = 0; i < AHX_MAX_VOICES; i++) {
        struct ahx_voice *v = &ahx_voices[i];
        uint8_t *b = (uint8_t *)v;
        for (uint16_t j = 0; j < sizeof *v; j++) b[j] = 0;
        v->override_transpose = 1000;
        v->track_master_volume = 0x40;
        v->noise_seed = 0x280;
        v->pan = v->set_pan = ((i + 1) & 2) ? right : left;   /* L R R L */
        v->filter_pos = 32;
    }
}

uint8_t ahx_tick(void) {
    uint8_t channels = ahx_song.channels;
    if (step_wait <= 0 && tempo) {
        if (get_new_position) {
            uint16_t next = (uint16_t)(pos_nr + 1 == ahx_song.positions ? 0 : pos_nr + 1);
            const uint8_t *here = position_at(pos_nr), *there = position_at(next);
            for (uint8_t i = 0; i < channels; i++) {
                ahx_voices[i].track = here[i << 1];
                ahx_voices[i].transpose = (int8_t)here[(i << 1) + 1];
                ahx_voices[i].next_track = there[i << 1];
            }
            get_new_position = 0;
        }
        for (uint8_t i = 0; i < channels; i++) process_step(&ahx_voices[i], i);
        step_wait = tempo;
    }
    for (uint8_t i = 0; i < channels; i++) process_frame(&ahx_voices[i], i);
    if (tempo && --step_wait <= 0) {
        if (!pattern_break) {
            note_nr++;
            if (note_nr >= ahx_song.track_length) {
                pos_jump = (uint16_t)(pos_nr + 1);
                pos_jump_note = 0;
                pattern_break = 1;
            }
        }
        if (pattern_break) {
            pattern_break = 0;
            pos_nr = pos_jump;
            note_nr = pos_jump_note;
            if (pos_nr >= ahx_song.positions) {
                song_end = 1;
                pos_nr = ahx_song.restart;
            }
            pos_jump = pos_jump_note = 0;
            get_new_position = 1;
        }
    }
    return song_end;
}
