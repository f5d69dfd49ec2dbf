#include "cli/cli.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <strings.h>

#include "engine/kelva.h"
#include "plugin/hostio.h"
#include "plugin/modinfo.h"
#include "plugin/scan.h"
#include "plugin/songdb.h"

std::atomic<bool> cli_interrupted{false};

// ---- command-line options ----------------------------------------------------

namespace {

bool listed(const std::vector<std::string> &names, const std::string &name) {
    for (const std::string &n : names)
        if (n == name) return true;
    return false;
}

// Points the data-tree search at `dir` for the rest of the process.
bool use_data_dir(const char *command, const char *dir) {
    if (!*dir) {
        cli_usage_error(command, "--data needs a directory");
        return false;
    }
    std::string conf = std::string(dir) + "/eagleplayer.conf";
    if (access(conf.c_str(), R_OK) != 0) {
        cli_error("%s is not a data tree: cannot read %s", dir, conf.c_str());
        exit(kExitFailure);
    }
    setenv("KELVA_DATA", dir, 1);
    return true;
}

}  // namespace

bool parse_args(const char *command, int argc, char **argv, int first, const option_set &opts, cli_args *out) {
    bool options_done = false;
    for (int i = first; i < argc; i++) {
        std::string a = argv[i];
        if (options_done || a.size() < 2 || a[0] != '-') {
            out->positional.push_back(a);
            continue;
        }
        if (a == "--") {
            options_done = true;
            continue;
        }
        if (a == "--help" || a == "-h") {
            out->help = true;
            continue;
        }
        std::string name, value;
        bool has_value = false;
        if (a[1] == '-') {
            name = a.substr(2);
            size_t eq = name.find('=');
            if (eq != std::string::npos) {
                value = name.substr(eq + 1);
                name.resize(eq);
                has_value = true;
            }
        } else {
            name = a.substr(1);
        }
        bool takes_value = name == "data" || listed(opts.with_value, name);
        if (!takes_value && !listed(opts.switches, name)) {
            cli_usage_error(command, "unknown option %s", a.c_str());
            return false;
        }
        if (takes_value && !has_value) {
            if (i + 1 >= argc) {
                cli_usage_error(command, "%s needs a value", a.c_str());
                return false;
            }
            value = argv[++i];
        } else if (!takes_value && has_value) {
            cli_usage_error(command, "%s takes no value", a.c_str());
            return false;
        }
        if (name == "data") {
            if (!use_data_dir(command, value.c_str())) return false;
            continue;
        }
        out->options.emplace_back(name, value);
    }
    return true;
}

const char *arg_value(const cli_args &args, const char *name) {
    const char *found = nullptr;
    for (const auto &o : args.options)
        if (o.first == name) found = o.second.c_str();
    return found;
}

bool arg_switch(const cli_args &args, const char *name) { return arg_value(args, name) != nullptr; }

void cli_error(const char *fmt, ...) {
    char line[8192];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(line, sizeof line, fmt, ap);
    va_end(ap);
    fprintf(stderr, "kelva: %s\n", line);
}

int cli_usage_error(const char *command, const char *fmt, ...) {
    char line[4096];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(line, sizeof line, fmt, ap);
    va_end(ap);
    if (command && *command)
        fprintf(stderr, "kelva %s: %s (see 'kelva %s --help')\n", command, line, command);
    else
        fprintf(stderr, "kelva: %s (see 'kelva --help')\n", line);
    return kExitUsage;
}

// ---- playback settings ---------------------------------------------------------

namespace {

bool parse_int(const char *text, int64_t lo, int64_t hi, int64_t *out) {
    if (!text || !*text) return false;
    char *end = nullptr;
    errno = 0;
    long long v = strtoll(text, &end, 10);
    if (errno || *end || v < lo || v > hi) return false;
    *out = v;
    return true;
}

bool parse_double(const char *text, double lo, double hi, double *out) {
    if (!text || !*text) return false;
    char *end = nullptr;
    errno = 0;
    double v = strtod(text, &end);
    if (errno || *end || !std::isfinite(v) || v < lo || v > hi) return false;
    *out = v;
    return true;
}

}  // namespace

void add_play_options(option_set *opts) {
    for (const char *o : {"subsong", "seconds", "rate", "model", "separation", "led"}) opts->with_value.push_back(o);
}

bool read_play_settings(const char *command, const cli_args &args, play_settings *out) {
    int64_t i = 0;
    double d = 0;
    if (const char *v = arg_value(args, "rate")) {
        if (!parse_int(v, 8000, 384000, &i)) {
            cli_usage_error(command, "--rate wants 8000..384000 Hz, not '%s'", v);
            return false;
        }
        out->rate = int32_t(i);
    }
    if (const char *v = arg_value(args, "subsong")) {
        if (!parse_int(v, 0, 65535, &i)) {
            cli_usage_error(command, "--subsong wants a number 0..65535, not '%s'", v);
            return false;
        }
        out->subsong = int32_t(i);
    }
    if (const char *v = arg_value(args, "seconds")) {
        if (!parse_double(v, 0.001, 86400.0, &d)) {
            cli_usage_error(command, "--seconds wants 0.001..86400, not '%s'", v);
            return false;
        }
        out->seconds = d;
    }
    if (const char *v = arg_value(args, "separation")) {
        if (!parse_double(v, 0.0, 1.0, &d)) {
            cli_usage_error(command, "--separation wants 0..1 (0 = mono, 1 = hard pan), not '%s'", v);
            return false;
        }
        out->separation = float(d);
    }
    if (const char *v = arg_value(args, "model")) {
        if (strcasecmp(v, "a500") == 0)
            out->model = 0;
        else if (strcasecmp(v, "a1200") == 0)
            out->model = 1;
        else
            {
            cli_usage_error(command, "--model wants a500 or a1200, not '%s'", v);
            return false;
        }
    }
    if (const char *v = arg_value(args, "led")) {
        if (strcmp(v, "auto") == 0)
            out->led = 0;
        else if (strcmp(v, "off") == 0)
            out->led = 1;
        else if (strcmp(v, "on") == 0)
            out->led = 2;
        else
            {
            cli_usage_error(command, "--led wants auto, on or off, not '%s'", v);
            return false;
        }
    }
    return true;
}

void apply_settings(kelva *k, const play_settings &s) {
    kelva_set_separation(k, s.separation);
    kelva_set_model(k, s.model);
    kelva_set_led_filter(k, s.led);
}

// ---- modules -----------------------------------------------------------------------

bool module_load(const char *path, module_file *m, std::string *error) {
    m->shown = path;
    struct stat st;
    if (stat(path, &st) != 0) {
        *error = std::string("cannot open ") + path + ": " + strerror(errno);
        return false;
    }
    if (S_ISDIR(st.st_mode)) {
        *error = std::string(path) + " is a directory";
        return false;
    }
    if (!S_ISREG(st.st_mode)) {
        *error = std::string(path) + " is not a regular file";
        return false;
    }
    char absolute[PATH_MAX];
    m->path = realpath(path, absolute) ? absolute : path;
    if (m->path.size() >= kNameCap) {
        *error = std::string("path too long: ") + path;
        return false;
    }
    m->data = slurp_path(m->path.c_str(), &m->size);
    if (!m->data) {
        if (access(path, R_OK) != 0)
            *error = std::string("cannot open ") + path + ": " + strerror(errno);
        else
            *error = std::string("empty or unreadable file ") + path;
        return false;
    }
    char player[kPlayerPathCap];
    if (!kelva_identify(m->path.c_str(), m->data, m->size, player, sizeof player)) {
        *error = std::string("no player matches ") + path;
        module_free(m);
        return false;
    }
    m->player = player;
    // The emulated machine has room for this much module in chip memory.
    constexpr uint32_t kMaxModule = 0xF0000;
    if (m->size > kMaxModule) {
        *error = std::string(path) + " is too large for the emulated Amiga (" + std::to_string(m->size) +
                 " bytes; a module may have at most " + std::to_string(kMaxModule) + ")";
        module_free(m);
        return false;
    }
    return true;
}

void module_free(module_file *m) {
    free(m->data);
    m->data = nullptr;
    m->size = 0;
}

std::string module_player_name(const module_file &m) { return last_component(m.player.c_str()); }

kelva *module_open(const module_file &m, int32_t rate, int32_t subsong, std::string *error) {
    uint32_t player_len = 0;
    uint8_t *player = slurp_path(m.player.c_str(), &player_len);
    if (!player) {
        *error = "cannot read player " + m.player +
                 " (install kelva_data under ~/.local/share, /usr/local/share, or /usr/share, or name it with --data)";
        return nullptr;
    }
    kelva *k = kelva_create(rate);
    if (!k) {
        free(player);
        *error = "out of memory opening " + m.shown;
        return nullptr;
    }
    kelva_set_file_loader(k, vfs_load, nullptr);
    int failed = kelva_open(k, player, player_len, m.data, m.size, m.player.c_str(), m.path.c_str(), subsong);
    free(player);
    if (failed) {
        kelva_destroy(k);
        *error = m.shown + " failed to start on " + m.player;
        return nullptr;
    }
    return k;
}

// ---- lengths -----------------------------------------------------------------------

const char *length_reason_name(length_reason r) {
    switch (r) {
    case length_reason::database: return "database";
    case length_reason::song_end: return "song_end";
    case length_reason::silence: return "silence";
    case length_reason::limit: return "limit";
    case length_reason::repetition: return "repetition";
    case length_reason::failed: return "failed";
    case length_reason::cancelled: return "cancelled";
    }
    return "failed";
}

const char *length_reason_text(length_reason r) {
    switch (r) {
    case length_reason::database: return "from the database";
    case length_reason::song_end: return "song end";
    case length_reason::silence: return "silence";
    case length_reason::limit: return "limit reached";
    case length_reason::repetition: return "repetition";
    case length_reason::failed: return "could not be measured";
    case length_reason::cancelled: return "interrupted";
    }
    return "could not be measured";
}

bool module_probe(const module_file &m, module_facts *facts, std::string *error) {
    cache_key count_key = cache_make_key(m.data, m.size, kSubsongCountSeed);
    int32_t count = 0;
    bool known = cache_lookup(count_key, &count);
    kelva *k = module_open(m, 48000, 0, error);
    if (!k) {
        // What the plugin ends up storing for a module that does not start:
        // one subsong without a length, so nobody measures it again.
        if (!known) cache_store(count_key, 1, m.path.c_str());
        int32_t ignored = 0;
        cache_key length_key = cache_make_key(m.data, m.size, 0);
        if (!cache_lookup(length_key, &ignored)) cache_store(length_key, -1, m.path.c_str());
        facts->count = known ? count : 1;
        return false;
    }
    if (!known) {
        count = int32_t(kelva_get_subsong_count(k));
        cache_store(count_key, count, m.path.c_str());
    }
    facts->count = count;
    module_info info;
    module_info_read(k, &info);
    facts->format = info.format;
    char title[256];
    kelva_get_player_name(k, title, sizeof title);
    facts->player_title = title;
    facts->title = module_entry_title(info, last_component(m.path.c_str()), -1);
    facts->author = info.author;
    facts->signals_end = info.signals_end;
    kelva_close(k);
    kelva_destroy(k);
    return true;
}

int32_t module_subsong_count(const module_file &m, bool *from_database) {
    cache_key key = cache_make_key(m.data, m.size, kSubsongCountSeed);
    int32_t count = 0;
    *from_database = cache_lookup(key, &count);
    if (!*from_database) {
        kelva *k = open_for_scan(m.player.c_str(), m.path.c_str(), m.data, m.size, 0);
        count = k ? int32_t(kelva_get_subsong_count(k)) : 1;
        kelva_destroy(k);
        if (cli_interrupted.load()) return count;
        cache_store(key, count, m.path.c_str());
    }
    return count;
}

std::vector<int32_t> subsong_numbers(int32_t count) {
    std::vector<int32_t> out;
    if (count < 2) {
        out.push_back(0);
        return out;
    }
    // A count from a damaged database must not run on for subtunes nobody
    // can select.
    if (count > kMaxSubtunes) count = kMaxSubtunes;
    for (int32_t s = 1; s <= count; s++) out.push_back(s);
    return out;
}

namespace {

length_reason reason_of(int32_t code) {
    switch (code) {
    case 1: return length_reason::song_end;
    case 2: return length_reason::silence;
    case 3: return length_reason::limit;
    case 4: return length_reason::repetition;
    case 5: return length_reason::cancelled;
    }
    return length_reason::failed;
}

int cancel_on_interrupt(void *) { return cli_interrupted.load() ? 1 : 0; }

}  // namespace

subsong_length module_length(const module_file &m, int32_t subsong) {
    subsong_length r;
    r.subsong = subsong;
    cache_key key = cache_make_key(m.data, m.size, subsong);
    int32_t known = 0;
    if (cache_lookup(key, &known)) {
        r.ms = known > 0 ? known : -1;
        r.reason = length_reason::database;
        return r;
    }
    kelva *k = open_for_scan(m.player.c_str(), m.path.c_str(), m.data, m.size, subsong);
    if (!k) {
        cache_store(key, -1, m.path.c_str());
        return r;
    }
    int32_t code = 0;
    uint64_t ms = kelva_measure_length(k, kScanMaxMs, kScanSilenceMs, &code, cancel_on_interrupt, nullptr);
    kelva_destroy(k);
    r.reason = reason_of(code);
    if (r.reason == length_reason::cancelled) return r;
    int32_t value = ms < 1 ? -1 : (ms > uint64_t(INT32_MAX) ? INT32_MAX : int32_t(ms));
    cache_store(key, value, m.path.c_str());
    r.ms = value;
    if (value < 0) r.reason = length_reason::failed;
    return r;
}

std::string format_ms(int64_t ms) {
    if (ms < 0) return "unknown";
    char text[64];
    snprintf(text, sizeof text, "%lld:%02lld.%03lld", (long long)(ms / 60000), (long long)(ms / 1000 % 60),
             (long long)(ms % 1000));
    return text;
}

// ---- progress --------------------------------------------------------------------------

int64_t monotonic_ms() {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

void progress_init(progress_bar *p) {
    p->enabled = isatty(STDERR_FILENO) != 0;
    p->last_draw_ms = -1000000;
}

void progress_draw(progress_bar *p, double fraction, const std::string &text, bool force) {
    if (!p->enabled) return;
    int64_t now = monotonic_ms();
    if (!force && now - p->last_draw_ms < 100) return;
    p->last_draw_ms = now;
    if (!(fraction >= 0)) fraction = 0;
    if (fraction > 1) fraction = 1;
    constexpr int kWidth = 30;
    int filled = int(fraction * kWidth + 0.5);
    char bar[kWidth + 1];
    for (int i = 0; i < kWidth; i++) bar[i] = i < filled ? '#' : '.';
    bar[kWidth] = 0;
    fprintf(stderr, "\r[%s] %3d%%  %s\033[K", bar, int(fraction * 100), text.c_str());
    fflush(stderr);
}

void progress_done(progress_bar *p) {
    if (!p->enabled) return;
    fprintf(stderr, "\r\033[K");
    fflush(stderr);
}
