// The render loop: audio is produced in chunks that end exactly at the next
// event (a CIA timer underflow, an audio block end, the vertical blank, the
// player's tick), and the player's 68k handlers run between chunks.
#include <cstring>

#include "engine/call.h"
#include "engine/engine.h"
#include "engine/fpmode.h"
#include "engine/render.h"
#include "hardware/bus.h"

namespace {

constexpr int kVblankVector = 5;
constexpr int kAudioVector0 = 7;

void run_tick(kelva *k) {
    deli_call(k, k->tick_routine);
    k->frames_to_tick += k->frames_per_tick;
}

// Length of the next chunk: up to the earliest event, at least one frame.
int32_t next_chunk(const kelva *k, int32_t remaining) {
    int32_t n = remaining;
    int32_t cia = cia_frames_to_event(k);
    if (cia > 0 && cia < n) n = cia;
    for (int x = 0; x < 4; x++) {
        int32_t b = paula_frames_to_block_end(k, x);
        if (b > 0 && b < n) n = b;
    }
    if (k->frames_to_vblank > 0 && k->frames_to_vblank < n) n = k->frames_to_vblank;
    if (k->tick_routine && k->frames_to_tick > 0 && k->frames_to_tick < n) n = k->frames_to_tick;
    return n < 1 ? 1 : n;
}

// Audio interrupts: blocks finished during the chunk raise AUD0..AUD3 in
// INTREQ; enabled ones with an installed handler are acknowledged and run,
// in channel order.
void deliver_audio_interrupts(kelva *k) {
    for (int x = 0; x < 4; x++) {
        if (k->ch[x].block_done) {
            k->ch[x].block_done = 0;
            k->intreq |= uint16_t(1u << (7 + x));
        }
    }
    for (int x = 0; x < 4; x++) {
        uint16_t bit = uint16_t(1u << (7 + x));
        uint32_t is = k->int_vectors[kAudioVector0 + x];
        if ((k->intreq & bit) && (k->intena & bit) && is) {
            k->intreq &= uint16_t(~bit);
            deli_run_handler(k, is);
        }
    }
}

}  // namespace

void render_frames(kelva *k, float *out, int32_t frames) {
    if (frames <= 0) return;
    if (k->tick_routine && k->frames_to_tick < 1) run_tick(k);

    int32_t remaining = frames;
    while (remaining > 0) {
        int32_t n = next_chunk(k, remaining);
        float *chunk = out + 2 * (frames - remaining);
        memset(chunk, 0, sizeof(float) * 2 * size_t(n));
        if (k->measure_mode) {
            measure_level_frames(k, chunk, n);
        } else {
            paula_mix_frames(k, chunk, n);
            if (k->separation < 1.0f) paula_apply_separation(chunk, n, k->separation);
        }
        remaining -= n;

        k->played_frames += uint64_t(n);
        if (k->rate > 0) k->cycles += uint64_t(n) * kCpuClock / uint64_t(k->rate);

        // CIA timers: underflows queue their handlers, which run in order.
        k->pending_count = 0;
        cia_advance(k, n);
        for (uint32_t i = 0; i < k->pending_count; i++) deli_run_handler(k, k->pending[i]);
        k->pending_count = 0;

        deliver_audio_interrupts(k);

        // (An engine that opened nothing has no vertical-blank period.)
        if (k->frames_per_vblank > 0) k->frames_to_vblank -= n;
        if (k->frames_per_vblank > 0 && k->frames_to_vblank < 1) {
            k->frames_to_vblank += k->frames_per_vblank;
            if (k->int_vectors[kVblankVector]) deli_run_handler(k, k->int_vectors[kVblankVector]);
        }

        if (k->tick_routine) {
            k->frames_to_tick -= n;
            // A tick due with the last chunk runs at the start of the next call.
            if (remaining > 0 && k->frames_to_tick <= 0) run_tick(k);
        }
    }
}

extern "C" void kelva_render(kelva *k, float *out, int32_t frames) {
    if (frames <= 0) return;
    uint32_t mode = fp_mode_enter();
    render_frames(k, out, frames);
    fp_mode_leave(mode);
}
