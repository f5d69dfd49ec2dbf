// Fuzz target: the whole engine on hostile modules. Every player file in the
// players folder (the build tree's kelva_data/players, or the folder named by
// KELVA_FUZZ_PLAYERS) is loaded once. Input byte 0 picks the player (one
// value more than there are players lets identification choose), byte 1 the
// subsong; the rest is the module. A byte 0 of 0xFF names the module
// instead: the bytes after the subsong, up to a NUL (at most 63), are its
// file name, and identification chooses the player by that name and the
// module that follows, whatever players exist (seeds for one format keep
// their player as players are added). A byte 0 of 0xFE is the named form
// with a companion file: after the name's NUL a big-endian 32-bit length n
// and n bytes, which the player gets for any file it asks for whose name
// ends in ".nt" (Startrekker's companion files). The module is opened, one second is
// rendered in the plugin's block size, it is closed, opened again and its
// length measured with a small limit. Output must stay finite and the
// measurement within its limit.
#include <dirent.h>
#include <strings.h>
#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "engine/kelva.h"
#include "fuzz_support.h"

namespace {

constexpr int32_t kRate = 48000;
constexpr int32_t kBlock = 4096;
constexpr int32_t kMeasureMs = 1000;
constexpr int32_t kSilenceMs = 500;
constexpr char kModulePath[] = "/fuzz/fuzz.mod";
constexpr uint8_t kNamedInput = 0xFF;
constexpr uint8_t kNamedWithCompanion = 0xFE;

struct player_file {
    std::string path;
    std::vector<uint8_t> bytes;
};

std::vector<player_file> players;
kelva *k;
float pcm[kBlock * 2];

bool slurp(const std::string &path, std::vector<uint8_t> *out) {
    FILE *f = fopen(path.c_str(), "rb");
    if (!f) return false;
    out->clear();
    uint8_t buf[65536];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0) out->insert(out->end(), buf, buf + n);
    fclose(f);
    return !out->empty();
}

void load_players(const std::string &dir) {
    DIR *d = opendir(dir.c_str());
    if (!d) return;
    std::vector<std::string> names;
    while (dirent *e = readdir(d)) {
        std::string p = dir + "/" + e->d_name;
        struct stat st;
        if (e->d_name[0] != '.' && stat(p.c_str(), &st) == 0 && S_ISREG(st.st_mode)) names.push_back(p);
    }
    closedir(d);
    std::sort(names.begin(), names.end());
    for (const std::string &p : names) {
        player_file f{p, {}};
        if (slurp(p, &f.bytes)) players.push_back(std::move(f));
    }
}

// The companion file of a 0xFE input, served for names ending in ".nt".
struct companion_file {
    const uint8_t *data = nullptr;
    uint32_t size = 0;
};

int companion_loader(void *user, const char *path, uint8_t **out, uint32_t *len) {
    const companion_file *c = static_cast<const companion_file *>(user);
    size_t n = strlen(path);
    if (n < 3 || strcasecmp(path + n - 3, ".nt") != 0) return 0;
    *out = static_cast<uint8_t *>(malloc(c->size ? c->size : 1));
    if (!*out) return 0;
    if (c->size) memcpy(*out, c->data, c->size);
    *len = c->size;
    return 1;
}

void render_one_second() {
    int32_t left = kRate;
    while (left > 0) {
        int32_t n = std::min(left, kBlock);
        kelva_render(k, pcm, n);
        for (int32_t i = 0; i < 2 * n; i++) FUZZ_CHECK(std::isfinite(pcm[i]));
        left -= n;
    }
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    const char *dir = getenv("KELVA_FUZZ_PLAYERS");
#ifdef KELVA_FUZZ_DATA
    setenv("KELVA_DATA", KELVA_FUZZ_DATA, 0);   // the real eagleplayer.conf, unless given
    if (!dir) dir = KELVA_FUZZ_DATA "/players";
#endif
    if (dir) load_players(dir);
    if (players.empty()) {
        fprintf(stderr, "engine fuzz: no players found in %s (build them, or set KELVA_FUZZ_PLAYERS)\n",
                dir ? dir : "(no folder)");
        exit(1);
    }
    fprintf(stderr, "engine fuzz: %zu players\n", players.size());
    kelva_global_init();
    k = kelva_create(kRate);
    return k ? 0 : 1;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > (1u << 20)) return 0;
    fuzz::input in{data, size};
    uint8_t first = in.byte();
    uint32_t choice = first % uint32_t(players.size() + 1);
    int32_t subsong = in.byte() % 4;
    std::string module_path = kModulePath;
    companion_file companion;
    bool with_companion = first == kNamedWithCompanion;
    if (first == kNamedInput || with_companion) {
        std::string name;
        while (in.size > 0 && name.size() < 63) {
            uint8_t c = in.byte();
            if (c == 0) break;
            name.push_back(c == '/' ? '_' : char(c));
        }
        module_path = "/fuzz/" + name;
        choice = uint32_t(players.size());
        if (with_companion) {
            uint32_t n = 0;
            for (int i = 0; i < 4; i++) n = n << 8 | in.byte();
            companion.size = n < in.size ? n : uint32_t(in.size);
            companion.data = in.data;
            in.data += companion.size;
            in.size -= companion.size;
        }
    }
    kelva_set_file_loader(k, with_companion ? companion_loader : nullptr, &companion);
    const uint8_t *module = in.data;
    uint32_t len = uint32_t(in.size);

    const player_file *player = nullptr;
    if (choice < players.size()) {
        player = &players[choice];
    } else {
        char path[4096];
        if (!kelva_identify(module_path.c_str(), module, len, path, sizeof path)) return 0;
        for (const player_file &p : players)
            if (p.path == path) player = &p;
        if (!player) return 0;   // a configured player outside the fuzzed set
    }
    const uint8_t *code = player->bytes.data();
    uint32_t code_len = uint32_t(player->bytes.size());

    if (kelva_open(k, code, code_len, module, len, player->path.c_str(), module_path.c_str(), subsong) == 0) {
        char name[64];
        kelva_get_player_name(k, name, sizeof name);
        FUZZ_CHECK(memchr(name, '\0', sizeof name) != nullptr);
        kelva_get_module_name(k, name, sizeof name);
        FUZZ_CHECK(memchr(name, '\0', sizeof name) != nullptr);
        kelva_get_author_name(k, name, sizeof name);
        FUZZ_CHECK(memchr(name, '\0', sizeof name) != nullptr);
        FUZZ_CHECK(kelva_get_format_name(k) != nullptr);
        FUZZ_CHECK(kelva_get_subsong_count(k) >= 1);
        render_one_second();
        kelva_close(k);
    }
    if (kelva_open(k, code, code_len, module, len, player->path.c_str(), module_path.c_str(), subsong) == 0) {
        int32_t reason = 0;
        uint64_t ms = kelva_measure_length(k, kMeasureMs, kSilenceMs, &reason, nullptr, nullptr);
        FUZZ_CHECK(reason >= 1 && reason <= 4);
        // The limit is tested before each chunk of 2048 frames; silence
        // reports one second past its start.
        FUZZ_CHECK(ms <= uint64_t(kMeasureMs) + 1000 + 2048 * 1000 / kRate);
        kelva_close(k);
    }
    kelva_set_file_loader(k, nullptr, nullptr);
    return 0;
}
