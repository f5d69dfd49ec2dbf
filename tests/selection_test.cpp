// Choosing the player: data tree and loaders, eagleplayer.conf, the ProTracker-family classification, the ".mod",
// ".st" and TFMX corrections, option lookup and refinement, the name getters and the bundled configuration.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "engine/engine.h"
#include "selection/classify.h"
#include "selection/datatree.h"
#include "selection/epconf.h"
#include "support/services.h"
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

std::string dload(const std::string &path) {
    return loaded([&](uint8_t **d, uint32_t *l) { return default_load(nullptr, path.c_str(), d, l); });
}

TEST(DataTree, KelvaDataThenTheUserTreeFromXdgThenHome) {
    env_guard env;
    setenv("KELVA_DATA", "/nonexistent/tree", 1);   // taken without any check
    EXPECT_EQ(data_path_str("players/X"), "/nonexistent/tree/players/X");
    EXPECT_EQ(data_path_str("eagleplayer.conf", 10), "");   // does not fit
    if (std::filesystem::exists(exe_tree() + "/eagleplayer.conf"))
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

// One test, as the second case creates the tree beside the program for a moment, which the first must not see.
TEST(DataTree, ProgramSideTreeFirstAndAsFallback) {
    env_guard env;
    std::string beside = exe_tree();
    if (beside.empty()) GTEST_SKIP() << "/proc/self/exe cannot be read here";
    if (std::filesystem::exists(beside)) GTEST_SKIP() << beside << " already exists; not touching it";
    unsetenv("KELVA_DATA");
    unsetenv("XDG_DATA_HOME");
    setenv("HOME", "", 1);   // only the program-side candidate and the system folders remain
    if (!std::filesystem::exists("/usr/local/share/kelva_data/eagleplayer.conf") &&
        !std::filesystem::exists("/usr/share/kelva_data/eagleplayer.conf")) {
        // No tree anywhere: the path beside the program is given; a per-user tree installed now is found next call.
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
    EXPECT_EQ(default_load(nullptr, (dir / "sub/song.mod").c_str(), nullptr, nullptr), 0);

    // A name without a folder is sought in the current folder.
    auto old = std::filesystem::current_path();
    std::filesystem::current_path(dir.path);
    std::string here = dload("tune.mod");
    std::filesystem::current_path(old);
    EXPECT_EQ(here, "xyz!");
}

TEST(DataTree, EnvironmentVolumesMapIntoPlayersEnv) {
    env_guard env;
    setenv("KELVA_DATA", "/tree", 1);
    engine_ptr k = make_engine();
    memory_files mem{{{"/tree/players/ENV/Foo/Bar", {42}}, {"/tree/players/ENV/", {43}}, {"DH0:music/Song.mod", {44}}},
                     {}};
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

int cls(const std::vector<uint8_t> &d) { return mod31_classify(d.data(), uint32_t(d.size())); }

// An "M.K." module with sample 0 a ProTracker-style unlooped sample (repeat length 1) and every other header as
// ProTracker writes empty ones (length 0, repeat length 1): P1 = 1, P0 = 0, Z1 = 30, Z0 = 0. The order list names
// pattern 1, so pattern 0 (below the highest entry) is examined.
mb mk(uint8_t restart, uint8_t song_length = 1) {
    mb m("M.K.", 2);
    m.song(song_length, restart).order(1, 1).sample(0, smp(100, 64, 0, 1)).samples(1, 31, smp(0, 0, 0, 1));
    return m;
}
mb tagged(const char *tag) { return mb(tag, 0); }
// Empty headers with repeat length 0 (Z0 = 30, Z1 = 0).
mb mk_z0(uint8_t restart, uint8_t song_length = 1) { return mk(restart, song_length).samples(1, 31, smp(0)); }
// A finetuned sample: with restart 0 the M.K. analysis gives 7.
mb mk_ft() { return mk(0).sample(3, smp(8, 0, 0, 0, 1)); }

TEST(ModTag, AcceptsExactlyTheThirtyOneInstrumentTags) {
    auto is31 = [](const char *tag, uint32_t size = 1084) { return mod_tag_is_31(tagged(tag).bytes().data(), size); };
    for (const char *tag : {"M.K.", "M!K!", "M&K!", "N.T.", "FLT4", "FLT8", "FA04", "FA08", "EXO4", "EXO8", "CD81",
                            "OCTA", "OKTA", "6CHN", "8CHN", "16CH", "32CH", "xCHN", "xxCH", "TDZ1", "TDZ9"})
        EXPECT_TRUE(is31(tag) && !is31(tag, 1083)) << tag;
    for (const char *tag : {"M.K ", "m.k.", "FLT5", "FLT2", "EXO5", "CD82", "CHN ", "OKT ", "xCH.", ".M.K", "TDZ0",
                            "TDZ:", "\0\0\0\0"})
        EXPECT_FALSE(is31(tag)) << tag;
    EXPECT_FALSE(mod_tag_is_31(nullptr, 0));
    EXPECT_EQ(mod31_classify(tagged("M&K!").bytes().data(), 1083), MOD31_PROTRACKER);
}

TEST(ModClassify, DecisionRules) {
    struct { const char *what; mb m; int kind; } cases[] = {
        // Tags decide without further analysis.
        {"M&K!", tagged("M&K!"), MOD31_MK_NOISE}, {"8CHN", tagged("8CHN"), MOD31_COMP},
        {"16CH", tagged("16CH"), MOD31_COMP}, {"TDZ3", tagged("TDZ3"), MOD31_COMP},
        {"N.T.", tagged("N.T."), MOD31_NT20},
        {"FLT8", tagged("FLT8"), MOD31_PROTRACKER}, {"EXO8", tagged("EXO8"), MOD31_PROTRACKER},
        {"OCTA", tagged("OCTA"), MOD31_PROTRACKER}, {"M!K!", tagged("M!K!"), MOD31_PROTRACKER},
        {"FA04", tagged("FA04"), MOD31_PROTRACKER}, {"CD81", tagged("CD81"), MOD31_PROTRACKER},
        // Startrekker: an empty sample with a volume among the first 30 headers marks sample data.
        {"FLT4", tagged("FLT4").sample(0, smp(10, 64)), MOD31_FLT4},
        {"FLT4 marked", tagged("FLT4").sample(0, smp(10, 64)).sample(29, smp(0, 64)), MOD31_SCULPTURE},
        {"EXO4", tagged("EXO4").sample(0, smp(10, 64)), MOD31_FLT4},
        {"EXO4 marked", tagged("EXO4").sample(29, smp(0, 64)), MOD31_SCULPTURE},
        {"FLT4, 31st header", tagged("FLT4").sample(30, smp(0, 64)), MOD31_FLT4},
        // ".M.K" is analysed like "M.K.".
        {"finetune, restart 0", mk_ft(), MOD31_COMP}, {".M.K", mk_ft().tag(".M.K"), MOD31_COMP},
        {"M.K!", mk_ft().tag("M.K!"), MOD31_PROTRACKER},
        // Implausible headers or order lists give 0.
        {"volume 65", mk_ft().sample(5, smp(8, 65, 0, 1)), MOD31_PROTRACKER},
        {"finetune 16", mk_ft().sample(5, smp(8, 0, 0, 1, 16)), MOD31_PROTRACKER},
        {"volume 64, finetune 15", mk_ft().sample(5, smp(8, 64, 0, 1, 15)), MOD31_COMP},
        {"order 101", mk_ft().order(5, 101), MOD31_PROTRACKER}, {"order 100", mk_ft().order(5, 100), MOD31_COMP},
        {"order 101 at position 0", mk_ft().order(0, 101), MOD31_PROTRACKER},
        // A loop past the sample's end if counted in words: repeat start in bytes.
        {"loop past the end", mk(127).sample(7, smp(100, 64, 150, 10)), MOD31_ST24},
        {"loop to the end", mk(127).sample(7, smp(100, 64, 90, 10)), MOD31_PROTRACKER},
        {"bytes rule first", mk(127).sample(7, smp(100, 64, 150, 10)).sample(8, smp(8, 99)), MOD31_ST24},
        // E1x-EFx or finetune: 0 for restart 127 or 120, else 7.
        {"E1x, restart 0", mk(0, 2).cell(0, 10, 2, 14, 0x13), MOD31_COMP},
        {"E1x, restart 5", mk(5, 2).cell(0, 10, 2, 14, 0x13), MOD31_COMP},
        {"E1x, restart 127", mk(127, 2).cell(0, 10, 2, 14, 0x13), MOD31_PROTRACKER},
        {"E1x, restart 120", mk(120, 2).cell(0, 10, 2, 14, 0x13), MOD31_PROTRACKER},
        {"finetune, restart 5", mk(5, 10).sample(2, smp(4, 0, 0, 1, 3)), MOD31_COMP},
        {"finetune, restart 120", mk(120, 10).sample(2, smp(4, 0, 0, 1, 3)), MOD31_PROTRACKER},
        // Only patterns below the highest order entry are tallied.
        {"E1x in pattern 1", mk(0, 2).cell(1, 0, 0, 14, 0x10), MOD31_NT20},
        {"E1x in pattern 0", mk(0, 2).cell(0, 0, 0, 14, 0x10), MOD31_COMP},
        {"E0x is not one of them", mk(0, 2).cell(0, 0, 0, 14, 0x01), MOD31_NT20},
        // Restart 127: P0 <= P1 and Z0 <= Z1 is plain ProTracker; Z0 > Z1 goes to the convention check; L < R leads on
        // to the NoiseTracker check, which fails on Z0 > Z1, and the tempo check gives 6, or 7 with F20 or more.
        {"R 127", mk(127), MOD31_PROTRACKER}, {"R 127, Z0 > Z1", mk_z0(127), MOD31_NT10},
        {"R 127, P0 = P1", mk(127).sample(5, smp(8)), MOD31_PROTRACKER},
        {"R 127, F7D", mk_z0(127).cell(0, 0, 0, 15, 0x7D), MOD31_COMP},
        {"R 127, F1F", mk_z0(127).cell(0, 0, 0, 15, 0x1F), MOD31_NT10},
        // Commands 5, 6, 7 and 9 (not 8) end the convention check.
        {"R 127, 5", mk_z0(127).cell(0, 3, 1, 5, 1), MOD31_COMP}, {"6", mk_z0(127).cell(0, 3, 1, 6, 1), MOD31_COMP},
        {"R 127, 7", mk_z0(127).cell(0, 3, 1, 7, 1), MOD31_COMP}, {"9", mk_z0(127).cell(0, 3, 1, 9, 1), MOD31_COMP},
        {"R 127, 8", mk_z0(127).cell(0, 3, 1, 8, 1), MOD31_NT10},
        // R = 127 with P0 > P1 falls to the R < 128 rule: NoiseTracker and tempo checks fail.
        {"R 127, P0 > P1", mk(127).sample(0, smp(100, 64)), MOD31_COMP},
        // Convention check with the restart inside the song: R = 1, L = 2, one Z0 sample.
        {"R 1, Z1 > 0", mk(1, 2).sample(1, smp(0)), MOD31_NT10},
        {"R 1, no Z1", mk(1, 2).sample(1, smp(0)).samples(2, 31, smp(0, 0, 2)), MOD31_NT10},
        {"R 1, no Z1, F20", mk(1, 2).sample(1, smp(0)).samples(2, 31, smp(0, 0, 2)).cell(0, 0, 0, 15, 0x20),
         MOD31_COMP},
        {"R 1, one Z1, F20",
         mk(1, 2).sample(1, smp(0)).samples(2, 31, smp(0, 0, 2)).sample(2, smp(0, 0, 0, 1)).cell(0, 0, 0, 15, 0x20),
         MOD31_NT10},
        {"L < R", mk(3, 2).sample(1, smp(0)), MOD31_NT20},
        {"two Z0", mk(1, 2).sample(1, smp(0)).sample(2, smp(0)), MOD31_NT20},
        // Restart 0.
        {"R 0", mk(0), MOD31_NT20}, {"R 0, Z0 > Z1", mk_z0(0), MOD31_NT10},
        {"R 0, P0 > P1, Z0 > Z1", mk_z0(0).sample(0, smp(100, 64)), MOD31_COMP},
        {"R 0, P0 > P1, Z0 > Z1, E01", mk_z0(0).sample(0, smp(100, 64)).cell(0, 0, 0, 14, 0x01), MOD31_COMP},
        {"R 128", mk(128), MOD31_COMP}, {"R 200", mk(200), MOD31_COMP}, {"R 255", mk(255), MOD31_COMP},
    };
    for (const auto &c : cases) EXPECT_EQ(cls(c.m.bytes()), c.kind) << c.what;
    // A pattern cut short by the end of the file is not read.
    auto d = mk(0, 2).cell(0, 0, 0, 14, 0x10).bytes();
    d.resize(1084 + 1023);
    EXPECT_EQ(cls(d), MOD31_NT20);
}

// A temporary data tree of a configuration and stub players; KELVA_DATA points at it while the record lives.
struct conf_tree {
    env_guard env;
    temp_dir dir;
    conf_tree(const std::string &conf, const std::vector<std::string> &players) {
        write_file(dir / "eagleplayer.conf", conf);
        for (const std::string &p : players) add_player(p);
        setenv("KELVA_DATA", dir.path.c_str(), 1);
    }
    void add_player(const std::string &name) { write_file(dir / ("players/" + name), "stub"); }
    void remove_player(const std::string &name) { std::filesystem::remove(dir / ("players/" + name)); }
    std::string player(const std::string &name) const { return dir / ("players/" + name); }
};

// The chosen player's name (last component of the path), or "" for none.
std::string identify(const std::string &name, const std::vector<uint8_t> &data = {}) {
    char out[4096] = "untouched";
    if (!kelva_identify(name.c_str(), data.data(), uint32_t(data.size()), out, sizeof out)) {
        EXPECT_STREQ(out, "untouched") << "the buffer is left alone on failure";
        return "";
    }
    std::string s(out);
    return s.substr(s.rfind('/') + 1);
}

// Each pair: a module name and the player it must get.
void expect_players(const std::vector<std::pair<std::string, std::string>> &cases) {
    for (const auto &[name, player] : cases) EXPECT_EQ(identify(name), player) << name.substr(0, 60);
}

TEST(EpconfIdentify, PrefixAndExtensionScoring) {
    conf_tree t("Mod prefixes=mod\nDat prefixes=dat\nShort prefixes=c\nLong prefixes=b.c\nUpper prefixes=XYZ\n"
                "Ext prefixes=abcdefgh\nPre prefixes=q\n",
                {"Mod", "Dat", "Short", "Long", "Upper", "Ext", "Pre"});
    expect_players({{"mod.song.dat", "Mod"} /* prefix 1003 beats extension 3 */, {"/music/Song.DAT", "Dat"},
                    {"file:///music/MOD.Intro", "Mod"}, {"x.mod", "Mod"}, {"mod.", ""} /* nothing beside the dot */,
                    {".mod", ""}, {"mod", ""}, {"dir.mod/song", ""} /* only the last component */,
                    {"a.b.c", "Long"}, {"a.c", "Short"}, {"Song.Xyz", "Upper"},
                    {"q.abcdefgh", "Pre"} /* any prefix match outranks any extension match */,
                    // The base name is cut at 511 bytes.
                    {std::string(507, 'a') + ".modx", "Mod"}, {std::string(506, 'a') + ".modxy", ""}});
    char out[4096];
    ASSERT_EQ(kelva_identify("x.mod", nullptr, 0, out, sizeof out), 1);
    EXPECT_EQ(std::string(out), t.player("Mod"));
    // Items of up to 62 bytes and player names of up to 255.
    std::string item62(62, 'e'), item63(63, 'f'), name255(255, 'N');
    conf_tree limits("Long prefixes=" + item62 + "," + item63 + "\n" + std::string(256, 'M') + " prefixes=toolong\n" +
                         name255 + " prefixes=okname\n",
                     {"Long", name255});
    expect_players({{"s." + item62, "Long"}, {"s." + item63, ""}, {"s.toolong", ""}, {"s.okname", name255}});
}

TEST(EpconfIdentify, TiesKeepTheEarlierLineAndMissingPlayersAreSkipped) {
    conf_tree t("First prefixes=mod\nSecond prefixes=mod\nThird prefixes=mod\n"
                "A prefixes= prefixes=abc\nB prefixes=xyz prefixes=abc\nC other=1 prefixes=,,abc, epopt=q\n",
                {"First", "Second", "Third", "A", "B", "C"});
    expect_players({{"a.mod", "First"}, {"s.abc", "C"}, {"s.xyz", "B"}});   // only the first prefixes= token counts
    t.remove_player("First");
    EXPECT_EQ(identify("a.mod"), "Second");
    t.remove_player("Second");
    t.remove_player("Third");
    EXPECT_EQ(identify("a.mod"), "");
}

TEST(EpconfIdentify, HostileConfigurationLines) {
    std::string conf = "# comment prefixes=abc\n\n Indented prefixes=abc\n\tTabbed prefixes=abc\nNoFields\n"
                       "Empty prefixes=\n#Hash prefixes=abc\nX#y prefixes=hsh\n";
    conf += std::string("Bin\0ary prefixes=abc\n", 21);
    conf += "\xFF\xFE\x01\x02 prefixes=\x80\x81,,\nCrlf prefixes=crl\r\n";
    conf += std::string(4095, 'x') + "Tail prefixes=tail\n";   // cut at 4095 bytes; the rest is a line of its own
    conf += "Vt\vprefixes=vt\nLast prefixes=last";              // a vertical tab ends the name; no final line feed
    conf_tree t(conf, {"Indented", "Tabbed", "NoFields", "Empty", "#Hash", "X#y", "Bin", "Crlf", "Tail", "Vt", "Last"});
    expect_players({{"s.abc", ""}, {"s.hsh", "X#y"}, {"s.crl", "Crlf"}, {"s.tail", "Tail"},
                    {"s.vt", ""} /* ... but does not split tokens */, {"s.last", "Last"}});
    temp_dir empty;   // no configuration: nothing found
    setenv("KELVA_DATA", empty.path.c_str(), 1);
    EXPECT_EQ(identify("a.mod"), "");
}

// A clean 15-instrument module: highest order m = 1 (so patterns 0 and 1 are stored and pattern 0 is examined), one
// unlooped sample, song length 2.
mb st15_module() { return mb(nullptr, 2).song(2, 120).order(1, 1).sample(0, smp(100, 64, 0, 0, 0, "bass")); }
mb st15_cell(uint8_t cmd, uint8_t param, uint32_t pattern = 0) { return st15_module().cell(pattern, 5, 1, cmd, param); }

// A plain ProTracker module: restart 127, every header with repeat length 1 (P0 = 0 <= P1, Z0 = 0 <= Z1): classified 0.
mb pt_module() { return mb("M.K.", 1).song(1, 127).samples(0, 31, smp(0, 0, 0, 1)); }

std::string st15(const std::vector<uint8_t> &d) {
    const char *p = st15_choose_player(d.data(), uint32_t(d.size()));
    return p ? p : "(classify)";
}

const char *const kUst = "UltimateSoundtracker", *const kSt4 = "Soundtracker-IV", *const kPtk = "PTK-Prowiz";

TEST(Fifteen, DecisionRulesInOrder) {
    ASSERT_EQ(st15_module().bytes().size(), 1624u + 1024u + 200u);
    struct { const char *what; mb m; const char *player; } cases[] = {
        {"clean loops", st15_module(), kUst},
        {"a note in the first cell, after the 128 orders", st15_module().w16(600, 0x0358), kUst},
        {"5", st15_cell(5, 0x11), kSt4}, {"6", st15_cell(6, 0x11), kSt4}, {"7", st15_cell(7, 0x11), kSt4},
        {"8", st15_cell(8, 0x11), kSt4}, {"9", st15_cell(9, 0x11), kSt4}, {"D00", st15_cell(13, 0x00), kPtk},
        {"D05", st15_cell(13, 0x05), kSt4}, {"C20", st15_cell(12, 0x20), kPtk}, {"F06", st15_cell(15, 0x06), kPtk},
        {"E01: filter", st15_cell(14, 0x01), kPtk}, {"other E commands", st15_cell(14, 0x12), kUst},
        {"1 30", st15_cell(1, 30), kPtk}, {"2 1", st15_cell(2, 1), kPtk},
        {"1 31", st15_cell(1, 31), kUst}, {"2 0: command 2 occurs", st15_cell(2, 0), kUst},
        {"command 2 before the loops", st15_cell(2, 0).sample(0, smp(100, 64, 150, 30)), kUst},
        {"pattern m is not examined", st15_cell(12, 0x20, 1), kUst},
        {"two arpeggios", st15_cell(0, 0x37).cell(0, 1, 0, 0, 0x47), kUst},
        {"three arpeggios", st15_cell(0, 0x37).cell(0, 1, 0, 0, 0x47).cell(0, 2, 0, 0, 0x12), kPtk},
        {"two arpeggios and C", st15_cell(0, 0x37).cell(0, 1, 0, 0, 0x47).cell(0, 9, 3, 12, 0x40), kPtk},
        // Repeat start in bytes: a loop past the sample's end.
        {"loop past the end", st15_module().sample(0, smp(100, 64, 150, 30)), kPtk},
        {"loop to the end", st15_module().sample(0, smp(100, 64, 140, 30)), kUst},
        {"silent empty sample looping to 64 KB", st15_module().sample(3, smp(0, 0, 65000, 268)), kPtk},
        {"silent empty sample looping below 64 KB", st15_module().sample(3, smp(0, 0, 65000, 267)), kUst},
        // Disk names count only with restart byte 120.
        {"disk name", st15_module().sample(2, smp(1, 0, 0, 0, 0, "st-01:drums")), kPtk},
        {"disk name, restart 0", st15_module().sample(2, smp(1, 0, 0, 0, 0, "st-01:drums")).song(2, 0), kUst},
        {"not a disk name", st15_module().sample(2, smp(1, 0, 0, 0, 0, "ST_01:drums")), kUst},
        // Implausible modules go to the 31-instrument check.
        {"order 64", mb(nullptr, 65).song(1, 120).order(0, 64), "(classify)"},
        {"order 63", mb(nullptr, 64).song(1, 120).order(0, 63), kUst},
        // The highest order counts as at least 1: an all-zero order list wants two patterns.
        {"one pattern", mb(nullptr, 1).song(1, 120).sample(0, smp(600, 64)), "(classify)"},
        {"finetune and volume 65", st15_module().sample(4, smp(1, 65, 0, 0, 1)), "(classify)"},
        {"volume 65 alone", st15_module().sample(4, smp(1, 65)), kUst},
    };
    for (const auto &c : cases) EXPECT_EQ(st15(c.m.bytes()), c.player) << c.what;
    auto d = st15_module().bytes();
    d.push_back(0);   // size no longer matches the formula
    EXPECT_EQ(st15(d), "(classify)");
}

TEST(ModCorrection, SizeTagAndHeaderRouting) {
    conf_tree t("Custom prefixes=mod,st\n", {kPtk, kUst, kSt4, "AudioSculpture", "Custom"});
    for (const char *name : {"a.mod", "a.st"})   // too short for any check
        EXPECT_EQ(identify(name, std::vector<uint8_t>(1000, 0)), "Custom") << name;
    auto clean = st15_module().bytes();
    EXPECT_EQ(identify("x/Song.MOD", clean), kUst);   // a clean 15-instrument module ...
    EXPECT_EQ(identify("Song.st", clean), "Custom");   // ... but only for names that end in .mod
    EXPECT_EQ(identify("mod.Song", clean), "Custom");
    // Song length 0 or above 128, or order byte 499 equal to 1: the 31-instrument check runs instead; no tag gives 0,
    // nothing proposed.
    for (auto [offset, value] : {std::pair{470, 0}, std::pair{470, 129}, std::pair{499, 1}, std::pair{470, 128}})
        EXPECT_EQ(identify("a.mod", st15_module().poke(offset, uint8_t(value)).bytes()), value == 128 ? kUst : "Custom")
            << offset << "=" << value;

    EXPECT_EQ(identify("a.mod", mb("M.K.", 1).bytes()), kPtk);   // restart 0, only Z0 samples: 6
    EXPECT_EQ(identify("a.mod", pt_module().bytes()), "Custom");           // result 0 proposes nothing
    mb flt("FLT4", 1);
    EXPECT_EQ(identify("a.mod", flt.bytes()), kPtk);
    EXPECT_EQ(identify("a.mod", flt.sample(4, smp(0, 10)).bytes()), "AudioSculpture");
    t.remove_player("AudioSculpture");   // proposals need their player file
    EXPECT_EQ(identify("a.mod", flt.bytes()), "Custom");
    auto small = mb("8CHN", 0).bytes();   // between 1084 and 2651 bytes: the 31-instrument check
    ASSERT_LT(small.size(), 2652u);
    EXPECT_EQ(identify("a.mod", small), kPtk);
    t.remove_player(kPtk);
    EXPECT_EQ(identify("a.mod", small), "Custom");

    conf_tree only_ptk("PTK-Prowiz prefixes=mod\n", {kPtk});
    EXPECT_EQ(identify("a.mod", clean), kPtk);
    only_ptk.add_player(kUst);
    EXPECT_EQ(identify("a.mod", clean), kUst);
}

// ".st" names Soundtracker modules and Images Music System ones: the IMS layout (sample data at the offset stored at
// 1080, 1084 + 768 x patterns, filling the file) goes to its own player, and only for names ending .st.
TEST(ModCorrection, ImagesMusicSystemLayoutLeavesTheSoundtrackerPlayers) {
    KELVA_REQUIRE_SHARED("testdata/modules/other");
    conf_tree t("PTK-Prowiz prefixes=mod,st epopt=type:pt30\nImagesMusicSystem prefixes=ims\n",
                {kPtk, "ImagesMusicSystem"});
    auto ims = read_file_bytes(shared_dir() + "/testdata/modules/other/redoctober-sub-docking.ims");
    ASSERT_FALSE(ims.empty());
    // The sample data the headers ask for: 2 x the lengths of the 31 samples (words at 42 + 30 i).
    uint32_t data_at = uint32_t(ims[1080]) << 24 | ims[1081] << 16 | ims[1082] << 8 | ims[1083], words = 0;
    for (int i = 0; i < 31; i++) words += uint32_t(ims[42 + 30 * i]) << 8 | ims[43 + 30 * i];
    auto edited = [&](uint32_t at, uint16_t value, size_t size) {   // the word at `at` set, the size changed
        auto d = ims;
        d[at] = uint8_t(value >> 8);
        d[at + 1] = uint8_t(value);
        d.resize(size);
        return d;
    };
    const size_t short_1k = data_at + 2 * words - 1024;   // sample data at most 1 KB short of the headers
    const size_t grown = data_at + 2 * (words - (ims[42] << 8 | ims[43]));   // without sample 0's data
    const std::pair<std::string, std::vector<uint8_t>> cases[] = {
        {"dir/Sub-Docking.ST", ims}, {"sub-docking.mod", ims}, {"st.sub-docking", ims},
        {"a.st", edited(1082, (ims[1082] << 8 | ims[1083]) ^ 4, ims.size())},   // offset not a whole number of patterns
        {"a.st", edited(951, ims[951] << 8 | 3, ims.size())},   // the song names a pattern the file does not store
        {"a.st", edited(950, ims[951], ims.size())},            // an empty song
        {"a.st", edited(0, ims[0] << 8 | ims[1], short_1k - 1)}, {"b.st", edited(0, ims[0] << 8 | ims[1], short_1k)},
        {"c.st", edited(42, 0x8000, grown + 0x10000)} /* 64 KB: the longest sample */,
        {"d.st", edited(42, 0x8001, grown + 0x10002)}};
    for (const auto &[name, d] : cases)
        EXPECT_EQ(identify(name, d), name == "dir/Sub-Docking.ST" || name == "b.st" || name == "c.st"
                                         ? "ImagesMusicSystem"
                                         : kPtk)
            << name << " " << d.size();
    // Real Soundtracker modules named .st stay with the Soundtracker players.
    for (const char *f : {"Crepequs.mod", "GAMEMUSIC.mod", "GBUSTERS.MOD", "cant.mod", "lepeltheme.mod"})
        EXPECT_EQ(identify("x.st", read_file_bytes(shared_dir() + "/testdata/modules/st15/" + f)), kPtk) << f;
    t.remove_player("ImagesMusicSystem");
    EXPECT_EQ(identify("a.st", ims), kPtk);
}

// A TFMX image edited in one expression; header text that is not one of the old markers.
struct tf {
    std::vector<uint8_t> d;
    tf(const char *magic, uint32_t size) : d(size, 0) {
        for (uint32_t i = 10; i < 40; ++i) d[i] = 'A';
        memcpy(d.data(), magic, strlen(magic));
    }
    tf &w16(uint32_t at, uint32_t v) { return d.at(at) = uint8_t(v >> 8), d.at(at + 1) = uint8_t(v), *this; }
    tf &be(uint32_t at, uint32_t v) { return w16(at, v >> 16).w16(at + 2, v); }
    tf &le(uint32_t at, uint32_t v) { return be(at, __builtin_bswap32(v)); }
    tf &text(uint32_t at, const char *s) { return memcpy(&d.at(at), s, strlen(s)), *this; }
    tf &mark7v(uint32_t at) { return w16(at, 0xEFFE).w16(at + 2, 0x0003); }
    tf &offsets(uint32_t steps, uint32_t patterns, uint32_t macros) {
        return be(464, steps).be(468, patterns).be(472, macros);
    }
    tf &cut(uint32_t size) { return d.resize(size), *this; }
    tf &byte(uint32_t at, uint8_t v) { return d.at(at) = v, *this; }
};
tf song(uint32_t size) { return tf("TFMX-SONG ", size); }
tf old() { return song(6000).text(10, "by"); }

TEST(Tfmx, ChoosesByMagicSevenVoiceMarkAndOldHeader) {
    const struct { tf t; const char *player; } cases[] = {
        {tf("TFHD", 600).byte(8, 1), "TFMX-TFHD"}, {tf("TFHD", 600).byte(8, 2), "TFMX-Pro-TFHD"},
        {tf("TFHD", 600).byte(8, 3), "TFMX-7V-TFHD"}, {tf("TFHD", 600), ""}, {tf("TFHD", 600).byte(8, 4), ""},
        {song(600), "TFMX-Pro"}, {tf("tfmx_SONG ", 600), "TFMX-Pro"}, {tf("TfMxSoNg", 600), "TFMX-Pro"},
        {tf("TFMX-song", 600), ""}, {tf("TFMX_SONGX", 600), ""}, {tf("TFMX!", 600), ""}, {tf("XFMX-SONG ", 600), ""},
        {song(519), ""},
        // All table offsets 0: the track steps start at 2048, marks on 16-byte steps.
        {song(4096).mark7v(2048 + 16 * 3), "TFMX-7V"}, {song(4096).mark7v(2048 + 16 * 3 + 2), "TFMX-Pro"},
        {song(4096).mark7v(1024), "TFMX-Pro"}, {song(4084).mark7v(4080), "TFMX-7V"} /* the last place four bytes fit */,
        // Offsets bound the search: [steps, nearest later table).
        {song(3000).offsets(1000, 1400, 1200).mark7v(1000 + 16 * 12), "TFMX-7V"},
        {song(3000).offsets(1000, 1400, 1200).mark7v(1200), "TFMX-Pro"},
        // Offsets stored little-endian (the big-endian reading runs off the end).
        {song(3000).le(464, 1000).le(468, 2000).le(472, 2500).mark7v(1000 + 16 * 40), "TFMX-7V"},
        {song(600).offsets(0xFFFFFFF0, 0xFFFFFFFF, 599), "TFMX-Pro"},   // pointing nowhere: no search
        // Old header texts make the word at 14 decide.
        {old(), "TFMX"}, {song(6000).text(16, "  "), "TFMX"}, {song(6000).text(16, "(Empty)"), "TFMX"},
        {song(6000).text(16, "0="), "TFMX"}, {tf("TFMX ", 6000).text(5, "AAAA"), "TFMX"},
        {old().be(464, 0x900), "TFMX-Pro"},   // table offsets present: a later format
        {old().w16(14, 0x0860), "TFMX"}, {old().w16(14, 0x0860).w16(4644, 0x090C), "TFMX-Pro"},
        {old().w16(14, 0x0860).w16(4644, 0x090C).cut(4645), "TFMX"},
        {old().w16(14, 0x0B20), "TFMX"}, {old().w16(14, 0x0B20).w16(5120, 0x8C26), "TFMX-Pro"},
        {old().w16(14, 0x0B20).w16(5120, 0x8C26).cut(5121), "TFMX"},
        {old().w16(14, 0x0920), "TFMX"}, {old().w16(14, 0x0920).w16(3876, 0x9305), "TFMX-Pro"},
        {old().w16(14, 0x0920).w16(3876, 0x9305).cut(3977), "TFMX"}, {old().w16(14, 0x0E60), "TFMX-Pro"},
    };
    for (const auto &c : cases) {
        const char *p = tfmx_choose_player(c.t.d.data(), uint32_t(c.t.d.size()));
        EXPECT_STREQ(p ? p : "", c.player) << "case " << &c - cases;
    }
}

TEST(Tfmx, CorrectionAfterIdentification) {
    conf_tree t("TFMX prefixes=mdat,tfx\nOther prefixes=oth\n", {"TFMX", "TFMX-Pro-TFHD", "Other"});
    auto d = tf("TFHD", 600).byte(8, 2).d;
    EXPECT_EQ(identify("mdat.song", d), "TFMX-Pro-TFHD");
    EXPECT_EQ(identify("song.oth", d), "Other");   // only players named TFMX... are corrected
    EXPECT_EQ(identify("mdat.song", tf("TFHD", 600).byte(8, 3).d), "TFMX");   // TFMX-7V-TFHD is not installed
    d.resize(519);
    EXPECT_EQ(identify("mdat.song", d), "TFMX");
}

std::string resolve(kelva *k, const char *player, const char *module, const std::vector<uint8_t> &d = {}) {
    strcpy(k->epopt, "stale");
    epconf_resolve_epopt(k, player, module, d.data(), uint32_t(d.size()));
    return k->epopt;
}

TEST(EpconfOptions, LineSelectionAndTheProTrackerRefinement) {
    std::string longopt(300, 'o'), name255(255, 'N'), name256(256, 'M'), p255 = "/p/" + name255, p256 = "/p/" + name256;
    conf_tree t("PTK-Prowiz prefixes=mod,MODX,st epopt=type:pt30\nOther prefixes=foo epopt=alpha\n"
                "Other prefixes=foo,bar epopt=beta epopt=gamma\nNoOpt prefixes=foo\n"
                "Last prefixes=abc prefixes=def epopt=z\nLong prefixes=lng epopt=" + longopt + "\n" +
                    name255 + " prefixes=foo epopt=n255\n" + name256 + " prefixes=foo epopt=n256\n" +
                    "Empty prefixes=emp epopt=a epopt=\n",
                {});
    engine_ptr k = make_engine();
    const struct { const char *player, *module; std::string option; } cases[] = {
        {"/p/players/Other", "/m/song.foo", "alpha"}, {"/p/players/Other", "/m/SONG.BAR", "gamma"},
        {"/p/players/other", "/m/song.foo", ""} /* names are case-sensitive */, {"/p/players/NoOpt", "/m/song.foo", ""},
        {"/p/players/Last", "/m/song.abc", ""}, {"/p/players/Last", "/m/song.def", "z"},
        {"/p/players/PTK-Prowiz", "/m/song.modx", ""} /* "MODX" is not folded */,
        {"/p/players/PTK-Prowiz", "/m/mod.song", ""} /* prefix form */, {"/p/players/PTK-Prowiz", "/m.d/song", ""},
        {"/p/players/PTK-Prowiz", "/m/song.", ""}, {"/p/players/PTK-Prowiz", nullptr, ""},
        {nullptr, "/m/song.mod", ""}, {"/p/players/Long", "/m/song.lng", longopt.substr(0, 255)},
        {p255.c_str(), "/m/song.foo", "n255"}, {p256.c_str(), "/m/song.foo", ""},   // names of 256 bytes are refused
        {"/p/players/Empty", "/m/x.emp", ""},   // the last epopt= token, even when empty
    };
    for (const auto &c : cases) EXPECT_EQ(resolve(k.get(), c.player, c.module), c.option) << &c - cases;
    // The ProTracker player's option is refined from the module.
    conf_tree ptk("PTK-Prowiz prefixes=mod,st epopt=type:pt30\n", {});
    auto tagged = mb("M.K.", 1).bytes();
    tagged.resize(1083);
    const std::pair<std::vector<uint8_t>, const char *> modules[] = {
        {pt_module().bytes(), "type:pt30"}, {pt_module().sample(0, smp(100, 0, 150, 10)).bytes(), "type:st24"},
        {mb("FLT4", 1).bytes(), "type:flt4"}, {mb("FLT4", 1).sample(0, smp(0, 1)).bytes(), "type:pt30"},
        {mb("M&K!", 1).bytes(), "type:m&k."}, {mb("N.T.", 1).bytes(), "type:nt20"},
        {pt_module().samples(0, 31, smp(0)).bytes(), "type:nt10"},   // R = 127, Z0 > Z1 with L < R: 6
        {mb("6CHN", 1).bytes(), "type:comp"}, {mb("OCTA", 1).bytes(), "type:pt30"},
        {st15_module().bytes(), "type:st20"}, {tagged, "type:st20"}, {{}, "type:st20"},
    };
    for (const auto &[d, option] : modules)
        EXPECT_EQ(resolve(k.get(), "players/PTK-Prowiz", "a/x.mod", d), option) << d.size();
    EXPECT_EQ(resolve(k.get(), "players/PTK-Prowiz", "a/x.st", mb("8CHN", 1).bytes()), "type:comp");
}

TEST(EpconfNames, FormatAndPlayerNames) {
    engine_ptr k = make_engine();
    // The labels no real module in the shared data has (PtkRealModules checks the others).
    const std::pair<const char *, const char *> table[] = {
        {"type:st24", "DOC Soundtracker 2.4 (byte-offset srep)"}, {"type:nt10", "NoiseTracker 1.x"},
        {"", ""}, {"type:pt3", ""}, {"type:pt300", ""}, {"TYPE:PT30", ""}};
    for (auto [opt, name] : table) {
        strcpy(k->epopt, opt);
        EXPECT_STREQ(kelva_get_format_name(k.get()), name) << opt;
    }

    auto name = [&](uint32_t capacity) {   // capacity 0 leaves the buffer alone
        char out[32];
        memset(out, 'q', sizeof out);
        kelva_get_player_name(k.get(), out, capacity);
        return std::string(out, strnlen(out, sizeof out));
    };
    EXPECT_EQ(name(32), "");   // no name
    memcpy(k->ram + 0x300000, "Test Player 1.0", 16);
    k->player_name_addr = 0x300000;
    EXPECT_EQ((std::vector<std::string>{name(32), name(5), name(1), name(0)}),
              (std::vector<std::string>{"Test Player 1.0", "Test", "", std::string(32, 'q')}));
}

// The bundled configuration (each real module's player and format are checked by PtkRealModules).
TEST(RealModules, BundledConfigurationMapsTheFamily) {
    std::string conf = std::string(KELVA_BUILD_DATA) + "/eagleplayer.conf";
    if (!std::filesystem::exists(conf)) GTEST_SKIP() << conf << " is not built";
    conf_tree t(read_file_text(conf), {kPtk, kUst, kSt4});
    expect_players(
        {{"Song.MOD", kPtk}, {"mod.Song", kPtk}, {"song.mod15", kPtk}, {"song.ust", kUst}, {"song.st4", kSt4}});
    engine_ptr k = make_engine();
    EXPECT_EQ(resolve(k.get(), t.player(kPtk).c_str(), "x/Song.mod", mb("M.K.", 1).bytes()), "type:nt10");
}

}  // namespace
