// The data tree: the search order for kelva_data, the default
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

// data_path into a buffer of `capacity` bytes ("" when the path does not fit).
std::string data_path_str(const char *rel, uint32_t capacity = 4095) {
    char out[4096];
    memset(out, 'x', sizeof out);
    out[capacity] = '\0';
    data_path(out, capacity, rel);
    return out;
}

// The tree beside the test program: <folder of the executable>/kelva_data.
std::string exe_tree() {
    std::error_code ec;
    auto exe = std::filesystem::read_symlink("/proc/self/exe", ec);
    return ec ? "" : exe.parent_path().string() + "/kelva_data";
}

bool exists(const std::string &p) {
    std::error_code ec;
    return std::filesystem::exists(p, ec);
}

// What a loader call gave: the bytes, or "-" when it failed.
template <class F>
std::string loaded(F load) {
    uint8_t *data = nullptr;
    uint32_t len = 0;
    if (!load(&data, &len)) return "-";
    std::string s(reinterpret_cast<char *>(data), len);
    free(data);
    return s;
}
std::string dload(const std::string &path) {
    return loaded([&](uint8_t **d, uint32_t *l) { return default_load(nullptr, path.c_str(), d, l); });
}

}   // namespace

TEST(DataTree, KelvaDataWinsWithoutAnyCheckAndOverflowGivesEmpty) {
    env_guard env;
    setenv("KELVA_DATA", "/nonexistent/tree", 1);
    EXPECT_EQ(data_path_str("players/X"), "/nonexistent/tree/players/X");
    EXPECT_EQ(data_path_str("eagleplayer.conf", 10), "");
}

TEST(DataTree, UserTreeFromXdgThenHome) {
    env_guard env;
    if (exists(exe_tree() + "/eagleplayer.conf"))
        GTEST_SKIP() << "a data tree beside the test program shadows the per-user tree";
    temp_dir xdg, home, empty;
    ASSERT_TRUE(write_file(xdg / "kelva_data/eagleplayer.conf", "# x\n"));
    ASSERT_TRUE(write_file(home / ".local/share/kelva_data/eagleplayer.conf", "# y\n"));
    setenv("KELVA_DATA", "", 1);   // empty counts as unset
    setenv("XDG_DATA_HOME", xdg.path.c_str(), 1);
    setenv("HOME", home.path.c_str(), 1);
    EXPECT_EQ(data_path_str("eagleplayer.conf"), xdg / "kelva_data/eagleplayer.conf");
    setenv("XDG_DATA_HOME", "", 1);   // set but empty: HOME instead
    EXPECT_EQ(data_path_str("players/P"), home / ".local/share/kelva_data/players/P");
    unsetenv("XDG_DATA_HOME");
    EXPECT_EQ(data_path_str("players/P"), home / ".local/share/kelva_data/players/P");
    EXPECT_EQ(data_path_str("players/P", 10), "");
    // XDG_DATA_HOME set (even without a tree in it) means HOME is not tried.
    setenv("XDG_DATA_HOME", empty.path.c_str(), 1);
    EXPECT_NE(data_path_str("x"), home / ".local/share/kelva_data/x");
    EXPECT_NE(data_path_str("x"), empty / "kelva_data/x");
    // Neither set (a daemon's environment): no per-user tree.
    unsetenv("XDG_DATA_HOME");
    unsetenv("HOME");
    EXPECT_NE(data_path_str("players/P"), home / ".local/share/kelva_data/players/P");
}

// Both program-side cases in one test: the second creates the tree beside
// the program for a moment, which the first must not see.
TEST(DataTree, ProgramSideTreeFirstAndAsFallback) {
    env_guard env;
    std::string beside = exe_tree();
    if (beside.empty()) GTEST_SKIP() << "/proc/self/exe cannot be read here";
    if (exists(beside)) GTEST_SKIP() << beside << " already exists; not touching it";
    unsetenv("KELVA_DATA");
    unsetenv("XDG_DATA_HOME");
    setenv("HOME", "", 1);   // only the program-side candidate and the system folders remain
    if (!exists("/usr/local/share/kelva_data/eagleplayer.conf") && !exists("/usr/share/kelva_data/eagleplayer.conf")) {
        // No tree anywhere: the path beside the program is still produced, and
        // a per-user tree installed now is found on the next call.
        EXPECT_EQ(data_path_str("eagleplayer.conf"), beside + "/eagleplayer.conf");
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

TEST(DataTree, DefaultLoaderReadsWholeFilesFindingNamesCaseInsensitively) {
    temp_dir dir;
    std::string bytes("\x00\x01\x02hello\xFF", 9);
    ASSERT_TRUE(write_file(dir / "sub/song.mod", bytes));
    ASSERT_TRUE(write_file(dir / "Tune.Mod", "xyz!"));
    ASSERT_TRUE(write_file(dir / "empty.bin", "") && write_file(dir / "Z.bin", "1"));
    EXPECT_EQ(dload(dir / "sub/song.mod"), bytes);
    EXPECT_EQ(dload(dir / "sub/Song.MOD"), bytes);
    EXPECT_EQ(dload(dir / "z.bin"), "1");   // one byte is a file; Z folds too
    EXPECT_EQ(dload(dir / "SUB/song.mod"), "-");   // only the last component is sought; folders match exactly
    EXPECT_EQ(dload(dir / "sub/Song.MO"), "-");    // the whole length must match
    EXPECT_EQ(dload(dir / "sub/Song.MODX"), "-");
    for (std::string refused : {dir / "empty.bin", dir / "missing", dir.path, std::string("/kelva-no-such-file"),
                                "/tmp/" + std::string(3000, 'd') + "/File", std::string(5000, 'n')})
        EXPECT_EQ(dload(refused), "-") << refused.substr(0, 80);
    uint8_t *data = reinterpret_cast<uint8_t *>(0x1234);
    uint32_t len = 77;
    EXPECT_EQ(default_load(nullptr, (dir / "missing").c_str(), &data, &len), 0);
    EXPECT_EQ(data, reinterpret_cast<uint8_t *>(0x1234));   // untouched on failure
    EXPECT_EQ(len, 77u);
    EXPECT_EQ(default_load(nullptr, (dir / "sub/song.mod").c_str(), nullptr, nullptr), 0);

    // A name without a folder is sought in the current folder.
    char old[4096];
    ASSERT_NE(getcwd(old, sizeof old), nullptr);
    ASSERT_EQ(chdir(dir.path.c_str()), 0);
    std::string here = dload("tune.mod");
    ASSERT_EQ(chdir(old), 0);
    EXPECT_EQ(here, "xyz!");
}

TEST(DataTree, EnvironmentVolumesMapIntoPlayersEnv) {
    env_guard env;
    setenv("KELVA_DATA", "/tree", 1);
    engine_ptr k = make_engine();
    memory_files mem;
    mem.files["/tree/players/ENV/Foo/Bar"] = {42};
    mem.files["/tree/players/ENV/"] = {43};
    mem.files["DH0:music/Song.mod"] = {44};
    kelva_set_file_loader(k.get(), memory_loader, &mem);
    auto hload = [&](const std::string &p) {
        return loaded([&](uint8_t **d, uint32_t *l) { return host_load_file(k.get(), p.c_str(), d, l); });
    };
    for (const char *p : {"env:Foo/Bar", "ENVARC:Foo/Bar", "EnV:Foo/Bar"}) EXPECT_EQ(hload(p), "\x2A") << p;
    EXPECT_EQ(hload("env:"), "\x2B");
    EXPECT_EQ(hload("DH0:music/Song.mod"), "\x2C");   // everything else reaches the loader unchanged
    EXPECT_EQ(mem.requests.size(), 5u);
    EXPECT_EQ(hload("ENV:" + std::string(2000, 'z')), "-");   // too long for the fixed buffers: refused first
    EXPECT_EQ(mem.requests.size(), 5u);

    // The default loader reads the tree; folders match exactly.
    temp_dir tree;
    ASSERT_TRUE(write_file(tree / "players/ENV/Sub/Setting", "on"));
    setenv("KELVA_DATA", tree.path.c_str(), 1);
    kelva_set_file_loader(k.get(), nullptr, nullptr);
    EXPECT_EQ(hload("ENVARC:sub/setting"), "-");
    EXPECT_EQ(hload("ENVARC:Sub/setting"), "on");
    EXPECT_EQ(hload("env:"), "-");   // the folder itself
}
