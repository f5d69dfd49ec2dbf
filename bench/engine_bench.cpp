// Engine throughput: rendering a module at 48 kHz (as a multiple of real
// time) and length measurement (seconds of tune measured per second). It
// uses kelva's ProTracker-family player on a real module when both exist,
// and otherwise the Envelope test player, which is labelled as such.
#include <benchmark/benchmark.h>

#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "engine/kelva.h"

namespace {

constexpr int32_t kRate = 48000;
constexpr int32_t kBlock = 4096;

std::vector<uint8_t> slurp(const std::string &path) {
    std::ifstream f(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(f), {}};
}

struct tune {
    std::vector<uint8_t> player, module;
    std::string label;
};

tune pick_tune() {
    tune t;
    t.player = slurp(std::string(KELVA_BUILD_DATA) + "/players/PTK-Prowiz");
    t.module = slurp(std::string(KELVA_SHARED_DIR) + "/testdata/modules/debian/dreamfish-sanxion.mod");
    if (!t.player.empty() && !t.module.empty()) {
        t.label = "PTK-Prowiz dreamfish-sanxion.mod";
        return t;
    }
    t.player = slurp(std::string(KELVA_BUILD_DATA) + "/../tests/players/Envelope");
    t.module.clear();
    for (uint32_t v : {0x454E564Cu, 2250u, 0u, 0u, 0x1234u, 0u})
        for (int s = 24; s >= 0; s -= 8) t.module.push_back(uint8_t(v >> s));
    t.label = "Envelope test player";
    return t;
}

kelva *open_tune(const tune &t) {
    kelva_global_init();
    kelva *k = kelva_create(kRate);
    if (!k) return nullptr;
    if (kelva_open(k, t.player.data(), uint32_t(t.player.size()), t.module.data(), uint32_t(t.module.size()),
                   nullptr, "bench.mod", 0) != 0) {
        kelva_destroy(k);
        return nullptr;
    }
    return k;
}

void BM_Render(benchmark::State &state) {
    tune t = pick_tune();
    kelva *k = open_tune(t);
    if (!k) {
        state.SkipWithError("no player/module to render");
        return;
    }
    std::vector<float> out(2 * size_t(kBlock));
    for (auto _ : state) {
        kelva_render(k, out.data(), kBlock);
        benchmark::DoNotOptimize(out.data());
    }
    double frames = double(state.iterations()) * kBlock;
    state.counters["x_realtime"] = benchmark::Counter(frames / kRate, benchmark::Counter::kIsRate);
    state.SetLabel(t.label);
    kelva_close(k);
    kelva_destroy(k);
}
BENCHMARK(BM_Render)->Unit(benchmark::kMillisecond);

void BM_Measure(benchmark::State &state) {
    tune t = pick_tune();
    double seconds = 0;
    for (auto _ : state) {
        state.PauseTiming();
        kelva *k = open_tune(t);
        state.ResumeTiming();
        if (!k) {
            state.SkipWithError("no player/module to measure");
            return;
        }
        int32_t reason = 0;
        // 120 s at most, so a tune that never ends still gives a figure;
        // the rate counts the tune time the measurement ran through.
        kelva_measure_length(k, 120000, 30000, &reason, nullptr, nullptr);
        seconds += double(kelva_played_ms(k)) / 1000.0;
        kelva_destroy(k);
    }
    state.counters["tune_s_per_s"] = benchmark::Counter(seconds, benchmark::Counter::kIsRate);
    state.SetLabel(t.label);
}
BENCHMARK(BM_Measure)->Unit(benchmark::kMillisecond);

}  // namespace
