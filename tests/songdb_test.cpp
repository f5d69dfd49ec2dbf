// The song-length store: key hashing, the text format, tolerant loading,
// first-value-stands and concurrent use.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "plugin/songdb.h"

namespace {

// Each test starts from an empty map and a private database location.
class SongDb : public ::testing::Test {
protected:
    void SetUp() override {
        db_close();
        cache_val.clear();
        char tmpl[] = "/tmp/kelva-db-XXXXXX";
        dir_ = mkdtemp(tmpl);
        const char *xdg = getenv("XDG_DATA_HOME");
        const char *home = getenv("HOME");
        saved_xdg_ = xdg ? std::optional<std::string>(xdg) : std::nullopt;
        saved_home_ = home ? std::optional<std::string>(home) : std::nullopt;
        setenv("XDG_DATA_HOME", dir_.c_str(), 1);
    }
    void TearDown() override {
        db_close();
        cache_val.clear();
        restore("XDG_DATA_HOME", saved_xdg_);
        restore("HOME", saved_home_);
        std::string cmd = "rm -rf '" + dir_ + "'";
        (void)system(cmd.c_str());
    }
    static void restore(const char *name, const std::optional<std::string> &v) {
        if (v)
            setenv(name, v->c_str(), 1);
        else
            unsetenv(name);
    }
    std::string db_path() const { return dir_ + "/kelva/songlengths.db"; }
    std::string read_db() const {
        std::ifstream f(db_path());
        std::stringstream ss;
        ss << f.rdbuf();
        return ss.str();
    }
    // Writes a database of the current version holding `text`.
    void write_db(const std::string &text, const std::string &header = kDbHeader) const {
        (void)system(("mkdir -p '" + dir_ + "/kelva'").c_str());
        std::ofstream f(db_path(), std::ios::binary);
        if (!header.empty()) f << header << "\n";
        f << text;
    }

    std::string dir_;
    std::optional<std::string> saved_xdg_, saved_home_;
};

const uint8_t kModule[] = {'M', '.', 'K', '.', 1, 2, 3, 4};

}  // namespace

TEST_F(SongDb, KeysDependOnSeedAndPrintAs32HexDigits) {
    cache_key k0 = cache_make_key(kModule, sizeof kModule, 0);
    cache_key k1 = cache_make_key(kModule, sizeof kModule, 1);
    cache_key kc = cache_make_key(kModule, sizeof kModule, kSubsongCountSeed);
    EXPECT_FALSE(k0 == k1);
    EXPECT_FALSE(k0 == kc);
    EXPECT_FALSE(k1 == kc);
    EXPECT_TRUE(k0 == cache_make_key(kModule, sizeof kModule, 0));

    char hex[33];
    cache_key_hex(cache_key{0x0123456789abcdefULL, 0x42ULL}, hex);
    EXPECT_STREQ(hex, "0123456789abcdef0000000000000042");
}

TEST_F(SongDb, LoadsValidLinesAndSkipsBadOnes) {
    write_db(
        "00000000000000010000000000000002 183000 some tune.mod\n"
        "0000000000000001000000000000002 5 thirty-one digits\n"
        "0000000000000001000000000000000g 6 non-hex digit\n"
        "00000000000000010000000000000003 no number\n"
        "\x01\x02\xff garbage \n"
        "\n"
        "0000000000000001000000000000000A -1 upper-case hex is still hex\n");
    db_open();
    int32_t v = 0;
    ASSERT_TRUE(cache_lookup(cache_key{1, 2}, &v));
    EXPECT_EQ(v, 183000);
    ASSERT_TRUE(cache_lookup(cache_key{1, 10}, &v));
    EXPECT_EQ(v, -1);
    EXPECT_FALSE(cache_lookup(cache_key{1, 3}, &v));
    EXPECT_EQ(cache_val.size(), 2u);
}

TEST_F(SongDb, LaterLineWinsOnLoadButFirstStoreStands) {
    write_db(
        "00000000000000010000000000000002 100 a\n"
        "00000000000000010000000000000002 200 b\n");
    db_open();
    int32_t v = 0;
    ASSERT_TRUE(cache_lookup(cache_key{1, 2}, &v));
    EXPECT_EQ(v, 200);

    // A key already known is neither changed nor written again.
    EXPECT_FALSE(cache_store(cache_key{1, 2}, 300, "c"));
    ASSERT_TRUE(cache_lookup(cache_key{1, 2}, &v));
    EXPECT_EQ(v, 200);

    EXPECT_TRUE(cache_store(cache_key{7, 8}, 4242, "new.mod"));
    EXPECT_FALSE(cache_store(cache_key{7, 8}, 1, "new.mod"));
    std::string text = read_db();
    EXPECT_NE(text.find("00000000000000070000000000000008 4242 new.mod\n"), std::string::npos);
    EXPECT_EQ(text.find(" 1 new.mod"), std::string::npos);
}

TEST_F(SongDb, TornLastLineIsNotTrustedAndDoesNotSwallowTheNextRecord) {
    write_db(
        "00000000000000010000000000000002 183000 whole.mod\n"
        "00000000000000030000000000000004 18");   // crash in the middle of "183000 ..."
    db_open();
    int32_t v = 0;
    EXPECT_TRUE(cache_lookup(cache_key{1, 2}, &v));
    EXPECT_FALSE(cache_lookup(cache_key{3, 4}, &v));
    EXPECT_TRUE(cache_store(cache_key{5, 6}, 777, "next.mod"));
    db_close();

    // Reloading finds the new record on a line of its own.
    cache_val.clear();
    db_open();
    ASSERT_TRUE(cache_lookup(cache_key{5, 6}, &v));
    EXPECT_EQ(v, 777);
}

// A file written under other measurement rules (no version line, or another
// version) is not loaded: it is kept as songlengths.db.old and a new file
// starts with the version line.
TEST_F(SongDb, FileOfAnotherMeasurementVersionIsSetAside) {
    const std::string record = "00000000000000010000000000000002 12800 android-commando_hiscore.mod\n";
    for (const std::string header : {"", "# kelva song lengths, measurement version 1"}) {
        cache_val.clear();
        write_db(record, header);
        db_open();
        int32_t v = 0;
        EXPECT_FALSE(cache_lookup(cache_key{1, 2}, &v)) << "header '" << header << "'";
        EXPECT_EQ(read_db(), std::string(kDbHeader) + "\n");
        std::ifstream old(db_path() + ".old");
        std::stringstream ss;
        ss << old.rdbuf();
        EXPECT_EQ(ss.str(), header.empty() ? record : header + "\n" + record);
        db_close();
    }
    // The new file is of the current version: reopening loads its records.
    cache_val.clear();
    db_open();
    EXPECT_TRUE(cache_store(cache_key{3, 4}, 61439, "android-commando_hiscore.mod"));
    db_close();
    cache_val.clear();
    db_open();
    int32_t v = 0;
    ASSERT_TRUE(cache_lookup(cache_key{3, 4}, &v));
    EXPECT_EQ(v, 61439);
}

TEST_F(SongDb, CreatesTheDirectoryAndFallsBackToHome) {
    db_open();
    EXPECT_TRUE(cache_store(cache_key{9, 9}, 1000, "x.mod"));
    EXPECT_EQ(read_db(), std::string(kDbHeader) + "\n00000000000000090000000000000009 1000 x.mod\n");
    db_close();

    // An empty XDG_DATA_HOME counts as unset: HOME is used.
    setenv("XDG_DATA_HOME", "", 1);
    setenv("HOME", (dir_ + "/home").c_str(), 1);
    char dir[4096];
    db_dir(dir, sizeof dir);
    EXPECT_EQ(std::string(dir), dir_ + "/home/.local/share/kelva");
    setenv("HOME", "", 1);
    db_dir(dir, sizeof dir);
    EXPECT_STREQ(dir, "/.local/share/kelva");
    unsetenv("XDG_DATA_HOME");
    unsetenv("HOME");
    db_dir(dir, sizeof dir);
    EXPECT_STREQ(dir, "");
}

TEST_F(SongDb, ConcurrentStoresAndLookupsKeepOneLinePerKey) {
    db_open();
    constexpr int kThreads = 4, kKeys = 200;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; t++) {
        threads.emplace_back([t] {
            for (int i = 0; i < kKeys; i++) {
                cache_store(cache_key{uint64_t(i), 0}, i * 10 + t, "threaded.mod");
                int32_t v;
                cache_lookup(cache_key{uint64_t((i * 7) % kKeys), 0}, &v);
            }
        });
    }
    for (auto &th : threads) th.join();
    db_close();

    std::string text = read_db();
    int lines = 0;
    for (char c : text) lines += c == '\n';
    EXPECT_EQ(lines, 1 + kKeys);   // the version line and one line per key
    cache_val.clear();
    db_open();
    for (int i = 0; i < kKeys; i++) {
        int32_t v = -5;
        ASSERT_TRUE(cache_lookup(cache_key{uint64_t(i), 0}, &v));
        EXPECT_EQ(v / 10, i);   // whichever thread stored first, its value stands
    }
}
