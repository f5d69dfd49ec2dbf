// Builds ProTracker-layout module images for tests: 31-instrument modules
// (tag at 1080, patterns from 1084) and 15-instrument Soundtracker modules
// (no tag, patterns from 600), with chosen samples, orders and cells.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct mod_sample {
    uint16_t length = 0;          // words
    uint8_t finetune = 0;
    uint8_t volume = 0;
    uint16_t repeat_start = 0;    // as stored (words or bytes, by tracker)
    uint16_t repeat_length = 0;   // words
    std::string name;
};

// A sample header; the argument order follows the fields most tests set.
mod_sample smp(uint16_t length, uint8_t volume = 0, uint16_t repeat_start = 0, uint16_t repeat_length = 0,
               uint8_t finetune = 0, const std::string &name = "");

struct mod_builder {
    bool st15 = false;
    uint32_t patterns = 0;
    std::vector<uint8_t> bytes;   // header and patterns
};

// A module with `patterns` zeroed patterns, song length 1, all orders 0 and
// all sample headers zero. `tag` is ignored for 15-instrument modules.
mod_builder mod_new(const char *tag, uint32_t patterns);
mod_builder mod_new_st15(uint32_t patterns);

void mod_set_sample(mod_builder &m, int index, const mod_sample &s);
void mod_set_order(mod_builder &m, int position, uint8_t pattern);
void mod_set_song(mod_builder &m, uint8_t length, uint8_t restart);
void mod_set_cell(mod_builder &m, uint32_t pattern, int row, int channel, uint8_t command, uint8_t param);
// Writes one byte anywhere in the header/pattern area.
void mod_poke(mod_builder &m, uint32_t offset, uint8_t value);

// The finished file: header and patterns followed by 2 x length bytes of
// sample data per sample, so a 15-instrument image has exactly the size
// 1624 + 1024 x (highest order) + 2 x (sum of lengths) when the patterns
// numbered 0 to the highest order are present.
std::vector<uint8_t> mod_finish(const mod_builder &m);
