// Internals shared by rendering and length measurement.
#pragma once

#include <cstdint>

struct kelva;

// kelva_render's loop, without the switch of the floating-point mode that
// the exported function makes around it (engine/fpmode.h).
void render_frames(kelva *k, float *out, int32_t frames);

// Measurement mode's stand-in for the mixer: a cheap per-frame level of each
// running channel (its sample x volume / 64, averaged over the frame's Paula
// ticks, scaled by 1/256), channels 0 and 3 left, 1 and 2 right. No
// filters, no interpolation; it advances the channels exactly as the mixer.
void measure_level_frames(kelva *k, float *out, int32_t frames);

// The repetition test after envelope block n - 1 was stored (every 20th
// block from the 400th): the smallest lag of 10 to 240 s at which the last
// 30 s correlate with the 30 s one and two lags earlier, or 0.
uint32_t measure_repetition_lag(const float *env, uint32_t n);

// Correlation of the last 300 envelope blocks with the 300 blocks `lag`
// earlier, given the energy of the recent span.
double measure_corr_at(const float *env, uint32_t n, uint32_t lag, double recent_energy);
