/* am.c - Startrekker's AM synth instruments for kelva's ProTracker-family
 * players.
 *
 * Startrekker keeps what its module file cannot hold in a companion file
 * named like the module plus ".nt": a 16-byte identification ("ST1.2
 * ModuleINFO", "ST1.3 ModuleINFO" or "AudioSculpture10"), then from offset
 * 144 one record of 120 bytes per instrument. A record that begins "AM"
 * makes the instrument an AM synth sound: a looping waveform whose volume
 * follows an envelope, one step a tick (replay.c). Its words, big-endian,
 * from offset 6 of the record:
 *
 *     6 L0    start level (0..255)        22 (unused)
 *     8 A1L   first attack level          24 RS     release rate
 *    10 A1S   first attack rate           26 WF     0 sine, 1 ramp, 2 square, 3 noise
 *    12 A2L   second attack level         28 P.FALL period change per tick (signed)
 *    14 A2S   second attack rate          30 V.AMP  vibrato depth
 *    16 SL    sustain level               32 V.SPD  vibrato speed
 *    18 DS    decay rate                  34 FQ     octaves below the note
 *    20 ST    sustain time (ticks)
 *
 * A record with a waveform number above 3 is not an AM sound. A record
 * cut short by the end of the file reads as 0 past it. The instrument's
 * sample header in the module still counts for where the following
 * samples lie, but the AM sound takes its place. */
#include "replay.h"

#define NT_RECORDS 144
#define NT_RECORD_SIZE 120

/* The waveforms, 32 bytes each, and 1 KB of noise made at start-up. */
static const int8_t am_waves[3][32] __attribute__((aligned(2))) = {
    {0, 25, 49, 71, 90, 106, 117, 125, 127, 125, 117, 106, 90, 71, 49, 25,
     0, -25, -49, -71, -90, -106, -117, -125, -127, -125, -117, -106, -90, -71, -49, -25},
    {-128, -120, -112, -104, -96, -88, -80, -72, -64, -56, -48, -40, -32, -24, -16, -8,
     0, 8, 16, 24, 32, 40, 48, 56, 64, 72, 80, 88, 96, 104, 112, 120},
    {-128, -128, -128, -128, -128, -128, -128, -128, -128, -128, -128, -128, -128, -128, -128, -128,
     127, 127, 127, 127, 127, 127, 127, 127, 127, 127, 127, 127, 127, 127, 127, 127},
};
static int8_t am_noise[1024] __attribute__((aligned(2)));

static const char *const nt_ids[3] = {"ST1.2 ModuleINFO", "ST1.3 ModuleINFO", "AudioSculpture10"};

/* GetListData: the address of loaded file `i` (0 = the module); its size. */
static uint32_t list_data(kp_globals g, uint32_t i, uint32_t *size) {
    register uint32_t d0 __asm__("d0") = i;
    register uint32_t a0 __asm__("a0") = 0;
    register uint32_t a1 __asm__("a1") = kp_g32(g, DTG_GetListData);
    __asm__ volatile("jsr (%%a1)" : "+d"(d0), "+a"(a0), "+a"(a1) : : "d1", "memory", "cc");
    *size = d0;
    return a0;
}

uint32_t ptk_am_ext_load(kp_globals g) {
    static const char suffix[] = ".nt";
    volatile char *path = (volatile char *)kp_g32(g, DTG_PathArrayPtr);
    if (!path) return 0;
    path[0] = 0;
    kp_support(g, DTG_CopyDir, 0, 0, 0);
    kp_support(g, DTG_CopyFile, 0, 0, 0);
    kp_support(g, DTG_CopyString, 0, 0, (uint32_t)suffix);
    kp_support(g, DTG_LoadFile, 0, 0, 0);   /* the host matches the name's case */
    return 0;
}

/* A big-endian word of the file, 0 past its end. */
static uint16_t nt_word(const volatile uint8_t *nt, uint32_t size, uint32_t at) {
    if (at + 2 > size) return 0;
    return (uint16_t)((nt[at] << 8) | nt[at + 1]);
}

uint32_t ptk_am_load(kp_globals g, struct ptk_am table[32]) {
    for (uint32_t i = 0; i < 32; i++) table[i].wave = 0;
    uint32_t size = 0;
    const volatile uint8_t *nt = (const volatile uint8_t *)list_data(g, 1, &size);
    if (!nt || size < NT_RECORDS) return 0;
    uint32_t id = 0;
    for (; id < 3; id++) {
        const char *t = nt_ids[id];
        uint32_t k = 0;
        while (k < 16 && nt[k] == (uint8_t)t[k]) k++;
        if (k == 16) break;
    }
    if (id == 3) return 0;

    /* Noise: a 16-bit xorshift, the same bytes every time. */
    uint16_t x = 0xACE1;
    for (uint32_t i = 0; i < sizeof am_noise; i++) {
        x ^= (uint16_t)(x << 7);
        x ^= (uint16_t)(x >> 9);
        x ^= (uint16_t)(x << 8);
        am_noise[i] = (int8_t)x;
    }

    uint32_t found = 0;
    uint32_t r = NT_RECORDS;
    for (uint32_t i = 1; i <= 31; i++, r += NT_RECORD_SIZE) {
        if (r + 28 > size || nt[r] != 'A' || nt[r + 1] != 'M') continue;
        uint16_t wf = nt_word(nt, size, r + 26);
        if (wf > 3) continue;
        struct ptk_am *a = &table[i];
        a->l0 = nt_word(nt, size, r + 6);
        a->a1l = nt_word(nt, size, r + 8);
        a->a1s = nt_word(nt, size, r + 10);
        a->a2l = nt_word(nt, size, r + 12);
        a->a2s = nt_word(nt, size, r + 14);
        a->sl = nt_word(nt, size, r + 16);
        a->ds = nt_word(nt, size, r + 18);
        a->st = nt_word(nt, size, r + 20);
        a->rs = nt_word(nt, size, r + 24);
        a->pfall = (int16_t)nt_word(nt, size, r + 28);
        a->vamp = (int16_t)nt_word(nt, size, r + 30);
        a->vspd = (int16_t)nt_word(nt, size, r + 32);
        uint16_t fq = nt_word(nt, size, r + 34);
        a->fq = (uint8_t)(fq > 6 ? 6 : fq);
        if (wf < 3) {
            a->wave = am_waves[wf];
            a->wave_words = 16;
        } else {
            a->wave = am_noise;
            a->wave_words = sizeof am_noise / 2;
        }
        found++;
    }
    return found;
}
