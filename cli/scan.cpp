// kelva scan: walks folders, finds every file a player claims, and measures
// all its subsongs into the song-length database the plugin reads. Worker
// threads take files one at a time; each runs its own engines.
#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "cli/cli.h"
#include "plugin/hostio.h"
#include "plugin/scan.h"
#include "plugin/songdb.h"

namespace {

const char kScanHelp[] =
    "usage: kelva scan DIR... [--jobs N]\n"
    "\n"
    "Walks the folders (and their subfolders), finds every file a player claims\n"
    "and measures the subsongs the song-length database does not know yet, so\n"
    "that players show every length at once. Ends with a summary.\n"
    "\n"
    "  --jobs N      worker threads (default: one per processor)\n"
    "  --data DIR    data tree with eagleplayer.conf and players/\n";

// Files larger than this are not modules any player here can open.
constexpr off_t kMaxModuleBytes = 64 << 20;

// Adds the regular files under `dir` (sorted by name within each folder);
// false when `dir` itself cannot be read. Symbolic links to folders are not
// followed, so a link loop cannot trap the walk.
bool collect(const std::string &dir, std::vector<std::string> *files) {
    DIR *d = opendir(dir.c_str());
    if (!d) return false;
    std::vector<std::string> names;
    while (struct dirent *e = readdir(d))
        if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0) names.push_back(e->d_name);
    closedir(d);
    std::sort(names.begin(), names.end());
    for (const std::string &n : names) {
        std::string path = dir;
        if (path.empty() || path.back() != '/') path += '/';
        path += n;
        struct stat st;
        if (lstat(path.c_str(), &st) != 0) continue;
        if (S_ISDIR(st.st_mode)) {
            collect(path, files);
            continue;
        }
        if (S_ISLNK(st.st_mode) && stat(path.c_str(), &st) != 0) continue;
        if (S_ISREG(st.st_mode) && st.st_size > 0 && st.st_size <= kMaxModuleBytes) files->push_back(path);
    }
    return true;
}

struct scan_totals {
    int64_t claimed = 0;
    int64_t subsongs = 0;
    int64_t known = 0;          // subsongs already in the database
    int64_t measured = 0;       // subsongs measured now
    int64_t failures = 0;       // subsongs without a length
    int64_t music_ms = 0;       // all lengths found
    int64_t measured_ms = 0;    // lengths measured now
};

struct scan_state {
    std::vector<std::string> files;
    std::atomic<size_t> next{0};
    std::atomic<size_t> done{0};
    std::mutex mtx;             // guards totals and failed
    scan_totals totals;
    std::vector<std::string> failed;
};

// Measures one subsong with the plugin's scanner and records the outcome.
void scan_one_subsong(scan_state *st, const module_file &m, int32_t subsong, scan_totals *t) {
    cache_key key = cache_make_key(m.data, m.size, subsong);
    int32_t ms = 0;
    bool known = cache_lookup(key, &ms);
    if (!known) {
        scan_subsong(m.player.c_str(), m.path.c_str(), m.data, m.size, subsong);
        if (!cache_lookup(key, &ms)) return;   // interrupted: nothing stored
    }
    t->subsongs++;
    (known ? t->known : t->measured)++;
    if (ms > 0) {
        t->music_ms += ms;
        if (!known) t->measured_ms += ms;
        return;
    }
    t->failures++;
    std::lock_guard<std::mutex> lock(st->mtx);
    st->failed.push_back(m.shown + (subsong > 0 ? ": subsong " + std::to_string(subsong) : std::string()) +
                         ": no length (the player did not start or the song is empty)");
}

void scan_file(scan_state *st, const std::string &path) {
    module_file m;
    std::string error;
    if (!module_load(path.c_str(), &m, &error)) return;   // not a module: skipped
    scan_totals t;
    t.claimed = 1;
    bool from_db = false;
    int32_t count = module_subsong_count(m, &from_db);
    for (int32_t s : subsong_numbers(count)) {
        if (cli_interrupted.load()) break;
        scan_one_subsong(st, m, s, &t);
    }
    module_free(&m);
    std::lock_guard<std::mutex> lock(st->mtx);
    scan_totals &all = st->totals;
    all.claimed += t.claimed;
    all.subsongs += t.subsongs;
    all.known += t.known;
    all.measured += t.measured;
    all.failures += t.failures;
    all.music_ms += t.music_ms;
    all.measured_ms += t.measured_ms;
}

void worker(scan_state *st) {
    for (;;) {
        if (cli_interrupted.load()) return;
        size_t i = st->next.fetch_add(1);
        if (i >= st->files.size()) return;
        scan_file(st, st->files[i]);
        st->done.fetch_add(1);
    }
}

std::string progress_text(scan_state *st) {
    std::lock_guard<std::mutex> lock(st->mtx);
    char text[160];
    snprintf(text, sizeof text, "%zu/%zu files, %lld subsongs, %lld s of music", st->done.load(), st->files.size(),
             (long long)st->totals.subsongs, (long long)(st->totals.music_ms / 1000));
    return text;
}

void run_workers(scan_state *st, int jobs) {
    std::vector<std::thread> threads;
    for (int i = 0; i < jobs; i++) threads.emplace_back(worker, st);
    progress_bar bar;
    progress_init(&bar);
    while (st->done.load() < st->files.size() && !cli_interrupted.load()) {
        if (bar.enabled)
            progress_draw(&bar, st->files.empty() ? 1.0 : double(st->done.load()) / double(st->files.size()),
                          progress_text(st));
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    for (std::thread &t : threads) t.join();
    progress_done(&bar);
}

void print_summary(const scan_state &st, double seconds) {
    const scan_totals &t = st.totals;
    printf("files:    %zu looked at, %lld claimed by a player\n", st.files.size(), (long long)t.claimed);
    printf("subsongs: %lld (%lld already in the database, %lld measured now)\n", (long long)t.subsongs,
           (long long)t.known, (long long)t.measured);
    printf("music:    %.1f s in all, %.1f s measured now\n", double(t.music_ms) / 1000.0, double(t.measured_ms) / 1000.0);
    printf("failures: %lld\n", (long long)t.failures);
    if (t.measured > 0 && seconds > 0)
        printf("speed:    %.1f s of music measured per second (%.1f s)\n", double(t.measured_ms) / 1000.0 / seconds,
               seconds);
    char dir[kNameCap];
    db_dir(dir, sizeof dir);
    if (dir[0])
        printf("database: %s/songlengths.db\n", dir);
    else
        printf("database: none (neither XDG_DATA_HOME nor HOME is set); nothing was kept\n");
}

bool parse_jobs(const char *text, int *jobs) {
    if (!text) {
        unsigned n = std::thread::hardware_concurrency();
        *jobs = n == 0 ? 1 : int(n > 64 ? 64 : n);
        return true;
    }
    char *end = nullptr;
    errno = 0;
    long v = strtol(text, &end, 10);
    if (errno || !*text || *end || v < 1 || v > 64) return false;
    *jobs = int(v);
    return true;
}

}  // namespace

int cmd_scan(int argc, char **argv, int first) {
    option_set opts;
    opts.with_value.push_back("jobs");
    opts.with_value.push_back("j");
    cli_args args;
    if (!parse_args("scan", argc, argv, first, opts, &args)) return kExitUsage;
    if (args.help) {
        fputs(kScanHelp, stdout);
        return kExitOk;
    }
    if (args.positional.empty()) return cli_usage_error("scan", "no folder given");
    const char *jobs_text = arg_value(args, "jobs");
    if (!jobs_text) jobs_text = arg_value(args, "j");
    int jobs = 1;
    if (!parse_jobs(jobs_text, &jobs)) return cli_usage_error("scan", "--jobs wants 1..64, not '%s'", jobs_text);

    int rc = kExitOk;
    scan_state st;
    for (const std::string &dir : args.positional) {
        struct stat s;
        if (stat(dir.c_str(), &s) == 0 && S_ISREG(s.st_mode)) {
            st.files.push_back(dir);
            continue;
        }
        if (!collect(dir, &st.files)) {
            cli_error("cannot read folder %s: %s", dir.c_str(), strerror(errno));
            rc = kExitFailure;
        }
    }
    int64_t start = monotonic_ms();
    run_workers(&st, jobs);
    double seconds = double(monotonic_ms() - start) / 1000.0;
    for (const std::string &f : st.failed) cli_error("%s", f.c_str());
    print_summary(st, seconds);
    if (cli_interrupted.load()) {
        cli_error("interrupted: %zu of %zu files scanned", st.done.load(), st.files.size());
        rc = kExitFailure;
    }
    return rc;
}
