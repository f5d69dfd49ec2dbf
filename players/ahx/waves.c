/* waves.c - the waveforms, generated into chip memory.
 *
 * Sixty-three sets of waveforms lie one after the other, one per filter
 * position: set 32 holds the plain waves, sets 1..31 their low-pass and
 * 33..63 their high-pass versions, from a low cut-off to a high one. A set
 * holds:
 *   - the triangle and the sawtooth in six lengths (4, 8, .., 128 bytes);
 *   - 32 squares of 128 bytes whose high part is 2, 4, .., 64 bytes long;
 *   - the squares at the shorter lengths, taken from those by skipping
 *     samples (every 32nd for 4 bytes, every 2nd for 64);
 *   - 3 x 0x280 bytes of white noise.
 * Paula plays a waveform by looping over it. A wave shorter than
 * WAVE_BLOCK bytes is stored repeated up to WAVE_BLOCK bytes, so that a
 * high note does not end a DMA block every few samples.
 *
 * Set 32 is made when the player starts. The filtered sets are made piece
 * by piece the first time a voice asks for them: most songs sweep the filter
 * over a few instruments only, and one piece costs a few thousand
 * instructions, while all 62 sets would cost millions at every start.
 *
 * The filter is a state-variable filter, clipped to 8 bits at each stage,
 * run twice over the plain wave: the first pass brings its state to where
 * the looping wave keeps it, the second writes the output. Its low-pass
 * output makes the low set and its high-pass output the high set at the
 * same cut-off.
 * The coefficient of filter k (0..30) is (8 + 3k) / 80, here in 1/4096. */
#include "ahx.h"

#include "kp_math.h"

#define WAVE_BLOCK 128   /* also the longest wave */

/* The layout of one set. */
#define OFF_TRI 0u
#define OFF_SAW (OFF_TRI + 6 * WAVE_BLOCK)
#define OFF_SQUARE (OFF_SAW + 6 * WAVE_BLOCK)       /* 32 x 128 */
#define OFF_SHORT_SQUARE (OFF_SQUARE + 32 * 128)    /* 5 lengths x 32 widths x WAVE_BLOCK */
#define OFF_NOISE (OFF_SHORT_SQUARE + 5 * 32 * WAVE_BLOCK)
#define NOISE_BYTES (3 * AHX_NOISE_BLOCK)
#define SET_BYTES (OFF_NOISE + NOISE_BYTES)

/* Pieces that the filter makes: 6 triangles, 6 sawtooths, 32 squares, the
 * noise. */
#define PIECE_SAW 6
#define PIECE_SQUARE 12
#define PIECE_NOISE 44
#define PIECES 45

const uint16_t ahx_period_table[61] = {
    0,    3424, 3232, 3048, 2880, 2712, 2560, 2416, 2280, 2152, 2032, 1920, 1812, 1712, 1616, 1524,
    1440, 1356, 1280, 1208, 1140, 1076, 1016, 960,  906,  856,  808,  762,  720,  678,  640,  604,
    570,  538,  508,  480,  453,  428,  404,  381,  360,  339,  320,  302,  285,  269,  254,  240,
    226,  214,  202,  190,  180,  170,  160,  151,  143,  135,  127,  120,  113,
};

static int8_t *waves;                      /* SET_BYTES x 63 */
static uint8_t piece_done[31][PIECES];     /* per filter 0..30: its low and high pieces exist */
static uint8_t short_done[63][5][4];       /* bit per width: the short squares exist */
static uint16_t coefficient[31];

static inline int8_t *set_of(uint8_t filter) { return waves + kp_mulu16((uint16_t)(filter - 1), SET_BYTES); }

/* Where a piece lies in its set, and its length. */
static uint16_t piece_offset(uint8_t piece) {
    if (piece < PIECE_SAW) return (uint16_t)(OFF_TRI + piece * WAVE_BLOCK);
    if (piece < PIECE_SQUARE) return (uint16_t)(OFF_SAW + (piece - PIECE_SAW) * WAVE_BLOCK);
    if (piece < PIECE_NOISE) return (uint16_t)(OFF_SQUARE + ((piece - PIECE_SQUARE) << 7));
    return OFF_NOISE;
}

static uint16_t piece_length(uint8_t piece) {
    if (piece < PIECE_SQUARE) return (uint16_t)(4u << (piece < PIECE_SAW ? piece : piece - PIECE_SAW));
    if (piece < PIECE_NOISE) return 128;
    return NOISE_BYTES;
}

/* Repeats the first `len` bytes of a wave up to WAVE_BLOCK bytes. */
static void repeat(int8_t *w, uint16_t len) {
    for (uint16_t i = len; i < WAVE_BLOCK; i++) w[i] = w[i - len];
}

/* ---- The plain waves ---------------------------------------------------- */

static void make_sawtooth(int8_t *w, uint16_t len) {
    int16_t add = (int16_t)kp_divu16(256, (uint16_t)(len - 1)), v = -128;
    for (uint16_t i = 0; i < len; i++, v = (int16_t)(v + add)) w[i] = (int8_t)v;
}

/* A quarter rises from 0 in steps of 128 / (len / 4), peaks at 127 and
 * falls back; the second half is the first one negated (127 becomes -128). */
static void make_triangle(int8_t *w, uint16_t len) {
    uint16_t quarter = len >> 2, n = 0;
    int16_t step = (int16_t)kp_divu16(128, quarter), v = 0;
    for (uint16_t i = 0; i < quarter; i++, v = (int16_t)(v + step)) w[n++] = (int8_t)v;
    w[n++] = 127;
    v = 128;
    for (uint16_t i = 1; i < quarter; i++) {
        v = (int16_t)(v - step);
        w[n++] = (int8_t)v;
    }
    for (uint16_t i = 0; i < (uint16_t)(quarter << 1); i++) {
        int8_t c = w[i];
        w[n++] = c == 127 ? (int8_t)-128 : (int8_t)-c;
    }
}

/* Square k (0..31): 2 x (63 - k) bytes low, then 2 x (k + 1) bytes high. */
static void make_squares(int8_t *w) {
    for (uint16_t k = 1; k <= 32; k++) {
        for (uint16_t j = 0; j < (uint16_t)((64 - k) << 1); j++) *w++ = -128;
        for (uint16_t j = 0; j < (uint16_t)(k << 1); j++) *w++ = 127;
    }
}

static inline uint32_t ror32(uint32_t x, uint16_t n) { return (x >> n) | (x << (32 - n)); }

/* White noise from a shift-and-add generator: a sample is the generator's
 * low byte, or full scale when its bit 8 is set. */
static void make_noise(int8_t *w) {
    uint32_t s = 0x41595321;
    for (uint16_t i = 0; i < NOISE_BYTES; i++) {
        w[i] = (s & 0x100) ? 127 : (int8_t)s;
        s = ror32(s, 5) ^ 0x9A;
        uint16_t bx = (uint16_t)s;
        s = ror32(s, 30);
        uint16_t ax = (uint16_t)s;
        bx = (uint16_t)(bx + ax);
        ax ^= bx;
        s = (s & 0xFFFF0000u) | ax;
        s = ror32(s, 3);
    }
}

/* ---- Filtered pieces ----------------------------------------------------- */

static inline int32_t clip(int32_t x) {
    if (x > 127 * 256) return 127 * 256;
    if (x < -128 * 256) return -128 * 256;
    return x;
}

/* 8.8 to a sample, rounding towards zero. */
static inline int8_t sample_of(int32_t x) { return (int8_t)((x < 0 ? x + 255 : x) >> 8); }

static void make_filtered(uint8_t k, uint8_t piece) {
    uint16_t off = piece_offset(piece), len = piece_length(piece);
    const int8_t *in = set_of(32) + off;
    int8_t *low = set_of((uint8_t)(k + 1)) + off, *high = set_of((uint8_t)(k + 33)) + off;
    int16_t f = (int16_t)coefficient[k];
    int32_t mid = 0, lo = 0, hi = 0;
    for (uint16_t pass = 0; pass < 2; pass++) {
        for (uint16_t i = 0; i < len; i++) {
            hi = clip(((int32_t)in[i] << 8) - mid - lo);
            mid = clip(mid + (kp_muls16((int16_t)hi, f) >> 12));
            lo = clip(lo + (kp_muls16((int16_t)mid, f) >> 12));
            if (pass) {
                low[i] = sample_of(lo);
                high[i] = sample_of(hi);
            }
        }
    }
    if (len < WAVE_BLOCK) {
        repeat(low, len);
        repeat(high, len);
    }
    piece_done[k][piece] = 1;
}

static inline uint8_t clamp_filter(uint8_t filter) { return filter < 1 ? 1 : filter > 63 ? 63 : filter; }

/* The set of `filter` (1..63) with `piece` made. */
static int8_t *piece_set(uint8_t filter, uint8_t piece) {
    if (filter != 32) {
        uint8_t k = (uint8_t)(filter < 32 ? filter - 1 : filter - 33);
        if (!piece_done[k][piece]) make_filtered(k, piece);
    }
    return set_of(filter);
}

/* ---- Interface ---------------------------------------------------------- */

uint32_t ahx_waves_init(void) {
    waves = ahx_alloc((uint32_t)SET_BYTES * 63);
    if (!waves) return 1;
    for (uint16_t k = 0; k < 31; k++) {
        coefficient[k] = kp_divu16((uint32_t)(8 + 3 * k) * 512 + 5, 10);
        for (uint16_t p = 0; p < PIECES; p++) piece_done[k][p] = 0;
    }
    uint8_t *d = &short_done[0][0][0];
    for (uint16_t i = 0; i < sizeof short_done; i++) d[i] = 0;
    int8_t *s = set_of(32);
    for (uint8_t wl = 0; wl < 6; wl++) {
        uint16_t len = (uint16_t)(4u << wl);
        make_triangle(s + OFF_TRI + wl * WAVE_BLOCK, len);
        make_sawtooth(s + OFF_SAW + wl * WAVE_BLOCK, len);
        repeat(s + OFF_TRI + wl * WAVE_BLOCK, len);
        repeat(s + OFF_SAW + wl * WAVE_BLOCK, len);
    }
    make_squares(s + OFF_SQUARE);
    make_noise(s + OFF_NOISE);
    return 0;
}

const int8_t *ahx_wave(uint8_t filter, uint8_t waveform, uint8_t wave_length) {
    uint8_t piece = (uint8_t)((waveform == AHX_WAVE_SAWTOOTH ? PIECE_SAW : 0) + wave_length);
    return piece_set(clamp_filter(filter), piece) + piece_offset(piece);
}

const int8_t *ahx_square(uint8_t filter, uint8_t width, uint8_t wave_length) {
    uint8_t piece = (uint8_t)(PIECE_SQUARE + width);
    filter = clamp_filter(filter);
    int8_t *set = piece_set(filter, piece);
    if (wave_length >= 5) return set + piece_offset(piece);
    int8_t *w = set + OFF_SHORT_SQUARE + (uint16_t)((wave_length * 32 + width) * WAVE_BLOCK);
    uint8_t *done = &short_done[filter - 1][wave_length][width >> 3];
    uint8_t bit = (uint8_t)(1u << (width & 7));
    if (!(*done & bit)) {
        const int8_t *src = set + piece_offset(piece);
        uint16_t len = (uint16_t)(4u << wave_length), skip = (uint16_t)(32u >> wave_length);
        for (uint16_t i = 0; i < len; i++, src += skip) w[i] = *src;
        repeat(w, len);
        *done |= bit;
    }
    return w;
}

const int8_t *ahx_noise(uint8_t filter) { return piece_set(clamp_filter(filter), PIECE_NOISE) + OFF_NOISE; }
