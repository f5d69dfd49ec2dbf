// Helpers for the tests of kelva's players: open a built player on a module, step it and check Paula.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#define XXH_INLINE_ALL
#include <xxhash.h>

#include "engine/engine.h"
#include "support/temptree.h"
#include "support/test_support.h"

namespace ptk_test {

// A player of the data tree, or the file `n` when a path.
inline std::string player_path(const std::string &n) {
    return n.find('/') < n.size() ? n : KELVA_BUILD_DATA "/players/" + n;
}

struct data_tree_env : env_guard {
    data_tree_env() { setenv("KELVA_DATA", KELVA_BUILD_DATA, 1); }
};

constexpr uint32_t kModule = 0x010000;  // where the engine loads the module

// Renders `n` ticks: the player's tick routine runs n times more (a fresh engine's first call runs it at once).
inline void run_ticks(kelva *k, int n) {
    std::vector<float> buf(2 * 960);   // a 50 Hz tick at 48 kHz
    for (int i = 0; i < n; i++) kelva_render(k, buf.data(), 960);
}

inline void be16(std::vector<uint8_t> &v, size_t at, uint16_t x) { v[at] = uint8_t(x >> 8), v[at + 1] = uint8_t(x); }
inline void be32(std::vector<uint8_t> &v, size_t at, uint32_t x) { be16(v, at, uint16_t(x >> 16)), be16(v, at + 2, x); }
inline void le16(std::vector<uint8_t> &v, size_t at, uint16_t x) { v[at] = uint8_t(x), v[at + 1] = uint8_t(x >> 8); }
inline void le32(std::vector<uint8_t> &v, size_t at, uint32_t x) { le16(v, at, uint16_t(x)), le16(v, at + 2, x >> 16); }

// With KELVA_FUZZ_SEEDS naming a folder, every module opened below (up to 10 KB) is also written there as fuzz seeds
// named by their content (fuzz/README.md): an engine input under a name by which identification picks the player
// `pp` (with the module's .nt file as companion), and ProTracker-layout ones as classify and identify inputs.
inline void write_seed(const char *dir, const char *target, const std::vector<uint8_t> &in) {
    char name[32];
    snprintf(name, sizeof name, "/seed-%016llx", (unsigned long long)XXH3_64bits(in.data(), in.size()));
    std::filesystem::create_directories(std::string(dir) + "/" + target);
    write_file(std::string(dir) + "/" + target + name, in);
}
inline void write_seeds(const std::string &pp, const std::vector<uint8_t> &mod, const char *path, int subsong) {
    const char *dir = getenv("KELVA_FUZZ_SEEDS");
    if (!dir || mod.size() > 10240) return;
    data_tree_env env;
    char found[4096];
    std::string base = path ? std::filesystem::path(path).filename().string() : "seed.mod", name = base;
    for (const char *n : {base.c_str(), "seed.mod", "seed.ptk", "seed.ust", "seed.st4", "seed.sfx", "seed.gmc",
                          "seed.ims", "seed.ptm", "seed.okt", "seed.digi", "seed.ahx", "seed.hvl", "seed.med"})
        if (kelva_identify(n, mod.data(), uint32_t(mod.size()), found, sizeof found) && pp == found) {
            name = n;
            break;
        }
    std::vector<uint8_t> nt = path ? read_file_bytes(std::string(path) + ".nt") : std::vector<uint8_t>();
    const std::string head = std::string{char(nt.empty() ? 0xFF : 0xFE), char(subsong)} + name + '\0';
    std::vector<uint8_t> in(head.begin(), head.end());
    if (!nt.empty()) put_be32(in, uint32_t(nt.size()));
    in.insert(in.end(), nt.begin(), nt.end());
    in.insert(in.end(), mod.begin(), mod.end());
    write_seed(dir, "engine", in);
    const char *ptk[] = {"PTK-Prowiz", "UltimateSoundtracker", "Soundtracker-IV", "AudioSculpture"};
    if (std::find(std::begin(ptk), std::end(ptk), pp.substr(pp.rfind('/') + 1)) == std::end(ptk)) return;
    write_seed(dir, "classify", mod);
    in.assign(1, 0);   // named x.mod
    in.insert(in.end(), mod.begin(), mod.end());
    write_seed(dir, "identify", in);
}

// Opens the player_path(name) on a module image (named `path`, at `subsong`, its companion files served from `files`)
// at full stereo separation; null when kelva_open fails.
inline engine_ptr open_player(const std::string &name, const std::vector<uint8_t> &mod, const char *path = nullptr,
                              int subsong = 0, memory_files *files = nullptr) {
    const std::string pp = player_path(name);
    write_seeds(pp, mod, path, subsong);
    engine_ptr k = make_engine(48000);
    kelva_set_separation(k.get(), 1.0f);
    if (files) kelva_set_file_loader(k.get(), memory_loader, files);
    std::vector<uint8_t> p = read_file_bytes(pp);
    if (kelva_open(k.get(), p.data(), uint32_t(p.size()), mod.data(), uint32_t(mod.size()), pp.c_str(), path, subsong))
        return nullptr;
    return k;
}

// Identifies the shared module `rel` under the name `as` (its path when empty) and opens it with the player
// found, as the plugin does; null when either fails. `player` (when given) gets the player's path.
inline engine_ptr open_identified(const std::string &rel, std::string *player = nullptr, std::string as = "") {
    std::string path = shared_dir() + "/testdata/modules/" + rel;
    std::vector<uint8_t> data = read_file_bytes(path);
    char found[4096];
    if (as.empty()) as = path;
    if (data.empty() || !kelva_identify(as.c_str(), data.data(), uint32_t(data.size()), found, sizeof found))
        return nullptr;
    if (player) *player = found;
    return open_player(found, data, as.c_str());
}

inline std::vector<int8_t> ramp(size_t n, int step = 1, int shift = 0) {
    std::vector<int8_t> r(n);
    for (size_t i = 0; i < n; i++) r[i] = int8_t(int(i) * step >> shift);
    return r;
}

// Expected values: (tick, value); tick -1 is before the first tick. series(): after ticks 0, n, 2n, ...
using trace = std::vector<std::pair<int, int>>;
inline trace series(const std::vector<int> &v, int n = 1) {
    trace t;
    for (size_t i = 0; i < v.size(); i++) t.push_back({int(i) * n, v[i]});
    return t;
}

// Checks `t`, value i by observe(obs[i mod the length of obs]); obs "!": k is null (the player refused the module).
template <class F> void expect_trace(kelva *k, const char *obs, const trace &t, F observe) {
    ASSERT_EQ(!k, *obs == '!') << "opened or refused";
    int done = 0;
    size_t i = 0;
    for (const auto &e : t) {
        if (e.first + 1 > done) run_ticks(k, e.first + 1 - done), done = e.first + 1;
        EXPECT_EQ(observe(obs[i++ % strlen(obs)]), e.second) << "tick " << e.first;
    }
}

// The block AUDxLC/LEN name (queued behind the one playing): for a mixed channel, the mixer's latest.
inline std::vector<int8_t> mixed(const kelva *k, int x) {
    const int8_t *b = reinterpret_cast<const int8_t *>(k->ram + (k->aud[x].lc & 0xFFFFFF));
    return std::vector<int8_t>(b, b + 2 * k->aud[x].len);
}

}  // namespace ptk_test

// Skips the current test when one of the players was not built.
#define PTK_REQUIRE_PLAYERS(...)                                \
    for (const char *p_ : {__VA_ARGS__})                        \
        if (read_file_bytes(ptk_test::player_path(p_)).empty()) \
            GTEST_SKIP() << "player " << p_ << " not built (no m68k cross compiler?)"
// A fixture whose tests skip when one of the players was not built.
#define PTK_FIXTURE(name, ...)                                      \
    class name : public ::testing::Test {                           \
        void SetUp() override { PTK_REQUIRE_PLAYERS(__VA_ARGS__); } \
    }

// Table-driven checks: a pattern cell of any of the formats and probes of what a player left after N ticks.
namespace trk {

using namespace ptk_test;
using bytes = std::vector<uint8_t>;

// note: a period, a note number or a format's code; vol: the volume column of formats that have one (-1: none).
struct cell {
    int pat, row, ch;
    uint16_t note;
    uint8_t smp, fx = 0, param = 0;
    int vol = -1;
};

// A ProTracker-style cell: sample bits 4-7 over a 12-bit period, bits 0-3 over the command, then the parameter.
inline void put_cell(std::vector<uint8_t> &m, size_t at, const cell &c) {
    m[at] = uint8_t((c.smp & 0xF0) | c.note >> 8), m[at + 1] = uint8_t(c.note);
    m[at + 2] = uint8_t((c.smp & 15) << 4 | (c.fx & 15)), m[at + 3] = c.param;
}

// Probes, written "@tick" or "@first-last" (ticks since the open) then what, Paula channel, '=' and value
// ("@1 p0=428 v0=40 @7-9 p0=431"). What:
//   p v l d  AUDxPER, AUDxVOL, AUDxLEN, DMA running
//   c a      AUDxLC, the start of the block playing, less the case's base
//   e P      the end of the block playing (bytes), its position in hundreds
//   q Q      every byte of the block AUDxLC/LEN name (INT_MIN when they differ), its first byte
//   t f      the CIA-A timer value the player set, frames per tick
//   E x      the frame of the song's end, kelva_song_ended
//   L        the measured length in ms (-reason when not by the song's end)
struct probe {
    int tick, ch;
    char what;
    int64_t value;
};

inline int64_t observe(kelva *k, int ch, char what, uint32_t base) {
    const audio_latch &a = k->aud[ch];
    const paula_channel &c = k->ch[ch];
    const int8_t *q = reinterpret_cast<const int8_t *>(k->ram + (a.lc & 0xFFFFFF));
    int32_t reason = 0;
    switch (what) {
        case 'p': return a.per;
        case 'v': return a.vol;
        case 'l': return a.len;
        case 'd': return a.dma_running;
        case 'c': return int64_t(a.lc) - base;
        case 'a': return int64_t(c.data - k->ram) - base;
        case 'e': return c.end;
        case 'P': return c.pos / 100;
        case 'Q': return q[0];
        case 't': return k->ram[kGlobals + 54] << 8 | k->ram[kGlobals + 55];
        case 'f': return k->frames_per_tick;
        case 'E': return int64_t(k->song_end_frame);
        case 'x': return kelva_song_ended(k);
        case 'L': {
            uint64_t ms = kelva_measure_length(k, 0, 0, &reason, nullptr, nullptr);
            return reason == 1 ? int64_t(ms) : -reason;
        }
        case 'q': return std::all_of(q, q + 2 * a.len, [q](int8_t b) { return b == q[0]; }) ? q[0] : INT_MIN;
    }
    ADD_FAILURE() << "no probe '" << what << "'";
    return INT64_MIN;
}

inline void expect_probes(kelva *k, const char *text, uint32_t base = 0) {
    std::vector<probe> probes;
    int from = 0, to = 0, n = 0, done = 0;
    char what;
    for (long long v, ch; *(text += strspn(text, " ")); text += n) {
        if (sscanf(text, "@%d-%d%n", &from, &to, &n) == 2 || (sscanf(text, "@%d%n", &from, &n) == 1 && (to = from, 1)))
            continue;
        ASSERT_EQ(sscanf(text, "%c%lld=%lld%n", &what, &ch, &v, &n), 3) << "probe text: " << text;
        for (int t = from; t <= to; t++) probes.push_back({t, int(ch), what, v});
    }
    std::stable_sort(probes.begin(), probes.end(), [](const probe &x, const probe &y) { return x.tick < y.tick; });
    for (const probe &p : probes) {
        if (p.tick > done) run_ticks(k, p.tick - done), done = p.tick;
        EXPECT_EQ(observe(k, p.ch, p.what, base), p.value) << p.what << p.ch << " at tick " << p.tick;
    }
}

// A synthetic module, its player (under `path`, for the data tree's option string) and its probes.
struct tcase {
    const char *what, *player;
    bytes image;
    uint32_t base;   // subtracted from the 'a' and 'c' probes
    std::string probes;   // "!": the player refuses the module
    const char *format = nullptr, *path = nullptr, *epopt = nullptr;
};
inline void run_case(const tcase &c) {
    SCOPED_TRACE(c.what);
    data_tree_env env;
    engine_ptr k = open_player(c.player, c.image, c.path);
    ASSERT_EQ(!k, c.probes == "!") << "opened or refused";
    if (!k) return;
    EXPECT_STREQ(c.format ? kelva_get_format_name(k.get()) : nullptr, c.format);
    EXPECT_STREQ(c.epopt ? k->epopt : nullptr, c.epopt);
    expect_probes(k.get(), c.probes.c_str(), c.base);
}

}  // namespace trk
