// Fuzz target: the whole engine on hostile modules with the real players
// (README.md gives the input's layout): open, one second of rendering in the
// plugin's block size, close, open again and measure the length with a small
// limit. Output must stay finite and the measurement within its limit.
#include <cmath>
#include <map>

#include "fuzz_support.h"

namespace {

constexpr int32_t kRate = 48000;
constexpr int32_t kBlock = 4096;
constexpr int32_t kMeasureMs = 1000;

std::map<std::string, std::vector<uint8_t>> players;   // by path, in name order

}  // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    const char *dir = getenv("KELVA_FUZZ_PLAYERS");
#ifdef KELVA_FUZZ_DATA
    setenv("KELVA_DATA", KELVA_FUZZ_DATA, 0);   // the real eagleplayer.conf, unless given
    if (!dir) dir = KELVA_FUZZ_DATA "/players";
#endif
    for (const std::string &p : fuzz::list_folder(dir ? dir : ""))
        if (!fuzz::read_file(p, &players[p]) || players[p].empty()) players.erase(p);
    if (players.empty()) {
        fprintf(stderr, "engine fuzz: no players found in %s (build them, or set KELVA_FUZZ_PLAYERS)\n",
                dir ? dir : "(no folder)");
        exit(1);
    }
    fprintf(stderr, "engine fuzz: %zu players\n", players.size());
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size > (1u << 20)) return 0;
    kelva *k = fuzz::engine();
    auto byte = [&]() -> uint8_t { return size ? (size--, *data++) : 0; };   // 0 past the end
    uint8_t first = byte();
    uint32_t choice = first % uint32_t(players.size() + 1);
    int32_t subsong = byte() % 4;
    std::string module_path = "/fuzz/fuzz.mod";
    fuzz::memory_file companion{nullptr, 0, ".nt"};
    if (first == 0xFF || first == 0xFE) {   // named module, 0xFE with a companion file
        std::string name;
        for (uint8_t c; size > 0 && name.size() < 63 && (c = byte()) != 0;) name.push_back(c == '/' ? '_' : char(c));
        module_path = "/fuzz/" + name;
        choice = uint32_t(players.size());
        if (first == 0xFE) {
            uint32_t n = 0;
            for (int i = 0; i < 4; i++) n = n << 8 | byte();
            companion = {data, std::min<size_t>(n, size), ".nt"};
            data += companion.size;
            size -= companion.size;
        }
    }
    kelva_set_file_loader(k, first == 0xFE ? fuzz::memory_file_loader : nullptr, &companion);
    uint32_t len = uint32_t(size);

    auto player = players.end();
    char path[4096];
    if (choice < players.size())
        player = std::next(players.begin(), choice);
    else if (kelva_identify(module_path.c_str(), data, len, path, sizeof path))
        player = players.find(path);   // end(): a configured player outside the fuzzed set
    if (player == players.end()) return 0;
    const std::vector<uint8_t> &code = player->second;
    auto open = [&] {
        return kelva_open(k, code.data(), uint32_t(code.size()), data, len, player->first.c_str(), module_path.c_str(),
                          subsong) == 0;
    };
    if (open()) {
        for (auto get_name : {kelva_get_player_name, kelva_get_module_name, kelva_get_author_name}) {
            char name[64];
            get_name(k, name, sizeof name);
            FUZZ_CHECK(memchr(name, '\0', sizeof name) != nullptr);
        }
        FUZZ_CHECK(kelva_get_format_name(k) != nullptr);
        FUZZ_CHECK(kelva_get_subsong_count(k) >= 1);
        static float pcm[kBlock * 2];
        for (int32_t left = kRate, n; left > 0; left -= n) {   // one second in the plugin's blocks
            n = std::min(left, kBlock);
            kelva_render(k, pcm, n);
            for (int32_t i = 0; i < 2 * n; i++) FUZZ_CHECK(std::isfinite(pcm[i]));
        }
        kelva_close(k);
    }
    if (open()) {
        int32_t reason = 0;
        uint64_t ms = kelva_measure_length(k, kMeasureMs, 500, &reason, nullptr, nullptr);
        FUZZ_CHECK(reason >= 1 && reason <= 4);
        // The limit is tested before each chunk of 2048 frames; silence
        // reports one second past its start.
        FUZZ_CHECK(ms <= uint64_t(kMeasureMs) + 1000 + 2048 * 1000 / kRate);
        kelva_close(k);
    }
    kelva_set_file_loader(k, nullptr, nullptr);
    return 0;
}
