// Helpers shared by the fuzz targets and the regression runner: a private
// data tree in a temporary folder (found through KELVA_DATA), files read from
// disk and served from memory, and a check that stops the program when an
// invariant is broken, so that libFuzzer records the input.
#pragma once

#include <dirent.h>
#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

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

inline bool read_file(const std::string &path, std::vector<uint8_t> *out) {
    FILE *f = fopen(path.c_str(), "rb");
    if (!f) return false;
    out->clear();
    uint8_t buf[65536];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0) out->insert(out->end(), buf, buf + n);
    bool ok = !ferror(f);
    fclose(f);
    return ok;
}

// Appends the regular files of a folder, sorted; names beginning with "."
// are left out.
inline void list_folder(const std::string &dir, std::vector<std::string> *out) {
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
    out->insert(out->end(), names.begin(), names.end());
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
