// Interpreter speed on a replay-shaped 68000 workload (a synthetic
// four-channel tracker replay with a software mixer). The image runs at
// $200000 in supervisor mode and parks at $200010 when done; the run must
// take exactly the known number of instructions and leave the known
// checksum, otherwise the interpreter computed something differently.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "cpu/cpu.h"
#include "engine/engine.h"

namespace {

constexpr uint32_t kLoad = 0x200000;
constexpr uint32_t kDone = 0x200010;
constexpr uint64_t kExpectedSteps = 200487847;
constexpr uint32_t kExpectedChecksum = 0x6C9FE1A6;
constexpr uint32_t kExpectedTicks = 0x0001CB60;
constexpr uint64_t kStepLimit = 2 * kExpectedSteps;

bool load_image(std::vector<uint8_t> *out) {
    const char *path = KELVA_SHARED_DIR "/testdata/cpu-bench/replay.bin";
    FILE *f = fopen(path, "rb");
    if (!f) return false;
    uint8_t buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0) out->insert(out->end(), buf, buf + n);
    fclose(f);
    return !out->empty() && out->size() < kSlabStart - kLoad;
}

void BM_replay_workload(benchmark::State &state) {
    std::vector<uint8_t> image;
    if (!load_image(&image)) {
        state.SkipWithError("replay.bin not found under KELVA_SHARED_DIR/testdata/cpu-bench");
        return;
    }
    kelva_global_init();
    kelva *k = kelva_create(48000);
    if (!k) {
        state.SkipWithError("out of memory");
        return;
    }
    uint64_t total_steps = 0;
    for (auto _ : state) {
        state.PauseTiming();
        memset(k->ram, 0, kRamSize);
        memcpy(k->ram + kLoad, image.data(), image.size());
        memset(k->d, 0, sizeof k->d);
        memset(k->a, 0, sizeof k->a);
        k->usp = k->ssp = 0;
        k->vbr = 0;
        k->sr = 0x2700;
        k->pc = kLoad;
        k->fault = 0;
        state.ResumeTiming();

        uint64_t steps = 0;
        while (k->pc != kDone && steps < kStepLimit) {
            cpu_step(k);
            steps++;
            if (__builtin_expect(k->fault != 0, 0)) break;
        }
        total_steps += steps;

        state.PauseTiming();
        uint32_t checksum = ram_get32(k, 0x100), ticks = ram_get32(k, 0x104);
        if (steps != kExpectedSteps || checksum != kExpectedChecksum || ticks != kExpectedTicks || k->fault) {
            char msg[160];
            snprintf(msg, sizeof msg, "wrong result: %llu steps, checksum %08x, ticks %08x, fault %u",
                     (unsigned long long)steps, checksum, ticks, k->fault);
            state.SkipWithError(msg);
            state.ResumeTiming();
            break;
        }
        state.ResumeTiming();
    }
    state.counters["instr_per_s"] = benchmark::Counter(double(total_steps), benchmark::Counter::kIsRate);
    kelva_destroy(k);
}

}  // namespace

// The rate is per CPU second of the benchmark thread, so that other load on
// a shared machine does not count against the interpreter.
BENCHMARK(BM_replay_workload)->Unit(benchmark::kMillisecond)->Iterations(3);
