// The scanner's process-wide state reset as in a fresh process, and a host read that opens nothing but counts.
#pragma once

#include <map>
#include <mutex>
#include <string>

#include "plugin/hostio.h"
#include "plugin/scan.h"

// An empty queue, nothing seen, the quit flag down and the local-file host table. The worker must be stopped first.
inline void scan_reset_state() {
    scan_queue.clear();
    scan_seen.clear();
    scan_quit.store(false);
    host = host_ops_local();
}

// URI -> number of reads, recorded from any thread.
inline std::mutex read_log_mtx;
inline std::map<std::string, int> read_log;
inline int counting_read(const char *uri, uint8_t **, uint32_t *) {
    std::lock_guard<std::mutex> lock(read_log_mtx);
    read_log[uri]++;
    return -1;   // cannot be opened: the scan of this entry ends here
}
inline std::map<std::string, int> reads_so_far() {
    std::lock_guard<std::mutex> lock(read_log_mtx);
    return read_log;
}
inline int reads_of(const std::string &uri) { return reads_so_far()[uri]; }
inline void clear_read_log() {
    std::lock_guard<std::mutex> lock(read_log_mtx);
    read_log.clear();
}
