// Helpers shared by the fuzz targets: a private data tree in a temporary
// folder (found through KELVA_DATA) and a check that stops the program when
// an invariant is broken, so that libFuzzer records the input.
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

// Aborts with a message: the fuzzer saves the input as a crash.
#define FUZZ_CHECK(cond)                                                          \
    do {                                                                          \
        if (!(cond)) {                                                            \
            fprintf(stderr, "fuzz check failed: %s (%s:%d)\n", #cond, __FILE__, __LINE__); \
            abort();                                                              \
        }                                                                         \
    } while (0)

namespace fuzz {

inline std::string &tree_dir() {
    static std::string dir;
    return dir;
}

inline bool write_file(const std::string &path, const void *data, size_t size) {
    FILE *f = fopen(path.c_str(), "wb");
    if (!f) return false;
    bool ok = fwrite(data, 1, size, f) == size;
    return fclose(f) == 0 && ok;
}

inline void remove_tree() {
    if (tree_dir().empty()) return;
    std::string cmd = "rm -rf '" + tree_dir() + "'";
    if (system(cmd.c_str()) != 0) fprintf(stderr, "fuzz: could not remove %s\n", tree_dir().c_str());
}

// Creates a data tree with the given eagleplayer.conf and a small file for
// each named player (null-terminated list), points KELVA_DATA at it and
// removes it at exit. Returns the tree's folder.
inline const std::string &make_tree(const char *conf, const char *const *players) {
    char tmpl[] = "/tmp/kelva-fuzz-XXXXXX";
    if (!mkdtemp(tmpl)) {
        perror("fuzz: mkdtemp");
        abort();
    }
    tree_dir() = tmpl;
    mkdir((tree_dir() + "/players").c_str(), 0755);
    mkdir((tree_dir() + "/players/ENV").c_str(), 0755);
    std::string c = conf;
    if (!write_file(tree_dir() + "/eagleplayer.conf", c.data(), c.size())) abort();
    for (const char *const *p = players; *p; ++p)
        if (!write_file(tree_dir() + "/players/" + *p, "player", 6)) abort();
    setenv("KELVA_DATA", tree_dir().c_str(), 1);
    atexit(remove_tree);
    return tree_dir();
}

// A strictly bounded reader over the fuzzer's input for targets that split
// it into several fields.
struct input {
    const uint8_t *data;
    size_t size;
    uint8_t byte() {
        if (size == 0) return 0;
        uint8_t b = *data++;
        --size;
        return b;
    }
};

}  // namespace fuzz
