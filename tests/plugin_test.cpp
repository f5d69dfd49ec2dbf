// The plugin's host-free parts: song-length store, titles, local host table and loader, scanner on test players.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "plugin/hostio.h"
#include "plugin/modinfo.h"
#include "plugin/scan.h"
#include "plugin/songdb.h"
#include "support/scan_state.h"
#include "support/services.h"
#include "support/temptree.h"
#include "support/test_support.h"

namespace {

constexpr int32_t kNone = INT32_MIN;
using V = std::vector<int32_t>;
int32_t look(uint64_t high, uint64_t low) {
    int32_t v = 0;
    return cache_lookup(cache_key{high, low}, &v) ? v : kNone;
}

// Each test starts from an empty map and a private database location.
struct SongDb : testing::Test {
    env_guard env;
    temp_dir dir;
    void SetUp() override {
        reopen(false);
        setenv("XDG_DATA_HOME", dir.path.c_str(), 1);
    }
    void TearDown() override { reopen(false); }
    static void reopen(bool open = true) {
        db_close();
        cache_val.clear();
        if (open) db_open();
    }
    std::string db() const { return dir / "kelva/songlengths.db"; }
    void write_db(const std::string &text, const std::string &header = kDbHeader) const {
        ASSERT_TRUE(write_file(db(), header.empty() ? text : header + "\n" + text));
    }
};

TEST_F(SongDb, LoadKeepsTheLaterOfTwoLinesAndSkipsBadOnesButTheFirstStoreStands) {
    const std::string text = "00000000000000010000000000000002 100 first.mod\n"
                             "00000000000000010000000000000002 183000 some tune.mod\n"
                             "0000000000000001000000000000002 5 thirty-one digits\n"
                             "0000000000000001000000000000000g 6 non-hex digit\n"
                             "00000000000000010000000000000003 no number\n"
                             "\x01\x02\xff garbage \n"
                             "\n" +
                             std::string(9000, 'x') + "\n"   // longer than a read: skipped piece by piece
                             "0000000000000001000000000000000A -1 upper-case hex is still hex\n";
    write_db(text);
    reopen();
    EXPECT_EQ((V{look(1, 2), look(1, 10), look(1, 3), int32_t(cache_val.size())}), (V{183000, -1, kNone, 2}));
    // A known key is neither changed nor written again.
    EXPECT_EQ((V{cache_store(cache_key{1, 2}, 300, "c"), look(1, 2), cache_store(cache_key{7, 8}, 4242, "new.mod"),
                 cache_store(cache_key{7, 8}, 1, "new.mod")}),
              (V{false, 183000, true, false}));
    EXPECT_EQ(read_file_text(db()), kDbHeader + ("\n" + text) + "00000000000000070000000000000008 4242 new.mod\n");
}

TEST_F(SongDb, TornLastLineIsNotTrustedAndDoesNotSwallowTheNextRecord) {
    write_db("00000000000000010000000000000002 183000 whole.mod\n"
             "00000000000000030000000000000004 18");   // crash in the middle of "183000 ..."
    reopen();
    EXPECT_EQ((V{look(1, 2), look(3, 4), cache_store(cache_key{5, 6}, 777, "next.mod")}), (V{183000, kNone, true}));
    reopen();   // the new record is on a line of its own
    EXPECT_EQ(look(5, 6), 777);
}

// A file written under other measurement rules (no version line, or another version) is not loaded: it is kept as
// songlengths.db.old and a new file starts with the version line.
TEST_F(SongDb, FileOfAnotherMeasurementVersionIsSetAside) {
    const std::string record = "00000000000000010000000000000002 12800 android-commando_hiscore.mod\n";
    for (const std::string header : {"", "# kelva song lengths, measurement version 1"}) {
        write_db(record, header);
        reopen();
        EXPECT_EQ(look(1, 2), kNone) << "header '" << header << "'";
        EXPECT_EQ(read_file_text(db()), std::string(kDbHeader) + "\n");
        EXPECT_EQ(read_file_text(db() + ".old"), header.empty() ? record : header + "\n" + record);
    }
    reopen();   // the new file is of the current version: its records load
    EXPECT_TRUE(cache_store(cache_key{3, 4}, 61439, "android-commando_hiscore.mod"));
    reopen();
    EXPECT_EQ(look(3, 4), 61439);
}

TEST_F(SongDb, CreatesTheDirectoryAndFallsBackToHome) {
    reopen();
    EXPECT_TRUE(cache_store(cache_key{9, 9}, 1000, "x.mod"));
    EXPECT_EQ(read_file_text(db()), std::string(kDbHeader) + "\n00000000000000090000000000000009 1000 x.mod\n");
    auto dir = [](uint32_t capacity) {
        char out[4096];
        db_dir(out, capacity);
        return std::string(out);
    };
    setenv("XDG_DATA_HOME", "", 1);   // empty counts as unset: HOME is used
    setenv("HOME", "/h/me", 1);
    // 24 bytes are one short of the whole: no directory rather than a cut one.
    EXPECT_EQ(dir(4096) + "|" + dir(24), "/h/me/.local/share/kelva|");
    setenv("HOME", "", 1);
    EXPECT_EQ(dir(4096), "/.local/share/kelva");
    unsetenv("HOME");
    unsetenv("XDG_DATA_HOME");
    EXPECT_EQ(dir(4096), "");
}

TEST_F(SongDb, ConcurrentStoresAndLookupsKeepOneLinePerKey) {
    reopen();
    constexpr int kThreads = 4, kKeys = 200;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; t++)
        threads.emplace_back([t] {
            for (int i = 0; i < kKeys; i++) {
                cache_store(cache_key{uint64_t(i), 0}, i * 10 + t, "threaded.mod");
                look(uint64_t((i * 7) % kKeys), 0);
            }
        });
    for (auto &th : threads) th.join();
    db_close();
    std::string text = read_file_text(db());
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1 + kKeys);   // the version line and one per key
    reopen();
    for (int i = 0; i < kKeys; i++) EXPECT_EQ(look(uint64_t(i), 0) / 10, i);   // the first store stands
}

TEST(ModuleText, LatinOneBecomesUtf8WithoutControlBytesOrPadding) {
    const std::pair<const char *, const char *> cases[] = {
        {"astral_trip", "astral_trip"}, {"  corpses in rain   ", "corpses in rain"},
        {"Caf\xe9 \xa0", "Caf\xc3\xa9"} /* e acute; a no-break space trimmed */, {"x\xb0", "x\xc2\xb0"},
        {"9", "9"}, {"z", "z"},
        {"\x01tit\x0dle\x7f\x9b!", "title!"} /* C0, DEL and C1 dropped */,
        // Nothing readable: garbage, so the caller falls back to the file name.
        {"", ""}, {"\x01\x02\x03\x04", ""}, {"   ---   ", ""}, {nullptr, ""}};
    for (auto [in, out] : cases) EXPECT_EQ(module_text_clean(in), out) << (in ? in : "(null)");
}

TEST(ModuleText, EntryTitleAndFormatLabel) {
    module_info info;
    info.count = 5;
    EXPECT_EQ(module_entry_title(info, "song.ahx", -1), "song.ahx");
    EXPECT_EQ(module_entry_title(info, "song.ahx", 2), "song.ahx (2/5)");
    info.title = "astral_trip";
    EXPECT_EQ(module_entry_title(info, "song.ahx", 5), "astral_trip (5/5)");
    info.count = 1;
    EXPECT_EQ(module_entry_title(info, "song.ahx", 0), "astral_trip");

    EXPECT_EQ(module_format_label(info, "/data/players/PTK-Prowiz"), "PTK-Prowiz");
    info.format = "ProTracker (31-instrument M.K.)";
    EXPECT_EQ(module_format_label(info, "/data/players/PTK-Prowiz"), "ProTracker (31-instrument M.K.), PTK-Prowiz");
}

// A real module started once: its title from its first 20 bytes, the player's flag, the count stored.
TEST(ModuleInfo, ARealModuleGivesItsTitleAndStoresItsCount) {
    KELVA_REQUIRE_SHARED("testdata/modules/debian/astraltr.mod");
    std::string player = std::string(KELVA_BUILD_DATA) + "/players/PTK-Prowiz";
    if (read_file_bytes(player).empty()) GTEST_SKIP() << "PTK-Prowiz not built (no m68k cross compiler?)";
    kelva_global_init();
    std::vector<uint8_t> mod = read_file_bytes(shared_dir() + "/testdata/modules/debian/astraltr.mod");
    db_close();
    cache_val.clear();
    module_info_forget();
    module_info info = module_info_get(player.c_str(), "astraltr.mod", mod.data(), uint32_t(mod.size()));
    EXPECT_TRUE(info.started && info.signals_end);
    EXPECT_EQ(info.title + "|" + info.author + "|" + std::to_string(info.count), "astral_trip||1");
    int32_t count = 0;
    EXPECT_TRUE(cache_lookup(cache_make_key(mod.data(), uint32_t(mod.size()), kSubsongCountSeed), &count) &&
                count == 1);
    cache_val.clear();
    module_info_forget();
}

TEST(HostIo, SubtuneSuffixIsTheNumberAfterTheLastQuestionMark) {
    const std::string longuri(5000, 'a'), cut(kNameCap - 1, 'a');
    const struct { std::string uri, base; int32_t sub; } cases[] = {
        {"file:///m/song.mod?2", "file:///m/song.mod", 2}, {"file:///a?b/song.mod?12", "file:///a?b/song.mod", 12},
        {"song.mod?0", "song.mod", 0}, {"?7", "", 7}, {"song.mod?99999999999999999999", "song.mod", INT32_MAX},
        {"song.mod?2147483647", "song.mod", INT32_MAX}, {longuri, cut, -1}, {longuri + "?3", cut, 3},
        {"song.mod", "song.mod", -1}, {"song.mod?", "song.mod?", -1}, {"song.mod?x", "song.mod?x", -1},
        {"song.mod?1a", "song.mod?1a", -1}, {"song.mod?-1", "song.mod?-1", -1}, {"song?1.mod", "song?1.mod", -1},
        {"song.mod? 1", "song.mod? 1", -1}, {"", "", -1},
    };
    for (const auto &c : cases) {
        char out[kNameCap];
        memset(out, 'X', sizeof out);
        EXPECT_EQ(split_subtune(c.uri.c_str(), out), c.sub) << c.uri.substr(0, 40);
        EXPECT_EQ(std::string(out), c.base) << c.uri.substr(0, 40);
    }
}

// Local names become "file://" URIs with every byte but A-Z a-z 0-9 / - . _ ~ as %XX, and back.
TEST(HostIo, LocalNamesAndUris) {
    host_ops h = host_ops_local();
    char out[kNameCap];
    // The result, or "-" when the call refuses.
    auto to_uri = [&](const char *n, size_t cap = kNameCap) {
        return std::string(h.name_to_uri(n, out, cap) ? out : "-");
    };
    auto to_name = [&](const char *uri) { return std::string(h.uri_to_name(uri, out, sizeof out) ? out : "-"); };
    const std::pair<const char *, const char *> names[] = {
        {"/m/AZaz09-._~/x", "file:///m/AZaz09-._~/x"}, {"/a b%", "file:///a%20b%25"},
        {"/@[`{:+", "file:///%40%5B%60%7B%3A%2B"}, {"/\xC3\xA9\x01", "file:///%C3%A9%01"}};
    for (auto [name, uri] : names) EXPECT_EQ(to_uri(name) + " " + to_name(uri), std::string(uri) + " " + name);
    for (const char *bad : {"file:///a%00b", "http://host/x", "file://host/x", "mem://x"}) EXPECT_EQ(to_name(bad), "-");
    EXPECT_EQ(to_uri("relative") + to_uri("/abc", 8), "--");   // not absolute; does not fit
    EXPECT_EQ(to_name("file:///%zz%4"), "/%zz%4");   // not an escape: kept
    // A folder's entries are URIs of their own, with or without the folder's final slash.
    temp_dir dir;
    ASSERT_TRUE(write_file(dir / "a b", "x"));
    for (std::string folder : {"file://" + dir.path, "file://" + dir.path + "/"}) {
        std::vector<std::string> entries;
        ASSERT_TRUE(h.list_folder(folder.c_str(), &entries)) << folder;
        EXPECT_EQ(entries, std::vector<std::string>{"file://" + dir.path + "/a%20b"}) << folder;
    }
    // A module's URI and subtune suffix become a local file name.
    host = host_ops_local();
    char base[kNameCap], name[kNameCap];
    EXPECT_EQ(module_name_of("file:///music/My%20Song.mod?3", base, name), 3);
    EXPECT_EQ(std::string(base) + "|" + name, "file:///music/My%20Song.mod|/music/My Song.mod");
    EXPECT_EQ(module_name_of("/music/plain.mod", base, name), -1);   // not a file URI: its own name
    EXPECT_STREQ(name, "/music/plain.mod");
    EXPECT_EQ(module_name_of("http://host/x.mod?1", base, name), 1);
    EXPECT_STREQ(name, "http://host/x.mod");
}

TEST(HostIo, SlurpReadsWholeFilesAndRefusesEmptyOrMissingOnes) {
    temp_dir dir;
    std::string big(300000, '\0');
    for (size_t i = 0; i < big.size(); i++) big[i] = char(i * 7);
    ASSERT_TRUE(write_file(dir / "big.bin", big) && write_file(dir / "empty", ""));
    auto slurp = [](const std::string &p) {
        return loaded([&](uint8_t **d, uint32_t *l) {
            uint8_t *got = slurp_path(p.c_str(), l);
            return got && (*d = got);
        });
    };
    for (std::string p : {dir / "empty", dir / "missing", dir.path}) EXPECT_EQ(slurp(p), "-") << p;
    EXPECT_EQ(slurp(dir / "big.bin"), big);
    // Through the URI: -1 when nothing opens (no local file behind it, or missing), 0 when empty.
    std::vector<int> codes;
    auto read = [&](const std::string &uri) {
        return loaded([&](uint8_t **d, uint32_t *l) {
            return codes.emplace_back(host_ops_local().read_uri(uri.c_str(), d, l)) > 0;
        });
    };
    EXPECT_EQ((std::vector<std::string>{read("http://example.org/big.bin"), read("file://" + dir / "missing"),
                                        read("file://" + dir / "empty"), read("file://" + dir / "big.bin")}),
              (std::vector<std::string>{"-", "-", "-", big}));
    EXPECT_EQ(codes, (std::vector<int>{-1, -1, 0, 1}));
}

// A host whose folder listing is scripted: the first entry that matches in the host's order is read.
std::vector<std::string> fake_listing, fake_reads;
int fake_read(const char *uri, uint8_t **out, uint32_t *len) {
    fake_reads.push_back(uri);
    std::string u = uri;
    if (u.rfind("mem://box/", 0) != 0 || u == "mem://box/WANTED") return -1;
    std::string body = "from " + u.substr(10);
    *out = reinterpret_cast<uint8_t *>(strdup(body.c_str()));
    *len = uint32_t(body.size());
    return 1;
}
bool fake_list(const char *uri, std::vector<std::string> *out) {
    if (std::string(uri) != "mem://box/") return false;
    *out = fake_listing;
    return true;
}

struct VfsLoad : testing::Test {
    temp_dir dir;
    void SetUp() override { host = host_ops_local(); }
    void TearDown() override { host = host_ops_local(); }
    std::string load(const std::string &path) {
        return loaded([&](uint8_t **d, uint32_t *l) { return vfs_load(nullptr, path.c_str(), d, l); });
    }
};

TEST_F(VfsLoad, ExactNamesOtherLetterCaseAndFailures) {
    ASSERT_TRUE(write_file(dir / "Smp.Piano", "piano") && write_file(dir / "with space.bin", "spaced") &&
                write_file(dir / "empty", "") && write_file(dir / "other", "x"));
    const std::pair<std::string, const char *> cases[] = {
        {dir / "Smp.Piano", "piano"}, {"file://" + dir.path + "/Smp.Piano", "piano"},
        {dir / "with space.bin", "spaced"}, {dir / "SMP.PIANO", "piano"},
        {"file://" + dir.path + "/smp.piano", "piano"},
        {dir / "missing", "-"}, {dir / "empty", "-"} /* opens, but has nothing to give */, {dir / "EMPTY", "-"},
        {dir / "nofolder/other", "-"}, {"relative-name", "-"} /* not convertible to a URI */, {"mem://noslash", "-"}};
    for (const auto &[path, want] : cases) EXPECT_EQ(load(path), want) << path;
}

TEST_F(VfsLoad, FirstMatchInTheHostsOrderWins) {
    host.read_uri = fake_read;
    host.list_folder = fake_list;
    fake_reads.clear();
    fake_listing = {"mem://box/other", "mem://box/Wanted", "mem://box/wanted"};
    EXPECT_EQ(load("mem://box/WANTED"), "from Wanted");
    EXPECT_EQ(fake_reads, (std::vector<std::string>{"mem://box/WANTED", "mem://box/Wanted"}));
    fake_listing = {"mem://box/other", "mem://box/wantedx"};   // similar names are not matches
    EXPECT_EQ(load("mem://box/WANTED"), "-");
}

// The rescans the scanner asked for (scan_one runs on the test's thread).
std::vector<std::string> rescans;

struct Scanner : testing::Test {
    void SetUp() override { reset(); }
    void TearDown() override { scan_stop(), reset(); }
    static void reset() {
        scan_reset_state();   // no worker runs here
        db_close();
        cache_val.clear();
        clear_read_log();
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
}

TEST_F(Scanner, StopWakesAnIdleWorkerAndDropsTheQueue) {
    scan_start();
    scan_stop();   // an idle worker waits on the condition variable; this must not hang
    EXPECT_FALSE(scan_thread.joinable());
    scan_enqueue("mem://x.mod");   // queued while no worker runs, then dropped by the stop, but seen
    scan_stop();
    host.read_uri = counting_read;   // a new start after a stop works again
    scan_start();
    scan_enqueue("mem://x.mod");
    scan_enqueue("mem://y.mod");
    ASSERT_TRUE(wait_until([] { return reads_of("mem://y.mod") == 1; }));
    EXPECT_EQ(reads_of("mem://x.mod"), 0);
}

// Scans of real test players through a data tree found by KELVA_DATA.

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
        host.rescan = [](const char *uri) { rescans.push_back(uri); };
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
    // The module's records: "count N" or "no count", then each subtune 0 to 6 with a length (":-1" when it failed).
    static std::string held(const std::string &c) {
        auto count = stored(c, kSubsongCountSeed);
        std::string s = count ? "count " + std::to_string(*count) : "no count";
        for (int t = 0; t <= 6; t++)
            if (auto v = stored(c, t)) s += " " + std::to_string(t) + (*v > 0 ? "" : ":" + std::to_string(*v));
        return s;
    }
    std::string uri(const std::string &rel) const { return "file://" + dir.path + "/" + rel; }
};

#define REQUIRE_PLAYER(name) \
    if (player(name).empty()) GTEST_SKIP() << "test player " << name << " not built (needs the m68k toolchain)"

TEST_F(ScanTree, ModulesGetTheirCountAndEveryLength) {
    REQUIRE_PLAYER("Subsong");
    // A multi-song file is measured from 1; a subtune suffix measures only that subtune, and "?0" is subtune 0, not
    // the whole file.
    EXPECT_EQ(held(scan("song.subs", "five tunes in one file")), "count 5 1 2 3 4 5");
    EXPECT_EQ(rescans, std::vector<std::string>{uri("song.subs")});
    EXPECT_EQ(held(scan("pick.subs", "pick one", "?3")), "no count 3");
    EXPECT_EQ(rescans.back(), uri("pick.subs") + "?3");
    EXPECT_EQ(held(scan("zero.subs", "the default one", "?0")), "no count 0");
    // A single song is measured as subtune 0.
    REQUIRE_PLAYER("Tone");
    std::string module = scan("steady.tone", "one steady tone");
    EXPECT_EQ(held(module), "count 1 0");
    EXPECT_LE(stored(module, 0), kScanMaxMs);
    // A count of two (here from the database) means subtunes 1 and 2.
    const std::string two = "a count of two";
    cache_store(key(two, kSubsongCountSeed), 2, "two.tone");
    EXPECT_EQ(held(scan("two.tone", two)), "count 2 1 2");
}

TEST_F(ScanTree, UnstartableModulesAreRememberedAndFilesWithoutPlayerOrContentsLeftAlone) {
    scan("nothing.xyz", "no line matches this name");
    scan("empty.tone", "");
    scan_one(uri("missing.tone").c_str());
    EXPECT_TRUE(cache_val.empty());
    EXPECT_TRUE(rescans.empty());

    std::string broken = scan("x.broken", "this player is not a program");
    EXPECT_EQ(held(broken), "count 1 0:-1");
    size_t records = cache_val.size();   // known now: a second scan stores nothing new
    scan_one(uri("x.broken").c_str());
    EXPECT_EQ(cache_val.size(), records);
    EXPECT_EQ(rescans.size(), 2u);
}

TEST_F(ScanTree, CancelledMeasurementStoresNothingAndAsksForNoRescan) {
    REQUIRE_PLAYER("Tone");
    const std::string module = "quit before measuring";
    // The count is known, so the scan goes straight to measuring, which sees the quit flag at its first poll.
    cache_store(key(module, kSubsongCountSeed), 1, "q.tone");
    scan_quit.exchange(true);
    EXPECT_EQ(held(scan("q.tone", module)), "count 1");
    // With the count unknown, starting the module finds and stores it; then the scan ends.
    EXPECT_EQ(held(scan("u.tone", "quit after counting")), "count 1");
    EXPECT_TRUE(rescans.empty());
}

}  // namespace

