// eagleplayer.conf: player identification and option lookup.
//
// The file is read line by line with a 4096-byte bound; a longer line is
// cut by the reader and its remainder read as a further line. Lines that
// begin with "#", empty lines, lines that begin with white space and lines
// whose player name is longer than 255 bytes are skipped. Nothing read from
// the file or the module is trusted: every offset is checked against the
// size before it is read.
#include "selection/epconf.h"

#include <cstdio>
#include <cstring>

#include "engine/engine.h"
#include "hardware/bus.h"
#include "selection/classify.h"
#include "selection/datatree.h"

namespace {

constexpr uint32_t kMaxName = 255;
constexpr uint32_t kMaxItem = 63;   // items of this length or more are ignored
constexpr uint32_t kMaxBase = 511;

inline char ascii_lower(char c) { return (c >= 'A' && c <= 'Z') ? char(c + 32) : c; }
inline uint32_t be16(const uint8_t *p) { return uint32_t(p[0]) << 8 | p[1]; }
inline uint32_t be32(const uint8_t *p) { return be16(p) << 16 | be16(p + 2); }
inline uint32_t le32(const uint8_t *p) { return uint32_t(p[3]) << 24 | uint32_t(p[2]) << 16 | uint32_t(p[1]) << 8 | p[0]; }

// A run of bytes inside the line buffer.
struct span {
    const char *p = nullptr;
    size_t n = 0;
    bool present() const { return p != nullptr; }
};

// One parsed configuration line.
struct conf_line {
    span name;
    span first_prefixes;   // identification reads the first "prefixes=" token
    span last_prefixes;    // option lookup reads the last one
    span last_epopt;
};

bool is_name_end(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r' || c == '\0';
}
bool is_token_sep(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

// False for comments and for lines that name no usable player.
bool parse_line(const char *line, conf_line *out) {
    *out = conf_line{};
    if (line[0] == '#' || line[0] == '\0' || line[0] == '\n') return false;
    size_t n = 0;
    while (!is_name_end(line[n])) ++n;
    if (n == 0 || n > kMaxName) return false;
    out->name = {line, n};

    const char *p = line + n;
    while (*p) {
        while (*p && is_token_sep(*p)) ++p;
        const char *tok = p;
        while (*p && !is_token_sep(*p)) ++p;
        size_t len = size_t(p - tok);
        if (len >= 9 && memcmp(tok, "prefixes=", 9) == 0) {
            span v{tok + 9, len - 9};
            if (!out->first_prefixes.present()) out->first_prefixes = v;
            out->last_prefixes = v;
        } else if (len >= 6 && memcmp(tok, "epopt=", 6) == 0) {
            out->last_epopt = {tok + 6, len - 6};
        }
    }
    return true;
}

// Calls fn(item) for every usable item of a comma-separated list; stops
// early when fn returns true. Returns whether it stopped early.
template <typename Fn>
bool for_each_item(span list, Fn fn) {
    size_t i = 0;
    while (i <= list.n) {
        size_t start = i;
        while (i < list.n && list.p[i] != ',') ++i;
        size_t len = i - start;
        if (len > 0 && len < kMaxItem && fn(span{list.p + start, len})) return true;
        ++i;   // past the comma (or the end)
    }
    return false;
}

// Reads eagleplayer.conf of the data tree line by line.
struct conf_reader {
    FILE *f = nullptr;
    char line[4096];

    bool open() {
        char path[4096];
        data_path(path, sizeof path, "eagleplayer.conf");
        f = path[0] ? fopen(path, "rb") : nullptr;
        return f != nullptr;
    }
    bool next() { return fgets(line, sizeof line, f) != nullptr; }
    ~conf_reader() {
        if (f) fclose(f);
    }
};

// Whether players/<name> of the data tree opens for reading.
bool player_exists(const char *name) {
    char rel[600], full[4096];
    int n = snprintf(rel, sizeof rel, "players/%s", name);
    if (n < 0 || size_t(n) >= sizeof rel) return false;
    data_path(full, sizeof full, rel);
    if (!full[0]) return false;
    FILE *f = fopen(full, "rb");
    if (!f) return false;
    fclose(f);
    return true;
}

// Score of one line's items against the lower-case base name: prefix
// matches (item + ".") score length + 1000, extension matches ("." + item)
// score the length; -1 when nothing matches.
int score_items(span list, const char *base, size_t len) {
    int score = -1;
    for_each_item(list, [&](span item) {
        size_t n = item.n;
        if (n + 1 >= len) return false;   // at least one byte must remain beside the dot
        char low[kMaxItem];
        for (size_t i = 0; i < n; ++i) low[i] = ascii_lower(item.p[i]);
        if (memcmp(base, low, n) == 0 && base[n] == '.' && int(n) + 1000 > score) score = int(n) + 1000;
        if (base[len - 1 - n] == '.' && memcmp(base + len - n, low, n) == 0 && int(n) > score) score = int(n);
        return false;
    });
    return score;
}

// Content check for ".mod" files: the player the module's bytes ask for, or
// null to keep the configured one.
const char *mod_choose_player(const uint8_t *data, uint32_t size, const char *best) {
    if (size < 1084) return nullptr;
    if (size >= 2652 && !mod_tag_is_31(data, size) && data[470] != 0 && data[470] <= 128 && data[499] != 1) {
        const char *st15 = st15_choose_player(data, size);
        if (st15) return st15;
    }
    int kind = mod31_classify(data, size);
    if (kind == MOD31_SCULPTURE) return "AudioSculpture";
    if (kind == MOD31_PROTRACKER) return nullptr;
    return strcmp(best, "PTK-Prowiz") == 0 ? nullptr : "PTK-Prowiz";
}

// Whether any 16-byte step in [from, to) holds the words 0xEFFE 0x0003.
bool has_seven_voice_mark(const uint8_t *data, uint32_t from, uint32_t to) {
    for (uint64_t at = from; at + 4 <= to; at += 16)
        if (be16(data + at) == 0xEFFE && be16(data + at + 2) == 0x0003) return true;
    return false;
}

bool bytes_are(const uint8_t *data, uint32_t at, const char *text) {
    return memcmp(data + at, text, strlen(text)) == 0;
}

bool bytes_are_nocase(const uint8_t *data, uint32_t at, const char *lower_text) {
    for (size_t i = 0; lower_text[i]; ++i)
        if (ascii_lower(char(data[at + i])) != lower_text[i]) return false;
    return true;
}

}   // namespace

const char *st15_choose_player(const uint8_t *data, uint32_t size) {
    if (!data || size < 2652) return nullptr;

    // The order list decides how many patterns the file must hold.
    uint32_t highest = 1;
    for (uint32_t i = 472; i < 600; ++i)
        if (data[i] > highest) highest = data[i];
    uint64_t sample_words = 0;
    for (int i = 0; i < 15; ++i) sample_words += be16(data + 20 + 30 * i + 22);
    if (highest > 63 || uint64_t(size) != 1624 + 1024 * uint64_t(highest) + 2 * sample_words) return nullptr;

    uint32_t loops_past_end = 0, loops_past_64k = 0, disk_names = 0;
    for (int i = 0; i < 15; ++i) {
        const uint8_t *s = data + 20 + 30 * i;
        uint32_t length = be16(s + 22), volume = s[25], repeat_start = be16(s + 26), repeat_length = be16(s + 28);
        if (s[24] != 0 && volume > 64) return nullptr;
        uint32_t loop_end = repeat_start + 2 * repeat_length;   // repeat start is in bytes here
        if (length != 0) {
            if (2 * length < loop_end) ++loops_past_end;
            if (length <= 9999 && loop_end >= 65536) ++loops_past_64k;
        } else if (repeat_length != 0 && loop_end >= 65536) {
            ++loops_past_64k;
        }
        if ((s[0] == 'S' || s[0] == 's') && (s[1] == 'T' || s[1] == 't') && s[2] == '-' && s[5] == ':') ++disk_names;
    }

    cell_tally t;
    tally_patterns(data, size, 600, highest, &t);

    if (t.count[5] || t.count[6] || t.count[7] || t.count[8] || t.count[9]) return "Soundtracker-IV";
    if (t.count[13]) return t.max_param[13] ? "Soundtracker-IV" : "PTK-Prowiz";
    if (t.count[12] || t.count[15] || t.ext[0]) return "PTK-Prowiz";
    auto small = [](uint32_t v) { return v >= 1 && v <= 30; };
    if ((t.count[1] && small(t.max_param[1])) || (t.count[2] && small(t.max_param[2])) || t.count[0] > 2)
        return "PTK-Prowiz";
    if (t.count[1] || t.count[2]) return "UltimateSoundtracker";
    if (loops_past_end == 0 && loops_past_64k == 0 && !(disk_names > 0 && data[471] == 120))
        return "UltimateSoundtracker";
    return "PTK-Prowiz";
}

const char *tfmx_choose_player(const uint8_t *data, uint32_t size) {
    if (!data || size < 520) return nullptr;
    if (bytes_are(data, 0, "TFHD")) {
        switch (data[8]) {
        case 1: return "TFMX-TFHD";
        case 2: return "TFMX-Pro-TFHD";
        case 3: return "TFMX-7V-TFHD";
        default: return nullptr;
        }
    }
    if (!bytes_are_nocase(data, 0, "tfmx")) return nullptr;
    if (!(bytes_are(data, 4, "-SONG") || bytes_are(data, 4, "_SONG ") || bytes_are_nocase(data, 4, "song") ||
          data[4] == ' '))
        return nullptr;

    // Seven-voice modules carry the mark 0xEFFE 0x0003 in the track steps.
    uint32_t steps = be32(data + 464), patterns = be32(data + 468), macros = be32(data + 472);
    if (steps == 0 && patterns == 0 && macros == 0) {
        if (size > 2048) steps = 2048;   // old layout: the track steps follow a fixed header
    } else {
        uint32_t largest = steps > patterns ? steps : patterns;
        if (macros > largest) largest = macros;
        if (largest >= size) {
            steps = le32(data + 464);
            patterns = le32(data + 468);
            macros = le32(data + 472);
        }
    }
    if (steps < size) {
        uint32_t end = size;
        if (patterns > steps && patterns < end) end = patterns;
        if (macros > steps && macros < end) end = macros;
        if (has_seven_voice_mark(data, steps, end)) return "TFMX-7V";
    }

    bool examine = bytes_are(data, 10, "by") || bytes_are(data, 16, "  ") || bytes_are(data, 16, "(Empty)") ||
                   bytes_are(data, 16, "0=") || data[4] == ' ';
    if (!examine) return "TFMX-Pro";
    if (be32(data + 464) != 0) return "TFMX-Pro";
    switch (be16(data + 14)) {
    case 0x0860: return (size > 4645 && be16(data + 4644) == 0x090C) ? "TFMX-Pro" : "TFMX";
    case 0x0B20: return (size > 5121 && be16(data + 5120) == 0x8C26) ? "TFMX-Pro" : "TFMX";
    case 0x0920: return (size > 3977 && be16(data + 3876) == 0x9305) ? "TFMX-Pro" : "TFMX";
    case 0x0E60: return "TFMX-Pro";
    default: return "TFMX";
    }
}

int epconf_identify(const char *path, const uint8_t *data, uint32_t size, char *out, uint32_t capacity) {
    if (!path || !out) return 0;
    if (!data) size = 0;

    // The base name: last path component, lower case, at most 511 bytes.
    const char *slash = strrchr(path, '/');
    const char *name = slash ? slash + 1 : path;
    char base[kMaxBase + 1];
    size_t len = 0;
    while (name[len] && len < kMaxBase) {
        base[len] = ascii_lower(name[len]);
        ++len;
    }
    base[len] = '\0';

    conf_reader conf;
    if (!conf.open()) return 0;
    int best_score = -1;
    char best[kMaxName + 1] = "";
    conf_line cl;
    while (conf.next()) {
        if (!parse_line(conf.line, &cl) || !cl.first_prefixes.present() || cl.first_prefixes.n == 0) continue;
        int score = score_items(cl.first_prefixes, base, len);
        if (score < 0 || score <= best_score) continue;   // on equal scores the earlier line stays
        char candidate[kMaxName + 1];
        memcpy(candidate, cl.name.p, cl.name.n);
        candidate[cl.name.n] = '\0';
        if (!player_exists(candidate)) continue;
        best_score = score;
        memcpy(best, candidate, cl.name.n + 1);
    }
    if (!best[0]) return 0;

    // One extension covers several incompatible formats: the bytes decide.
    if (len >= 5 && memcmp(base + len - 4, ".mod", 4) == 0) {
        const char *proposal = mod_choose_player(data, size, best);
        if (proposal && player_exists(proposal)) snprintf(best, sizeof best, "%s", proposal);
    }
    // ".st" also names Images Music System modules, which the Soundtracker
    // players cannot read: their layout decides.
    if (len >= 4 && memcmp(base + len - 3, ".st", 3) == 0 && ims_layout(data, size) &&
        player_exists("ImagesMusicSystem"))
        snprintf(best, sizeof best, "%s", "ImagesMusicSystem");
    if (size >= 520 && strncmp(best, "TFMX", 4) == 0) {
        const char *proposal = tfmx_choose_player(data, size);
        if (proposal && strcmp(proposal, best) != 0 && player_exists(proposal))
            snprintf(best, sizeof best, "%s", proposal);
    }

    char rel[600];
    snprintf(rel, sizeof rel, "players/%s", best);
    data_path(out, capacity, rel);
    return 1;
}

void epconf_resolve_epopt(kelva *k, const char *player_path, const char *module_path, const uint8_t *data,
                          uint32_t size) {
    k->epopt[0] = '\0';
    if (!player_path || !module_path) return;
    if (!data) size = 0;

    const char *slash = strrchr(player_path, '/');
    const char *player = slash ? slash + 1 : player_path;
    size_t player_len = strlen(player);

    slash = strrchr(module_path, '/');
    const char *module = slash ? slash + 1 : module_path;
    const char *dot = strrchr(module, '.');
    if (!dot) return;
    char ext[kMaxItem + 1];
    size_t ext_len = 0;
    for (const char *p = dot + 1; *p && ext_len < kMaxItem; ++p) ext[ext_len++] = ascii_lower(*p);
    if (ext_len == 0) return;

    conf_reader conf;
    if (!conf.open()) return;
    conf_line cl;
    while (conf.next()) {
        if (!parse_line(conf.line, &cl)) continue;
        if (cl.name.n != player_len || memcmp(cl.name.p, player, player_len) != 0) continue;
        if (!cl.last_prefixes.present() || cl.last_prefixes.n == 0 || !cl.last_epopt.present()) continue;
        // Items are compared as written: only lower-case items match.
        bool listed = for_each_item(cl.last_prefixes, [&](span item) {
            return item.n == ext_len && memcmp(item.p, ext, ext_len) == 0;
        });
        if (!listed) continue;
        size_t n = cl.last_epopt.n < sizeof k->epopt - 1 ? cl.last_epopt.n : sizeof k->epopt - 1;
        memcpy(k->epopt, cl.last_epopt.p, n);
        k->epopt[n] = '\0';
        break;
    }

    if (strcmp(k->epopt, "type:pt30") != 0) return;
    if (size <= 1083 || !mod_tag_is_31(data, size)) {
        strcpy(k->epopt, "type:st20");
        return;
    }
    switch (mod31_classify(data, size)) {
    case MOD31_ST24: strcpy(k->epopt, "type:st24"); break;
    case MOD31_FLT4: strcpy(k->epopt, "type:flt4"); break;
    case MOD31_MK_NOISE: strcpy(k->epopt, "type:m&k."); break;
    case MOD31_NT20: strcpy(k->epopt, "type:nt20"); break;
    case MOD31_NT10: strcpy(k->epopt, "type:nt10"); break;
    case MOD31_COMP: strcpy(k->epopt, "type:comp"); break;
    default: break;
    }
}

extern "C" {

int kelva_identify(const char *path, const uint8_t *data, uint32_t size, char *out, uint32_t capacity) {
    return epconf_identify(path, data, size, out, capacity);
}

void kelva_get_player_name(const kelva *k, char *out, uint32_t capacity) {
    copy_emulated_string(k, k ? k->player_name_addr : 0, out, capacity);
}

const char *kelva_get_format_name(const kelva *k) {
    static const struct {
        const char *option;
        const char *name;
    } kNames[] = {
        {"type:pt30", "ProTracker (31-instrument M.K.)"},
        {"type:st20", "Soundtracker (15-instrument)"},
        {"type:st24", "DOC Soundtracker 2.4 (byte-offset srep)"},
        {"type:flt4", "Startrekker 4ch (FLT4)"},
        {"type:m&k.", "His Master's Noise (M&K!)"},
        {"type:nt10", "NoiseTracker 1.x"},
        {"type:nt20", "NoiseTracker 2.x"},
        {"type:comp", "Fasttracker / multichannel"},
    };
    if (!k) return "";
    for (const auto &e : kNames)
        if (strcmp(k->epopt, e.option) == 0) return e.name;
    // Players outside the ProTracker family name their format themselves.
    return k->format_name;
}

}   // extern "C"
