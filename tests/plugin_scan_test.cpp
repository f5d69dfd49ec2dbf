// The background length scanner: queue rules, start and stop, cancellation,
// and whole scans of real test players through the local-file host table.
#include <gtest/gtest.h>

#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "engine/kelva.h"
#include "plugin/hostio.h"
#include "plugin/scan.h"
#include "plugin/songdb.h"
#include "support/scan_state.h"
#include "support/services.h"
#include "support/temptree.h"
#include "support/test_support.h"

namespace {

// The rescans the scanner asked for, recorded from the worker thread.
std::mutex log_mtx;
std::vector<std::string> rescans;
void record_rescan(const char *uri) {
    std::lock_guard<std::mutex> lock(log_mtx);
    rescans.push_back(uri);
}

struct Scanner : testing::Test {
    void SetUp() override { reset(); }
    void TearDown() override { scan_stop(), reset(); }
    static void reset() {
        scan_reset_state();
        db_close();
        {
            std::lock_guard<std::mutex> lock(cache_mtx);
            cache_val.clear();
        }
        clear_read_log();
        std::lock_guard<std::mutex> lock(log_mtx);
        rescans.clear();
    }
};

TEST_F(Scanner, EachUriIsScannedOnceForTheLifeOfTheProcess) {
    host.read_uri = counting_read;
    scan_start();
    for (const char *uri : {"mem://a.mod", "mem://a.mod", "mem://a.mod?2" /* a URI of its own */, "mem://b.mod"})
        scan_enqueue(uri);
    // First in, first out: once b was read, everything before it was too.
    ASSERT_TRUE(wait_until([] { return reads_of("mem://b.mod") == 1; }));
    EXPECT_EQ(reads_of("mem://a.mod"), 2);   // a and a?2 both read the file a.mod
    scan_enqueue("mem://a.mod");              // already scanned: the seen-set answers
    scan_enqueue("/music/a b.mod?1");         // file names are turned into URIs before reading
    ASSERT_TRUE(wait_until([] { return reads_of("file:///music/a%20b.mod") == 1; }));
    EXPECT_EQ(reads_of("mem://a.mod"), 2);
    std::lock_guard<std::mutex> lock(scan_mtx);
    EXPECT_TRUE(scan_queue.empty());
    EXPECT_EQ(scan_seen.size(), 4u);
}

TEST_F(Scanner, StopWakesAnIdleWorkerAndDropsTheQueue) {
    scan_start();
    scan_stop();   // an idle worker waits on the condition variable; this must not hang
    EXPECT_FALSE(scan_thread.joinable());
    scan_enqueue("mem://x.mod");   // queued while no worker runs, then dropped by the stop
    scan_stop();
    {
        std::lock_guard<std::mutex> lock(scan_mtx);
        EXPECT_TRUE(scan_queue.empty());
        EXPECT_EQ(scan_seen.count("mem://x.mod"), 1u);
    }
    host.read_uri = counting_read;   // a new start after a stop works again
    scan_start();
    scan_enqueue("mem://y.mod");
    ASSERT_TRUE(wait_until([] { return reads_of("mem://y.mod") == 1; }));
    EXPECT_EQ(reads_of("mem://x.mod"), 0);
}

// ---- scans of real players through a data tree found by KELVA_DATA ----------------

struct ScanTree : Scanner {
    env_guard env;
    temp_dir dir;
    std::string player(const char *name) {
        auto bytes = read_file_bytes(std::string(KELVA_TEST_PLAYERS) + "/" + name);
        std::string to = dir / (std::string("players/") + name);
        return !bytes.empty() && write_file(to, bytes) ? to : "";
    }
    void SetUp() override {
        Scanner::SetUp();
        kelva_global_init();
        setenv("KELVA_DATA", dir.path.c_str(), 1);
        write_file(dir / "eagleplayer.conf", "Tone prefixes=tone\nSubsong prefixes=subs\nBroken prefixes=broken\n");
        write_file(dir / "players/Broken", "not a hunk file");
        host.rescan = record_rescan;
    }
    // Writes the module and scans it (with a subtune suffix when given).
    std::string scan(const std::string &file, const std::string &contents, const std::string &suffix = "") {
        write_file(dir / file, contents);
        scan_one((uri(file) + suffix).c_str());
        return contents;
    }
    static cache_key key(const std::string &contents, int64_t seed) {
        return cache_make_key(reinterpret_cast<const uint8_t *>(contents.data()), uint32_t(contents.size()), seed);
    }
    static std::optional<int32_t> stored(const std::string &contents, int64_t seed) {
        int32_t v = 0;
        return cache_lookup(key(contents, seed), &v) ? std::optional<int32_t>(v) : std::nullopt;
    }
    std::string uri(const std::string &rel) const { return "file://" + dir.path + "/" + rel; }
    std::vector<std::string> rescanned() {
        std::lock_guard<std::mutex> lock(log_mtx);
        return rescans;
    }
};

#define REQUIRE_PLAYER(name) \
    if (player(name).empty()) GTEST_SKIP() << "test player " << name << " not built (needs the m68k toolchain)"

TEST_F(ScanTree, ModuleWithSubsongsGetsItsCountAndEveryLength) {
    REQUIRE_PLAYER("Subsong");
    std::string module = scan("song.subs", "five tunes in one file");
    ASSERT_EQ(stored(module, kSubsongCountSeed), 5);
    EXPECT_FALSE(stored(module, 0));   // a multi-song file is measured from 1
    for (int s = 1; s <= 5; s++) EXPECT_GT(stored(module, s).value_or(0), 0) << "subtune " << s;
    EXPECT_FALSE(stored(module, 6));
    EXPECT_EQ(rescanned(), std::vector<std::string>{uri("song.subs")});

    module = scan("pick.subs", "pick one", "?3");   // a subtune suffix measures only that subtune
    EXPECT_FALSE(stored(module, kSubsongCountSeed));
    EXPECT_TRUE(stored(module, 3));
    EXPECT_FALSE(stored(module, 1));
    EXPECT_EQ(rescanned().back(), uri("pick.subs") + "?3");
    module = scan("zero.subs", "the default one", "?0");   // "?0" is subtune 0, not the whole file
    EXPECT_FALSE(stored(module, kSubsongCountSeed));
    EXPECT_TRUE(stored(module, 0));
}

TEST_F(ScanTree, SingleSongIsMeasuredAsSubtuneZero) {
    REQUIRE_PLAYER("Tone");
    std::string module = scan("steady.tone", "one steady tone");
    EXPECT_EQ(stored(module, kSubsongCountSeed), 1);
    int32_t len = stored(module, 0).value_or(0);
    EXPECT_GT(len, 0);
    EXPECT_LE(len, kScanMaxMs);
    // A count of two (here from the database) means subtunes 1 and 2.
    const std::string two = "a count of two";
    cache_store(key(two, kSubsongCountSeed), 2, "two.tone");
    scan("two.tone", two);
    EXPECT_TRUE(stored(two, 1) && stored(two, 2) && !stored(two, 0));
}

TEST_F(ScanTree, UnstartableModulesAreRememberedAndFilesWithoutPlayerOrContentsLeftAlone) {
    scan("nothing.xyz", "no line matches this name");
    scan("empty.tone", "");
    scan_one(uri("missing.tone").c_str());
    EXPECT_TRUE(cache_val.empty());
    EXPECT_TRUE(rescanned().empty());

    std::string broken = scan("x.broken", "this player is not a program");
    EXPECT_EQ(stored(broken, kSubsongCountSeed), 1);
    EXPECT_EQ(stored(broken, 0), -1);
    size_t records = cache_val.size();   // known now: a second scan stores nothing new
    scan_one(uri("x.broken").c_str());
    EXPECT_EQ(cache_val.size(), records);
    EXPECT_EQ(rescanned().size(), 2u);
}

TEST_F(ScanTree, CancelledMeasurementStoresNothingAndAsksForNoRescan) {
    REQUIRE_PLAYER("Tone");
    const std::string module = "quit before measuring";
    // The count is known, so the scan goes straight to measuring, which sees
    // the quit flag at its first poll.
    cache_store(key(module, kSubsongCountSeed), 1, "q.tone");
    scan_quit.exchange(true);
    scan("q.tone", module);
    EXPECT_FALSE(stored(module, 0));
    // With the count unknown, starting the module finds and stores it; then the scan ends.
    const std::string unknown = scan("u.tone", "quit after counting");
    EXPECT_EQ(stored(unknown, kSubsongCountSeed), 1);
    EXPECT_FALSE(stored(unknown, 0));
    EXPECT_TRUE(rescanned().empty());
}

TEST_F(ScanTree, StoppingTheWorkerMidScanLeavesNoPartialLength) {
    REQUIRE_PLAYER("Subsong");
    const std::string module = "stop me";
    write_file(dir / "stop.subs", module);
    scan_start();
    scan_enqueue(uri("stop.subs").c_str());
    // Stop once the count is in, while the subtunes are being measured.
    ASSERT_TRUE(wait_until([&] { return stored(module, kSubsongCountSeed).has_value(); }));
    scan_stop();
    EXPECT_FALSE(scan_thread.joinable());
    // Whatever was stored is a whole measurement: all five subtunes are
    // steady tones of one length. Unfinished ones are absent.
    std::optional<int32_t> first;
    int missing = 0;
    for (int s = 1; s <= 5; s++) {
        std::optional<int32_t> len = stored(module, s);
        if (!len) {
            missing++;
            continue;
        }
        EXPECT_GT(*len, 0);
        EXPECT_EQ(*len, first.value_or(*len));
        first = len;
    }
    EXPECT_TRUE(missing == 0 || rescanned().empty());
}

}  // namespace
