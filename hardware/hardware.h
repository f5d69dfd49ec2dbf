// Plain records of the emulated custom chips: the four Paula audio channels,
// the mixer with its output filters, and the two 8520 CIAs. The engine record
// holds one of each; the functions that work on them live beside this header
// (custom.cpp, paula.cpp, mixer.cpp, cia.cpp).
#pragma once

#include <cstdint>

struct kelva;

// PAL clocks.
constexpr int32_t kPaulaClock = 3546895;   // colour clock, one mixer tick
constexpr uint32_t kCpuClock = 7093790;    // 68000 clock
constexpr uint32_t kEClock = 709379;       // CIA E-clock

// One Paula audio channel as the DMA engine runs it. `data` always points
// into the engine's RAM array and every index below stays inside it: a block
// that would reach past the top of the 16 MiB is cut short there.
// The per-tick fetch is in hardware/paula_fetch.h.
struct paula_channel {
    const uint8_t *data;        // start of the current block
    uint32_t end;               // one past the last byte of the current pass
    uint32_t loop_start;        // where a repeat pass begins
    uint32_t loop_len;          // bytes in a repeat pass; 0 = stop at the end
    uint32_t pos;               // index of the sample being output
    uint64_t step;              // period << 16 (ticks per sample, 16.16)
    uint64_t phase;             // ticks since the last fetch, 16.16
    const uint8_t *next_data;   // queued block, null when none
    uint32_t next_start;
    uint32_t next_len;
    int8_t sample;              // current output sample
    uint16_t volume;            // 0..64
    uint8_t pwm;                // 6-bit pulse-width volume counter
    uint8_t active;
    uint8_t muted;
    uint8_t queued;
    uint8_t backward;
    uint8_t block_done;         // a block was fetched to its end; raises AUDx
};

// The register latches of one channel as the player wrote them (AUDxLC,
// AUDxLEN, AUDxPER, AUDxVOL), and whether its DMA is running.
struct audio_latch {
    uint32_t lc;
    uint16_t len;
    uint16_t per;
    uint8_t vol;          // 7 bits kept
    uint8_t dma_running;
};

// The mixer: runs the analogue output path at the Paula clock and averages
// the ticks of each output frame. Stage order per side: one-pole model
// filter -> LED biquad (when on) -> 1/128 scale -> four anti-alias biquads.
struct paula_mixer {
    int32_t rate;               // output frames per second
    int32_t clock;              // Paula clock
    int32_t frame_ticks;        // rate / 50, for the render loop
    uint32_t model;             // 1 = A1200, anything else A500
    uint64_t ticks_per_frame;   // (clock << 16) / rate
    uint64_t tick_frac;         // fraction carried between frames
    double rc_coef;
    double rc_state[2];
    uint32_t led_on;
    double led_b0, led_b1, led_b2, led_a1, led_a2;
    double led_state[2][2];     // [side][s1, s2]
    struct biquad {
        double b0, a1, a2;      // b1 = 2 b0, b2 = b0
    } aa[4];
    double aa_state[4][2][2];   // [section][side][s1, s2]
};

// The mixer's frame-at-a-time path (hardware/mixer_fast.h). The filter
// chain after the channel sum is linear and time-invariant, so a whole
// output frame can be advanced in closed form from two precomputed tables,
// built by running the per-tick filter recurrence itself on unit inputs.
// A filter state is 12 values: the one-pole, the LED biquad's two delays,
// the four anti-alias sections' two delays each, and the frame's sum of
// outputs in the last slot.
constexpr int kFastMaxTicks = 256;   // longest frame the tables cover (rates from 13.9 kHz)
constexpr int kFastState = 12;
struct paula_fast_tables {
    // What the tables were built from; they are rebuilt when it changes.
    struct source {
        double rc_coef, led_b0, led_b1, led_b2, led_a1, led_a2;
        paula_mixer::biquad aa[4];
        uint64_t ticks_per_frame;
        uint32_t led_on;
        uint32_t pad;
    } from;
    uint8_t built;    // `from` and the tables below are filled in
    uint8_t usable;   // the tables are finite and cover this frame length
    uint32_t n0;      // frames run n0 or n0 + 1 ticks
    // frame[i]: the state after n0 + i ticks with no input, column by
    // column: frame[i][j] is where a unit start state j ends, its sum slot
    // the frame's summed output. Column 11 is zero: each frame's sum starts at 0.
    double frame[2][kFastState][kFastState];
    // step[L]: the state after L ticks of input 1 from a zero state.
    double step[kFastMaxTicks + 1][kFastState];
};

// One 8520 CIA as far as replay routines use it. Timers count in output
// frames rather than E-clock ticks.
struct cia_state {
    uint16_t ta_latch;
    uint8_t cra;
    uint8_t ta_running;
    uint8_t ta_oneshot;
    double ta_period;
    double ta_left;
    uint16_t tb_latch;
    uint8_t crb;
    uint8_t tb_running;
    uint8_t tb_oneshot;
    double tb_period;
    double tb_left;
    uint8_t icr_mask;
    uint8_t icr_data;
    uint8_t pra, prb, ddra, ddrb;
    uint32_t handlers[5];
};

// Chip functions the engine calls (custom.cpp, paula.cpp, mixer.cpp, cia.cpp).

// Mixer and channels back to their reset state for k->rate and k->model:
// clock, frames per video frame, model flag, coefficients, LED filter on,
// channels and latches cleared.
void paula_reset(kelva *k);
// Recomputes every filter coefficient from rate, clock and model.
void paula_recalc(paula_mixer *m);
// Adds `frames` stereo frames of the four channels to `out` (cleared by the
// caller). frames <= 0 does nothing.
void paula_mix_frames(kelva *k, float *out, int32_t frames);
// The same output computed one Paula tick at a time: the reference the
// frame-at-a-time path is checked against, and what paula_mix_frames runs
// when k->mix_per_tick is set or the output rate is outside the tables.
void paula_mix_frames_per_tick(kelva *k, float *out, int32_t frames);
// Stereo separation of finished frames: with s < 1 every frame (L, R)
// becomes (m + d, m - d), m = (L + R) / 2, d = (L - R) / 2 * s; s >= 1 leaves
// the hard Amiga panning untouched.
void paula_apply_separation(float *out, int32_t frames, float s);
// Ticks per sample (16.16) for an AUDxPER value: 0 stays 0 (the channel is
// left out of mixing), 1..112 play at 113.
uint64_t paula_step(uint16_t period);
// Channel DMA control, driven by DMACON and the audio latches.
void paula_dma_start(kelva *k, int x);
void paula_dma_stop(kelva *k, int x);
void channel_queue(kelva *k, int x);
// Output frames until channel x passes the end of its current block, at
// least 1: the block end falls inside the last of those frames. 0 when the
// channel is not fetching (stopped, muted, no period): no event to schedule.
int32_t paula_frames_to_block_end(const kelva *k, int x);

// Both CIAs back to reset: handlers cleared, periods and counters 1.0.
void cia_reset(kelva *k);
// Frames until the earliest running timer underflows, as the render loop
// cuts chunks: 1 if a countdown is at most 1, else countdown + 0.999999
// truncated. 0 when no timer runs.
int32_t cia_frames_to_event(const kelva *k);
// Counts `frames` off every running timer; underflows set ICR flags and
// append enabled handlers to k->pending (at most 8).
void cia_advance(kelva *k, int32_t frames);
