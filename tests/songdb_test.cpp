// The song-length store: the text format, tolerant loading,
// first-value-stands and concurrent use.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <string>
#include <thread>
#include <vector>

#include "plugin/songdb.h"
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

}  // namespace

TEST_F(SongDb, LoadsValidLinesAndSkipsBadOnes) {
    write_db("00000000000000010000000000000002 183000 some tune.mod\n"
             "0000000000000001000000000000002 5 thirty-one digits\n"
             "0000000000000001000000000000000g 6 non-hex digit\n"
             "00000000000000010000000000000003 no number\n"
             "\x01\x02\xff garbage \n"
             "\n" +
             std::string(9000, 'x') + "\n"   // longer than a read: its pieces are skipped, the rest still loads
             "0000000000000001000000000000000A -1 upper-case hex is still hex\n");
    reopen();
    EXPECT_EQ((V{look(1, 2), look(1, 10), look(1, 3), int32_t(cache_val.size())}), (V{183000, -1, kNone, 2}));
}

TEST_F(SongDb, LaterLineWinsOnLoadButFirstStoreStands) {
    write_db("00000000000000010000000000000002 100 a\n"
             "00000000000000010000000000000002 200 b\n");
    reopen();
    EXPECT_EQ(look(1, 2), 200);
    // A known key is neither changed nor written again.
    EXPECT_EQ((V{cache_store(cache_key{1, 2}, 300, "c"), look(1, 2), cache_store(cache_key{7, 8}, 4242, "new.mod"),
                 cache_store(cache_key{7, 8}, 1, "new.mod")}),
              (V{false, 200, true, false}));
    EXPECT_EQ(read_file_text(db()), std::string(kDbHeader) + "\n00000000000000010000000000000002 100 a\n"
                                    "00000000000000010000000000000002 200 b\n"
                                    "00000000000000070000000000000008 4242 new.mod\n");
}

TEST_F(SongDb, TornLastLineIsNotTrustedAndDoesNotSwallowTheNextRecord) {
    write_db("00000000000000010000000000000002 183000 whole.mod\n"
             "00000000000000030000000000000004 18");   // crash in the middle of "183000 ..."
    reopen();
    EXPECT_EQ((V{look(1, 2), look(3, 4), cache_store(cache_key{5, 6}, 777, "next.mod")}), (V{183000, kNone, true}));
    reopen();   // the new record is on a line of its own
    EXPECT_EQ(look(5, 6), 777);
}

// A file written under other measurement rules (no version line, or another
// version) is not loaded: it is kept as songlengths.db.old and a new file
// starts with the version line.
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
    setenv("XDG_DATA_HOME", "", 1);   // empty counts as unset: HOME is used
    const std::pair<const char *, std::string> homes[] = {
        {"/h/me", "/h/me/.local/share/kelva"}, {"", "/.local/share/kelva"}, {nullptr, ""}};
    for (auto [home, want] : homes) {
        if (home) setenv("HOME", home, 1);
        else unsetenv("HOME"), unsetenv("XDG_DATA_HOME");
        char out[4096];
        db_dir(out, sizeof out);
        EXPECT_EQ(std::string(out), want) << (home ? home : "(unset)");
    }
    setenv("HOME", "/h/me", 1);
    char small[24];   // one short of "/h/me/.local/share/kelva": no directory rather than a cut one
    db_dir(small, sizeof small);
    EXPECT_STREQ(small, "");
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
