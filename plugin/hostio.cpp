#include "plugin/hostio.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <strings.h>

namespace {

int hex_value(char c) {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
}

// Copies at most capacity - 1 bytes and terminates; returns 0 when it did
// not fit.
int copy_text(char *out, uint32_t capacity, const char *text, size_t len) {
    if (capacity == 0) return 0;
    size_t n = len < capacity - 1 ? len : capacity - 1;
    memcpy(out, text, n);
    out[n] = 0;
    return n == len;
}

int local_uri_to_name(const char *uri, char *out, uint32_t capacity) {
    static const char scheme[] = "file://";
    if (strncmp(uri, scheme, sizeof scheme - 1) != 0) return 0;
    const char *s = uri + sizeof scheme - 1;
    if (*s != '/') return 0;
    std::string name;
    for (; *s; s++) {
        if (*s == '%' && hex_value(s[1]) >= 0 && hex_value(s[2]) >= 0) {
            char c = char(hex_value(s[1]) * 16 + hex_value(s[2]));
            if (c == 0) return 0;
            name += c;
            s += 2;
        } else {
            name += *s;
        }
    }
    return copy_text(out, capacity, name.data(), name.size());
}

int local_name_to_uri(const char *name, char *out, uint32_t capacity) {
    if (name[0] != '/') return 0;
    std::string uri = "file://";
    static const char hex[] = "0123456789ABCDEF";
    for (const unsigned char *s = reinterpret_cast<const unsigned char *>(name); *s; s++) {
        unsigned char c = *s;
        bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '/' ||
                     c == '-' || c == '.' || c == '_' || c == '~';
        if (plain) {
            uri += char(c);
        } else {
            uri += '%';
            uri += hex[c >> 4];
            uri += hex[c & 15];
        }
    }
    return copy_text(out, capacity, uri.data(), uri.size());
}

int local_read_uri(const char *uri, uint8_t **out_data, uint32_t *out_len) {
    char name[kNameCap];
    if (!local_uri_to_name(uri, name, sizeof name)) return -1;
    FILE *f = fopen(name, "rb");
    if (!f) return -1;
    fclose(f);
    uint32_t len = 0;
    uint8_t *data = slurp_path(name, &len);
    if (!data) return 0;
    *out_data = data;
    *out_len = len;
    return 1;
}

bool local_list_folder(const char *uri, std::vector<std::string> *out) {
    char dir[kNameCap];
    if (!local_uri_to_name(uri, dir, sizeof dir)) return false;
    DIR *d = opendir(dir);
    if (!d) return false;
    while (struct dirent *e = readdir(d)) {
        if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0) continue;
        std::string path = dir;
        if (path.empty() || path.back() != '/') path += '/';
        path += e->d_name;
        char entry[kNameCap];
        if (local_name_to_uri(path.c_str(), entry, sizeof entry)) out->push_back(entry);
    }
    closedir(d);
    return true;
}

}  // namespace

host_ops host_ops_local() {
    return host_ops{local_uri_to_name, local_name_to_uri, local_read_uri, local_list_folder, nullptr};
}

host_ops host = host_ops_local();

int32_t split_subtune(const char *uri, char out[kNameCap]) {
    size_t len = strlen(uri);
    const char *q = strrchr(uri, '?');
    if (q && q[1]) {
        bool digits = true;
        for (const char *p = q + 1; *p; p++)
            if (*p < '0' || *p > '9') {
                digits = false;
                break;
            }
        if (digits) {
            int64_t n = 0;
            for (const char *p = q + 1; *p; p++) {
                n = n * 10 + (*p - '0');
                if (n > INT32_MAX) n = INT32_MAX;
            }
            copy_text(out, kNameCap, uri, size_t(q - uri));
            return int32_t(n);
        }
    }
    copy_text(out, kNameCap, uri, len);
    return -1;
}

int32_t module_name_of(const char *uri, char base[kNameCap], char name[kNameCap]) {
    int32_t sub = split_subtune(uri, base);
    if (!host.uri_to_name || !host.uri_to_name(base, name, kNameCap)) copy_text(name, kNameCap, base, strlen(base));
    return sub;
}

uint8_t *slurp_path(const char *path, uint32_t *out_len) {
    FILE *f = fopen(path, "rb");
    if (!f) return nullptr;
    uint8_t *data = nullptr;
    long size = -1;
    if (fseek(f, 0, SEEK_END) == 0) size = ftell(f);
    if (size > 0 && uint64_t(size) <= UINT32_MAX && fseek(f, 0, SEEK_SET) == 0) {
        data = static_cast<uint8_t *>(malloc(size_t(size)));
        if (data && fread(data, 1, size_t(size), f) != size_t(size)) {
            free(data);
            data = nullptr;
        }
    }
    fclose(f);
    if (data) *out_len = uint32_t(size);
    return data;
}

const char *last_component(const char *path) {
    const char *slash = strrchr(path, '/');
    return slash ? slash + 1 : path;
}

int vfs_load(void *, const char *path, uint8_t **out_data, uint32_t *out_len) {
    if (!path || !host.read_uri) return 0;
    char uri[kNameCap];
    if (strstr(path, "://")) {
        if (!copy_text(uri, sizeof uri, path, strlen(path))) return 0;
    } else if (!host.name_to_uri || !host.name_to_uri(path, uri, sizeof uri)) {
        return 0;
    }

    uint8_t *data = nullptr;
    uint32_t len = 0;
    int got = host.read_uri(uri, &data, &len);
    if (got < 0) {
        // Amiga file names are case-insensitive; players often ask for
        // companion files in a different case than they have on disk.
        const char *slash = strrchr(uri, '/');
        if (!slash || !host.list_folder) return 0;
        std::string folder(uri, size_t(slash - uri) + 1);
        const char *sought = slash + 1;
        std::vector<std::string> entries;
        if (!host.list_folder(folder.c_str(), &entries)) return 0;
        const std::string *match = nullptr;
        for (const std::string &e : entries)
            if (strcasecmp(last_component(e.c_str()), sought) == 0) {
                match = &e;
                break;
            }
        if (!match) return 0;
        got = host.read_uri(match->c_str(), &data, &len);
    }
    if (got <= 0 || len == 0) {
        if (got > 0) free(data);
        return 0;
    }
    *out_data = data;
    *out_len = len;
    return 1;
}
