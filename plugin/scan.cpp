#include "plugin/scan.h"

#include <cstdlib>
#include <cstring>
#include <pthread.h>
#include <sched.h>

#include "engine/kelva.h"
#include "plugin/hostio.h"
#include "plugin/modinfo.h"
#include "plugin/songdb.h"

std::deque<std::string> scan_queue;
std::set<std::string> scan_seen;
std::mutex scan_mtx;
std::condition_variable scan_cv;
std::atomic<bool> scan_quit{false};
std::thread scan_thread;

void scan_enqueue(const char *uri) {
    {
        std::lock_guard<std::mutex> lock(scan_mtx);
        if (!scan_seen.insert(uri).second) return;
        scan_queue.push_back(uri);
    }
    scan_cv.notify_one();
}

void scan_start() {
    scan_quit.exchange(false);
    // A second start while a worker is held ends the process (std::thread
    // assignment to a joinable thread): there is exactly one scanner.
    scan_thread = std::thread(scan_worker);
}

void scan_stop() {
    scan_quit.exchange(true);
    // Taking the lock once orders the flag before the worker's next wait, so
    // the wake-up below cannot be lost.
    { std::lock_guard<std::mutex> lock(scan_mtx); }
    scan_cv.notify_all();
    if (scan_thread.joinable()) scan_thread.join();
    std::lock_guard<std::mutex> lock(scan_mtx);
    scan_queue.clear();
}

bool scan_next(std::string *uri) {
    std::unique_lock<std::mutex> lock(scan_mtx);
    scan_cv.wait(lock, [] { return scan_quit.load() || !scan_queue.empty(); });
    if (scan_quit.load()) return false;
    *uri = std::move(scan_queue.front());
    scan_queue.pop_front();
    return true;
}

void scan_worker() {
    sched_param param{};
    param.sched_priority = 0;
    // Failure only means the scanner competes at normal priority.
    (void)pthread_setschedparam(pthread_self(), SCHED_IDLE, &param);
    std::string uri;
    while (scan_next(&uri)) scan_one(uri.c_str());
}

int scan_cancel_cb(void *) { return scan_quit.load() ? 1 : 0; }

kelva *open_for_scan(const char *player_path, const char *module_name, const uint8_t *data, uint32_t size,
                     int32_t subtune) {
    uint32_t player_len = 0;
    uint8_t *player = slurp_path(player_path, &player_len);
    if (!player) return nullptr;
    kelva *k = kelva_create(48000);
    if (k) {
        kelva_set_file_loader(k, vfs_load, nullptr);
        if (kelva_open(k, player, player_len, data, size, player_path, module_name, subtune) != 0) {
            kelva_destroy(k);
            k = nullptr;
        }
    }
    free(player);
    return k;
}

void scan_subsong(const char *player_path, const char *module_name, const uint8_t *data, uint32_t size,
                  int32_t subtune) {
    cache_key key = cache_make_key(data, size, subtune);
    int32_t known = 0;
    if (cache_lookup(key, &known)) return;
    kelva *k = open_for_scan(player_path, module_name, data, size, subtune);
    if (!k) {
        cache_store(key, -1, module_name);
        return;
    }
    int32_t reason = 0;
    uint64_t ms = kelva_measure_length(k, kScanMaxMs, kScanSilenceMs, &reason, scan_cancel_cb, nullptr);
    kelva_destroy(k);
    if (reason == 5) return;
    int32_t value = ms < 1 ? -1 : (ms > uint64_t(INT32_MAX) ? INT32_MAX : int32_t(ms));
    cache_store(key, value, module_name);
}

void scan_one(const char *uri) {
    char base[kNameCap], name[kNameCap];
    int32_t subtune = module_name_of(uri, base, name);

    char file_uri[kNameCap];
    if (strstr(base, "://")) {
        memcpy(file_uri, base, strlen(base) + 1);
    } else if (!host.name_to_uri || !host.name_to_uri(base, file_uri, sizeof file_uri)) {
        return;
    }
    uint8_t *data = nullptr;
    uint32_t size = 0;
    if (!host.read_uri || host.read_uri(file_uri, &data, &size) <= 0) return;
    if (size == 0) {
        free(data);
        return;
    }

    char player[kPlayerPathCap];
    if (!kelva_identify(name, data, size, player, sizeof player)) {
        free(data);
        return;
    }

    if (subtune < 0) {
        cache_key count_key = cache_make_key(data, size, kSubsongCountSeed);
        int32_t count = 0;
        if (!cache_lookup(count_key, &count)) {
            // Starting the module once gives its count (stored) and the
            // names the tags show.
            count = module_info_get(player, name, data, size).count;
            if (scan_quit.load()) {
                free(data);
                return;
            }
        }
        if (count < 2) {
            scan_subsong(player, name, data, size, 0);
        } else {
            // A count from a damaged database must not keep the scanner busy
            // with subtunes nobody can select.
            if (count > kMaxSubtunes) count = kMaxSubtunes;
            for (int32_t s = 1; s <= count && !scan_quit.load(); s++) scan_subsong(player, name, data, size, s);
        }
    } else {
        scan_subsong(player, name, data, size, subtune);
    }
    free(data);
    if (!scan_quit.load() && host.rescan) host.rescan(uri);
}
