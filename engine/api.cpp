// The exported engine interface: creation, settings and queries.
#include <cstdlib>

#include "engine/engine.h"
#include "hardware/bus.h"
#include "selection/datatree.h"

#ifndef KELVA_VERSION
#define KELVA_VERSION "0.0.0"
#endif

void copy_emulated_string(const kelva *k, uint32_t addr, char *out, uint32_t capacity) {
    if (!out || capacity == 0) return;
    uint32_t n = 0;
    if (k && addr) {
        // Read through the bus like any access of the player's.
        kelva *m = const_cast<kelva *>(k);
        for (; n + 1 < capacity; ++n) {
            uint32_t c = read8(m, addr + n);
            if (c == 0) break;
            out[n] = char(c);
        }
    }
    out[n] = '\0';
}

namespace {

// A string the player names through a long that holds its address.
void copy_referenced_string(const kelva *k, uint32_t ref, char *out, uint32_t capacity) {
    uint32_t addr = k && ref ? read32(const_cast<kelva *>(k), ref) : 0;
    copy_emulated_string(k, addr, out, capacity);
}

}  // namespace

extern "C" {

const char *kelva_version(void) { return KELVA_VERSION; }

kelva *kelva_create(int32_t rate) {
    auto *k = static_cast<kelva *>(calloc(1, sizeof(kelva)));
    if (!k) return nullptr;
    kelva_reset(k, rate);
    return k;
}

void kelva_destroy(kelva *k) {
    if (!k) return;
    for (dos_handle &f : k->files) free(f.data);
    free(k);
}

void kelva_set_separation(kelva *k, float separation) {
    if (!(separation > 0.0f)) separation = 0.0f;   // also catches NaN
    if (separation > 1.0f) separation = 1.0f;
    k->separation = separation;
}

void kelva_set_model(kelva *k, uint32_t model) {
    k->model = model == 1;
    k->mix.model = model == 1;
    paula_recalc(&k->mix);
}

void kelva_set_led_filter(kelva *k, uint32_t mode) {
    k->led_mode = mode;
    if (mode == 1) k->mix.led_on = 0;
    if (mode == 2) k->mix.led_on = 1;
}

int32_t kelva_get_mixrate(const kelva *k) { return k->rate; }

uint32_t kelva_get_subsong_count(const kelva *k) { return k->subsong_count; }

int64_t kelva_played_ms(const kelva *k) {
    if (k->rate < 1) return 0;
    return int64_t(k->played_frames * 1000 / uint64_t(k->rate));
}

int kelva_song_ended(const kelva *k) { return k->song_end_frame != 0; }

uint32_t kelva_get_player_flags(const kelva *k) { return k ? k->player_flags : 0; }

void kelva_get_module_name(const kelva *k, char *out, uint32_t capacity) {
    copy_referenced_string(k, k ? k->module_name_ref : 0, out, capacity);
}

void kelva_get_author_name(const kelva *k, char *out, uint32_t capacity) {
    copy_referenced_string(k, k ? k->author_name_ref : 0, out, capacity);
}

void kelva_set_file_loader(kelva *k, kelva_file_loader loader, void *user) {
    k->loader = loader ? loader : default_load;
    k->loader_user = loader ? user : nullptr;
}

}  // extern "C"
