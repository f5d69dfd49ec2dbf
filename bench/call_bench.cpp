// What the routine caller's checks cost: the replay-shaped processor workload
// (testdata/cpu-bench/replay.bin) once stepped directly and once run through
// deli_run_loop. The loop's per-step checks (sentinel, debug-control test,
// code-area range, recent-PC ring, fault test, step budget) may cost at most
// 15 % of the direct rate.
//
// The workload runs about 200 million instructions, longer than one call's
// budget of 50 million, so the run-loop variant continues it over several
// calls, each starting where the previous one ran out; the budget lines those
// calls print are sent to /dev/null while the benchmark runs. The workload's
// final `stop` at 0x200010 is replaced by a jump to the return sentinel so
// that the last call ends as a routine does.
#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "cpu/cpu.h"
#include "engine/call.h"
#include "engine/engine.h"

namespace {

constexpr uint32_t kLoad = 0x200000;
constexpr uint32_t kEnd = 0x200010;                 // PC when the workload is done
constexpr uint64_t kInstructions = 200487847;       // up to kEnd, per the workload's notes
constexpr uint32_t kChecksum = 0x6C9FE1A6;          // long at 0x100 afterwards

std::vector<uint8_t> workload() {
    std::ifstream f(std::string(KELVA_SHARED_DIR) + "/testdata/cpu-bench/replay.bin", std::ios::binary);
    return {std::istreambuf_iterator<char>(f), {}};
}

kelva *machine(const std::vector<uint8_t> &image) {
    kelva_global_init();
    static kelva *k = kelva_create(48000);
    kelva_reset(k, 48000);
    for (size_t i = 0; i < image.size(); i++) k->ram[kLoad + i] = image[i];
    k->pc = kLoad;
    k->sr = 0x2700;
    k->fault = 0;
    return k;
}

void check(benchmark::State &state, kelva *k, uint64_t steps) {
    if (steps != kInstructions || ram_get32(k, 0x100) != kChecksum)
        state.SkipWithError("the workload computed something else (instruction count or checksum differs)");
}

void BM_DirectStep(benchmark::State &state) {
    std::vector<uint8_t> image = workload();
    if (image.empty()) {
        state.SkipWithError("testdata/cpu-bench/replay.bin not found under KELVA_SHARED_DIR");
        return;
    }
    uint64_t total = 0;
    for (auto _ : state) {
        state.PauseTiming();
        kelva *k = machine(image);
        state.ResumeTiming();
        uint64_t steps = 0;
        while (k->pc != kEnd) {
            cpu_step(k);
            steps++;
        }
        state.PauseTiming();
        check(state, k, steps);
        total += steps;
        state.ResumeTiming();
    }
    state.counters["steps_per_s"] = benchmark::Counter(double(total), benchmark::Counter::kIsRate);
}

void BM_RunLoop(benchmark::State &state) {
    std::vector<uint8_t> image = workload();
    if (image.empty()) {
        state.SkipWithError("testdata/cpu-bench/replay.bin not found under KELVA_SHARED_DIR");
        return;
    }
    fflush(stderr);
    int saved = dup(2);
    int null_fd = open("/dev/null", O_WRONLY);
    dup2(null_fd, 2);
    uint64_t total = 0;
    for (auto _ : state) {
        state.PauseTiming();
        kelva *k = machine(image);
        // jmp $EFFFF0 in place of the final stop.
        ram_put32(k, kEnd, 0x4EF900EF);
        ram_put16(k, kEnd + 4, 0xFFF0);
        state.ResumeTiming();
        int calls = 0;
        while (k->pc != kReturnSentinel && calls < 16) {
            deli_run_loop(k, kLoad);
            calls++;
        }
        state.PauseTiming();
        // The workload and the final jump, in full budgets plus the rest.
        const uint64_t steps = kInstructions + 1;
        if (k->pc != kReturnSentinel || uint64_t(calls) != (steps + kStepBudget - 1) / kStepBudget ||
            ram_get32(k, 0x100) != kChecksum)
            state.SkipWithError("the workload did not finish as expected (calls, end or checksum differ)");
        total += steps;
        state.ResumeTiming();
    }
    fflush(stderr);
    dup2(saved, 2);
    close(saved);
    close(null_fd);
    state.counters["steps_per_s"] = benchmark::Counter(double(total), benchmark::Counter::kIsRate);
}

BENCHMARK(BM_DirectStep)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_RunLoop)->Unit(benchmark::kMillisecond)->Iterations(3);

}  // namespace
