/* replay.c - the replay core of kelva's ProTracker-family players.
 *
 * The song is a list of up to 128 positions, each naming a pattern of 64
 * rows; a row holds one four-byte cell per channel (1 to 32 channels; an
 * FLT8 module keeps its eight channels in two four-channel patterns, the
 * even one for channels 0-3 and the odd one after it for channels 4-7):
 *
 *     byte 0: high nibble = sample number bits 4, low nibble + byte 1 = period
 *     byte 2: high nibble = sample number bits 0-3, low nibble = command
 *     byte 3: command parameter
 *
 * Each call of ptk_tick is one tick. Every `speed` ticks a new row is read
 * (tick 0): notes start, instruments are loaded and the row-start effects
 * act; on the other ticks the running effects (slides, vibrato, arpeggio,
 * ...) advance. The order of operations on each tick follows the Amiga
 * replay routines, quirks included, because modules were written against
 * them: arpeggio that reads past B-3 into the next finetune's periods,
 * the sample offset that is applied twice, the
 * tremolo ramp that looks at the vibrato position, the loop pointers that
 * are re-queued for every channel on every row (so that an instrument
 * given without a note takes over at the end of the running loop).
 *
 * The plain 68000 has only 16-bit multiply and divide, and the players get
 * no libgcc, so every product below is a mulu.w (mul16) or a shift. */
#include "replay.h"
#include "pt_tables.h"
#include "output.h"
#include "kp_math.h"

/* ---- Arithmetic for the plain 68000 -------------------------------------- */

/* 16 x 16 -> 32 bit unsigned product (mulu.w). */
static inline uint32_t mul16(uint16_t a, uint16_t b) {
    uint32_t r = a;
    __asm__("mulu.w %1,%0" : "+d"(r) : "dmi"(b));
    return r;
}

/* 32 / 16 -> 16 bit unsigned quotient (divu.w); the caller keeps the
 * quotient below 65536. */
static inline uint16_t div16(uint32_t a, uint16_t b) {
    __asm__("divu.w %1,%0" : "+d"(a) : "dmi"(b));
    return (uint16_t)a;
}

/* x mod n for small values (tick counters). */
static inline uint8_t mod_small(uint8_t x, uint8_t n) {
    while (x >= n) x = (uint8_t)(x - n);
    return x;
}

/* ---- Tables ------------------------------------------------------------ */

/* The period table and the vibrato sine are in players/lib/pt_tables.h,
 * shared with the other ProTracker-like replays. */

/* Steps of the loop inversion (EFx) per speed. */
static const uint8_t funk_table[16] = {0, 5, 6, 7, 8, 10, 11, 13, 16, 19, 22, 26, 32, 43, 64, 128};

/* ---- The variants ------------------------------------------------------ */

/*                                smp  bytes loop_only fine cia fixed restart ust */
const struct ptk_rules ptk_rules_table[PTK_VARIANTS] = {
    [PTK_PT30] = {31, 0, 0, 1, 1, 0, 0, 0},
    [PTK_NT]   = {31, 0, 0, 0, 1, 0, 1, 0},
    [PTK_ST24] = {31, 1, 0, 0, 0, 0, 0, 0},
    [PTK_FLT4] = {31, 0, 0, 0, 1, 0, 0, 0},
    [PTK_MK]   = {31, 0, 0, 0, 1, 0, 1, 0},
    [PTK_COMP] = {31, 0, 0, 1, 1, 0, 0, 0},
    [PTK_ST20] = {15, 1, 0, 0, 0, 0, 0, 0},
    [PTK_UST]  = {15, 1, 1, 0, 0, 1, 0, 1},
    [PTK_ST4]  = {15, 1, 0, 0, 0, 0, 0, 0},
};

/* ---- State --------------------------------------------------------------- */

/* One channel, in the replay routine's terms. */
struct voice {
    uint16_t note;            /* cell bytes 0-1: sample bits and period */
    uint8_t cmd;              /* cell byte 2: sample bits and command */
    uint8_t cmdlo;            /* cell byte 3: parameter */
    uint32_t start;           /* sample address the next trigger plays from */
    uint16_t length;          /* words played from `start` before the loop */
    uint32_t loopstart;       /* loop address, re-queued every row */
    uint16_t replen;          /* loop length in words */
    uint32_t wavestart;       /* loop inversion cursor (EFx) */
    uint16_t period;
    uint16_t wantedperiod;    /* tone portamento target, 0 = none */
    uint8_t finetune;
    uint8_t volume;
    uint8_t toneportdirec;    /* 1: period falls towards the target */
    uint8_t toneportspeed;
    uint8_t vibratocmd, vibratopos;
    uint8_t tremolocmd, tremolopos;
    uint8_t wavecontrol;      /* bits 0-2 vibrato wave, 4-6 tremolo wave */
    uint8_t glissfunk;        /* low nibble glissando, high nibble EFx speed */
    uint8_t sampleoffset;
    uint8_t pattpos;          /* pattern loop start row */
    uint8_t loopcount;
    uint8_t funkoffset;
    uint16_t dmabit;          /* Paula's DMA bit (direct channels) */
    uint32_t chbit;           /* the channel's bit in dmacontemp */
    volatile uint16_t *hw;    /* AUDxLC of this channel (direct channels) */
    ptk_mixvoice *mix;        /* the mixed channel, 0 = Paula directly */
    /* His Master's Noise: the period multiplier (1 + fine / 256) and a
     * synth ("Mupp") instrument's waveform table, 0 for a sample. */
    int8_t fine;
    uint8_t prog_pos, prog_loop_start, prog_loop_end;
    uint8_t prog_volume;      /* 0..127, x volume / 64 is what Paula gets */
    uint32_t prog;
    /* Startrekker AM: the instrument (0 = a sample) and its envelope. */
    const struct ptk_am *am;
    int32_t am_level;         /* 0..255 (Paula volume = level / 4) */
    uint16_t am_sustain;
    uint8_t am_stage;
    uint8_t am_vibpos;
};

/* A sample as the header describes it, already in addresses. */
struct sample {
    uint32_t start;
    uint16_t length;          /* words played on a trigger */
    uint32_t loopstart;
    uint16_t replen;
    uint8_t finetune;
    uint8_t volume;
    int8_t fine;              /* His Master's Noise finetune byte */
    uint8_t prog_loop_start, prog_loop_end;
    uint32_t prog;            /* His Master's Noise synth: waveform table */
    const struct ptk_am *am;  /* Startrekker AM instrument */
};

static const struct ptk_rules *rules;
static struct voice voices[PTK_MAX_CHANNELS];
static struct sample samples[32];          /* 1-based */
static uint16_t silence[4] __attribute__((aligned(4)));

static uint32_t mod_base, mod_end;
static uint32_t orders_addr;               /* order list (128 bytes) */
static uint32_t patterns_addr;
static uint8_t channels;
static uint8_t flt8;                       /* patterns in four-channel pairs */
static uint8_t mixed;                      /* channels mixed in software */
static uint8_t hmn;                        /* His Master's Noise rules */
static uint8_t song_length, restart_pos;
static uint8_t ready;
static uint8_t timer_pending;

static uint8_t speed, counter, songpos, row;
static uint8_t pbreakpos, posjumpflag, pbreakflag, lowmask;
static uint8_t pattdelaytime, pattdelaytime2;
static uint32_t dmacontemp;                /* one bit per channel */
static uint8_t ended;
static uint8_t visited[128 * 8];           /* one bit per position and row */
static kp_globals globals;

/* ---- Small helpers -------------------------------------------------------- */

static inline uint8_t rd8(uint32_t a) { return *(const volatile uint8_t *)a; }
static inline uint16_t rd16(uint32_t a) { return *(const volatile uint16_t *)a; }
/* A byte of the module, 0 past its end. */
static inline uint8_t rd8_mod(uint32_t a) { return a < mod_end ? rd8(a) : 0; }

/* The channel's audio registers: Paula's, or the mixed channel's. */
static inline void hw_period(struct voice *v, uint16_t p) {
    if (v->fine) p = (uint16_t)(p + (kp_muls16((int16_t)p, v->fine) >> 8));
    if (v->mix) out_period(v->mix, p);
    else v->hw[3] = p;
}
static inline void hw_volume(struct voice *v, uint16_t vol) {
    if (v->prog) {
        vol = (uint16_t)(mul16(vol, v->prog_volume) >> 6);
        if (vol > 64) vol = 64;
    }
    if (v->mix) out_volume(v->mix, vol);
    else v->hw[4] = vol;
}
static inline void hw_block(struct voice *v, uint32_t lc, uint16_t len) {
    if (v->mix) {
        out_block(v->mix, lc, len);
        return;
    }
    *(volatile uint32_t *)v->hw = lc;
    v->hw[2] = len;
}
static inline void dma_off(struct voice *v) {
    if (v->mix) out_dma_off(v->mix);
    else KP_CUSTOM16(DMACON) = v->dmabit;
}
/* The period row of a finetune. */
static inline const uint16_t *ft_row(uint8_t finetune) { return pt_period_table + mul16(finetune & 15, PT_ROW); }

/* Reports the song's end once. */
static void song_end(void) {
    if (!ended) {
        ended = 1;
        kp_support(globals, DTG_SongEnd, 0, 0, 0);
    }
}

/* Asks the host for the tick rate of the CIA timer value `t`, from the
 * next tick on. */
static void set_timer(uint16_t t) {
    *(volatile uint16_t *)(globals + DTG_Timer) = t;
    kp_support(globals, DTG_SetTimer, 0, 0, 0);
}

static void mega_arp(struct voice *v);

/* DMA on for the channels whose bits are set in `mask`. */
static void dma_on(uint32_t mask) {
    if (!mixed) {
        KP_CUSTOM16(DMACON) = (uint16_t)(DMAF_SETCLR | (mask & 15));
        return;
    }
    for (uint32_t c = 0; c < channels; c++, mask >>= 1)
        if (mask & 1) out_dma_on(voices[c].mix);
}

/* ---- Layout ---------------------------------------------------------------- */

static inline uint32_t tag_of(const volatile uint8_t *t) {
    return ((uint32_t)t[0] << 24) | ((uint32_t)t[1] << 16) | ((uint32_t)t[2] << 8) | t[3];
}

#define TAG_FLT8 0x464C5438
#define TAG_EXO8 0x45584F38
#define TAG_FA04 0x46413034
#define TAG_FA08 0x46413038

uint32_t ptk_tag_channels(const volatile uint8_t *t) {
    switch (tag_of(t)) {
    case 0x4D2E4B2E: /* M.K. */
    case 0x4D214B21: /* M!K! */
    case 0x4D264B21: /* M&K! */
    case 0x4E2E542E: /* N.T. */
    case 0x464C5434: /* FLT4 */
    case 0x45584F34: /* EXO4 */
    case TAG_FA04:
        return 4;
    case TAG_FLT8:
    case TAG_EXO8:
    case TAG_FA08:
    case 0x43443831: /* CD81 */
    case 0x4F435441: /* OCTA */
    case 0x4F4B5441: /* OKTA */
        return 8;
    default: break;
    }
    /* xCHN (1-9), xxCH (10-32), TDZx (TakeTracker, 1-9). */
    if (t[1] == 'C' && t[2] == 'H' && t[3] == 'N' && t[0] >= '1' && t[0] <= '9') return (uint32_t)(t[0] - '0');
    if (t[0] == 'T' && t[1] == 'D' && t[2] == 'Z' && t[3] >= '1' && t[3] <= '9') return (uint32_t)(t[3] - '0');
    if (t[2] == 'C' && t[3] == 'H' && t[0] >= '1' && t[0] <= '3' && t[1] >= '0' && t[1] <= '9') {
        uint32_t n = (uint32_t)((t[0] - '0') * 10 + (t[1] - '0'));
        return n <= PTK_MAX_CHANNELS ? n : 0;
    }
    return 0;
}

/* Where the parts of the module lie, for `variant`; 0 when they do not fit
 * in `size` bytes. Fills the layout statics. */
static uint32_t layout(const volatile uint8_t *mod, uint32_t size, int variant) {
    const struct ptk_rules *r = &ptk_rules_table[variant];
    uint32_t header = r->samples == 31 ? 1084 : 600;
    if (size < header) return 0;
    uint32_t nch = 4;
    uint8_t pairs = 0;
    if (r->samples == 31) {
        uint32_t tag = tag_of(mod + 1080);
        nch = ptk_tag_channels(mod + 1080);
        if (nch == 0) nch = 4;   /* an unknown tag: the four-channel layout */
        pairs = tag == TAG_FLT8 || tag == TAG_EXO8;
        /* The Falcon's Digital Tracker writes four more bytes after its tag. */
        if (tag == TAG_FA04 || tag == TAG_FA08) header += 4;
        if (size < header) return 0;
    }
    uint32_t song = r->samples == 31 ? 950 : 470;
    uint8_t len = mod[song];
    if (len == 0 || len > 128) return 0;
    uint8_t highest = 0;
    for (uint32_t i = 0; i < 128; i++) {
        uint8_t o = mod[song + 2 + i];
        if (o > highest) highest = o;
    }
    /* Bytes of the patterns up to number h: 64 rows x channels x 4 bytes
     * each, or for FLT8 the four-channel patterns up to h's partner. */
    uint32_t patsize = pairs ? 1024 : nch << 8;
    uint16_t stored = (uint16_t)((pairs ? (highest | 1) : highest) + 1);
    uint32_t need = header + mul16(stored, (uint16_t)patsize);
    if (need > size) {
        /* Orders past the song length may name patterns that were never
         * saved: accept the file when the played ones are present. */
        highest = 0;
        for (uint32_t i = 0; i < len; i++) {
            uint8_t o = mod[song + 2 + i];
            if (o > highest) highest = o;
        }
        stored = (uint16_t)((pairs ? (highest | 1) : highest) + 1);
        need = header + mul16(stored, (uint16_t)patsize);
        /* The odd half of the last FLT8 pair may be missing: its cells read as empty. */
        if (need > size && pairs) need = header + mul16((uint16_t)(highest + 1), (uint16_t)patsize);
        if (need > size) return 0;
    }
    channels = (uint8_t)nch;
    flt8 = pairs;
    song_length = len;
    restart_pos = mod[song + 1];
    orders_addr = (uint32_t)mod + song + 2;
    patterns_addr = (uint32_t)mod + header;
    /* Sample data follows the patterns named by the order list (by the
     * played part when the rest were never saved). */
    return need;
}

uint32_t ptk_check(const volatile uint8_t *mod, uint32_t size, int variant) {
    if (variant < 0 || variant >= PTK_VARIANTS) return 1;
    if (size > 0xF0000) return 1;
    if (ptk_rules_table[variant].samples == 31 && (size < 1084 || (ptk_tag_channels(mod + 1080) == 0 && variant != PTK_PT30)))
        return 1;
    return layout(mod, size, variant) ? 0 : 1;
}

/* A sample whose trigger plays nothing. */
static void silent_sample(struct sample *s) {
    uint8_t *p = (uint8_t *)s;
    for (uint32_t b = 0; b < sizeof *s; b++) p[b] = 0;
    s->start = s->loopstart = (uint32_t)silence;
    s->length = s->replen = 1;
}

/* A His Master's Noise synth instrument: its name is "Mupp" followed by the
 * number of the pattern that holds it and the first and last step of the
 * step table's loop. The pattern holds 28 waveforms of 32 bytes, then 64
 * steps of waveform numbers (at 0x380) and 64 of volumes (at 0x3C0). A
 * note plays (first step loop << 8 | last step) words from the start of
 * the pattern, then the step's waveform, 16 words, which each tick moves
 * on by a step. */
static uint32_t load_prog(struct sample *s, uint32_t hdr) {
    if (rd8(hdr) != 'M' || rd8(hdr + 1) != 'u' || rd8(hdr + 2) != 'p' || rd8(hdr + 3) != 'p') return 0;
    uint32_t base = patterns_addr + ((uint32_t)rd8(hdr + 4) << 10);
    if (base + 1024 > mod_end) return 0;
    s->prog = base;
    s->prog_loop_start = rd8(hdr + 5);
    s->prog_loop_end = rd8(hdr + 6);
    s->start = base;
    uint32_t words = ((uint32_t)s->prog_loop_start << 8) | s->prog_loop_end;
    if (base + (words << 1) > mod_end) words = (mod_end - base) >> 1;
    s->length = (uint16_t)words;
    s->loopstart = base + ((uint32_t)rd8(base + 0x380) << 5);
    if (s->loopstart + 32 > mod_end) s->loopstart = (uint32_t)silence;
    s->replen = 16;
    return 1;
}

/* Reads one sample header into `s`, its data at `data`; returns the
 * address after the sample's data. Lengths are cut to the file, loops to
 * the sample, so a damaged header cannot make Paula read past the module. */
static uint32_t load_sample(struct sample *s, uint32_t hdr, uint32_t data) {
    uint16_t length = rd16(hdr + 22);
    uint8_t finetune = rd8(hdr + 24) & 15;
    uint8_t volume = rd8(hdr + 25);
    uint16_t repstart = rd16(hdr + 26);
    uint16_t replen = rd16(hdr + 28);
    uint32_t next = data + ((uint32_t)length << 1);
    silent_sample(s);
    s->finetune = rules->finetune ? finetune : 0;
    s->volume = volume > 64 ? 64 : volume;
    if (hmn) {
        s->fine = (int8_t)rd8(hdr + 24);
        if (load_prog(s, hdr)) return next;
    }
    if (data >= mod_end) length = 0;
    else if (next > mod_end) length = (uint16_t)((mod_end - data) >> 1);
    if (length == 0) return next;
    /* The loop, in words from the sample start. */
    uint16_t loop_words = rules->loop_bytes ? (uint16_t)(repstart >> 1) : repstart;
    if (replen == 0) replen = 1;
    if (loop_words >= length) {
        loop_words = 0;
        replen = 1;
    } else if ((uint32_t)loop_words + replen > length) {
        replen = (uint16_t)(length - loop_words);
    }
    s->start = data;
    s->replen = replen;
    s->loopstart = data + ((uint32_t)loop_words << 1);
    if (rules->loop_only && replen > 1) {
        /* Ultimate Soundtracker plays only the loop of a looping sample. */
        s->start = s->loopstart;
        s->length = replen;
    } else if (loop_words) {
        /* As the replay routine: played up to the loop's end, then the loop. */
        s->length = (uint16_t)(loop_words + replen);
    } else {
        s->length = length;
    }
    if (replen <= 1 && loop_words == 0) {
        /* No loop: the replay routine cleared the sample's first word so
         * that the two-byte "loop" after the sample is silent; pointing the
         * loop at silence does the same without touching the module. */
        s->loopstart = (uint32_t)silence;
    }
    return next;
}

uint32_t ptk_init(kp_globals g, int variant) {
    const volatile uint8_t *mod = (const volatile uint8_t *)kp_g32(g, DTG_ChkData);
    uint32_t size = kp_g32(g, DTG_ChkSize);
    globals = g;
    ready = 0;
    if (ptk_check(mod, size, variant)) return 1;
    rules = &ptk_rules_table[variant];
    hmn = variant == PTK_MK;
    mod_base = (uint32_t)mod;
    mod_end = mod_base + size;
    uint32_t data = mod_base + layout(mod, size, variant);
    silent_sample(&samples[0]);
    for (uint32_t i = 1; i <= 31; i++) {
        if (i > rules->samples) silent_sample(&samples[i]);
        else data = load_sample(&samples[i], mod_base + 20 + mul16((uint16_t)(i - 1), 30), data);
    }
    /* Startrekker AM instruments from the companion file take the place of
     * the samples of the same number. */
    if (ptk_player_companion) {
        static struct ptk_am am_table[32];
        ptk_am_load(g, am_table);
        for (uint32_t i = 1; i <= 31; i++) {
            const struct ptk_am *a = &am_table[i];
            if (!a->wave) continue;
            struct sample *s = &samples[i];
            s->start = s->loopstart = (uint32_t)a->wave;
            s->length = s->replen = a->wave_words;
            s->am = a;
        }
    }
    mixed = channels > 4;
    for (uint32_t c = 0; c < PTK_MAX_CHANNELS; c++) {
        struct voice *v = &voices[c];
        uint8_t *p = (uint8_t *)v;
        for (uint32_t b = 0; b < sizeof *v; b++) p[b] = 0;
        v->dmabit = (uint16_t)(1u << (c & 3));
        v->chbit = 1ul << c;
        v->hw = (volatile uint16_t *)(CUSTOM + AUD0LC + ((c & 3) << 4));
        v->start = v->loopstart = v->wavestart = (uint32_t)silence;
        v->length = v->replen = 1;
        v->prog_volume = 64;
    }
    if (mixed) {
        if (out_mix_start(channels, silence)) return 1;
        for (uint32_t c = 0; c < channels; c++) voices[c].mix = out_voice((uint8_t)c);
    }
    for (uint32_t i = 0; i < sizeof visited; i++) visited[i] = 0;
    speed = 6;
    counter = 5;   /* the first tick reads row 0 */
    songpos = 0;
    row = 0;
    pbreakpos = posjumpflag = pbreakflag = 0;
    pattdelaytime = pattdelaytime2 = 0;
    lowmask = 0xFF;
    ended = 0;
    /* The engine sets the 50 Hz rate after the start-up calls, so a tempo
     * is applied on the first tick. */
    *(volatile uint16_t *)(g + DTG_Timer) = 14187;
    timer_pending = 1;
    ready = 1;
    return 0;
}

void ptk_stop(void) {
    ready = 0;
    if (mixed) out_mix_stop();
    KP_CUSTOM16(DMACON) = 0x000F;
    for (uint32_t c = 0; c < 4; c++) KP_CUSTOM16(AUD0VOL + (c << 4)) = 0;
}

/* ---- Effects used on several ticks --------------------------------------- */

/* 1xx: period down by xx (pitch up), not below 113. E1x uses the low mask. */
static void porta_up(struct voice *v) {
    uint8_t d = v->cmdlo & lowmask;
    lowmask = 0xFF;
    v->period = (uint16_t)(v->period - d);
    if ((int16_t)((v->period & 0x0FFF) - 113) < 0) v->period = (uint16_t)((v->period & 0xF000) | 113);
    hw_period(v, v->period & 0x0FFF);
}

/* 2xx: period up by xx (pitch down), not above 856. */
static void porta_down(struct voice *v) {
    uint8_t d = v->cmdlo & lowmask;
    lowmask = 0xFF;
    v->period = (uint16_t)(v->period + d);
    if ((int16_t)((v->period & 0x0FFF) - 856) >= 0) v->period = (uint16_t)((v->period & 0xF000) | 856);
    hw_period(v, v->period & 0x0FFF);
}

/* Note with 3xx/5xx: the target period, looked up in the channel's
 * finetune row as the replay routine did (a negative finetune takes the
 * entry one step lower). */
static void set_tone_porta(struct voice *v) {
    uint16_t note = v->note & 0x0FFF;
    const uint16_t *t = ft_row(v->finetune);
    uint16_t i = 0;
    while (i < PT_ROW && note < t[i]) i++;
    if (i >= PT_ROW) i = 35;
    if ((v->finetune & 8) && i) i--;
    v->wantedperiod = t[i];
    v->toneportdirec = 0;
    if (v->period == v->wantedperiod) v->wantedperiod = 0;
    else if (v->period > v->wantedperiod) v->toneportdirec = 1;
}

/* Slides towards the target; with glissando on (E31) the written period is
 * rounded to a semitone of the finetune row. */
static void tone_port_nochange(struct voice *v) {
    if (v->wantedperiod == 0) return;
    if (v->toneportdirec) {
        v->period = (uint16_t)(v->period - v->toneportspeed);
        if ((int16_t)v->wantedperiod >= (int16_t)v->period) {
            v->period = v->wantedperiod;
            v->wantedperiod = 0;
        }
    } else {
        v->period = (uint16_t)(v->period + v->toneportspeed);
        if ((int16_t)v->wantedperiod <= (int16_t)v->period) {
            v->period = v->wantedperiod;
            v->wantedperiod = 0;
        }
    }
    uint16_t p = v->period;
    if (v->glissfunk & 0x0F) {
        const uint16_t *t = ft_row(v->finetune);
        uint16_t i = 0;
        while (i < PT_ROW && p < t[i]) i++;
        p = t[i < PT_ROW ? i : PT_ROW - 1];
    }
    hw_period(v, p);
}

/* 3xx: tone portamento; a parameter sets the speed and is then cleared. */
static void tone_portamento(struct voice *v) {
    if (v->cmdlo) {
        v->toneportspeed = v->cmdlo;
        v->cmdlo = 0;
    }
    tone_port_nochange(v);
}

/* The wave value (0..255) at a vibrato/tremolo position; `ramp_sign` is
 * the position whose sign selects the ramp's half (the replay routine uses
 * the vibrato position for the tremolo ramp too). */
static uint8_t wave_value(uint8_t pos, uint8_t wave, uint8_t ramp_sign) {
    uint8_t i = (pos >> 2) & 0x1F;
    if (wave == 0) return pt_sine[i];
    i = (uint8_t)(i << 3);
    if (wave == 1) return (int8_t)ramp_sign < 0 ? (uint8_t)(255 - i) : i;
    return 255;
}

/* 4xy: vibrato, speed x, depth y (each kept when 0). */
static void vibrato2(struct voice *v) {
    uint8_t d = wave_value(v->vibratopos, v->wavecontrol & 3, v->vibratopos);
    uint16_t delta = (uint16_t)(mul16(d, v->vibratocmd & 15) >> 7);
    uint16_t p = (int8_t)v->vibratopos < 0 ? (uint16_t)(v->period - delta) : (uint16_t)(v->period + delta);
    hw_period(v, p);
    v->vibratopos = (uint8_t)(v->vibratopos + ((v->vibratocmd >> 2) & 0x3C));
}

static void vibrato(struct voice *v) {
    uint8_t p = v->cmdlo;
    if (p) {
        uint8_t c = v->vibratocmd;
        if (p & 0x0F) c = (uint8_t)((c & 0xF0) | (p & 0x0F));
        if (p & 0xF0) c = (uint8_t)((c & 0x0F) | (p & 0xF0));
        v->vibratocmd = c;
    }
    vibrato2(v);
}

/* 7xy: tremolo, the volume's vibrato (depth counts double). */
static void tremolo(struct voice *v) {
    uint8_t p = v->cmdlo;
    if (p) {
        uint8_t c = v->tremolocmd;
        if (p & 0x0F) c = (uint8_t)((c & 0xF0) | (p & 0x0F));
        if (p & 0xF0) c = (uint8_t)((c & 0x0F) | (p & 0xF0));
        v->tremolocmd = c;
    }
    uint8_t d = wave_value(v->tremolopos, (v->wavecontrol >> 4) & 3, v->vibratopos);
    int16_t delta = (int16_t)(mul16(d, v->tremolocmd & 15) >> 6);
    int16_t vol = (int8_t)v->tremolopos < 0 ? (int16_t)(v->volume - delta) : (int16_t)(v->volume + delta);
    if (vol < 0) vol = 0;
    if (vol > 64) vol = 64;
    hw_volume(v, (uint16_t)vol);
    v->tremolopos = (uint8_t)(v->tremolopos + ((v->tremolocmd >> 2) & 0x3C));
}

/* Volume up by `d`, at most 64 (Axy with x, EAx). */
static void vol_up(struct voice *v, uint8_t d) {
    uint8_t vol = (uint8_t)(v->volume + d);
    v->volume = vol >= 64 ? 64 : vol;
    hw_volume(v, v->volume);
}

/* Volume down by `d`, at least 0 (Axy with y, EBx). */
static void vol_down(struct voice *v, uint8_t d) {
    int16_t vol = (int16_t)(v->volume - d);
    v->volume = vol < 0 ? 0 : (uint8_t)vol;
    hw_volume(v, v->volume);
}

/* Axy: the high nibble slides up, else the low nibble slides down. */
static void volume_slide(struct voice *v) {
    if (v->cmdlo >> 4) vol_up(v, v->cmdlo >> 4);
    else vol_down(v, v->cmdlo & 15);
}

/* 0xy: arpeggio cycles base note, +x, +y semitones on ticks 0, 1, 2 mod 3.
 * The current period is looked up in the finetune row (first entry not
 * above it); the offset may read past the row, as in the replay routine. */
static void arpeggio(struct voice *v) {
    uint8_t phase = mod_small(counter, 3);
    uint16_t p;
    if (phase == 0) {
        p = v->period;
    } else {
        uint8_t off = phase == 1 ? (v->cmdlo >> 4) : (v->cmdlo & 15);
        const uint16_t *t = ft_row(v->finetune);
        uint16_t i = 0;
        while (i < PT_ROW && v->period < t[i]) i++;
        if (i >= PT_ROW) return;
        p = t[i + off];
    }
    hw_period(v, p);
}

/* Restarts the channel's sample (E9x, EDx). */
static void retrigger(struct voice *v) {
    if (!v->length) return;   /* a synth sound without a first block */
    dma_off(v);
    hw_block(v, v->start, v->length);
    dma_on(v->chbit);
    hw_block(v, v->loopstart, v->replen);
}

/* EFx: every few ticks one more byte of the loop is inverted in place. */
static void update_funk(struct voice *v) {
    uint8_t s = v->glissfunk >> 4;
    if (!s) return;
    v->funkoffset = (uint8_t)(v->funkoffset + funk_table[s]);
    if (!(v->funkoffset & 0x80)) return;
    v->funkoffset = 0;
    uint32_t end = v->loopstart + ((uint32_t)v->replen << 1);
    uint32_t a = v->wavestart + 1;
    if (a >= end) a = v->loopstart;
    v->wavestart = a;
    if (a >= mod_base && a < mod_end) {
        volatile uint8_t *b = (volatile uint8_t *)a;
        *b = (uint8_t)(0xFF - *b);
    }
}

/* ---- E commands ------------------------------------------------------------- */

/* Clears the visited marks of the rows a pattern loop replays, so that
 * the replay is not taken for the song's end. */
static void unvisit(uint8_t from, uint8_t to) {
    for (uint8_t r = from; r <= to && r < 64; r++) visited[(songpos << 3) + (r >> 3)] &= (uint8_t)~(1u << (r & 7));
}

static void e_filter(struct voice *v) {
    volatile uint8_t *pra = (volatile uint8_t *)CIAA;
    *pra = (uint8_t)((*pra & 0xFD) | ((v->cmdlo & 1) << 1));
}
static void e_fine_up(struct voice *v) {
    if (counter) return;
    lowmask = 0x0F;
    porta_up(v);
}
static void e_fine_down(struct voice *v) {
    if (counter) return;
    lowmask = 0x0F;
    porta_down(v);
}
static void e_gliss(struct voice *v) { v->glissfunk = (uint8_t)((v->glissfunk & 0xF0) | (v->cmdlo & 0x0F)); }
static void e_vibwave(struct voice *v) { v->wavecontrol = (uint8_t)((v->wavecontrol & 0xF0) | (v->cmdlo & 0x0F)); }
static void e_finetune(struct voice *v) { v->finetune = v->cmdlo & 0x0F; }
static void e_loop(struct voice *v) {
    if (counter) return;
    uint8_t x = v->cmdlo & 0x0F;
    if (x == 0) {
        v->pattpos = row;
        return;
    }
    if (v->loopcount == 0) v->loopcount = x;
    else if (--v->loopcount == 0) return;
    pbreakpos = v->pattpos;
    pbreakflag = 1;
    unvisit(v->pattpos, row);
}
static void e_tremwave(struct voice *v) {
    v->wavecontrol = (uint8_t)((v->wavecontrol & 0x0F) | ((v->cmdlo & 0x0F) << 4));
}
static void e_retrig(struct voice *v) {
    uint8_t x = v->cmdlo & 0x0F;
    if (!x) return;
    if (counter == 0 && (v->note & 0x0FFF)) return;   /* the note itself started it */
    if (mod_small(counter, x) == 0) retrigger(v);
}
static void e_fine_volup(struct voice *v) {
    if (!counter) vol_up(v, v->cmdlo & 0x0F);
}
static void e_fine_voldown(struct voice *v) {
    if (!counter) vol_down(v, v->cmdlo & 0x0F);
}
static void e_cut(struct voice *v) {
    if ((v->cmdlo & 0x0F) != counter) return;
    v->volume = 0;
    hw_volume(v, 0);
}
static void e_delay(struct voice *v) {
    if ((v->cmdlo & 0x0F) != counter || !(v->note & 0x0FFF)) return;
    retrigger(v);
    hw_period(v, v->period);
}
static void e_pattdelay(struct voice *v) {
    if (counter || pattdelaytime2) return;
    pattdelaytime = (uint8_t)((v->cmdlo & 0x0F) + 1);
}
static void e_funk(struct voice *v) {
    if (counter) return;
    v->glissfunk = (uint8_t)((v->glissfunk & 0x0F) | (v->cmdlo << 4));
    if (v->cmdlo & 0x0F) update_funk(v);
}
static void e_none(struct voice *v) { (void)v; }

typedef void (*effect_fn)(struct voice *v);

/* E0x..EFx by the parameter's high nibble. */
static const effect_fn e_table[16] = {
    e_filter, e_fine_up, e_fine_down, e_gliss, e_vibwave, e_finetune, e_loop, e_tremwave,
    e_none, e_retrig, e_fine_volup, e_fine_voldown, e_cut, e_delay, e_pattdelay, e_funk,
};

static void e_commands(struct voice *v) { e_table[v->cmdlo >> 4](v); }

/* ---- Row-start effects (tick 0) ------------------------------------------- */

static void write_period(struct voice *v) { hw_period(v, v->period); }

/* 9xx: start the sample xx * 256 bytes in (xx = 0: the last offset). */
static void sample_offset(struct voice *v) {
    if (v->cmdlo) v->sampleoffset = v->cmdlo;
    uint16_t words = (uint16_t)(v->sampleoffset << 7);
    if (words < v->length) {
        v->length = (uint16_t)(v->length - words);
        v->start += (uint32_t)words << 1;
    } else {
        v->length = 1;
    }
}

/* Bxx: continue at position xx after this row. */
static void position_jump(struct voice *v) {
    songpos = (uint8_t)(v->cmdlo - 1);
    pbreakpos = 0;
    posjumpflag = 1;
}

/* Cxx: volume xx (at most 64). */
static void volume_change(struct voice *v) {
    v->volume = v->cmdlo > 64 ? 64 : v->cmdlo;
    hw_volume(v, v->volume);
}

/* Dxy: next position, at row 10x + y (a row past 63 is row 0). */
static void pattern_break(struct voice *v) {
    uint8_t r = (uint8_t)((v->cmdlo >> 4) * 10 + (v->cmdlo & 15));
    pbreakpos = r > 63 ? 0 : r;
    posjumpflag = 1;
}

/* Fxx: below 32 the speed (ticks per row); from 32 the tempo in beats per
 * minute, as a CIA timer value 1773447 / xx (where the tracker had one). */
static void set_speed(struct voice *v) {
    uint8_t x = v->cmdlo;
    if (rules->fixed_speed || x == 0) return;
    if (x >= 32 && rules->cia_tempo) {
        set_timer(div16(1773447UL, x));
        return;
    }
    counter = 0;
    speed = x;
}

/* Row-start effects by command; the others write the period. */
static const effect_fn more_table[16] = {
    write_period, write_period, write_period, write_period, write_period, write_period, write_period,
    write_period, write_period, sample_offset, write_period, position_jump, volume_change,
    pattern_break, e_commands, set_speed,
};

static void check_more_efx(struct voice *v) {
    update_funk(v);
    if (rules->ust_effects) {
        write_period(v);
        return;
    }
    if (hmn && (v->cmd & 15) == 7) {
        mega_arp(v);
        return;
    }
    more_table[v->cmd & 15](v);
}

/* ---- Effects of the other ticks -------------------------------------------- */

static void fx_tone_vol(struct voice *v) {
    tone_port_nochange(v);
    volume_slide(v);
}
static void fx_vib_vol(struct voice *v) {
    vibrato2(v);
    volume_slide(v);
}
static void fx_set_back(struct voice *v) { write_period(v); }
static void fx_tremolo(struct voice *v) {
    write_period(v);
    tremolo(v);
}
static void fx_volslide(struct voice *v) {
    write_period(v);
    volume_slide(v);
}

/* Running effects by command. */
static const effect_fn efx_table[16] = {
    arpeggio, porta_up, porta_down, tone_portamento, vibrato, fx_tone_vol, fx_vib_vol, fx_tremolo,
    fx_set_back, fx_set_back, fx_volslide, fx_set_back, fx_set_back, fx_set_back, e_commands, fx_set_back,
};

/* Ultimate Soundtracker: 1xy is the arpeggio; 2xy lowers the period by y
 * (pitch up) when y is set, else raises it by x (pitch down). Every other
 * command does nothing. */
static void ust_efx(struct voice *v) {
    uint8_t c = v->cmd & 15;
    if (c == 1) {
        arpeggio(v);
    } else if (c == 2) {
        uint8_t p = v->cmdlo;
        if (p & 0x0F) {
            v->period = (uint16_t)(v->period - (p & 0x0F));
            if ((int16_t)(v->period - 113) < 0) v->period = 113;
        } else if (p >> 4) {
            v->period = (uint16_t)(v->period + (p >> 4));
            if (v->period > 856) v->period = 856;
        }
        hw_period(v, v->period);
    }
}

static void check_efx(struct voice *v) {
    update_funk(v);
    if (rules->ust_effects) {
        ust_efx(v);
        return;
    }
    if (((v->cmd & 0x0F) | v->cmdlo) == 0) {
        write_period(v);
        return;
    }
    if (hmn && (v->cmd & 15) == 7) {
        mega_arp(v);
        return;
    }
    efx_table[v->cmd & 15](v);
}

/* ---- Synth instruments ---------------------------------------------------- */

/* His Master's Noise: one step of a synth instrument's table each tick:
 * the step's volume (x the channel's volume / 64) and its waveform, which
 * the caller queues to follow the one playing. The table's loop runs from
 * its first to its last step. */
static void prog_step(struct voice *v) {
    uint32_t base = v->prog;
    uint8_t i = v->prog_pos;
    v->prog_volume = rd8_mod(base + 0x3C0 + i) & 0x7F;
    uint32_t wave = base + ((uint32_t)rd8_mod(base + 0x380 + i) << 5);
    v->loopstart = wave + 32 <= mod_end ? wave : (uint32_t)silence;
    v->replen = 16;
    i++;
    if (i > v->prog_loop_end) i = v->prog_loop_start;
    v->prog_pos = i;
    hw_volume(v, v->volume);
}

/* His Master's Noise's 7xy: a chord of sixteen steps, one a tick, from
 * table y (x is not used); the step counter is the vibrato position, which
 * a note resets. */
static const uint8_t mega_arps[16][16] = {
    {0, 3, 7, 12, 15, 12, 7, 3, 0, 3, 7, 12, 15, 12, 7, 3},
    {0, 4, 7, 12, 16, 12, 7, 4, 0, 4, 7, 12, 16, 12, 7, 4},
    {0, 3, 8, 12, 15, 12, 8, 3, 0, 3, 8, 12, 15, 12, 8, 3},
    {0, 4, 8, 12, 16, 12, 8, 4, 0, 4, 8, 12, 16, 12, 8, 4},
    {0, 5, 8, 12, 17, 12, 8, 5, 0, 5, 8, 12, 17, 12, 8, 5},
    {0, 5, 9, 12, 17, 12, 9, 5, 0, 5, 9, 12, 17, 12, 9, 5},
    {12, 0, 7, 0, 3, 0, 7, 0, 12, 0, 7, 0, 3, 0, 7, 0},
    {12, 0, 7, 0, 4, 0, 7, 0, 12, 0, 7, 0, 4, 0, 7, 0},
    {0, 3, 7, 3, 7, 12, 7, 12, 15, 12, 7, 12, 7, 3, 7, 3},
    {0, 4, 7, 4, 7, 12, 7, 12, 16, 12, 7, 12, 7, 4, 7, 4},
    {31, 27, 24, 19, 15, 12, 7, 3, 0, 3, 7, 12, 15, 19, 24, 27},
    {31, 28, 24, 19, 16, 12, 7, 4, 0, 4, 7, 12, 16, 19, 24, 28},
    {0, 12, 0, 12, 0, 12, 0, 12, 0, 12, 0, 12, 0, 12, 0, 12},
    {0, 12, 24, 12, 0, 12, 24, 12, 0, 12, 24, 12, 0, 12, 24, 12},
    {0, 3, 0, 3, 0, 3, 0, 3, 0, 3, 0, 3, 0, 3, 0, 3},
    {0, 4, 0, 4, 0, 4, 0, 4, 0, 4, 0, 4, 0, 4, 0, 4},
};

static void mega_arp(struct voice *v) {
    uint8_t step = mega_arps[v->cmdlo & 15][v->vibratopos & 15];
    v->vibratopos++;
    uint16_t i = 0;
    while (i < PT_ROW && (v->period & 0x0FFF) < pt_period_table[i]) i++;
    if (i >= PT_ROW) return;
    i = (uint16_t)(i + step);
    while (i >= PT_ROW) i = (uint16_t)(i - 12);   /* above B-3: octaves lower */
    hw_period(v, pt_period_table[i]);
}

/* Startrekker AM: the envelope's stages. */
enum { AM_ATTACK1, AM_ATTACK2, AM_DECAY, AM_SUSTAIN, AM_RELEASE };

/* The cell's effect on an AM instrument: a note (without tone portamento)
 * starts the envelope at L0; an instrument number otherwise cuts it. */
static void am_row(struct voice *v, uint8_t instrument, uint8_t toneporta) {
    if ((v->note & 0x0FFF) && !toneporta) {
        v->am_level = v->am->l0;
        v->am_sustain = v->am->st;
        v->am_stage = AM_ATTACK1;
        v->am_vibpos = 0;
    } else if (instrument) {
        v->am_level = 0;
        v->am_stage = AM_RELEASE;
    }
}

/* The level moves by `rate` towards `target`; on reaching it the next
 * stage begins. A rate of 0 never reaches a different level. */
static void am_towards(struct voice *v, uint16_t target, uint16_t rate, uint8_t next) {
    int32_t x = v->am_level;
    if ((int32_t)target > x) {
        x += rate;
        if (x > (int32_t)target) x = target;
    } else {
        x -= rate;
        if (x < (int32_t)target) x = target;
    }
    v->am_level = x;
    if (x == (int32_t)target) v->am_stage = next;
}

/* Once a tick, after the channel's effects: one envelope step, whose level
 * is the channel's volume (the volume commands have no say), the period
 * fall added to the period, and the vibrato of the instrument. */
static void am_tick(struct voice *v) {
    const struct ptk_am *a = v->am;
    switch (v->am_stage) {
    case AM_ATTACK1: am_towards(v, a->a1l, a->a1s, AM_ATTACK2); break;
    case AM_ATTACK2: am_towards(v, a->a2l, a->a2s, AM_DECAY); break;
    case AM_DECAY: am_towards(v, a->sl, a->ds, AM_SUSTAIN); break;
    case AM_SUSTAIN:
        /* ST + 1 ticks in all. */
        if (v->am_sustain) v->am_sustain--;
        else v->am_stage = AM_RELEASE;
        break;
    default: am_towards(v, 0, a->rs, AM_RELEASE); break;
    }
    hw_volume(v, (uint16_t)(v->am_level >> 2));
    if (a->pfall) {
        int32_t p = (int32_t)v->period + a->pfall;
        v->period = (uint16_t)(p < 1 ? 1 : p > 0x7FFF ? 0x7FFF : p);
    }
    if (a->vamp) {
        /* A sine of 64 steps (the vibrato's), V.SPD steps a tick, V.AMP periods deep. */
        uint8_t pos = v->am_vibpos;
        int16_t d = (int16_t)(mul16(pt_sine[(pos >> 2) & 0x1F], (uint16_t)a->vamp) >> 8);
        v->am_vibpos = (uint8_t)(pos + ((uint8_t)a->vspd << 2));
        hw_period(v, (uint16_t)((int8_t)pos < 0 ? v->period - d : v->period + d));
    } else if (a->pfall) {
        hw_period(v, v->period);
    }
}

/* ---- New row ------------------------------------------------------------------ */

/* Loads instrument `n` into the voice and sets its volume. */
static void load_instrument(struct voice *v, uint8_t n) {
    const struct sample *s = &samples[n];
    v->start = s->start;
    v->length = s->length;
    v->loopstart = v->wavestart = s->loopstart;
    v->replen = s->replen;
    v->finetune = s->finetune;
    v->volume = s->volume;
    v->fine = s->fine;
    v->am = s->am;
    v->prog = s->prog;
    if (v->prog) {
        v->prog_loop_start = s->prog_loop_start;
        v->prog_loop_end = s->prog_loop_end;
        v->prog_volume = rd8(v->prog + 0x3C0) & 0x7F;
    } else {
        v->prog_volume = 64;
    }
    hw_volume(v, v->volume);
}

/* Starts the note of the cell: period from the finetune row, vibrato and
 * tremolo restarted unless their waves say otherwise, DMA off, sample
 * registers set; the DMA comes back on for all started channels at once. */
static void set_period(struct voice *v) {
    uint16_t note = v->note & 0x0FFF;
    uint16_t i = 0;
    while (i < PT_ROW && note < pt_period_table[i]) i++;
    if (i >= PT_ROW) i = PT_ROW - 1;
    v->period = ft_row(v->finetune)[i];
    if (v->am) {
        /* An AM waveform sounds FQ octaves below the note. */
        uint32_t p = (uint32_t)v->period << v->am->fq;
        v->period = (uint16_t)(p > 0x7FFF ? 0x7FFF : p);
    }
    if ((v->cmd & 0x0F) == 0x0E && (v->cmdlo & 0xF0) == 0xD0) {   /* EDx waits */
        check_more_efx(v);
        return;
    }
    if (!(v->wavecontrol & 4)) v->vibratopos = 0;
    if (!(v->wavecontrol & 0x40)) v->tremolopos = 0;
    if (v->prog) {
        /* A synth instrument without a first block does not start. */
        if (!v->length) {
            check_more_efx(v);
            return;
        }
        v->prog_pos = 0;
    }
    dma_off(v);
    hw_block(v, v->start, v->length);
    hw_period(v, v->period);
    dmacontemp |= v->chbit;
    check_more_efx(v);
}

/* One channel's cell at the start of a row. */
static void play_voice(struct voice *v, uint32_t cell) {
    if (v->note == 0 && v->cmd == 0 && v->cmdlo == 0) write_period(v);
    uint8_t b0 = 0, b1 = 0, b2 = 0, b3 = 0;
    if (cell + 4 <= mod_end) {
        b0 = rd8(cell);
        b1 = rd8(cell + 1);
        b2 = rd8(cell + 2);
        b3 = rd8(cell + 3);
    }
    v->note = (uint16_t)((b0 << 8) | b1);
    v->cmd = b2;
    v->cmdlo = b3;
    uint8_t n = (uint8_t)((b0 & 0xF0) | (b2 >> 4));
    if (n && n <= rules->samples) load_instrument(v, n);
    uint8_t c = v->cmd & 0x0F;
    if (v->am) am_row(v, n, c == 3 || c == 5);
    if (!(v->note & 0x0FFF)) {
        check_more_efx(v);
        return;
    }
    if (rules->ust_effects) {
        set_period(v);
        return;
    }
    if (c == 0x0E && (v->cmdlo & 0xF0) == 0x50) {
        e_finetune(v);
        set_period(v);
    } else if (c == 3 || c == 5) {
        set_tone_porta(v);
        check_more_efx(v);
    } else {
        if (c == 9) check_more_efx(v);
        set_period(v);
    }
}

/* Tick 0 of a row: the row's cells, then DMA on for the started channels
 * and every channel's loop queued behind what it plays. */
static void get_new_note(void) {
    uint8_t bit = (uint8_t)(1u << (row & 7));
    uint8_t *mark = &visited[(songpos << 3) + (row >> 3)];
    if (*mark & bit) song_end();
    *mark |= bit;
    uint8_t pattern = rd8(orders_addr + songpos);
    uint32_t cell;
    if (flt8) cell = patterns_addr + ((uint32_t)(pattern & 0xFE) << 10) + ((uint32_t)row << 4);
    else cell = patterns_addr + (mul16(pattern, channels) << 8) + (mul16(row, channels) << 2);
    dmacontemp = 0;
    for (uint32_t c = 0; c < channels; c++) {
        /* FLT8: channels 4-7 lie in the next four-channel pattern. */
        uint32_t at = flt8 ? cell + ((c & 4) << 8) + ((c & 3) << 2) : cell + (c << 2);
        play_voice(&voices[c], at);
    }
    dma_on(dmacontemp);
    for (uint32_t c = 0; c < channels; c++) {
        struct voice *v = &voices[c];
        if (v->prog) prog_step(v);
        hw_block(v, v->loopstart, v->replen);
        if (v->am) am_tick(v);
    }
}

/* Moves to the next position (after the last row, Bxx or Dxx). The end of
 * the order list goes back to the start, or to the restart position where
 * the tracker honoured it. */
static void next_position(void) {
    row = pbreakpos;
    pbreakpos = 0;
    posjumpflag = 0;
    songpos = (uint8_t)((songpos + 1) & 0x7F);
    if (songpos >= song_length) songpos = (rules->restart && restart_pos < song_length) ? restart_pos : 0;
}

/* A tick without a new row: every channel's running effects, then the
 * synth instruments' steps. */
static void running_effects(void) {
    for (uint32_t c = 0; c < channels; c++) {
        struct voice *v = &voices[c];
        check_efx(v);
        if (v->prog) {
            prog_step(v);
            hw_block(v, v->loopstart, v->replen);
        }
        if (v->am) am_tick(v);
    }
}

/* One tick of the replay. */
static void replay_tick(void) {
    if (timer_pending) {
        timer_pending = 0;
        kp_support(globals, DTG_SetTimer, 0, 0, 0);
    }
    if (++counter < speed) {
        running_effects();
        if (posjumpflag) next_position();
        return;
    }
    counter = 0;
    if (pattdelaytime2 == 0) get_new_note();
    else running_effects();
    row++;
    if (pattdelaytime) {
        pattdelaytime2 = pattdelaytime;
        pattdelaytime = 0;
    }
    if (pattdelaytime2 && --pattdelaytime2) row--;
    if (pbreakflag) {
        pbreakflag = 0;
        row = pbreakpos;
        pbreakpos = 0;
    }
    if (row >= 64) next_position();
    if (posjumpflag) next_position();
}

void ptk_tick(kp_globals g) {
    (void)g;
    if (!ready) return;
    replay_tick();
    /* Mixed channels: the samples of the tick that begins now. */
    if (mixed) out_mix_tick(kp_g16(globals, DTG_Timer));
}

/* ---- The option string ------------------------------------------------------ */

/* The option lookup: a library whose name begins "ua" has, at -24 from its
 * base, a routine that takes A0 = a table { count, count x { name, flag
 * byte, result buffer } } and, for each name that begins the host's option
 * string followed by ':', sets the flag and copies the whole string. */
static const char option_library[] = "ua.library";
static const char option_name[] = "type";
static uint8_t option_flag;
static char option_text[256];
static uint32_t option_table[4];

/* exec's OpenLibrary; A6 is saved by hand, as the compiler may use it as
 * its frame pointer. */
__attribute__((noinline)) static uint32_t open_library(const char *name) {
    register uint32_t d0 __asm__("d0") = 0;
    register const char *a1 __asm__("a1") = name;
    __asm__ volatile("move.l %%a6,-(%%sp)\n\tmove.l 4.w,%%a6\n\tjsr -552(%%a6)\n\tmove.l (%%sp)+,%%a6"
                     : "+d"(d0), "+a"(a1)
                     :
                     : "d1", "a0", "memory", "cc");
    return d0;
}

__attribute__((noinline)) static void call_option_lookup(uint32_t base, uint32_t *table) {
    register uint32_t *a0 __asm__("a0") = table;
    register uint32_t a1 __asm__("a1") = base;
    __asm__ volatile("jsr -24(%%a1)" : "+a"(a0), "+a"(a1) : : "d0", "d1", "memory", "cc");
}

static int streq(const char *a, const char *b) {
    while (*a && *a == *b) {
        a++;
        b++;
    }
    return *a == *b;
}

/* The variant the module's tag alone suggests (a file named in the prefix
 * form gets no option string). */
static int variant_from_content(const volatile uint8_t *mod, uint32_t size) {
    if (size >= 1084 && ptk_tag_channels(mod + 1080)) {
        const volatile uint8_t *t = mod + 1080;
        if (t[0] == 'M' && t[1] == '&' && t[2] == 'K' && t[3] == '!') return PTK_MK;
        if (t[0] == 'N' && t[1] == '.' && t[2] == 'T' && t[3] == '.') return PTK_NT;
        if ((t[0] == 'F' && t[1] == 'L' && t[2] == 'T' && t[3] == '4') ||
            (t[0] == 'E' && t[1] == 'X' && t[2] == 'O' && t[3] == '4'))
            return PTK_FLT4;
        if (t[3] == 'N' || (t[2] == 'C' && t[3] == 'H') || (t[0] == 'T' && t[1] == 'D' && t[2] == 'Z'))
            return PTK_COMP;
        return PTK_PT30;
    }
    if (ptk_check(mod, size, PTK_ST20) == 0) return PTK_ST20;
    return PTK_PT30;
}

/* Option strings and their variants, in one string per entry. */
static const char option_names[][10] = {
    "type:pt30", "type:nt10", "type:nt20", "type:st24", "type:flt4", "type:m&k.", "type:comp", "type:st20",
};
static const uint8_t option_variants[] = {
    PTK_PT30, PTK_NT, PTK_NT, PTK_ST24, PTK_FLT4, PTK_MK, PTK_COMP, PTK_ST20,
};

int ptk_variant_from_option(const volatile uint8_t *mod, uint32_t size) {
    option_flag = 0;
    option_text[0] = 0;
    uint32_t base = open_library(option_library);
    if (base) {
        option_table[0] = 1;
        option_table[1] = (uint32_t)option_name;
        option_table[2] = (uint32_t)&option_flag;
        option_table[3] = (uint32_t)option_text;
        call_option_lookup(base, option_table);
        option_text[sizeof option_text - 1] = 0;
    }
    if (option_flag) {
        for (uint32_t i = 0; i < sizeof option_variants; i++)
            if (streq(option_text, option_names[i])) return option_variants[i];
    }
    return variant_from_content(mod, size);
}
