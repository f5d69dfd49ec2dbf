#include "support/test_support.h"

#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>

#include "hardware/bus.h"

bool shared_exists(const std::string &sub) {
    struct stat st;
    return stat((std::string(KELVA_SHARED_DIR) + "/" + sub).c_str(), &st) == 0;
}

std::string shared_dir() { return shared_exists("") ? KELVA_SHARED_DIR : ""; }   // "dir/" names only a folder

engine_ptr make_engine(int32_t rate) {
    kelva_global_init();   // once per process; later calls return at once
    return engine_ptr(kelva_create(rate));
}

std::vector<uint8_t> read_file_bytes(const std::string &path) {
    std::ifstream f(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(f), {}};
}

int memory_loader(void *user, const char *path, uint8_t **out, uint32_t *len) {
    auto *m = static_cast<memory_files *>(user);
    m->requests.push_back(path);
    auto it = m->files.find(path);
    if (it == m->files.end()) return 0;
    *out = static_cast<uint8_t *>(malloc(it->second.size() ? it->second.size() : 1));
    if (!it->second.empty()) memcpy(*out, it->second.data(), it->second.size());
    *len = uint32_t(it->second.size());
    return 1;
}

void put_be32(std::vector<uint8_t> &v, uint32_t x) {
    for (int s = 24; s >= 0; s -= 8) v.push_back(uint8_t(x >> s));
}

std::vector<uint8_t> envelope_module(uint32_t pattern_ticks, uint32_t stop_tick, uint32_t end_tick, uint32_t seed) {
    std::vector<uint8_t> m;
    for (uint32_t v : {0x454E564Cu, pattern_ticks, stop_tick, end_tick, seed, 0u}) put_be32(m, v);
    return m;
}

void set_audio_latches(kelva *k, int x, uint32_t lc, uint16_t len, uint16_t per, uint16_t vol) {
    uint32_t base = 0xDFF0A0 + 16 * uint32_t(x);
    write32(k, base, lc);                  // AUDxLCH + AUDxLCL
    custom_write_word(k, base + 4, len);   // AUDxLEN
    custom_write_word(k, base + 6, per);   // AUDxPER
    custom_write_word(k, base + 8, vol);   // AUDxVOL
}
