/* ImagesMusicSystem: kelva's player for Images Music System modules.
 *
 * The header is the 31-instrument Soundtracker one; the patterns are
 * packed to three bytes a cell (big-endian):
 *
 *   0     title (20 bytes)
 *   20    31 sample headers of 30 bytes: name (20), a word the replay
 *         ignores, length in words, a byte, volume, loop start and loop
 *         length in words
 *   950   song length (1..128), a byte, 128 orders
 *   1080  long: where the sample data starts, 1084 + 768 x the number of
 *         patterns stored
 *   1084  patterns of 64 rows x 4 channels x 3 bytes, then the sample data
 *         one sample after the other
 *
 * A cell: byte 0 holds the note in its low six bits (1..62; 0 and 63 are
 * no note) and bit 4 of the sample number in bit 6; byte 1 the low four
 * bits of the sample number and the effect; byte 2 the parameter. Note 16
 * is the period 856 (the Soundtracker's C-1); every note is a semitone,
 * so the range reaches below C-1 and above B-3.
 *
 * The effects are the Soundtracker/ProTracker ones, played on the
 * ProTracker timing (a row every `speed` ticks, effects on the ticks
 * between):
 *
 *   0xy arpeggio, 1xx/2xx slides, 3xx tone portamento, 4xy vibrato,
 *   5xy/6xy tone portamento/vibrato with volume slide, 7xy tremolo,
 *   9xx sample offset, Axy volume slide, Bxx position jump, Cxx volume,
 *   Dxx pattern break to row xx (counted in binary, not in decimal digits),
 *   E0x filter, E1x/E2x fine slides, EAx/EBx fine volume slides, ECx cut,
 *   Fxx speed (below 32) or tempo in beats per minute.
 */
#include "kelva_player.h"
#include "kp_math.h"
#include "paula.h"

/* ---- Tables ------------------------------------------------------------ */

/* The period of each note 1..62 (index 0 unused): twelve notes an octave,
 * note 16 = 856. The octaves the Soundtracker knew are its periods; the
 * others are the same scale halved or doubled. */
#define NOTE_MAX 62
static const uint16_t periods[NOTE_MAX + 1] = {
    0,    2036, 1922, 1814,
    1712, 1616, 1525, 1440, 1357, 1281, 1209, 1141, 1077, 1017, 961,  907,
    856,  808,  762,  720,  678,  640,  604,  570,  538,  508,  480,  453,
    428,  404,  381,  360,  339,  320,  302,  285,  269,  254,  240,  226,
    214,  202,  190,  180,  170,  160,  151,  143,  135,  127,  120,  113,
    107,  101,  95,   90,   85,   80,   76,   71,   67,   64,   60,
};

/* Half a sine period, the vibrato and tremolo wave. */
static const uint8_t sine[32] = {
    0, 24, 49, 74, 97, 120, 141, 161, 180, 197, 212, 224, 235, 244, 250, 253,
    255, 253, 250, 244, 235, 224, 212, 197, 180, 161, 141, 120, 97, 74, 49, 24,
};

/* ---- State --------------------------------------------------------------- */

struct sample {
    uint32_t start;      /* 0: no data */
    uint16_t words;
    uint32_t loop;
    uint16_t loop_words;
    uint8_t volume;
};

struct voice {
    const struct sample *smp;
    uint8_t note;        /* 1..62, 0 before the first */
    uint8_t cmd, param;
    uint16_t period;
    uint16_t target;     /* tone portamento target, 0 = none */
    uint8_t porta_speed;
    uint8_t volume;
    uint8_t vib_cmd, vib_pos;
    uint8_t trem_cmd, trem_pos;
};

static const uint16_t silence[2] __attribute__((aligned(4))) = {0, 0};

static const volatile uint8_t *mod;
static uint32_t mod_size;
static uint8_t song_length;
static struct sample samples[32];   /* 1-based; 0 = none */
static struct voice voices[4];
static uint8_t ready, timer_pending;
static uint8_t speed, counter, position, row;
static uint8_t jump, jump_position, break_row;
static struct song_marks marks;
static kp_globals globals;
static char title[21];
static const char *title_ref;

static uint16_t rd16(uint32_t o) { return (uint16_t)(mod[o] << 8 | mod[o + 1]); }
static uint32_t rd32(uint32_t o) { return (uint32_t)rd16(o) << 16 | rd16(o + 2); }

/* ---- Layout ---------------------------------------------------------------- */

/* Reads the layout; 0 when the module can be played: the sample data's
 * offset must follow a whole number of patterns inside the file, and the
 * song must name only stored patterns. */
static uint32_t layout(const volatile uint8_t *m, uint32_t size) {
    mod = m;
    mod_size = size;
    if (size < 1084) return 1;
    uint32_t data = rd32(1080);
    if (data < 1084 + 768 || data > size || kp_divu32(data - 1084, 768) > 128) return 1;
    uint16_t stored = (uint16_t)kp_divu32(data - 1084, 768);
    if (1084 + kp_mulu16(stored, 768) != data) return 1;
    song_length = mod[950];
    if (song_length == 0 || song_length > 128) return 1;
    for (uint16_t i = 0; i < song_length; i++)
        if (mod[952 + i] >= stored) return 1;
    for (uint16_t i = 1; i <= 31; i++) {
        uint32_t h = 20 + kp_mulu16((uint16_t)(i - 1), 30);
        struct sample *s = &samples[i];
        uint32_t bytes = (uint32_t)rd16(h + 22) << 1;
        uint32_t loop_start = (uint32_t)rd16(h + 26) << 1, loop_len = (uint32_t)rd16(h + 28) << 1;
        uint8_t vol = mod[h + 25];
        if (vol > 64) return 1;
        s->volume = vol;
        uint32_t avail = data < size ? size - data : 0;
        uint32_t len = bytes > avail ? avail & ~(uint32_t)1 : bytes;
        s->start = len ? (uint32_t)mod + data : 0;
        s->words = (uint16_t)(len >> 1);
        if (s->start && loop_len > 2 && loop_start < len) {
            if (loop_len > len - loop_start) loop_len = len - loop_start;
            s->loop = s->start + loop_start;
            s->loop_words = (uint16_t)(loop_len >> 1);
            /* Played up to the loop's end, then the loop. */
            s->words = (uint16_t)((loop_start + loop_len) >> 1);
        } else {
            s->loop = (uint32_t)silence;
            s->loop_words = 1;
        }
        data += bytes;
    }
    return 0;
}

/* ---- Effects ---------------------------------------------------------------- */

static void out_period(uint16_t c, uint16_t p) { paula_period(c, p); }

static void set_volume(uint16_t c, struct voice *v, int16_t vol) {
    v->volume = (uint8_t)(vol < 0 ? 0 : vol > 64 ? 64 : vol);
    paula_volume(c, v->volume);
}

static void slide_period(uint16_t c, struct voice *v, int16_t d) {
    int16_t p = (int16_t)(v->period + d);
    if (p < 113) p = 113;
    if (p > periods[1]) p = (int16_t)periods[1];
    v->period = (uint16_t)p;
    out_period(c, v->period);
}

static void volume_slide(uint16_t c, struct voice *v) {
    if (v->param >> 4) set_volume(c, v, (int16_t)(v->volume + (v->param >> 4)));
    else set_volume(c, v, (int16_t)(v->volume - (v->param & 15)));
}

static void tone_porta(uint16_t c, struct voice *v) {
    if (!v->target) return;
    if (v->period > v->target) {
        v->period = (uint16_t)(v->period - v->porta_speed);
        if ((int16_t)v->period <= (int16_t)v->target) v->period = v->target;
    } else {
        v->period = (uint16_t)(v->period + v->porta_speed);
        if (v->period >= v->target) v->period = v->target;
    }
    if (v->period == v->target) v->target = 0;
    out_period(c, v->period);
}

static void vibrato(uint16_t c, struct voice *v) {
    uint16_t d = (uint16_t)(kp_mulu16(sine[(v->vib_pos >> 2) & 31], v->vib_cmd & 15) >> 7);
    out_period(c, (int8_t)v->vib_pos < 0 ? (uint16_t)(v->period - d) : (uint16_t)(v->period + d));
    v->vib_pos = (uint8_t)(v->vib_pos + ((v->vib_cmd >> 2) & 0x3C));
}

static void tremolo(uint16_t c, struct voice *v) {
    int16_t d = (int16_t)(kp_mulu16(sine[(v->trem_pos >> 2) & 31], v->trem_cmd & 15) >> 6);
    int16_t vol = (int8_t)v->trem_pos < 0 ? (int16_t)(v->volume - d) : (int16_t)(v->volume + d);
    paula_volume(c, (uint16_t)(vol < 0 ? 0 : vol > 64 ? 64 : vol));
    v->trem_pos = (uint8_t)(v->trem_pos + ((v->trem_cmd >> 2) & 0x3C));
}

/* A nibble-wise update of an effect's remembered parameter (0 keeps). */
static uint8_t merge(uint8_t old, uint8_t p) {
    if (p & 0x0F) old = (uint8_t)((old & 0xF0) | (p & 0x0F));
    if (p & 0xF0) old = (uint8_t)((old & 0x0F) | (p & 0xF0));
    return old;
}

/* The effects of the ticks between rows. */
static void effects(uint16_t c) {
    struct voice *v = &voices[c];
    switch (v->cmd) {
    case 0x0: {
        if (!v->param || !v->note) break;
        uint8_t phase = counter;
        while (phase >= 3) phase = (uint8_t)(phase - 3);
        uint8_t n = v->note;
        if (phase == 1) n = (uint8_t)(n + (v->param >> 4));
        else if (phase == 2) n = (uint8_t)(n + (v->param & 15));
        out_period(c, phase ? periods[n > NOTE_MAX ? NOTE_MAX : n] : v->period);
        break;
    }
    case 0x1: slide_period(c, v, (int16_t)-v->param); break;
    case 0x2: slide_period(c, v, v->param); break;
    case 0x3: tone_porta(c, v); break;
    case 0x4: vibrato(c, v); break;
    case 0x5:
        tone_porta(c, v);
        volume_slide(c, v);
        break;
    case 0x6:
        vibrato(c, v);
        volume_slide(c, v);
        break;
    case 0x7: tremolo(c, v); break;
    case 0xA: volume_slide(c, v); break;
    case 0xE:
        if ((v->param >> 4) == 0xC && (v->param & 15) == counter) set_volume(c, v, 0);
        break;
    default: break;
    }
}

/* ---- Rows -------------------------------------------------------------------- */

/* One channel's cell at the start of a row; returns its DMA bit when a
 * note starts. */
static uint16_t play_cell(uint16_t c, uint32_t at) {
    struct voice *v = &voices[c];
    uint8_t b0 = 0, b1 = 0, b2 = 0;
    if (at + 3 <= mod_size) {
        b0 = mod[at];
        b1 = mod[at + 1];
        b2 = mod[at + 2];
    }
    uint8_t note = b0 & 0x3F, n = (uint8_t)(((b0 & 0x40) >> 2) | (b1 >> 4));
    if (note == 0x3F) note = 0;
    v->cmd = b1 & 15;
    v->param = b2;
    if (n) {
        v->smp = &samples[n];
        set_volume(c, v, v->smp->volume);
    }
    uint16_t started = 0;
    if (note) {
        if (v->cmd == 0x3 || v->cmd == 0x5) {
            v->target = periods[note];
            v->note = note;
            if (v->target == v->period) v->target = 0;
        } else {
            v->note = note;
            v->period = periods[note];
            v->target = 0;
            v->vib_pos = v->trem_pos = 0;
            const struct sample *s = v->smp;
            if (s && s->start) {
                uint32_t start = s->start;
                uint16_t words = s->words;
                if (v->cmd == 0x9) {   /* 9xx: start xx * 256 bytes in */
                    uint16_t skip = (uint16_t)((uint16_t)v->param << 7);
                    if (skip < words) {
                        start += (uint32_t)skip << 1;
                        words = (uint16_t)(words - skip);
                    } else {
                        start = (uint32_t)silence;
                        words = 1;
                    }
                }
                paula_dma_off((uint16_t)(1u << c));
                paula_block(c, start, words);
                started = (uint16_t)(1u << c);
            } else if (s) {
                paula_dma_off((uint16_t)(1u << c));   /* an empty sample: silence */
            }
        }
    }
    out_period(c, v->period);

    /* Effects of the row's first tick. */
    uint8_t p = v->param;
    switch (v->cmd) {
    case 0x3:
        if (p) v->porta_speed = p;
        break;
    case 0x4: v->vib_cmd = merge(v->vib_cmd, p); break;
    case 0x7: v->trem_cmd = merge(v->trem_cmd, p); break;
    case 0xB:
        jump = 1;
        jump_position = p;
        break_row = 0;
        break;
    case 0xC: set_volume(c, v, p); break;
    case 0xD:
        jump = 1;
        jump_position = (uint8_t)(position + 1);
        break_row = p > 63 ? 0 : p;
        break;
    case 0xE:
        switch (p >> 4) {
        case 0x0: paula_filter(!(p & 1)); break;
        case 0x1: slide_period(c, v, (int16_t)-(p & 15)); break;
        case 0x2: slide_period(c, v, p & 15); break;
        case 0xA: set_volume(c, v, (int16_t)(v->volume + (p & 15))); break;
        case 0xB: set_volume(c, v, (int16_t)(v->volume - (p & 15))); break;
        case 0xC:
            if ((p & 15) == 0) set_volume(c, v, 0);
            break;
        default: break;
        }
        break;
    case 0xF:
        if (p && p < 32) {
            speed = p;
        } else if (p >= 32) {
            set_tick_timer(globals, kp_divu16(1773447UL, p));
        }
        break;
    default: break;
    }
    return started;
}

static void play_row(void) {
    uint8_t pattern = mod[952 + position];
    uint32_t at = 1084 + kp_mulu16(pattern, 768) + kp_mulu16(row, 12);
    uint16_t started = 0;
    for (uint16_t c = 0; c < 4; c++) started |= play_cell(c, at + 3 * c);
    paula_dma_on(started);
    for (uint16_t c = 0; c < 4; c++)
        if (started & (1u << c)) paula_block(c, voices[c].smp->loop, voices[c].smp->loop_words);
}

static void next_position(uint8_t to, uint8_t at_row) {
    position = to >= song_length ? 0 : to;
    row = at_row;
    song_marks_visit(&marks, globals, position);
}

/* ---- Player interface ---------------------------------------------------------- */

KELVA_ROUTINE(check2) {
    (void)d0;
    return layout((const volatile uint8_t *)kp_g32(g, DTG_ChkData), kp_g32(g, DTG_ChkSize));
}

KELVA_ROUTINE(init_player) {
    (void)d0;
    globals = g;
    ready = 0;
    if (layout((const volatile uint8_t *)kp_g32(g, DTG_ChkData), kp_g32(g, DTG_ChkSize))) return 1;
    for (uint16_t i = 0; i < 20; i++) title[i] = (char)mod[i];
    title[20] = 0;
    title_ref = title;
    uint8_t *p = (uint8_t *)voices;
    for (uint32_t i = 0; i < sizeof voices; i++) p[i] = 0;
    speed = 6;
    counter = 5;   /* the first tick reads row 0 */
    position = row = jump = 0;
    song_marks_clear(&marks);
    song_marks_visit(&marks, g, 0);
    *(volatile uint16_t *)(g + DTG_Timer) = 14187;
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
        kp_support(g, DTG_SetTimer, 0, 0, 0);
    }
    if (++counter < speed) {
        for (uint16_t c = 0; c < 4; c++) effects(c);
        return 0;
    }
    counter = 0;
    play_row();
    if (jump) {
        jump = 0;
        next_position(jump_position, break_row);
    } else if (++row >= 64) {
        next_position((uint8_t)(position + 1), 0);
    }
    return 0;
}

static const char player_name[] = "ImagesMusicSystem";
static const char creator[] = "kelva: Images Music System replay";
static const char format[] = "Images Music System";
static const char *format_name = format;

const uint32_t tags[] = {
    DTP_PlayerName, (uint32_t)player_name,
    DTP_Creator, (uint32_t)creator,
    DTP_PlayerVersion, 0x00010000,
    DTP_Check2, (uint32_t)check2_entry,
    DTP_InitPlayer, (uint32_t)init_player_entry,
    DTP_EndSound, (uint32_t)end_sound_entry,
    DTP_Interrupt, (uint32_t)tick_entry,
    DTP_ModuleName, (uint32_t)&title_ref,
    DTP_FormatName, (uint32_t)&format_name,
    EP_Flags, EPF_Songend,
    0,
};

KELVA_PLAYER_HEADER(tags);
