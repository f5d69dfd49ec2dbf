// Puts the scanner's process-wide state back as a fresh process has it: an
// empty queue, nothing seen, the quit flag down and the local-file host
// table. The worker must be stopped first.
#pragma once

#include <mutex>

#include "plugin/hostio.h"
#include "plugin/scan.h"

inline void scan_reset_state() {
    {
        std::lock_guard<std::mutex> lock(scan_mtx);
        scan_queue.clear();
        scan_seen.clear();
    }
    scan_quit.store(false);
    host = host_ops_local();
}
