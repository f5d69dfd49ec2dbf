/* Oktalyzer: kelva's player for Oktalyzer songs (.okta, .okt, OKT.name).
 *
 * The file is "OKTASONG" followed by chunks of a four-letter name and a
 * length (big-endian long), each chunk's data right behind its header:
 *
 *   CMOD  four words, one per Paula channel: 0 = one channel played by
 *         Paula, else a split channel: two channels mixed into it
 *   SAMP  36 sample headers of 32 bytes: name (20), length in bytes
 *         (long), loop start and loop length in words, volume (word,
 *         0..64), mode: 0 = 7-bit data for split channels only, 1 = 8-bit
 *         data for channels of their own only, 2 = 7-bit data for both
 *   SPEE  the starting speed (ticks a row)
 *   SLEN  the number of patterns
 *   PLEN  the number of positions
 *   PATT  the positions (a pattern number each)
 *   PBOD  one per pattern: the number of rows (word), then the rows, four
 *         bytes per channel: note (1..36 = C-1..B-3, 0 = none), sample
 *         (0..35), effect, parameter
 *   SBOD  the data of each sample that has a length, in sample order
 *
 * Files that start "OKTASNG2" have the same chunks; they come from a later
 * release of the tracker, whose speed reaches 31 instead of 15 and whose
 * split channels keep a volume for each voice. That release writes every
 * volume command of a split channel on both its halves (so songs made for
 * the shared volume keep their sound), and the pair's shared volume then
 * plays them alike.
 *
 * The replay follows Oktalyzer's own. A tick every 50th of a second; on the
 * row's first tick the notes start, and every effect of the row acts on
 * every tick of it, the first included, channel by channel. The volume
 * belongs to the Paula channel: a split channel's two voices share it.
 *
 *   - A channel of its own plays samples of modes 1 and 2 on Paula: from
 *     the start up to the loop's end, then the loop; the part after the
 *     loop is played once on effect 27 (release). A note sets the volume
 *     to the sample's.
 *   - A split channel's voices play samples of modes 0 and 2 once through,
 *     never looping, at the pitch of their note; the tracker mixed them
 *     with code made for each of its 36 notes, so the period slides (1, 2)
 *     do nothing on them, and a note leaves the shared volume as it is.
 *     Here they are mixed in software (players/lib/swmix.c) at every tick:
 *     the two voices' 7-bit samples added to 8 bits (a sum past the limits
 *     is held there), played by the Paula channel at the shared volume.
 *   - The Amiga's audio filter is off unless effect 15 turns it on.
 *
 * The effects (decimal numbers; x = the parameter's high nibble, y = its
 * low nibble):
 *
 *   1  period down by the parameter every tick (pitch up, to 113)
 *   2  period up by the parameter every tick (pitch down, to 856)
 *   10 arpeggio: note - x, note, note + y
 *   11 arpeggio: note, note + y, note, note - x
 *   12 arpeggio: (unchanged on the row's first tick) note + x, note + y, note
 *   13 note down by the parameter every tick      30 up every tick
 *   21 note down by the parameter once a row      17 up once a row
 *   15 filter: on when the parameter is not 0
 *   24 the volume of the tick before, then as 31
 *   25 position jump to the parameter read as two decimal digits
 *   27 release: the sample's part after its loop follows the loop's pass
 *   28 speed (the low four bits; five for OKTASNG2 songs; 0 is ignored)
 *   31 volume: 0..64 sets it; $41-$4F down by the low nibble every tick,
 *      $50-$5F up every tick; $60-$6F down once a row, $70-$7F up once
 *
 * The song wraps from its last position to the first, where the speed
 * returns to the starting one; a row played a second time is the song's
 * end (DTG_SongEnd, once), and the song plays on. */
#include "kelva_player.h"
#include "kp_math.h"
#include "paula.h"
#include "swmix.h"

#define MAX_SAMPLES 36
#define MAX_PATTERNS 256
#define MAX_ROWS 256
#define MAX_POSITIONS 128
/* A tick (a 50th of a second, 70937.9 Paula clocks) is mixed as one block
 * that must last until the next tick. At period 129 (27,496 Hz) 550
 * samples last 70950 clocks, 0.02 % longer: the voices move on almost
 * exactly as far as is heard. */
#define MIX_PERIOD 129
#define MIX_BYTES 550

/* C-1 .. B-3. */
static const uint16_t periods[36] = {
    856, 808, 762, 720, 678, 640, 604, 570, 538, 508, 480, 453, 428, 404, 381, 360, 339, 320,
    302, 285, 269, 254, 240, 226, 214, 202, 190, 180, 170, 160, 151, 143, 135, 127, 120, 113,
};

struct sample {
    const int8_t *data;   /* 0: nothing to play */
    uint32_t length;      /* bytes */
    uint32_t loop_start, loop_len;   /* bytes; loop_len 0 = none */
    uint8_t volume, mode;
};

struct pattern {
    uint32_t at, end;     /* the cells, in the module; end: first byte past them */
    uint16_t rows;
};

struct channel {
    swmix_voice *voice;   /* a split channel's voice; 0 for a channel of its own */
    const struct sample *sample;   /* channels of their own: what plays (for the release) */
    int16_t note;         /* 0..35 while in range; the note slides may take it out */
    uint16_t period;
    uint8_t paula, released;
};

static const volatile uint8_t *mod;
static uint32_t mod_size;
static uint8_t version2;
static uint16_t channel_count, sample_count, pattern_count, positions, start_speed;
static uint8_t split[4];
static uint32_t order_at;   /* the positions, in the module */
static struct sample samples[MAX_SAMPLES];
static struct pattern patterns[MAX_PATTERNS];

static struct channel channels[8];
static uint8_t volume[4], last_volume[4];   /* per Paula channel */
static swmix_voice voices[8];
static swmix_channel mixers[4];
static swmix_channel *mixer_list[4];
static uint16_t mixer_count;
static uint16_t silence[2] __attribute__((aligned(4)));

/* Exec interrupt structures of the release interrupts (IS_DATA = the Paula
 * channel, IS_CODE = release_irq_entry), and the vectors they replaced. */
static uint16_t release_is[4][11];
static uint32_t old_vector[4];
static uint8_t vectors_set;

static uint8_t ready, mixing, filter;
static uint16_t speed, tick_count, row, position;
static int16_t next_position;
static uint8_t visited[MAX_POSITIONS * MAX_ROWS / 8];
static uint8_t ended;
static kp_globals globals;

static const char format_okt[] = "Oktalyzer";
static const char format_okt2[] = "Oktalyzer (OKTASNG2)";
static const char *format_name = format_okt;
static const char *no_title = 0;

static uint16_t rd16(uint32_t o) { return (uint16_t)(mod[o] << 8 | mod[o + 1]); }
static uint32_t rd32(uint32_t o) { return (uint32_t)rd16(o) << 16 | rd16(o + 2); }

/* ---- Layout ------------------------------------------------------------- */

static uint8_t is_chunk(uint32_t at, const char *name) {
    return mod[at] == (uint8_t)name[0] && mod[at + 1] == (uint8_t)name[1] && mod[at + 2] == (uint8_t)name[2] &&
           mod[at + 3] == (uint8_t)name[3];
}

/* Walks the chunks; 0 when the song can be played. A chunk cut by the end
 * of the file keeps what is there. */
static uint32_t layout(const volatile uint8_t *m, uint32_t size) {
    mod = m;
    mod_size = size;
    if (size < 16) return 1;
    static const char magic[] = "OKTASONG";
    uint8_t same = 1;
    for (uint16_t i = 0; i < 8; i++) same &= m[i] == (uint8_t)magic[i];
    version2 = !same && m[0] == 'O' && m[1] == 'K' && m[2] == 'T' && m[3] == 'A' && m[4] == 'S' && m[5] == 'N' &&
               m[6] == 'G' && m[7] == '2';
    if (!same && !version2) return 1;

    uint32_t cmod = 0, samp = 0, samp_len = 0, spee = 0, slen = 0, plen = 0, patt = 0, patt_len = 0;
    uint16_t pbods = 0, sbods = 0;
    static uint32_t sbod_at[MAX_SAMPLES], sbod_len[MAX_SAMPLES];
    uint32_t at = 8;
    /* Each chunk takes at least its 8-byte header, so the walk ends. */
    while (at <= size - 8) {
        uint32_t len = rd32(at + 4), data = at + 8;
        if (len > size - data) len = size - data;
        if (is_chunk(at, "CMOD") && !cmod && len >= 8) cmod = data;
        else if (is_chunk(at, "SAMP") && !samp && len >= 32) samp = data, samp_len = len;
        else if (is_chunk(at, "SPEE") && !spee && len >= 2) spee = data;
        else if (is_chunk(at, "SLEN") && !slen && len >= 2) slen = data;
        else if (is_chunk(at, "PLEN") && !plen && len >= 2) plen = data;
        else if (is_chunk(at, "PATT") && !patt && len >= 1) patt = data, patt_len = len;
        else if (is_chunk(at, "PBOD") && pbods < MAX_PATTERNS) {
            if (len < 2) return 1;
            struct pattern *p = &patterns[pbods++];
            p->rows = rd16(data);
            p->at = data + 2;
            p->end = data + len;
            if (p->rows == 0 || p->rows > MAX_ROWS) return 1;
        } else if (is_chunk(at, "SBOD") && sbods < MAX_SAMPLES) {
            sbod_at[sbods] = data;
            sbod_len[sbods++] = len;
        }
        at = data + len;
    }
    if (!cmod || !samp || !plen || !patt || !pbods) return 1;

    channel_count = 4;
    for (uint16_t i = 0; i < 4; i++) {
        split[i] = rd16(cmod + 2 * i) != 0;
        channel_count = (uint16_t)(channel_count + split[i]);
    }
    pattern_count = pbods;
    if (slen && rd16(slen) && rd16(slen) < pattern_count) pattern_count = rd16(slen);
    positions = rd16(plen);
    if (positions > patt_len) positions = (uint16_t)patt_len;
    if (positions == 0 || positions > MAX_POSITIONS) return 1;
    order_at = patt;
    for (uint16_t i = 0; i < positions; i++)
        if (m[patt + i] >= pattern_count) return 1;
    start_speed = spee ? rd16(spee) : 6;
    if (start_speed == 0) start_speed = 1;

    sample_count = (uint16_t)(samp_len >> 5);
    if (sample_count > MAX_SAMPLES) sample_count = MAX_SAMPLES;
    uint16_t next = 0;
    for (uint16_t i = 0; i < sample_count; i++) {
        uint32_t h = samp + ((uint32_t)i << 5);
        struct sample *s = &samples[i];
        uint32_t length = rd32(h + 20);
        s->data = 0;
        s->length = s->loop_start = s->loop_len = 0;
        s->volume = mod[h + 29] > 64 ? 64 : mod[h + 29];
        s->mode = (uint8_t)rd16(h + 30);
        if (!length) continue;
        if (next >= sbods) continue;   /* its data is missing */
        uint32_t have = sbod_len[next], from = sbod_at[next];
        next++;
        if (length > have) length = have;
        length &= ~(uint32_t)1;
        if (!length) continue;
        s->data = (const int8_t *)(m + from);
        s->length = length;
        /* A loop of one word or less repeats silence or a click: none. */
        uint32_t ls = (uint32_t)rd16(h + 24) << 1, ll = (uint32_t)rd16(h + 26) << 1;
        if (ll > 2 && ls < length) {
            s->loop_start = ls;
            s->loop_len = ll > length - ls ? length - ls : ll;
        }
    }
    return 0;
}

/* ---- Release interrupts ---------------------------------------------------- */

/* exec SetIntVector(intNumber D0, interrupt A1) -> the old one. A6 is saved
 * by hand: the compiler may use it as its frame pointer. */
static uint32_t set_int_vector(uint32_t number, void *is) {
    register uint32_t d0 __asm__("d0") = number;
    register void *a1 __asm__("a1") = is;
    __asm__ volatile("move.l %%a6,-(%%sp)\n\tmove.l 4.w,%%a6\n\tjsr -162(%%a6)\n\tmove.l (%%sp)+,%%a6"
                     : "+d"(d0), "+a"(a1)
                     :
                     : "d1", "a0", "memory", "cc");
    return d0;
}

/* Paula has taken the queued release part: silence goes behind it, so the
 * part plays once. Called with A1 = IS_DATA = the Paula channel. */
void release_irq(uint32_t x);
__asm__("\t.text\n\t.globl release_irq_entry\nrelease_irq_entry:\n\tmove.l %a1,-(%sp)\n"
        "\tjsr release_irq\n\taddq.l #4,%sp\n\tmoveq #0,%d0\n\trts\n");
void release_irq_entry(void);

void release_irq(uint32_t x) {
    x &= 3;
    KP_CUSTOM16(INTENA) = (uint16_t)(INTF_AUD0 << x);
    KP_CUSTOM16(INTREQ) = (uint16_t)(INTF_AUD0 << x);
    paula_block((uint16_t)x, (uint32_t)silence, 1);
}

static void release_vectors(uint8_t install) {
    for (uint16_t x = 0; x < 4; x++) {
        if (split[x]) continue;
        KP_CUSTOM16(INTENA) = (uint16_t)(INTF_AUD0 << x);
        if (install) {
            uint32_t code = (uint32_t)release_irq_entry;
            for (uint16_t w = 0; w < 7; w++) release_is[x][w] = 0;
            release_is[x][7] = 0;
            release_is[x][8] = x;
            release_is[x][9] = (uint16_t)(code >> 16);
            release_is[x][10] = (uint16_t)code;
            old_vector[x] = set_int_vector(INTB_AUD0 + x, release_is[x]);
        } else {
            set_int_vector(INTB_AUD0 + x, (void *)old_vector[x]);
        }
    }
}

/* ---- Notes and effects ------------------------------------------------------ */

static uint16_t clamp_note(int16_t n) { return n < 0 ? 0 : n > 35 ? 35 : (uint16_t)n; }

static uint16_t words(uint32_t bytes) { return (uint16_t)(bytes >> 1 > 0xFFFF ? 0xFFFF : bytes >> 1); }

/* Starts a note on a channel of its own: the sample from its start up to
 * the loop's end, then the loop (or silence) queued behind it. */
static void paula_note(struct channel *c, const struct sample *s) {
    uint16_t bit = (uint16_t)(1u << c->paula);
    KP_CUSTOM16(INTENA) = (uint16_t)(INTF_AUD0 << c->paula);   /* no release pending */
    paula_dma_off(bit);
    paula_block(c->paula, (uint32_t)s->data, words(s->loop_len ? s->loop_start + s->loop_len : s->length));
    paula_period(c->paula, c->period);
    paula_dma_on(bit);
    if (s->loop_len) paula_block(c->paula, (uint32_t)s->data + s->loop_start, words(s->loop_len));
    else paula_block(c->paula, (uint32_t)silence, 1);
}

static void note_on(struct channel *c, uint8_t note, uint8_t ins) {
    if (!note || ins >= sample_count) return;
    const struct sample *s = &samples[ins];
    /* Mode 1 samples are not played on split channels, mode 0 samples only there. */
    if (!s->data || s->mode == (c->voice ? 1 : 0)) return;
    c->note = (int16_t)(note > 36 ? 35 : note - 1);
    c->period = periods[c->note];
    if (c->voice) {
        swmix_voice_play(c->voice, s->data, s->length, 0, 0, 0);
    } else {
        volume[c->paula] = s->volume;
        c->sample = s;
        c->released = 0;
        paula_note(c, s);
    }
}

static void release(struct channel *c) {
    const struct sample *s = c->sample;
    if (c->voice || !s || c->released || !s->loop_len) return;
    c->released = 1;
    uint32_t from = s->loop_start + s->loop_len;
    if (from >= s->length) return;
    uint16_t x = c->paula;
    paula_block(x, (uint32_t)s->data + from, words(s->length - from));
    KP_CUSTOM16(INTREQ) = (uint16_t)(INTF_AUD0 << x);
    KP_CUSTOM16(INTENA) = (uint16_t)(INTF_SETCLR | INTF_INTEN | (INTF_AUD0 << x));
}

static void arpeggio(struct channel *c, uint8_t kind, uint8_t p) {
    int16_t n = c->note;
    uint8_t x = p >> 4, y = p & 15;
    uint16_t t = tick_count;
    if (kind == 10) {
        while (t >= 3) t = (uint16_t)(t - 3);
        n = t == 0 ? (int16_t)(n - x) : t == 1 ? n : (int16_t)(n + y);
    } else if (kind == 11) {
        t &= 3;
        n = t == 1 ? (int16_t)(n + y) : t == 3 ? (int16_t)(n - x) : n;
    } else {
        /* 0, 1, 2, 3, 1, 2, 3, ...: the first tick leaves the pitch as it was. */
        if (!t) return;
        while (t > 3) t = (uint16_t)(t - 3);
        n = t == 1 ? (int16_t)(n + x) : t == 2 ? (int16_t)(n + y) : n;
    }
    c->period = periods[clamp_note(n)];
}

/* Note slides move the note itself. */
static void note_slide(struct channel *c, int16_t d) {
    int16_t n = (int16_t)(c->note + d);
    c->note = n < -128 ? -128 : n > 127 ? 127 : n;
    c->period = periods[clamp_note(c->note)];
}

static void volume_effect(uint8_t *v, uint8_t p) {
    if (p <= 0x40) {
        *v = p;
        return;
    }
    uint8_t amount = p & 15;
    int16_t n = *v;
    switch (p >> 4) {
    case 4: n = (int16_t)(n - amount); break;
    case 5: n = (int16_t)(n + amount); break;
    case 6: if (!tick_count) n = (int16_t)(n - amount); break;
    case 7: if (!tick_count) n = (int16_t)(n + amount); break;
    default: break;
    }
    *v = (uint8_t)(n < 0 ? 0 : n > 64 ? 64 : n);
}

static void effect(struct channel *c, uint8_t fx, uint8_t p) {
    switch (fx) {
    case 1:
        if (!c->voice) c->period = c->period - p < 113 ? 113 : (uint16_t)(c->period - p);
        break;
    case 2:
        if (!c->voice) c->period = c->period + p > 856 ? 856 : (uint16_t)(c->period + p);
        break;
    case 10:
    case 11:
    case 12: arpeggio(c, fx, p); break;
    case 13: note_slide(c, (int16_t)-p); break;
    case 30: note_slide(c, p); break;
    case 21: if (!tick_count) note_slide(c, (int16_t)-p); break;
    case 17: if (!tick_count) note_slide(c, p); break;
    case 15: if (!tick_count) filter = p != 0; break;
    case 24:
        volume[c->paula] = last_volume[c->paula];
        volume_effect(&volume[c->paula], p);
        break;
    case 25:
        if (!tick_count) {
            uint16_t to = (uint16_t)(kp_mulu16(p >> 4, 10) + (p & 15));
            if (to < positions) next_position = (int16_t)to;
        }
        break;
    case 27: release(c); break;
    case 28:
        if (!tick_count && (p & (version2 ? 0x1F : 0x0F))) speed = p & (version2 ? 0x1F : 0x0F);
        break;
    case 31: volume_effect(&volume[c->paula], p); break;
    default: break;
    }
}

/* ---- Rows --------------------------------------------------------------------- */

/* The four bytes of a channel's cell in the current row (0 past the file). */
static uint32_t cell(uint16_t ch) {
    const struct pattern *p = &patterns[mod[order_at + position]];
    uint32_t at = p->at + ((kp_mulu16(row, channel_count) + ch) << 2);
    return at + 4 <= p->end ? rd32(at) : 0;
}

static void song_end(void) {
    if (!ended) {
        ended = 1;
        kp_support(globals, DTG_SongEnd, 0, 0, 0);
    }
}

/* Notes on the row's first tick, then every channel's effect. */
static void play_row(void) {
    if (!tick_count) {
        uint8_t *mark = &visited[((uint32_t)position << 5) + (row >> 3)];
        uint8_t bit = (uint8_t)(1u << (row & 7));
        if (*mark & bit) song_end();
        *mark |= bit;
        for (uint16_t ch = 0; ch < channel_count; ch++) {
            uint32_t x = cell(ch);
            note_on(&channels[ch], (uint8_t)(x >> 24), (uint8_t)(x >> 16));
        }
    }
    for (uint16_t ch = 0; ch < channel_count; ch++) {
        uint32_t x = cell(ch);
        effect(&channels[ch], (uint8_t)(x >> 8), (uint8_t)x);
    }
}

/* After the row's last tick: the next row, or the next position after a
 * jump or the pattern's end; past the last position the song starts again
 * at its starting speed. */
static void advance(void) {
    if (++tick_count < speed) return;
    tick_count = 0;
    if (next_position < 0 && ++row < patterns[mod[order_at + position]].rows) return;
    row = 0;
    position = next_position >= 0 ? (uint16_t)next_position : (uint16_t)(position + 1);
    next_position = -1;
    if (position >= positions) {
        position = 0;
        speed = start_speed;
    }
}

static void output(void) {
    for (uint16_t ch = 0; ch < channel_count; ch++) {
        struct channel *c = &channels[ch];
        if (c->voice) swmix_voice_period(c->voice, c->period);
        else if (c->sample) paula_period(c->paula, c->period);
    }
    if (mixer_count) swmix_tick(mixer_list, mixer_count, MIX_BYTES);
    for (uint16_t x = 0; x < 4; x++) {
        paula_volume(x, volume[x]);
        last_volume[x] = volume[x];
    }
    paula_filter(filter);
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
    format_name = version2 ? format_okt2 : format_okt;

    /* Tracker channels in order: a channel of its own, or the two voices of
     * a split Paula channel. */
    mixer_count = 0;
    uint16_t ch = 0;
    for (uint16_t x = 0; x < 4; x++) {
        for (uint16_t k = 0; k < (uint16_t)(split[x] ? 2 : 1); k++, ch++) {
            struct channel *c = &channels[ch];
            uint8_t *b = (uint8_t *)c;
            for (uint32_t i = 0; i < sizeof *c; i++) b[i] = 0;
            b = (uint8_t *)&voices[ch];
            for (uint32_t i = 0; i < sizeof voices[ch]; i++) b[i] = 0;
            c->paula = (uint8_t)x;
            c->period = periods[0];
            if (split[x]) {
                c->voice = &voices[ch];
                c->voice->volume = 64;
            }
        }
        if (split[x]) {
            swmix_voice *pair[2] = {&voices[ch - 2], &voices[ch - 1]};
            swmix_channel *mx = &mixers[mixer_count];
            swmix_channel_init(mx, x, pair, 2);
            mx->shift = 6;      /* the two 7-bit voices add up to 8 bits */
            mx->saturate = 1;
            mixer_list[mixer_count++] = mx;
        }
        volume[x] = last_volume[x] = 64;
    }
    for (uint32_t i = 0; i < sizeof visited; i++) visited[i] = 0;
    ended = 0;
    speed = start_speed;
    tick_count = 0;
    row = position = 0;
    next_position = -1;
    filter = 0;
    ready = 1;
    return 0;
}

KELVA_ROUTINE(init_sound) {
    (void)g;
    (void)d0;
    if (!ready) return 0;
    if (!vectors_set) {
        release_vectors(1);
        vectors_set = 1;
    }
    if (mixer_count && !mixing) {
        swmix_tick_start(mixer_list, mixer_count, MIX_PERIOD);
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
    if (vectors_set) {
        release_vectors(0);
        vectors_set = 0;
    }
    paula_stop();
    return 0;
}

KELVA_ROUTINE(tick) {
    (void)g;
    (void)d0;
    if (!ready) return 0;
    play_row();
    output();
    advance();
    return 0;
}

static const char player_name[] = "Oktalyzer";
static const char creator[] = "kelva: Oktalyzer replay, split channels mixed in software";

const uint32_t tags[] = {
    DTP_PlayerName, (uint32_t)player_name,
    DTP_Creator, (uint32_t)creator,
    DTP_PlayerVersion, 0x00010000,
    DTP_Check2, (uint32_t)check2_entry,
    DTP_InitPlayer, (uint32_t)init_player_entry,
    DTP_InitSound, (uint32_t)init_sound_entry,
    DTP_EndSound, (uint32_t)end_sound_entry,
    DTP_Interrupt, (uint32_t)tick_entry,
    DTP_ModuleName, (uint32_t)&no_title,
    DTP_FormatName, (uint32_t)&format_name,
    EP_Flags, EPF_Songend,
    0,
};

KELVA_PLAYER_HEADER(tags);
