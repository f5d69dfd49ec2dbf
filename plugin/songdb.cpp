#include "plugin/songdb.h"

#include <cinttypes>
#include <cstdlib>
#include <cstring>
#include <string>
#include <sys/stat.h>

#define XXH_INLINE_ALL
#include <xxhash.h>

std::map<cache_key, int32_t> cache_val;
std::mutex cache_mtx;

namespace {

FILE *db_file = nullptr;

// Parses exactly 16 hex digits.
bool parse_hex16(const char *s, uint64_t *out) {
    uint64_t v = 0;
    for (int i = 0; i < 16; i++) {
        char c = s[i];
        int d;
        if (c >= '0' && c <= '9')
            d = c - '0';
        else if (c >= 'a' && c <= 'f')
            d = c - 'a' + 10;
        else if (c >= 'A' && c <= 'F')
            d = c - 'A' + 10;
        else
            return false;
        v = v << 4 | uint64_t(d);
    }
    *out = v;
    return true;
}

}  // namespace

cache_key cache_make_key(const uint8_t *data, uint32_t size, int64_t seed) {
    XXH128_hash_t h = XXH3_128bits_withSeed(data, size, uint64_t(seed));
    return cache_key{h.high64, h.low64};
}

void cache_key_hex(const cache_key &key, char out[33]) {
    snprintf(out, 33, "%016" PRIx64 "%016" PRIx64, key.high, key.low);
}

void db_dir(char *out, uint32_t capacity) {
    out[0] = 0;
    const char *xdg = getenv("XDG_DATA_HOME");
    const char *home = getenv("HOME");
    int n = -1;
    if (xdg && *xdg)
        n = snprintf(out, capacity, "%s/kelva", xdg);
    else if (home)
        n = snprintf(out, capacity, "%s/.local/share/kelva", home);
    if (n < 0 || uint32_t(n) >= capacity) out[0] = 0;
}

void db_load(FILE *f) {
    char line[8192];
    while (fgets(line, sizeof line, f)) {
        // A last line without its newline was torn by a crash mid-write: its
        // number may be cut short, so it is not trusted.
        if (!strchr(line, '\n') && feof(f)) break;
        char hex[64];
        int value;
        if (sscanf(line, "%63s %d", hex, &value) != 2) continue;
        if (strlen(hex) != 32) continue;
        cache_key key;
        if (!parse_hex16(hex, &key.high) || !parse_hex16(hex + 16, &key.low)) continue;
        cache_val[key] = value;
    }
}

void db_open() {
    char dir[4096];
    db_dir(dir, sizeof dir);
    if (!dir[0]) return;
    for (char *p = dir + 1; *p; p++) {
        if (*p != '/') continue;
        *p = 0;
        mkdir(dir, 0755);
        *p = '/';
    }
    mkdir(dir, 0755);

    std::string path = std::string(dir) + "/songlengths.db";
    bool torn = false;
    FILE *f = fopen(path.c_str(), "r");
    if (f) {
        char first[256];
        std::string header = std::string(kDbHeader) + "\n";
        bool current = fgets(first, sizeof first, f) && header == first;
        if (current) {
            db_load(f);
            // Does the file end in the middle of a line?
            if (fseek(f, -1, SEEK_END) == 0) torn = fgetc(f) != '\n';
            fclose(f);
        } else {
            // Lengths measured under other rules: keep them aside, unread.
            fclose(f);
            rename(path.c_str(), (path + ".old").c_str());
        }
    }
    if (db_file) fclose(db_file);
    db_file = fopen(path.c_str(), "a");
    if (!db_file) return;
    struct stat st;
    if (fstat(fileno(db_file), &st) == 0 && st.st_size == 0) {
        fprintf(db_file, "%s\n", kDbHeader);
        fflush(db_file);
    } else if (torn) {
        // Start appending on a fresh line so a torn record cannot swallow the next one.
        fputc('\n', db_file);
    }
}

void db_close() {
    std::lock_guard<std::mutex> lock(cache_mtx);
    if (db_file) fclose(db_file);
    db_file = nullptr;
}

bool cache_lookup(const cache_key &key, int32_t *value) {
    std::lock_guard<std::mutex> lock(cache_mtx);
    auto it = cache_val.find(key);
    if (it == cache_val.end()) return false;
    *value = it->second;
    return true;
}

bool cache_store(const cache_key &key, int32_t value, const char *file_name) {
    char hex[33];
    cache_key_hex(key, hex);
    std::lock_guard<std::mutex> lock(cache_mtx);
    if (cache_val.count(key)) return false;
    cache_val.emplace(key, value);
    if (db_file) {
        fprintf(db_file, "%s %d %s\n", hex, int(value), file_name ? file_name : "");
        fflush(db_file);
    }
    return true;
}
