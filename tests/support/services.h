// Helpers of the operating-system, selection, plugin and tool tests: code
// words in emulated memory, captured diagnostics, polling, and module
// images built in one expression.
#pragma once

#include <gtest/gtest.h>

#include <chrono>
#include <initializer_list>
#include <string>
#include <thread>
#include <vector>

#include "engine/engine.h"
#include "support/modbuild.h"

// Words stored one after another from addr, as 68k code or data.
inline void put_code(kelva *k, uint32_t addr, std::initializer_list<uint16_t> words) {
    for (uint16_t w : words) ram_put16(k, (addr += 2) - 2, w);
}

// What f() printed on stderr.
template <class F>
std::string stderr_of(F f) {
    testing::internal::CaptureStderr();
    f();
    return testing::internal::GetCapturedStderr();
}

// Polls until done() holds; generous, since the machine may be loaded.
template <class F>
bool wait_until(F done) {
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(120);
    while (!done() && std::chrono::steady_clock::now() < end) std::this_thread::sleep_for(std::chrono::milliseconds(2));
    return done();
}

// A module image edited in one expression:
//   mb(mod_new("M.K.", 2)).song(1, 127).sample(0, smp(100, 64)).cell(0, 5, 1, 12, 0x20).bytes()
struct mb {
    mod_builder m;
    mb &song(uint8_t length, uint8_t restart) { return mod_set_song(m, length, restart), *this; }
    mb &order(int position, uint8_t pattern) { return mod_set_order(m, position, pattern), *this; }
    mb &sample(int i, const mod_sample &s) { return mod_set_sample(m, i, s), *this; }
    mb &samples(int from, int to, const mod_sample &s) {
        for (int i = from; i < to; ++i) mod_set_sample(m, i, s);
        return *this;
    }
    mb &cell(uint32_t pattern, int row, int ch, uint8_t cmd, uint8_t param) {
        return mod_set_cell(m, pattern, row, ch, cmd, param), *this;
    }
    mb &poke(uint32_t offset, uint8_t value) { return mod_poke(m, offset, value), *this; }
    mb &tag(const char *t) {   // the four bytes at 1080
        for (uint32_t i = 0; i < 4; i++) mod_poke(m, 1080 + i, uint8_t(t[i]));
        return *this;
    }
    std::vector<uint8_t> bytes() const { return mod_finish(m); }
};
