// The scanner's queue under load from many threads at once: an enqueue storm against a running worker, then one while
// the worker is stopped and started again. Built with ThreadSanitizer in CI (ScanStorm.*).
#include <gtest/gtest.h>

#include <atomic>

#include "support/scan_state.h"
#include "support/services.h"

namespace {

std::string storm_uri(int i) { return "mem://storm" + std::to_string(i) + ".mod"; }

struct ScanStorm : testing::Test {
    void SetUp() override {
        TearDown();
        host.read_uri = counting_read;
    }
    void TearDown() override {
        scan_stop();
        scan_reset_state();
        clear_read_log();
    }
};

TEST_F(ScanStorm, OverlappingStormsAndRestartsScanEachUriOnce) {
    scan_start();
    // Each thread walks the same 500 names from a different start, so every name is queued by several threads at
    // about the same time.
    std::atomic<bool> go{false};
    std::vector<std::thread> threads;
    for (int t = 0; t < 8; t++)
        threads.emplace_back([t, &go] {
            while (!go.load()) std::this_thread::yield();
            for (int i = 0; i < 400; i++) scan_enqueue(storm_uri((t * 61 + i) % 500).c_str());
        });
    go.store(true);
    for (std::thread &th : threads) th.join();
    ASSERT_TRUE(wait_until([&] { return reads_so_far().size() >= 500; }));
    EXPECT_EQ(reads_so_far().size(), 500u);
    for (const auto &[uri, n] : reads_so_far()) EXPECT_EQ(n, 1) << uri;   // each name read once

    // 1200 new names while the plugin is unloaded and loaded again.
    threads.clear();
    for (int t = 0; t < 4; t++)
        threads.emplace_back([t] {
            for (int i = 0; i < 300; i++) scan_enqueue(storm_uri(1000 + t * 300 + i).c_str());
        });
    for (int round = 0; round < 5; round++) {
        scan_stop();
        EXPECT_FALSE(scan_thread.joinable());
        scan_start();
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    for (std::thread &th : threads) th.join();
    // Once one last name is read, the worker has drained the queue before it (first in, first out). Names dropped by
    // a stop are not queued again (the seen-set keeps them), and no name is read twice.
    scan_enqueue("mem://last.mod");
    ASSERT_TRUE(wait_until([] { return reads_so_far().count("mem://last.mod") == 1; }));
    for (const auto &[uri, n] : reads_so_far()) EXPECT_EQ(n, 1) << uri;
    std::lock_guard<std::mutex> lock(scan_mtx);
    EXPECT_EQ(std::tuple(scan_seen.size(), scan_queue.size()), std::tuple(size_t(500 + 1200 + 1), size_t(0)));
}

}  // namespace
