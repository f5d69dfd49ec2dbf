// The data tree (kelva_data) and host file access for the emulated side.
//
// Everything here works on NUL-terminated byte strings and fixed,
// caller-supplied buffers. Nothing is cached: the tree is searched afresh on
// every data_path call, so a tree installed while the program runs is found
// on the next lookup.
#include "selection/datatree.h"

#include <dirent.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "engine/engine.h"

namespace {

constexpr const char *kTreeName = "kelva_data";
constexpr const char *kConfName = "eagleplayer.conf";

inline unsigned char ascii_lower(unsigned char c) { return (c >= 'A' && c <= 'Z') ? uint8_t(c + 32) : c; }

// Candidate beside the program's own file: <dir of /proc/self/exe>/kelva_data.
bool exe_tree(char *out, uint32_t capacity) {
    char link[4096];
    ssize_t n = readlink("/proc/self/exe", link, sizeof link - 1);
    if (n <= 0) return false;
    link[n] = '\0';
    const char *slash = strrchr(link, '/');
    const char *bslash = strrchr(link, '\\');
    const char *cut = slash;
    if (bslash && (!cut || bslash > cut)) cut = bslash;
    if (!cut || cut == link) return false;   // no separator, or empty directory part
    link[cut - link] = '\0';
    return path_join(out, capacity, link, kTreeName) != 0;
}

// The per-user tree: $XDG_DATA_HOME/kelva_data or $HOME/.local/share/kelva_data.
bool user_tree(char *out, uint32_t capacity) {
    const char *xdg = getenv("XDG_DATA_HOME");
    if (xdg && *xdg) return path_join(out, capacity, xdg, kTreeName) != 0;
    const char *home = getenv("HOME");
    if (home && *home) return path_join(out, capacity, home, ".local/share/kelva_data") != 0;
    return false;
}

// A directory is a data tree when its eagleplayer.conf opens for reading.
bool holds_conf(const char *dir) {
    char conf[4096];
    if (!path_join(conf, sizeof conf, dir, kConfName)) return false;
    FILE *f = fopen(conf, "rb");
    if (!f) return false;
    fclose(f);
    return true;
}

// Opens `path`, sizes it, reads it whole into a malloc buffer.
int read_whole(FILE *f, uint8_t **out_data, uint32_t *out_len) {
    int ok = 0;
    if (fseek(f, 0, SEEK_END) == 0) {
        long size = ftell(f);
        if (size >= 1 && uint64_t(size) <= UINT32_MAX && fseek(f, 0, SEEK_SET) == 0) {
            auto *buf = static_cast<uint8_t *>(malloc(size_t(size)));
            if (buf) {
                if (fread(buf, 1, size_t(size), f) == size_t(size)) {
                    *out_data = buf;
                    *out_len = uint32_t(size);
                    ok = 1;
                } else {
                    free(buf);
                }
            }
        }
    }
    fclose(f);
    return ok;
}

// Looks for `path` case-insensitively within its directory; returns the
// opened file or null.
FILE *open_case_insensitive(const char *path) {
    const char *slash = strrchr(path, '/');
    char dir[1024];
    const char *name;
    int dir_len = 0;   // length of the directory part used in the new path
    bool has_dir = slash != nullptr;
    if (has_dir) {
        size_t len = size_t(slash - path);
        if (len > sizeof dir - 1) len = sizeof dir - 1;
        memcpy(dir, path, len);
        dir[len] = '\0';
        dir_len = int(len);
        if (len == 0) strcpy(dir, "/");
        name = slash + 1;
    } else {
        strcpy(dir, ".");
        name = path;
    }
    size_t name_len = strlen(name);
    if (name_len == 0) return nullptr;

    DIR *d = opendir(dir);
    if (!d) return nullptr;
    char found[1024];
    bool matched = false;
    while (struct dirent *e = readdir(d)) {
        const char *en = e->d_name;
        if (strlen(en) != name_len) continue;
        size_t i = 0;
        while (i < name_len && ascii_lower(uint8_t(en[i])) == ascii_lower(uint8_t(name[i]))) ++i;
        if (i != name_len) continue;
        int n = has_dir ? snprintf(found, sizeof found, "%.*s/%s", dir_len, path, en)
                        : snprintf(found, sizeof found, "%s", en);
        // A cut path would name some other file: treat it as not found.
        matched = n >= 0 && size_t(n) < sizeof found;
        break;
    }
    closedir(d);
    return matched ? fopen(found, "rb") : nullptr;
}

}   // namespace

int path_join(char *out, uint32_t capacity, const char *dir, const char *name) {
    size_t dl = strlen(dir), nl = strlen(name);
    if (uint64_t(capacity) < uint64_t(dl) + nl + 2) return 0;
    memcpy(out, dir, dl);
    out[dl] = '/';
    memcpy(out + dl + 1, name, nl);
    out[dl + 1 + nl] = '\0';
    return 1;
}

const char *host_match_prefix(const char *path, const char *prefix) {
    size_t i = 0;
    for (; prefix[i]; ++i)
        if (ascii_lower(uint8_t(path[i])) != ascii_lower(uint8_t(prefix[i]))) return nullptr;
    return path + i;
}

void data_path(char *out, uint32_t capacity, const char *rel) {
    if (capacity == 0) return;
    const char *env = getenv("KELVA_DATA");
    if (env && *env) {
        if (!path_join(out, capacity, env, rel)) out[0] = '\0';
        return;
    }

    char exe[4096], user[4096];
    bool have_exe = exe_tree(exe, sizeof exe);
    bool have_user = user_tree(user, sizeof user);
    const char *tree = nullptr;
    if (have_exe && holds_conf(exe))
        tree = exe;
    else if (have_user && holds_conf(user))
        tree = user;
    else if (holds_conf("/usr/local/share/kelva_data"))
        tree = "/usr/local/share/kelva_data";
    else if (holds_conf("/usr/share/kelva_data"))
        tree = "/usr/share/kelva_data";
    else
        tree = have_exe ? exe : kTreeName;

    if (!path_join(out, capacity, tree, rel)) out[0] = '\0';
}

int default_load(void *user, const char *path, uint8_t **out_data, uint32_t *out_len) {
    (void)user;
    if (!path || !out_data || !out_len) return 0;
    FILE *f = fopen(path, "rb");
    if (!f) f = open_case_insensitive(path);
    if (!f) return 0;
    return read_whole(f, out_data, out_len);
}

int host_load_file(kelva *k, const char *amiga_path, uint8_t **out_data, uint32_t *out_len) {
    if (!amiga_path) return 0;
    kelva_file_loader load = k->loader ? k->loader : default_load;
    void *user = k->loader ? k->loader_user : nullptr;

    const char *rest = host_match_prefix(amiga_path, "ENV:");
    if (!rest) rest = host_match_prefix(amiga_path, "ENVARC:");
    if (!rest) return load(user, amiga_path, out_data, out_len);

    char rel[1024], full[1024];
    int n = snprintf(rel, sizeof rel, "players/ENV/%s", rest);
    if (n < 0 || size_t(n) >= sizeof rel) return 0;   // a cut name would be another file
    data_path(full, sizeof full, rel);
    if (!full[0]) return 0;
    return load(user, full, out_data, out_len);
}
