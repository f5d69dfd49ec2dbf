/* paula.h - driving Paula's four channels directly, for kelva's players of
 * the four-channel trackers (SoundFX, Game Music Creator, Images Music
 * System), and the song-end bookkeeping they share.
 *
 * A note starts the way the trackers' replays started one: the channel's
 * DMA off, the sample's first block written to AUDxLC/AUDxLEN with the
 * period, the DMA of all started channels back on at once, and then the
 * loop written to AUDxLC/AUDxLEN, which Paula queues behind the block it
 * plays. A sample without a loop is followed by a short silent block that
 * repeats (the player's own two zero words, so the module is never
 * written to). */
#ifndef KELVA_PAULA_H
#define KELVA_PAULA_H

#include "kelva_player.h"

/* Paula cannot fetch samples faster than about one per 124 clocks; the
 * trackers limited their slides at 113. Periods written below that (a
 * slide run wild) are played at 113. */
#define PAULA_MIN_PERIOD 113

static inline volatile uint16_t *paula_regs(uint16_t ch) {
    return (volatile uint16_t *)(CUSTOM + AUD0LC + ((uint32_t)ch << 4));
}

/* AUDxLC/AUDxLEN: a block of `words` words at `addr`. */
static inline void paula_block(uint16_t ch, uint32_t addr, uint16_t words) {
    volatile uint16_t *r = paula_regs(ch);
    *(volatile uint32_t *)r = addr;
    r[2] = words;
}

static inline void paula_period(uint16_t ch, uint16_t period) {
    paula_regs(ch)[3] = period < PAULA_MIN_PERIOD ? PAULA_MIN_PERIOD : period;
}

static inline void paula_volume(uint16_t ch, uint16_t volume) { paula_regs(ch)[4] = volume > 64 ? 64 : volume; }

/* DMA off for the channels in `mask` (bit 0 = channel 0). */
static inline void paula_dma_off(uint16_t mask) { KP_CUSTOM16(DMACON) = mask; }
static inline void paula_dma_on(uint16_t mask) {
    if (mask) KP_CUSTOM16(DMACON) = (uint16_t)(DMAF_SETCLR | mask);
}

/* The low-pass ("LED") filter: CIA-A port A bit 1, 0 = on. */
static inline void paula_filter(int on) {
    volatile uint8_t *pra = (volatile uint8_t *)CIAA;
    *pra = (uint8_t)(on ? (*pra & 0xFD) : (*pra | 0x02));
}

/* Silences the four channels. */
static inline void paula_stop(void) {
    KP_CUSTOM16(DMACON) = 0x000F;
    for (uint16_t c = 0; c < 4; c++) paula_regs(c)[4] = 0;
}

/* One bit per song position (at most 256): a position played a second
 * time is the song's end, which is reported once through DTG_SongEnd. */
struct song_marks {
    uint8_t seen[32];
    uint8_t ended;
};

static inline void song_marks_clear(struct song_marks *m) {
    for (uint16_t i = 0; i < sizeof m->seen; i++) m->seen[i] = 0;
    m->ended = 0;
}

/* Marks position `pos`; reports the end when it was marked before. */
static inline void song_marks_visit(struct song_marks *m, kp_globals g, uint8_t pos) {
    uint8_t bit = (uint8_t)(1u << (pos & 7));
    if ((m->seen[pos >> 3] & bit) && !m->ended) {
        m->ended = 1;
        kp_support(g, DTG_SongEnd, 0, 0, 0);
    }
    m->seen[pos >> 3] |= bit;
}

/* The tick rate for CIA timer value `t` from the next tick on (the engine
 * sets its 50 Hz rate after the start-up routines, so players ask for their
 * own on their first tick). */
static inline void set_tick_timer(kp_globals g, uint16_t t) {
    *(volatile uint16_t *)(g + DTG_Timer) = t;
    kp_support(g, DTG_SetTimer, 0, 0, 0);
}

#endif
