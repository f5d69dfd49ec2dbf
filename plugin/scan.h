// The background length scanner: one idle-priority thread that measures the
// songs whose subsong count or length the song-length store does not know
// yet, stores the results and asks the host to read the file's tags again.
// It reaches the host only through `host` (plugin/hostio.h).
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <set>
#include <string>
#include <thread>

struct kelva;

// URIs waiting to be scanned, first in first out.
extern std::deque<std::string> scan_queue;
// Every URI ever queued in this process: each is queued at most once.
extern std::set<std::string> scan_seen;
// Guards scan_queue and scan_seen; never held while measuring, never
// together with cache_mtx.
extern std::mutex scan_mtx;
extern std::condition_variable scan_cv;
// Asks the worker and a measurement in progress to stop.
extern std::atomic<bool> scan_quit;
extern std::thread scan_thread;

// Limits of one measurement (milliseconds).
constexpr int32_t kScanMaxMs = 600000;
constexpr int32_t kScanSilenceMs = 30000;
// The host lists at most this many subtunes of one file; no more are measured.
constexpr int32_t kMaxSubtunes = 256;

// Queues a URI (subtune suffix included) unless it was queued before.
void scan_enqueue(const char *uri);
// Clears the quit flag and starts the worker thread.
void scan_start();
// Sets the quit flag, wakes the worker, joins it and drops what is queued.
void scan_stop();
// Waits for the next queued URI; false when asked to quit.
bool scan_next(std::string *uri);
// The thread body: idle scheduling, then scan_next/scan_one.
void scan_worker();
// Scans one queued entry: its subsong count and the lengths of its subtunes.
void scan_one(const char *uri);
// Measures one subtune unless its length is known; stores -1 for a module
// that does not start; stores nothing when cancelled.
void scan_subsong(const char *player_path, const char *module_name, const uint8_t *data, uint32_t size,
                  int32_t subtune);
// Reads the player, creates a 48 kHz engine with vfs_load as its loader and
// opens the module; null on any failure.
kelva *open_for_scan(const char *player_path, const char *module_name, const uint8_t *data, uint32_t size,
                     int32_t subtune);
// The measurement's cancel callback: non-zero while scan_quit is set.
int scan_cancel_cb(void *user);
