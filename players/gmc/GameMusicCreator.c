/* GameMusicCreator: kelva's player for Game Music Creator modules.
 *
 * Layout (big-endian):
 *
 *   0      15 sample headers of 16 bytes: the sample's address in the
 *          tracker's memory (long), length in words, volume (word, 0..64),
 *          the loop's address (long), loop length in words, a spare word
 *   240    long: number of positions (1..100)
 *   244    100 words: each position's pattern as a byte offset (a multiple
 *          of 1024) into the patterns
 *   444    patterns of 64 rows x 4 channels x 4 bytes, then the sample
 *          data of the samples with a length, one after the other
 *
 * A cell is the period (word), the sample number in the high nibble of the
 * third byte with the effect in its low nibble, and the parameter.
 *
 * The replay: every tick, each channel's period moves by its slide and the
 * period and volume are written to Paula; every `speed` ticks (6 at the
 * start) a row is read. Only a cell with a sample number starts a note: the
 * cell's period, the sample's volume, the slide stopped; the channel is
 * silent until the next tick writes its volume. The effects act once, on
 * their row:
 *
 *   1xx  slide up: the period falls by xx per tick (until the next note)
 *   2xx  slide down: the period rises by xx per tick
 *   3xx  volume xx (at most 64)
 *   4xx  pattern break: the next row is the next position's first
 *   5xx  position jump: the next row is position xx's first
 *   6xx  filter on, 7xx filter off
 *   8xx  speed: a row every xx ticks
 */
#include "kelva_player.h"
#include "kp_math.h"
#include "paula.h"

struct sample {
    uint32_t start;      /* 0: no data */
    uint16_t words;
    uint32_t loop;       /* loop address, or the silent block */
    uint16_t loop_words;
    uint8_t volume;
};

struct voice {
    uint16_t period;
    int16_t slide;
    uint8_t volume;
};

static const uint16_t silence[2] __attribute__((aligned(4))) = {0, 0};

static const volatile uint8_t *mod;
static uint32_t mod_size;
static uint8_t positions;
static uint8_t orders[100];
static struct sample samples[16];   /* 1-based */
static struct voice voices[4];
static uint8_t ready;
static uint8_t speed, counter, row;
static int16_t position;
static struct song_marks marks;
static kp_globals globals;

static uint16_t rd16(uint32_t o) { return (uint16_t)(mod[o] << 8 | mod[o + 1]); }
static uint32_t rd32(uint32_t o) { return (uint32_t)rd16(o) << 16 | rd16(o + 2); }

/* Reads the layout; 0 when the module can be played. */
static uint32_t layout(const volatile uint8_t *m, uint32_t size) {
    mod = m;
    mod_size = size;
    if (size < 444) return 1;
    uint32_t count = rd32(240);
    if (count == 0 || count > 100) return 1;
    uint8_t highest = 0;
    positions = 0;
    for (uint16_t i = 0; i < count; i++) {
        uint16_t o = rd16(244 + 2 * (uint32_t)i);
        if (o & 0x3FF) return 1;
        if (o & 0x8000) continue;   /* not a pattern: the position is left out */
        orders[positions++] = (uint8_t)(o >> 10);
        if ((o >> 10) > highest) highest = (uint8_t)(o >> 10);
    }
    if (positions == 0) return 1;
    uint32_t data = 444 + ((uint32_t)(highest + 1) << 10);
    if (data > size) return 1;

    for (uint16_t i = 1; i <= 15; i++) {
        uint32_t h = (uint32_t)(i - 1) << 4;
        uint32_t addr = rd32(h), loop_addr = rd32(h + 8);
        uint16_t words = rd16(h + 4), vol = rd16(h + 6), loop_words = rd16(h + 12);
        if (addr > 0xF8000UL || words >= 0x8000 || vol > 64) return 1;
        if (words && !addr) return 1;
        if (loop_addr && (loop_addr > 0xF8000UL || !addr || !words)) return 1;
        struct sample *s = &samples[i];
        s->volume = (uint8_t)vol;
        uint32_t bytes = (uint32_t)words << 1, avail = data < size ? size - data : 0;
        uint32_t len = bytes > avail ? avail & ~(uint32_t)1 : bytes;
        s->start = len ? (uint32_t)mod + data : 0;
        s->words = (uint16_t)(len >> 1);
        /* The loop's address counts from the sample's in the tracker's
         * memory; a loop of two words or less is none. */
        uint32_t loop_bytes = (uint32_t)loop_words << 1;
        if (s->start && loop_words > 2 && loop_addr >= addr && loop_addr - addr < len) {
            uint32_t from = (loop_addr - addr) & ~(uint32_t)1;
            if (loop_bytes > len - from) loop_bytes = len - from;
            s->loop = s->start + from;
            s->loop_words = (uint16_t)(loop_bytes >> 1);
        } else {
            s->loop = (uint32_t)silence;
            s->loop_words = 1;
        }
        data += bytes;
    }
    return 0;
}

/* One channel's cell. */
static void play_cell(uint16_t c, uint32_t at) {
    struct voice *v = &voices[c];
    uint8_t b2 = 0, param = 0;
    uint16_t period = 0;
    if (at + 4 <= mod_size) {
        period = rd16(at);
        b2 = mod[at + 2];
        param = mod[at + 3];
    }
    uint8_t n = b2 >> 4;
    if (n) {
        const struct sample *s = &samples[n];
        v->period = period;
        v->volume = s->volume;
        v->slide = 0;
        paula_dma_off((uint16_t)(1u << c));
        if (s->start) {
            paula_block(c, s->start, s->words);
            paula_volume(c, 0);
            paula_period(c, period);
            paula_dma_on((uint16_t)(1u << c));
            paula_block(c, s->loop, s->loop_words);
        }
    }
    switch (b2 & 15) {
    case 1: v->slide = (int16_t)-param; break;
    case 2: v->slide = param; break;
    case 3: v->volume = param > 64 ? 64 : param; break;
    case 4: row = 63; break;
    case 5:
        position = (int16_t)(param - 1);
        row = 63;
        break;
    case 6: paula_filter(1); break;
    case 7: paula_filter(0); break;
    case 8: speed = param; break;
    default: break;
    }
}

static void next_row(void) {
    if (++row >= 64) {
        row = 0;
        if (++position >= positions || position < 0) position = 0;
        song_marks_visit(&marks, globals, (uint8_t)position);
    }
    uint32_t at = 444 + ((uint32_t)orders[position] << 10) + ((uint32_t)row << 4);
    for (uint16_t c = 0; c < 4; c++) play_cell(c, at + 4 * c);
}

KELVA_ROUTINE(check2) {
    (void)d0;
    return layout((const volatile uint8_t *)kp_g32(g, DTG_ChkData), kp_g32(g, DTG_ChkSize));
}

KELVA_ROUTINE(init_player) {
    (void)d0;
    globals = g;
    ready = 0;
    if (layout((const volatile uint8_t *)kp_g32(g, DTG_ChkData), kp_g32(g, DTG_ChkSize))) return 1;
    uint8_t *p = (uint8_t *)voices;
    for (uint32_t i = 0; i < sizeof voices; i++) p[i] = 0;
    speed = 6;
    counter = 5;   /* the first tick reads row 0 of position 0 */
    row = 63;
    position = -1;
    song_marks_clear(&marks);
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
    (void)g;
    (void)d0;
    if (!ready) return 0;
    for (uint16_t c = 0; c < 4; c++) {
        struct voice *v = &voices[c];
        v->period = (uint16_t)(v->period + v->slide);
        paula_period(c, v->period);
        paula_volume(c, v->volume);
    }
    if (++counter >= speed) {
        counter = 0;
        next_row();
    }
    return 0;
}

static const char player_name[] = "GameMusicCreator";
static const char creator[] = "kelva: Game Music Creator replay";
static const char format[] = "Game Music Creator";
static const char *format_name = format;
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
