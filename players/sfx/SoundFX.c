/* SoundFX: kelva's player for SoundFX 1.3 (15 samples) and 2.0 (31
 * samples) modules.
 *
 * Layout (big-endian; n = 15 or 31 samples):
 *
 *   0        n longs: the size of each sample's data in bytes
 *   4n       "SONG" (1.3) or "SO31" (2.0)
 *   4n+4     word: the tick delay, the CIA timer value of one tick
 *   4n+20    n sample headers of 30 bytes: name (22), length in words,
 *            volume (word, 0..64), loop start in bytes, loop length in words
 *   then     song length, a byte the replay ignores, 128 orders; 2.0 has
 *            four more bytes
 *   then     patterns of 64 rows x 4 channels x 4 bytes, then the sample
 *            data one after the other, each of its size
 *
 * A cell is a word (the note's period, or one of the commands $FFFB..$FFFE;
 * in 2.0 bit 12 is bit 4 of the sample number), then the sample number's
 * low nibble with the effect, then the effect's parameter.
 *
 * The replay: a row every six ticks at the module's CIA rate; effects on the
 * five ticks between. A sample number loads the sample and sets the volume
 * (effects 5xx/6xx add to or take from it, on that row only); a period
 * starts the note. $FFFD (PIC) leaves the channel as it is and cancels the
 * cell's effect, $FFFE (STP) stops the channel, $FFFC (BRK) ends the pattern
 * after this row. The effects:
 *
 *   1xy  arpeggio: x semitones on ticks 1 and 5, y on 2 and 4, the note on 3
 *   2xy  pitch bend: the row's period goes down by y (up by x when x is set)
 *        per tick, cumulatively
 *   3xx  filter off, 4xx filter on (the tracker named them the other way)
 *   7xy  step: the period slides up by y per tick to x semitones lower, and
 *        goes on from there while the row lasts; 8xy the same upwards
 *   9xy  auto slide: the period rises by 8 every y ticks
 */
#include "kelva_player.h"
#include "kp_math.h"
#include "paula.h"

/* ---- Tables ------------------------------------------------------------ */

/* The periods the arpeggio and the steps look notes up in: three octaves
 * with four notes below them, 113 repeated above (the replay reads past B-3
 * into those), 0 at the end. Steps below the first note stay at 1076. */
#define NOTE_COUNT 66
static const uint16_t notes[NOTE_COUNT + 1] = {
    1076, 1016, 960, 906,
    856, 808, 762, 720, 678, 640, 604, 570, 538, 508, 480, 453,
    428, 404, 381, 360, 339, 320, 302, 285, 269, 254, 240, 226,
    214, 202, 190, 180, 170, 160, 151, 143, 135, 127, 120, 113,
    113, 113, 113, 113, 113, 113, 113, 113, 113, 113, 113, 113, 113,
    113, 113, 113, 113, 113, 113, 113, 113, 113, 113, 113, 113, 113,
    0,
};

/* Index of `period` in the table, or -1. */
static int16_t note_index(uint16_t period) {
    for (int16_t i = 0; i < NOTE_COUNT; i++)
        if (notes[i] == period) return i;
    return -1;
}

/* The table entry `i` semitones further (i may be negative). */
static uint16_t note_at(int16_t i) {
    if (i < 0) return notes[0];
    if (i >= NOTE_COUNT) return notes[NOTE_COUNT - 1];
    return notes[i];
}

/* ---- Module --------------------------------------------------------------- */

struct sample {
    uint32_t start;      /* 0: no data */
    uint16_t words;      /* played from the start */
    uint32_t loop;       /* loop address, or the silent block */
    uint16_t loop_words;
    uint8_t volume;
};

struct voice {
    uint32_t cell;       /* the row's cell; the bend and PIC rewrite it */
    uint32_t start;      /* the sample loaded by the last sample number */
    uint16_t words;
    uint32_t loop;
    uint16_t loop_words;
    uint16_t note;       /* the period playing */
    int16_t step;        /* 7xy/8xy: period change per tick, 0 = none */
    uint16_t step_note, step_end;
    uint16_t slide_base; /* 9xy: 0 = none */
    uint16_t slide_period;
    uint8_t slide_param, slide_count, slide_down;
};

static const uint16_t silence[2] __attribute__((aligned(4))) = {0, 0};

static const volatile uint8_t *mod;
static uint32_t mod_size;
static uint16_t sample_count;            /* 15 or 31 */
static uint32_t orders_at, patterns_at;  /* offsets into the module */
static uint8_t song_length;
static uint16_t delay;
static struct sample samples[32];        /* 1-based */
static struct voice voices[4];
static uint8_t ready, timer_pending;
static uint8_t counter, position, row, pattern_break;
static struct song_marks marks;
static kp_globals globals;

static const char name_13[] = "SoundFX 1.3";
static const char name_20[] = "SoundFX 2.0";
static const char *format_name;

static uint16_t rd16(uint32_t o) { return (uint16_t)(mod[o] << 8 | mod[o + 1]); }
static uint32_t rd32(uint32_t o) { return (uint32_t)rd16(o) << 16 | rd16(o + 2); }

/* Reads the layout; 0 when the module can be played. */
static uint32_t layout(const volatile uint8_t *m, uint32_t size) {
    mod = m;
    mod_size = size;
    if (size < 64 + 4) return 1;
    if (rd32(60) == 0x534F4E47UL) sample_count = 15;   /* SONG */
    else if (size >= 128 && rd32(124) == 0x534F3331UL) sample_count = 31;   /* SO31 */
    else return 1;
    uint32_t head = (uint32_t)sample_count << 2;
    uint32_t infos = head + 20;
    orders_at = infos + kp_mulu16(sample_count, 30);
    patterns_at = orders_at + 130 + (sample_count == 31 ? 4 : 0);
    if (size < patterns_at) return 1;
    delay = rd16(head + 4);
    song_length = mod[orders_at];
    if (delay < 178 || song_length == 0 || song_length > 128) return 1;
    uint8_t highest = 0;
    for (uint16_t i = 0; i < song_length; i++)
        if (mod[orders_at + 2 + i] > highest) highest = mod[orders_at + 2 + i];
    uint32_t data = patterns_at + ((uint32_t)(highest + 1) << 10);
    if (data > size) return 1;

    /* The samples, their data one after the other. Lengths are cut to the
     * file and loops to their sample. */
    for (uint16_t i = 1; i <= sample_count; i++) {
        struct sample *s = &samples[i];
        uint32_t h = infos + kp_mulu16((uint16_t)(i - 1), 30);
        uint32_t bytes = rd32((uint32_t)(i - 1) << 2);
        uint32_t avail = data < size ? size - data : 0;
        if (bytes > 131070) bytes = 131070;
        uint32_t len = (uint32_t)rd16(h + 22) << 1;
        uint32_t loop_start = rd16(h + 26);
        uint32_t loop_len = (uint32_t)rd16(h + 28) << 1;
        uint8_t vol = mod[h + 25];
        s->volume = vol > 64 ? 64 : vol;
        if (len == 0) len = bytes;   /* a zero length in the header: the data's size */
        if (loop_len > 2 && loop_start + loop_len > len) len = loop_start + loop_len;
        if (len > bytes) len = bytes;
        if (len > avail) len = avail;
        len &= ~(uint32_t)1;
        if (len < 2) {
            s->start = 0;
            s->words = 0;
        } else {
            s->start = (uint32_t)mod + data;
            s->words = (uint16_t)(len >> 1);
        }
        if (s->start && loop_len > 2 && loop_start < len) {
            if (loop_start + loop_len > len) loop_len = (len - loop_start) & ~(uint32_t)1;
            s->loop = s->start + loop_start;
            s->loop_words = (uint16_t)(loop_len >> 1);
        } else {
            s->loop = (uint32_t)silence;
            s->loop_words = 1;
        }
        data += bytes;
    }
    return 0;
}

/* ---- Effects ---------------------------------------------------------------- */

static void set_period(uint16_t c, uint16_t p) { paula_period(c, p); }

/* 1xy on ticks 1..5: x, y, the note, y, x (the counter runs 1..5). */
static void arpeggio(uint16_t c, struct voice *v) {
    uint8_t p = (uint8_t)v->cell, off;
    if (counter == 1 || counter == 5) off = p >> 4;
    else if (counter == 2 || counter == 4) off = p & 15;
    else {
        set_period(c, v->note);
        return;
    }
    int16_t i = note_index(v->note);
    if (i < 0) return;   /* a period outside the table: no arpeggio */
    set_period(c, note_at((int16_t)(i + off)));
}

/* 2xy: the cell's period bent by x (down in pitch) or y (up), written back
 * into the cell so that it adds up. */
static void pitch_bend(uint16_t c, struct voice *v) {
    uint8_t p = (uint8_t)v->cell;
    uint16_t period = (uint16_t)((v->cell >> 16) & 0xEFFF);
    if (p >> 4) period = (uint16_t)(period + (p >> 4));
    else if (p & 15) period = (uint16_t)(period - (p & 15));
    else return;
    set_period(c, period);
    v->cell = (v->cell & 0x1000FFFFUL) | ((uint32_t)period << 16);
}

/* 7xy/8xy: the step towards x semitones away at y per tick; `up` moves to
 * larger periods (7xy). */
static void start_step(struct voice *v, int up) {
    uint8_t p = (uint8_t)v->cell;
    int16_t speed = p & 15, span = p >> 4;
    if (up) span = (int16_t)-span;   /* larger periods lie at lower indexes */
    else speed = (int16_t)-speed;
    v->step_note = v->note;
    v->step = speed;
    int16_t i = note_index(v->note);
    v->step_end = i < 0 ? v->note : note_at((int16_t)(i + span));
}

static void run_step(uint16_t c, struct voice *v) {
    v->step_note = (uint16_t)(v->step_note + v->step);
    if (v->step < 0 ? v->step_note <= v->step_end : v->step_note >= v->step_end) {
        v->step = 0;
        v->step_note = v->step_end;
    }
    v->note = v->step_note;
    set_period(c, v->note);
}

/* 9xy: every y ticks the period moves by 8, up until it reaches the start
 * period + x * 128, then back down. */
static void run_slide(uint16_t c, struct voice *v) {
    uint8_t every = v->slide_param & 15;
    if (!every || ++v->slide_count != every) return;
    v->slide_count = 0;
    uint16_t turn = (uint16_t)((uint16_t)v->slide_param << 7);
    if (!v->slide_down) {
        v->slide_period = (uint16_t)(v->slide_period + 8);
        if ((uint16_t)(turn + v->slide_base) == v->slide_period) v->slide_down = 1;
    } else {
        v->slide_period = (uint16_t)(v->slide_period - 8);
        if ((uint16_t)(turn - v->slide_base) == v->slide_period) v->slide_down = 0;
    }
    v->note = v->slide_period;
    set_period(c, v->note);
}

static void effects(uint16_t c) {
    struct voice *v = &voices[c];
    if (v->step) {
        run_step(c, v);
        return;
    }
    if (v->slide_base) run_slide(c, v);
    switch ((v->cell >> 8) & 15) {
    case 1: arpeggio(c, v); break;
    case 2: pitch_bend(c, v); break;
    case 3: paula_filter(0); break;
    case 4: paula_filter(1); break;
    case 7: start_step(v, 1); break;
    case 8: start_step(v, 0); break;
    case 9:
        v->slide_base = v->slide_period = v->note;
        v->slide_param = (uint8_t)v->cell;
        v->slide_down = 0;
        v->slide_count = 0;
        break;
    default: break;
    }
}

/* ---- Rows ------------------------------------------------------------------- */

/* One channel's cell; returns its DMA bit when a note starts. */
static uint16_t play_cell(uint16_t c, uint32_t at) {
    struct voice *v = &voices[c];
    uint32_t cell = rd32(at);
    uint16_t note = (uint16_t)(cell >> 16);
    v->cell = cell;
    if (note == 0xFFFD) {   /* PIC: the effect is cancelled, nothing else changes */
        v->cell = cell & 0xFFFF0000UL;
        return 0;
    }
    uint16_t n = (uint16_t)((cell >> 12) & 15);
    if (note & 0x1000) n = (uint16_t)(n + 16);
    if (n && n <= sample_count) {
        const struct sample *s = &samples[n];
        v->start = s->start;
        v->words = s->words;
        v->loop = s->loop;
        v->loop_words = s->loop_words;
        int16_t vol = s->volume;
        uint8_t fx = (uint8_t)((cell >> 8) & 15), p = (uint8_t)cell;
        if (fx == 5) vol = (int16_t)(vol + p);
        else if (fx == 6) vol = (int16_t)(vol - p);
        paula_volume(c, (uint16_t)(vol < 0 ? 0 : vol));
    }
    if (note == 0) return 0;
    v->step = 0;
    v->slide_base = 0;
    v->note = note & 0xEFFF;
    if (note == 0xFFFE) {   /* STP */
        paula_dma_off((uint16_t)(1u << c));
        return 0;
    }
    if (note == 0xFFFC || note == 0xFFFB) {   /* BRK, and a command the replay only skips */
        if (note == 0xFFFC) pattern_break = 1;
        v->cell &= 0xEFFFFFFFUL;
        return 0;
    }
    if (!v->start) return 0;
    paula_dma_off((uint16_t)(1u << c));
    paula_block(c, v->start, v->words);
    set_period(c, v->note);
    return (uint16_t)(1u << c);
}

static void play_row(void) {
    uint8_t pattern = mod[orders_at + 2 + position];
    uint32_t at = patterns_at + ((uint32_t)pattern << 10) + ((uint32_t)row << 4);
    uint16_t started = 0;
    for (uint16_t c = 0; c < 4; c++) {
        /* Patterns named past the song length may be missing: empty cells. */
        if (at + 4 * c + 4 <= mod_size) started |= play_cell(c, at + 4 * c);
        else voices[c].cell = 0;
    }
    paula_dma_on(started);
    for (uint16_t c = 0; c < 4; c++)
        if (started & (1u << c)) paula_block(c, voices[c].loop, voices[c].loop_words);
    if (pattern_break) {
        pattern_break = 0;
        row = 63;
    }
    if (++row >= 64) {
        row = 0;
        if (++position >= song_length) position = 0;
        song_marks_visit(&marks, globals, position);
    }
}

/* ---- Player interface -------------------------------------------------------- */

KELVA_ROUTINE(check2) {
    (void)d0;
    return layout((const volatile uint8_t *)kp_g32(g, DTG_ChkData), kp_g32(g, DTG_ChkSize));
}

KELVA_ROUTINE(init_player) {
    (void)d0;
    globals = g;
    ready = 0;
    if (layout((const volatile uint8_t *)kp_g32(g, DTG_ChkData), kp_g32(g, DTG_ChkSize))) return 1;
    format_name = sample_count == 31 ? name_20 : name_13;
    uint8_t *p = (uint8_t *)voices;
    for (uint32_t i = 0; i < sizeof voices; i++) p[i] = 0;
    counter = 5;   /* the first tick reads row 0 */
    position = row = pattern_break = 0;
    song_marks_clear(&marks);
    song_marks_visit(&marks, g, 0);
    *(volatile uint16_t *)(g + DTG_Timer) = delay;
    timer_pending = 1;
    ready = 1;
    return 0;
}

KELVA_ROUTINE(end_sound) {
    (void)g;
    (void)d0;
    paula_stop();
    return 0;
}

KELVA_ROUTINE(tick) {
    (void)d0;
    if (!ready) return 0;
    if (timer_pending) {
        timer_pending = 0;
        set_tick_timer(g, delay);
    }
    if (++counter >= 6) {
        counter = 0;
        play_row();
    } else {
        for (uint16_t c = 0; c < 4; c++) effects(c);
    }
    return 0;
}

static const char player_name[] = "SoundFX";
static const char creator[] = "kelva: SoundFX 1.3 and 2.0 replay";
static const char *no_title = 0;

const uint32_t tags[] = {
    DTP_PlayerName, (uint32_t)player_name,
    DTP_Creator, (uint32_t)creator,
    DTP_PlayerVersion, 0x00010000,
    DTP_Check2, (uint32_t)check2_entry,
    DTP_InitPlayer, (uint32_t)init_player_entry,
    DTP_EndSound, (uint32_t)end_sound_entry,
    DTP_Interrupt, (uint32_t)tick_entry,
    DTP_ModuleName, (uint32_t)&no_title,
    DTP_FormatName, (uint32_t)&format_name,
    EP_Flags, EPF_Songend,
    0,
};

KELVA_PLAYER_HEADER(tags);
