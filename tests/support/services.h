// Helpers of the service tests: code in emulated memory, captured stderr, polling, module images in one expression.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "engine/engine.h"

// Words stored one after another from addr, as 68k code or data.
inline void put_code(kelva *k, uint32_t addr, const std::vector<uint16_t> &words) {
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

// A sample header; the argument order follows the fields most tests set.
struct mod_sample {
    uint16_t length = 0;   // words
    uint8_t volume = 0;
    uint16_t repeat_start = 0;    // as stored (words or bytes, by tracker)
    uint16_t repeat_length = 0;   // words
    uint8_t finetune = 0;
    std::string name;
};
inline mod_sample smp(uint16_t length, uint8_t volume = 0, uint16_t repeat_start = 0, uint16_t repeat_length = 0,
                      uint8_t finetune = 0, const std::string &name = "") {
    return {length, volume, repeat_start, repeat_length, finetune, name};
}

// A ProTracker-layout module image edited in one expression: 31 instruments (tag at 1080, patterns from 1084) or, with
// tag null, 15 (patterns from 600). Song length 1, orders 0, headers zero until set; bytes() appends the sample data
// the headers ask for: mb("M.K.", 2).song(1, 127).sample(0, smp(100, 64)).bytes()
struct mb {
    uint32_t n_samples, header, song_at, patterns;
    std::vector<uint8_t> b;
    mb(const char *tag, uint32_t patterns_)
        : n_samples(tag ? 31 : 15), header(tag ? 1084 : 600), song_at(tag ? 950 : 470), patterns(patterns_),
          b(header + 1024 * patterns, 0) {
        memcpy(b.data(), "kelva test module", 17);
        if (tag) memcpy(&b[1080], tag, 4);
        b[song_at] = 1;
    }
    mb &w16(uint32_t at, uint32_t v) { return b[at] = uint8_t(v >> 8), b[at + 1] = uint8_t(v), *this; }
    mb &song(uint8_t length, uint8_t restart) { return b[song_at] = length, b[song_at + 1] = restart, *this; }
    mb &order(int position, uint8_t pattern) { return b[song_at + 2 + uint32_t(position)] = pattern, *this; }
    mb &sample(int i, const mod_sample &s) {
        uint32_t at = 20 + 30 * uint32_t(i);
        memset(&b[at], 0, 22);
        memcpy(&b[at], s.name.data(), std::min<size_t>(s.name.size(), 22));
        b[at + 24] = s.finetune, b[at + 25] = s.volume;
        return w16(at + 22, s.length).w16(at + 26, s.repeat_start).w16(at + 28, s.repeat_length);
    }
    mb &samples(int from, int to, const mod_sample &s) {
        for (int i = from; i < to; ++i) sample(i, s);
        return *this;
    }
    mb &cell(uint32_t pattern, int row, int ch, uint8_t cmd, uint8_t param) {
        uint32_t at = header + 1024 * pattern + 16 * uint32_t(row) + 4 * uint32_t(ch);
        b.at(at + 2) = uint8_t((b[at + 2] & 0xF0) | (cmd & 0x0F));
        return b[at + 3] = param, *this;
    }
    mb &poke(uint32_t offset, uint8_t value) { return b.at(offset) = value, *this; }
    mb &tag(const char *t) { return memcpy(&b[1080], t, 4), *this; }
    std::vector<uint8_t> bytes() const {
        std::vector<uint8_t> out = b;
        uint32_t words = 0;
        for (uint32_t i = 0; i < n_samples; ++i) words += uint32_t(b[42 + 30 * i]) << 8 | b[43 + 30 * i];
        out.resize(out.size() + 2 * words, 0);
        return out;
    }
};
