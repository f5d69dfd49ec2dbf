// The cost of software mixing in kelva's ProTracker-family player: real
// four-channel modules (played on Paula directly) against real six- and
// eight-channel ones (mixed onto Paula's four channels by the player),
// rendered through the public API at 48 kHz. BM_PtkRenderChannels renders
// one module (x_realtime: seconds of audio per processor second);
// BM_PtkEightVsFour renders one second of each of a pair in turn and
// reports their processor milliseconds per second of audio and
// eight_over_four, the ratio of the two.
#include <benchmark/benchmark.h>

#include <ctime>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "engine/kelva.h"

namespace {

constexpr int32_t kRate = 48000;
constexpr int32_t kBlock = 4800;

struct tune_file {
    const char *path;   // under testdata/modules
    int channels;
};

const tune_file kTunes[] = {
    {"debian/dreamfish-sanxion.mod", 4}, {"variants/Tinytune.mod", 4},   {"debian/starpaws.mod", 6},
    {"multichannel/misimprm.mod", 8},    {"multichannel/bluesy.mod", 8},
};

std::vector<uint8_t> slurp(const std::string &path) {
    std::ifstream f(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(f), {}};
}

struct loaded {
    std::vector<uint8_t> player, module;
    kelva *k = nullptr;
    ~loaded() {
        if (k) kelva_destroy(k);
    }
};

bool open_tune(loaded &t, const char *path) {
    kelva_global_init();
    t.player = slurp(std::string(KELVA_BUILD_DATA) + "/players/PTK-Prowiz");
    t.module = slurp(std::string(KELVA_SHARED_DIR) + "/testdata/modules/" + path);
    if (t.player.empty() || t.module.empty()) return false;
    t.k = kelva_create(kRate);
    return t.k && kelva_open(t.k, t.player.data(), uint32_t(t.player.size()), t.module.data(),
                             uint32_t(t.module.size()), nullptr, path, 0) == 0;
}

void BM_PtkRenderChannels(benchmark::State &state) {
    const tune_file &f = kTunes[state.range(0)];
    loaded t;
    if (!open_tune(t, f.path)) {
        state.SkipWithError("player or module missing");
        return;
    }
    std::vector<float> out(2 * size_t(kBlock));
    for (auto _ : state) {
        kelva_render(t.k, out.data(), kBlock);
        benchmark::DoNotOptimize(out.data());
    }
    double seconds = double(state.iterations()) * kBlock / kRate;
    state.counters["x_realtime"] = benchmark::Counter(seconds, benchmark::Counter::kIsRate);
    state.SetLabel(std::string(f.path) + " (" + std::to_string(f.channels) + " channels)");
}
BENCHMARK(BM_PtkRenderChannels)->DenseRange(0, 4)->Unit(benchmark::kMillisecond);

double cpu_seconds() { return double(std::clock()) / CLOCKS_PER_SEC; }

// One second of a module, rendered, in processor seconds.
double render_second(kelva *k, std::vector<float> &out) {
    double t0 = cpu_seconds();
    for (int i = 0; i < kRate / kBlock; i++) kelva_render(k, out.data(), kBlock);
    benchmark::DoNotOptimize(out.data());
    return cpu_seconds() - t0;
}

// The eight-channel misimprm.mod against the four-channel
// dreamfish-sanxion.mod, second by second in turn so both see the same load.
void BM_PtkEightVsFour(benchmark::State &state) {
    loaded four, eight;
    if (!open_tune(four, kTunes[0].path) || !open_tune(eight, kTunes[3].path)) {
        state.SkipWithError("player or module missing");
        return;
    }
    std::vector<float> out(2 * size_t(kBlock));
    double t4 = 0, t8 = 0;
    for (auto _ : state) {
        t4 += render_second(four.k, out);
        t8 += render_second(eight.k, out);
    }
    state.counters["eight_over_four"] = t4 > 0 ? t8 / t4 : 0;
    state.counters["four_cpu_ms_per_s"] = 1000.0 * t4 / double(state.iterations());
    state.counters["eight_cpu_ms_per_s"] = 1000.0 * t8 / double(state.iterations());
}
BENCHMARK(BM_PtkEightVsFour)->Unit(benchmark::kMillisecond)->MinTime(3.0);

}  // namespace
