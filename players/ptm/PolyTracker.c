/* PolyTracker: kelva's player for PolyTracker modules (.ptm).
 *
 * PolyTracker was a PC tracker (1994): up to 32 channels of 8-bit (or
 * 16-bit) samples at any rate, mixed by the sound card, with the
 * ProTracker effect set and a few of Scream Tracker 3's. The file is
 * little-endian:
 *
 *   0     song name (28 bytes), $1A, version (minor, major), a byte
 *   32    words: orders, instruments, patterns, channels, flags, spare
 *   44    "PTMF"
 *   64    32 channel pan positions (0 left .. 15 right)
 *   96    256 orders (pattern numbers; 255 ends the song)
 *   352   128 words: each pattern's offset in 16-byte paragraphs
 *   608   instruments of 80 bytes: type (bits 0-1: 1 = sample; bit 2 loop,
 *         bit 3 ping-pong loop, bit 4 16-bit), file name (12), volume
 *         (0..64), C-4 rate (word), a word, then longs: data offset,
 *         length, loop start, loop end (bytes), 16 bytes of card
 *         addresses, the name (28) and "PTMS"
 *
 * A pattern is 64 rows, each a run of entries ended by a 0 byte. An entry
 * starts with a byte holding the channel (bits 0-4) and what follows: bit 5
 * a note (1 = C-0 .. 96; 254 stops the note, 255 none) and an instrument,
 * bit 6 an effect and its parameter, bit 7 a volume (0..64). Sample data is
 * stored as the differences of successive bytes.
 *
 * On the Amiga the channels are mixed in software (players/lib/swmix.c):
 * each channel goes to a Paula channel on the side of its pan position (left
 * 0 and 3, right 1 and 2, in turn), the mix runs at 28,604 Hz, and every
 * channel gets the same share of a Paula channel's level (that of the
 * busiest), so the channels keep their balance. Ping-pong loops play
 * forwards; 16-bit samples play their high bytes.
 *
 * The replay, as PolyTracker played: a row every `speed` ticks (6) at 125
 * beats per minute (50 ticks a second), the note's rate C-4 rate x
 * 2^((note - 49) / 12), slides on the ticks after the first in the Scream
 * Tracker period units (a quarter of the Amiga's), and the volume heard is
 * the channel's volume times the global volume through PolyTracker's
 * loudness curve. An instrument without a note sets the volume; a note
 * without an instrument plays the last one at the channel's volume. The
 * effects (those marked + reuse their last parameter when given 0):
 *
 *   0xy arpeggio            1xx+ 2xx+ slide up, down (xFy fine, xEy extra fine)
 *   3xx+ tone portamento    4xy+ vibrato        5xy+ 6xy+ 3, 4 with volume slide
 *   7xy+ tremolo            9xx+ sample offset  Axy+ volume slide (AxF, AFy fine)
 *   Bxx position jump       Cxx volume          Dxx break to row xx (binary)
 *   E1x/E2x fine slides, E4x/E7x waveforms, E6x pattern loop, E9x retrigger,
 *   EAx/EBx fine volume, ECx cut, EDx note delay, EEx pattern delay
 *   Fxx speed (below 32) or tempo
 *   G (16) global volume, H (17)+ retrigger with volume change,
 *   I (18)+ fine vibrato, J/K (19/20) note slide down/up (x ticks a step of
 *   y semitones), L/M (21/22) the same retriggering the note
 *
 * The pattern loop is one for the whole song: E60 on any channel sets the
 * row it returns to, E6x on any channel counts; neither is reset by a new
 * pattern, and a loop taken cancels a pattern break earlier in its row. */
#include "kelva_player.h"
#include "kp_math.h"
#include "swmix.h"

#define MAX_CHANNELS 32
#define MIX_PERIOD SWMIX_PERIOD_28K
#define MIX_BLOCK 128

/* 16.16 step of a period of 1, at the mixing rate: a Scream Tracker period
 * p plays 14317056 / p samples a second, the mix 3546895 / MIX_PERIOD. */
#define STEP_NUMERATOR 32802505UL

/* ---- Tables ------------------------------------------------------------ */

/* Periods of C-4 .. B-4 at a C-4 rate of 8363 Hz. */
static const uint16_t octave4[12] = {1712, 1616, 1525, 1440, 1357, 1281, 1209, 1141, 1077, 1017, 961, 907};

/* 65536 / 2^(k/12): a period k semitones higher (arpeggio). */
static const uint16_t semitone_ratio[16] = {
    0, 61858, 58386, 55109, 52016, 49097, 46341, 43740, 41285, 38968, 36781, 34716, 32768, 30929, 29193, 27554,
};

/* The loudness curve: 64 x (volume / 64)^0.6. */
static const uint8_t loudness[65] = {
    0,  5,  8,  10, 12, 14, 15, 17, 18, 20, 21, 22, 23, 25, 26, 27, 28, 29, 30, 31, 32, 33,
    34, 35, 36, 36, 37, 38, 39, 40, 41, 41, 42, 43, 44, 45, 45, 46, 47, 48, 48, 49, 50, 50,
    51, 52, 52, 53, 54, 55, 55, 56, 57, 57, 58, 58, 59, 60, 60, 61, 62, 62, 63, 63, 64,
};

/* Half a sine period for vibrato and tremolo. */
static const uint8_t sine[32] = {
    0, 24, 49, 74, 97, 120, 141, 161, 180, 197, 212, 224, 235, 244, 250, 253,
    255, 253, 250, 244, 235, 224, 212, 197, 180, 161, 141, 120, 97, 74, 49, 24,
};

/* Retrigger with volume change (Hxy): x selects what happens to the volume:
 * add (or subtract) `add`, then multiply by mul / div. */
static const struct {
    int8_t add;
    uint8_t mul, div;
} retrig_volume[16] = {
    {0, 1, 1},  {-1, 1, 1}, {-2, 1, 1}, {-4, 1, 1}, {-8, 1, 1}, {-16, 1, 1}, {0, 2, 3}, {0, 1, 2},
    {0, 1, 1},  {1, 1, 1},  {2, 1, 1},  {4, 1, 1},  {8, 1, 1},  {16, 1, 1},  {0, 3, 2}, {0, 2, 1},
};

/* ---- Module ------------------------------------------------------------- */

struct instrument {
    const int8_t *data;   /* 0: not a sample, or empty */
    uint32_t length, loop_start, loop_len;
    uint16_t rate;        /* C-4 rate */
    uint8_t volume;
};

/* One row's cell of a channel. */
struct cell {
    uint8_t note, ins, vol, cmd, param, has_vol;
};

struct channel {
    swmix_voice *voice;
    const struct instrument *ins;   /* the instrument the next note plays */
    struct cell cell;               /* the row's cell */
    struct cell delayed;            /* EDx: the cell, played at tick `delay` */
    uint8_t delay;
    uint8_t note;
    uint32_t period, target;        /* Scream Tracker units; 0 = none */
    uint32_t out_period;            /* this tick's, with vibrato or arpeggio */
    uint16_t rate;
    int8_t volume, out_volume;
    uint8_t cmd, param;             /* the effect in force, with its parameter */
    uint8_t mem_slide, mem_porta, mem_vib, mem_trem, mem_vol, mem_offset, mem_retrig;
    uint8_t vib_pos, trem_pos, vib_wave, trem_wave;
    int8_t retrig_count;
    uint8_t slide_count, slide_speed;
    int8_t slide_step;
};

static const volatile uint8_t *mod;
static uint32_t mod_size;
static uint16_t orders, instrument_count, pattern_count, channel_count;
static struct instrument instruments[256];   /* 1-based */
static struct channel channels[MAX_CHANNELS];
static swmix_voice voices[MAX_CHANNELS];
static swmix_channel mixers[4];
static swmix_channel *mixer_list[4];
static uint16_t mixer_count;
/* Where each row of each pattern starts in the file (0: an empty row). */
static uint32_t row_at[128][64];
static uint8_t decoded, ready, mixing, timer_pending;

static uint8_t speed, counter, row, global_volume;
static uint16_t position;
static int16_t jump_to, break_row, loop_dest, loop_start;
static uint8_t loop_count, pattern_delay, delay_left, repeating, playing;
static uint8_t visited[256 * 8];   /* one bit per position and row */
static uint8_t ended;
static kp_globals globals;

static char title[29];
static const char *title_ref;
static const char format[] = "PolyTracker";
static const char *format_name = format;

static uint16_t le16(uint32_t o) { return (uint16_t)(mod[o] | mod[o + 1] << 8); }
static uint32_t le32(uint32_t o) { return (uint32_t)le16(o) | (uint32_t)le16(o + 2) << 16; }

/* ---- Layout ---------------------------------------------------------------- */

/* Indexes one pattern's rows; 1 when a row names a channel twice (the
 * file is damaged). Rows past the end of the file are empty. */
static uint32_t index_pattern(uint16_t p) {
    uint32_t at = (uint32_t)le16(352 + 2 * (uint32_t)p) << 4;
    for (uint16_t r = 0; r < 64; r++) row_at[p][r] = 0;
    for (uint16_t r = 0; r < 64 && at && at < mod_size; r++) {
        row_at[p][r] = at;
        uint32_t seen = 0;
        while (at < mod_size) {
            uint8_t b = mod[at++];
            if (!b) break;
            uint32_t bit = 1UL << (b & 31);
            if (seen & bit) return 1;
            seen |= bit;
            at += (b & 0x20 ? 2 : 0) + (b & 0x40 ? 2 : 0) + (b & 0x80 ? 1 : 0);
        }
    }
    return 0;
}

/* Checks and indexes the module; 0 when it can be played. */
static uint32_t layout(const volatile uint8_t *m, uint32_t size) {
    mod = m;
    mod_size = size;
    if (size < 608 || m[44] != 'P' || m[45] != 'T' || m[46] != 'M' || m[47] != 'F') return 1;
    orders = le16(32);
    instrument_count = le16(34);
    pattern_count = le16(36);
    channel_count = le16(38);
    if (orders == 0 || orders > 256 || instrument_count == 0 || instrument_count > 255 || pattern_count == 0 ||
        pattern_count > 128 || channel_count == 0 || channel_count > MAX_CHANNELS)
        return 1;
    if (608 + kp_mulu16(instrument_count, 80) > size) return 1;
    uint16_t playable = 0;
    for (uint16_t i = 0; i < orders && mod[96 + i] != 255; i++)
        if (mod[96 + i] < pattern_count) playable++;
    if (!playable) return 1;
    for (uint16_t p = 0; p < pattern_count; p++)
        if (index_pattern(p)) return 1;
    return 0;
}

/* Reads the instruments and turns the stored differences into samples, in
 * place. 16-bit samples keep their high bytes, packed to the front. */
static void load_instruments(void) {
    for (uint16_t i = 1; i <= instrument_count; i++) {
        uint32_t h = 608 + kp_mulu16((uint16_t)(i - 1), 80);
        struct instrument *s = &instruments[i];
        uint8_t type = mod[h];
        s->volume = mod[h + 13] > 64 ? 64 : mod[h + 13];
        s->rate = le16(h + 14);
        if (s->rate == 0) s->rate = 8363;
        uint32_t at = le32(h + 18), len = le32(h + 22), lb = le32(h + 26), le = le32(h + 30);
        s->data = 0;
        s->length = s->loop_start = s->loop_len = 0;
        if ((type & 3) != 1 || at >= mod_size || len == 0) continue;
        if (len > mod_size - at) len = mod_size - at;
        volatile int8_t *d = (volatile int8_t *)(mod + at);
        if (!decoded) {
            int8_t acc = 0;
            for (uint32_t k = 0; k < len; k++) {
                acc = (int8_t)(acc + d[k]);
                d[k] = acc;
            }
            if (type & 0x10)
                for (uint32_t k = 0; 2 * k + 1 < len; k++) d[k] = d[2 * k + 1];
        }
        if (type & 0x10) {
            len >>= 1;
            lb >>= 1;
            le >>= 1;
        }
        s->data = (const int8_t *)d;
        s->length = len;
        if ((type & 4) && lb < le && lb < len) {
            s->loop_start = lb;
            s->loop_len = (le > len ? len : le) - lb;
        }
    }
    decoded = 1;
}

/* ---- Pitch and level ------------------------------------------------------------ */

/* The period of `note` (1 = C-0) for an instrument of C-4 rate `rate`. */
static uint32_t note_period(uint8_t note, uint16_t rate) {
    uint8_t n = (uint8_t)(note - 1), oct = 0;
    while (n >= 12) {
        n = (uint8_t)(n - 12);
        oct++;
    }
    uint32_t p = kp_mulu16(octave4[n], 8363);
    if (oct <= 4) p <<= 4 - oct;
    else p >>= oct - 4;
    return kp_divu32(p, rate);
}

/* p x r / 65536 for a 16-bit ratio r. */
static uint32_t scale(uint32_t p, uint16_t r) {
    return kp_mulu16((uint16_t)(p >> 16), r) + (kp_mulu16((uint16_t)p, r) >> 16);
}

static uint32_t clamp_period(int32_t p) {
    if (p < 56) return 56;
    if (p > 0x3FFFF) return 0x3FFFF;
    return (uint32_t)p;
}

/* Hands a channel's pitch and level of this tick to its mixer voice. */
static void update_voice(struct channel *c) {
    uint32_t p = c->out_period, k = STEP_NUMERATOR;
    while (p > 0xFFFF) {
        p >>= 1;
        k >>= 1;
    }
    swmix_voice_step(c->voice, p ? kp_divu32(k, (uint16_t)p) : 0);
    int16_t v = c->out_volume < 0 ? 0 : c->out_volume > 64 ? 64 : c->out_volume;
    c->voice->volume = loudness[kp_mulu16((uint16_t)v, global_volume) >> 6];
}

/* ---- Notes ------------------------------------------------------------------------ */

static void trigger(struct channel *c, uint32_t offset) {
    const struct instrument *s = c->ins;
    if (!s || !s->data) {
        swmix_voice_stop(c->voice);
        return;
    }
    swmix_voice_play(c->voice, s->data, s->length, s->loop_start, s->loop_len, offset);
}

static void set_volume(struct channel *c, int16_t v) {
    c->volume = (int8_t)(v < 0 ? 0 : v > 64 ? 64 : v);
    c->out_volume = c->volume;
}

/* A parameter, or the effect's last one when it is 0. */
static uint8_t remember(uint8_t *mem, uint8_t p) {
    if (p) *mem = p;
    return *mem;
}

/* Vibrato/tremolo parameters keep the nibbles given as 0. */
static uint8_t remember_nibbles(uint8_t *mem, uint8_t p) {
    if (p & 0x0F) *mem = (uint8_t)((*mem & 0xF0) | (p & 0x0F));
    if (p & 0xF0) *mem = (uint8_t)((*mem & 0x0F) | (p & 0xF0));
    return *mem;
}

static void slide(struct channel *c, int32_t d) {
    c->period = clamp_period((int32_t)c->period + d);
    c->out_period = c->period;
}

/* The wave's value 0..255 and sign at a position. */
static int16_t wave(uint8_t pos, uint8_t type) {
    uint8_t i = (pos >> 2) & 31;
    int16_t v;
    if ((type & 3) == 1) v = (int16_t)(i << 3);          /* ramp */
    else if ((type & 3) == 2) v = 255;                   /* square */
    else v = sine[i];
    if ((type & 3) == 1) return (pos & 0x80) ? (int16_t)(v - 255) : v;
    return (pos & 0x80) ? (int16_t)-v : v;
}

static void vibrato(struct channel *c, uint8_t shift) {
    uint8_t p = c->mem_vib;
    int32_t d = kp_muls16(wave(c->vib_pos, c->vib_wave), p & 15) >> shift;
    c->out_period = clamp_period((int32_t)c->period + d);
    c->vib_pos = (uint8_t)(c->vib_pos + ((p >> 2) & 0x3C));
}

static void tremolo(struct channel *c) {
    uint8_t p = c->mem_trem;
    int16_t d = (int16_t)(kp_muls16(wave(c->trem_pos, c->trem_wave), p & 15) >> 6);
    c->out_volume = (int8_t)(c->volume + d < 0 ? 0 : c->volume + d > 64 ? 64 : c->volume + d);
    c->trem_pos = (uint8_t)(c->trem_pos + ((p >> 2) & 0x3C));
}

static void tone_porta(struct channel *c) {
    if (!c->target) return;
    uint32_t step = (uint32_t)c->mem_porta << 2;
    if (c->period > c->target) {
        c->period = c->period - c->target > step ? c->period - step : c->target;
    } else {
        c->period = c->target - c->period > step ? c->period + step : c->target;
    }
    if (c->period == c->target) c->target = 0;
    c->out_period = c->period;
}

/* Axy on the ticks after the first: down by y when it is set, else up by
 * x; the fine forms act on the first tick only. */
static void volume_slide(struct channel *c, uint8_t p, uint8_t first) {
    uint8_t x = p >> 4, y = p & 15;
    if ((y == 15 && x) || (x == 15 && y)) {
        if (first) set_volume(c, y == 15 ? (int16_t)(c->volume + x) : (int16_t)(c->volume - y));
        return;
    }
    if (first) return;
    set_volume(c, y ? (int16_t)(c->volume - y) : (int16_t)(c->volume + x));
}

static void retrigger_with_volume(struct channel *c) {
    uint8_t p = c->mem_retrig;
    if (--c->retrig_count > 0) return;
    c->retrig_count = (int8_t)(p & 15);
    if (c->voice->data || c->ins) trigger(c, 0);
    int16_t v = (int16_t)(c->volume + retrig_volume[p >> 4].add);
    v = (int16_t)kp_divu16(kp_mulu16((uint16_t)(v < 0 ? 0 : v), retrig_volume[p >> 4].mul), retrig_volume[p >> 4].div);
    set_volume(c, v);
}

/* ---- Rows --------------------------------------------------------------------- */

static void read_cell(uint16_t pattern, uint8_t r, struct cell *cells) {
    for (uint16_t i = 0; i < channel_count; i++) {
        struct cell *x = &cells[i];
        x->note = x->ins = x->vol = x->cmd = x->param = x->has_vol = 0;
    }
    uint32_t at = row_at[pattern][r];
    if (!at) return;
    while (at < mod_size) {
        uint8_t b = mod[at++];
        if (!b) break;
        struct cell dummy, *x = (b & 31) < channel_count ? &cells[b & 31] : &dummy;
        if (b & 0x20) {
            x->note = at < mod_size ? mod[at] : 0;
            x->ins = at + 1 < mod_size ? mod[at + 1] : 0;
            at += 2;
        }
        if (b & 0x40) {
            x->cmd = at < mod_size ? mod[at] : 0;
            x->param = at + 1 < mod_size ? mod[at + 1] : 0;
            at += 2;
            if (x->cmd > 22) x->cmd = x->param = 0;
        }
        if (b & 0x80) {
            x->vol = at < mod_size ? mod[at] : 0;
            x->has_vol = 1;
            at += 1;
        }
    }
}

/* Clears the visited marks of rows a pattern loop plays again. */
static void unvisit(uint8_t from, uint8_t to) {
    for (uint8_t r = from; r <= to && r < 64; r++) visited[(position << 3) + (r >> 3)] &= (uint8_t)~(1u << (r & 7));
}

static void pattern_loop(uint8_t x) {
    if (x == 0) {
        loop_start = row;
        return;
    }
    if (loop_start < 0) loop_start = 0;
    if (loop_count) {
        if (--loop_count == 0) return;
    } else {
        loop_count = x;
    }
    loop_dest = loop_start;
    if (jump_to < 0) break_row = -1;   /* the loop cancels an earlier break in the row */
    unvisit((uint8_t)loop_start, row);
}

/* A cell's note, instrument, volume and first-tick effect. */
static void play_cell(struct channel *c, const struct cell *x) {
    uint8_t p = x->param, cmd = x->cmd;
    c->cmd = cmd;
    c->param = p;
    if (x->ins) {
        const struct instrument *s = x->ins <= instrument_count ? &instruments[x->ins] : 0;
        c->ins = s;
        if (s) set_volume(c, s->volume);
    }
    if (x->note == 254) {
        swmix_voice_stop(c->voice);
    } else if (x->note && x->note <= 120) {
        uint16_t rate = c->ins ? c->ins->rate : 8363;
        uint32_t period = note_period(x->note, rate);
        if ((cmd == 3 || cmd == 5) && c->voice->data) {
            c->target = period;
            if (c->target == c->period) c->target = 0;
        } else {
            c->note = x->note;
            c->rate = rate;
            c->period = c->out_period = period;
            c->target = 0;
            if (!(c->vib_wave & 4)) c->vib_pos = 0;
            if (!(c->trem_wave & 4)) c->trem_pos = 0;
            uint32_t offset = cmd == 9 ? (uint32_t)remember(&c->mem_offset, p) << 8 : 0;
            trigger(c, offset);
        }
    }
    if (x->has_vol) set_volume(c, x->vol);

    switch (cmd) {
    case 0x1:
    case 0x2: {
        uint8_t v = remember(&c->mem_slide, p);
        if ((v >> 4) == 15) slide(c, cmd == 1 ? -(int32_t)((v & 15) << 2) : (int32_t)((v & 15) << 2));
        else if ((v >> 4) == 14) slide(c, cmd == 1 ? -(int32_t)(v & 15) : (int32_t)(v & 15));
        break;
    }
    case 0x3: remember(&c->mem_porta, p); break;
    case 0x4: remember_nibbles(&c->mem_vib, p); break;
    case 0x5:
    case 0x6:
    case 0xA: volume_slide(c, remember(&c->mem_vol, p), 1); break;
    case 0x7: remember_nibbles(&c->mem_trem, p); break;
    case 0xB:
        jump_to = p;
        break_row = 0;
        break;
    case 0xC: set_volume(c, p); break;
    case 0xD: break_row = p > 63 ? 0 : p; break;
    case 0xE:
        switch (p >> 4) {
        case 0x1: slide(c, -(int32_t)((p & 15) << 2)); break;
        case 0x2: slide(c, (int32_t)((p & 15) << 2)); break;
        case 0x4: c->vib_wave = p & 7; break;
        case 0x6: pattern_loop(p & 15); break;
        case 0x7: c->trem_wave = p & 7; break;
        case 0xA: set_volume(c, (int16_t)(c->volume + (p & 15))); break;
        case 0xB: set_volume(c, (int16_t)(c->volume - (p & 15))); break;
        case 0xC:
            if ((p & 15) == 0) set_volume(c, 0);
            break;
        case 0xE: pattern_delay = p & 15; break;
        default: break;
        }
        break;
    case 0xF:
        if (p && p < 32) {
            speed = p;
        } else if (p >= 32) {
            /* A tick lasts 2.5 / tempo seconds: 3546895 / (2 x tempo)
             * E-clock cycles, the timer's value plus one. */
            *(volatile uint16_t *)(globals + DTG_Timer) =
                (uint16_t)(kp_divu32(3546895UL + p, (uint16_t)(2 * p)) - 1);
            timer_pending = 1;
        }
        break;
    case 16: global_volume = p > 64 ? 64 : p; break;
    case 17:
        if (p) c->mem_retrig = p;
        if (c->retrig_count <= 0 || p) c->retrig_count = (int8_t)((c->mem_retrig & 15) + 1);
        break;
    case 18: remember_nibbles(&c->mem_vib, p); break;
    case 19:
    case 20:
    case 21:
    case 22:
        if (p) {
            c->slide_speed = c->slide_count = p >> 4;
            c->slide_step = (int8_t)(cmd == 19 || cmd == 21 ? -(p & 15) : (p & 15));
        }
        break;
    default: break;
    }
}

/* The effects of one tick of a channel (counter > 0, or every tick for
 * the retriggers). */
static void channel_tick(struct channel *c) {
    c->out_period = c->period;
    c->out_volume = c->volume;
    if (c->delay && counter == c->delay) {
        c->delay = 0;
        play_cell(c, &c->delayed);
    }
    uint8_t p = c->param;
    if (counter == 0) {
        if (c->cmd == 17) retrigger_with_volume(c);
        return;
    }
    switch (c->cmd) {
    case 0x0:
        if (p && c->period) {
            uint8_t phase = counter;
            while (phase >= 3) phase = (uint8_t)(phase - 3);
            uint8_t k = phase == 1 ? p >> 4 : phase == 2 ? p & 15 : 0;
            if (k) c->out_period = clamp_period((int32_t)scale(c->period, semitone_ratio[k]));
        }
        break;
    case 0x1:
    case 0x2: {
        uint8_t v = c->mem_slide;
        if ((v >> 4) < 14) slide(c, c->cmd == 1 ? -(int32_t)((uint32_t)v << 2) : (int32_t)((uint32_t)v << 2));
        break;
    }
    case 0x3: tone_porta(c); break;
    case 0x4: vibrato(c, 5); break;
    case 0x5:
        tone_porta(c);
        volume_slide(c, c->mem_vol, 0);
        break;
    case 0x6:
        vibrato(c, 5);
        volume_slide(c, c->mem_vol, 0);
        break;
    case 0x7: tremolo(c); break;
    case 0xA: volume_slide(c, c->mem_vol, 0); break;
    case 0xE: {
        uint8_t x = p & 15;
        if ((p >> 4) == 0x9 && x) {
            uint8_t t = counter;
            while (t >= x) t = (uint8_t)(t - x);
            if (t == 0) trigger(c, 0);
        } else if ((p >> 4) == 0xC && x == counter) {
            set_volume(c, 0);
        }
        break;
    }
    case 17: retrigger_with_volume(c); break;
    case 18: vibrato(c, 7); break;
    case 19:
    case 20:
    case 21:
    case 22:
        if (c->slide_speed && --c->slide_count == 0) {
            c->slide_count = c->slide_speed;
            int16_t n = (int16_t)(c->note + c->slide_step);
            if (n < 1) n = 1;
            if (n > 120) n = 120;
            c->note = (uint8_t)n;
            c->period = c->out_period = note_period(c->note, c->rate ? c->rate : 8363);
            if (c->cmd >= 21) trigger(c, 0);
        }
        break;
    default: break;
    }
}

/* Reports the song's end once. */
static void song_end(void) {
    if (!ended) {
        ended = 1;
        kp_support(globals, DTG_SongEnd, 0, 0, 0);
    }
}

/* The next playable position from `pos` on (255 ends the song, patterns
 * that do not exist are skipped); wraps to the start. */
static uint16_t playable_from(uint16_t pos) {
    for (uint16_t tries = 0; tries <= orders; tries++) {
        if (pos >= orders || mod[96 + pos] == 255) pos = 0;
        if (mod[96 + pos] < pattern_count) return pos;
        pos++;
    }
    return 0;
}

static void read_row(void) {
    uint8_t bit = (uint8_t)(1u << (row & 7));
    uint8_t *mark = &visited[(position << 3) + (row >> 3)];
    if (*mark & bit) song_end();
    *mark |= bit;
    static struct cell cells[MAX_CHANNELS];
    read_cell(mod[96 + position], row, cells);
    for (uint16_t i = 0; i < channel_count; i++) {
        struct channel *c = &channels[i];
        const struct cell *x = &cells[i];
        c->delay = 0;
        if (x->cmd == 0xE && (x->param >> 4) == 0xD && (x->param & 15)) {
            c->delayed = *x;
            c->delay = x->param & 15;
            c->cmd = c->param = 0;
            continue;
        }
        play_cell(c, x);
    }
}

/* Moves on after a row has played: the row again while a pattern delay
 * lasts, else where a jump, break or loop of the row leads, else the next
 * row. */
static void advance(void) {
    if (pattern_delay) {
        delay_left = pattern_delay;
        pattern_delay = 0;
    }
    if (delay_left) {
        delay_left--;
        repeating = 1;
        return;
    }
    repeating = 0;
    if (jump_to >= 0 || break_row >= 0) {
        uint16_t to = jump_to >= 0 ? (uint16_t)jump_to : (uint16_t)(position + 1);
        row = break_row >= 0 ? (uint8_t)break_row : 0;
        position = playable_from(to);
    } else if (loop_dest >= 0) {
        row = (uint8_t)loop_dest;
    } else if (++row >= 64) {
        row = 0;
        position = playable_from((uint16_t)(position + 1));
    }
    jump_to = break_row = loop_dest = -1;
}

/* ---- Player interface ------------------------------------------------------------ */

KELVA_ROUTINE(check2) {
    (void)d0;
    return layout((const volatile uint8_t *)kp_g32(g, DTG_ChkData), kp_g32(g, DTG_ChkSize));
}

KELVA_ROUTINE(init_player) {
    (void)d0;
    globals = g;
    ready = 0;
    if (layout((const volatile uint8_t *)kp_g32(g, DTG_ChkData), kp_g32(g, DTG_ChkSize))) return 1;
    load_instruments();
    for (uint16_t i = 0; i < 28; i++) title[i] = (char)mod[i];
    title[28] = 0;
    title_ref = title;

    /* Channels to Paula channels by their side; a side with more than 16
     * gives the rest to the other. */
    swmix_voice *side[2][MAX_CHANNELS];
    uint16_t count[2] = {0, 0};
    for (uint16_t i = 0; i < channel_count; i++) {
        uint8_t *b = (uint8_t *)&channels[i];
        for (uint32_t k = 0; k < sizeof channels[i]; k++) b[k] = 0;
        uint8_t *vb = (uint8_t *)&voices[i];
        for (uint32_t k = 0; k < sizeof voices[i]; k++) vb[k] = 0;
        channels[i].voice = &voices[i];
        uint16_t s = (mod[64 + i] & 15) >= 8 ? 1 : 0;
        if (count[s] >= 16) s ^= 1;
        side[s][count[s]++] = &voices[i];
    }
    static const uint16_t paula_of[2][2] = {{0, 3}, {1, 2}};
    mixer_count = 0;
    uint16_t shift = 0;
    for (uint16_t s = 0; s < 2; s++) {
        for (uint16_t half = 0; half < 2; half++) {
            swmix_voice *list[SWMIX_MAX_VOICES];
            uint16_t n = 0;
            for (uint16_t k = half; k < count[s]; k += 2) list[n++] = side[s][k];
            if (!n) continue;
            swmix_channel *mx = &mixers[mixer_count];
            swmix_channel_init(mx, paula_of[s][half], list, n);
            if (mx->shift > shift) shift = mx->shift;
            mixer_list[mixer_count++] = mx;
        }
    }
    for (uint16_t i = 0; i < mixer_count; i++) mixer_list[i]->shift = shift;

    for (uint32_t i = 0; i < sizeof visited; i++) visited[i] = 0;
    ended = 0;
    speed = 6;
    counter = 5;   /* the first tick reads row 0 */
    row = 0;
    global_volume = 64;
    position = playable_from(0);
    jump_to = break_row = loop_dest = loop_start = -1;
    loop_count = pattern_delay = delay_left = repeating = playing = 0;
    *(volatile uint16_t *)(g + DTG_Timer) = 14187;
    timer_pending = 1;
    ready = 1;
    return 0;
}

KELVA_ROUTINE(start_int) {
    (void)g;
    (void)d0;
    if (ready && !mixing) {
        /* PolyTracker's sound had the whole bandwidth: the Amiga's low-pass
         * ("LED") filter, on since the machine started, goes off. */
        volatile uint8_t *pra = (volatile uint8_t *)CIAA;
        *pra = (uint8_t)(*pra | 0x02);
        swmix_start(mixer_list, mixer_count, MIX_PERIOD, MIX_BLOCK);
        mixing = 1;
    }
    return 0;
}

KELVA_ROUTINE(end_sound) {
    (void)g;
    (void)d0;
    if (mixing) {
        swmix_stop(mixer_list, mixer_count);
        mixing = 0;
    }
    return 0;
}

KELVA_ROUTINE(tick) {
    (void)d0;
    if (!ready) return 0;
    if (timer_pending) {
        timer_pending = 0;
        kp_support(g, DTG_SetTimer, 0, 0, 0);
    }
    if (++counter >= speed) {
        counter = 0;
        if (playing) advance();   /* the song's first tick has nothing to move on from */
        playing = 1;
        if (!repeating) read_row();
    }
    for (uint16_t i = 0; i < channel_count; i++) {
        channel_tick(&channels[i]);
        update_voice(&channels[i]);
    }
    return 0;
}

static const char player_name[] = "PolyTracker";
static const char creator[] = "kelva: PolyTracker replay, mixed in software";

const uint32_t tags[] = {
    DTP_PlayerName, (uint32_t)player_name,
    DTP_Creator, (uint32_t)creator,
    DTP_PlayerVersion, 0x00010000,
    DTP_Check2, (uint32_t)check2_entry,
    DTP_InitPlayer, (uint32_t)init_player_entry,
    DTP_StartInt, (uint32_t)start_int_entry,
    DTP_EndSound, (uint32_t)end_sound_entry,
    DTP_Interrupt, (uint32_t)tick_entry,
    DTP_ModuleName, (uint32_t)&title_ref,
    DTP_FormatName, (uint32_t)&format_name,
    EP_Flags, EPF_Songend,
    0,
};

KELVA_PLAYER_HEADER(tags);
