// The kelva command-line tool, run as a user runs it: a subprocess with its
// own HOME (so its song-length database is private), a data tree made by
// the test from the test players, and its output, exit status and files
// checked. The demo tune and real modules need the ProTracker player; those
// tests skip with a message while it is not built.
#include <gtest/gtest.h>
#include <sndfile.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "support/temptree.h"
#include "support/test_support.h"

extern char **environ;

namespace {

// ---- running kelva ---------------------------------------------------------------

struct run_result {
    int code = -1;
    std::string out;
    std::string err;
};

// Runs the built kelva with `args` in `cwd`, with HOME set to `home`,
// XDG_DATA_HOME removed and KELVA_DATA set to `data` (when not empty).
run_result run_kelva(const std::vector<std::string> &args, const std::string &home, const std::string &data,
                     const std::string &cwd) {
    std::vector<std::string> env;
    for (char **e = environ; *e; e++) {
        std::string v = *e;
        if (v.rfind("HOME=", 0) == 0 || v.rfind("XDG_DATA_HOME=", 0) == 0 || v.rfind("KELVA_DATA=", 0) == 0) continue;
        env.push_back(v);
    }
    env.push_back("HOME=" + home);
    if (!data.empty()) env.push_back("KELVA_DATA=" + data);
    std::vector<char *> envp;
    for (std::string &v : env) envp.push_back(v.data());
    envp.push_back(nullptr);

    std::vector<std::string> argv_s = {KELVA_CLI};
    argv_s.insert(argv_s.end(), args.begin(), args.end());
    std::vector<char *> argv;
    for (std::string &a : argv_s) argv.push_back(a.data());
    argv.push_back(nullptr);

    std::string out_path = home + "/.stdout", err_path = home + "/.stderr";
    posix_spawn_file_actions_t fa;
    posix_spawn_file_actions_init(&fa);
    posix_spawn_file_actions_addopen(&fa, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&fa, 1, out_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&fa, 2, err_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    std::string old_cwd = std::filesystem::current_path().string();
    run_result r;
    // posix_spawn has no portable working-directory action: change ours
    // around the spawn (the tests run one at a time in this process).
    if (chdir(cwd.c_str()) != 0) return r;
    pid_t pid = 0;
    int rc = posix_spawn(&pid, argv[0], &fa, nullptr, argv.data(), envp.data());
    if (chdir(old_cwd.c_str()) != 0) return r;
    posix_spawn_file_actions_destroy(&fa);
    if (rc != 0) return r;
    int status = 0;
    waitpid(pid, &status, 0);
    r.code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    r.out = read_file_text(out_path);
    r.err = read_file_text(err_path);
    return r;
}

std::vector<std::string> lines_of(const std::string &text) {
    std::vector<std::string> lines;
    std::istringstream s(text);
    for (std::string l; std::getline(s, l);) lines.push_back(l);
    return lines;
}

// ---- the --json output -------------------------------------------------------------

using json = nlohmann::json;

// Parses the whole text; fails the test when it is not one JSON value.
json parse_json(const std::string &text) {
    json v = json::parse(text, nullptr, false);
    EXPECT_FALSE(v.is_discarded()) << "not valid JSON:\n" << text;
    return v;
}

// ---- fixtures ----------------------------------------------------------------------

std::string test_player(const char *name) { return std::string(KELVA_TEST_PLAYERS) + "/" + name; }

struct audio_file {
    bool ok = false;
    int rate = 0, channels = 0, format = 0;
    int64_t frames = 0;
    float peak = 0;
    float side = 0;   // largest |left - right| of a stereo file
};

audio_file read_audio(const std::string &path) {
    audio_file a;
    SF_INFO info;
    memset(&info, 0, sizeof info);
    SNDFILE *f = sf_open(path.c_str(), SFM_READ, &info);
    if (!f) return a;
    a.ok = true;
    a.rate = info.samplerate;
    a.channels = info.channels;
    a.format = info.format;
    a.frames = info.frames;
    std::vector<float> buf(4096 * 2);
    sf_count_t n;
    while ((n = sf_readf_float(f, buf.data(), 4096)) > 0)
        for (sf_count_t i = 0; i < n * info.channels; i++) {
            a.peak = std::max(a.peak, std::fabs(buf[size_t(i)]));
            if (info.channels == 2 && i % 2) a.side = std::max(a.side, std::fabs(buf[size_t(i)] - buf[size_t(i - 1)]));
        }
    sf_close(f);
    return a;
}

class CliTest : public ::testing::Test {
protected:
    temp_dir tmp;
    std::string home, data, work;

    void SetUp() override {
        if (access(test_player("Envelope").c_str(), R_OK) != 0 || access(test_player("Subsong").c_str(), R_OK) != 0)
            GTEST_SKIP() << "test players not built (needs the m68k cross compiler): " << KELVA_TEST_PLAYERS;
        home = tmp / "home";
        data = tmp / "data";
        work = tmp / "work";
        std::filesystem::create_directories(home);
        std::filesystem::create_directories(work);
        ASSERT_TRUE(write_file(data + "/eagleplayer.conf", "# test tree\nEnvelope prefixes=envl\nSubsong prefixes=sub\n"));
        for (const char *p : {"Envelope", "Subsong"})
            ASSERT_TRUE(write_file(data + "/players/" + p, read_file_text(test_player(p))));
        ASSERT_TRUE(write_file(work + "/end.envl", envelope_module(0, 0, 150)));       // song end at 3 s
        ASSERT_TRUE(write_file(work + "/quiet.envl", envelope_module(0, 100, 0)));     // silent after 2 s
        ASSERT_TRUE(write_file(work + "/loop.envl", envelope_module(600, 0, 0)));      // repeats every 12 s
        ASSERT_TRUE(write_file(work + "/endless.envl", envelope_module(0, 0, 0)));     // none of those
        ASSERT_TRUE(write_file(work + "/five.sub", std::string(64, 'x')));             // five subsongs
    }

    run_result kelva(const std::vector<std::string> &args) { return run_kelva(args, home, data, work); }
    // The database's records, without its version line.
    std::string db() {
        std::string text = read_file_text(home + "/.local/share/kelva/songlengths.db");
        if (text.rfind("# ", 0) == 0) text.erase(0, text.find('\n') + 1);
        return text;
    }
};

// Checks a failure: exit status 1 and exactly one line on stderr, which
// begins "kelva: " and contains `needle`.
void expect_one_line_failure(const run_result &r, const std::string &needle) {
    EXPECT_EQ(r.code, 1) << r.err;
    std::vector<std::string> lines = lines_of(r.err);
    ASSERT_EQ(lines.size(), 1u) << r.err;
    EXPECT_EQ(lines[0].rfind("kelva: ", 0), 0u) << lines[0];
    EXPECT_NE(lines[0].find(needle), std::string::npos) << lines[0];
}

// ---- render ----------------------------------------------------------------------------

TEST_F(CliTest, RenderStopsAtTheMeasuredLengthAndStoresIt) {
    run_result r = kelva({"render", "end.envl", "-o", "end.wav"});
    ASSERT_EQ(r.code, 0) << r.err;
    audio_file a = read_audio(work + "/end.wav");
    ASSERT_TRUE(a.ok);
    EXPECT_EQ(a.rate, 48000);
    EXPECT_EQ(a.channels, 2);
    EXPECT_EQ(a.format & SF_FORMAT_SUBMASK, SF_FORMAT_PCM_16);
    // The player reports its end after 150 ticks of 960 frames; the length
    // measured (in whole milliseconds) stops the render there.
    EXPECT_NEAR(double(a.frames), 150 * 960, 960);
    EXPECT_GT(a.peak, 0.05f);
    EXPECT_NE(r.out.find("end.wav"), std::string::npos) << r.out;
    // The subsong count and the measured length went into the database, as
    // the plugin stores them.
    EXPECT_EQ(lines_of(db()).size(), 2u) << db();
}

TEST_F(CliTest, RenderHonoursSecondsRateFormatAndBits) {
    run_result r = kelva({"render", "endless.envl", "-o", "out.flac", "--seconds", "1.5", "--rate", "22050"});
    ASSERT_EQ(r.code, 0) << r.err;
    audio_file flac = read_audio(work + "/out.flac");
    ASSERT_TRUE(flac.ok);
    EXPECT_EQ(flac.format & SF_FORMAT_TYPEMASK, SF_FORMAT_FLAC);
    EXPECT_EQ(flac.rate, 22050);
    EXPECT_EQ(flac.frames, 33075);

    r = kelva({"render", "endless.envl", "--seconds", "1", "--bits", "float", "--separation", "0", "--model", "a1200",
               "--led", "on"});
    ASSERT_EQ(r.code, 0) << r.err;
    audio_file wav = read_audio(work + "/endless.wav");   // the default name
    ASSERT_TRUE(wav.ok);
    EXPECT_EQ(wav.format & SF_FORMAT_SUBMASK, SF_FORMAT_FLOAT);
    EXPECT_EQ(wav.frames, 48000);
    EXPECT_GT(wav.peak, 0.01f);
    EXPECT_EQ(wav.side, 0.0f) << "separation 0 gives the same signal on both sides";
    EXPECT_GT(flac.side, 0.01f) << "the default separation keeps channel 0 to one side";
}

TEST_F(CliTest, RenderChoosesSubsongsAndRefusesMissingOnes) {
    run_result r = kelva({"render", "five.sub", "--subsong", "3", "--seconds", "0.5", "-o", "three.wav"});
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_NE(r.out.find("subsong 3 of 5"), std::string::npos) << r.out;
    EXPECT_TRUE(read_audio(work + "/three.wav").ok);

    expect_one_line_failure(kelva({"render", "five.sub", "--subsong", "6"}), "five.sub");
    expect_one_line_failure(kelva({"render", "end.envl", "--subsong", "2"}), "end.envl");
}

// ---- info ------------------------------------------------------------------------------

TEST_F(CliTest, InfoJsonReportsEveryWayALengthIsFound) {
    run_result r = kelva({"info", "--json", "end.envl", "quiet.envl", "loop.envl", "endless.envl"});
    ASSERT_EQ(r.code, 0) << r.err;
    json files = parse_json(r.out);
    ASSERT_TRUE(files.is_array());
    ASSERT_EQ(files.size(), 4u);
    struct expect_t {
        const char *file;
        const char *reason;
        double ms;
    } expected[] = {
        {"end.envl", "song_end", 2980},      // the end is signalled in the 150th tick
        {"quiet.envl", "silence", 3000},     // one second past the start of the silence
        {"loop.envl", "repetition", 12000},  // 600 ticks
        {"endless.envl", "limit", 600000},
    };
    for (size_t i = 0; i < 4; i++) {
        const json &f = files[i];
        SCOPED_TRACE(expected[i].file);
        EXPECT_EQ(f.at("file"), expected[i].file);
        EXPECT_EQ(f.at("player"), "Envelope");
        EXPECT_TRUE(f.at("format").is_string());
        EXPECT_FALSE(f.contains("error"));
        ASSERT_EQ(f.at("subsongs").size(), 1u);
        const json &s = f.at("subsongs").at(0);
        EXPECT_EQ(s.at("subsong").get<double>(), 0);
        EXPECT_EQ(s.at("reason"), expected[i].reason);
        EXPECT_NEAR(s.at("length_ms").get<double>(), expected[i].ms, 40);
    }

    // The second time every length comes from the database, unchanged.
    json again = parse_json(kelva({"info", "--json", "end.envl", "quiet.envl"}).out);
    ASSERT_EQ(again.size(), 2u);
    for (size_t i = 0; i < 2; i++) {
        EXPECT_EQ(again[i].at("subsongs").at(0).at("reason"), "database");
        EXPECT_EQ(again[i].at("subsongs").at(0).at("length_ms").get<double>(),
                  files[i].at("subsongs").at(0).at("length_ms").get<double>());
    }
}

TEST_F(CliTest, InfoListsSubsongsAndStoresTheCountUnderItsOwnKey) {
    run_result r = kelva({"info", "--json", "five.sub"});
    ASSERT_EQ(r.code, 0) << r.err;
    json files = parse_json(r.out);
    ASSERT_EQ(files.size(), 1u);
    const json &subs = files[0].at("subsongs");
    ASSERT_EQ(subs.size(), 5u);
    for (size_t i = 0; i < 5; i++) EXPECT_EQ(subs[i].at("subsong").get<double>(), double(i + 1));
    // One record for the count (value 5) and one per subsong.
    std::vector<std::string> lines = lines_of(db());
    ASSERT_EQ(lines.size(), 6u) << db();
    EXPECT_NE(lines[0].find(" 5 "), std::string::npos) << lines[0];
    for (const std::string &l : lines) {
        EXPECT_EQ(l.find(' '), 32u) << l;
        EXPECT_NE(l.find(work + "/five.sub"), std::string::npos) << l;
    }

    run_result text = kelva({"info", "five.sub"});
    ASSERT_EQ(text.code, 0) << text.err;
    EXPECT_NE(text.out.find("subsongs: 5"), std::string::npos) << text.out;
    EXPECT_NE(text.out.find("subsong 5: "), std::string::npos) << text.out;
}

TEST_F(CliTest, InfoJsonGivesUnplayableFilesAnErrorAndEscapesNames) {
    std::string odd = "we\"ird\\name\t\x01\xff.envl";
    ASSERT_TRUE(write_file(work + "/" + odd, envelope_module(0, 0, 50)));
    run_result r = kelva({"info", "--json", odd, "missing.envl", "end.envl"});
    EXPECT_EQ(r.code, 1);
    json files = parse_json(r.out);
    ASSERT_EQ(files.size(), 3u);
    // The invalid UTF-8 byte becomes U+FFFD; everything else comes back as it was.
    EXPECT_EQ(files[0].at("file"), "we\"ird\\name\t\x01\xEF\xBF\xBD.envl");
    EXPECT_EQ(files[0].at("subsongs").size(), 1u);
    EXPECT_TRUE(files[1].contains("error"));
    EXPECT_FALSE(files[1].contains("subsongs"));
    EXPECT_NE(files[1].at("error").get<std::string>().find("missing.envl"), std::string::npos);
    EXPECT_EQ(files[2].at("subsongs").size(), 1u);
    expect_one_line_failure(r, "missing.envl");
}

// ---- scan ------------------------------------------------------------------------------

TEST_F(CliTest, ScanMeasuresATreeAndASecondScanFindsEverythingKnown) {
    std::string tree = tmp / "tree";
    for (const char *f : {"end.envl", "quiet.envl", "five.sub"})
        ASSERT_TRUE(write_file(tree + "/deep/er/" + f, read_file_text(work + "/" + f)));
    ASSERT_TRUE(write_file(tree + "/loop.envl", read_file_text(work + "/loop.envl")));
    ASSERT_TRUE(write_file(tree + "/notes.txt", "not a module\n"));
    ASSERT_TRUE(write_file(tree + "/empty.envl", ""));

    run_result first = kelva({"scan", tree, "--jobs", "2"});
    ASSERT_EQ(first.code, 0) << first.err;
    EXPECT_NE(first.out.find("4 claimed by a player"), std::string::npos) << first.out;
    EXPECT_NE(first.out.find("subsongs: 8 (0 already in the database, 8 measured now)"), std::string::npos) << first.out;
    EXPECT_NE(first.out.find("failures: 0"), std::string::npos) << first.out;
    // 2.98 + 3 + 12 + 5 x 1 s (the five subsongs fall silent at once) = 22.98 s.
    EXPECT_NE(first.out.find("music:    23.0 s in all"), std::string::npos) << first.out;
    // A count record for each file plus a length per subsong.
    EXPECT_EQ(lines_of(db()).size(), 12u) << db();

    run_result second = kelva({"scan", tree, "--jobs", "1"});
    ASSERT_EQ(second.code, 0) << second.err;
    EXPECT_NE(second.out.find("subsongs: 8 (8 already in the database, 0 measured now)"), std::string::npos)
        << second.out;
    EXPECT_EQ(lines_of(db()).size(), 12u) << "a second scan must not add records";

    // What the scan stored is what info then reads.
    json files = parse_json(kelva({"info", "--json", tree + "/loop.envl"}).out);
    ASSERT_EQ(files.size(), 1u);
    EXPECT_EQ(files[0].at("subsongs").at(0).at("reason"), "database");
    EXPECT_EQ(files[0].at("subsongs").at(0).at("length_ms").get<double>(), 12000);
}

TEST_F(CliTest, ScanOfAMissingFolderFails) {
    run_result r = kelva({"scan", tmp / "nowhere"});
    EXPECT_EQ(r.code, 1);
    EXPECT_NE(r.err.find("kelva: cannot read folder " + (tmp / "nowhere")), std::string::npos) << r.err;
}

// ---- bad input and usage -------------------------------------------------------------------

TEST_F(CliTest, BadInputsGiveOneLineNamingTheFile) {
    std::string noise;
    uint32_t x = 0x9E3779B9;
    for (int i = 0; i < 5000; i++) {
        x ^= x << 13, x ^= x >> 17, x ^= x << 5;
        noise.push_back(char(x));
    }
    ASSERT_TRUE(write_file(work + "/noise.bin", noise));
    ASSERT_TRUE(write_file(work + "/noise.xyz", noise));
    ASSERT_TRUE(write_file(work + "/empty.envl", ""));
    ASSERT_TRUE(write_file(work + "/huge.envl", read_file_text(work + "/end.envl") + std::string(983040, '\0')));
    std::filesystem::create_directories(work + "/folder.envl");
    struct case_t {
        const char *file;
        const char *reason;
    } cases[] = {
        {"missing.envl", "cannot open missing.envl"},
        {"folder.envl", "folder.envl is a directory"},
        {"empty.envl", "empty or unreadable file empty.envl"},
        {"noise.bin", "no player matches noise.bin"},
        {"noise.xyz", "no player matches noise.xyz"},
        {"huge.envl", "huge.envl is too large for the emulated Amiga"},
    };
    for (const case_t &c : cases) {
        SCOPED_TRACE(c.file);
        expect_one_line_failure(kelva({"render", c.file}), c.reason);
        expect_one_line_failure(kelva({"info", c.file}), c.reason);
        expect_one_line_failure(kelva({"play", c.file}), c.reason);
    }
    EXPECT_FALSE(std::filesystem::exists(work + "/noise.wav"));
}

TEST_F(CliTest, UsageErrorsExitWithTwo) {
    std::vector<std::vector<std::string>> usage = {
        {},
        {"frobnicate"},
        {"render"},
        {"render", "a.envl", "b.envl"},
        {"render", "end.envl", "--rate", "12"},
        {"render", "end.envl", "--bits", "float", "--format", "flac"},
        {"render", "end.envl", "--model", "a3000"},
        {"render", "end.envl", "--led", "maybe"},
        {"render", "end.envl", "--separation", "2"},
        {"render", "end.envl", "--seconds"},
        {"info"},
        {"info", "--jsn", "end.envl"},
        {"scan"},
        {"scan", ".", "--jobs", "0"},
        {"play"},
    };
    for (const auto &args : usage) {
        run_result r = kelva(args);
        std::string shown;
        for (const std::string &a : args) shown += a + " ";
        EXPECT_EQ(r.code, 2) << shown << "\n" << r.err;
        EXPECT_FALSE(r.err.empty()) << shown;
    }
    for (const char *cmd : {"render", "info", "scan", "play"}) {
        run_result r = kelva({cmd, "--help"});
        EXPECT_EQ(r.code, 0) << cmd;
        EXPECT_EQ(r.out.rfind(std::string("usage: kelva ") + cmd, 0), 0u) << r.out;
    }
}

TEST_F(CliTest, DataOptionPicksTheTree) {
    // Without KELVA_DATA the search finds no tree with an "envl" line...
    run_result none = run_kelva({"info", "end.envl"}, home, "", work);
    expect_one_line_failure(none, "no player matches end.envl");
    // ...and --data names it, before or after the command.
    EXPECT_EQ(run_kelva({"--data", data, "info", "end.envl"}, home, "", work).code, 0);
    EXPECT_EQ(run_kelva({"info", "end.envl", "--data", data}, home, "", work).code, 0);
    expect_one_line_failure(run_kelva({"--data", work, "info", "end.envl"}, home, "", work), "not a data tree");
}

// ---- the demo tune and real modules (need the ProTracker player) -------------------------------

class CliModuleTest : public CliTest {
protected:
    void SetUp() override {
        if (access((std::string(KELVA_BUILD_DATA) + "/players/PTK-Prowiz").c_str(), R_OK) != 0)
            GTEST_SKIP() << "the ProTracker player is not built yet (" << KELVA_BUILD_DATA << "/players/PTK-Prowiz)";
        CliTest::SetUp();
        data = KELVA_BUILD_DATA;
    }
};

TEST_F(CliModuleTest, DemoTuneEndsBySongEndAndRendersAudibly) {
    run_result r = kelva({"info", "--json", KELVA_DEMO_MOD});
    ASSERT_EQ(r.code, 0) << r.err;
    json files = parse_json(r.out);
    ASSERT_EQ(files.size(), 1u);
    const json &f = files[0];
    EXPECT_EQ(f.at("player"), "PTK-Prowiz");
    EXPECT_EQ(f.at("format"), "ProTracker (31-instrument M.K.)");
    ASSERT_EQ(f.at("subsongs").size(), 1u);
    const json &s = f.at("subsongs").at(0);
    EXPECT_EQ(s.at("reason"), "song_end");
    // Six positions of 64 rows at speed 6, tempo 125: 46.08 s.
    EXPECT_NEAR(s.at("length_ms").get<double>(), 46080, 200);

    r = kelva({"render", KELVA_DEMO_MOD, "-o", "demo.wav"});
    ASSERT_EQ(r.code, 0) << r.err;
    audio_file a = read_audio(work + "/demo.wav");
    ASSERT_TRUE(a.ok);
    EXPECT_NEAR(double(a.frames) / 48000.0, 46.08, 0.2);
    EXPECT_GT(a.peak, 0.1f);
}

TEST_F(CliModuleTest, ARandomModThatDoesNotStartIsOneLineAndStoredAsFailed) {
    std::string noise;
    uint32_t x = 0x2545F491;
    for (int i = 0; i < 5000; i++) {
        x ^= x << 13, x ^= x >> 17, x ^= x << 5;
        noise.push_back(char(x));
    }
    ASSERT_TRUE(write_file(work + "/noise.mod", noise));
    expect_one_line_failure(kelva({"render", "noise.mod"}), "noise.mod failed to start on ");
    // Like the plugin: one subsong, length -1, so it is not tried again.
    std::vector<std::string> lines = lines_of(db());
    ASSERT_EQ(lines.size(), 2u) << db();
    EXPECT_NE(lines[0].find(" 1 "), std::string::npos) << lines[0];
    EXPECT_NE(lines[1].find(" -1 "), std::string::npos) << lines[1];
    json files = parse_json(kelva({"info", "--json", "noise.mod"}).out);
    ASSERT_EQ(files.size(), 1u);
    EXPECT_NE(files[0].at("error").get<std::string>().find("failed to start"), std::string::npos);
}

TEST_F(CliModuleTest, RealModulesHaveTheirLengths) {
    KELVA_REQUIRE_SHARED("testdata/modules/debian");
    // Lengths other players give these tunes (testdata/modules/README.md).
    // android-commando repeats one section for over 30 s: its player's song
    // end, not the repetition, gives its length.
    struct tune {
        const char *file;
        double seconds;
        const char *title;   // the module's first 20 bytes
    } tunes[] = {{"corpses.mod", 55.08, "corpses_in_rain"}, {"android-commando_hiscore.mod", 61.439, "Commando Hiscore"}};
    std::vector<std::string> args = {"info", "--json"};
    for (const tune &t : tunes) args.push_back(shared_dir() + "/testdata/modules/debian/" + t.file);
    run_result r = kelva(args);
    ASSERT_EQ(r.code, 0) << r.err;
    json files = parse_json(r.out);
    ASSERT_EQ(files.size(), 2u);
    for (size_t i = 0; i < 2; i++) {
        SCOPED_TRACE(tunes[i].file);
        const json &s = files[i].at("subsongs").at(0);
        EXPECT_EQ(files[i].at("format"), "ProTracker (31-instrument M.K.)");
        EXPECT_EQ(files[i].at("player_signals_end"), true);
        EXPECT_EQ(files[i].at("title"), tunes[i].title);
        EXPECT_TRUE(files[i].at("author").is_null());
        EXPECT_EQ(s.at("reason"), "song_end");
        EXPECT_NEAR(s.at("length_ms").get<double>() / 1000.0, tunes[i].seconds, 1.5);
    }
    r = kelva({"render", args[2], "--seconds", "5", "-o", "corpses.flac"});
    ASSERT_EQ(r.code, 0) << r.err;
    audio_file a = read_audio(work + "/corpses.flac");
    EXPECT_EQ(a.frames, 5 * 48000);
    EXPECT_GT(a.peak, 0.05f);
}

}  // namespace
