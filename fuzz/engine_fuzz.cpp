// Fuzz target: the whole engine on hostile modules, with every player file
// of the players folder (the build tree's kelva_data/players, or the folder
// named by KELVA_FUZZ_PLAYERS). The input picks a player by its index, or
// names the module so that identification picks it (README.md gives the
// layout, with the companion file served for names ending in ".nt"). The
// module is opened, one second is rendered in the plugin's block size, it is
// closed, opened again and its length measured with a small limit. Output
// must stay finite and the measurement within its limit.
#include <cmath>

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

void load_players(const std::string &dir) {
    std::vector<std::string> names;
    fuzz::list_folder(dir, &names);
    for (const std::string &p : names) {
        player_file f{p, {}};
        if (fuzz::read_file(p, &f.bytes) && !f.bytes.empty()) players.push_back(std::move(f));
    }
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
    fuzz::memory_file companion{nullptr, 0, ".nt"};
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
    kelva_set_file_loader(k, with_companion ? fuzz::memory_file_loader : nullptr, &companion);
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
        for (auto get_name : {kelva_get_player_name, kelva_get_module_name, kelva_get_author_name}) {
            char name[64];
            get_name(k, name, sizeof name);
            FUZZ_CHECK(memchr(name, '\0', sizeof name) != nullptr);
        }
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
