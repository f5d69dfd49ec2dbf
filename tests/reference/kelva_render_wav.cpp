// kelva_render_wav: renders a module with kelva's player selection and
// engine to a 32-bit float stereo WAV file, and measures its length, for the
// reference comparison (tests/reference/compare.py).
//
//   kelva_render_wav MODULE OUT.wav [SECONDS]
//
// Renders SECONDS (default 60) of audio at 48 kHz with the A500 filter model
// and full stereo separation, or less when the song ends earlier (at the
// frame where the player reported its end). Prints one line
//   player=<name> option=<type> length_ms=<n> reason=<r> rendered_s=<s>
// Uses KELVA_DATA (or the installed tree) to find the players.
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "engine/kelva.h"

namespace {

bool read_file(const char *path, std::vector<uint8_t> &out) {
    FILE *f = fopen(path, "rb");
    if (!f) return false;
    uint8_t buf[65536];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0) out.insert(out.end(), buf, buf + n);
    fclose(f);
    return true;
}

void put16(FILE *f, uint16_t v) {
    uint8_t b[2] = {uint8_t(v), uint8_t(v >> 8)};
    fwrite(b, 1, 2, f);
}
void put32(FILE *f, uint32_t v) {
    uint8_t b[4] = {uint8_t(v), uint8_t(v >> 8), uint8_t(v >> 16), uint8_t(v >> 24)};
    fwrite(b, 1, 4, f);
}

bool write_wav(const char *path, const std::vector<float> &pcm, uint32_t rate) {
    FILE *f = fopen(path, "wb");
    if (!f) return false;
    uint32_t bytes = uint32_t(pcm.size() * 4);
    fwrite("RIFF", 1, 4, f);
    put32(f, 36 + bytes);
    fwrite("WAVEfmt ", 1, 8, f);
    put32(f, 16);
    put16(f, 3);   // IEEE float
    put16(f, 2);
    put32(f, rate);
    put32(f, rate * 8);
    put16(f, 8);
    put16(f, 32);
    fwrite("data", 1, 4, f);
    put32(f, bytes);
    fwrite(pcm.data(), 4, pcm.size(), f);   // little-endian host
    return fclose(f) == 0;
}

kelva *open_engine(const std::vector<uint8_t> &player, const std::vector<uint8_t> &mod, const char *player_path,
                   const char *mod_path) {
    kelva *k = kelva_create(48000);
    if (!k) return nullptr;
    kelva_set_model(k, 0);
    kelva_set_separation(k, 1.0f);
    if (kelva_open(k, player.data(), uint32_t(player.size()), mod.data(), uint32_t(mod.size()), player_path,
                   mod_path, 0) != 0) {
        kelva_destroy(k);
        return nullptr;
    }
    return k;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 3) {
        fprintf(stderr, "usage: kelva_render_wav MODULE OUT.wav [SECONDS]\n");
        return 2;
    }
    double seconds = argc > 3 ? atof(argv[3]) : 60.0;
    if (!(seconds > 0 && seconds <= 3600)) seconds = 60.0;
    kelva_global_init();
    std::vector<uint8_t> mod, player;
    if (!read_file(argv[1], mod) || mod.empty()) {
        fprintf(stderr, "kelva_render_wav: cannot read %s\n", argv[1]);
        return 1;
    }
    char player_path[4096];
    if (!kelva_identify(argv[1], mod.data(), uint32_t(mod.size()), player_path, sizeof player_path)) {
        fprintf(stderr, "kelva_render_wav: no player for %s\n", argv[1]);
        return 1;
    }
    if (!read_file(player_path, player)) {
        fprintf(stderr, "kelva_render_wav: cannot read %s\n", player_path);
        return 1;
    }
    // Length first, on an engine of its own.
    kelva *m = open_engine(player, mod, player_path, argv[1]);
    if (!m) {
        fprintf(stderr, "kelva_render_wav: %s does not open with %s\n", argv[1], player_path);
        return 1;
    }
    char name[256];
    kelva_get_player_name(m, name, sizeof name);
    std::string option = kelva_get_format_name(m);
    int32_t reason = 0;
    // Measured as the plugin and the command-line tool measure it.
    uint64_t length_ms = kelva_measure_length(m, 600000, 30000, &reason, nullptr, nullptr);
    kelva_destroy(m);

    // When the measurement stopped at a repetition of the loudness envelope
    // (a song whose parts repeat for a long time) or at its time limit (a
    // song longer than 10 minutes), play on to the player's own end signal
    // as well, so its song end can be checked too (up to an hour).
    uint64_t player_end_ms = reason == 1 ? length_ms : 0;
    if (reason != 1) {
        kelva *e = open_engine(player, mod, player_path, argv[1]);
        if (!e) return 1;
        std::vector<float> scratch(480 * 2);   // 10 ms steps: the end to 10 ms
        uint64_t limit_s = reason == 3 ? 3600 : 600;
        for (uint64_t f = 0; f < limit_s * 48000 && !kelva_song_ended(e); f += 480)
            kelva_render(e, scratch.data(), 480);
        if (kelva_song_ended(e)) player_end_ms = uint64_t(kelva_played_ms(e));
        kelva_destroy(e);
    }

    kelva *k = open_engine(player, mod, player_path, argv[1]);
    if (!k) return 1;
    uint64_t want = uint64_t(seconds * 48000);
    if (reason == 1) want = std::min<uint64_t>(want, length_ms * 48);
    std::vector<float> pcm;
    pcm.reserve(want * 2);
    std::vector<float> block(4096 * 2);
    uint64_t done = 0;
    while (done < want) {
        int32_t n = int32_t(std::min<uint64_t>(4096, want - done));
        kelva_render(k, block.data(), n);
        pcm.insert(pcm.end(), block.begin(), block.begin() + 2 * n);
        done += uint64_t(n);
    }
    kelva_close(k);
    kelva_destroy(k);
    if (!write_wav(argv[2], pcm, 48000)) {
        fprintf(stderr, "kelva_render_wav: cannot write %s\n", argv[2]);
        return 1;
    }
    const char *slash = strrchr(player_path, '/');
    printf("player=%s name=%s format=\"%s\" length_ms=%llu reason=%d player_end_ms=%llu rendered_s=%.3f\n",
           slash ? slash + 1 : player_path, name, option.c_str(), (unsigned long long)length_ms, reason,
           (unsigned long long)player_end_ms, double(done) / 48000.0);
    return 0;
}
