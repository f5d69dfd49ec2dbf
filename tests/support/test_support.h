// Helpers shared by the unit tests.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "engine/engine.h"

// Path of the shared test data folder, or empty when it is absent.
std::string shared_dir();
// Skips the current test with a clear message when `sub` of it is missing.
#define KELVA_REQUIRE_SHARED(sub)                                                            \
    if (!shared_exists(sub))                                                                 \
        GTEST_SKIP() << "shared test data not found (" << KELVA_SHARED_DIR << "/" << sub       \
                     << "); set KELVA_SHARED_DIR at configure time"
bool shared_exists(const std::string &sub);

struct engine_deleter {
    void operator()(kelva *k) const { kelva_destroy(k); }
};
using engine_ptr = std::unique_ptr<kelva, engine_deleter>;
// A fresh engine, after kelva_global_init().
engine_ptr make_engine(int32_t rate = 48000);

// The whole contents of a host file; empty when it cannot be read.
std::vector<uint8_t> read_file_bytes(const std::string &path);
inline std::string read_file_text(const std::string &path) {
    std::vector<uint8_t> b = read_file_bytes(path);
    return {b.begin(), b.end()};
}

// What load(&data, &len) gave: the bytes (then freed), or "-" when it failed, which must leave both untouched.
template <class F>
std::string loaded(F load) {
    uint8_t *const untouched = reinterpret_cast<uint8_t *>(0x1234), *data = untouched;
    uint32_t len = 77;
    if (!load(&data, &len)) {
        EXPECT_TRUE(data == untouched && len == 77) << "a failed load changed its outputs";
        return "-";
    }
    std::string s(reinterpret_cast<char *>(data), len);
    free(data);
    return s;
}

// Files served to kelva_set_file_loader(k, memory_loader, &m) by exact name; every request is recorded.
struct memory_files {
    std::map<std::string, std::vector<uint8_t>> files;
    std::vector<std::string> requests;
};
int memory_loader(void *user, const char *path, uint8_t **out, uint32_t *len);

void put_be32(std::vector<uint8_t> &v, uint32_t x);

// The module of the Envelope test player (tests/players/Envelope.c).
std::vector<uint8_t> envelope_module(uint32_t pattern_ticks, uint32_t stop_tick, uint32_t end_tick,
                                     uint32_t seed = 0x1234);

// Writes channel x's AUDxLC, AUDxLEN, AUDxPER and AUDxVOL, as a player does.
void set_audio_latches(kelva *k, int x, uint32_t lc, uint16_t len, uint16_t per, uint16_t vol);
