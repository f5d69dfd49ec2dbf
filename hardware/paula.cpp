// Paula's four audio DMA channels: start and stop from DMACON, queueing of
// the next block from AUDxLC/AUDxLEN, and how many output frames remain
// until a channel passes the end of its block. The per-tick sample fetch is
// inline in hardware/paula_fetch.h, shared with the mixer.
#include <cstring>

#include "engine/engine.h"
#include "hardware/paula_fetch.h"

namespace {

// Block length in bytes of the latched AUDxLEN (0 = 65536 words), clamped
// so that the block never reaches past the top of the 16 MiB RAM array: a
// block starting at `offset` keeps at most kRamSize - offset bytes. Real
// chip memory would wrap around; stopping at the top instead keeps every
// fetch inside the array without masking each sample index. The result is
// at least 1 because offset < kRamSize.
uint32_t block_len(const audio_latch &a, uint32_t offset) {
    uint32_t len = a.len ? uint32_t(a.len) * 2 : 0x20000;
    uint32_t room = kRamSize - offset;
    return len < room ? len : room;
}

}  // namespace

uint64_t paula_step(uint16_t period) {
    if (period == 0) return 0;                  // no period: the channel is left out
    if (period < 113) period = 113;             // the DMA cannot fetch faster than this
    return uint64_t(period) << 16;
}

void paula_reset(kelva *k) {
    paula_mixer &m = k->mix;
    memset(&m, 0, sizeof m);
    m.rate = k->rate;
    m.clock = kPaulaClock;
    m.frame_ticks = k->rate / 50;
    m.model = k->model == 1;
    paula_recalc(&m);
    m.led_on = 1;
    memset(k->ch, 0, sizeof k->ch);
    memset(k->aud, 0, sizeof k->aud);
}

void paula_dma_start(kelva *k, int x) {
    paula_channel &c = k->ch[x];
    audio_latch &a = k->aud[x];
    uint32_t offset = a.lc & kAddrMask;
    uint32_t len = block_len(a, offset);
    c.data = k->ram + offset;
    c.end = len;
    c.pos = c.backward ? len - 1 : 0;
    c.loop_start = 0;
    c.loop_len = len;
    c.phase = 0;
    c.queued = 0;
    c.next_data = nullptr;
    c.block_done = 0;
    c.active = 1;
    c.sample = int8_t(c.data[c.pos]);
    a.dma_running = 1;
    c.step = paula_step(a.per);
    c.volume = uint16_t(a.vol < 64 ? a.vol : 64);
}

void paula_dma_stop(kelva *k, int x) {
    // Position and queued block stay as they were; the next start overwrites them.
    k->ch[x].active = 0;
    k->aud[x].dma_running = 0;
}

void channel_queue(kelva *k, int x) {
    paula_channel &c = k->ch[x];
    const audio_latch &a = k->aud[x];
    uint32_t offset = a.lc & kAddrMask;
    uint32_t len = block_len(a, offset);
    const uint8_t *p = k->ram + offset;
    if (c.active) {
        // The block now playing finishes first; the switch happens at its end.
        c.next_data = p;
        c.next_start = 0;
        c.next_len = len;
        c.queued = 1;
    } else {
        // DMA is on but the channel ran out of a non-looping block: start now.
        c.data = p;
        c.pos = 0;
        c.end = len;
        c.queued = 0;
        c.next_data = nullptr;
        c.phase = 0;
        c.active = 1;
        c.sample = int8_t(p[0]);
    }
    // Without a further queue, a repeat pass replays the newest block.
    c.loop_start = 0;
    c.loop_len = len;
}

int32_t paula_frames_to_block_end(const kelva *k, int x) {
    const paula_channel &c = k->ch[x];
    if (!c.active || c.muted || !c.data || !c.step) return 0;
    // Sample advances until the block's last byte has been passed.
    uint64_t advances;
    if (!c.backward) {
        advances = c.end > c.pos ? uint64_t(c.end - c.pos) : 1;
    } else if (c.loop_len > 0 && c.pos > 0 && c.pos > c.loop_start) {
        advances = uint64_t(c.pos - c.loop_start) + 1;
    } else if (c.loop_len > 0 && c.pos > 0) {
        advances = 1;
    } else {
        advances = uint64_t(c.pos) + 1;
    }
    // Each tick adds 0x10000 to phase; an advance happens per `step`.
    uint64_t need = advances * c.step;
    if (need <= c.phase) return 1;
    uint64_t ticks = (need - c.phase + 0xFFFF) >> 16;
    // Frame f ends after (tick_frac + f * ticks_per_frame) >> 16 ticks.
    const paula_mixer &m = k->mix;
    if (m.ticks_per_frame < 0x10000) {
        // Output rate above the Paula clock: every frame runs at least one tick.
        return ticks > 0x7FFFFFFF ? 0x7FFFFFFF : int32_t(ticks ? ticks : 1);
    }
    uint64_t target = ticks << 16;
    uint64_t frac = m.tick_frac & 0xFFFF;
    uint64_t frames = target > frac ? (target - frac + m.ticks_per_frame - 1) / m.ticks_per_frame : 1;
    if (frames < 1) frames = 1;
    return frames > 0x7FFFFFFF ? 0x7FFFFFFF : int32_t(frames);
}
