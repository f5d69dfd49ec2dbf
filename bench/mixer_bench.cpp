// Mixer throughput: output frames per second at 48 kHz with all four
// channels playing looped blocks, at volume 64 and at volume 37 (where the
// pulse-width volume switches), LED filter on and off, on the frame-at-a-time
// path and (per_tick:1) on the per-tick reference path. "x_realtime" is how
// many seconds of audio one second of mixing produces.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include "engine/engine.h"
#include "hardware/bus.h"

namespace {

constexpr int32_t kRate = 48000;
constexpr int32_t kBlock = 4096;   // frames per call, as the host asks for them

struct engine_deleter {
    void operator()(kelva *k) const { kelva_destroy(k); }
};

void setup_channels(kelva *k, uint16_t volume) {
    for (uint32_t i = 0; i < 4096; i++)
        k->ram[0x20000 + i] = uint8_t(int8_t(std::lround(120 * std::sin(double(i) * 0.05))));
    static const uint16_t periods[4] = {214, 254, 339, 428};
    for (int x = 0; x < 4; x++) {
        uint32_t base = 0xDFF0A0 + 16 * uint32_t(x);
        write32(k, base, 0x20000 + 512 * uint32_t(x));   // AUDxLC
        custom_write_word(k, base + 4, 1024);             // AUDxLEN
        custom_write_word(k, base + 6, periods[x]);       // AUDxPER
        custom_write_word(k, base + 8, volume);           // AUDxVOL
    }
    custom_write_word(k, 0xDFF096, 0x820F);   // DMACON: DMAEN + AUD0-3EN
}

void BM_Mix(benchmark::State &state) {
    std::unique_ptr<kelva, engine_deleter> e(kelva_create(kRate));
    kelva *k = e.get();
    setup_channels(k, uint16_t(state.range(0)));
    kelva_set_led_filter(k, state.range(1) ? 2 : 1);
    k->mix_per_tick = uint8_t(state.range(2));
    std::vector<float> out(2 * size_t(kBlock));
    for (auto _ : state) {
        std::fill(out.begin(), out.end(), 0.0f);
        paula_mix_frames(k, out.data(), kBlock);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    double frames = double(state.iterations()) * kBlock;
    state.counters["frames_per_s"] = benchmark::Counter(frames, benchmark::Counter::kIsRate);
    state.counters["x_realtime"] = benchmark::Counter(frames / kRate, benchmark::Counter::kIsRate);
    state.SetLabel(std::string(state.range(1) ? "LED on" : "LED off") + (state.range(2) ? ", per tick" : ""));
}

// The output filters alone: no channel is listed, the filters still run.
void BM_MixNoChannels(benchmark::State &state) {
    std::unique_ptr<kelva, engine_deleter> e(kelva_create(kRate));
    kelva *k = e.get();
    std::vector<float> out(2 * size_t(kBlock));
    for (auto _ : state) {
        std::fill(out.begin(), out.end(), 0.0f);
        paula_mix_frames(k, out.data(), kBlock);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    double frames = double(state.iterations()) * kBlock;
    state.counters["frames_per_s"] = benchmark::Counter(frames, benchmark::Counter::kIsRate);
    state.counters["x_realtime"] = benchmark::Counter(frames / kRate, benchmark::Counter::kIsRate);
}

BENCHMARK(BM_MixNoChannels)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Mix)->ArgNames({"volume", "led", "per_tick"})->ArgsProduct({{64, 37}, {1, 0}, {0, 1}})
    ->Unit(benchmark::kMicrosecond);

}  // namespace
