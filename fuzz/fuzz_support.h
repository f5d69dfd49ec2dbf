// Helpers shared by the fuzz targets and the regression runner: the engine, files on disk and in
// memory, a private data tree, and a check that aborts on a broken invariant so that libFuzzer
// records the input.
#pragma once

#include <strings.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "engine/engine.h"

#define FUZZ_CHECK(cond)                                                                   \
    do {                                                                                   \
        if (!(cond)) {                                                                     \
            fprintf(stderr, "fuzz check failed: %s (%s:%d)\n", #cond, __FILE__, __LINE__); \
            abort();                                                                       \
        }                                                                                  \
    } while (0)

namespace fuzz {

// One engine at 48 kHz, created on first use.
inline kelva *engine() {
    static kelva *k = [] {
        kelva_global_init();
        return kelva_create(48000);
    }();
    FUZZ_CHECK(k != nullptr);
    return k;
}

inline bool read_file(const std::string &path, std::vector<uint8_t> *out) {
    std::ifstream f(path, std::ios::binary);
    out->assign(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
    return f.is_open() && !f.bad();
}

inline bool write_file(const std::string &path, const void *data, size_t size) {
    std::ofstream f(path, std::ios::binary);
    f.write(static_cast<const char *>(data), std::streamsize(size));
    f.close();
    return !f.fail();
}

// The regular files of a folder, sorted; names beginning with "." are left out.
inline std::vector<std::string> list_folder(const std::string &dir) {
    std::vector<std::string> names;
    std::error_code ec;
    for (const auto &e : std::filesystem::directory_iterator(dir, ec))
        if (e.is_regular_file() && e.path().filename().string()[0] != '.') names.push_back(e.path().string());
    std::sort(names.begin(), names.end());
    return names;
}

// A file served from memory through the engine's file loader (`user`): for
// any name when it is not empty, or, with a suffix, for the names ending in
// it (case aside), empty or not.
struct memory_file {
    const uint8_t *data = nullptr;
    size_t size = 0;
    const char *suffix = nullptr;
};
inline int memory_file_loader(void *user, const char *path, uint8_t **out, uint32_t *len) {
    const memory_file *f = static_cast<const memory_file *>(user);
    size_t n = strlen(path), s = f->suffix ? strlen(f->suffix) : 0;
    if (f->suffix ? n < s || strcasecmp(path + n - s, f->suffix) != 0 : f->size == 0) return 0;
    *out = static_cast<uint8_t *>(malloc(f->size ? f->size : 1));
    if (!*out) return 0;
    if (f->size) memcpy(*out, f->data, f->size);
    *len = uint32_t(f->size);
    return 1;
}

// The configuration of the identification targets, in the style of the
// shipped one, and the module names they try: extension and prefix forms,
// upper case, URIs and names that match nothing.
inline const char kFixedConf[] =
    "# fixed configuration of the identification fuzz targets\n"
    "PTK-Prowiz prefixes=mod,mod15,m15,st,nst,stk,ptk epopt=type:pt30\n"
    "UltimateSoundtracker prefixes=ust,mod15 epopt=type:st20\n"
    "Soundtracker-IV prefixes=st4\n"
    "AudioSculpture prefixes=adsc,as\n"
    "TFMX prefixes=mdat,tfx,tfm\n"
    "TFMX-Pro prefixes=tfmxpro\n"
    "MED prefixes=med,mmd0,mmd1 epopt=unused\n"
    "  indented prefixes=never\n"
    "NoFile prefixes=nofile\n";
inline const char *const kModuleNames[] = {
    "x.mod", "mod.x", "/music/Tune.MOD", "file:///music/a%20b.mod", "mdat.song", "song.tfx",
    "a.st4", "b.m15", "c.mmd0", "unknown.xyz", ".mod", "mod.", "", "dir/", "x.tfmxpro", "x.adsc"};
constexpr unsigned kModuleNameCount = std::size(kModuleNames);

inline std::string tree_dir;

// Creates a data tree in a temporary folder with kFixedConf and a small file
// for every player it names but NoFile (so that every content check may
// propose its player), points KELVA_DATA at it and removes it at exit.
inline void make_tree() {
    char tmpl[] = "/tmp/kelva-fuzz-XXXXXX";
    FUZZ_CHECK(mkdtemp(tmpl) != nullptr);
    tree_dir = tmpl;
    std::filesystem::create_directories(tree_dir + "/players/ENV");
    FUZZ_CHECK(write_file(tree_dir + "/eagleplayer.conf", kFixedConf, strlen(kFixedConf)));
    for (const char *p : {"PTK-Prowiz", "UltimateSoundtracker", "Soundtracker-IV", "AudioSculpture", "TFMX", "TFMX-Pro",
                          "TFMX-7V", "TFMX-TFHD", "TFMX-Pro-TFHD", "TFMX-7V-TFHD", "MED", "A", "B"})
        FUZZ_CHECK(write_file(tree_dir + "/players/" + p, "player", 6));
    setenv("KELVA_DATA", tree_dir.c_str(), 1);
    atexit([] {
        std::error_code ec;
        std::filesystem::remove_all(tree_dir, ec);
    });
}

}  // namespace fuzz
