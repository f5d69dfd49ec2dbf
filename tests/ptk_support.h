// Helpers for the tests of kelva's ProTracker-family players: open a built
// player on a module image and step it tick by tick.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "engine/engine.h"
#include "support/test_support.h"

namespace ptk_test {

inline std::string player_path(const char *name) { return std::string(KELVA_BUILD_DATA) + "/players/" + name; }

inline std::vector<uint8_t> read_bytes(const std::string &path) { return read_file_bytes(path); }

// Points KELVA_DATA at the build tree's data tree for the test's lifetime.
struct data_tree_env {
    std::string old;
    bool had = false;
    data_tree_env() {
        if (const char *v = getenv("KELVA_DATA")) {
            old = v;
            had = true;
        }
        setenv("KELVA_DATA", KELVA_BUILD_DATA, 1);
    }
    ~data_tree_env() {
        if (had) setenv("KELVA_DATA", old.c_str(), 1);
        else unsetenv("KELVA_DATA");
    }
};

// Frames of one 50 Hz tick at 48 kHz.
constexpr int32_t kTick = 960;

// Renders `n` ticks: afterwards the player's tick routine has run n times
// more (the first call of a fresh engine runs it at once).
inline void run_ticks(kelva *k, int n) {
    std::vector<float> buf(size_t(kTick) * 2);
    for (int i = 0; i < n; i++) kelva_render(k, buf.data(), kTick);
}

constexpr uint32_t kModule = 0x010000;

inline void be16(std::vector<uint8_t> &v, size_t at, uint16_t x) {
    v[at] = uint8_t(x >> 8);
    v[at + 1] = uint8_t(x);
}
inline void be32(std::vector<uint8_t> &v, size_t at, uint32_t x) {
    be16(v, at, uint16_t(x >> 16));
    be16(v, at + 2, uint16_t(x));
}
inline void le16(std::vector<uint8_t> &v, size_t at, uint16_t x) {
    v[at] = uint8_t(x);
    v[at + 1] = uint8_t(x >> 8);
}
inline void le32(std::vector<uint8_t> &v, size_t at, uint32_t x) {
    le16(v, at, uint16_t(x));
    le16(v, at + 2, uint16_t(x >> 16));
}

// Opens a built player on a module image (no paths); null when kelva_open fails.
inline engine_ptr open_player(const char *player, const std::vector<uint8_t> &mod) {
    kelva_global_init();
    engine_ptr k = make_engine(48000);
    std::string pp = player_path(player);
    std::vector<uint8_t> p = read_bytes(pp);
    if (kelva_open(k.get(), p.data(), uint32_t(p.size()), mod.data(), uint32_t(mod.size()), pp.c_str(), nullptr,
                   0) != 0)
        return nullptr;
    return k;
}

// The block the software mixer most recently handed Paula channel x (the
// one queued behind the playing block, or restarted at the tick).
inline std::vector<int8_t> mixed(const engine_ptr &k, int x) {
    const int8_t *b = reinterpret_cast<const int8_t *>(k->ram + (k->aud[x].lc & 0xFFFFFF));
    return std::vector<int8_t>(b, b + 2 * k->aud[x].len);
}

}  // namespace ptk_test

// Skips the current test when the player was not built.
#define PTK_REQUIRE_PLAYER(name)                                                                  \
    do {                                                                                          \
        if (ptk_test::read_bytes(ptk_test::player_path(name)).empty())                            \
            GTEST_SKIP() << "player " << name << " not built (no m68k cross compiler?)";        \
    } while (0)
