// The data tree: path helpers, the search order for kelva_data, the default
// file loader and the ENV:/ENVARC: mapping.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "engine/engine.h"
#include "selection/datatree.h"
#include "support/temptree.h"
#include "support/test_support.h"

namespace {

std::string data_path_str(const char *rel) {
    char out[4096];
    data_path(out, sizeof out, rel);
    return out;
}

// The tree beside the test program: <folder of the executable>/kelva_data.
std::string exe_tree() {
    std::error_code ec;
    auto exe = std::filesystem::read_symlink("/proc/self/exe", ec);
    if (ec) return "";
    return exe.parent_path().string() + "/kelva_data";
}

bool exists(const std::string &p) {
    std::error_code ec;
    return std::filesystem::exists(p, ec);
}

struct loaded {
    uint8_t *data = nullptr;
    uint32_t len = 0;
    ~loaded() { free(data); }
};

}   // namespace

TEST(PathJoin, JoinsWithinCapacityOnly) {
    char out[16];
    memset(out, 'x', sizeof out);
    ASSERT_EQ(path_join(out, 9, "abc", "defg"), 1);   // 3 + 1 + 4 + NUL = 9
    EXPECT_STREQ(out, "abc/defg");
    memset(out, 'x', sizeof out);
    EXPECT_EQ(path_join(out, 8, "abc", "defg"), 0);
    EXPECT_EQ(out[0], 'x');   // nothing written
    ASSERT_EQ(path_join(out, sizeof out, "dir/", "f"), 1);
    EXPECT_STREQ(out, "dir//f");   // no normalisation
    ASSERT_EQ(path_join(out, sizeof out, "", ""), 1);
    EXPECT_STREQ(out, "/");
    EXPECT_EQ(path_join(out, 0, "", ""), 0);
}

TEST(HostMatchPrefix, CaseInsensitiveAsciiOnly) {
    const char *p = "EnvArc:Sub/File";
    EXPECT_EQ(host_match_prefix(p, "envarc:"), p + 7);
    EXPECT_EQ(host_match_prefix(p, "ENVARC:"), p + 7);
    EXPECT_EQ(host_match_prefix(p, "env:"), nullptr);
    EXPECT_EQ(host_match_prefix(p, ""), p);
    EXPECT_EQ(host_match_prefix("en", "env:"), nullptr);   // shorter than the prefix
    // Only A-Z fold: "@" (0x40) and "`" (0x60) are different characters.
    EXPECT_EQ(host_match_prefix("@x", "`x"), nullptr);
    EXPECT_EQ(host_match_prefix("\xC4x", "\xE4x"), nullptr);
}

TEST(DataPath, KelvaDataWinsWithoutAnyCheck) {
    env_guard env;
    setenv("KELVA_DATA", "/nonexistent/tree", 1);
    EXPECT_EQ(data_path_str("players/X"), "/nonexistent/tree/players/X");
    // Overflow gives the empty string.
    char small[10];
    memset(small, 'x', sizeof small);
    data_path(small, sizeof small, "eagleplayer.conf");
    EXPECT_STREQ(small, "");
}

TEST(DataPath, UserTreeFromXdgThenHome) {
    env_guard env;
    if (exists(exe_tree() + "/eagleplayer.conf"))
        GTEST_SKIP() << "a data tree beside the test program shadows the per-user tree";
    temp_dir xdg, home;
    ASSERT_TRUE(write_file(xdg / "kelva_data/eagleplayer.conf", "# x\n"));
    ASSERT_TRUE(write_file(home / ".local/share/kelva_data/eagleplayer.conf", "# y\n"));
    setenv("KELVA_DATA", "", 1);   // empty counts as unset
    setenv("XDG_DATA_HOME", xdg.path.c_str(), 1);
    setenv("HOME", home.path.c_str(), 1);
    EXPECT_EQ(data_path_str("eagleplayer.conf"), xdg / "kelva_data/eagleplayer.conf");

    // XDG_DATA_HOME set but empty: HOME is used instead.
    setenv("XDG_DATA_HOME", "", 1);
    EXPECT_EQ(data_path_str("players/P"), home / ".local/share/kelva_data/players/P");
    unsetenv("XDG_DATA_HOME");
    EXPECT_EQ(data_path_str("players/P"), home / ".local/share/kelva_data/players/P");

    // XDG_DATA_HOME set (even without a tree in it) means HOME is not tried.
    temp_dir empty;
    setenv("XDG_DATA_HOME", empty.path.c_str(), 1);
    EXPECT_NE(data_path_str("x"), home / ".local/share/kelva_data/x");
    EXPECT_NE(data_path_str("x"), empty / "kelva_data/x");
}

// Both program-side cases in one test: the second creates the tree beside
// the program for a moment, which the first must not see.
TEST(DataPath, ProgramSideTreeFirstAndAsFallback) {
    env_guard env;
    std::string beside = exe_tree();
    if (beside.empty()) GTEST_SKIP() << "/proc/self/exe cannot be read here";
    if (exists(beside)) GTEST_SKIP() << beside << " already exists; not touching it";
    unsetenv("KELVA_DATA");
    unsetenv("XDG_DATA_HOME");
    setenv("HOME", "", 1);   // only the program-side candidate and the system folders remain
    bool installed = exists("/usr/local/share/kelva_data/eagleplayer.conf") ||
                     exists("/usr/share/kelva_data/eagleplayer.conf");
    if (!installed) {
        // No tree anywhere: the path beside the program is still produced.
        EXPECT_EQ(data_path_str("eagleplayer.conf"), beside + "/eagleplayer.conf");
        // A per-user tree installed now is found on the next call.
        temp_dir late;
        setenv("XDG_DATA_HOME", late.path.c_str(), 1);
        EXPECT_EQ(data_path_str("eagleplayer.conf"), beside + "/eagleplayer.conf");
        ASSERT_TRUE(write_file(late / "kelva_data/eagleplayer.conf", "\n"));
        EXPECT_EQ(data_path_str("eagleplayer.conf"), late / "kelva_data/eagleplayer.conf");
    }

    // The tree beside the program beats the per-user one.
    temp_dir xdg;
    ASSERT_TRUE(write_file(xdg / "kelva_data/eagleplayer.conf", "\n"));
    setenv("XDG_DATA_HOME", xdg.path.c_str(), 1);
    ASSERT_TRUE(write_file(beside + "/eagleplayer.conf", "\n"));
    std::string found = data_path_str("players/A");
    std::error_code ec;
    std::filesystem::remove_all(beside, ec);
    EXPECT_EQ(found, beside + "/players/A");
    EXPECT_EQ(data_path_str("players/A"), xdg / "kelva_data/players/A");
}

TEST(DefaultLoad, ReadsWholeFilesExactly) {
    temp_dir dir;
    std::string bytes("\x00\x01\x02hello\xFF", 9);
    ASSERT_TRUE(write_file(dir / "song.mod", bytes));
    loaded l;
    ASSERT_EQ(default_load(nullptr, (dir / "song.mod").c_str(), &l.data, &l.len), 1);
    ASSERT_EQ(l.len, 9u);
    EXPECT_EQ(memcmp(l.data, bytes.data(), 9), 0);
}

TEST(DefaultLoad, FindsNamesCaseInsensitively) {
    temp_dir dir;
    ASSERT_TRUE(write_file(dir / "sub/song.mod", "abc"));
    loaded l;
    ASSERT_EQ(default_load(nullptr, (dir / "sub/Song.MOD").c_str(), &l.data, &l.len), 1);
    EXPECT_EQ(l.len, 3u);
    // Only the last component is searched; folders must match exactly.
    loaded m;
    EXPECT_EQ(default_load(nullptr, (dir / "SUB/song.mod").c_str(), &m.data, &m.len), 0);
    // The whole length must match, not a prefix.
    EXPECT_EQ(default_load(nullptr, (dir / "sub/Song.MO").c_str(), &m.data, &m.len), 0);
    EXPECT_EQ(default_load(nullptr, (dir / "sub/Song.MODX").c_str(), &m.data, &m.len), 0);
}

TEST(DefaultLoad, NameWithoutFolderIsSoughtInTheCurrentFolder) {
    temp_dir dir;
    ASSERT_TRUE(write_file(dir / "Tune.Mod", "xyz!"));
    char old[4096];
    ASSERT_NE(getcwd(old, sizeof old), nullptr);
    ASSERT_EQ(chdir(dir.path.c_str()), 0);
    loaded l;
    int ok = default_load(nullptr, "tune.mod", &l.data, &l.len);
    ASSERT_EQ(chdir(old), 0);
    EXPECT_EQ(ok, 1);
    EXPECT_EQ(l.len, 4u);
}

TEST(DefaultLoad, RefusesEmptyMissingAndFolders) {
    temp_dir dir;
    ASSERT_TRUE(write_file(dir / "empty.bin", ""));
    uint8_t *data = reinterpret_cast<uint8_t *>(0x1234);
    uint32_t len = 77;
    EXPECT_EQ(default_load(nullptr, (dir / "empty.bin").c_str(), &data, &len), 0);
    EXPECT_EQ(default_load(nullptr, (dir / "missing").c_str(), &data, &len), 0);
    EXPECT_EQ(default_load(nullptr, dir.path.c_str(), &data, &len), 0);
    EXPECT_EQ(default_load(nullptr, "/kelva-no-such-file-in-root", &data, &len), 0);
    EXPECT_EQ(data, reinterpret_cast<uint8_t *>(0x1234));   // untouched on failure
    EXPECT_EQ(len, 77u);
}

TEST(DefaultLoad, OverlongPathsFailCleanly) {
    std::string longdir = "/tmp/" + std::string(3000, 'd');
    EXPECT_EQ(default_load(nullptr, (longdir + "/File").c_str(), nullptr, nullptr), 0);
    uint8_t *data = nullptr;
    uint32_t len = 0;
    EXPECT_EQ(default_load(nullptr, (longdir + "/File").c_str(), &data, &len), 0);
    EXPECT_EQ(default_load(nullptr, std::string(5000, 'n').c_str(), &data, &len), 0);
}

namespace {

struct recorded {
    std::string path;
    int calls = 0;
};

int recording_loader(void *user, const char *path, uint8_t **out, uint32_t *len) {
    auto *r = static_cast<recorded *>(user);
    r->path = path;
    ++r->calls;
    *out = static_cast<uint8_t *>(malloc(1));
    **out = 42;
    *len = 1;
    return 1;
}

}   // namespace

TEST(HostLoadFile, EnvironmentVolumesMapIntoPlayersEnv) {
    env_guard env;
    setenv("KELVA_DATA", "/tree", 1);
    engine_ptr k = make_engine();
    recorded r;
    kelva_set_file_loader(k.get(), recording_loader, &r);
    loaded l;
    for (const char *p : {"env:Foo/Bar", "ENVARC:Foo/Bar", "EnV:Foo/Bar"}) {
        free(l.data);
        l.data = nullptr;
        ASSERT_EQ(host_load_file(k.get(), p, &l.data, &l.len), 1) << p;
        EXPECT_EQ(r.path, "/tree/players/ENV/Foo/Bar") << p;
    }
    free(l.data);
    l.data = nullptr;
    ASSERT_EQ(host_load_file(k.get(), "env:", &l.data, &l.len), 1);
    EXPECT_EQ(r.path, "/tree/players/ENV/");
    // Everything else reaches the loader unchanged.
    free(l.data);
    l.data = nullptr;
    ASSERT_EQ(host_load_file(k.get(), "DH0:music/Song.mod", &l.data, &l.len), 1);
    EXPECT_EQ(r.path, "DH0:music/Song.mod");
    EXPECT_EQ(r.calls, 5);
    // A name too long for the fixed buffers is refused before the loader.
    std::string huge = "ENV:" + std::string(2000, 'z');
    EXPECT_EQ(host_load_file(k.get(), huge.c_str(), &l.data, &l.len), 0);
    EXPECT_EQ(r.calls, 5);
}

TEST(HostLoadFile, DefaultLoaderReadsTheTree) {
    env_guard env;
    temp_dir tree;
    ASSERT_TRUE(write_file(tree / "players/ENV/Sub/Setting", "on"));
    setenv("KELVA_DATA", tree.path.c_str(), 1);
    engine_ptr k = make_engine();
    kelva_set_file_loader(k.get(), nullptr, nullptr);
    loaded l;
    ASSERT_EQ(host_load_file(k.get(), "ENVARC:sub/setting", &l.data, &l.len), 0);   // folders match exactly
    ASSERT_EQ(host_load_file(k.get(), "ENVARC:Sub/setting", &l.data, &l.len), 1);
    ASSERT_EQ(l.len, 2u);
    EXPECT_EQ(memcmp(l.data, "on", 2), 0);
    loaded d;
    EXPECT_EQ(host_load_file(k.get(), "env:", &d.data, &d.len), 0);   // the folder itself
}
