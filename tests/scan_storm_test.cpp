// The scanner's queue under load from many threads at once: enqueue storms
// against a running worker, and storms while the worker is stopped and
// started again. Built with ThreadSanitizer in CI (ScanStorm.*).
#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "plugin/hostio.h"
#include "plugin/scan.h"
#include "support/scan_state.h"
#include "support/services.h"

namespace {

std::string storm_uri(int i) { return "mem://storm" + std::to_string(i) + ".mod"; }

struct ScanStorm : testing::Test {
    void SetUp() override { reset(); }
    void TearDown() override { scan_stop(), reset(); }
    static void reset() {
        scan_reset_state();
        clear_read_log();
        host.read_uri = counting_read;
    }
};

TEST_F(ScanStorm, ManyThreadsQueueOverlappingUrisEachScannedOnce) {
    constexpr int kThreads = 8, kPerThread = 400, kDistinct = 500;
    scan_start();
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    std::set<int> expected;
    for (int t = 0; t < kThreads; t++) {
        // Each thread walks the same names from a different start, so every
        // name is queued by several threads at about the same time.
        for (int i = 0; i < kPerThread; i++) expected.insert((t * 61 + i) % kDistinct);
        threads.emplace_back([t, &go] {
            while (!go.load()) std::this_thread::yield();
            for (int i = 0; i < kPerThread; i++) scan_enqueue(storm_uri((t * 61 + i) % kDistinct).c_str());
        });
    }
    go.store(true);
    for (std::thread &th : threads) th.join();
    ASSERT_TRUE(wait_until([&] { return reads_so_far().size() >= expected.size(); }));
    std::map<std::string, int> r = reads_so_far();
    EXPECT_EQ(r.size(), expected.size());
    for (const auto &[uri, n] : r) EXPECT_EQ(n, 1) << uri;
    std::lock_guard<std::mutex> lock(scan_mtx);
    EXPECT_EQ(scan_seen.size(), expected.size());
}

TEST_F(ScanStorm, StopAndStartDuringAStormNeitherHangsNorScansTwice) {
    constexpr int kThreads = 4, kPerThread = 300;
    std::vector<std::thread> threads;
    scan_start();
    for (int t = 0; t < kThreads; t++)
        threads.emplace_back([t] {
            for (int i = 0; i < kPerThread; i++) scan_enqueue(storm_uri(t * kPerThread + i).c_str());
        });
    // The plugin is unloaded and loaded again while the threads queue.
    for (int round = 0; round < 5; round++) {
        scan_stop();
        EXPECT_FALSE(scan_thread.joinable());
        scan_start();
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    for (std::thread &th : threads) th.join();
    // Once one last name is read, the worker has drained the queue before it
    // (first in, first out). Names dropped by a stop are not queued again
    // (the seen-set keeps them), and no name is read twice.
    scan_enqueue("mem://last.mod");
    ASSERT_TRUE(wait_until([] { return reads_so_far().count("mem://last.mod") == 1; }));
    std::map<std::string, int> r = reads_so_far();
    for (const auto &[uri, n] : r) EXPECT_EQ(n, 1) << uri;
    std::lock_guard<std::mutex> lock(scan_mtx);
    EXPECT_EQ(scan_seen.size(), size_t(kThreads * kPerThread + 1));
    EXPECT_TRUE(scan_queue.empty());
}

}  // namespace
