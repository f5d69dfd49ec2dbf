// The per-tick sample fetch of one Paula audio channel, inline because the
// mixer runs it for every channel on every Paula clock tick. Tests use it
// directly to step a channel without the filters.
#pragma once

#include "hardware/hardware.h"

// Moves the channel one sample on: forward towards `end`, or backward
// towards the block start. Passing the last byte of a block sets
// `block_done` (where Paula raises AUDx) and switches to the queued block,
// repeats the loop, or stops the channel when there is no repeat. Returns
// false when the channel stopped. Every index stays below the length of the
// block `data` points to, which the DMA code keeps inside RAM.
inline bool paula_advance(paula_channel &c) {
    if (!c.backward) {
        uint32_t p = c.pos + 1;
        if (p < c.end) {
            c.pos = p;
        } else {
            c.block_done = 1;
            if (c.queued) {
                c.data = c.next_data;
                c.pos = c.next_start;
                c.end = c.next_len;
                c.queued = 0;
                c.next_data = nullptr;
            } else if (c.loop_len == 0) {
                c.active = 0;
                return false;
            } else {
                c.pos = (p - c.end) % c.loop_len + c.loop_start;
                c.end = c.loop_start + c.loop_len;
            }
        }
    } else if (c.pos == 0 || (c.loop_len > 0 && c.pos <= c.loop_start)) {
        c.block_done = 1;
        if (c.queued) {
            c.data = c.next_data;
            c.end = c.next_len;
            c.pos = c.next_len - 1;
            c.queued = 0;
            c.next_data = nullptr;
        } else if (c.loop_len == 0) {
            c.active = 0;
            return false;
        } else {
            c.pos = c.loop_start + c.loop_len - 1;
        }
    } else {
        c.pos--;
    }
    c.sample = int8_t(c.data[c.pos]);
    return true;
}

// One Paula clock tick of an active channel with a block and a step:
// phase gains one tick (16.16) and a sample is fetched per `step` ticks.
inline void paula_fetch_tick(paula_channel &c) {
    c.phase += 0x10000;
    while (c.phase >= c.step) {
        c.phase -= c.step;
        if (!paula_advance(c)) return;
    }
}
