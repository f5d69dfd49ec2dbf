// The background length scanner: queue rules, start and stop, cancellation,
// and whole scans of real test players through the local-file host table.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
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

namespace {

// What the scanner asked of the host, recorded from the worker thread.
std::mutex log_mtx;
std::map<std::string, int> reads;
std::vector<std::string> rescans;

int counting_read(const char *uri, uint8_t **, uint32_t *) {
    std::lock_guard<std::mutex> lock(log_mtx);
    reads[uri]++;
    return -1;
}
int reads_of(const std::string &uri) {
    std::lock_guard<std::mutex> lock(log_mtx);
    auto it = reads.find(uri);
    return it == reads.end() ? 0 : it->second;
}
void record_rescan(const char *uri) {
    std::lock_guard<std::mutex> lock(log_mtx);
    rescans.push_back(uri);
}

// Polls until `done` holds; generous, since the machine may be loaded.
template <class F>
bool wait_until(F done) {
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (std::chrono::steady_clock::now() < end) {
        if (done()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return done();
}

class Scanner : public ::testing::Test {
protected:
    void SetUp() override { reset(); }
    void TearDown() override {
        scan_stop();
        reset();
    }
    static void reset() {
        scan_reset_state();
        db_close();
        {
            std::lock_guard<std::mutex> lock(cache_mtx);
            cache_val.clear();
        }
        std::lock_guard<std::mutex> lock(log_mtx);
        reads.clear();
        rescans.clear();
    }
};

TEST_F(Scanner, EachUriIsScannedOnceForTheLifeOfTheProcess) {
    host.read_uri = counting_read;
    scan_start();
    scan_enqueue("mem://a.mod");
    scan_enqueue("mem://a.mod");
    scan_enqueue("mem://a.mod?2");  // a subtune entry is a URI of its own
    scan_enqueue("mem://b.mod");
    // First in, first out: once b was read, everything before it was too.
    ASSERT_TRUE(wait_until([] { return reads_of("mem://b.mod") == 1; }));
    EXPECT_EQ(reads_of("mem://a.mod"), 2);  // a and a?2 both read the file a.mod

    scan_enqueue("mem://a.mod");  // already scanned: the seen-set answers
    scan_enqueue("mem://c.mod");
    ASSERT_TRUE(wait_until([] { return reads_of("mem://c.mod") == 1; }));
    EXPECT_EQ(reads_of("mem://a.mod"), 2);
    {
        std::lock_guard<std::mutex> lock(scan_mtx);
        EXPECT_TRUE(scan_queue.empty());
        EXPECT_EQ(scan_seen.size(), 4u);
    }
}

TEST_F(Scanner, FileNamesAreTurnedIntoUrisBeforeReading) {
    host.read_uri = counting_read;
    scan_start();
    scan_enqueue("/music/a b.mod?1");
    ASSERT_TRUE(wait_until([] { return reads_of("file:///music/a%20b.mod") == 1; }));
}

TEST_F(Scanner, StopWakesAnIdleWorkerAndDropsTheQueue) {
    scan_start();
    scan_stop();  // an idle worker waits on the condition variable; this must not hang
    EXPECT_FALSE(scan_thread.joinable());

    // Queued while no worker runs, then dropped by the stop.
    scan_enqueue("mem://x.mod");
    scan_stop();
    {
        std::lock_guard<std::mutex> lock(scan_mtx);
        EXPECT_TRUE(scan_queue.empty());
        EXPECT_EQ(scan_seen.count("mem://x.mod"), 1u);
    }
    // A new start after a stop works again.
    host.read_uri = counting_read;
    scan_start();
    scan_enqueue("mem://y.mod");
    ASSERT_TRUE(wait_until([] { return reads_of("mem://y.mod") == 1; }));
    EXPECT_EQ(reads_of("mem://x.mod"), 0);
}

TEST_F(Scanner, NextReturnsFalseOnceQuitIsSet) {
    std::thread waiter([] {
        std::string uri;
        EXPECT_FALSE(scan_next(&uri));
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    scan_stop();  // sets the flag and wakes the waiter
    waiter.join();
    EXPECT_EQ(scan_cancel_cb(nullptr), 1);
    scan_quit.store(false);
    EXPECT_EQ(scan_cancel_cb(nullptr), 0);
}

// ---- scans of real players ----------------------------------------------

std::string test_player(const char *name) {
#ifdef KELVA_TEST_PLAYERS
    std::string p = std::string(KELVA_TEST_PLAYERS) + "/" + name;
    FILE *f = fopen(p.c_str(), "rb");
    if (!f) return "";
    fclose(f);
    return p;
#else
    (void)name;
    return "";
#endif
}

#define REQUIRE_PLAYER(var, name)                                                                     \
    std::string var = test_player(name);                                                              \
    if (var.empty()) GTEST_SKIP() << "test player " << name << " not built (needs the m68k toolchain)"

bool copy_file(const std::string &from, const std::string &to) {
    uint32_t len = 0;
    uint8_t *data = slurp_path(from.c_str(), &len);
    if (!data) return false;
    FILE *f = fopen(to.c_str(), "wb");
    bool ok = f && fwrite(data, 1, len, f) == len;
    if (f) fclose(f);
    free(data);
    return ok;
}

// A data tree in a private folder, found through KELVA_DATA.
class ScanTree : public Scanner {
protected:
    void SetUp() override {
        Scanner::SetUp();
        kelva_global_init();
        char tmpl[] = "/tmp/kelva-scan-XXXXXX";
        dir_ = mkdtemp(tmpl);
        const char *old = getenv("KELVA_DATA");
        saved_ = old ? std::optional<std::string>(old) : std::nullopt;
        setenv("KELVA_DATA", dir_.c_str(), 1);
        std::string cmd = "mkdir -p '" + dir_ + "/players'";
        ASSERT_EQ(system(cmd.c_str()), 0);
        write("eagleplayer.conf",
              "Tone prefixes=tone\nSubsong prefixes=subs\nBroken prefixes=broken\n");
        write("players/Broken", "not a hunk file");
        host.rescan = record_rescan;
    }
    void TearDown() override {
        Scanner::TearDown();
        if (saved_)
            setenv("KELVA_DATA", saved_->c_str(), 1);
        else
            unsetenv("KELVA_DATA");
        std::string cmd = "rm -rf '" + dir_ + "'";
        (void)system(cmd.c_str());
    }
    void write(const std::string &rel, const std::string &contents) {
        FILE *f = fopen((dir_ + "/" + rel).c_str(), "wb");
        ASSERT_NE(f, nullptr);
        fwrite(contents.data(), 1, contents.size(), f);
        fclose(f);
    }
    void install(const std::string &player, const char *name) {
        ASSERT_TRUE(copy_file(player, dir_ + "/players/" + name));
    }
    static std::optional<int32_t> stored(const std::string &contents, int64_t seed) {
        cache_key key =
            cache_make_key(reinterpret_cast<const uint8_t *>(contents.data()), uint32_t(contents.size()), seed);
        int32_t v = 0;
        if (!cache_lookup(key, &v)) return std::nullopt;
        return v;
    }
    std::string uri(const std::string &rel) const { return "file://" + dir_ + "/" + rel; }
    std::vector<std::string> rescanned() {
        std::lock_guard<std::mutex> lock(log_mtx);
        return rescans;
    }

    std::string dir_;
    std::optional<std::string> saved_;
};

TEST_F(ScanTree, ModuleWithSubsongsGetsItsCountAndEveryLength) {
    REQUIRE_PLAYER(subsong, "Subsong");
    install(subsong, "Subsong");
    const std::string module = "five tunes in one file";
    write("song.subs", module);

    scan_one(uri("song.subs").c_str());
    ASSERT_EQ(stored(module, kSubsongCountSeed), 5);
    EXPECT_FALSE(stored(module, 0).has_value());  // a multi-song file is measured from 1
    for (int s = 1; s <= 5; s++) {
        std::optional<int32_t> len = stored(module, s);
        ASSERT_TRUE(len.has_value()) << "subtune " << s;
        EXPECT_GT(*len, 0) << "subtune " << s;
    }
    EXPECT_FALSE(stored(module, 6).has_value());
    EXPECT_EQ(rescanned(), std::vector<std::string>{uri("song.subs")});
}

TEST_F(ScanTree, SubtuneSuffixMeasuresOnlyThatSubtune) {
    REQUIRE_PLAYER(subsong, "Subsong");
    install(subsong, "Subsong");
    const std::string module = "pick one";
    write("pick.subs", module);
    scan_one((uri("pick.subs") + "?3").c_str());
    EXPECT_FALSE(stored(module, kSubsongCountSeed).has_value());
    EXPECT_TRUE(stored(module, 3).has_value());
    EXPECT_FALSE(stored(module, 1).has_value());
    EXPECT_EQ(rescanned(), std::vector<std::string>{uri("pick.subs") + "?3"});
}

TEST_F(ScanTree, SingleSongIsMeasuredAsSubtuneZero) {
    REQUIRE_PLAYER(tone, "Tone");
    install(tone, "Tone");
    const std::string module = "one steady tone";
    write("steady.tone", module);
    scan_one(uri("steady.tone").c_str());
    EXPECT_EQ(stored(module, kSubsongCountSeed), 1);
    std::optional<int32_t> len = stored(module, 0);
    ASSERT_TRUE(len.has_value());
    EXPECT_GT(*len, 0);
    EXPECT_LE(*len, kScanMaxMs);
}

TEST_F(ScanTree, ModulesThatDoNotStartAreRememberedAsUnmeasurable) {
    const std::string broken = "this player is not a program";
    write("x.broken", broken);
    scan_one(uri("x.broken").c_str());
    EXPECT_EQ(stored(broken, kSubsongCountSeed), 1);
    EXPECT_EQ(stored(broken, 0), -1);
    // Known now, so a second scan neither opens nor stores anything new.
    size_t records = cache_val.size();
    scan_one(uri("x.broken").c_str());
    EXPECT_EQ(cache_val.size(), records);
    EXPECT_EQ(rescanned().size(), 2u);
}

TEST_F(ScanTree, FilesWithoutPlayerOrContentsAreLeftAlone) {
    write("nothing.xyz", "no line matches this name");
    write("empty.tone", "");
    scan_one(uri("nothing.xyz").c_str());
    scan_one(uri("empty.tone").c_str());
    scan_one(uri("missing.tone").c_str());
    EXPECT_TRUE(cache_val.empty());
    EXPECT_TRUE(rescanned().empty());
}

TEST_F(ScanTree, CancelDuringMeasurementEndsItAtTheNextPoll) {
    REQUIRE_PLAYER(tone, "Tone");
    install(tone, "Tone");
    const std::string module = "tone to cancel";
    std::string player = dir_ + "/players/Tone";
    kelva *k = open_for_scan(player.c_str(), (dir_ + "/c.tone").c_str(),
                             reinterpret_cast<const uint8_t *>(module.data()), uint32_t(module.size()), 0);
    ASSERT_NE(k, nullptr);
    // The unload arrives while the measurement runs: on the third poll.
    struct poll_state {
        int polls = 0;
    } state;
    auto cancel = [](void *user) -> int {
        auto *s = static_cast<poll_state *>(user);
        if (++s->polls == 3) scan_quit.exchange(true);
        return scan_cancel_cb(nullptr);
    };
    int32_t reason = 0;
    uint64_t ms = kelva_measure_length(k, kScanMaxMs, kScanSilenceMs, &reason, cancel, &state);
    kelva_destroy(k);
    EXPECT_EQ(reason, 5);
    EXPECT_EQ(ms, 0u);
    EXPECT_EQ(state.polls, 3);
}

TEST_F(ScanTree, CancelledMeasurementStoresNothingAndAsksForNoRescan) {
    REQUIRE_PLAYER(tone, "Tone");
    install(tone, "Tone");
    const std::string module = "quit before measuring";
    write("q.tone", module);
    // The count is known, so the scan goes straight to measuring, which sees
    // the quit flag at its first poll.
    cache_store(cache_make_key(reinterpret_cast<const uint8_t *>(module.data()), uint32_t(module.size()),
                               kSubsongCountSeed),
                1, "q.tone");
    scan_quit.exchange(true);
    scan_one(uri("q.tone").c_str());
    EXPECT_FALSE(stored(module, 0).has_value());
    EXPECT_TRUE(rescanned().empty());
}

TEST_F(ScanTree, StoppingTheWorkerMidScanLeavesNoPartialLength) {
    REQUIRE_PLAYER(subsong, "Subsong");
    install(subsong, "Subsong");
    const std::string module = "stop me";
    write("stop.subs", module);
    scan_start();
    scan_enqueue(uri("stop.subs").c_str());
    // Stop once the count is in, while the subtunes are being measured.
    ASSERT_TRUE(wait_until([&] { return stored(module, kSubsongCountSeed).has_value(); }));
    scan_stop();
    EXPECT_FALSE(scan_thread.joinable());
    // Whatever was stored is a whole measurement; unfinished ones are absent.
    int missing = 0;
    std::optional<int32_t> first;
    for (int s = 1; s <= 5; s++) {
        std::optional<int32_t> len = stored(module, s);
        if (!len) {
            missing++;
            continue;
        }
        EXPECT_GT(*len, 0);
        if (!first) first = len;
        EXPECT_EQ(*len, *first) << "all five subtunes are steady tones of one length";
    }
    if (missing > 0) {
        EXPECT_TRUE(rescanned().empty());
    }
}

}  // namespace
