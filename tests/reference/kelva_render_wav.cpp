// kelva_render_wav MODULE OUT.wav [SECONDS]: renders a module with kelva's player selection (players
// from KELVA_DATA or the installed tree) and engine to a float stereo WAV file, 48 kHz, A500 filter,
// full separation, and measures its length, for the reference comparison (compare.py). Prints
//   player=<file> name=<name> format="<format>" length_ms=<n> reason=<r> player_end_ms=<n> rendered_s=<s>
#include <algorithm>
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
    return !out.empty();
}

bool write_wav(const char *path, const std::vector<float> &pcm) {
    FILE *f = fopen(path, "wb");
    if (!f) return false;
    uint32_t bytes = uint32_t(pcm.size() * 4);
    // A 48 kHz stereo IEEE-float WAV header as eleven little-endian words ("RIFF", "WAVE", "fmt ", "data").
    const uint32_t h[11] = {0x46464952, 36 + bytes, 0x45564157, 0x20746d66, 16, 3 | 2 << 16, 48000, 48000 * 8,
                            8 | 32 << 16, 0x61746164, bytes};
    fwrite(h, sizeof h, 1, f);
    fwrite(pcm.data(), 4, pcm.size(), f);
    return fclose(f) == 0;
}

int fail(const char *what, const char *path) {
    fprintf(stderr, "kelva_render_wav: %s %s\n", what, path);
    return 1;
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
    char player_path[4096];
    if (!read_file(argv[1], mod)) return fail("cannot read", argv[1]);
    if (!kelva_identify(argv[1], mod.data(), uint32_t(mod.size()), player_path, sizeof player_path))
        return fail("no player for", argv[1]);
    if (!read_file(player_path, player)) return fail("cannot read", player_path);
    auto open_engine = [&]() -> kelva * {
        kelva *k = kelva_create(48000);
        if (!k) return nullptr;
        kelva_set_model(k, 0);
        kelva_set_separation(k, 1.0f);
        if (kelva_open(k, player.data(), uint32_t(player.size()), mod.data(), uint32_t(mod.size()), player_path,
                       argv[1], 0) == 0)
            return k;
        kelva_destroy(k);
        return nullptr;
    };
    // Length first, on an engine of its own, measured as the plugin and the command-line tool do.
    kelva *m = open_engine();
    if (!m) return fail("cannot open with its player:", argv[1]);
    char name[256];
    kelva_get_player_name(m, name, sizeof name);
    std::string format = kelva_get_format_name(m);
    int32_t reason = 0;
    uint64_t length_ms = kelva_measure_length(m, 600000, 30000, &reason, nullptr, nullptr);
    kelva_destroy(m);

    // Then SECONDS are rendered, or less when the measurement found the song's end. When it stopped
    // at a repetition of the loudness envelope (a song whose parts repeat for a long time) or at its
    // time limit (a song longer than 10 minutes), the engine plays on to the player's own end signal
    // as well, so its song end can be checked too (up to an hour, to 10 ms).
    kelva *k = open_engine();
    if (!k) return 1;
    uint64_t want = uint64_t(seconds * 48000), player_end_ms = reason == 1 ? length_ms : 0;
    uint64_t limit = reason == 1 ? 0 : uint64_t(reason == 3 ? 3600 : 600) * 48000, done = 0;
    if (reason == 1) want = std::min<uint64_t>(want, length_ms * 48);
    std::vector<float> pcm(want * 2), block(480 * 2);
    for (; done < want || (done < limit && !player_end_ms); done += 480) {
        kelva_render(k, block.data(), 480);
        if (done < want) std::copy_n(block.begin(), 2 * std::min<uint64_t>(480, want - done), pcm.begin() + 2 * done);
        if (!player_end_ms && kelva_song_ended(k)) player_end_ms = uint64_t(kelva_played_ms(k));
    }
    kelva_close(k);
    kelva_destroy(k);
    if (!write_wav(argv[2], pcm)) return fail("cannot write", argv[2]);
    const char *slash = strrchr(player_path, '/');
    printf("player=%s name=%s format=\"%s\" length_ms=%llu reason=%d player_end_ms=%llu rendered_s=%.3f\n",
           slash ? slash + 1 : player_path, name, format.c_str(), (unsigned long long)length_ms, reason,
           (unsigned long long)player_end_ms, double(want) / 48000.0);
    return 0;
}
