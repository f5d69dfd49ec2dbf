// The kelva tool run as a subprocess with its own HOME (a private database) and a data tree of the test players.
#include <gtest/gtest.h>
#include <sndfile.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "plugin/songdb.h"
#include "support/temptree.h"
#include "support/test_support.h"

namespace {

using json = nlohmann::json;
using args_t = std::vector<std::string>;

struct run_result {
    int code = -1;
    std::string out, err;
};

// Runs the built kelva with `args` in `cwd`: HOME `home` (unset when empty), no XDG_DATA_HOME, KELVA_DATA `data` unless
// empty. Its output is kept in cwd.
run_result run_kelva(const args_t &args, const std::string &home, const std::string &data, const std::string &cwd) {
    auto quoted = [](const std::string &s) {
        std::string q = "'";
        for (char c : s) q += c == '\'' ? std::string("'\\''") : std::string(1, c);
        return q + "'";
    };
    std::string cmd = "cd " + quoted(cwd) + " && env -u XDG_DATA_HOME -u KELVA_DATA " +
                      (home.empty() ? "-u HOME" : "HOME=" + quoted(home)) +
                      (data.empty() ? "" : " KELVA_DATA=" + quoted(data)) + " " + quoted(KELVA_CLI);
    for (const std::string &a : args) cmd += " " + quoted(a);
    int status = std::system((cmd + " </dev/null >.stdout 2>.stderr").c_str());
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, read_file_text(cwd + "/.stdout"),
            read_file_text(cwd + "/.stderr")};
}

std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream s(text);
    for (std::string l; std::getline(s, l);) lines.push_back(l);
    return lines;
}

json parse_json(const std::string &text) {
    json v = json::parse(text, nullptr, false);
    EXPECT_FALSE(v.is_discarded()) << "not valid JSON:\n" << text;
    return v;
}

bool contains(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }

// Exit status 1 and one line on stderr: "kelva: ..." containing `needle`.
void expect_one_line_failure(const run_result &r, const std::string &needle) {
    EXPECT_EQ(r.code, 1) << r.err;
    EXPECT_TRUE(r.err.rfind("kelva: ", 0) == 0 && lines_of(r.err).size() == 1 && contains(r.err, needle))
        << r.err << "wants: " << needle;
}

// An audio file's layout, its peak and its largest |left - right| (stereo).
struct audio_file {
    SF_INFO info{};
    float peak = 0, side = 0;
};

audio_file read_audio(const std::string &path) {
    audio_file a;
    SNDFILE *f = sf_open(path.c_str(), SFM_READ, &a.info);
    std::vector<float> s(f && a.info.channels == 2 ? size_t(a.info.frames) * 2 : 0);
    if (f) sf_readf_float(f, s.data(), sf_count_t(s.size() / 2));
    if (f) sf_close(f);
    for (size_t i = 1; i < s.size(); i += 2) {
        a.peak = std::max({a.peak, std::fabs(s[i - 1]), std::fabs(s[i])});
        a.side = std::max(a.side, std::fabs(s[i] - s[i - 1]));
    }
    return a;
}

std::string noise(uint32_t x) {   // 5000 bytes of xorshift noise
    std::string s;
    for (int i = 0; i < 5000; i++) s.push_back(char((x ^= x << 13, x ^= x >> 17, x ^= x << 5)));
    return s;
}

struct CliTest : testing::Test {
    temp_dir tmp;
    std::string home = tmp / "home", data = tmp / "data", work = tmp / "work";

    std::string test_player(const char *name) { return std::string(KELVA_TEST_PLAYERS) + "/" + name; }
    void SetUp() override {
        if (access(test_player("Envelope").c_str(), R_OK) != 0 || access(test_player("Subsong").c_str(), R_OK) != 0)
            GTEST_SKIP() << "test players not built (needs the m68k cross compiler): " << KELVA_TEST_PLAYERS;
        std::filesystem::create_directories(home);
        ASSERT_TRUE(
            write_file(data + "/eagleplayer.conf", "# test tree\nEnvelope prefixes=envl\nSubsong prefixes=sub\n"));
        for (const char *p : {"Envelope", "Subsong"})
            ASSERT_TRUE(write_file(data + "/players/" + p, read_file_text(test_player(p))));
        const std::pair<const char *, std::vector<uint8_t>> modules[] = {
            {"end.envl", envelope_module(0, 0, 150)},       // song end at 3 s
            {"quiet.envl", envelope_module(0, 100, 0)},     // silent after 2 s
            {"loop.envl", envelope_module(600, 0, 0)},      // repeats every 12 s
            {"endless.envl", envelope_module(0, 0, 0)},     // none of those
            {"five.sub", std::vector<uint8_t>(64, 'x')}};   // five subsongs
        for (const auto &[name, bytes] : modules) ASSERT_TRUE(write_file(work + "/" + name, bytes));
    }
    run_result kelva(const args_t &args) { return run_kelva(args, home, data, work); }
    // The database's records, without its version line.
    std::vector<std::string> db() {
        std::vector<std::string> lines = lines_of(read_file_text(home + "/.local/share/kelva/songlengths.db"));
        if (!lines.empty() && lines[0].rfind("# ", 0) == 0) lines.erase(lines.begin());
        return lines;
    }
};

TEST_F(CliTest, RenderWritesWhatItWasAskedFor) {
    // side: -1 = at least 0.01 (the default separation keeps channel 0 to one side), 9 = any; records: in the database,
    // a count per module and a length per subsong measured.
    const struct { args_t args; const char *file, *says; int rate, format; int64_t frames, tolerance;
                   float min_peak, side; size_t records; } cases[] = {
        // The player ends after 150 ticks of 960 frames; the length measured (whole ms) stops the render there.
        {{"render", "end.envl", "-o", "end.wav"}, "end.wav", "end.wav", 48000, SF_FORMAT_WAV | SF_FORMAT_PCM_16,
         150 * 960, 960, 0.05f, -1, 2},
        {{"render", "endless.envl", "-o", "out.flac", "--seconds", "1.5", "--rate", "22050"}, "out.flac", "out.flac",
         22050, SF_FORMAT_FLAC | SF_FORMAT_PCM_16, 33075, 0, 0.01f, -1, 4},
        {{"render", "endless.envl", "--seconds", "1", "--bits", "float", "--separation", "0", "--model", "a1200",
          "--led", "on"}, "endless.wav" /* the default name */, "endless.wav", 48000, SF_FORMAT_WAV | SF_FORMAT_FLOAT,
         48000, 0, 0.01f, 0, 4},
        {{"render", "endless.envl", "--seconds", "0.2", "--bits", "32", "-o", "f32.wav"}, "f32.wav", "f32.wav", 48000,
         SF_FORMAT_WAV | SF_FORMAT_FLOAT, 9600, 0, 0.01f, -1, 4},
        {{"render", "five.sub", "--subsong", "3", "--seconds", "0.5", "-o", "three.wav"}, "three.wav", "subsong 3 of 5",
         48000, SF_FORMAT_WAV | SF_FORMAT_PCM_16, 24000, 0, 0, 9, 6},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.file);
        run_result r = kelva(c.args);
        ASSERT_EQ(r.code, 0) << r.err;
        EXPECT_TRUE(contains(r.out, c.says)) << r.out;
        EXPECT_EQ(db().size(), c.records);
        audio_file a = read_audio(work + "/" + c.file);
        EXPECT_EQ((std::vector<int>{a.info.samplerate, a.info.channels, a.info.format}),
                  (std::vector<int>{c.rate, 2, c.format}));
        EXPECT_NEAR(double(a.info.frames), double(c.frames), double(c.tolerance));
        EXPECT_GE(a.peak, c.min_peak);
        // Separation 0 gives the same signal on both sides.
        EXPECT_TRUE(c.side < 0 ? a.side > 0.01f : c.side > 1 || a.side == c.side) << a.side;
    }
    // The A500 asked for by name is the default model: the same samples as f32.wav (from the data chunk on: the
    // header's PEAK chunk holds the time of writing).
    ASSERT_EQ(kelva({"render", "endless.envl", "--seconds", "0.2", "--bits", "32", "--model", "A500", "-o", "a500.wav"})
                  .code, 0);
    auto samples = [&](const char *f) {
        std::string s = read_file_text(work + "/" + f);
        return s.substr(s.find("data"));
    };
    EXPECT_EQ(samples("a500.wav"), samples("f32.wav"));
}

TEST_F(CliTest, InfoJsonReportsEveryWayALengthIsFoundAndGivesUnplayableFilesAnError) {
    std::string odd = "we\"ird\\name\t\x01\xff.envl";
    ASSERT_TRUE(write_file(work + "/" + odd, envelope_module(0, 0, 50)));
    run_result r =
        kelva({"info", "--json", "end.envl", "quiet.envl", "loop.envl", "endless.envl", odd, "missing.envl"});
    json files = parse_json(r.out);
    const struct { const char *file, *reason; double ms; } expected[] = {
        {"end.envl", "song_end", 2980},      // the end is signalled in the 150th tick
        {"quiet.envl", "silence", 3000},     // one second past the start of the silence
        {"loop.envl", "repetition", 12000},  // 600 ticks
        {"endless.envl", "limit", 600000},
        {"we\"ird\\name\t\x01\xEF\xBF\xBD.envl", "song_end", 980},   // the invalid UTF-8 byte becomes U+FFFD
    };
    ASSERT_EQ(files.size(), 6u);
    for (size_t i = 0; i < 5; i++) {
        const json &f = files[i], &s = f.at("subsongs").at(0);
        EXPECT_EQ(f.at("file"), expected[i].file);
        EXPECT_TRUE(f.at("player") == "Envelope" && f.at("format").is_string() && !f.contains("error")) << f;
        EXPECT_TRUE(f.at("subsongs").size() == 1 && s.at("subsong") == 0 && s.at("reason") == expected[i].reason) << f;
        EXPECT_NEAR(s.at("length_ms").get<double>(), expected[i].ms, 40) << f;
    }
    EXPECT_FALSE(files[5].contains("subsongs"));
    EXPECT_TRUE(contains(files[5].at("error").get<std::string>(), "missing.envl"));
    expect_one_line_failure(r, "missing.envl");
    // The subsong objects in the documented member order.
    EXPECT_TRUE(contains(r.out, R"({"subsong":0,"length_ms":12000,"reason":"repetition"})")) << r.out;
}

TEST_F(CliTest, SubsongsAreListedAndCountedAndTextInfoNamesThePlayer) {
    json subs = parse_json(kelva({"info", "--json", "five.sub"}).out).at(0).at("subsongs");
    ASSERT_EQ(subs.size(), 5u);
    for (size_t i = 0; i < 5; i++) EXPECT_EQ(subs[i].at("subsong"), i + 1);
    // One record for the count (value 5) and one per subsong.
    std::vector<std::string> lines = db();
    ASSERT_EQ(lines.size(), 6u);
    EXPECT_TRUE(contains(lines[0], " 5 ")) << lines[0];
    for (const std::string &l : lines) EXPECT_TRUE(l.find(' ') == 32 && contains(l, work + "/five.sub")) << l;
    run_result r = kelva({"info", "five.sub"});
    EXPECT_TRUE(contains(r.out, "subsongs: 5") && contains(r.out, "subsong 5: ")) << r.out << r.err;
    // The Envelope player installed as "Renamed": the text names the file and the player's own name.
    std::string conf = read_file_text(data + "/eagleplayer.conf") + "Renamed prefixes=renv\n";
    ASSERT_TRUE(write_file(data + "/eagleplayer.conf", conf) &&
                write_file(data + "/players/Renamed", read_file_text(test_player("Envelope"))) &&
                write_file(work + "/x.renv", envelope_module(0, 0, 50)));
    r = kelva({"info", "x.renv"});
    EXPECT_EQ(r.out.rfind("x.renv\n  title:    ", 0), 0u) << r.out;   // the file's line comes first
    EXPECT_TRUE(contains(r.out, "  player:   Renamed (Envelope)\n")) << r.out;
    // A count of two in the database: subsongs 1 and 2.
    std::vector<uint8_t> two = envelope_module(0, 0, 50, 7);
    char hex[33];
    cache_key_hex(cache_make_key(two.data(), uint32_t(two.size()), kSubsongCountSeed), hex);
    std::string text = kDbHeader + std::string("\n") + hex + " 2 two.envl\n";
    ASSERT_TRUE(write_file(work + "/two.envl", two) && write_file(home + "/.local/share/kelva/songlengths.db", text));
    r = kelva({"render", "two.envl", "--subsong", "2", "--seconds", "0.5", "-o", "two.wav"});
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_TRUE(contains(r.out, "subsong 2 of 2")) << r.out;
    EXPECT_EQ(parse_json(kelva({"info", "--json", "two.envl"}).out).at(0).at("subsongs").size(), 2u);
}

TEST_F(CliTest, ScanMeasuresATreeAndASecondScanFindsEverythingKnown) {
    std::string tree = tmp / "tree";
    for (const char *f : {"end.envl", "quiet.envl", "five.sub"})
        ASSERT_TRUE(write_file(tree + "/deep/er/" + f, read_file_text(work + "/" + f)));
    ASSERT_TRUE(write_file(tree + "/loop.envl", read_file_text(work + "/loop.envl")) &&
                write_file(tree + "/notes.txt", "not a module\n") && write_file(tree + "/empty.envl", "") &&
                write_file(work + "/linked.envl", envelope_module(0, 0, 100)));
    // A link to a file counts as the file; a dangling one is passed over.
    std::filesystem::create_symlink(work + "/linked.envl", tree + "/link.envl");
    std::filesystem::create_symlink(tmp / "nowhere", tree + "/dangling.envl");
    run_result first = kelva({"scan", tree, "--jobs", "2"});
    ASSERT_EQ(first.code, 0) << first.err;
    // 2.98 + 2.98 + 12 + 5 x 1 s (the five subsongs fall silent at once) + 1.98 = 24.94 s.
    for (const char *part : {"5 claimed by a player", "subsongs: 9 (0 already in the database, 9 measured now)",
                             "failures: 0", "music:    24.9 s in all", "\nspeed:    "})
        EXPECT_TRUE(contains(first.out, part)) << part << " in\n" << first.out;
    EXPECT_EQ(db().size(), 14u);   // a count record for each file plus a length per subsong
    // A second scan measures only what is new, and tells its speed even for one subsong.
    ASSERT_TRUE(write_file(tree + "/late.envl", envelope_module(0, 0, 50)));
    run_result second = kelva({"scan", tree, "--jobs", "1"});
    ASSERT_EQ(second.code, 0) << second.err;
    for (const char *part : {"subsongs: 10 (9 already in the database, 1 measured now)", "\nspeed:    "})
        EXPECT_TRUE(contains(second.out, part)) << part << " in\n" << second.out;
    EXPECT_EQ(db().size(), 16u);
    // What the scan stored is what info then reads.
    json s = parse_json(kelva({"info", "--json", tree + "/loop.envl"}).out).at(0).at("subsongs").at(0);
    EXPECT_TRUE(s.at("reason") == "database" && s.at("length_ms") == 12000) << s;
    // Without HOME and XDG_DATA_HOME nothing can be kept, and the summary says so.
    std::filesystem::create_directories(tmp / "none");
    EXPECT_TRUE(contains(run_kelva({"scan", tmp / "none"}, "", data, work).out,
                         "database: none (neither XDG_DATA_HOME nor HOME is set); nothing was kept\n"));
}

TEST_F(CliTest, BadInputsGiveOneLineNamingTheFile) {
    ASSERT_TRUE(write_file(work + "/noise.bin", noise(0x9E3779B9)) &&
                write_file(work + "/noise.xyz", noise(0x9E3779B9)) &&
                write_file(work + "/empty.envl", "") &&
                write_file(work + "/huge.envl", read_file_text(work + "/end.envl") + std::string(983040, '\0')));
    std::filesystem::create_directories(work + "/folder.envl");
    const std::pair<const char *, const char *> files[] = {
        {"missing.envl", "cannot open missing.envl"},      {"folder.envl", "folder.envl is a directory"},
        {"empty.envl", "empty or unreadable file empty.envl"}, {"noise.bin", "no player matches noise.bin"},
        {"noise.xyz", "no player matches noise.xyz"},
        {"huge.envl", "huge.envl is too large for the emulated Amiga"}};
    for (auto [file, reason] : files)
        for (const char *cmd : {"render", "info", "play"}) {
            SCOPED_TRACE(std::string(cmd) + " " + file);
            expect_one_line_failure(kelva({cmd, file}), reason);
        }
    EXPECT_FALSE(std::filesystem::exists(work + "/noise.wav"));
    const std::pair<args_t, std::string> failures[] = {
        {{"render", "five.sub", "--subsong", "6"}, "five.sub has subsongs 1 to 5; --subsong 6 does not exist"},
        {{"render", "end.envl", "--subsong", "2"}, "end.envl has a single subsong; --subsong 2 does not exist"},
        // play takes the rendering options and checks them before it needs a sound device.
        {{"play", "end.envl", "--subsong", "2", "--seconds", "1", "--rate", "22050", "--model", "a1200", "--led", "on",
          "--separation", "0.5"}, "end.envl has a single subsong; --subsong 2 does not exist"},
        {{"--data", work, "info", "end.envl"}, "not a data tree"},
    };
    for (const auto &[args, reason] : failures) expect_one_line_failure(kelva(args), reason);
    // Without KELVA_DATA the search finds no tree with an "envl" line.
    expect_one_line_failure(run_kelva({"info", "end.envl"}, home, "", work), "no player matches end.envl");
    expect_one_line_failure(kelva({"scan", tmp / "nowhere"}), "cannot read folder " + (tmp / "nowhere"));
    // --data names the tree, before or after the command.
    EXPECT_EQ(run_kelva({"--data", data, "info", "end.envl"}, home, "", work).code, 0);
    EXPECT_EQ(run_kelva({"info", "end.envl", "--data", data}, home, "", work).code, 0);
}

TEST_F(CliTest, UsageErrorsExitWithTwo) {
    const args_t usage[] = {
        {}, {"frobnicate"}, {"render"}, {"render", "a.envl", "b.envl"}, {"render", "end.envl", "--rate", "12"},
        {"render", "end.envl", "--bits", "float", "--format", "flac"}, {"render", "end.envl", "--seconds"},
        {"info"}, {"info", "--jsn", "end.envl"}, {"scan"},
        {"scan", ".", "--jobs", "0"}, {"scan", ".", "--jobs", "65"}, {"play"}, {"play", "end.envl", "-o", "x.wav"},
        {"play", "end.envl", "--subsong", ""}, {"play", "end.envl", "--seconds", "nan"}};
    for (const args_t &args : usage) {
        run_result r = kelva(args);
        EXPECT_TRUE(r.code == 2 && !r.err.empty()) << testing::PrintToString(args) << r.err;
    }
    // Each option's range at both ends: just outside is a usage error; the end is taken (then the file fails).
    const std::pair<const char *, std::vector<const char *>> ranges[] = {
        {"--rate", {"7999", "8000", "384000", "384001"}}, {"--subsong", {"-1", "0", "65535", "65536"}},
        {"--seconds", {"0", "0.001", "86400", "86400.5"}}, {"--separation", {"-0.01", "0", "1", "1.01"}},
        {"--model", {"a600", "A500", "A1200", "a4000"}}, {"--led", {"0", "off", "auto", "maybe"}}};
    for (const auto &[option, values] : ranges)
        for (size_t i = 0; i < 4; i++)
            EXPECT_EQ(kelva({"play", "missing.envl", option, values[i]}).code, i == 0 || i == 3 ? 2 : 1)
                << option << " " << values[i];
    EXPECT_EQ(kelva({"scan", "nowhere", "--jobs", "64"}).code, 1);
    EXPECT_EQ(kelva({"frobnicate"}).err, "kelva: unknown command 'frobnicate' (see 'kelva --help')\n");
    EXPECT_EQ(kelva({"render"}).err, "kelva render: no module file given (see 'kelva render --help')\n");
    for (const char *cmd : {"render", "info", "scan", "play"}) {
        run_result r = kelva({cmd, "--help"});
        EXPECT_EQ(r.code, 0) << cmd;
        EXPECT_EQ(r.out.rfind(std::string("usage: kelva ") + cmd, 0), 0u) << r.out;
    }
}

struct CliModuleTest : CliTest {
    void SetUp() override {
        if (access((std::string(KELVA_BUILD_DATA) + "/players/PTK-Prowiz").c_str(), R_OK) != 0)
            GTEST_SKIP() << "the ProTracker player is not built yet (" << KELVA_BUILD_DATA << "/players/PTK-Prowiz)";
        CliTest::SetUp();
        data = KELVA_BUILD_DATA;
    }
};

TEST_F(CliModuleTest, RealModulesHaveTheirLengthsAndTitlesAndARandomModIsStoredAsFailed) {
    // The demo tune: six positions of 64 rows at speed 6, tempo 125: 46.08 s.
    run_result r = kelva({"info", "--json", KELVA_DEMO_MOD});
    ASSERT_EQ(r.code, 0) << r.err;
    json f = parse_json(r.out).at(0), s = f.at("subsongs").at(0);
    EXPECT_TRUE(f.at("player") == "PTK-Prowiz" && f.at("format") == "ProTracker (31-instrument M.K.)" &&
                f.at("player_signals_end") == true && f.at("subsongs").size() == 1 && s.at("reason") == "song_end")
        << f;
    EXPECT_NEAR(s.at("length_ms").get<double>(), 46080, 200);
    ASSERT_TRUE(write_file(work + "/noise.mod", noise(0x2545F491)));
    expect_one_line_failure(kelva({"render", "noise.mod"}), "noise.mod failed to start on ");
    // Like the plugin: one subsong, length -1, so it is not tried again (behind the demo tune's two records).
    std::vector<std::string> lines = db();
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_TRUE(contains(lines[2], " 1 ") && contains(lines[3], " -1 ")) << lines[2] << lines[3];
    r = kelva({"info", "--json", "noise.mod"});
    EXPECT_TRUE(contains(parse_json(r.out).at(0).at("error").get<std::string>(), "failed to start")) << r.out;
    // corpses: the title is the module's first 20 bytes; 55.08 s is what other players give.
    KELVA_REQUIRE_SHARED("testdata/modules/debian/corpses.mod");
    f = parse_json(kelva({"info", "--json", shared_dir() + "/testdata/modules/debian/corpses.mod"}).out).at(0);
    EXPECT_TRUE(f.at("title") == "corpses_in_rain" && f.at("author").is_null()) << f;
    EXPECT_NEAR(f.at("subsongs").at(0).at("length_ms").get<double>(), 55080, 1500);
}

}  // namespace
