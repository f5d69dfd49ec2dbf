#include "support/modbuild.h"

#include <cstring>

namespace {

uint32_t header_size(const mod_builder &m) { return m.st15 ? 600 : 1084; }
uint32_t sample_count(const mod_builder &m) { return m.st15 ? 15 : 31; }
uint32_t song_offset(const mod_builder &m) { return m.st15 ? 470 : 950; }
void put16(std::vector<uint8_t> &b, uint32_t at, uint32_t v) { b[at] = uint8_t(v >> 8), b[at + 1] = uint8_t(v); }

mod_builder make(bool st15, const char *tag, uint32_t patterns) {
    mod_builder m{st15, patterns, {}};
    m.bytes.assign(header_size(m) + 1024 * patterns, 0);
    memcpy(m.bytes.data(), "kelva test module", 17);
    if (!st15 && tag) memcpy(m.bytes.data() + 1080, tag, 4);
    m.bytes[song_offset(m)] = 1;
    return m;
}

}   // namespace

mod_sample smp(uint16_t length, uint8_t volume, uint16_t repeat_start, uint16_t repeat_length, uint8_t finetune,
               const std::string &name) {
    return mod_sample{length, finetune, volume, repeat_start, repeat_length, name};
}

mod_builder mod_new(const char *tag, uint32_t patterns) { return make(false, tag, patterns); }
mod_builder mod_new_st15(uint32_t patterns) { return make(true, nullptr, patterns); }

void mod_set_sample(mod_builder &m, int index, const mod_sample &s) {
    if (index < 0 || uint32_t(index) >= sample_count(m)) return;
    uint32_t at = 20 + 30 * uint32_t(index);
    memset(m.bytes.data() + at, 0, 22);
    memcpy(m.bytes.data() + at, s.name.data(), s.name.size() < 22 ? s.name.size() : 22);
    put16(m.bytes, at + 22, s.length);
    m.bytes[at + 24] = s.finetune;
    m.bytes[at + 25] = s.volume;
    put16(m.bytes, at + 26, s.repeat_start);
    put16(m.bytes, at + 28, s.repeat_length);
}

void mod_set_order(mod_builder &m, int position, uint8_t pattern) {
    if (position >= 0 && position < 128) m.bytes[song_offset(m) + 2 + uint32_t(position)] = pattern;
}

void mod_set_song(mod_builder &m, uint8_t length, uint8_t restart) {
    m.bytes[song_offset(m)] = length;
    m.bytes[song_offset(m) + 1] = restart;
}

void mod_set_cell(mod_builder &m, uint32_t pattern, int row, int channel, uint8_t command, uint8_t param) {
    if (pattern >= m.patterns || row < 0 || row >= 64 || channel < 0 || channel >= 4) return;
    uint32_t at = header_size(m) + 1024 * pattern + 16 * uint32_t(row) + 4 * uint32_t(channel);
    m.bytes[at + 2] = uint8_t((m.bytes[at + 2] & 0xF0) | (command & 0x0F));
    m.bytes[at + 3] = param;
}

void mod_poke(mod_builder &m, uint32_t offset, uint8_t value) {
    if (offset < m.bytes.size()) m.bytes[offset] = value;
}

std::vector<uint8_t> mod_finish(const mod_builder &m) {
    std::vector<uint8_t> out = m.bytes;
    uint64_t words = 0;
    for (uint32_t i = 0; i < sample_count(m); ++i) words += uint32_t(m.bytes[42 + 30 * i]) << 8 | m.bytes[43 + 30 * i];
    out.resize(out.size() + 2 * words, 0);
    return out;
}
