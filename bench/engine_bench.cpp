// Engine throughput: rendering real modules at 48 kHz as a host renders
// them (as a multiple of real time, per module and the median), and length
// measurement (seconds of tune measured per second). Measurement uses
// kelva's ProTracker-family player on a real module when both exist, and
// otherwise the Envelope test player, which is labelled as such.
#include <benchmark/benchmark.h>
#include <dirent.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <thread>
#include <vector>
#if defined(__x86_64__) || defined(__i386__)
#include <xmmintrin.h>
#endif

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

// ---- Rendering real modules, as a host does --------------------------------
//
// Each module of the shared debian folder is identified and opened the way
// the command-line tool and the plugin open it (kelva_identify, the player
// file from the data tree, kelva_open), then rendered through kelva_render
// in blocks of 4096 frames on a thread of its own, in the floating-point
// mode a fresh thread has at power-up (no flush-to-zero): the mode a host
// thread is in unless it changes it. It renders the first 60 s, or up to
// the song's end when that comes first. The time is the CPU time of the
// process, that is of the render thread while the benchmark waits for it.

constexpr int32_t kModuleSeconds = 60;

struct module_case {
    std::string name, path, player_path;
    std::vector<uint8_t> module, player;
};

bool identify(module_case *c) {
    c->module = slurp(c->path);
    if (c->module.empty()) return false;
    char player_path[4096];
    if (!kelva_identify(c->path.c_str(), c->module.data(), uint32_t(c->module.size()), player_path,
                        sizeof player_path))
        return false;
    c->player_path = player_path;
    c->player = slurp(player_path);
    return !c->player.empty();
}

// Renders the excerpt on a new thread in the power-up floating-point mode;
// returns the seconds of audio rendered (0 when the module did not open).
double render_on_host_thread(const module_case &c) {
    double seconds = 0;
    std::thread host([&] {
#if defined(__x86_64__) || defined(__i386__)
        _mm_setcsr(0x1F80);   // all exceptions masked, round to nearest, no FTZ/DAZ
#endif
        kelva *k = kelva_create(kRate);
        if (!k) return;
        if (kelva_open(k, c.player.data(), uint32_t(c.player.size()), c.module.data(), uint32_t(c.module.size()),
                       c.player_path.c_str(), c.path.c_str(), 0) == 0) {
            std::vector<float> out(2 * size_t(kBlock));
            int64_t frames = 0;
            const int64_t limit = int64_t(kModuleSeconds) * kRate;
            while (frames < limit && !kelva_song_ended(k)) {
                int32_t n = int32_t(std::min<int64_t>(kBlock, limit - frames));
                kelva_render(k, out.data(), n);
                benchmark::DoNotOptimize(out.data());
                frames += n;
            }
            kelva_close(k);
            seconds = double(frames) / kRate;
        }
        kelva_destroy(k);
    });
    host.join();
    return seconds;
}

void BM_RenderModule(benchmark::State &state, const module_case *c) {
    double seconds = 0;
    for (auto _ : state) {
        double s = render_on_host_thread(*c);
        if (s <= 0) {
            state.SkipWithError("the module does not open");
            return;
        }
        seconds += s;
    }
    state.counters["x_realtime"] = benchmark::Counter(seconds, benchmark::Counter::kIsRate);
    state.SetLabel(c->player_path.substr(c->player_path.rfind('/') + 1));
}

// The shared debian modules, sorted by name.
std::vector<module_case> debian_modules() {
    std::vector<module_case> cases;
    std::string dir = std::string(KELVA_SHARED_DIR) + "/testdata/modules/debian";
    DIR *d = opendir(dir.c_str());
    if (!d) return cases;
    while (dirent *e = readdir(d)) {
        std::string name = e->d_name;
        if (name.size() > 4 && name.compare(name.size() - 4, 4, ".mod") == 0)
            cases.push_back(module_case{name, dir + "/" + name, "", {}, {}});
    }
    closedir(d);
    std::sort(cases.begin(), cases.end(), [](const module_case &a, const module_case &b) { return a.name < b.name; });
    return cases;
}

// The console output, plus the median real-time multiple of the module runs.
struct median_reporter : benchmark::ConsoleReporter {
    std::vector<double> multiples;
    void ReportRuns(const std::vector<Run> &runs) override {
        for (const Run &r : runs) {
            if (r.error_occurred || r.run_type != Run::RT_Iteration) continue;
            if (r.benchmark_name().rfind("BM_RenderModule/", 0) != 0) continue;
            auto it = r.counters.find("x_realtime");
            if (it != r.counters.end()) multiples.push_back(it->second.value);
        }
        ConsoleReporter::ReportRuns(runs);
    }
};

}  // namespace

int main(int argc, char **argv) {
    // The players come from the build tree's data tree unless KELVA_DATA says otherwise.
    setenv("KELVA_DATA", KELVA_BUILD_DATA, 0);
    kelva_global_init();
    static std::vector<module_case> cases = debian_modules();
    if (cases.empty()) fprintf(stderr, "engine_bench: no modules in %s/testdata/modules/debian\n", KELVA_SHARED_DIR);
    for (module_case &c : cases) {
        if (!identify(&c)) {
            fprintf(stderr, "engine_bench: no player for %s\n", c.path.c_str());
            continue;
        }
        benchmark::RegisterBenchmark(("BM_RenderModule/" + c.name).c_str(), BM_RenderModule, &c)
            ->Iterations(1)
            ->MeasureProcessCPUTime()
            ->Unit(benchmark::kMillisecond);
    }
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    median_reporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    std::vector<double> &m = reporter.multiples;
    if (!m.empty()) {
        std::sort(m.begin(), m.end());
        size_t h = m.size() / 2;
        double median = m.size() % 2 ? m[h] : (m[h - 1] + m[h]) / 2;
        printf("median x_realtime over %zu modules: %.1f (min %.1f, max %.1f)\n", m.size(), median, m.front(),
               m.back());
    }
    return 0;
}
