/* DIGIBooster: kelva's player for DIGI Booster 1.x modules (.digi).
 *
 * DIGI Booster was a ProTracker-like tracker for up to eight channels whose
 * replay mixed them in software, two on each Paula channel. The file
 * (big-endian):
 *
 *   0     "DIGI Booster module" and a 0 byte
 *   20    the version as text ("V1.4"), 24 the version as a byte ($14)
 *   25    channels (1..8), 26 packed patterns (non-zero), 19 spare bytes
 *   46    the last pattern's number, 47 the last position's number
 *   48    128 positions (pattern numbers)
 *   176   31 sample lengths, 31 loop starts, 31 loop lengths (longs, bytes)
 *   548   31 volumes (0..64), 579 31 finetunes (signed, -8..7)
 *   610   the song's name (32 bytes), then 31 sample names of 30 bytes
 *   1572  the patterns, then the samples' data one after the other
 *
 * A pattern has 64 rows of ProTracker cells (period, sample, effect,
 * parameter). Packed, it is a word (the bytes that follow), a mask byte per
 * row (bit 7 = channel 0) and the cells of the channels whose bits are
 * set, row by row; unpacked, the 64 cells of channel 0, then those of
 * channel 1 and so on.
 *
 * Sound: tracker channel c is a voice of Paula channel c / 2, mixed in
 * software (players/lib/swmix.c) at every tick, each voice at half a Paula
 * channel's level, as the tracker's replay mixed its pairs. The tick is
 * the CIA's: 125 beats a minute (50 ticks a second) until Fxx with
 * xx >= 32 sets xx beats a minute. A tick is mixed as one block that lasts
 * until the next tick; its rate (at most 28,604 Hz) is chosen for each
 * tempo so that the block is no longer than 1024 samples and ends as close
 * after the next tick as can be, for the voices move on by what is mixed.
 *
 * The replay follows the tracker's. A row is read every `speed` ticks; its
 * effects that act once (9, B, C, D, F and the E commands but E9x and ECx)
 * act then, the others act on that tick and the following ones but the
 * row's last. The effects:
 *
 *   0xy arpeggio            1xx/2xx period down/up by xx a tick (0: the last xx)
 *   3xx tone portamento     4xy vibrato         5xy/6xy volume slide with 3/4
 *   8xx (robot: not played, the note sounds plain)
 *   9xx sample offset xx x 256 (+ 65536 x the E8x value)
 *   Axy volume slide: up x, or down y when x is 0 (0: the last)
 *   Bxx position jump       Cxx volume          Dxx break to row xx (decimal)
 *   E0x filter (0 on, 1 off)     E1x/E2x fine slides
 *   E3x the sample backwards (x = 0: once; else then its loop)
 *   E40 stop the note            E5x channel off (0) / on (1)
 *   E6x pattern loop             E8x high sample offset    E9x retrigger
 *   EAx/EBx fine volume slides   ECx note cut              EEx pattern delay
 *   Fxx speed (1..31), tempo (32..255); F00 starts the song again
 *
 * A row played a second time (the positions wrapped, a jump went back, F00)
 * is the song's end (DTG_SongEnd, once); pattern loops clear the rows they
 * play again within their position, so a loop is not taken for the end. */
#include "kelva_player.h"
#include "kp_math.h"
#include "paula.h"
#include "pt_tables.h"
#include "swmix.h"

#define HEADER 1572

enum { FX_ARP, FX_UP, FX_DOWN, FX_PORTA, FX_VIB, FX_PORTA_VOL, FX_VIB_VOL, FX_7, FX_ROBOT, FX_OFFSET,
       FX_VOL_SLIDE, FX_JUMP, FX_VOLUME, FX_BREAK, FX_EXTRA, FX_SPEED };

struct sample {
    const int8_t *data;   /* 0: no data */
    uint32_t length, loop_start, loop_len;   /* bytes; loop_len 0 = none */
    int8_t *reversed;     /* the data backwards, then the loop (E3x), made when first asked */
    uint8_t volume;
    int8_t finetune;
};

struct channel {
    swmix_voice *voice;
    /* The row's cell as read. */
    uint16_t cell_period;
    uint8_t cell_sample, cell_fx, cell_param;
    /* What plays: the sample (0: none), the effect in force. */
    uint8_t sample, fx, param, last_sample;
    uint16_t period, note_period;   /* the period this tick, the note's */
    uint8_t volume;
    uint32_t offset;               /* where the next start begins in the sample */
    uint8_t offset_high;           /* E8x */
    uint8_t retrigger, started, off, backward;
    uint8_t mem_up, mem_down, mem_slide, mem_porta, mem_vib, retrace;
    uint16_t porta_from, porta_to; /* tone portamento: the period it slides, its target (0: none) */
    uint8_t porta_down;            /* 1: the target is a lower period */
    uint16_t vib_base;
    int8_t vib_pos;
    int8_t loop_row, loop_count;
    uint8_t loop_position;
};

static const volatile uint8_t *mod;
static uint32_t mod_size;
static uint8_t channel_count, packed, pattern_count, song_length;
static uint32_t pattern_at[256];
static struct sample samples[32];   /* 1-based */
static struct channel channels[8];
static swmix_voice voices[8];
static swmix_channel mixers[4];
static swmix_channel *mixer_list[4];
static uint16_t mixer_count;
static uint16_t mix_period, mix_bytes;   /* the mixing period, the samples of a tick */

static uint8_t ready, mixing, timer_pending;
static uint8_t speed, count, position, bpm, pause_active;
static int8_t row;
static uint16_t pause;
static uint8_t visited[128 * 8];   /* one bit per position and row */
static uint8_t ended;
static kp_globals globals;

static char title[33];
static const char *title_ref = title;
static char format[] = "DIGI Booster 1.x";
static const char *format_name = format;

static uint16_t rd16(uint32_t o) { return (uint16_t)(mod[o] << 8 | mod[o + 1]); }
static uint32_t rd32(uint32_t o) { return (uint32_t)rd16(o) << 16 | rd16(o + 2); }

static uint8_t bits(uint8_t m) {
    uint8_t n = 0;
    for (; m; m = (uint8_t)(m & (m - 1))) n++;
    return n;
}

/* ---- Layout ------------------------------------------------------------- */

/* Checks the module; 0 when it can be played. */
static uint32_t layout(const volatile uint8_t *m, uint32_t size) {
    static const char magic[20] = "DIGI Booster module";
    mod = m;
    mod_size = size;
    if (size < HEADER) return 1;
    for (uint16_t i = 0; i < 20; i++)
        if (m[i] != (uint8_t)magic[i]) return 1;
    channel_count = m[25];
    packed = m[26] != 0;
    pattern_count = (uint8_t)(m[46] + 1);   /* 256 wraps to 0: refused below */
    song_length = (uint8_t)(m[47] + 1);
    if (channel_count == 0 || channel_count > 8 || m[47] > 127 || m[46] == 255) return 1;
    for (uint16_t i = 0; i < song_length; i++)
        if (m[48 + i] >= pattern_count) return 1;
    /* Every pattern must lie in the file; a packed one's length must be its
     * masks and the cells they announce. */
    uint32_t at = HEADER;
    for (uint16_t p = 0; p < pattern_count; p++) {
        uint32_t len;
        if (packed) {
            if (at + 66 > size) return 1;
            len = rd16(at);
            at += 2;
            uint32_t cells = 0;
            for (uint16_t r = 0; r < 64; r++) cells += bits(m[at + r]);
            if (len != 64 + (cells << 2)) return 1;
        } else {
            len = (uint32_t)channel_count << 8;
        }
        if (len > size - at) return 1;
        pattern_at[p] = at;
        at += len;
    }
    /* The samples follow; what the file lacks of the last ones is cut. */
    for (uint16_t i = 1; i <= 31; i++) {
        struct sample *s = &samples[i];
        uint32_t length = rd32(176 + 4 * (i - 1)), ls = rd32(300 + 4 * (i - 1)), ll = rd32(424 + 4 * (i - 1));
        uint32_t have = at < size ? size - at : 0;
        s->data = 0;
        s->length = s->loop_start = s->loop_len = 0;
        s->volume = m[548 + i - 1];
        s->finetune = (int8_t)m[579 + i - 1];
        if (m[24] >= 0x10 && m[24] <= 0x13) s->finetune = 0;   /* versions before 1.4 had none */
        s->reversed = 0;
        if (length > have) length = have;
        if (length) {
            s->data = (const int8_t *)(m + at);
            s->length = length;
            if (ll && ls < length) {
                s->loop_start = ls;
                s->loop_len = ll > length - ls ? length - ls : ll;
            }
        }
        at += length;
    }
    return 0;
}

/* The cell of channel c in row r of pattern p. */
static void read_cell(uint16_t p, uint16_t r, uint16_t c, struct channel *ch) {
    uint32_t at = pattern_at[p], x = 0;
    uint8_t present = 1;
    if (packed) {
        uint32_t cells = 0;
        for (uint16_t k = 0; k < r; k++) cells += bits(mod[at + k]);
        uint8_t mask = mod[at + r];
        present = (mask >> (7 - c)) & 1;
        cells += bits((uint8_t)(mask & (0xFF00u >> c)));
        at += 64 + (cells << 2);
    } else {
        at += (((uint32_t)c << 6) + r) << 2;
    }
    if (present && at + 4 <= mod_size) x = rd32(at);
    ch->cell_period = (uint16_t)((x >> 16) & 0x0FFF);
    ch->cell_sample = (uint8_t)(((x >> 24) & 0xF0) | ((x >> 12) & 0x0F));
    if (ch->cell_sample > 31) ch->cell_sample = 0;
    ch->cell_fx = (uint8_t)((x >> 8) & 15);
    ch->cell_param = (uint8_t)x;
}

/* ---- Notes ------------------------------------------------------------------ */

/* The period of a cell's note for a sample's finetune. */
static uint16_t note_period(uint16_t period, uint8_t sample) {
    const struct sample *s = &samples[sample];
    int8_t ft = s->finetune;
    if (!ft) return period;
    if (ft >= -8 && ft <= 7)
        for (uint16_t i = 0; i < PT_ROW; i++)
            if (pt_period_table[i] == period) return pt_period_table[kp_mulu16((uint16_t)(ft & 15), PT_ROW) + i];
    /* Other finetunes: the period less period x finetune / 140. */
    uint16_t d = kp_divu16(kp_mulu16(period, (uint16_t)(ft < 0 ? -ft : ft)), 140);
    return ft < 0 ? (uint16_t)(period + d) : (uint16_t)(period - d);
}

/* The data a backwards start plays: the sample reversed, then its loop. */
static const int8_t *reversed(struct sample *s) {
    if (!s->reversed) {
        register uint32_t d0 __asm__("d0") = s->length + s->loop_len;
        register uint32_t d1 __asm__("d1") = 0;
        __asm__ volatile("move.l %%a6,-(%%sp)\n\tmove.l 4.w,%%a6\n\tjsr -198(%%a6)\n\tmove.l (%%sp)+,%%a6"
                         : "+d"(d0), "+d"(d1)
                         :
                         : "a0", "a1", "memory", "cc");
        int8_t *r = (int8_t *)d0;
        if (!r) return 0;
        for (uint32_t i = 0; i < s->length; i++) r[i] = s->data[s->length - 1 - i];
        for (uint32_t i = 0; i < s->loop_len; i++) r[s->length + i] = s->data[s->loop_start + i];
        s->reversed = r;
    }
    return s->reversed;
}

static void start_voice(struct channel *c) {
    struct sample *s = &samples[c->last_sample];
    if (!c->last_sample || !s->data) {
        swmix_voice_stop(c->voice);
        return;
    }
    if (c->backward) {
        const int8_t *r = reversed(s);
        uint32_t loop = c->backward == 2 ? s->loop_len : 0;
        if (r) swmix_voice_play(c->voice, r, s->length + loop, s->length, loop, 0);
        else swmix_voice_stop(c->voice);
        return;
    }
    swmix_voice_play(c->voice, s->data, s->length, s->loop_start, s->loop_len, c->offset);
}

/* ---- Rows --------------------------------------------------------------------- */

/* A cell's note and sample, as the tracker took them. */
static void take_cell(struct channel *c) {
    uint8_t from_note = 0;
    if (!pause_active && !c->off && c->cell_period) {
        if (c->cell_fx == FX_PORTA) c->porta_to = 0;
        c->vib_base = 0;
        c->retrigger = 1;
        uint8_t s = c->cell_sample ? c->cell_sample : c->last_sample;
        c->note_period = s ? note_period(c->cell_period, s) : 0;
        c->period = c->note_period;
        from_note = 1;
    }
    uint8_t sample = c->sample, fx = 0, param = 0;
    if (c->cell_sample || c->cell_fx || c->cell_param) {
        fx = c->cell_fx;
        param = c->cell_param;
        if (c->cell_sample) {
            uint8_t playing = sample ? sample : c->last_sample;
            if (!from_note && playing) {
                /* A sample without a note restores the playing sample's volume. */
                c->volume = samples[playing].volume;
            } else {
                sample = c->cell_sample;
                if (fx == FX_PORTA && !c->voice->data) {
                    sample = fx = param = 0;
                } else {
                    if (fx != FX_PORTA) c->offset = 0;
                    c->volume = samples[sample].volume;
                    c->last_sample = sample;
                    c->backward = 0;
                }
                goto done;
            }
        }
    }
    if (c->cell_period) {
        sample = c->last_sample;
        if ((fx == FX_PORTA || fx == FX_PORTA_VOL) && !c->voice->data) sample = fx = param = 0;
        else c->offset = 0;
    }
done:
    c->sample = sample;
    c->fx = fx;
    c->param = param;
}

static void song_end(void) {
    if (!ended) {
        ended = 1;
        kp_support(globals, DTG_SongEnd, 0, 0, 0);
    }
}

/* The mixing period and block for a tick of `clocks` Paula clocks: the
 * block (even, at most SWMIX_MAX_BLOCK) that overruns the tick least. */
static void choose_mix(uint32_t clocks) {
    uint16_t first = (uint16_t)kp_divu32(clocks + SWMIX_MAX_BLOCK - 3, SWMIX_MAX_BLOCK - 2);
    if (first < SWMIX_PERIOD_28K) first = SWMIX_PERIOD_28K;
    uint32_t best = 0xFFFFFFFFu;
    for (uint16_t p = first; p < first + 48; p++) {
        uint16_t n = (uint16_t)kp_divu32(clocks + p - 1, p);
        n = (uint16_t)((n + 1) & ~1u);
        uint32_t over = kp_mulu16(n, p) - clocks;
        if (over < best) {
            best = over;
            mix_period = p;
            mix_bytes = n;
        }
    }
}

/* Tempo `b` beats a minute: a tick lasts 2.5 / b seconds, the CIA counting
 * its value plus one; 5 Paula clocks to an E-clock cycle. */
static void set_tempo(uint8_t b) {
    uint16_t timer = (uint16_t)(kp_divu32(3546895UL + b, (uint16_t)(2 * b)) - 1);
    *(volatile uint16_t *)(globals + DTG_Timer) = timer;
    uint16_t old = mix_period;
    choose_mix(kp_mulu16((uint16_t)(timer + 1), 5));
    if (mixing && mix_period != old) swmix_tick_start(mixer_list, mixer_count, mix_period);
}

/* Clears the marks of the rows a pattern loop plays again, from the row
 * after the loop's start to the current one. A loop that reaches back into
 * an earlier position (a jump or break between its start and its end)
 * clears nothing: playing those rows again may end the song. */
static void unvisit(uint8_t from_pos, int8_t from_row) {
    if (from_pos != position) return;
    for (int8_t r = from_row < 0 ? 0 : from_row; r <= row && r < 64; r++)
        visited[((uint16_t)position << 3) + (r >> 3)] &= (uint8_t)~(1u << (r & 7));
}

/* The effects that act once, on the row's tick. */
static void row_effect(struct channel *c) {
    uint8_t p = c->param, x = p & 15;
    switch (c->fx) {
    case FX_OFFSET: {
        const struct sample *s = &samples[c->last_sample];
        c->offset += ((uint32_t)c->offset_high << 16) + ((uint32_t)p << 8);
        if (c->offset > s->length) c->offset = s->length;
        break;
    }
    case FX_JUMP:
        row = -1;
        position = p > 127 ? 127 : p;
        break;
    case FX_VOLUME: c->volume = p; break;
    case FX_BREAK: {
        if (p > 0x63) p = 0x63;
        if (row != -1 && ++position >= song_length) position = 0;
        uint8_t to = (uint8_t)(kp_mulu16(p >> 4, 10) + (p & 15));
        row = (int8_t)((to > 63 ? 63 : to) - 1);
        break;
    }
    case FX_SPEED:
        if (p > 31) {
            bpm = p;
            set_tempo(p);
            kp_support(globals, DTG_SetTimer, 0, 0, 0);   /* the next tick comes at the new tempo */
        } else {
            count = p;
            speed = p;
        }
        break;
    case FX_EXTRA:
        switch (p >> 4) {
        case 0x0:
            if (x < 2) paula_filter(x == 0);
            break;
        case 0x1:
            c->period = c->period - x < 113 ? 113 : (uint16_t)(c->period - x);
            c->fx = c->param = 0;
            break;
        case 0x2:
            c->period = c->period + x > 856 ? 856 : (uint16_t)(c->period + x);
            c->fx = c->param = 0;
            break;
        case 0x5:
            if (x < 2) c->off = x == 0;
            break;
        case 0x6:
            if (x == 0) {
                if (!c->loop_count) {
                    c->loop_row = (int8_t)(row - 1);
                    c->loop_position = position;
                }
            } else if (c->loop_count) {
                if (--c->loop_count == 0) {
                    c->loop_row = 0;
                    c->loop_position = 0;
                } else {
                    unvisit(c->loop_position, (int8_t)(c->loop_row + 1));
                    row = c->loop_row;
                    position = c->loop_position;
                }
            } else {
                c->loop_count = (int8_t)x;
                unvisit(c->loop_position, (int8_t)(c->loop_row + 1));
                row = c->loop_row;
                position = c->loop_position;
            }
            break;
        case 0x8: c->offset_high = x; break;
        case 0xA:
            c->volume = (uint8_t)(c->volume + x > 64 ? 64 : c->volume + x);
            c->fx = c->param = 0;
            break;
        case 0xB:
            c->volume = (uint8_t)(c->volume < x ? 0 : c->volume - x);
            c->fx = c->param = 0;
            break;
        case 0xE:
            if (!pause_active && x) pause = (uint16_t)(kp_mulu16(speed, x) + 1);
            break;
        default: break;
        }
        break;
    default: break;
    }
}

static void volume_slide(struct channel *c, uint8_t p) {
    if (p) c->mem_slide = p;
    p = c->mem_slide;
    int16_t v = c->volume > 64 ? 64 : c->volume;
    v = p < 0x10 ? (int16_t)(v - p) : (int16_t)(v + (p >> 4));
    c->volume = (uint8_t)(v < 0 ? 0 : v > 64 ? 64 : v);
}

static void tone_porta(struct channel *c, uint8_t p) {
    if (!p) p = c->mem_porta;
    if (count == 1) c->mem_porta = p;
    if (!c->porta_from) return;
    if (!c->porta_to) {
        /* The note's first tick: slide from the period heard before. */
        c->porta_to = c->period;
        c->period = c->porta_from;
        if (c->porta_to == c->period) {
            c->porta_to = 0;
            return;
        }
        c->porta_down = c->porta_to < c->period;
        return;
    }
    if (c->porta_down) {
        c->porta_from = c->porta_from - p <= c->porta_to ? c->porta_to : (uint16_t)(c->porta_from - p);
    } else {
        c->porta_from = c->porta_from + p >= c->porta_to ? c->porta_to : (uint16_t)(c->porta_from + p);
    }
    if (c->porta_from == c->porta_to) c->porta_to = 0;
    c->period = c->porta_from;
}

static void vibrato(struct channel *c, uint8_t p) {
    if (count == speed && !c->vib_base) c->vib_base = c->period;
    uint16_t period = c->vib_base;
    if (count + 1 == speed) {
        c->vib_base = 0;   /* the row's last tick: the plain period */
    } else {
        if (!(p & 0x0F)) p |= c->mem_vib & 0x0F;
        if (!(p & 0xF0)) p |= c->mem_vib & 0xF0;
        c->mem_vib = p;
        uint16_t d = (uint16_t)(kp_mulu16(p & 15, pt_sine[(c->vib_pos >> 2) & 31]) >> 7);
        period = c->vib_pos < 0 ? (uint16_t)(period - d) : (uint16_t)(period + d);
        c->vib_pos = (int8_t)(c->vib_pos + ((p >> 2) & 0x3C));
    }
    c->period = period;
}

/* The effects that act on every tick of the row but its last. */
static void tick_effect(struct channel *c) {
    uint8_t p = c->param;
    switch (c->fx) {
    case FX_ARP:
        if (p) {
            uint8_t t = (uint8_t)(count - 1);
            while (t >= 3) t = (uint8_t)(t - 3);
            if (t == 0) {
                c->period = c->note_period;
            } else {
                uint8_t k = t == 2 ? p & 15 : p >> 4;
                uint16_t i = 0;
                while (i < PT_ROW && c->note_period < pt_period_table[i]) i++;
                i = (uint16_t)(i + k);
                c->period = i < PT_ROW + k ? pt_period_table[i > 35 ? 35 : i] : c->note_period;
            }
        }
        break;
    case FX_UP:
        if (p) c->mem_up = p;
        c->period = c->period < 113 + c->mem_up ? 113 : (uint16_t)(c->period - c->mem_up);
        break;
    case FX_DOWN:
        if (p) c->mem_down = p;
        c->period = c->period + c->mem_down > 856 ? 856 : (uint16_t)(c->period + c->mem_down);
        break;
    case FX_PORTA: tone_porta(c, p); break;
    case FX_VIB: vibrato(c, p); break;
    case FX_PORTA_VOL:
        volume_slide(c, p);
        tone_porta(c, 0);
        break;
    case FX_VIB_VOL:
        volume_slide(c, p);
        vibrato(c, 0);
        break;
    case FX_VOL_SLIDE: volume_slide(c, p); break;
    case FX_EXTRA:
        if ((p >> 4) == 0x9) {
            if (count == 1) c->retrace = 0;
            if (c->retrace + 1 == (p & 15)) {
                c->retrigger = 1;
                c->offset = 0;
                c->retrace = 0;
            } else {
                c->retrace++;
            }
        } else if ((p >> 4) == 0xC && count == (p & 15)) {
            c->volume = 0;
        }
        break;
    default: break;
    }
}

static void clip_period(struct channel *c) {
    if (!c->period) c->sample = c->fx = c->param = 0;
    else if (c->period < 113) c->period = 113;
}

/* One channel's tick: the row's cell on the row's tick, then the effects,
 * then what the voice plays. */
static void channel_tick(struct channel *c) {
    /* F00 on an earlier channel stops the row for the others. */
    if (speed && count >= speed) {
        take_cell(c);
        if (!c->sample || !samples[c->sample].data) c->period = c->sample = 0;
        row_effect(c);
        if (c->off || (c->fx == FX_EXTRA && c->param == 0x40)) {
            if (!c->off) c->retrigger = 1;
            c->period = c->sample = c->fx = c->param = 0;
        }
    }
    if (count + 1 == speed) {
        /* Most effects end before the row's last tick. */
        if (c->fx == FX_PORTA_VOL) {
            c->fx = FX_PORTA;
            c->param = 0;
        } else if (c->fx == FX_EXTRA ? (c->param >> 4) != 0x9 && (c->param >> 4) != 0xC
                                     : c->fx != FX_ROBOT && c->fx != FX_PORTA && c->fx != FX_VIB && c->fx != FX_ARP) {
            c->fx = c->param = 0;
        }
    }
    clip_period(c);
    tick_effect(c);
    clip_period(c);
    c->porta_from = c->period;

    /* The voice. */
    swmix_voice *v = c->voice;
    if (!c->period) {
        if (c->started) swmix_voice_stop(v);
        return;
    }
    if (!c->backward && c->fx == FX_EXTRA && (c->param >> 4) == 0x3) c->backward = (c->param & 15) ? 2 : 1;
    if (c->retrigger) {
        c->retrigger = 0;
        if (!(c->started && (c->fx == FX_PORTA || c->fx == FX_PORTA_VOL))) start_voice(c);
    }
    c->started = 1;
}

static void tick(void) {
    uint8_t row_tick = count >= speed;
    if (row_tick) {
        if (speed && row == 64) {
            row = 0;
            position++;
        }
        if (position >= song_length) {
            position = 0;
            row = 0;
        }
        if (row < 0) row = 0;   /* a jump or break (to row -1 + 1) held by a pattern delay */
        if (speed == 0) {
            /* F00: the song starts again. */
            position = 0;
            row = 0;
            speed = 6;
            for (uint16_t i = 0; i < channel_count; i++) channels[i].loop_row = channels[i].loop_count = 0;
        }
        if (!pause_active) {
            uint8_t *mark = &visited[((uint16_t)position << 3) + (row >> 3)];
            uint8_t bit = (uint8_t)(1u << (row & 7));
            if (*mark & bit) song_end();
            *mark |= bit;
        }
        uint8_t p = mod[48 + position];
        for (uint16_t i = 0; i < channel_count; i++) read_cell(p, (uint16_t)row, i, &channels[i]);
    }
    for (uint16_t i = 0; i < channel_count; i++) channel_tick(&channels[i]);
    /* The voices at this tick's periods and volumes (after every channel, as
     * a tempo change alters the mixing rate), mixed up to the next tick. */
    for (uint16_t i = 0; i < channel_count; i++) {
        struct channel *c = &channels[i];
        swmix_voice_period(c->voice, c->period);
        c->voice->volume = c->volume > 64 ? 64 : c->volume;
    }
    if (mixing) swmix_tick(mixer_list, mixer_count, mix_bytes);
    if (pause) {
        pause_active = 1;
        pause--;
    }
    if (count >= speed) {
        count = 0;
        if (!pause) {
            row++;
            pause_active = 0;
        }
    }
    count++;
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
    for (uint16_t i = 0; i < 32; i++) title[i] = (char)mod[610 + i];
    title[32] = 0;
    uint8_t v = mod[24];
    if ((v >> 4) == 1 && (v & 15) <= 9) format[15] = (char)('0' + (v & 15));

    for (uint16_t i = 0; i < channel_count; i++) {
        uint8_t *b = (uint8_t *)&channels[i];
        for (uint32_t k = 0; k < sizeof channels[i]; k++) b[k] = 0;
        b = (uint8_t *)&voices[i];
        for (uint32_t k = 0; k < sizeof voices[i]; k++) b[k] = 0;
        channels[i].voice = &voices[i];
    }
    /* Channels 2k and 2k + 1 share Paula channel k, each at half its level. */
    mixer_count = 0;
    for (uint16_t x = 0; 2 * x < channel_count; x++) {
        swmix_voice *pair[2] = {&voices[2 * x], &voices[2 * x + 1]};
        swmix_channel *mx = &mixers[mixer_count];
        swmix_channel_init(mx, x, pair, 2 * x + 1 < channel_count ? 2 : 1);
        mx->shift = 7;
        mixer_list[mixer_count++] = mx;
    }
    for (uint32_t i = 0; i < sizeof visited; i++) visited[i] = 0;
    ended = 0;
    speed = count = 6;   /* the first tick reads row 0 */
    position = 0;
    row = 0;
    pause = pause_active = 0;
    bpm = 125;
    set_tempo(bpm);
    timer_pending = 1;   /* the engine sets its 50 Hz after the start-up calls */
    ready = 1;
    return 0;
}

KELVA_ROUTINE(start_int) {
    (void)g;
    (void)d0;
    if (ready && !mixing) {
        paula_filter(0);
        swmix_tick_start(mixer_list, mixer_count, mix_period);
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

KELVA_ROUTINE(interrupt) {
    (void)d0;
    if (!ready) return 0;
    if (timer_pending) {
        timer_pending = 0;
        kp_support(g, DTG_SetTimer, 0, 0, 0);
    }
    tick();
    return 0;
}

static const char player_name[] = "DIGIBooster";
static const char creator[] = "kelva: DIGI Booster 1.x replay, mixed in software";

const uint32_t tags[] = {
    DTP_PlayerName, (uint32_t)player_name,
    DTP_Creator, (uint32_t)creator,
    DTP_PlayerVersion, 0x00010000,
    DTP_Check2, (uint32_t)check2_entry,
    DTP_InitPlayer, (uint32_t)init_player_entry,
    DTP_StartInt, (uint32_t)start_int_entry,
    DTP_EndSound, (uint32_t)end_sound_entry,
    DTP_Interrupt, (uint32_t)interrupt_entry,
    DTP_ModuleName, (uint32_t)&title_ref,
    DTP_FormatName, (uint32_t)&format_name,
    EP_Flags, EPF_Songend,
    0,
};

KELVA_PLAYER_HEADER(tags);
