// eagleplayer.conf: scoring and ties, robustness of the line reader, the
// ".mod" and TFMX content corrections, option lookup and refinement, the
// name getters, and the real modules of the shared test data.
#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <iterator>
#include <string>
#include <vector>

#include "engine/engine.h"
#include "selection/datatree.h"
#include "selection/epconf.h"
#include "support/modbuild.h"
#include "support/temptree.h"
#include "support/test_support.h"

namespace {

// A data tree in a temporary folder with the given configuration and stub
// player files; KELVA_DATA points at it while the record lives.
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
    int r = kelva_identify(name.c_str(), data.data(), uint32_t(data.size()), out, sizeof out);
    if (r == 0) {
        EXPECT_STREQ(out, "untouched") << "the buffer is left alone on failure";
        return "";
    }
    std::string s(out);
    return s.substr(s.rfind('/') + 1);
}

const std::vector<std::string> kFamily = {"PTK-Prowiz", "UltimateSoundtracker", "Soundtracker-IV", "AudioSculpture",
                                          "Custom"};

}   // namespace

// ---------------------------------------------------------------- scoring

TEST(EpconfIdentify, PrefixAndExtensionScoring) {
    conf_tree t("Mod prefixes=mod\nDat prefixes=dat\n", {"Mod", "Dat"});
    EXPECT_EQ(identify("mod.song.dat"), "Mod");   // prefix 1003 beats extension 3
    EXPECT_EQ(identify("/music/Song.DAT"), "Dat");
    EXPECT_EQ(identify("file:///music/MOD.Intro"), "Mod");
    EXPECT_EQ(identify("mod."), "");   // nothing beside the dot
    EXPECT_EQ(identify(".mod"), "");
    EXPECT_EQ(identify("mod"), "");
    EXPECT_EQ(identify("song.xyz"), "");
    EXPECT_EQ(identify("x.mod"), "Mod");
    EXPECT_EQ(identify("dir.mod/song"), "");   // only the last component counts

    char out[4096];
    ASSERT_EQ(kelva_identify("x.mod", nullptr, 0, out, sizeof out), 1);
    EXPECT_EQ(std::string(out), t.player("Mod"));
}

TEST(EpconfIdentify, LongerItemsWinAndItemsAreFolded) {
    conf_tree t("Short prefixes=c\nLong prefixes=b.c\nUpper prefixes=XYZ\nExt prefixes=abcdefgh\nPre prefixes=q\n",
                {"Short", "Long", "Upper", "Ext", "Pre"});
    EXPECT_EQ(identify("a.b.c"), "Long");
    EXPECT_EQ(identify("a.c"), "Short");
    EXPECT_EQ(identify("Song.Xyz"), "Upper");
    EXPECT_EQ(identify("q.abcdefgh"), "Pre");   // any prefix match outranks any extension match
}

TEST(EpconfIdentify, TiesKeepTheEarlierLineAndMissingPlayersAreSkipped) {
    conf_tree t("First prefixes=mod\nSecond prefixes=mod\nThird prefixes=mod\n", {"First", "Second", "Third"});
    EXPECT_EQ(identify("a.mod"), "First");
    t.remove_player("First");
    EXPECT_EQ(identify("a.mod"), "Second");
    t.remove_player("Second");
    t.remove_player("Third");
    EXPECT_EQ(identify("a.mod"), "");
}

TEST(EpconfIdentify, OnlyTheFirstPrefixesTokenCounts) {
    conf_tree t("A prefixes= prefixes=abc\nB prefixes=xyz prefixes=abc\nC other=1 prefixes=,,abc, epopt=q\n",
                {"A", "B", "C"});
    EXPECT_EQ(identify("s.abc"), "C");
    EXPECT_EQ(identify("s.xyz"), "B");
}

TEST(EpconfIdentify, ItemAndNameLengthLimits) {
    std::string item62(62, 'e'), item63(63, 'f');
    std::string name255(255, 'N'), name256(256, 'M');
    conf_tree t("Long prefixes=" + item62 + "," + item63 + "\n" + name256 + " prefixes=toolong\n" + name255 +
                    " prefixes=okname\n",
                {"Long", name255});
    EXPECT_EQ(identify("s." + item62), "Long");
    EXPECT_EQ(identify("s." + item63), "");
    EXPECT_EQ(identify("s.toolong"), "");
    EXPECT_EQ(identify("s.okname"), name255);
}

TEST(EpconfIdentify, HostileConfigurationLines) {
    std::string conf;
    conf += "# comment prefixes=abc\n";
    conf += "\n";
    conf += " Indented prefixes=abc\n";
    conf += "\tTabbed prefixes=abc\n";
    conf += "NoFields\n";
    conf += "Empty prefixes=\n";
    conf += std::string("Bin\0ary prefixes=abc\n", 21);
    conf += "\xFF\xFE\x01\x02 prefixes=\x80\x81,,\n";
    conf += "Crlf prefixes=crl\r\n";
    conf += std::string(4095, 'x') + "Tail prefixes=tail\n";   // cut at 4095 bytes; the rest is a line of its own
    conf += "Vt\vprefixes=vt\n";                                  // vertical tab ends the name ...
    conf += "Last prefixes=last";                                 // no final line feed
    conf_tree t(conf, {"Indented", "Tabbed", "NoFields", "Empty", "Bin", "Crlf", "Tail", "Vt", "Last"});
    EXPECT_EQ(identify("s.abc"), "");
    EXPECT_EQ(identify("s.crl"), "Crlf");
    EXPECT_EQ(identify("s.tail"), "Tail");
    EXPECT_EQ(identify("s.vt"), "");   // ... but does not split tokens
    EXPECT_EQ(identify("s.last"), "Last");
}

TEST(EpconfIdentify, MissingConfigurationFindsNothing) {
    env_guard env;
    temp_dir empty;
    setenv("KELVA_DATA", empty.path.c_str(), 1);
    EXPECT_EQ(identify("a.mod"), "");
}

// --------------------------------------------------------- ".mod" correction

namespace {

// A clean 15-instrument module: highest order m = 1 (so patterns 0 and 1 are
// stored and pattern 0 is examined), one unlooped sample, song length 2.
mod_builder st15_module() {
    mod_builder m = mod_new_st15(2);
    mod_set_song(m, 2, 120);
    mod_set_order(m, 1, 1);
    mod_set_sample(m, 0, smp(100, 64, 0, 0, 0, "bass"));
    return m;
}

// A plain ProTracker module: restart 127, every header with repeat length 1
// (P0 = 0 <= P1, Z0 = 0 <= Z1): classified 0.
mod_builder pt_module() {
    mod_builder m = mod_new("M.K.", 1);
    mod_set_song(m, 1, 127);
    for (int i = 0; i < 31; ++i) mod_set_sample(m, i, smp(0, 0, 0, 1));
    return m;
}

std::string st15(const mod_builder &m) {
    auto d = mod_finish(m);
    const char *p = st15_choose_player(d.data(), uint32_t(d.size()));
    return p ? p : "(classify)";
}

std::string st15_cell(uint8_t cmd, uint8_t param, uint32_t pattern = 0) {
    mod_builder m = st15_module();
    mod_set_cell(m, pattern, 5, 1, cmd, param);
    return st15(m);
}

}   // namespace

TEST(Fifteen, DecisionRulesInOrder) {
    ASSERT_EQ(mod_finish(st15_module()).size(), 1624u + 1024u + 200u);
    EXPECT_EQ(st15(st15_module()), "UltimateSoundtracker");   // rule 6: clean loops
    for (uint8_t c : {5, 6, 7, 8, 9}) EXPECT_EQ(st15_cell(c, 0x11), "Soundtracker-IV") << int(c);
    EXPECT_EQ(st15_cell(13, 0x00), "PTK-Prowiz");
    EXPECT_EQ(st15_cell(13, 0x05), "Soundtracker-IV");
    EXPECT_EQ(st15_cell(12, 0x20), "PTK-Prowiz");
    EXPECT_EQ(st15_cell(15, 0x06), "PTK-Prowiz");
    EXPECT_EQ(st15_cell(14, 0x01), "PTK-Prowiz");            // E0x: filter
    EXPECT_EQ(st15_cell(14, 0x12), "UltimateSoundtracker");  // other E commands do not count
    EXPECT_EQ(st15_cell(1, 30), "PTK-Prowiz");
    EXPECT_EQ(st15_cell(2, 1), "PTK-Prowiz");
    EXPECT_EQ(st15_cell(1, 31), "UltimateSoundtracker");
    EXPECT_EQ(st15_cell(2, 0), "UltimateSoundtracker");     // rule 5: command 2 occurs
    // Pattern m itself is not examined.
    EXPECT_EQ(st15_cell(12, 0x20, 1), "UltimateSoundtracker");
}

TEST(Fifteen, ArpeggioCount) {
    mod_builder two = st15_module();
    mod_set_cell(two, 0, 0, 0, 0, 0x37);
    mod_set_cell(two, 0, 1, 0, 0, 0x47);
    EXPECT_EQ(st15(two), "UltimateSoundtracker");
    mod_builder three = two;
    mod_set_cell(three, 0, 2, 0, 0, 0x12);
    EXPECT_EQ(st15(three), "PTK-Prowiz");
    mod_builder with12 = two;
    mod_set_cell(with12, 0, 9, 3, 12, 0x40);
    EXPECT_EQ(st15(with12), "PTK-Prowiz");
}

TEST(Fifteen, LoopsAndDiskNames) {
    mod_builder past_end = st15_module();
    mod_set_sample(past_end, 0, smp(100, 64, 150, 30));
    EXPECT_EQ(st15(past_end), "PTK-Prowiz");
    mod_builder at_end = st15_module();
    mod_set_sample(at_end, 0, smp(100, 64, 140, 30));
    EXPECT_EQ(st15(at_end), "UltimateSoundtracker");
    // A silent empty sample whose loop reaches 64 KB.
    mod_builder far = st15_module();
    mod_set_sample(far, 3, smp(0, 0, 65000, 268));
    EXPECT_EQ(st15(far), "PTK-Prowiz");
    mod_set_sample(far, 3, smp(0, 0, 65000, 267));
    EXPECT_EQ(st15(far), "UltimateSoundtracker");
    // Disk names matter only together with restart byte 120.
    mod_builder disk = st15_module();
    mod_set_sample(disk, 2, smp(1, 0, 0, 0, 0, "st-01:drums"));
    EXPECT_EQ(st15(disk), "PTK-Prowiz");
    mod_set_song(disk, 2, 0);
    EXPECT_EQ(st15(disk), "UltimateSoundtracker");
    mod_set_song(disk, 2, 120);
    mod_set_sample(disk, 2, smp(1, 0, 0, 0, 0, "ST_01:drums"));
    EXPECT_EQ(st15(disk), "UltimateSoundtracker");
}

TEST(Fifteen, HandsImplausibleModulesToTheThirtyOneInstrumentCheck) {
    mod_builder m = st15_module();
    auto d = mod_finish(m);
    d.push_back(0);   // size no longer matches the formula
    EXPECT_EQ(st15_choose_player(d.data(), uint32_t(d.size())), nullptr);

    mod_builder many = mod_new_st15(65);
    mod_set_song(many, 1, 120);
    mod_set_order(many, 0, 64);
    EXPECT_EQ(st15(many), "(classify)");
    mod_set_order(many, 0, 63);
    many.bytes.resize(600 + 64 * 1024);
    many.patterns = 64;
    EXPECT_EQ(st15(many), "UltimateSoundtracker");

    mod_builder loud = st15_module();
    mod_set_sample(loud, 4, smp(1, 65, 0, 0, 1));
    EXPECT_EQ(st15(loud), "(classify)");
    mod_set_sample(loud, 4, smp(1, 65));
    EXPECT_EQ(st15(loud), "UltimateSoundtracker");
}

TEST(ModCorrection, SizeTagAndHeaderRouting) {
    conf_tree t("Custom prefixes=mod,st\n", kFamily);
    // Too short for any check: the configured player stays.
    EXPECT_EQ(identify("a.mod", std::vector<uint8_t>(1000, 0)), "Custom");

    // A clean 15-instrument module goes to the 15-instrument players ...
    auto clean = mod_finish(st15_module());
    EXPECT_EQ(identify("x/Song.MOD", clean), "UltimateSoundtracker");
    // ... but only for names that end in .mod.
    EXPECT_EQ(identify("Song.st", clean), "Custom");
    EXPECT_EQ(identify("mod.Song", clean), "Custom");
    // Song length 0 or above 128, or order byte 499 equal to 1: the
    // 31-instrument check runs instead; no tag gives 0, nothing proposed.
    for (auto [offset, value] : {std::pair{470, 0}, std::pair{470, 129}, std::pair{499, 1}}) {
        mod_builder m = st15_module();
        mod_poke(m, uint32_t(offset), uint8_t(value));
        EXPECT_EQ(identify("a.mod", mod_finish(m)), "Custom") << offset << "=" << value;
    }
    mod_builder ok = st15_module();
    mod_poke(ok, 470, 128);
    EXPECT_EQ(identify("a.mod", mod_finish(ok)), "UltimateSoundtracker");
}

TEST(ModCorrection, ThirtyOneInstrumentResults) {
    conf_tree t("Custom prefixes=mod\n", kFamily);
    auto nt = mod_finish(mod_new("M.K.", 1));   // restart 0, only Z0 samples: NoiseTracker 1.x (6)
    EXPECT_EQ(identify("a.mod", nt), "PTK-Prowiz");
    mod_builder plain = pt_module();
    EXPECT_EQ(identify("a.mod", mod_finish(plain)), "Custom");   // result 0 proposes nothing

    mod_builder flt = mod_new("FLT4", 1);
    EXPECT_EQ(identify("a.mod", mod_finish(flt)), "PTK-Prowiz");
    mod_set_sample(flt, 4, smp(0, 10));
    EXPECT_EQ(identify("a.mod", mod_finish(flt)), "AudioSculpture");
    t.remove_player("AudioSculpture");
    EXPECT_EQ(identify("a.mod", mod_finish(flt)), "Custom");

    // Between 1084 and 2651 bytes the 31-instrument check runs directly.
    auto small = mod_finish(mod_new("8CHN", 0));
    ASSERT_LT(small.size(), 2652u);
    EXPECT_EQ(identify("a.mod", small), "PTK-Prowiz");
    t.remove_player("PTK-Prowiz");
    EXPECT_EQ(identify("a.mod", small), "Custom");
}

TEST(ModCorrection, ProposalsNeedTheirPlayerFile) {
    conf_tree t("PTK-Prowiz prefixes=mod\n", {"PTK-Prowiz"});
    EXPECT_EQ(identify("a.mod", mod_finish(st15_module())), "PTK-Prowiz");
    t.add_player("UltimateSoundtracker");
    EXPECT_EQ(identify("a.mod", mod_finish(st15_module())), "UltimateSoundtracker");
}

// ".st" names Soundtracker modules and Images Music System ones: the IMS
// layout (sample data at the offset stored at 1080, 1084 + 768 x patterns,
// filling the file) goes to its own player, and only for names ending .st.
TEST(StCorrection, ImagesMusicSystemLayoutLeavesTheSoundtrackerPlayers) {
    KELVA_REQUIRE_SHARED("testdata/modules/other");
    conf_tree t("PTK-Prowiz prefixes=mod,st epopt=type:pt30\nImagesMusicSystem prefixes=ims\n",
                {"PTK-Prowiz", "ImagesMusicSystem"});
    auto ims = read_file_bytes(shared_dir() + "/testdata/modules/other/redoctober-sub-docking.ims");
    ASSERT_FALSE(ims.empty());
    EXPECT_EQ(identify("dir/Sub-Docking.ST", ims), "ImagesMusicSystem");
    EXPECT_EQ(identify("sub-docking.mod", ims), "PTK-Prowiz");
    EXPECT_EQ(identify("st.sub-docking", ims), "PTK-Prowiz");

    std::vector<uint8_t> bad = ims;
    bad[1083] ^= 4;   // the offset is no longer a whole number of patterns
    EXPECT_EQ(identify("a.st", bad), "PTK-Prowiz");
    bad = ims;
    bad[952] = 3;     // the song names a pattern the file does not store
    EXPECT_EQ(identify("a.st", bad), "PTK-Prowiz");
    bad = ims;
    bad.resize(ims.size() - 1100);   // sample data 1100 bytes short of the headers
    EXPECT_EQ(identify("a.st", bad), "PTK-Prowiz");
    bad.resize(ims.size() - 1000);
    EXPECT_EQ(identify("a.st", bad), "ImagesMusicSystem");

    // Real Soundtracker modules named .st stay with the Soundtracker players.
    for (const char *f : {"Crepequs.mod", "GAMEMUSIC.mod", "GBUSTERS.MOD", "cant.mod", "lepeltheme.mod"})
        EXPECT_EQ(identify("x.st", read_file_bytes(shared_dir() + "/testdata/modules/st15/" + f)), "PTK-Prowiz") << f;
    t.remove_player("ImagesMusicSystem");
    EXPECT_EQ(identify("a.st", ims), "PTK-Prowiz");
}

// ------------------------------------------------------------------- TFMX

namespace {

std::vector<uint8_t> tfmx_file(const char *magic, uint32_t size) {
    std::vector<uint8_t> d(size, 0);
    memcpy(d.data(), magic, strlen(magic));
    for (uint32_t i = 10; i < 40; ++i) d[i] = 'A';   // header text that is not one of the old markers
    return d;
}
void put16(std::vector<uint8_t> &d, uint32_t at, uint32_t v) {
    d[at] = uint8_t(v >> 8);
    d[at + 1] = uint8_t(v);
}
void put32(std::vector<uint8_t> &d, uint32_t at, uint32_t v) {
    put16(d, at, v >> 16);
    put16(d, at + 2, v);
}
void put32le(std::vector<uint8_t> &d, uint32_t at, uint32_t v) {
    for (int i = 0; i < 4; ++i) d[at + i] = uint8_t(v >> (8 * i));
}
void mark7v(std::vector<uint8_t> &d, uint32_t at) {
    put16(d, at, 0xEFFE);
    put16(d, at + 2, 0x0003);
}
std::string tfmx(const std::vector<uint8_t> &d) {
    const char *p = tfmx_choose_player(d.data(), uint32_t(d.size()));
    return p ? p : "";
}

}   // namespace

TEST(Tfmx, HeaderMagic) {
    auto d = tfmx_file("TFHD", 600);
    for (auto [b, name] : {std::pair<int, const char *>{1, "TFMX-TFHD"}, {2, "TFMX-Pro-TFHD"}, {3, "TFMX-7V-TFHD"},
                           {0, ""}, {4, ""}}) {
        d[8] = uint8_t(b);
        EXPECT_EQ(tfmx(d), name) << b;
    }
    EXPECT_EQ(tfmx(tfmx_file("TFMX-SONG ", 600)), "TFMX-Pro");
    EXPECT_EQ(tfmx(tfmx_file("tfmx_SONG ", 600)), "TFMX-Pro");
    EXPECT_EQ(tfmx(tfmx_file("TfMxSoNg", 600)), "TFMX-Pro");
    EXPECT_EQ(tfmx(tfmx_file("TFMX-song", 600)), "");
    EXPECT_EQ(tfmx(tfmx_file("TFMX_SONGX", 600)), "");
    EXPECT_EQ(tfmx(tfmx_file("TFMX!", 600)), "");
    EXPECT_EQ(tfmx(tfmx_file("XFMX-SONG ", 600)), "");
    EXPECT_EQ(tfmx(tfmx_file("TFMX-SONG ", 519)), "");
}

TEST(Tfmx, SevenVoiceMarkSearch) {
    // All table offsets 0: the track steps start at 2048.
    auto old = tfmx_file("TFMX-SONG ", 4096);
    mark7v(old, 2048 + 16 * 3);
    EXPECT_EQ(tfmx(old), "TFMX-7V");
    auto unaligned = tfmx_file("TFMX-SONG ", 4096);
    mark7v(unaligned, 2048 + 16 * 3 + 2);
    EXPECT_EQ(tfmx(unaligned), "TFMX-Pro");
    auto before = tfmx_file("TFMX-SONG ", 4096);
    mark7v(before, 1024);
    EXPECT_EQ(tfmx(before), "TFMX-Pro");
    auto tail = tfmx_file("TFMX-SONG ", 4084);
    mark7v(tail, 4080);   // the last place where four bytes fit
    EXPECT_EQ(tfmx(tail), "TFMX-7V");

    // Offsets from the header bound the search: [steps, nearest later table).
    auto be = tfmx_file("TFMX-SONG ", 3000);
    put32(be, 464, 1000);
    put32(be, 468, 1400);
    put32(be, 472, 1200);
    mark7v(be, 1000 + 16 * 12);   // 1192, inside
    EXPECT_EQ(tfmx(be), "TFMX-7V");
    auto outside = tfmx_file("TFMX-SONG ", 3000);
    put32(outside, 464, 1000);
    put32(outside, 468, 1400);
    put32(outside, 472, 1200);
    mark7v(outside, 1200);   // at the macro table: past the end of the search
    EXPECT_EQ(tfmx(outside), "TFMX-Pro");

    // Offsets stored little-endian (the big-endian reading runs off the end).
    auto le = tfmx_file("TFMX-SONG ", 3000);
    put32le(le, 464, 1000);
    put32le(le, 468, 2000);
    put32le(le, 472, 2500);
    mark7v(le, 1000 + 16 * 40);
    EXPECT_EQ(tfmx(le), "TFMX-7V");

    // Offsets that point nowhere: no search, no crash.
    auto wild = tfmx_file("TFMX-SONG ", 600);
    put32(wild, 464, 0xFFFFFFF0);
    put32(wild, 468, 0xFFFFFFFF);
    put32(wild, 472, 599);
    EXPECT_EQ(tfmx(wild), "TFMX-Pro");
}

TEST(Tfmx, OldHeaderTextVariants) {
    auto with = [](std::vector<uint8_t> d, uint32_t at, const char *text) {
        for (size_t i = 0; text[i]; ++i) d.at(at + i) = uint8_t(text[i]);
        return d;
    };
    auto base = tfmx_file("TFMX-SONG ", 6000);
    EXPECT_EQ(tfmx(base), "TFMX-Pro");
    EXPECT_EQ(tfmx(with(base, 10, "by")), "TFMX");
    EXPECT_EQ(tfmx(with(base, 16, "  ")), "TFMX");
    EXPECT_EQ(tfmx(with(base, 16, "(Empty)")), "TFMX");
    EXPECT_EQ(tfmx(with(base, 16, "0=")), "TFMX");
    EXPECT_EQ(tfmx(with(tfmx_file("TFMX ", 6000), 5, "AAAA")), "TFMX");

    auto old = with(base, 10, "by");
    auto pro = old;
    put32(pro, 464, 0x900);   // table offsets present: a later format
    EXPECT_EQ(tfmx(pro), "TFMX-Pro");

    struct {
        uint16_t w;
        uint32_t at;
        uint16_t v;
        uint32_t min_size;
    } words[] = {{0x0860, 4644, 0x090C, 4646}, {0x0B20, 5120, 0x8C26, 5122}, {0x0920, 3876, 0x9305, 3978}};
    for (auto &c : words) {
        auto d = old;
        put16(d, 14, c.w);
        EXPECT_EQ(tfmx(d), "TFMX") << std::hex << c.w;
        put16(d, c.at, c.v);
        EXPECT_EQ(tfmx(d), "TFMX-Pro") << std::hex << c.w;
        d.resize(c.min_size - 1);
        EXPECT_EQ(tfmx(d), "TFMX") << std::hex << c.w << " short file";
    }
    auto e60 = old;
    put16(e60, 14, 0x0E60);
    EXPECT_EQ(tfmx(e60), "TFMX-Pro");
}

TEST(Tfmx, CorrectionAfterIdentification) {
    conf_tree t("TFMX prefixes=mdat,tfx\nOther prefixes=oth\n", {"TFMX", "TFMX-Pro-TFHD", "Other"});
    auto d = tfmx_file("TFHD", 600);
    d[8] = 2;
    EXPECT_EQ(identify("mdat.song", d), "TFMX-Pro-TFHD");
    EXPECT_EQ(identify("song.oth", d), "Other");   // only players named TFMX... are corrected
    d[8] = 3;
    EXPECT_EQ(identify("mdat.song", d), "TFMX");   // TFMX-7V-TFHD is not installed
    d[8] = 2;
    d.resize(519);
    EXPECT_EQ(identify("mdat.song", d), "TFMX");
}

TEST(Tfmx, EveryTruncationStaysInsideTheData) {
    auto full = tfmx_file("TFMX-SONG ", 5200);
    memcpy(full.data() + 10, "by", 2);
    put32le(full, 464, 2048);
    put32le(full, 468, 5199);
    put32le(full, 472, 5300);
    put16(full, 14, 0x0B20);
    for (uint32_t size = 510; size <= full.size(); size += (size < 600 ? 1 : 61)) {
        std::vector<uint8_t> cut(full.begin(), full.begin() + size);
        std::string r = tfmx(cut);
        EXPECT_EQ(r, size < 520 ? "" : "TFMX-Pro") << size;   // the raw long word at 464 is nonzero
    }
    for (uint32_t size = 2600; size <= 2700; ++size) {
        std::vector<uint8_t> cut(2700, 0);
        (void)st15_choose_player(cut.data(), size);
    }
}

// ---------------------------------------------------------- option lookup

namespace {

std::string resolve(kelva *k, const char *player, const char *module, const std::vector<uint8_t> &d = {}) {
    strcpy(k->epopt, "stale");
    epconf_resolve_epopt(k, player, module, d.data(), uint32_t(d.size()));
    return k->epopt;
}

}   // namespace

TEST(EpconfOptions, LineSelection) {
    std::string longopt(300, 'o');
    conf_tree t("PTK-Prowiz prefixes=mod,MODX,st epopt=type:pt30\n"
                "Other prefixes=foo epopt=alpha\n"
                "Other prefixes=foo,bar epopt=beta epopt=gamma\n"
                "NoOpt prefixes=foo\n"
                "Last prefixes=abc prefixes=def epopt=z\n"
                "Long prefixes=lng epopt=" +
                    longopt + "\n",
                {});
    engine_ptr k = make_engine();
    EXPECT_EQ(resolve(k.get(), "/p/players/Other", "/m/song.foo"), "alpha");
    EXPECT_EQ(resolve(k.get(), "/p/players/Other", "/m/SONG.BAR"), "gamma");
    EXPECT_EQ(resolve(k.get(), "/p/players/other", "/m/song.foo"), "");   // names are case-sensitive
    EXPECT_EQ(resolve(k.get(), "/p/players/NoOpt", "/m/song.foo"), "");
    EXPECT_EQ(resolve(k.get(), "/p/players/Last", "/m/song.abc"), "");
    EXPECT_EQ(resolve(k.get(), "/p/players/Last", "/m/song.def"), "z");
    EXPECT_EQ(resolve(k.get(), "/p/players/PTK-Prowiz", "/m/song.modx"), "");   // "MODX" is not folded
    EXPECT_EQ(resolve(k.get(), "/p/players/PTK-Prowiz", "/m/mod.song"), "");   // prefix form
    EXPECT_EQ(resolve(k.get(), "/p/players/PTK-Prowiz", "/m.d/song"), "");      // no extension
    EXPECT_EQ(resolve(k.get(), "/p/players/PTK-Prowiz", "/m/song."), "");
    EXPECT_EQ(resolve(k.get(), "/p/players/PTK-Prowiz", nullptr), "");
    EXPECT_EQ(resolve(k.get(), nullptr, "/m/song.mod"), "");
    EXPECT_EQ(resolve(k.get(), "/p/players/Long", "/m/song.lng"), longopt.substr(0, 255));
}

TEST(EpconfOptions, ProTrackerOptionIsRefinedFromTheModule) {
    conf_tree t("PTK-Prowiz prefixes=mod,st epopt=type:pt30\n", {});
    engine_ptr k = make_engine();
    auto opt = [&](const std::vector<uint8_t> &d) { return resolve(k.get(), "players/PTK-Prowiz", "a/x.mod", d); };

    mod_builder plain = pt_module();
    EXPECT_EQ(opt(mod_finish(plain)), "type:pt30");
    mod_builder st24 = plain;
    mod_set_sample(st24, 0, smp(100, 0, 150, 10));
    EXPECT_EQ(opt(mod_finish(st24)), "type:st24");
    EXPECT_EQ(opt(mod_finish(mod_new("FLT4", 1))), "type:flt4");
    mod_builder sculpture = mod_new("FLT4", 1);
    mod_set_sample(sculpture, 0, smp(0, 1));
    EXPECT_EQ(opt(mod_finish(sculpture)), "type:pt30");
    EXPECT_EQ(opt(mod_finish(mod_new("M&K!", 1))), "type:m&k.");
    EXPECT_EQ(opt(mod_finish(mod_new("N.T.", 1))), "type:nt20");
    mod_builder nt10 = plain;   // R = 127, Z0 > Z1 with L < R: tempo check gives 6
    for (int i = 0; i < 31; ++i) mod_set_sample(nt10, i, smp(0));
    EXPECT_EQ(opt(mod_finish(nt10)), "type:nt10");
    EXPECT_EQ(opt(mod_finish(mod_new("6CHN", 1))), "type:comp");
    EXPECT_EQ(opt(mod_finish(mod_new("OCTA", 1))), "type:pt30");
    EXPECT_EQ(opt(mod_finish(st15_module())), "type:st20");
    auto tagged = mod_finish(mod_new("M.K.", 1));
    tagged.resize(1083);
    EXPECT_EQ(opt(tagged), "type:st20");
    EXPECT_EQ(opt({}), "type:st20");
    // Other options are passed through untouched.
    EXPECT_EQ(resolve(k.get(), "players/PTK-Prowiz", "a/x.st", mod_finish(mod_new("8CHN", 1))), "type:comp");
}

TEST(EpconfNames, FormatNames) {
    engine_ptr k = make_engine();
    const std::pair<const char *, const char *> table[] = {
        {"type:pt30", "ProTracker (31-instrument M.K.)"},
        {"type:st20", "Soundtracker (15-instrument)"},
        {"type:st24", "DOC Soundtracker 2.4 (byte-offset srep)"},
        {"type:flt4", "Startrekker 4ch (FLT4)"},
        {"type:m&k.", "His Master's Noise (M&K!)"},
        {"type:nt10", "NoiseTracker 1.x"},
        {"type:nt20", "NoiseTracker 2.x"},
        {"type:comp", "Fasttracker / multichannel"},
        {"", ""},
        {"type:pt3", ""},
        {"type:pt300", ""},
        {"TYPE:PT30", ""},
    };
    for (auto [opt, name] : table) {
        strcpy(k->epopt, opt);
        EXPECT_STREQ(kelva_get_format_name(k.get()), name) << opt;
    }
}

TEST(EpconfNames, PlayerNameFromEmulatedMemory) {
    engine_ptr k = make_engine();
    char out[32];
    memset(out, 'x', sizeof out);
    k->player_name_addr = 0;
    kelva_get_player_name(k.get(), out, sizeof out);
    EXPECT_STREQ(out, "");

    const char name[] = "Test Player 1.0";
    memcpy(k->ram + 0x300000, name, sizeof name);
    k->player_name_addr = 0x300000;
    kelva_get_player_name(k.get(), out, sizeof out);
    EXPECT_STREQ(out, name);
    kelva_get_player_name(k.get(), out, 5);
    EXPECT_STREQ(out, "Test");
    kelva_get_player_name(k.get(), out, 1);
    EXPECT_STREQ(out, "");
    out[0] = 'q';
    kelva_get_player_name(k.get(), out, 0);
    EXPECT_EQ(out[0], 'q');
}

// ----------------------------------------------------------- real modules

namespace {

struct real_module {
    const char *file;     // under testdata/modules
    const char *player;   // expected player
    const char *option;   // expected option string after refinement
};

// Worked out from each file's bytes by the rules, not by running the code:
// - Tagged "M.K." files with restart byte 127 either use a finetune or an
//   E1x-EFx command (-> 0 because the restart is 127) or have P0 <= P1 and
//   Z0 <= Z1 (-> 0): configured player, "type:pt30".
// - gluppobe and waterfal: finetuned samples, restart 0 -> 7 ("type:comp").
// - starpaws: tag "6CHN" -> 7.
// - The OpenMPT effect tests have restart 0. Those with finetuned samples, or
//   with an E6x in pattern 0 (PatLoop-Break), give 7. The others have no
//   finetune and an order list of only pattern 0, so no pattern is examined;
//   P0 = 0 <= P1 and Z0 = 0 <= Z1 lead through the convention check (R = 0)
//   to the NoiseTracker check -> 5 ("type:nt20").
// - blue damage: "M.K.", restart 0, no finetune, patterns 0-1 without E
//   commands or commands 5/6/7/9, P0 = P1 = 0, Z0 = 0 -> 5.
// - FLT4 files without empty samples that have a volume -> 2; M&K! -> 4;
//   M!K! -> 0.
// - 15-instrument files (no tag, size = 1624 + 1024 m + 2 x sample words,
//   song length 1..128, order byte 499 != 1): Crepequs uses commands 5-8 ->
//   Soundtracker-IV; GAMEMUSIC uses no command in patterns 0..m-1 and has
//   clean loops -> UltimateSoundtracker; GBUSTERS and cant use command 12 ->
//   PTK-Prowiz ("type:st20"); lepeltheme uses only command 1 with parameters
//   up to 89 -> UltimateSoundtracker.
const real_module kRealModules[] = {
    {"debian/AnarchyMenu1.mod", "PTK-Prowiz", "type:pt30"},
    {"debian/The_Last_V8.mod", "PTK-Prowiz", "type:pt30"},
    {"debian/adventures.mod", "PTK-Prowiz", "type:pt30"},
    {"debian/android-commando_hiscore.mod", "PTK-Prowiz", "type:pt30"},
    {"debian/astraltr.mod", "PTK-Prowiz", "type:pt30"},
    {"debian/corpses.mod", "PTK-Prowiz", "type:pt30"},
    {"debian/dreamfish-green_beret.mod", "PTK-Prowiz", "type:pt30"},
    {"debian/dreamfish-sanxion.mod", "PTK-Prowiz", "type:pt30"},
    {"debian/dreamfish-uridium2_loader.mod", "PTK-Prowiz", "type:pt30"},
    {"debian/finally.mod", "PTK-Prowiz", "type:pt30"},
    {"debian/game.mod", "PTK-Prowiz", "type:pt30"},
    {"debian/game2.mod", "PTK-Prowiz", "type:pt30"},
    {"debian/game3.mod", "PTK-Prowiz", "type:pt30"},
    {"debian/gluppobe.mod", "PTK-Prowiz", "type:comp"},
    {"debian/hiscore.mod", "PTK-Prowiz", "type:pt30"},
    {"debian/hiscreen.mod", "PTK-Prowiz", "type:pt30"},
    {"debian/kaupunki.mod", "PTK-Prowiz", "type:pt30"},
    {"debian/klovninarki.mod", "PTK-Prowiz", "type:pt30"},
    {"debian/kollaps-tron.mod", "PTK-Prowiz", "type:pt30"},
    {"debian/menu.mod", "PTK-Prowiz", "type:pt30"},
    {"debian/starpaws.mod", "PTK-Prowiz", "type:comp"},
    {"debian/waterfal.mod", "PTK-Prowiz", "type:comp"},
    {"effects/AmigaLimitsFinetune.mod", "PTK-Prowiz", "type:comp"},
    {"effects/ArpWraparound.mod", "PTK-Prowiz", "type:comp"},
    {"effects/DelayBreak.mod", "PTK-Prowiz", "type:comp"},
    {"effects/InstrDelay.mod", "PTK-Prowiz", "type:comp"},
    {"effects/InstrSwapRetrigger.mod", "PTK-Prowiz", "type:comp"},
    {"effects/NoteDelay-NextRow.mod", "PTK-Prowiz", "type:nt20"},
    {"effects/PTInstrSwap.mod", "PTK-Prowiz", "type:comp"},
    {"effects/PTInstrVolume.mod", "PTK-Prowiz", "type:comp"},
    {"effects/PTRetrigger.mod", "PTK-Prowiz", "type:comp"},
    {"effects/PTStoppedSwap.mod", "PTK-Prowiz", "type:nt20"},
    {"effects/PTSwapEmpty.mod", "PTK-Prowiz", "type:nt20"},
    {"effects/PTSwapNoLoop.mod", "PTK-Prowiz", "type:nt20"},
    {"effects/PatLoop-Break.mod", "PTK-Prowiz", "type:comp"},
    {"effects/PatternDelaysRetrig.mod", "PTK-Prowiz", "type:nt20"},
    {"effects/PatternJump.mod", "PTK-Prowiz", "type:comp"},
    {"effects/PortaSmpChange.mod", "PTK-Prowiz", "type:nt20"},
    {"effects/PortaSwapPT.mod", "PTK-Prowiz", "type:comp"},
    {"effects/PortaTarget.mod", "PTK-Prowiz", "type:nt20"},
    {"effects/TempoChange.mod", "PTK-Prowiz", "type:nt20"},
    {"effects/VibratoReset.mod", "PTK-Prowiz", "type:comp"},
    {"effects/finetune.mod", "PTK-Prowiz", "type:comp"},
    {"effects/ptoffset.mod", "PTK-Prowiz", "type:comp"},
    {"st15/Crepequs.mod", "Soundtracker-IV", ""},
    {"st15/GAMEMUSIC.mod", "UltimateSoundtracker", ""},
    {"st15/GBUSTERS.MOD", "PTK-Prowiz", "type:st20"},
    {"st15/cant.mod", "PTK-Prowiz", "type:st20"},
    {"st15/lepeltheme.mod", "UltimateSoundtracker", ""},
    {"variants/Tinytune.mod", "PTK-Prowiz", "type:flt4"},
    {"variants/blue damage.mod", "PTK-Prowiz", "type:nt20"},
    {"variants/jul-paaske.mod", "PTK-Prowiz", "type:pt30"},
    {"variants/lind.mod", "PTK-Prowiz", "type:m&k."},
    {"variants/s0d.mod", "PTK-Prowiz", "type:flt4"},
};

}   // namespace

TEST(RealModules, IdentifiedAndClassified) {
    KELVA_REQUIRE_SHARED("testdata/modules");
    conf_tree t("PTK-Prowiz prefixes=mod,mod15,st epopt=type:pt30\n"
                "UltimateSoundtracker prefixes=ust\n"
                "Soundtracker-IV prefixes=st4\n",
                {"PTK-Prowiz", "UltimateSoundtracker", "Soundtracker-IV", "AudioSculpture"});
    engine_ptr k = make_engine();
    std::string root = shared_dir() + "/testdata/modules/";
    size_t checked = 0;
    for (const real_module &m : kRealModules) {
        std::string path = root + m.file;
        auto data = read_file_bytes(path);
        ASSERT_GT(data.size(), 0u) << path;
        char out[4096];
        ASSERT_EQ(kelva_identify(path.c_str(), data.data(), uint32_t(data.size()), out, sizeof out), 1) << m.file;
        EXPECT_EQ(std::string(out), t.player(m.player)) << m.file;
        epconf_resolve_epopt(k.get(), out, path.c_str(), data.data(), uint32_t(data.size()));
        EXPECT_STREQ(k->epopt, m.option) << m.file;
        ++checked;
    }
    // Every module of the folders is in the table.
    size_t present = 0;
    for (const char *sub : {"debian", "effects", "st15", "variants"}) {
        std::error_code ec;
        for (auto &e : std::filesystem::directory_iterator(root + sub, ec))
            if (e.is_regular_file()) ++present;
    }
    EXPECT_EQ(checked, present);
}

TEST(RealModules, BundledConfigurationMapsTheFamily) {
    std::string conf = std::string(KELVA_BUILD_DATA) + "/eagleplayer.conf";
    if (!std::filesystem::exists(conf)) GTEST_SKIP() << conf << " is not built";
    conf_tree t(read_file_text(conf), {"PTK-Prowiz", "UltimateSoundtracker", "Soundtracker-IV"});
    EXPECT_EQ(identify("Song.MOD"), "PTK-Prowiz");
    EXPECT_EQ(identify("mod.Song"), "PTK-Prowiz");
    EXPECT_EQ(identify("song.mod15"), "PTK-Prowiz");
    EXPECT_EQ(identify("song.ust"), "UltimateSoundtracker");
    EXPECT_EQ(identify("song.st4"), "Soundtracker-IV");
    engine_ptr k = make_engine();
    EXPECT_EQ(resolve(k.get(), t.player("PTK-Prowiz").c_str(), "x/Song.mod", mod_finish(mod_new("M.K.", 1))),
              "type:nt10");
}
