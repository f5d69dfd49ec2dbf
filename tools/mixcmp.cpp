// kelva-mixcmp: plays whole songs twice side by side, once with the mixer's
// frame-at-a-time path and once with the per-tick reference path, and
// prints the largest difference between the two outputs per module.
//
//   kelva-mixcmp [options] PATH...
//
// A PATH is a module file or a folder, whose files are taken one by one
// (not recursing). Each module is played with the player kelva identifies
// for it, for its measured length (as the plugin measures it, up to 10
// minutes) or up to --seconds. Files that no player takes (notes, companion
// files) or whose player does not start are listed as skipped. Options:
//   --model a500|a1200   output filter (default a500)
//   --led auto|on|off    LED filter (default auto: as the player switches it)
//   --separation S       stereo separation 0..1 (default 1)
//   --rate R             output rate (default 48000)
//   --seconds S          compare at most S seconds of each song
//   --limit D            the largest difference accepted (default 1e-6)
// Exit status 0 when every module stays within the limit, 1 otherwise, 2 on
// a usage error. Uses KELVA_DATA (or the installed tree) to find players.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "engine/engine.h"

namespace {

struct settings {
    uint32_t model = 0;
    uint32_t led = 0;
    float separation = 1.0f;
    int32_t rate = 48000;
    double seconds = 0;
    double limit = 1e-6;
};

bool read_file(const std::string &path, std::vector<uint8_t> &out) {
    FILE *f = fopen(path.c_str(), "rb");
    if (!f) return false;
    uint8_t buf[65536];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0) out.insert(out.end(), buf, buf + n);
    fclose(f);
    return true;
}

struct song {
    std::vector<uint8_t> module, player;
    std::string path, player_path;
};

kelva *open_song(const song &s, const settings &o, bool per_tick) {
    kelva *k = kelva_create(o.rate);
    if (!k) return nullptr;
    k->mix_per_tick = per_tick ? 1 : 0;
    if (kelva_open(k, s.player.data(), uint32_t(s.player.size()), s.module.data(), uint32_t(s.module.size()),
                   s.player_path.c_str(), s.path.c_str(), 0) != 0) {
        kelva_destroy(k);
        return nullptr;
    }
    // Opening resets the machine, settings included: they follow it, as in
    // the plugin.
    kelva_set_model(k, o.model);
    kelva_set_led_filter(k, o.led);
    kelva_set_separation(k, o.separation);
    return k;
}

// Compares one module; false when it differs by more than the limit.
bool compare(const std::string &path, const settings &o, double *worst) {
    const char *name = strrchr(path.c_str(), '/');
    name = name ? name + 1 : path.c_str();
    song s;
    s.path = path;
    char player_path[4096];
    if (!read_file(path, s.module) || s.module.empty() ||
        !kelva_identify(path.c_str(), s.module.data(), uint32_t(s.module.size()), player_path, sizeof player_path)) {
        printf("%-40s skipped: no player\n", name);
        return true;
    }
    s.player_path = player_path;
    const char *pname = strrchr(player_path, '/');
    pname = pname ? pname + 1 : player_path;
    if (!read_file(player_path, s.player)) {
        printf("%-40s %-22s cannot read the player\n", name, pname);
        return false;
    }

    // The song's length, measured as the plugin measures it.
    kelva *m = open_song(s, o, false);
    if (!m) {
        // The player refuses the file: nothing to mix, and not the mixer's doing.
        printf("%-40s skipped: %s does not start on it\n", name, pname);
        return true;
    }
    int32_t reason = 0;
    uint64_t ms = kelva_measure_length(m, 600000, 30000, &reason, nullptr, nullptr);
    kelva_destroy(m);
    double length_s = double(ms) / 1000.0;
    if (o.seconds > 0 && o.seconds < length_s) length_s = o.seconds;
    int64_t frames = int64_t(length_s * o.rate);

    kelva *fast = open_song(s, o, false);
    kelva *ref = open_song(s, o, true);
    if (!fast || !ref) {
        printf("%-40s %-22s does not open\n", name, pname);
        kelva_destroy(fast);
        kelva_destroy(ref);
        return false;
    }
    constexpr int32_t kBlock = 4096;
    std::vector<float> a(2 * size_t(kBlock)), b(2 * size_t(kBlock));
    double diff = 0, peak = 0;
    int64_t at = -1;
    for (int64_t done = 0; done < frames;) {
        int32_t n = int32_t(std::min<int64_t>(kBlock, frames - done));
        kelva_render(fast, a.data(), n);
        kelva_render(ref, b.data(), n);
        for (int32_t i = 0; i < 2 * n; i++) {
            double d = std::fabs(double(a[size_t(i)]) - double(b[size_t(i)]));
            if (d > diff || d != d) {
                diff = d != d ? INFINITY : d;
                at = done + i / 2;
            }
            peak = std::max(peak, double(std::fabs(b[size_t(i)])));
        }
        done += n;
    }
    kelva_destroy(fast);
    kelva_destroy(ref);
    bool ok = diff <= o.limit;
    printf("%-40s %-22s %8.1f s  peak %.3f  max diff %.3g", name, pname, double(frames) / o.rate, peak, diff);
    if (at >= 0 && diff > 0) printf(" (at %.3f s)", double(at) / o.rate);
    printf("%s\n", ok ? "" : "  OVER THE LIMIT");
    fflush(stdout);
    *worst = std::max(*worst, diff);
    return ok;
}

bool parse(int argc, char **argv, settings *o, std::vector<std::string> *paths) {
    for (int i = 1; i < argc; i++) {
        std::string a = argv[i];
        const char *v = i + 1 < argc ? argv[i + 1] : nullptr;
        if (a.rfind("--", 0) != 0) {
            paths->push_back(a);
            continue;
        }
        if (!v) return false;
        i++;
        if (a == "--model" && (!strcmp(v, "a500") || !strcmp(v, "a1200"))) o->model = !strcmp(v, "a1200");
        else if (a == "--led" && !strcmp(v, "auto")) o->led = 0;
        else if (a == "--led" && !strcmp(v, "off")) o->led = 1;
        else if (a == "--led" && !strcmp(v, "on")) o->led = 2;
        else if (a == "--separation") o->separation = float(atof(v));
        else if (a == "--rate" && atoi(v) > 0) o->rate = atoi(v);
        else if (a == "--seconds" && atof(v) > 0) o->seconds = atof(v);
        else if (a == "--limit" && atof(v) > 0) o->limit = atof(v);
        else return false;
    }
    return !paths->empty();
}

}  // namespace

int main(int argc, char **argv) {
    settings o;
    std::vector<std::string> paths;
    if (!parse(argc, argv, &o, &paths)) {
        fprintf(stderr,
                "usage: kelva-mixcmp [--model a500|a1200] [--led auto|on|off] [--separation S] [--rate R]\n"
                "                    [--seconds S] [--limit D] MODULE-OR-FOLDER...\n");
        return 2;
    }
    kelva_global_init();
    std::vector<std::string> files;
    for (const std::string &p : paths) {
        struct stat st;
        if (stat(p.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
            std::vector<std::string> in;
            if (DIR *d = opendir(p.c_str())) {
                while (dirent *e = readdir(d)) {
                    std::string f = p + "/" + e->d_name;
                    if (e->d_name[0] != '.' && stat(f.c_str(), &st) == 0 && S_ISREG(st.st_mode)) in.push_back(f);
                }
                closedir(d);
            }
            std::sort(in.begin(), in.end());
            files.insert(files.end(), in.begin(), in.end());
        } else {
            files.push_back(p);
        }
    }
    int over = 0;
    double worst = 0;
    for (const std::string &f : files) over += compare(f, o, &worst) ? 0 : 1;
    printf("largest difference %.3g; %d module(s) over the limit %.3g\n", worst, over, o.limit);
    return over ? 1 : 0;
}
