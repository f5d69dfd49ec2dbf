// The shared real modules of kelva's tracker, MED and AHX players, as the plugin opens them (identify, open,
// render); their lengths and envelopes are tests/reference/compare.py's.
#include <cmath>
#include <filesystem>
#include <map>

#include "ptk_support.h"

using namespace trk;

namespace {

constexpr const char *kPT = "ProTracker (31-instrument M.K.)", *kComp = "Fasttracker / multichannel",
                     *kAM = "Startrekker AM (FLT4 + .nt)", *kMmd3 = "OctaMED Soundstudio (MMD3)";

// Every module file of a folder (companion .nt files aside) is played by the player of the row naming it, as
// its format, or else by the row naming its folder. The 15-instrument players name no format.
struct module_row {
    const char *player, *format, *files;
};
const module_row kModules[] = {
    {"PTK-Prowiz", kPT, "debian/|variants/jul-paaske.mod|multichannel/bluesy.mod"},   // CD81 keeps type:pt30
    {"PTK-Prowiz", kComp, "debian/gluppobe.mod|debian/starpaws.mod|debian/waterfal.mod|effects/|multichannel/"},
    {"PTK-Prowiz", "NoiseTracker 2.x",
     "effects/NoteDelay-NextRow.mod|effects/PTStoppedSwap.mod|effects/PTSwapEmpty.mod|effects/PTSwapNoLoop.mod|"
     "effects/PatternDelaysRetrig.mod|effects/PortaSmpChange.mod|effects/PortaTarget.mod|effects/TempoChange.mod|"
     "variants/blue damage.mod"},
    {"PTK-Prowiz", "Soundtracker (15-instrument)", "st15/GBUSTERS.MOD|st15/cant.mod"},
    {"PTK-Prowiz", "Startrekker 4ch (FLT4)", "variants/Tinytune.mod|variants/s0d.mod"},
    {"PTK-Prowiz", "His Master's Noise (M&K!)", "variants/lind.mod"},
    {"Soundtracker-IV", "", "st15/Crepequs.mod"},
    {"UltimateSoundtracker", "", "st15/GAMEMUSIC.mod|st15/lepeltheme.mod"},
    {"AudioSculpture", kAM, "startrekker-am/"},
    {"Oktalyzer", "Oktalyzer", "okt/"},
    {"Oktalyzer", "Oktalyzer (OKTASNG2)", "okt/45.okt2"},
    {"SoundFX", "SoundFX 1.3", "other/SFX.Crockett's_theme"},
    {"GameMusicCreator", "Game Music Creator", "other/gmc.ingame"},
    {"ImagesMusicSystem", "Images Music System", "other/redoctober-sub-docking.ims"},
    {"PolyTracker", "PolyTracker", "other/rew_vibr.ptm|other/pattern_loop_ptm.ptm"},
    {"DIGIBooster", "DIGI Booster 1.4", "other/yyde2.digi"},
    {"MED", "OctaMED (MMD1)", "med/"},
    {"MED", "MED (MED3)", "med/med3song.med"},
    {"MED", "MED (MED4)", "med/med4song.med|med/Synth-a-sysmic.med"},
    {"MED", "MED (MMD0)", "med/finetune.med|med/mmd0_compat_tempo.med|med/med_hold_3xx.med"},
    {"MED", kMmd3, "med/stereo.med|med/instruments.mmd3|med/moods-yeah.med"},
    {"MED", "OctaMED (MMD2)", "med/mmd2_compat_tempo.med"},
    {"AHX", "AHX (THX v1)", "ahx/"},
    {"HivelyTracker", "HivelyTracker (HVL v0)", "hvl/"},
};
// Titles of MED, AHX, HVL and IMS files (the other MED files have none: "").
const std::map<std::string, std::string> kTitles = {
    {"other/redoctober-sub-docking.ims", "sub-docking"},
    {"med/fair.med", "fairlight"}, {"med/stereo.med", "Stereo Samples"}, {"med/mmd2_compat_tempo.med", "<unnamed>"},
    {"med/instruments.mmd3", "MMD3 Instrument Testing"}, {"med/med_hold_3xx.med", "Hold + Toneporta (3xx only)"},
    {"med/med_synth_diff_speeds.med", "Synth VSpeed != WSpeed"}, {"ahx/AHX.Phaser", "phaser"},
    {"med/moods-yeah.med", "mOOdS - I Am In :) .... Preview!"}, {"ahx/AHX.too_far", "too_far"},
    {"hvl/chiprolled.hvl", "never gonna give you up"}, {"hvl/waiting_for_a_message.hvl", "Waiting for a message"}};

class PtkRealModules : public ::testing::Test {
    void SetUp() override {
        KELVA_REQUIRE_SHARED("testdata/modules");
        PTK_REQUIRE_PLAYERS("PTK-Prowiz", "MED", "AHX", "HivelyTracker");
    }
    data_tree_env env;
};

}  // namespace

// Every module: its player and format, a song-end signal, sound in the first two seconds (some MED and AHX
// songs start later; Startrekker AM ones alike left and right) and titles. A name ending ".st" does not
// mislead the choice of the IMS file.
TEST_F(PtkRealModules, EachIsPlayedByItsPlayerAsItsFormat) {
    std::map<std::string, const module_row *> rows;   // file or folder/ -> row
    for (const auto &row : kModules)
        for (const char *f = row.files; *f; f += strcspn(f, "|") + (f[strcspn(f, "|")] == '|'))
            rows[std::string(f, strcspn(f, "|"))] = &row;
    std::vector<std::pair<std::string, std::string>> files = {{"other/redoctober-sub-docking.ims", "sub-docking.st"}};
    for (const char *folder : {"debian", "st15", "variants", "effects", "multichannel", "startrekker-am", "okt",
                               "other", "med", "ahx", "hvl"})
        for (const auto &e : std::filesystem::directory_iterator(shared_dir() + "/testdata/modules/" + folder))
            if (e.path().extension() != ".md" && e.path().extension() != ".nt" && e.path().extension() != ".tsv")
                files.push_back({std::string(folder) + "/" + e.path().filename().string(), ""});
    for (const auto &[file, as] : files) {
        SCOPED_TRACE(file + " " + as);
        auto it = rows.count(file) ? rows.find(file) : rows.find(file.substr(0, file.find('/') + 1));
        ASSERT_NE(it, rows.end()) << "not in the table";
        const module_row *row = it->second;
        std::string player;
        engine_ptr k = open_identified(file, &player, as);
        ASSERT_TRUE(k) << "not identified or not opened";
        char name[64];
        kelva_get_player_name(k.get(), name, sizeof name);
        EXPECT_EQ(player + " " + name + " " + kelva_get_format_name(k.get()),
                  player_path(row->player) + " " + row->player + " " + row->format);
        EXPECT_TRUE(kelva_get_player_flags(k.get()) & KELVA_PLAYER_SONGEND);
        kelva_get_module_name(k.get(), name, sizeof name);
        const std::string dir = file.substr(0, 4);
        const bool med = dir == "med/", titled = med || dir == "ahx/" || dir == "hvl/";
        EXPECT_EQ(std::string(name), kTitles.count(file) ? kTitles.at(file) : med ? "" : name) << "title";
        std::vector<float> pcm(96000 * 2);
        double peak = 0, energy = 0, diff = 0;
        kelva_render(k.get(), pcm.data(), 96000);
        for (size_t i = 0; i < pcm.size(); i += 2) {
            double l = pcm[i], r = pcm[i + 1];
            peak = std::max(peak, std::max(std::fabs(l), std::fabs(r))), energy += l * l, diff += (l - r) * (l - r);
        }
        EXPECT_TRUE(titled || peak > 1.0 / 1024) << "silent";   // the length measurement's silence level
        EXPECT_TRUE(row->format != kAM || diff < energy * 1e-3) << "left and right differ";
    }
}

// The modules whose length the reference comparison leaves unchecked (its KNOWN list) must still end by the
// player's own signal; where it excuses its renderer's length, the length (frames; a tick is rounded to whole
// frames) is checked here. med3song: 40 lines of 6 ticks at tempo 32 (14631 cycles: 990 frames), 24 at tempo
// 192 (2438 cycles: 165); Synth-a-sysmic: 3296 lines of 6 ticks at tempo 35 (13376 cycles: 905).
TEST_F(PtkRealModules, UnmeasuredOnesEndBySongEnd) {
    const std::pair<const char *, int> kFiles[] = {
        {"effects/PatLoop-Break.mod", 0}, {"startrekker-am/flt_am_override.mod", 0}, {"other/pattern_loop_ptm.ptm", 0},
        {"med/med3song.med", 40 * 6 * 990 + 24 * 6 * 165}, {"med/Synth-a-sysmic.med", 3296 * 6 * 905}};
    for (const auto &[f, frames] : kFiles) {
        engine_ptr k = open_identified(f);
        ASSERT_TRUE(k) << f;
        const double ms = double(observe(k.get(), 0, 'L', 0));   // -reason unless by the song's end
        EXPECT_TRUE(ms > 0 && (!frames || std::fabs(ms - frames / 48.0) <= 25)) << f << ": " << ms;
    }
}

// flt_am_envelope.mod: instrument 1's attack from 0x40 by 2 a tick, instrument 2's from 0x20 by 1, applied on
// the note's own tick (Paula volume = level / 4): 0x42 / 4 = 16 and 0x21 / 4 = 8 on tick 1, 0xA0 / 4 = 40 and
// 0x50 / 4 = 20 on tick 48; both reach their levels (0xFF, 0x80) on tick 96, the second attack, decay and
// sustain (ST 0) take a tick each and the release (rate 255, 128) ends at 0 on tick 100. Attack rate 0 holds
// L0 = 0 (channel 3); FQ 1 plays an octave below C-2.
TEST_F(PtkRealModules, AmEnvelopeStepsOnceATick) {
    engine_ptr k = open_identified("startrekker-am/flt_am_envelope.mod");
    ASSERT_TRUE(k);
    expect_probes(k.get(), "@1 v0=16 v1=8 @48 v0=40 v1=20 @95 v0=63 v1=31 @96 v0=63 v1=32 @99 v0=63 v1=32 "
                           "@100 v0=0 v1=0 @1-100 v3=0 p0=856");
}
